#include "apps/norvexdx/pictures/ImageFile.h"

#include <fmt/format.h>

#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/pictures/InputFile.h"
#include "apps/norvexdx/pictures/JpegStructure.h"
#include "apps/norvexdx/pictures/Orientation.h"
#include "apps/norvexdx/pictures/OutputFile.h"
#include "apps/norvexdx/pictures/PngReader.h"
#include "apps/norvexdx/pictures/PngWriter.h"
#include "apps/norvexdx/pictures/WicReader.h"

namespace Norvex::App {

namespace {

Image Decode(std::span<const std::uint8_t> file) {
    if (IsPng(file)) {
        return ReadPng(file);
    }
    if (!IsJpeg(file)) {
        return ReadWithWic(file);
    }
    const JpegStructure structure = ReadJpegStructure(file);
    if (!structure.isComplete) {
        throw Failure("the file is cut short");
    }
    return MakeUpright(ReadWithWic(file), structure.orientation);
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

Image ReadImage(const std::filesystem::path& path) {
    const std::vector<std::uint8_t> file = ReadInputFile(path);
    try {
        return Decode(file);
    } catch (const Failure& failure) {
        throw Failure(Utf8FromPath(path) + ": " + failure.what());
    }
}

void WriteImage(const std::filesystem::path& path, const Image& image) {
    OutputFile file(path);
    WritePng(file, image);
    file.Commit();
}

} // namespace Norvex::App
