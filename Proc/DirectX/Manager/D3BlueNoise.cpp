#include "Proc/DirectX/Manager/D3BlueNoise.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace Norvex::DX {

namespace {

constexpr std::size_t kNoisePixels = kBlueNoiseSize * kBlueNoiseSize;
using NoiseRanks = std::array<std::uint16_t, kNoisePixels>;

// Pixels that are set, and how near those are to each pixel. In whole numbers: the same on every
// system, and what is taken away leaves nothing.
class NoisePattern {
public:
    NoisePattern() {
        constexpr double kSigma = 1.5; // pixels; what the paper found best
        constexpr double kOne = 1 << 20;
        for (std::size_t distance = 0; distance < m_weights.size(); ++distance) {
            const auto squared = static_cast<double>(distance);
            m_weights.at(distance) = static_cast<std::uint32_t>(
                std::lround(kOne * std::exp(-squared / (2.0 * kSigma * kSigma))));
        }
    }

    bool IsSet(std::size_t pixel) const { return m_isSet.at(pixel) != 0; }
    void Set(std::size_t pixel) {
        m_isSet.at(pixel) = ~0U;
        ForEachNear(pixel, [](std::uint32_t& energy, std::uint32_t weight) { energy += weight; });
    }
    void Clear(std::size_t pixel) {
        m_isSet.at(pixel) = 0;
        ForEachNear(pixel, [](std::uint32_t& energy, std::uint32_t weight) { energy -= weight; });
    }

    // The set pixel that others are nearest to.
    std::size_t FindTightestCluster() const {
        return FindLargest([this](std::size_t i) { return m_energy[i] & m_isSet[i]; });
    }
    // The other pixel that they are farthest from.
    std::size_t FindLargestVoid() const {
        return FindLargest([this](std::size_t i) { return ~(m_energy[i] | m_isSet[i]); });
    }

private:
    static constexpr std::size_t kReach = 9; // pixels; beyond, weights round to 0

    template <class Change>
    void ForEachNear(std::size_t pixel, const Change& change) {
        const std::size_t left = pixel % kBlueNoiseSize + kBlueNoiseSize - kReach;
        const std::size_t top = pixel / kBlueNoiseSize + kBlueNoiseSize - kReach;
        for (std::size_t y = 0; y <= 2 * kReach; ++y) {
            for (std::size_t x = 0; x <= 2 * kReach; ++x) {
                const std::size_t across = x < kReach ? kReach - x : x - kReach;
                const std::size_t down = y < kReach ? kReach - y : y - kReach;
                change(m_energy[(top + y) % kBlueNoiseSize * kBlueNoiseSize +
                                (left + x) % kBlueNoiseSize],
                       m_weights[across * across + down * down]);
            }
        }
    }
    // The first of them.
    template <class Rate>
    static std::size_t FindLargest(const Rate& rate) {
        std::uint32_t largest = 0;
        for (std::size_t i = 0; i < kNoisePixels; ++i) {
            largest = std::max(largest, rate(i));
        }
        std::size_t at = 0;
        while (rate(at) != largest) {
            ++at;
        }
        return at;
    }

    std::array<std::uint32_t, 2 * kReach * kReach + 1> m_weights = {}; // of squared distances
    std::array<std::uint32_t, kNoisePixels> m_energy = {};
    std::array<std::uint32_t, kNoisePixels> m_isSet = {}; // all bits or none
};

// A tenth of the pixels, moved from clusters to voids until that changes nothing.
std::size_t MakePrototype(NoisePattern& pattern) {
    std::minstd_rand random(64);
    std::size_t count = 0;
    while (count < kNoisePixels / 10) {
        const std::size_t pixel = random() % kNoisePixels;
        if (!pattern.IsSet(pixel)) {
            pattern.Set(pixel);
            ++count;
        }
    }
    std::size_t from = 0;
    std::size_t to = kNoisePixels;
    while (from != to) {
        from = pattern.FindTightestCluster();
        pattern.Clear(from);
        to = pattern.FindLargestVoid();
        pattern.Set(to);
    }
    return count;
}

// The prototype's pixels from the tightest cluster down, then the others by the largest void. That
// is the tightest cluster of what is not set, too: the weights of all pixels are a constant.
NoiseRanks MakeBlueNoise() {
    NoiseRanks ranks = {};
    NoisePattern prototype;
    const std::size_t count = MakePrototype(prototype);
    NoisePattern pattern = prototype;
    for (std::size_t rank = count; rank > 0; --rank) {
        const std::size_t pixel = pattern.FindTightestCluster();
        pattern.Clear(pixel);
        ranks.at(pixel) = static_cast<std::uint16_t>(rank - 1);
    }
    for (std::size_t rank = count; rank < kNoisePixels; ++rank) {
        const std::size_t pixel = prototype.FindLargestVoid();
        prototype.Set(pixel);
        ranks.at(pixel) = static_cast<std::uint16_t>(rank);
    }
    return ranks;
}

} // namespace

const NoiseRanks& GetBlueNoiseRanks() {
    static const NoiseRanks ranks = MakeBlueNoise();
    return ranks;
}

} // namespace Norvex::DX
