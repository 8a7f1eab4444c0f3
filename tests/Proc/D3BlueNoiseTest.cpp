// The pattern of blue noise, by its properties.

#include <complex>
#include <numbers>
#include <set>

#include <gtest/gtest.h>

#include "Proc/DirectX/Manager/D3BlueNoise.h"

namespace Norvex::Test {

namespace {

// At every level: the energy of waves longer than ten pixels, beside white noise of the same mean.
TEST(D3BlueNoiseTest, HasEachRankOnceAndNoLowFrequencies) {
    constexpr unsigned kSize = DX::kBlueNoiseSize;
    const auto& ranks = DX::GetBlueNoiseRanks();
    const std::set<unsigned> all(ranks.begin(), ranks.end());
    EXPECT_EQ(all.size(), ranks.size());
    EXPECT_EQ(*all.rbegin(), ranks.size() - 1);
    for (unsigned level = kSize * 2; level < ranks.size(); level += kSize * 2) {
        double energy = 0.0;
        unsigned waves = 0;
        for (int u = -6; u <= 6; ++u) {
            for (int v = 0; v <= 6; ++v) {
                if (u * u + v * v == 0 || u * u + v * v > 36) {
                    continue;
                }
                std::complex<double> wave = 0.0;
                for (unsigned i = 0; i < ranks.size(); ++i) {
                    const int phase =
                        u * static_cast<int>(i % kSize) + v * static_cast<int>(i / kSize);
                    wave +=
                        ranks[i] < level ? std::polar(1.0, phase * (std::numbers::pi / 32.0)) : 0.0;
                }
                energy += std::norm(wave);
                ++waves;
            }
        }
        const double share = level / static_cast<double>(ranks.size());
        const double white = share * (1.0 - share) * static_cast<double>(ranks.size());
        EXPECT_LT(energy / waves / white, 0.12) << level;
    }
}

} // namespace

} // namespace Norvex::Test
