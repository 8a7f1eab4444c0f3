#include "apps/norvexdx/pictures/PngReader.h"

#include <cstring>
#include <string_view>

#include <png.h>

#include "apps/norvexdx/console/Arguments.h"
#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/pictures/ImageFile.h"

namespace Norvex::App {

namespace {

constexpr std::size_t kSignatureSize = 8;

// Everything of one reading. libpng reports errors by longjmp, so the functions that call it keep
// their data here and have no local objects with destructors.
struct Reading {
    std::span<const std::uint8_t> rest;
    bool isCutShort = false;
    Image image;
    std::vector<png_bytep> rows;
    png_structp png = nullptr;
    png_infop info = nullptr;

    ~Reading() { png_destroy_read_struct(&png, &info, nullptr); }
};

[[noreturn]] void OnReadError(png_structp png, png_const_charp) {
    png_longjmp(png, 1);
}

// libpng leaves out what it finds wrong in a profile; that there was one is told later.
void OnReadWarning(png_structp png, png_const_charp message) {
    auto* reading = static_cast<Reading*>(png_get_io_ptr(png));
    if (reading != nullptr && std::string_view(message).find("iCCP") != std::string_view::npos) {
        reading->image.profile.emplace();
    }
}

void OnRead(png_structp png, png_bytep bytes, std::size_t size) {
    auto& reading = *static_cast<Reading*>(png_get_io_ptr(png));
    if (size > reading.rest.size()) {
        reading.isCutShort = true;
        png_error(png, "end of file");
    }
    std::memcpy(bytes, reading.rest.data(), size);
    reading.rest = reading.rest.subspan(size);
}

// The header; false on an error.
bool ReadHeader(Reading& reading) {
    if (setjmp(png_jmpbuf(reading.png)) != 0) {
        return false;
    }
    png_set_read_fn(reading.png, &reading, &OnRead);
    png_set_user_limits(reading.png, PNG_UINT_31_MAX, PNG_UINT_31_MAX);
    png_read_info(reading.png, reading.info);
    reading.image.width = png_get_image_width(reading.png, reading.info);
    reading.image.height = png_get_image_height(reading.png, reading.info);
    reading.image.bitsPerChannel = png_get_bit_depth(reading.png, reading.info) == 16 ? 16 : 8;
    return true;
}

// Asks for RGBA of 8 or 16 bits; false on an error.
bool SetTransformations(Reading& reading) {
    if (setjmp(png_jmpbuf(reading.png)) != 0) {
        return false;
    }
    const bool is16Bit = reading.image.bitsPerChannel == 16;
    png_set_expand(reading.png);
    png_set_gray_to_rgb(reading.png);
    png_set_add_alpha(reading.png, is16Bit ? 0xFFFF : 0xFF, PNG_FILLER_AFTER);
    if (is16Bit) {
        png_set_swap(reading.png); // PNG is big-endian
    }
    png_set_interlace_handling(reading.png);
    png_read_update_info(reading.png, reading.info);
    return png_get_rowbytes(reading.png, reading.info) == reading.image.GetRowSize();
}

// Pixels and the rest of the file; false on an error.
bool ReadRows(Reading& reading) {
    if (setjmp(png_jmpbuf(reading.png)) != 0) {
        return false;
    }
    png_read_image(reading.png, reading.rows.data());
    png_read_end(reading.png, nullptr);
    return true;
}

void ReadColorSpace(Reading& reading) {
#ifdef PNG_READ_cICP_SUPPORTED
    png_byte primaries = 0;
    png_byte transfer = 0;
    png_byte matrix = 0;
    png_byte isFullRange = 0;
    if (png_get_cICP(reading.png, reading.info, &primaries, &transfer, &matrix, &isFullRange) &&
        matrix == 0 && isFullRange == 1) {
        reading.image.colorSpace = FindColorSpace(primaries, transfer);
    }
#endif
}

void ReadProfile(Reading& reading) {
    png_charp name = nullptr;
    int compression = 0;
    png_bytep bytes = nullptr;
    png_uint_32 size = 0;
    if (png_get_iCCP(reading.png, reading.info, &name, &compression, &bytes, &size) != 0) {
        reading.image.profile = IccProfile{.bytes = {bytes, bytes + size}, .name = name};
    }
}

void Check(const Reading& reading, bool isGood) {
    if (!isGood) {
        throw Failure(reading.isCutShort ? "the file is cut short" : "the PNG file is damaged");
    }
}

} // namespace

bool IsPng(std::span<const std::uint8_t> file) {
    return file.size() >= kSignatureSize && png_sig_cmp(file.data(), 0, kSignatureSize) == 0;
}

Image ReadPng(std::span<const std::uint8_t> file) {
    Reading reading{.rest = file, .image = {}, .rows = {}};
    reading.png =
        png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, &OnReadError, &OnReadWarning);
    reading.info = reading.png != nullptr ? png_create_info_struct(reading.png) : nullptr;
    if (reading.info == nullptr) {
        throw std::bad_alloc();
    }
    Check(reading, ReadHeader(reading));
    CheckDimensions(reading.image.width, reading.image.height);
    ReadColorSpace(reading);
    ReadProfile(reading);
    Check(reading, SetTransformations(reading));

    reading.image.Allocate();
    reading.rows.resize(reading.image.height);
    for (std::size_t y = 0; y < reading.rows.size(); ++y) {
        reading.rows[y] = reading.image.pixels.data() + y * reading.image.GetRowSize();
    }
    Check(reading, ReadRows(reading));
    return std::move(reading.image);
}

} // namespace Norvex::App
