#include "apps/norvexdx/CanvasFile.h"

#include "apps/norvexdx/ImageFile.h"
#include "apps/norvexdx/InputFile.h"
#include "apps/norvexdx/Stopwatch.h"

namespace Norvex::App {

void WriteCanvas(Canvas& canvas, const std::filesystem::path& output,
                 const std::optional<Conf::RGBColorSpace>& colorSpace, PictureReport& report) {
    const Stopwatch readback;
    Image image = canvas.Download();
    report.times.readback = readback.GetMilliseconds();
    image.colorSpace = colorSpace;

    const Stopwatch encode;
    WriteImage(output, image);
    report.times.encode = encode.GetMilliseconds();

    report.output = Utf8FromPath(output);
    report.width = image.width;
    report.height = image.height;
    report.targetFormat = canvas.GetFormat();
}

} // namespace Norvex::App
