#include "apps/norvexdx/FillCommand.h"

#include "Proc/DirectX/Manager/D3D12Renderer.h"
#include "apps/norvexdx/Console.h"
#include "apps/norvexdx/ImageFile.h"
#include "apps/norvexdx/InputFile.h"
#include "apps/norvexdx/OutputFile.h"
#include "apps/norvexdx/Report.h"
#include "apps/norvexdx/Stopwatch.h"
#include "apps/norvexdx/Texture.h"

namespace Norvex::App {

void RunFill(const FillOptions& options) {
    const std::filesystem::path output = PathFromUtf8(options.output);
    CheckOutputPlace(output);
    const GraphicsDevice graphics = GraphicsDevice::Open(options.adapter);
    const Stopwatch compilation;
    const boost::intrusive_ptr<DX::D12FillDraw> fill(new DX::D12FillDraw(graphics.device));
    const RunReport run = {graphics, compilation.GetMilliseconds()};

    Canvas canvas(graphics, options.size, options.depth);
    const auto allocator = graphics.queue->CreateCommandAllocator();
    allocator->ClearRenderTargetView(canvas.GetTarget(), options.background, {});
    fill->Encode(
        allocator, options.color, canvas.GetTarget(),
        options.rect.value_or(DX::Rect2DT<long>{0, 0, options.size.width, options.size.height}));
    PictureReport report;
    const Stopwatch draw;
    allocator->Execute();
    allocator->WaitComplete();
    report.times.draw = draw.GetMilliseconds();
    const Stopwatch readback;
    const Image image = canvas.Download();
    report.times.readback = readback.GetMilliseconds();
    const Stopwatch encode;
    WriteImage(output, image);
    report.times.encode = encode.GetMilliseconds();

    report.output = options.output;
    report.width = image.width;
    report.height = image.height;
    report.targetFormat = canvas.GetFormat();
    Console::Print(options.json ? MakeDrawJson(run, report) : MakeConvertText(run, {report}));
}

} // namespace Norvex::App
