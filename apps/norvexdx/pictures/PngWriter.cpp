#include "apps/norvexdx/pictures/PngWriter.h"

#include <algorithm>
#include <deque>
#include <functional>
#include <future>
#include <new>
#include <span>
#include <string_view>
#include <thread>

#include <zlib.h>

#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/pictures/PngRows.h"

namespace Norvex::App {

namespace {

using ChunkBytes = std::vector<std::uint8_t>;

// The files of photographs are 3 % larger than with level 4, and take half the time.
constexpr int kCompressionLevel = 2;
constexpr int kRawDeflate = -MAX_WBITS; // without zlib's header and check
constexpr int kMostMemory = MAX_MEM_LEVEL;
constexpr std::size_t kWindow = std::size_t{1} << MAX_WBITS; // bytes that deflate looks back
constexpr std::size_t kStripSize = std::size_t{1} << 20;     // bytes, but at least a row

// Rows compressed by themselves: their deflate blocks end at a byte, so that those of the next
// strip can follow.
struct Strip {
    ChunkBytes deflated;
    std::size_t size = 0; // before compression
    uLong check = 0;      // Adler-32 of what was compressed
};

class Deflater {
public:
    Deflater() {
        if (deflateInit2(&m_stream, kCompressionLevel, Z_DEFLATED, kRawDeflate, kMostMemory,
                         Z_FILTERED) != Z_OK) {
            throw std::bad_alloc();
        }
    }
    ~Deflater() { deflateEnd(&m_stream); }
    Deflater(const Deflater&) = delete;
    Deflater& operator=(const Deflater&) = delete;

    // before: the bytes that precede these in the file, a window of them at most.
    ChunkBytes Deflate(std::span<const std::uint8_t> before, std::span<const std::uint8_t> bytes,
                       bool isLast) {
        constexpr uLong kFlushSize = 16; // bytes, at most, of an empty block
        deflateSetDictionary(&m_stream, before.data(), static_cast<uInt>(before.size()));
        ChunkBytes deflated(deflateBound(&m_stream, static_cast<uLong>(bytes.size())) + kFlushSize);
        m_stream.next_in = const_cast<Bytef*>(bytes.data());
        m_stream.avail_in = static_cast<uInt>(bytes.size());
        m_stream.next_out = deflated.data();
        m_stream.avail_out = static_cast<uInt>(deflated.size());
        const int result = deflate(&m_stream, isLast ? Z_FINISH : Z_SYNC_FLUSH);
        if (result != (isLast ? Z_STREAM_END : Z_OK) || m_stream.avail_out == 0) {
            throw Failure("the picture cannot be encoded as PNG");
        }
        deflated.resize(deflated.size() - m_stream.avail_out);
        return deflated;
    }

private:
    z_stream m_stream = {};
};

Strip CompressStrip(const PngRows& rows, std::size_t first, std::size_t last) {
    const std::size_t rowsBefore = std::min(first, (kWindow + rows.GetSize() - 1) / rows.GetSize());
    const auto filtered = rows.Filter(first - rowsBefore, last);
    const auto before = std::span(filtered).first(rowsBefore * rows.GetSize());
    const auto bytes = std::span(filtered).subspan(before.size());
    return {.deflated = Deflater().Deflate(before.last(std::min(before.size(), kWindow)), bytes,
                                           last == rows.GetCount()),
            .size = bytes.size(),
            .check = adler32(1, bytes.data(), static_cast<uInt>(bytes.size()))};
}

void AppendNumber(ChunkBytes& bytes, std::size_t number) {
    for (const unsigned shift : {24U, 16U, 8U, 0U}) {
        bytes.push_back(static_cast<std::uint8_t>(number >> shift));
    }
}

// Length, type, data and the check of the last two.
void WriteChunk(OutputFile& file, std::string_view type, std::span<const std::uint8_t> data) {
    ChunkBytes chunk;
    chunk.reserve(data.size() + 3 * sizeof(std::uint32_t));
    AppendNumber(chunk, data.size());
    const std::size_t checked = chunk.size();
    chunk.insert(chunk.end(), type.begin(), type.end());
    chunk.insert(chunk.end(), data.begin(), data.end());
    AppendNumber(chunk,
                 crc32(0, chunk.data() + checked, static_cast<uInt>(chunk.size() - checked)));
    file.Write(chunk.data(), chunk.size());
}

void WriteHeader(OutputFile& file, const Image& image, bool isOpaque) {
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

// One zlib stream, a strip in each chunk.
void WriteRows(OutputFile& file, const PngRows& rows) {
    const std::size_t rowsOfStrip = std::max<std::size_t>(1, kStripSize / rows.GetSize());
    const std::size_t mostUnderWay = std::thread::hardware_concurrency() + 1;
    std::deque<std::future<Strip>> underWay;
    ChunkBytes chunk = {0x78, 0x01}; // zlib: deflate with a window of 32 KiB, a fast level
    uLong check = 1;
    for (std::size_t begun = 0; begun < rows.GetCount() || !underWay.empty();) {
        if (begun < rows.GetCount() && underWay.size() < mostUnderWay) {
            const std::size_t end = std::min(begun + rowsOfStrip, rows.GetCount());
            // Either: where the system has no thread left, by the one that waits for the strip.
            underWay.push_back(std::async(std::launch::async | std::launch::deferred,
                                          &CompressStrip, std::cref(rows), begun, end));
            begun = end;
            continue;
        }
        const Strip strip = underWay.front().get();
        underWay.pop_front();
        check = adler32_combine(check, strip.check, static_cast<z_off_t>(strip.size));
        chunk.insert(chunk.end(), strip.deflated.begin(), strip.deflated.end());
        if (begun == rows.GetCount() && underWay.empty()) {
            AppendNumber(chunk, check);
        }
        WriteChunk(file, "IDAT", chunk);
        chunk.clear();
    }
}

bool IsOpaque(const Image& image) {
    const std::size_t step = image.GetPixelSize();
    const std::size_t alphaSize = step / Image::kChannels;
    const auto* end = image.pixels.data() + image.pixels.size();
    for (const auto* pixel = image.pixels.data(); pixel != end; pixel += step) {
        const auto* alpha = pixel + step - alphaSize;
        if (!std::all_of(alpha, alpha + alphaSize, [](std::uint8_t b) { return b == 0xFF; })) {
            return false;
        }
    }
    return true;
}

} // namespace

void WritePng(OutputFile& file, const Image& image) {
    const bool isOpaque = IsOpaque(image);
    WriteHeader(file, image, isOpaque);
    if (image.colorSpace) {
        WriteColorSpace(file, *image.colorSpace);
    }
    WriteRows(file, PngRows(image, isOpaque));
    WriteChunk(file, "IEND", {});
}

} // namespace Norvex::App
