#include "apps/norvexdx/pictures/PngWriter.h"

#include <algorithm>
#include <exception>
#include <new>

#include <png.h>

#include "apps/norvexdx/console/Failure.h"

namespace Norvex::App {

namespace {

// Photographs shrink hardly more with higher levels, which take several times as long.
constexpr int kCompressionLevel = 4;
constexpr std::size_t kCompressionBufferSize = 1 << 18; // bytes

// Everything of one writing; see the reader for why it is kept apart.
struct Writing {
    OutputFile& file;
    const Image& image;
    std::exception_ptr failure = nullptr;
    png_structp png = nullptr;
    png_infop info = nullptr;

    ~Writing() { png_destroy_write_struct(&png, &info); }
};

[[noreturn]] void OnWriteError(png_structp png, png_const_charp) {
    png_longjmp(png, 1);
}

void OnWriteWarning(png_structp, png_const_charp) {}

bool WriteOrKeepFailure(Writing& writing, const void* bytes, std::size_t size) noexcept {
    try {
        writing.file.Write(bytes, size);
        return true;
    } catch (...) {
        writing.failure = std::current_exception();
        return false;
    }
}

// Exceptions must not cross libpng's frames.
void OnWrite(png_structp png, png_bytep bytes, std::size_t size) {
    if (!WriteOrKeepFailure(*static_cast<Writing*>(png_get_io_ptr(png)), bytes, size)) {
        png_error(png, "write failed");
    }
}

void OnFlush(png_structp) {}

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

void WriteColorSpace(Writing& writing, const Conf::RGBColorSpace& space) {
    if (space == Conf::RGBColorSpace{}) {
        png_set_sRGB(writing.png, writing.info, PNG_sRGB_INTENT_RELATIVE);
        return;
    }
#ifdef PNG_WRITE_cICP_SUPPORTED
    png_set_cICP(writing.png, writing.info, static_cast<png_byte>(space.primaries),
                 static_cast<png_byte>(space.transfer), 0, 1);
#endif
}

// Header, pixels and end; false on an error.
bool Write(Writing& writing, bool isOpaque) {
    if (setjmp(png_jmpbuf(writing.png)) != 0) {
        return false;
    }
    const Image& image = writing.image;
    png_set_write_fn(writing.png, &writing, &OnWrite, &OnFlush);
    png_set_user_limits(writing.png, PNG_UINT_31_MAX, PNG_UINT_31_MAX);
    png_set_compression_level(writing.png, kCompressionLevel);
    png_set_compression_buffer_size(writing.png, kCompressionBufferSize);
    png_set_IHDR(writing.png, writing.info, image.width, image.height,
                 static_cast<int>(image.bitsPerChannel),
                 isOpaque ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (image.colorSpace) {
        WriteColorSpace(writing, *image.colorSpace);
    }
    png_write_info(writing.png, writing.info);
    if (image.bitsPerChannel == 16) {
        png_set_swap(writing.png); // PNG is big-endian
    }
    if (isOpaque) {
        png_set_filler(writing.png, 0, PNG_FILLER_AFTER);
    }
    for (std::size_t y = 0; y < image.height; ++y) {
        png_write_row(writing.png, image.pixels.data() + y * image.GetRowSize());
    }
    png_write_end(writing.png, nullptr);
    return true;
}

} // namespace

void WritePng(OutputFile& file, const Image& image) {
    Writing writing{.file = file, .image = image};
    writing.png =
        png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, &OnWriteError, &OnWriteWarning);
    writing.info = writing.png != nullptr ? png_create_info_struct(writing.png) : nullptr;
    if (writing.info == nullptr) {
        throw std::bad_alloc();
    }
    if (!Write(writing, IsOpaque(image))) {
        if (writing.failure) {
            std::rethrow_exception(writing.failure);
        }
        throw Failure("the picture cannot be encoded as PNG");
    }
}

} // namespace Norvex::App
