#include "apps/norvexdx/pictures/CanvasFile.h"

#include "apps/norvexdx/console/Stopwatch.h"
#include "apps/norvexdx/pictures/ImageFile.h"
#include "apps/norvexdx/pictures/InputFile.h"

namespace Norvex::App {

void WriteCanvas(Canvas& canvas, const std::filesystem::path& output,
                 const std::optional<Conf::RGBColorSpace>& colorSpace, PictureReport& report) {
    const Stopwatch readback;
    report.targetFormat = canvas.GetFormat();
    canvas.Read([&](const ImageView& image) {
        report.times.readback = readback.GetMilliseconds();
        WriteReported(image, output, colorSpace, report);
    });
}

void WriteReported(const ImageView& image, const std::filesystem::path& output,
                   const std::optional<Conf::RGBColorSpace>& colorSpace, PictureReport& report) {
    const Stopwatch encode;
    WriteImage(output, image, colorSpace);
    report.times.encode = encode.GetMilliseconds();
    report.output = Utf8FromPath(output);
    report.width = image.width;
    report.height = image.height;
}

} // namespace Norvex::App
