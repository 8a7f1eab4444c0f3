#include "apps/norvexdx/pictures/JpegStructure.h"

#include <algorithm>
#include <cstddef>
#include <optional>

namespace Norvex::App {

namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::uint8_t kMarkerPrefix = 0xFF;
constexpr std::uint8_t kStartOfImage = 0xD8;
constexpr std::uint8_t kEndOfImage = 0xD9;
constexpr std::uint8_t kStartOfScan = 0xDA;
constexpr std::uint8_t kApplication1 = 0xE1;
constexpr std::uint8_t kApplication2 = 0xE2;

// SOF0 to SOF15, among which stand the tables of Huffman codes and of arithmetic coding, and JPG.
bool IsStartOfFrame(std::uint8_t marker) {
    return marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
}

bool IsRestart(std::uint8_t marker) {
    return marker >= 0xD0 && marker <= 0xD7;
}

// Integers of a TIFF structure, in the byte order that it declares; empty beyond the end.
class TiffReader {
public:
    explicit TiffReader(Bytes bytes)
        : m_bytes(bytes),
          m_isBigEndian(!bytes.empty() && bytes[0] == 'M') {}

    std::optional<std::uint32_t> Read(std::size_t offset, std::size_t size) const {
        if (offset > m_bytes.size() || size > m_bytes.size() - offset) {
            return std::nullopt;
        }
        std::uint32_t value = 0;
        for (std::size_t i = 0; i < size; ++i) {
            value = value << 8 | m_bytes[offset + (m_isBigEndian ? i : size - 1 - i)];
        }
        return value;
    }

private:
    Bytes m_bytes;
    bool m_isBigEndian;
};

// EXIF is a TIFF structure behind six bytes; orientation is tag 0x112 of its first directory (CIPA
// DC-008).
std::optional<unsigned> ReadExifOrientation(Bytes segment) {
    constexpr std::uint8_t kExif[] = {'E', 'x', 'i', 'f', 0, 0};
    if (segment.size() < std::size(kExif) ||
        !std::equal(std::begin(kExif), std::end(kExif), segment.begin())) {
        return std::nullopt;
    }
    const TiffReader tiff(segment.subspan(std::size(kExif)));
    const std::size_t directory = tiff.Read(4, 4).value_or(0);
    const std::uint32_t count = tiff.Read(directory, 2).value_or(0);
    for (std::uint32_t i = 0; i < count; ++i) {
        constexpr std::uint32_t kOrientationTag = 0x112;
        const std::size_t entry = directory + 2 + std::size_t{12} * i;
        if (tiff.Read(entry, 2) == kOrientationTag) {
            const std::uint32_t value = tiff.Read(entry + 8, 2).value_or(1);
            return value >= 1 && value <= 8 ? value : 1;
        }
    }
    return std::nullopt;
}

// A profile may be longer than a segment: its parts, behind a name, their number and their count,
// stand in their order (ICC.1, annex B).
void AppendProfile(Bytes segment, std::vector<std::uint8_t>& profile) {
    constexpr char kName[] = "ICC_PROFILE"; // and its zero
    constexpr std::size_t kHead = std::size(kName) + 2;
    if (segment.size() >= kHead &&
        std::equal(std::begin(kName), std::end(kName), segment.begin())) {
        const Bytes part = segment.subspan(kHead);
        profile.insert(profile.end(), part.begin(), part.end());
    }
}

// The position of the next marker's code from `position` on, past entropy-coded data; the file's
// size when there is none.
std::size_t FindMarker(Bytes file, std::size_t position) {
    for (; position + 1 < file.size(); ++position) {
        const std::uint8_t code = file[position + 1];
        if (file[position] == kMarkerPrefix && code != 0 && code != kMarkerPrefix &&
            !IsRestart(code)) {
            return position + 1;
        }
    }
    return file.size();
}

} // namespace

bool IsJpeg(Bytes file) {
    return file.size() >= 3 && file[0] == kMarkerPrefix && file[1] == kStartOfImage &&
           file[2] == kMarkerPrefix;
}

JpegStructure ReadJpegStructure(Bytes file) {
    JpegStructure result;
    std::size_t position = FindMarker(file, 2);
    bool hasScan = false;
    while (position + 2 < file.size()) {
        const std::uint8_t marker = file[position];
        if (marker == kEndOfImage) {
            break;
        }
        const std::size_t length = std::size_t{file[position + 1]} << 8 | file[position + 2];
        const std::size_t end = position + 1 + length;
        if (length < 2 || end > file.size()) {
            return result;
        }
        const auto segment = file.subspan(position + 3, length - 2);
        if (IsStartOfFrame(marker) && segment.size() >= 5) {
            result.height = std::uint32_t{segment[1]} << 8 | segment[2];
            result.width = std::uint32_t{segment[3]} << 8 | segment[4];
        } else if (marker == kApplication1) {
            result.orientation = ReadExifOrientation(segment).value_or(result.orientation);
        } else if (marker == kApplication2) {
            AppendProfile(segment, result.profile);
        }
        hasScan = hasScan || marker == kStartOfScan;
        position = FindMarker(file, end);
    }
    result.isComplete = hasScan && position < file.size() && file[position] == kEndOfImage;
    return result;
}

} // namespace Norvex::App
