#include "apps/norvexdx/graphics/Graphics12.h"

#include <array>
#include <deque>
#include <mutex>

#include <boost/throw_exception.hpp>

#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3D12Renderer.h"
#include "Proc/DirectX/Manager/D3FrameDraw.h"
#include "Proc/DirectX/Manager/D3FramePeak.h"
#include "Proc/DirectX/Manager/Exceptions.h"
#include "apps/norvexdx/console/Stopwatch.h"
#include "apps/norvexdx/graphics/ColorStages.h"
#include "apps/norvexdx/graphics/FrameEncoder12.h"
#include "apps/norvexdx/graphics/Pieces12.h"
#include "apps/norvexdx/graphics/Screen.h"

namespace Norvex::App {

namespace {

using List = boost::intrusive_ptr<DX::D12GraphicsCommandList>;

// Of pictures, whenever nothing is done with them.
constexpr D3D12_RESOURCE_STATES kPictureState = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;

// Premultiplied colour over what is there.
DX::D12BlendState MakeOverBlend12() {
    DX::D12RenderTargetBlend blend;
    blend.destBlend = D3D12_BLEND_INV_SRC_ALPHA;
    blend.destBlendAlpha = D3D12_BLEND_INV_SRC_ALPHA;
    DX::D12BlendState state;
    state.targets = {blend};
    return state;
}

D3D12_RESOURCE_BARRIER Transition(const DX::D12Descriptor& view, D3D12_RESOURCE_STATES before,
                                  D3D12_RESOURCE_STATES after) {
    return view.Transition(before, after, D3D12_RESOURCE_BARRIER_ALL_SUBRESOURCES,
                           D3D12_RESOURCE_BARRIER_FLAG_NONE);
}

class Picture12 : public Picture {
public:
    explicit Picture12(const boost::intrusive_ptr<DX::D12Descriptor>& view)
        : Picture(view->GetSize(), view->GetFormat()),
          m_view(view) {}

    const boost::intrusive_ptr<DX::D12Descriptor>& GetView() const { return m_view; }

private:
    boost::intrusive_ptr<DX::D12Descriptor> m_view;
};

// In the render-target state until it is read back or becomes a picture.
class Canvas12 : public Canvas {
public:
    Canvas12(const boost::intrusive_ptr<DX::D12CommandQueue>& queue,
             const boost::intrusive_ptr<DX::D12Descriptor>& target)
        : Canvas(target->GetSize(), target->GetFormat()),
          m_queue(queue),
          m_target(target) {}

    const boost::intrusive_ptr<DX::D12Descriptor>& GetTarget() const { return m_target; }

protected:
    // From the memory that the copy goes to, where DownloadResource would copy once more.
    void ReadBack(const UseRows& use) override {
        const auto& device = m_queue->GetDevice();
        std::vector<DX::D12PlacedSubResourceFootprint> places;
        std::uint64_t size = 0;
        device->GetCopyableFootprints(
            CD3DX12_RESOURCE_DESC::Tex2D(GetFormat(), static_cast<UINT64>(GetSize().width),
                                         static_cast<UINT>(GetSize().height), 1, 1),
            0, 1, 0, places, size);
        const D3D12_PLACED_SUBRESOURCE_FOOTPRINT place = {places[0].Offset, places[0].Footprint};
        const auto buffer = device->CreateReadbackBuffer(size);
        const auto allocator = m_queue->CreateCommandAllocator();
        allocator->RecordList(nullptr, [&](const List& list) {
            list->TrackObject(buffer);
            list->ResourceBarrier({Transition(*m_target, D3D12_RESOURCE_STATE_RENDER_TARGET,
                                              D3D12_RESOURCE_STATE_COPY_SOURCE)});
            list->CopyTextureRegion(
                CD3DX12_TEXTURE_COPY_LOCATION(buffer->GetResource(), place), 0, 0, 0,
                CD3DX12_TEXTURE_COPY_LOCATION(m_target->GetFirstResource(), 0), nullptr);
        });
        allocator->Execute();
        allocator->WaitComplete();
        buffer->Read(0, size, [&](const std::uint8_t* data) {
            use(data + place.Offset, place.Footprint.RowPitch);
        });
    }

private:
    boost::intrusive_ptr<DX::D12CommandQueue> m_queue;
    boost::intrusive_ptr<DX::D12Descriptor> m_target;
};

const boost::intrusive_ptr<DX::D12Descriptor>& ViewOf(const Picture& picture) {
    return static_cast<const Picture12&>(picture).GetView();
}

const boost::intrusive_ptr<DX::D12Descriptor>& TargetOf12(const Canvas& canvas) {
    return static_cast<const Canvas12&>(canvas).GetTarget();
}

// The library's drawers, each with shaders of its own, made when first needed. Any thread.
class Drawers {
public:
    explicit Drawers(const boost::intrusive_ptr<DX::D12Device>& device) : m_device(device) {}

    const boost::intrusive_ptr<DX::D12Device>& GetDevice() const { return m_device; }

    const boost::intrusive_ptr<DX::D12ImageDraw>& GetImageDraw(bool blends) {
        const std::lock_guard lock(m_mutex);
        auto& draw = blends ? m_blendingDraw : m_draw;
        if (!draw) {
            draw.reset(new DX::D12ImageDraw(m_device));
            if (blends) {
                draw->SetBlendState(MakeOverBlend12());
            }
        }
        return draw;
    }

    const boost::intrusive_ptr<DX::D12FillDraw>& GetFillDraw() {
        const std::lock_guard lock(m_mutex);
        if (!m_fill) {
            m_fill.reset(new DX::D12FillDraw(m_device));
        }
        return m_fill;
    }

    // Into an open list. Its drawer is for one thread at a time.
    void EncodeFrame(const List& list, const DX::D12Frame& frame,
                     const boost::intrusive_ptr<DX::D12Descriptor>& target) {
        const std::lock_guard lock(m_mutex);
        if (!m_frameDraw) {
            m_frameDraw.reset(new DX::D12FrameDraw(m_device));
        }
        m_frameDraw->Encode(list, frame, target, {.transform = DX::AffineTransform()});
    }

private:
    boost::intrusive_ptr<DX::D12Device> m_device;
    std::mutex m_mutex;
    boost::intrusive_ptr<DX::D12ImageDraw> m_draw;
    boost::intrusive_ptr<DX::D12ImageDraw> m_blendingDraw;
    boost::intrusive_ptr<DX::D12FillDraw> m_fill;
    boost::intrusive_ptr<DX::D12FrameDraw> m_frameDraw;
};

// Everything into one list, which the draws share.
class Recorder12 : public Recorder {
public:
    Recorder12(Drawers& drawers, const List& list) : m_drawers(drawers), m_list(list) {}

    void Clear(const Canvas& canvas, const Proc::ColorF& color) override {
        m_list->ClearRenderTargetView(TargetOf12(canvas), color, {});
    }

    void Fill(const Canvas& canvas, const Proc::ColorF& color,
              const DX::Rect2DT<long>& rect) override {
        m_drawers.GetFillDraw()->Encode(m_list, color, TargetOf12(canvas), rect);
    }

    void Draw(const Picture& source, const Canvas& canvas, const DrawParams& params) override {
        const auto& draw = m_drawers.GetImageDraw(params.blends);
        if (params.isRepeated) {
            draw->Specialize(params.conversion);
        }
        draw->Encode(m_list, ViewOf(source), TargetOf12(canvas), params.transform,
                     params.conversion, params.rect);
    }

    std::unique_ptr<Picture> TakePicture(const Canvas& canvas) override {
        const auto& target = TargetOf12(canvas);
        m_list->ResourceBarrier(
            {Transition(*target, D3D12_RESOURCE_STATE_RENDER_TARGET, kPictureState)});
        return std::make_unique<Picture12>(
            m_drawers.GetDevice()->CreateTextureShaderResourceView(target->GetFirstResource()));
    }

    void Paint(const PaintedPicture& picture, const std::function<void()>& draw) override {
        const auto& target = TargetOf12(*picture.canvas);
        m_list->ResourceBarrier(
            {Transition(*target, kPictureState, D3D12_RESOURCE_STATE_RENDER_TARGET)});
        draw();
        m_list->ResourceBarrier(
            {Transition(*target, D3D12_RESOURCE_STATE_RENDER_TARGET, kPictureState)});
    }

    void Update(const Picture& picture, const PlaneRows& rows) override {
        DX::D12UploadResourceParams params;
        params.destination = ViewOf(picture)->GetFirstResource();
        params.stateBefore = kPictureState;
        params.stateAfter = kPictureState;
        params.subresources = {
            {rows.data, rows.rowBytes, rows.rowBytes * static_cast<std::size_t>(rows.size.height)}};
        m_list->UploadResource(params);
    }

    void DrawFrame(const std::vector<std::unique_ptr<Picture>>& planes, const DX::D3FrameDesc& desc,
                   const Canvas& canvas) override {
        DX::D12Frame frame;
        frame.desc = desc;
        for (std::size_t i = 0; i < planes.size(); ++i) {
            frame.textures.at(i) = ViewOf(*planes[i])->GetFirstResource();
        }
        m_drawers.EncodeFrame(m_list, frame, TargetOf12(canvas));
    }

private:
    Drawers& m_drawers;
    const List& m_list;
};

class Screen12 : public Screen {
public:
    // The queue is for reading back: the swap chain has one of its own.
    Screen12(const boost::intrusive_ptr<DX::D12CommandQueue>& queue, Drawers& drawers, HWND window)
        : Screen(DX::DXGISwapChain::Create(queue->GetDevice(), window)),
          m_queue(queue),
          m_drawers(drawers) {}

    std::size_t CountFramesInFlight() override {
        while (!m_frames.empty() && m_frames.front()->IsCompleted()) {
            m_frames.pop_front();
        }
        return m_frames.size();
    }

private:
    std::unique_ptr<Canvas> GetBackBuffer() const override {
        const auto target = GetSwapChain().GetRenderTarget();
        return target != nullptr ? std::make_unique<Canvas12>(m_queue, target) : nullptr;
    }

    void WaitForFrames(std::size_t mayBeInFlight) override {
        while (m_frames.size() > mayBeInFlight) {
            m_frames.front()->WaitComplete();
            m_frames.pop_front();
        }
    }

    double Submit(Canvas& backBuffer, const Record& record, ScreenPixels* pixels) override {
        const Stopwatch stopwatch;
        const auto frame = GetSwapChain().CreateCommandAllocator();
        const auto& target = TargetOf12(backBuffer);
        std::unique_ptr<Canvas> copy;
        frame->RecordList(nullptr, [&](const List& list) {
            list->ResourceBarrier({Transition(*target, D3D12_RESOURCE_STATE_PRESENT,
                                              D3D12_RESOURCE_STATE_RENDER_TARGET)});
            Recorder12 recorder(m_drawers, list);
            record(recorder, backBuffer);
            copy = pixels != nullptr ? Copy(*list, *target) : nullptr;
            list->ResourceBarrier({Transition(*target, D3D12_RESOURCE_STATE_RENDER_TARGET,
                                              D3D12_RESOURCE_STATE_PRESENT)});
        });
        frame->Execute();
        m_frames.push_back(frame);
        const double milliseconds = stopwatch.GetMilliseconds();
        if (pixels != nullptr) {
            frame->WaitComplete();
            *pixels = {copy->GetSize(), copy->GetFormat(), copy->DownloadBytes()};
        }
        return milliseconds;
    }

    // A back buffer is for the swap chain's own queue.
    std::unique_ptr<Canvas> Copy(DX::D12GraphicsCommandList& list,
                                 const DX::D12Descriptor& target) {
        const auto desc = MakeTextureDesc12(target.GetSize(), target.GetFormat(),
                                            D3D12_RESOURCE_STATE_COPY_DEST, true);
        const auto& device = m_queue->GetDevice();
        const auto copy = device->CreateRenderTargetView(device->CreateTexture2D(desc));
        list.ResourceBarrier({Transition(target, D3D12_RESOURCE_STATE_RENDER_TARGET,
                                         D3D12_RESOURCE_STATE_COPY_SOURCE)});
        list.CopyResource(copy->GetFirstResource(), target.GetFirstResource());
        list.ResourceBarrier({Transition(target, D3D12_RESOURCE_STATE_COPY_SOURCE,
                                         D3D12_RESOURCE_STATE_RENDER_TARGET),
                              Transition(*copy, D3D12_RESOURCE_STATE_COPY_DEST,
                                         D3D12_RESOURCE_STATE_RENDER_TARGET)});
        return std::make_unique<Canvas12>(m_queue, copy);
    }

    boost::intrusive_ptr<DX::D12CommandQueue> m_queue;
    Drawers& m_drawers;
    std::deque<boost::intrusive_ptr<DX::D12CommandAllocator>> m_frames; // the oldest first
};

class Graphics12 : public Graphics {
public:
    explicit Graphics12(const boost::intrusive_ptr<DX::D12Device>& device)
        : m_device(device),
          m_queue(MakeQueue12(device)),
          m_drawers(device) {}

    const char* GetApiName() const override { return "Direct3D 12"; }
    const DX::D3Device& GetDevice() const override { return *m_device; }
    long GetDeviceRemovedReason() const override { return m_device->GetDeviceRemovedReason(); }

    std::unique_ptr<Picture> Upload(const Image& image) override {
        const auto desc = MakeTextureDesc12(image.GetSize(), GetPictureFormat(image.bitsPerChannel),
                                            D3D12_RESOURCE_STATE_COPY_DEST, false);
        DX::D12UploadResourceParams params;
        params.destination = m_device->CreateTexture2D(desc);
        params.stateBefore = D3D12_RESOURCE_STATE_COPY_DEST;
        params.stateAfter = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
        params.subresources = {{image.pixels.data(), image.GetRowSize(), image.pixels.size()}};
        m_queue->UploadResource(params)->WaitComplete();
        return std::make_unique<Picture12>(
            m_device->CreateTextureShaderResourceView(params.destination));
    }

    std::unique_ptr<Picture> MakePicture(const DX::Size2DT<long>& size,
                                         DXGI_FORMAT format) override {
        return std::make_unique<Picture12>(m_device->CreateTextureShaderResourceView(
            m_device->CreateTexture2D(MakeTextureDesc12(size, format, kPictureState, false))));
    }

    std::unique_ptr<Screen> OpenScreen(HWND window) override {
        return std::make_unique<Screen12>(m_queue, m_drawers, window);
    }

    std::unique_ptr<FrameEncoder> MakeEncoder(const EncoderParams& params,
                                              const EncoderTextures& textures) const override {
        return MakeFrameEncoder12(m_device, params, textures);
    }

    FormatUses GetUses(DXGI_FORMAT format) const override {
        return GetFormatUses(*m_device, format);
    }

private:
    static DX::D12Frame FrameOf(const Picture& picture, const Conf::RGBColorSpace& colorSpace,
                                Proc::AlphaType alpha) {
        DX::D12Frame frame;
        frame.desc = DX::D3FrameDesc::MakeRGB(picture.GetSize(), alpha);
        frame.desc.colorSpace = colorSpace;
        frame.textures[0] = ViewOf(picture)->GetFirstResource();
        return frame;
    }

    PaintedPicture MakePainted(const DX::Size2DT<long>& size, DXGI_FORMAT format) override {
        auto desc = MakeTextureDesc12(size, format, kPictureState, true);
        const auto texture = m_device->CreateTexture2D(desc);
        return {std::make_unique<Canvas12>(m_queue, m_device->CreateRenderTargetView(texture)),
                std::make_unique<Picture12>(m_device->CreateTextureShaderResourceView(texture))};
    }

    void RunScaler(const Picture& source, const Canvas& canvas,
                   const DX::ScaleParams& params) override {
        const boost::intrusive_ptr<DX::D12Scaler> scaler(new DX::D12Scaler(m_device));
        const auto allocator = m_queue->CreateCommandAllocator();
        scaler->Encode(allocator, ViewOf(source), TargetOf12(canvas), params);
        allocator->Execute();
        allocator->WaitComplete();
    }

    void DrawColors(const Picture& source, const Canvas& canvas,
                    const Proc::ColorAlphaConversionInfo& conversion,
                    const ColorStages& stages) override {
        const DX::D12Frame frame = FrameOf(source, conversion.source, conversion.sourceAlpha);
        const boost::intrusive_ptr<DX::D12FrameDraw> draw(new DX::D12FrameDraw(m_device));
        draw->SetToneMapping(stages.tones);
        if (stages.lut != nullptr) {
            draw->SetColorLut(boost::intrusive_ptr(new DX::D12ColorLut(m_queue, *stages.lut)));
        }
        const auto allocator = m_queue->CreateCommandAllocator();
        draw->Encode(allocator, frame, TargetOf12(canvas),
                     {.transform = DX::AffineTransform(), .conversion = conversion});
        allocator->Execute();
        allocator->WaitComplete();
    }

    float RunPeak(const Picture& source, const Conf::RGBColorSpace& colorSpace) override {
        if (!m_peak) {
            m_peak.reset(new DX::D12FramePeak(m_device));
        }
        const auto frame = FrameOf(source, colorSpace, Proc::AlphaType::AlphaIsOne);
        const auto allocator = m_queue->CreateCommandAllocator();
        m_peak->Encode(allocator, frame);
        allocator->Execute();
        return m_peak->Read(m_queue);
    }

    void DrawDithered(const Canvas& source, const Canvas& canvas, DX::FrameDither dither) override {
        const auto frameOf = [](const Canvas& drawn) {
            DX::D12Frame frame;
            frame.desc =
                DX::D3FrameDesc::MakeRGB(drawn.GetSize(), Proc::AlphaType::NonPremultiplied);
            frame.textures[0] = TargetOf12(drawn)->GetFirstResource();
            return frame;
        };
        constexpr DX::D12ResourceStates kDrawn = {D3D12_RESOURCE_STATE_RENDER_TARGET,
                                                  D3D12_RESOURCE_STATE_RENDER_TARGET};
        const boost::intrusive_ptr<DX::D12FrameConverter> converter(
            new DX::D12FrameConverter(m_device));
        const auto allocator = m_queue->CreateCommandAllocator();
        converter->Encode(allocator, frameOf(source), frameOf(canvas), {{kDrawn, kDrawn}},
                          {.dither = dither});
        allocator->Execute();
        allocator->WaitComplete();
    }

    void CompileShaders(DrawKind kind) override {
        if (kind == DrawKind::Fill) {
            m_drawers.GetFillDraw();
        } else {
            m_drawers.GetImageDraw(kind == DrawKind::Over);
        }
    }

    std::unique_ptr<Canvas> MakeCanvasOf(const DX::Size2DT<long>& size,
                                         DXGI_FORMAT format) override {
        auto desc = MakeTextureDesc12(size, format, D3D12_RESOURCE_STATE_RENDER_TARGET, true);
        desc.clearColor = std::array{0.0F, 0.0F, 0.0F, 0.0F};
        return std::make_unique<Canvas12>(
            m_queue, m_device->CreateRenderTargetView(m_device->CreateTexture2D(desc)));
    }

    double Run(const std::function<void(Recorder&)>& record) override {
        const auto allocator = m_queue->CreateCommandAllocator();
        allocator->RecordList(nullptr, [&](const List& list) {
            Recorder12 recorder(m_drawers, list);
            record(recorder);
        });
        const Stopwatch stopwatch;
        allocator->Execute();
        allocator->WaitComplete();
        return stopwatch.GetMilliseconds();
    }

    boost::intrusive_ptr<DX::D12Device> m_device;
    boost::intrusive_ptr<DX::D12CommandQueue> m_queue;
    Drawers m_drawers;
    boost::intrusive_ptr<DX::D12FramePeak> m_peak; // null before it is needed
};

// A lost device supports nothing, which is not the adapter's fault.
void CheckWhyNothing(const DX::D12Device& device, bool isNothing) {
    const long reason = isNothing ? device.Get()->GetDeviceRemovedReason() : S_OK;
    if (reason != S_OK) {
        DX::DirectX12Exception failure;
        failure << ErrorDescription("The device was lost while its formats were asked for")
                << HResult(reason, device.Get());
        boost::throw_exception(failure);
    }
}

} // namespace

std::unique_ptr<Graphics> MakeGraphics12(const boost::intrusive_ptr<DX::D12Device>& device) {
    return std::make_unique<Graphics12>(device);
}

FormatUses GetFormatUses(const DX::D12Device& device, DXGI_FORMAT format) {
    const auto support = device.CheckFormatSupport(format).first;
    CheckWhyNothing(device, !support);
    return {.drawFrom = support.has(D3D12_FORMAT_SUPPORT1_SHADER_SAMPLE),
            .drawTo = support.has(D3D12_FORMAT_SUPPORT1_TEXTURE2D) &&
                      support.has(D3D12_FORMAT_SUPPORT1_RENDER_TARGET),
            .blend = support.has(D3D12_FORMAT_SUPPORT1_BLENDABLE)};
}

} // namespace Norvex::App
