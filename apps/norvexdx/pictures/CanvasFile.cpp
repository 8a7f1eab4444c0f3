#include "apps/norvexdx/pictures/CanvasFile.h"

#include "apps/norvexdx/console/Stopwatch.h"
#include "apps/norvexdx/pictures/ImageFile.h"
#include "apps/norvexdx/pictures/InputFile.h"

namespace Norvex::App {

void WriteCanvas(Canvas& canvas, const std::filesystem::path& output,
                 const std::optional<Conf::RGBColorSpace>& colorSpace, PictureReport& report) {
    const Stopwatch readback;
    Image image = canvas.Download();
    report.times.readback = readback.GetMilliseconds();
    report.targetFormat = canvas.GetFormat();
    image.colorSpace = colorSpace;
    WriteReported(image, output, report);
}

void WriteReported(const Image& image, const std::filesystem::path& output, PictureReport& report) {
    const Stopwatch encode;
    WriteImage(output, image);
    report.times.encode = encode.GetMilliseconds();
    report.output = Utf8FromPath(output);
    report.width = image.width;
    report.height = image.height;
}

} // namespace Norvex::App
