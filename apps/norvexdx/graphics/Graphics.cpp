#include "apps/norvexdx/graphics/Graphics.h"

#include <algorithm>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "Proc/DirectX/Manager/DirectXShader.h"
#include "Proc/DirectX/Manager/Exceptions.h"
#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/console/Stopwatch.h"
#include "apps/norvexdx/graphics/Graphics11.h"
#include "apps/norvexdx/graphics/Graphics12.h"
#include "apps/norvexdx/graphics/MovingPicture.h"

namespace Norvex::App {

namespace {

constexpr const char* kNoDirect3D12 = "this system has no Direct3D 12";

void CheckSystem(ApiChoice api) {
    if (api == ApiChoice::Direct3D12 && !DX::D12Device::IsAvailable()) {
        throw Failure(kNoDirect3D12);
    }
    if (!DX::D3ShaderBytecode::IsCompilerLoaded()) {
        throw Failure("this system has no HLSL compiler (d3dcompiler_47.dll)");
    }
}

DX::DXGIAdapter FindAdapter(unsigned index) {
    std::vector<DX::DXGIAdapter> adapters;
    DX::DXGIFactory::Create()->EnumerateAdapters(adapters, false);
    if (adapters.empty()) {
        throw Failure("this system has no graphics adapter");
    }
    if (index >= adapters.size()) {
        throw Failure(fmt::format("there is no adapter {}; this system's adapters are 0 to {}",
                                  index, adapters.size() - 1));
    }
    return adapters[index];
}

std::unique_ptr<Graphics> MakeGraphics(ApiChoice api, const DX::DXGIAdapter& adapter,
                                       const std::function<void(std::string_view)>& tell) {
    std::string reason = kNoDirect3D12;
    if (api != ApiChoice::Direct3D11 && DX::D12Device::IsAvailable()) {
        try {
            return MakeGraphics12(DX::D12Device::Create(adapter));
        } catch (const DX::DirectX12Exception&) {
            if (api == ApiChoice::Direct3D12) {
                throw;
            }
            reason = DescribeFailure(std::current_exception()).line;
        }
    }
    auto graphics = MakeGraphics11(DX::D11Device::Create(adapter));
    if (api == ApiChoice::Auto) {
        tell("drawing with Direct3D 11: " + reason);
    }
    return graphics;
}

unsigned GetBits(DXGI_FORMAT format) {
    return format == DXGI_FORMAT_R8G8B8A8_UNORM ? 8 : 16;
}

long GetHalf(long side) {
    return (side + 1) / 2;
}

} // namespace

void Canvas::Read(const std::function<void(const ImageView&)>& use) {
    if (GetFormat() == DXGI_FORMAT_R16G16B16A16_FLOAT) {
        return use(Download().GetView());
    }
    ReadBack([&](const std::uint8_t* rows, std::size_t rowPitch) {
        use({.width = static_cast<std::uint32_t>(GetSize().width),
             .height = static_cast<std::uint32_t>(GetSize().height),
             .bitsPerChannel = GetBits(GetFormat()),
             .pixels = rows,
             .rowPitch = rowPitch});
    });
}

Image Canvas::Download() {
    Image image;
    image.width = static_cast<std::uint32_t>(GetSize().width);
    image.height = static_cast<std::uint32_t>(GetSize().height);
    image.bitsPerChannel = GetBits(GetFormat());
    image.pixels = DownloadBytes();
    if (GetFormat() == DXGI_FORMAT_R16G16B16A16_FLOAT) {
        ConvertFromHalf(image.pixels);
    }
    return image;
}

std::vector<std::uint8_t> Canvas::DownloadBytes() {
    std::vector<std::uint8_t> bytes;
    ReadBack([&](const std::uint8_t* rows, std::size_t rowPitch) {
        bytes.reserve(GetRowSize() * static_cast<std::size_t>(GetSize().height));
        for (long y = 0; y < GetSize().height; ++y, rows += rowPitch) {
            bytes.insert(bytes.end(), rows, rows + GetRowSize());
        }
    });
    return bytes;
}

std::size_t Canvas::GetRowSize() const {
    return static_cast<std::size_t>(GetSize().width) * GetPixelSize(GetFormat());
}

std::unique_ptr<Graphics> Graphics::Open(const GraphicsChoice& choice, DrawKind kind,
                                         const std::function<void(std::string_view)>& tell) {
    CheckSystem(choice.api);
    const Stopwatch creation;
    auto graphics = MakeGraphics(choice.api, FindAdapter(choice.adapter), tell);
    graphics->m_adapterIndex = choice.adapter;
    graphics->m_creationMs = creation.GetMilliseconds();
    const Stopwatch compilation;
    graphics->CompileShaders(kind);
    graphics->m_shaderCompilationMs = compilation.GetMilliseconds();
    return graphics;
}

std::unique_ptr<Picture> Graphics::UploadFrame(const ClipFrame& frame) {
    if (!frame.desc) {
        return Upload(frame);
    }
    MovingPicture picture(*this, frame);
    Run([&](Recorder& recorder) { picture.Show(recorder, frame); });
    return picture.Take();
}

PaintedPicture Graphics::MakePaintedPicture(const DX::Size2DT<long>& size) {
    return MakePainted(size, ChooseTargetFormat(16));
}

std::unique_ptr<Picture> Graphics::Scale(const Picture& source, const DX::Size2DT<long>& size,
                                         DX::ScaleKernel kernel, Proc::AlphaType alpha) {
    const auto canvas = MakeCanvasOf(size, ChooseTargetFormat(16));
    RunScaler(source, *canvas, {.kernel = kernel, .alphaType = alpha});
    std::unique_ptr<Picture> picture;
    Run([&](Recorder& recorder) { picture = recorder.TakePicture(*canvas); });
    return picture;
}

std::unique_ptr<Picture> Graphics::ConvertColors(const Picture& source,
                                                 const Proc::ColorAlphaConversionInfo& conversion,
                                                 const ColorStages& stages) {
    const auto canvas = MakeCanvasOf(source.GetSize(), ChooseTargetFormat(16));
    DrawColors(source, *canvas, conversion, stages);
    std::unique_ptr<Picture> picture;
    Run([&](Recorder& recorder) { picture = recorder.TakePicture(*canvas); });
    return picture;
}

std::unique_ptr<Canvas> Graphics::MakeCanvas(const DX::Size2DT<long>& size,
                                             unsigned bitsPerChannel) {
    return MakeCanvasOf(size, ChooseTargetFormat(bitsPerChannel));
}

float Graphics::MeasurePeak(const Picture& source) {
    const std::lock_guard lock(m_peakMutex);
    return RunPeak(source, {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ});
}

std::unique_ptr<Canvas> Graphics::Dither(const Canvas& canvas, DX::FrameDither dither) {
    auto dithered = MakeCanvas(canvas.GetSize(), 8);
    DrawDithered(canvas, *dithered, dither);
    return dithered;
}

DXGI_FORMAT Graphics::ChooseTargetFormat(unsigned bitsPerChannel) const {
    const auto isDrawable = [this](DXGI_FORMAT format) {
        const FormatUses uses = GetUses(format);
        return uses.drawTo && uses.blend;
    };
    if (bitsPerChannel == 8 && isDrawable(DXGI_FORMAT_R8G8B8A8_UNORM)) {
        return DXGI_FORMAT_R8G8B8A8_UNORM;
    }
    for (const DXGI_FORMAT format :
         {DXGI_FORMAT_R16G16B16A16_UNORM, DXGI_FORMAT_R16G16B16A16_FLOAT}) {
        if (bitsPerChannel == 16 && isDrawable(format)) {
            return format;
        }
    }
    throw Failure(
        fmt::format("the adapter cannot draw pictures of {} bits a channel", bitsPerChannel));
}

Graphics::DrawResult Graphics::Draw(const Picture& source, const Canvas& canvas,
                                    const DrawOptions& options) {
    const auto& rect = options.rect;
    const DX::Size2DT<long> targetSize =
        rect ? DX::Size2DT<long>{rect->right - rect->left, rect->bottom - rect->top}
             : canvas.GetSize();
    const Placement placement = PlacePicture(options.view, source.GetSize(), targetSize);
    const auto halves =
        MakeHalves(source.GetSize(), CountHalvings(source.GetSize(), placement.scale));
    const double drawMs = Run([&](Recorder& recorder) {
        if (options.background) {
            recorder.Clear(canvas, *options.background);
        }
        recorder.Draw(Halve(recorder, source, halves), canvas,
                      {placement.transform, options.conversion, rect, options.blends});
    });
    return {placement.transform, drawMs};
}

double Graphics::Fill(const Canvas& canvas, const Proc::ColorF& color,
                      const DX::Rect2DT<long>& rect, const Proc::ColorF& background) {
    return Run([&](Recorder& recorder) {
        recorder.Clear(canvas, background);
        recorder.Fill(canvas, color, rect);
    });
}

void Graphics::WaitUntilReleased() {
    DX::D12CommandAllocator::WaitAllComplete();
}

unsigned Graphics::CountHalvings(const DX::Size2DT<long>& size, float scale) {
    unsigned count = 0;
    for (long side = std::max(size.width, size.height); scale < 0.5F && side > 1; scale *= 2.0F) {
        side = GetHalf(side);
        ++count;
    }
    return count;
}

// With 16 bits a channel, so that several steps do not add up errors.
std::vector<PaintedPicture> Graphics::MakeHalves(DX::Size2DT<long> size, unsigned times) {
    std::vector<PaintedPicture> halves;
    for (; times > 0; --times) {
        size = {GetHalf(size.width), GetHalf(size.height)};
        halves.push_back(MakePaintedPicture(size));
    }
    return halves;
}

const Picture& Graphics::Halve(Recorder& recorder, const Picture& source,
                               const std::vector<PaintedPicture>& halves) {
    const Picture* result = &source;
    for (const PaintedPicture& half : halves) {
        recorder.Paint(half, [&] { recorder.Draw(*result, *half.canvas, {}); });
        result = half.picture.get();
    }
    return *result;
}

} // namespace Norvex::App
