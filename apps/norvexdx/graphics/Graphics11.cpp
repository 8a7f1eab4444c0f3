#include "apps/norvexdx/graphics/Graphics11.h"

#include <array>
#include <deque>
#include <optional>
#include <thread>

#include <boost/throw_exception.hpp>

#include "Proc/DirectX/Manager/D11ImageDraw.h"
#include "Proc/DirectX/Manager/D3FrameDraw.h"
#include "Proc/DirectX/Manager/D3FramePeak.h"
#include "Proc/DirectX/Manager/Exceptions.h"
#include "apps/norvexdx/console/Stopwatch.h"
#include "apps/norvexdx/graphics/ColorStages.h"
#include "apps/norvexdx/graphics/FrameEncoder11.h"
#include "apps/norvexdx/graphics/Pieces11.h"
#include "apps/norvexdx/graphics/Screen.h"

namespace Norvex::App {

namespace {

// Premultiplied colour over what is there.
D3D11_RENDER_TARGET_BLEND_DESC MakeOverBlend11() {
    return {.BlendEnable = TRUE,
            .SrcBlend = D3D11_BLEND_ONE,
            .DestBlend = D3D11_BLEND_INV_SRC_ALPHA,
            .BlendOp = D3D11_BLEND_OP_ADD,
            .SrcBlendAlpha = D3D11_BLEND_ONE,
            .DestBlendAlpha = D3D11_BLEND_INV_SRC_ALPHA,
            .BlendOpAlpha = D3D11_BLEND_OP_ADD,
            .RenderTargetWriteMask = D3D11_COLOR_WRITE_ENABLE_ALL};
}

class Picture11 : public Picture {
public:
    Picture11(const boost::intrusive_ptr<DX::D11ShaderTexture2D>& texture, DXGI_FORMAT format)
        : Picture(texture->GetSize(), format),
          m_texture(texture) {}

    const boost::intrusive_ptr<DX::D11ShaderTexture2D>& GetTexture() const { return m_texture; }

private:
    boost::intrusive_ptr<DX::D11ShaderTexture2D> m_texture;
};

class Canvas11 : public Canvas {
public:
    Canvas11(const boost::intrusive_ptr<DX::D11Device>& device,
             const boost::intrusive_ptr<DX::D11RenderTexture2D>& target, DXGI_FORMAT format)
        : Canvas(target->GetSize(), format),
          m_device(device),
          m_target(target) {}

    const boost::intrusive_ptr<DX::D11RenderTexture2D>& GetTarget() const { return m_target; }

protected:
    void ReadBack(const UseRows& use) override {
        const Copy copy(m_device, m_target->GetTexture(),
                        MakeStagingDesc11(GetSize(), GetFormat(), D3D11_CPU_ACCESS_READ));
        use(copy.Get().GetData(), copy.Get().GetRowPitch());
    }

private:
    // Of a texture, in memory that is read while other threads use the device.
    class Copy {
    public:
        Copy(const boost::intrusive_ptr<DX::D11Device>& device,
             const CComPtr<ID3D11Texture2D>& texture, const D3D11_TEXTURE2D_DESC& desc)
            : m_device(device) {
            const auto staging = device->CreateTexture2D(desc, nullptr);
            device->Encode([&](const boost::intrusive_ptr<DX::D11DeviceContext>& context) {
                context->CopyResource(staging, texture);
                m_mapping.emplace(context, staging, D3D11_MAP_READ);
            });
        }
        ~Copy() {
            m_device->Encode([this](const auto&) { m_mapping.reset(); });
        }
        Copy(const Copy&) = delete;
        Copy& operator=(const Copy&) = delete;

        const Mapping11& Get() const { return *m_mapping; }

    private:
        boost::intrusive_ptr<DX::D11Device> m_device;
        std::optional<Mapping11> m_mapping;
    };

    boost::intrusive_ptr<DX::D11Device> m_device;
    boost::intrusive_ptr<DX::D11RenderTexture2D> m_target;
};

const boost::intrusive_ptr<DX::D11ShaderTexture2D>& TextureOf(const Picture& picture) {
    return static_cast<const Picture11&>(picture).GetTexture();
}

const boost::intrusive_ptr<DX::D11RenderTexture2D>& TargetOf11(const Canvas& canvas) {
    return static_cast<const Canvas11&>(canvas).GetTarget();
}

// The library's drawers, for one thread at a time: inside Encode.
class Drawer {
public:
    explicit Drawer(const boost::intrusive_ptr<DX::D11Device>& device)
        : m_device(device),
          m_draw(new DX::D11ImageDraw(device)),
          m_overBlend(device->CreateBlendState(MakeOverBlend11())) {}

    const boost::intrusive_ptr<DX::D11ImageDraw>& GetImageDraw(bool blends) {
        m_draw->SetBlendState(blends ? m_overBlend : CComPtr<ID3D11BlendState>());
        return m_draw;
    }

    const boost::intrusive_ptr<DX::D11FrameDraw>& GetFrameDraw() {
        if (!m_frameDraw) {
            m_frameDraw.reset(new DX::D11FrameDraw(m_device));
        }
        return m_frameDraw;
    }

private:
    boost::intrusive_ptr<DX::D11Device> m_device;
    boost::intrusive_ptr<DX::D11ImageDraw> m_draw;
    boost::intrusive_ptr<DX::D11FrameDraw> m_frameDraw; // null before it is needed
    CComPtr<ID3D11BlendState> m_overBlend;
};

class Recorder11 : public Recorder {
public:
    Recorder11(Drawer& drawer, const boost::intrusive_ptr<DX::D11DeviceContext>& context)
        : m_drawer(drawer),
          m_context(context) {}

    void Clear(const Canvas& canvas, const Proc::ColorF& color) override {
        m_context->ClearRenderTargetView(TargetOf11(canvas)->GetView(), color);
    }

    // The library fills on Direct3D 12 only; here one pixel is stretched over the rectangle.
    void Fill(const Canvas& canvas, const Proc::ColorF& color,
              const DX::Rect2DT<long>& rect) override {
        const std::array pixel = {color.r, color.g, color.b, color.a};
        const D3D11_SUBRESOURCE_DATA data = {pixel.data(), sizeof(pixel), 0};
        const auto& draw = m_drawer.GetImageDraw(false);
        const auto source = DX::D11ShaderTexture2D::Create(
            draw->GetDevice(), MakeTextureDesc11({1, 1}, DXGI_FORMAT_R32G32B32A32_FLOAT), &data);
        draw->Encode(m_context, source, TargetOf11(canvas), std::nullopt, rect);
    }

    void Draw(const Picture& source, const Canvas& canvas, const DrawParams& params) override {
        const auto& draw = m_drawer.GetImageDraw(params.blends);
        if (params.isRepeated) {
            draw->Specialize(params.conversion);
        }
        draw->Encode(m_context, TextureOf(source), TargetOf11(canvas), params.transform,
                     params.conversion, params.rect);
    }

    std::unique_ptr<Picture> TakePicture(const Canvas& canvas) override {
        const boost::intrusive_ptr<DX::D11ShaderTexture2D> texture(
            new DX::D11ShaderTexture2D(TargetOf11(canvas)->GetTexture(), std::nullopt));
        return std::make_unique<Picture11>(texture, canvas.GetFormat());
    }

    void Paint(const PaintedPicture& /*picture*/, const std::function<void()>& draw) override {
        draw();
    }

    void Update(const Picture& picture, const PlaneRows& rows) override {
        m_context->UpdateSubresource(TextureOf(picture)->GetTexture(), 0, nullptr, rows.data,
                                     static_cast<UINT>(rows.rowBytes), 0);
    }

    void DrawFrame(const std::vector<std::unique_ptr<Picture>>& planes, const DX::D3FrameDesc& desc,
                   const Canvas& canvas) override {
        DX::D11Frame frame;
        frame.desc = desc;
        for (std::size_t i = 0; i < planes.size(); ++i) {
            frame.textures.at(i) = TextureOf(*planes[i])->GetTexture();
        }
        m_drawer.GetFrameDraw()->Encode(m_context, frame, TargetOf11(canvas),
                                        {.transform = DX::AffineTransform()});
    }

private:
    Drawer& m_drawer;
    boost::intrusive_ptr<DX::D11DeviceContext> m_context;
};

// A place in what is recorded, which the device passes some time after Flush. Inside Encode.
class Marker {
public:
    explicit Marker(const boost::intrusive_ptr<DX::D11Device>& device) : m_device(device) {
        m_device->Get()->GetImmediateContext(&m_context);
        m_query = MakeQuery11(*m_device, D3D11_QUERY_EVENT);
        m_context->End(m_query);
    }

    bool IsPassed() const {
        const HRESULT result =
            m_context->GetData(m_query, nullptr, 0, D3D11_ASYNC_GETDATA_DONOTFLUSH);
        ThrowIfFailed11(result, "Failed to wait for the device", *m_device);
        return result == S_OK;
    }
    void Wait() const {
        while (!IsPassed()) {
            std::this_thread::yield();
        }
    }

private:
    boost::intrusive_ptr<DX::D11Device> m_device;
    CComPtr<ID3D11DeviceContext> m_context;
    CComPtr<ID3D11Query> m_query;
};

class Screen11 : public Screen {
public:
    Screen11(const boost::intrusive_ptr<DX::D11Device>& device, Drawer& drawer, HWND window)
        : Screen(DX::DXGISwapChain::Create(device, window)),
          m_device(device),
          m_drawer(drawer) {}

    std::size_t CountFramesInFlight() override {
        m_device->Encode([&](const auto&) {
            while (!m_frames.empty() && m_frames.front().IsPassed()) {
                m_frames.pop_front();
            }
        });
        return m_frames.size();
    }

private:
    std::unique_ptr<Canvas> GetBackBuffer() const override {
        const auto target = GetSwapChain().GetRenderTexture();
        if (target == nullptr) {
            return nullptr;
        }
        D3D11_TEXTURE2D_DESC desc = {};
        target->GetDesc(&desc);
        return std::make_unique<Canvas11>(m_device, target, desc.Format);
    }

    void WaitForFrames(std::size_t mayBeInFlight) override {
        m_device->Encode([&](const auto&) {
            while (m_frames.size() > mayBeInFlight) {
                m_frames.front().Wait();
                m_frames.pop_front();
            }
        });
    }

    double Submit(Canvas& backBuffer, const Record& record, ScreenPixels* pixels) override {
        const Stopwatch stopwatch;
        m_device->Encode([&](const boost::intrusive_ptr<DX::D11DeviceContext>& context) {
            Recorder11 recorder(m_drawer, context);
            record(recorder, backBuffer);
            m_frames.emplace_back(m_device);
            context->Flush();
        });
        const double milliseconds = stopwatch.GetMilliseconds();
        if (pixels != nullptr) {
            *pixels = {backBuffer.GetSize(), backBuffer.GetFormat(), backBuffer.DownloadBytes()};
        }
        return milliseconds;
    }

    boost::intrusive_ptr<DX::D11Device> m_device;
    Drawer& m_drawer;
    std::deque<Marker> m_frames; // submitted, the oldest first
};

class Graphics11 : public Graphics {
public:
    explicit Graphics11(const boost::intrusive_ptr<DX::D11Device>& device) : m_device(device) {}

    const char* GetApiName() const override { return "Direct3D 11"; }
    const DX::D3Device& GetDevice() const override { return *m_device; }
    long GetDeviceRemovedReason() const override { return m_device->GetDeviceRemovedReason(); }

    std::unique_ptr<Picture> Upload(const Image& image) override {
        const auto desc =
            MakeTextureDesc11(image.GetSize(), GetPictureFormat(image.bitsPerChannel));
        const D3D11_SUBRESOURCE_DATA data = {image.pixels.data(),
                                             static_cast<UINT>(image.GetRowSize()), 0};
        return std::make_unique<Picture11>(DX::D11ShaderTexture2D::Create(m_device, desc, &data),
                                           desc.Format);
    }

    std::unique_ptr<Picture> MakePicture(const DX::Size2DT<long>& size,
                                         DXGI_FORMAT format) override {
        return std::make_unique<Picture11>(
            DX::D11ShaderTexture2D::Create(m_device, MakeTextureDesc11(size, format), nullptr),
            format);
    }

    std::unique_ptr<Screen> OpenScreen(HWND window) override {
        return std::make_unique<Screen11>(m_device, m_drawer.value(), window);
    }

    std::unique_ptr<FrameEncoder> MakeEncoder(const EncoderParams& params,
                                              const EncoderTextures& textures) const override {
        return MakeFrameEncoder11(m_device, params, textures);
    }

    FormatUses GetUses(DXGI_FORMAT format) const override {
        return GetFormatUses(*m_device, format);
    }

private:
    static DX::D11Frame FrameOf(const Picture& picture, const Conf::RGBColorSpace& colorSpace,
                                Proc::AlphaType alpha) {
        DX::D11Frame frame;
        frame.desc = DX::D3FrameDesc::MakeRGB(picture.GetSize(), alpha);
        frame.desc.colorSpace = colorSpace;
        frame.textures[0] = TextureOf(picture)->GetTexture();
        return frame;
    }

    PaintedPicture MakePainted(const DX::Size2DT<long>& size, DXGI_FORMAT format) override {
        auto canvas = MakeCanvasOf(size, format);
        auto picture = std::make_unique<Picture11>(
            boost::intrusive_ptr<DX::D11ShaderTexture2D>(
                new DX::D11ShaderTexture2D(TargetOf11(*canvas)->GetTexture(), std::nullopt)),
            format);
        return {std::move(canvas), std::move(picture)};
    }

    void RunScaler(const Picture& source, const Canvas& canvas,
                   const DX::ScaleParams& params) override {
        m_device->Encode([&](const boost::intrusive_ptr<DX::D11DeviceContext>& context) {
            const boost::intrusive_ptr<DX::D11Scaler> scaler(new DX::D11Scaler(m_device));
            scaler->Encode(context, TextureOf(source), TargetOf11(canvas), params);
        });
    }

    void DrawColors(const Picture& source, const Canvas& canvas,
                    const Proc::ColorAlphaConversionInfo& conversion,
                    const ColorStages& stages) override {
        const DX::D11Frame frame = FrameOf(source, conversion.source, conversion.sourceAlpha);
        const boost::intrusive_ptr<DX::D11FrameDraw> draw(new DX::D11FrameDraw(m_device));
        draw->SetToneMapping(stages.tones);
        if (stages.lut != nullptr) {
            draw->SetColorLut(boost::intrusive_ptr(new DX::D11ColorLut(m_device, *stages.lut)));
        }
        m_device->Encode([&](const boost::intrusive_ptr<DX::D11DeviceContext>& context) {
            draw->Encode(context, frame, TargetOf11(canvas),
                         {.transform = DX::AffineTransform(), .conversion = conversion});
        });
    }

    float RunPeak(const Picture& source, const Conf::RGBColorSpace& colorSpace) override {
        if (!m_peak) {
            m_peak.reset(new DX::D11FramePeak(m_device));
        }
        const auto frame = FrameOf(source, colorSpace, Proc::AlphaType::AlphaIsOne);
        float brightest = 0.0F;
        m_device->Encode([&](const boost::intrusive_ptr<DX::D11DeviceContext>& context) {
            m_peak->Encode(context, frame);
            brightest = m_peak->Read(context);
        });
        return brightest;
    }

    void DrawDithered(const Canvas& source, const Canvas& canvas, DX::FrameDither dither) override {
        const auto frameOf = [](const Canvas& drawn) {
            DX::D11Frame frame;
            frame.desc =
                DX::D3FrameDesc::MakeRGB(drawn.GetSize(), Proc::AlphaType::NonPremultiplied);
            frame.textures[0] = TargetOf11(drawn)->GetTexture();
            return frame;
        };
        const boost::intrusive_ptr<DX::D11FrameConverter> converter(
            new DX::D11FrameConverter(m_device));
        m_device->Encode([&](const boost::intrusive_ptr<DX::D11DeviceContext>& context) {
            converter->Encode(context, frameOf(source), frameOf(canvas), {.dither = dither});
        });
    }

    // One drawer serves all kinds.
    void CompileShaders(DrawKind /*kind*/) override { m_drawer.emplace(m_device); }

    std::unique_ptr<Canvas> MakeCanvasOf(const DX::Size2DT<long>& size,
                                         DXGI_FORMAT format) override {
        D3D11_TEXTURE2D_DESC desc = MakeTextureDesc11(size, format);
        desc.BindFlags = D3D11_BIND_SHADER_RESOURCE; // for TakePicture
        return std::make_unique<Canvas11>(m_device, DX::D11RenderTexture2D::Create(m_device, desc),
                                          format);
    }

    double Run(const std::function<void(Recorder&)>& record) override {
        double milliseconds = 0.0;
        m_device->Encode([&](const boost::intrusive_ptr<DX::D11DeviceContext>& context) {
            const Stopwatch stopwatch; // what is recorded may start before it is flushed
            Recorder11 recorder(m_drawer.value(), context);
            record(recorder);
            const Marker end(m_device);
            context->Flush();
            end.Wait();
            milliseconds = stopwatch.GetMilliseconds();
        });
        return milliseconds;
    }

    boost::intrusive_ptr<DX::D11Device> m_device;
    std::optional<Drawer> m_drawer;                // empty until the shaders are compiled
    boost::intrusive_ptr<DX::D11FramePeak> m_peak; // null before it is needed
};

// A lost device supports nothing, which is not the adapter's fault.
void CheckWhyNothing(const DX::D11Device& device, bool isNothing) {
    const long reason = isNothing ? device.Get()->GetDeviceRemovedReason() : S_OK;
    if (reason != S_OK) {
        DX::DirectX11Exception failure;
        failure << ErrorDescription("The device was lost while its formats were asked for")
                << HResult(reason, device.Get());
        boost::throw_exception(failure);
    }
}

} // namespace

std::unique_ptr<Graphics> MakeGraphics11(const boost::intrusive_ptr<DX::D11Device>& device) {
    return std::make_unique<Graphics11>(device);
}

FormatUses GetFormatUses(const DX::D11Device& device, DXGI_FORMAT format) {
    const auto support =
        device.CheckFormatSupport(format).value_or(bitflags<D3D11_FORMAT_SUPPORT>());
    CheckWhyNothing(device, !support);
    return {.drawFrom = support.has(D3D11_FORMAT_SUPPORT_SHADER_SAMPLE),
            .drawTo = support.has(D3D11_FORMAT_SUPPORT_TEXTURE2D) &&
                      support.has(D3D11_FORMAT_SUPPORT_RENDER_TARGET),
            .blend = support.has(D3D11_FORMAT_SUPPORT_BLENDABLE)};
}

} // namespace Norvex::App
