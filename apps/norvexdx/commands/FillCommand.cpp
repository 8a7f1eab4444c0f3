#include "apps/norvexdx/commands/FillCommand.h"

#include "apps/norvexdx/console/Console.h"
#include "apps/norvexdx/pictures/CanvasFile.h"
#include "apps/norvexdx/pictures/InputFile.h"
#include "apps/norvexdx/pictures/OutputFile.h"

namespace Norvex::App {

void RunFill(const FillOptions& options) {
    const std::filesystem::path output = PathFromUtf8(options.output);
    CheckOutputPlace(output);
    const auto graphics = Graphics::Open(options.graphics, DrawKind::Fill, &Console::PrintMessage);
    const auto canvas = graphics->MakeCanvas(options.size, options.depth);
    const DX::Rect2DT<long> all = {0, 0, options.size.width, options.size.height};
    PictureReport report;
    report.times.draw =
        graphics->Fill(*canvas, options.color, options.rect.value_or(all), options.background);
    WriteCanvas(*canvas, output, std::nullopt, report);
    Console::Print(options.json ? MakeDrawJson(*graphics, report)
                                : MakeConvertText(*graphics, {report}));
}

} // namespace Norvex::App
