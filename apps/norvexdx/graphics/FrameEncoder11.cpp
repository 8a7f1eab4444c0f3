#include "apps/norvexdx/graphics/FrameEncoder11.h"

#include <thread>

#include "Proc/DirectX/Manager/D11ImageDraw.h"
#include "Proc/DirectX/Manager/D3YUVConverter.h"
#include "apps/norvexdx/graphics/Pieces11.h"

namespace Norvex::App {

namespace {

using Context = boost::intrusive_ptr<DX::D11DeviceContext>;

// Time of the device between two places in what is recorded. Inside Encode.
class Timer {
public:
    explicit Timer(DX::D11Device& device) {
        device.Get()->GetImmediateContext(&m_context);
        m_disjoint = MakeQuery11(device, D3D11_QUERY_TIMESTAMP_DISJOINT);
        m_begin = MakeQuery11(device, D3D11_QUERY_TIMESTAMP);
        m_end = MakeQuery11(device, D3D11_QUERY_TIMESTAMP);
    }

    void Begin() {
        m_context->Begin(m_disjoint);
        m_context->End(m_begin);
    }

    void End() {
        m_context->End(m_end);
        m_context->End(m_disjoint);
    }

    // Waits until the device is past the end; nothing when its clock changed on the way.
    std::optional<double> GetMilliseconds() const {
        D3D11_QUERY_DATA_TIMESTAMP_DISJOINT clock = {};
        UINT64 begin = 0;
        UINT64 end = 0;
        if (!Read(m_disjoint, clock) || !Read(m_begin, begin) || !Read(m_end, end) ||
            clock.Disjoint || clock.Frequency == 0) {
            return std::nullopt;
        }
        constexpr double kMsPerSecond = 1000.0;
        return static_cast<double>(end - begin) * kMsPerSecond /
               static_cast<double>(clock.Frequency);
    }

private:
    template <class T>
    bool Read(ID3D11Query* query, T& value) const {
        HRESULT result = S_FALSE;
        while ((result = m_context->GetData(query, &value, sizeof(value), 0)) == S_FALSE) {
            std::this_thread::yield();
        }
        return result == S_OK;
    }

    CComPtr<ID3D11DeviceContext> m_context;
    CComPtr<ID3D11Query> m_disjoint;
    CComPtr<ID3D11Query> m_begin;
    CComPtr<ID3D11Query> m_end;
};

class FrameEncoder11 : public FrameEncoder {
public:
    FrameEncoder11(const boost::intrusive_ptr<DX::D11Device>& device, const EncoderParams& params,
                   const EncoderTextures& textures)
        : FrameEncoder(params, textures),
          m_device(device),
          m_draw(new DX::D11ImageDraw(device)),
          m_converter(new DX::D11YUVConverter(device, params.alpha)) {
        if (params.conversion) {
            m_draw->Specialize(params.conversion);
        }
    }

private:
    using Texture = CComPtr<ID3D11Texture2D>;
    using Picture = boost::intrusive_ptr<DX::D11ShaderTexture2D>;

    // What a frame in flight uses; kept for the next one.
    struct Slot {
        std::optional<Timer> timer;
        Texture upload; // staging, of the source's size
        Picture source;
        boost::intrusive_ptr<DX::D11RenderTexture2D> canvas; // null before a frame is drawn
        std::array<Texture, 2> planes;                       // of a planar texture only the first
        std::array<Texture, 2> readback;
    };

    void Begin(std::size_t index, const Image& frame) override {
        Slot& slot = m_slots[index];
        m_device->Encode([&](const Context& context) {
            Prepare(slot, frame);
            slot.timer->Begin();
            Upload(context, slot, frame);
            if (IsDrawn(frame)) {
                Draw(context, slot);
            }
            Convert(context, slot, IsDrawn(frame));
            for (std::size_t i = 0; i < slot.planes.size() && slot.planes[i]; ++i) {
                context->CopyResource(slot.readback[i], slot.planes[i]);
            }
            slot.timer->End();
            context->Flush();
        });
    }

    std::optional<double> End(std::size_t index, std::uint8_t* planes) override {
        std::optional<double> milliseconds;
        m_device->Encode([&](const Context& context) {
            ReadBack(context, m_slots[index], planes);
            milliseconds = m_slots[index].timer->GetMilliseconds();
        });
        return milliseconds;
    }

    // Makes what the slot lacks for this frame.
    void Prepare(Slot& slot, const Image& frame) {
        const DX::Size2DT<long> size = frame.GetSize();
        const DXGI_FORMAT format = GetPictureFormat(frame.bitsPerChannel);
        if (!slot.timer) {
            slot.timer.emplace(*m_device);
            MakePlanes(slot);
        }
        D3D11_TEXTURE2D_DESC present = {};
        if (slot.source) {
            slot.source->GetDesc(&present);
        }
        if (!slot.source || slot.source->GetSize() != size || present.Format != format) {
            slot.upload = m_device->CreateTexture2D(
                MakeStagingDesc11(size, format, D3D11_CPU_ACCESS_WRITE), nullptr);
            slot.source =
                DX::D11ShaderTexture2D::Create(m_device, MakeTextureDesc11(size, format), nullptr);
        }
        if (IsDrawn(frame) && !slot.canvas) {
            slot.canvas = MakeCanvas(GetParams().size);
        }
    }

    void MakePlanes(Slot& slot) {
        const VideoFormat& format = GetParams().format;
        const auto make = [&](std::size_t i, const DX::Size2DT<long>& size, DXGI_FORMAT plane) {
            auto desc = MakeTextureDesc11(size, plane);
            desc.BindFlags = D3D11_BIND_RENDER_TARGET;
            slot.planes[i] = m_device->CreateTexture2D(desc, nullptr);
            slot.readback[i] = m_device->CreateTexture2D(
                MakeStagingDesc11(size, plane, D3D11_CPU_ACCESS_READ), nullptr);
        };
        const DX::Size2DT<long>& size = GetParams().size;
        if (IsPlanar()) {
            make(0, size, format.planar);
        } else {
            make(0, size, format.luma);
            make(1, GetChromaSize(size), format.chroma);
        }
    }

    boost::intrusive_ptr<DX::D11RenderTexture2D> MakeCanvas(const DX::Size2DT<long>& size) {
        auto desc = MakeTextureDesc11(size, GetTextures().canvasFormat);
        desc.BindFlags = D3D11_BIND_SHADER_RESOURCE;
        return DX::D11RenderTexture2D::Create(m_device, desc);
    }

    static void Upload(const Context& context, const Slot& slot, const Image& frame) {
        {
            const Mapping11 mapping(context, slot.upload, D3D11_MAP_WRITE);
            CopyRows(mapping.GetData(), mapping.GetRowPitch(), frame.pixels.data(),
                     frame.GetRowSize(), frame.GetRowSize(), frame.height);
        }
        context->CopyResource(slot.source->GetTexture(), slot.upload);
    }

    void Draw(const Context& context, const Slot& slot) {
        const DX::Size2DT<long> sourceSize = slot.source->GetSize();
        const Placement placement = PlacePicture({}, sourceSize, GetParams().size);
        context->ClearRenderTargetView(slot.canvas->GetView(), kBlack);
        Picture source = slot.source;
        for (unsigned i = Graphics::CountHalvings(sourceSize, placement.scale); i > 0; --i) {
            source = Halve(context, source);
        }
        m_draw->Encode(context, source, slot.canvas, placement.transform, GetParams().conversion,
                       std::nullopt);
    }

    // So that a picture that gets much smaller does not alias.
    Picture Halve(const Context& context, const Picture& source) {
        const DX::Size2DT<long> size = source->GetSize();
        const auto half = MakeCanvas({(size.width + 1) / 2, (size.height + 1) / 2});
        m_draw->Encode(context, source, half, DX::AffineTransform(), std::nullopt, std::nullopt);
        return Picture(new DX::D11ShaderTexture2D(half->GetTexture(), std::nullopt));
    }

    void Convert(const Context& context, const Slot& slot, bool isDrawn) {
        const EncoderParams& params = GetParams();
        const Texture& source = isDrawn ? slot.canvas->GetTexture() : slot.source->GetTexture();
        if (IsPlanar()) {
            m_converter->Encode(context, source, slot.planes[0], params.matrix);
        } else {
            m_converter->Encode(context, source, slot.planes[0], slot.planes[1],
                                params.format.planar, params.matrix);
        }
    }

    void ReadBack(const Context& context, const Slot& slot, std::uint8_t* planes) const {
        const EncoderParams& params = GetParams();
        const auto height = static_cast<std::size_t>(params.size.height);
        const auto chromaHeight = static_cast<std::size_t>(GetChromaSize(params.size).height);
        const std::size_t lumaSize = params.format.GetLumaBytes(params.size);
        const std::size_t lumaRow = lumaSize / height;
        const std::size_t chromaRow = params.format.GetChromaBytes(params.size) / chromaHeight;
        const Mapping11 luma(context, slot.readback[0], D3D11_MAP_READ);
        CopyRows(planes, lumaRow, luma.GetData(), luma.GetRowPitch(), lumaRow, height);
        if (IsPlanar()) {
            // Direct3D 11 maps both planes at once, chroma behind luma.
            CopyRows(planes + lumaSize, chromaRow, luma.GetData() + luma.GetRowPitch() * height,
                     luma.GetRowPitch(), chromaRow, chromaHeight);
        } else {
            const Mapping11 chroma(context, slot.readback[1], D3D11_MAP_READ);
            CopyRows(planes + lumaSize, chromaRow, chroma.GetData(), chroma.GetRowPitch(),
                     chromaRow, chromaHeight);
        }
    }

    boost::intrusive_ptr<DX::D11Device> m_device;
    boost::intrusive_ptr<DX::D11ImageDraw> m_draw;
    boost::intrusive_ptr<DX::D11YUVConverter> m_converter;
    std::array<Slot, kSlots> m_slots;
};

} // namespace

std::unique_ptr<FrameEncoder> MakeFrameEncoder11(const boost::intrusive_ptr<DX::D11Device>& device,
                                                 const EncoderParams& params,
                                                 const EncoderTextures& textures) {
    return std::make_unique<FrameEncoder11>(device, params, textures);
}

} // namespace Norvex::App
