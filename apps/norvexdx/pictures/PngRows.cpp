#include "apps/norvexdx/pictures/PngRows.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <type_traits>

namespace Norvex::App {

namespace {

// A number that the compiler knows, so that it computes a block at once.
using BlockSize = std::integral_constant<std::size_t, 16>; // bytes
constexpr std::size_t kMaxPixelSize = 8;                   // bytes

using RowBytes = std::vector<std::uint8_t>;

// PNG is big-endian, this machine is not.
std::uint64_t SwapSamples(std::uint64_t pixel) {
    constexpr std::uint64_t kLowBytes = 0x00FF'00FF'00FF'00FF;
    return (pixel & kLowBytes) << 8 | (pixel >> 8 & kLowBytes);
}

std::uint32_t SwapSamples(std::uint32_t pixel) {
    return pixel;
}

// Each pixel is stored whole: the next one takes the place of what is not wanted of it.
template <class Pixel>
void PackPixels(const std::uint8_t* pixels, std::size_t count, std::size_t packedSize,
                std::uint8_t* bytes) {
    for (std::size_t i = 0; i < count; ++i) {
        Pixel pixel = 0;
        std::memcpy(&pixel, pixels + i * sizeof(Pixel), sizeof(Pixel));
        pixel = SwapSamples(pixel);
        std::memcpy(bytes + i * packedSize, &pixel, sizeof(Pixel));
    }
}

std::uint8_t PredictPaeth(std::uint8_t left, std::uint8_t above, std::uint8_t aboveLeft) {
    const auto distance = [](int value) { return static_cast<std::int16_t>(std::abs(value)); };
    const std::int16_t toLeft = distance(above - aboveLeft);
    const std::int16_t toAbove = distance(left - aboveLeft);
    const std::int16_t toAboveLeft = distance(left + above - 2 * aboveLeft);
    const std::uint8_t other = toAbove <= toAboveLeft ? above : aboveLeft;
    const bool isLeft = toLeft <= toAbove && toLeft <= toAboveLeft;
    return isLeft ? left : other;
}

// Tries the filters on a row, and keeps the result whose bytes, taken as signed numbers, have the
// least sum of magnitudes: the choice that PNG recommends.
class Trial {
public:
    Trial(std::size_t rowSize, std::size_t pixelSize)
        : m_pixelSize(pixelSize),
          m_best(1 + rowSize),
          m_next(1 + rowSize) {}

    // Before both rows lie kMaxPixelSize bytes of zero.
    const RowBytes& Run(const std::uint8_t* row, const std::uint8_t* above) {
        m_leastSum = std::numeric_limits<std::uint64_t>::max();
        using Byte = std::uint8_t;
        Try(0, row, above, [](Byte, Byte, Byte) { return Byte{0}; });
        Try(1, row, above, [](Byte left, Byte, Byte) { return left; });
        Try(2, row, above, [](Byte, Byte up, Byte) { return up; });
        Try(3, row, above,
            [](Byte left, Byte up, Byte) { return static_cast<Byte>((left + up) / 2); });
        Try(4, row, above, &PredictPaeth);
        return m_best;
    }

private:
    template <class Predict>
    void Try(std::uint8_t type, const std::uint8_t* row, const std::uint8_t* above,
             Predict predict) {
        std::uint8_t* out = m_next.data() + 1;
        const auto filter = [&](std::size_t begin, auto count) {
            std::uint16_t sum = 0;
            for (std::size_t i = begin; i < begin + count; ++i) {
                const std::uint8_t guess =
                    predict(row[i - m_pixelSize], above[i], above[i - m_pixelSize]);
                const auto rest = static_cast<std::uint8_t>(row[i] - guess);
                out[i] = rest;
                sum = static_cast<std::uint16_t>(sum + (rest < 128 ? rest : 256 - rest));
            }
            return sum;
        };
        const std::size_t size = m_next.size() - 1;
        std::uint64_t sum = 0;
        std::size_t done = 0;
        for (; done + BlockSize() <= size; done += BlockSize()) {
            sum += filter(done, BlockSize());
        }
        sum += filter(done, size - done);
        if (sum < m_leastSum) {
            m_leastSum = sum;
            m_next.front() = type;
            m_best.swap(m_next);
        }
    }

    std::size_t m_pixelSize;
    RowBytes m_best;
    RowBytes m_next;
    std::uint64_t m_leastSum = 0;
};

} // namespace

void PngRows::Pack(std::size_t row, std::uint8_t* bytes) const {
    const std::uint8_t* pixels = m_image.GetRow(row);
    if (m_image.bitsPerChannel == 16) {
        PackPixels<std::uint64_t>(pixels, m_image.width, m_pixelSize, bytes);
    } else {
        PackPixels<std::uint32_t>(pixels, m_image.width, m_pixelSize, bytes);
    }
}

void PngRows::Filter(std::size_t first, std::size_t last,
                     std::vector<std::uint8_t>& filtered) const {
    // The pixel before a row is zero, and packing stores a little past its end.
    RowBytes above(kMaxPixelSize + GetPackedSize() + kMaxPixelSize);
    RowBytes row(above.size());
    if (first != 0) {
        Pack(first - 1, above.data() + kMaxPixelSize);
    }
    filtered.clear();
    filtered.reserve((last - first) * GetSize());
    Trial trial(GetPackedSize(), m_pixelSize);
    for (std::size_t y = first; y < last; ++y) {
        Pack(y, row.data() + kMaxPixelSize);
        const RowBytes& best = trial.Run(row.data() + kMaxPixelSize, above.data() + kMaxPixelSize);
        filtered.insert(filtered.end(), best.begin(), best.end());
        row.swap(above);
    }
}

} // namespace Norvex::App
