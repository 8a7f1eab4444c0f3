#pragma once

// Reading and writing pictures. PNG goes through libpng, everything else through the Windows
// Imaging Component. Any thread. Throws Failure with the file's name. Next: PngReader.h,
// PngWriter.h, WicReader.h.

#include <filesystem>

#include "apps/norvexdx/pictures/Image.h"

namespace Norvex::App {

// Direct3D's limit for the width and the height of a texture, from feature level 11.0 on
// (D3D12_REQ_TEXTURE2D_U_OR_V_DIMENSION).
constexpr std::uint32_t kMaxDimension = 16384;

// Failure, without a file's name, unless both are 1 to kMaxDimension. For readers, before they make
// room for pixels.
void CheckDimensions(std::uint32_t width, std::uint32_t height);

// JPEG (turned upright), PNG, TIFF, and what else the system decodes: the first picture of the
// file. Failures: those of ReadInputFile, not a picture, damaged or cut short, larger than
// kMaxDimension, samples that have no exact place in 16 bits.
// A picture with an ICC profile is converted to sRGB (ColorProfile.h), unless the file also says
// its colour space in code points, or the user says that the picture is `from` another one. A
// profile that cannot be used is told on standard error.
Image ReadImage(const std::filesystem::path& path,
                const std::optional<Conf::RGBColorSpace>& from = {});

// PNG with the image's depth, and with its colour space where it has one; whole or not at all
// (OutputFile.h).
void WriteImage(const std::filesystem::path& path, const Image& image);
void WriteImage(const std::filesystem::path& path, const ImageView& image,
                const std::optional<Conf::RGBColorSpace>& colorSpace);

} // namespace Norvex::App
