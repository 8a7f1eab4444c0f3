#include "apps/norvexdx/pictures/ImageFile.h"

#include <utility>

#include <fmt/format.h>

#include "apps/norvexdx/console/Console.h"
#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/pictures/ColorProfile.h"
#include "apps/norvexdx/pictures/InputFile.h"
#include "apps/norvexdx/pictures/JpegStructure.h"
#include "apps/norvexdx/pictures/Orientation.h"
#include "apps/norvexdx/pictures/OutputFile.h"
#include "apps/norvexdx/pictures/PngReader.h"
#include "apps/norvexdx/pictures/PngWriter.h"
#include "apps/norvexdx/pictures/WicReader.h"

namespace Norvex::App {

namespace {

constexpr Conf::RGBColorSpace kSRGB = {};

Image Decode(std::span<const std::uint8_t> file) {
    if (IsPng(file)) {
        return ReadPng(file);
    }
    if (!IsJpeg(file)) {
        return ReadWithWic(file);
    }
    JpegStructure structure = ReadJpegStructure(file);
    if (!structure.isComplete) {
        throw Failure("the file is cut short");
    }
    // Some decoders make room for all of it when they begin.
    CheckDimensions(structure.width, structure.height);
    Image image = ReadWithWic(file);
    if (!structure.profile.empty()) {
        image.profile = IccProfile{.bytes = std::move(structure.profile), .name = {}};
    }
    return MakeUpright(std::move(image), structure.orientation);
}

void ApplyOrTell(const std::filesystem::path& path, Image& image) {
    try {
        ApplyProfile(image);
    } catch (const Failure& failure) {
        const std::string& name = image.profile->name;
        Console::PrintMessage(fmt::format("{}: its colour profile{} is left aside: {}",
                                          Utf8FromPath(path),
                                          name.empty() ? "" : " \"" + name + "\"", failure.what()));
        image.profile.reset();
    }
}

} // namespace

void CheckDimensions(std::uint32_t width, std::uint32_t height) {
    if (width == 0 || height == 0) {
        throw Failure("the picture has no pixels");
    }
    if (width > kMaxDimension || height > kMaxDimension) {
        throw Failure(
            fmt::format("a picture of {} x {} pixels is larger than the device takes ({} x {})",
                        width, height, kMaxDimension, kMaxDimension));
    }
}

Image ReadImage(const std::filesystem::path& path, const std::optional<Conf::RGBColorSpace>& from) {
    const std::vector<std::uint8_t> file = ReadInputFile(path);
    try {
        Image image = Decode(file);
        if (image.profile && !image.colorSpace && from.value_or(kSRGB) == kSRGB) {
            ApplyOrTell(path, image);
        }
        return image;
    } catch (const Failure& failure) {
        throw Failure(Utf8FromPath(path) + ": " + failure.what());
    }
}

void WriteImage(const std::filesystem::path& path, const Image& image) {
    WriteImage(path, image.GetView(), image.colorSpace);
}

void WriteImage(const std::filesystem::path& path, const ImageView& image,
                const std::optional<Conf::RGBColorSpace>& colorSpace) {
    OutputFile file(path);
    WritePng(file, image, colorSpace);
    file.Commit();
}

} // namespace Norvex::App
