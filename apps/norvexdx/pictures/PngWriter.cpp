#include "apps/norvexdx/pictures/PngWriter.h"

#include <cstring>
#include <span>
#include <string_view>
#include <vector>

#include <zlib.h>

#include "apps/norvexdx/pictures/PngStrips.h"

namespace Norvex::App {

namespace {

using ChunkBytes = std::vector<std::uint8_t>;

void AppendNumber(ChunkBytes& bytes, std::size_t number) {
    for (const unsigned shift : {24U, 16U, 8U, 0U}) {
        bytes.push_back(static_cast<std::uint8_t>(number >> shift));
    }
}

// Length, type, data and the check of the last two.
void WriteChunk(OutputFile& file, std::string_view type, std::span<const std::uint8_t> data) {
    ChunkBytes head;
    AppendNumber(head, data.size());
    head.insert(head.end(), type.begin(), type.end());
    uLong check = crc32(0, head.data() + head.size() - type.size(), static_cast<uInt>(type.size()));
    if (!data.empty()) { // zlib would take the null pointer for the wish to begin anew
        check = crc32(check, data.data(), static_cast<uInt>(data.size()));
    }
    ChunkBytes tail;
    AppendNumber(tail, check);
    file.Write(head.data(), head.size());
    file.Write(data.data(), data.size());
    file.Write(tail.data(), tail.size());
}

void WriteHeader(OutputFile& file, const ImageView& image, bool isOpaque) {
    constexpr std::uint8_t kSignature[] = {137, 'P', 'N', 'G', '\r', '\n', 26, '\n'};
    constexpr std::uint8_t kColor = 2;
    constexpr std::uint8_t kColorWithAlpha = 6;
    ChunkBytes header;
    AppendNumber(header, image.width);
    AppendNumber(header, image.height);
    // The last three: the one compression, the one set of filters, no interlacing.
    header.insert(header.end(), {static_cast<std::uint8_t>(image.bitsPerChannel),
                                 isOpaque ? kColor : kColorWithAlpha, 0, 0, 0});
    file.Write(kSignature, sizeof(kSignature));
    WriteChunk(file, "IHDR", header);
}

void WriteColorSpace(OutputFile& file, const Conf::RGBColorSpace& space) {
    if (space == Conf::RGBColorSpace{}) {
        constexpr std::uint8_t kRelativeIntent[] = {1};
        return WriteChunk(file, "sRGB", kRelativeIntent);
    }
    constexpr std::uint8_t kRGB = 0; // no matrix
    constexpr std::uint8_t kFullRange = 1;
    const std::uint8_t codePoints[] = {static_cast<std::uint8_t>(space.primaries),
                                       static_cast<std::uint8_t>(space.transfer), kRGB, kFullRange};
    WriteChunk(file, "cICP", codePoints);
}

template <class Pixel>
bool IsRowOpaque(const std::uint8_t* pixels, std::size_t count) {
    constexpr unsigned kAlphaBits = sizeof(Pixel) * 8 / ImageView::kChannels;
    Pixel common = ~Pixel{0};
    for (std::size_t i = 0; i < count; ++i) {
        Pixel pixel = 0;
        std::memcpy(&pixel, pixels + i * sizeof(Pixel), sizeof(Pixel));
        common &= pixel;
    }
    return common >> (sizeof(Pixel) * 8 - kAlphaBits) == (Pixel{1} << kAlphaBits) - 1;
}

bool IsOpaque(const ImageView& image) {
    const auto isRowOpaque =
        image.bitsPerChannel == 16 ? &IsRowOpaque<std::uint64_t> : &IsRowOpaque<std::uint32_t>;
    std::size_t y = 0;
    while (y < image.height && isRowOpaque(image.GetRow(y), image.width)) {
        ++y;
    }
    return y == image.height;
}

} // namespace

void WritePng(OutputFile& file, const ImageView& image,
              const std::optional<Conf::RGBColorSpace>& colorSpace) {
    const bool isOpaque = IsOpaque(image);
    WriteHeader(file, image, isOpaque);
    if (colorSpace) {
        WriteColorSpace(file, *colorSpace);
    }
    CompressRows(PngRows(image, isOpaque),
                 [&file](std::span<const std::uint8_t> part) { WriteChunk(file, "IDAT", part); });
    WriteChunk(file, "IEND", {});
}

} // namespace Norvex::App
