#include "apps/norvexdx/graphics/FrameEncoder11.h"

#include <algorithm>
#include <thread>

#include "Proc/DirectX/Manager/D11ImageDraw.h"
#include "Proc/DirectX/Manager/D3FrameConverter.h"
#include "Proc/DirectX/Manager/D3Scaler.h"
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
          m_device(device) {
        if (params.onePass) {
            m_onePass.reset(new DX::D11FrameConverter(device));
            if (const auto& lut = params.onePass->stages.lut) {
                m_onePass->SetColorLut(boost::intrusive_ptr(new DX::D11ColorLut(device, *lut)));
            }
            return;
        }
        m_draw.reset(new DX::D11ImageDraw(device));
        m_converter.reset(new DX::D11YUVConverter(device, params.alpha));
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
        std::array<Texture, 3> upload;                       // staging, of the source's size
        std::array<Picture, 3> source;                       // a picture, or a plane each
        boost::intrusive_ptr<DX::D11RenderTexture2D> canvas; // null before a frame is drawn
        std::array<Texture, 3> planes;                       // of a planar texture only the first
        std::array<Texture, 3> readback;
    };

    void Begin(std::size_t index, const ClipFrame& frame) override {
        Slot& slot = m_slots[index];
        m_device->Encode([&](const Context& context) {
            Prepare(slot, frame);
            slot.timer->Begin();
            Upload(context, slot, frame);
            if (GetParams().onePass) {
                ConvertInOnePass(context, slot, frame);
            } else {
                ConvertInTwoPasses(context, slot, IsDrawn(frame));
            }
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
    void Prepare(Slot& slot, const ClipFrame& frame) {
        if (!slot.timer) {
            slot.timer.emplace(*m_device);
            MakePlanes(slot);
        }
        const std::vector<PlaneRows> planes = GetPlaneRows(frame);
        for (std::size_t i = 0; i < planes.size(); ++i) {
            MakeSource(slot.upload[i], slot.source[i], planes[i]);
        }
        if (IsDrawn(frame) && !slot.canvas) {
            slot.canvas = MakeCanvas(GetParams().size);
        }
        if (IsDrawn(frame) && GetParams().onePass && !m_scaler) {
            m_scaler.reset(new DX::D11Scaler(m_device));
        }
    }

    void MakeSource(Texture& upload, Picture& source, const PlaneRows& plane) const {
        D3D11_TEXTURE2D_DESC present = {};
        if (source) {
            source->GetDesc(&present);
        }
        if (!source || source->GetSize() != plane.size || present.Format != plane.format) {
            upload = m_device->CreateTexture2D(
                MakeStagingDesc11(plane.size, plane.format, D3D11_CPU_ACCESS_WRITE), nullptr);
            source = DX::D11ShaderTexture2D::Create(
                m_device, MakeTextureDesc11(plane.size, plane.format), nullptr);
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
        if (GetParams().onePass) {
            const DX::D3FrameDesc& target = GetParams().onePass->target;
            for (unsigned i = 0; i < target.GetPlaneCount(); ++i) {
                make(i, target.GetPlane(i).size, target.GetPlane(i).format);
            }
        } else if (IsPlanar()) {
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

    static void Upload(const Context& context, const Slot& slot, const ClipFrame& frame) {
        const std::vector<PlaneRows> planes = GetPlaneRows(frame);
        for (std::size_t i = 0; i < planes.size(); ++i) {
            {
                const Mapping11 mapping(context, slot.upload[i], D3D11_MAP_WRITE);
                CopyRows(mapping.GetData(), mapping.GetRowPitch(), planes[i].data,
                         planes[i].rowBytes, planes[i].rowBytes,
                         static_cast<std::size_t>(planes[i].size.height));
            }
            context->CopyResource(slot.source[i]->GetTexture(), slot.upload[i]);
        }
    }

    void ConvertInOnePass(const Context& context, const Slot& slot, const ClipFrame& frame) {
        DX::D11Frame source;
        source.desc = DescribeSource(frame);
        for (unsigned i = 0; i < source.desc.GetPlaneCount(); ++i) {
            source.textures[i] = slot.source[i]->GetTexture();
        }
        if (IsDrawn(frame)) {
            Scale(context, slot, frame, source);
            source = {};
            source.desc = DescribeScaled(frame);
            source.textures[0] = slot.canvas->GetTexture();
        }
        DX::D11Frame target;
        target.desc = DescribeTarget();
        std::ranges::copy(slot.planes, target.textures.begin());
        m_onePass->Encode(context, source, target, GetConversion());
    }

    void Scale(const Context& context, const Slot& slot, const ClipFrame& frame,
               const DX::D11Frame& source) {
        context->ClearRenderTargetView(slot.canvas->GetView(), kBlack);
        m_scaler->Encode(context, source, slot.canvas, GetScaling(frame));
    }

    void ConvertInTwoPasses(const Context& context, const Slot& slot, bool isDrawn) {
        if (isDrawn) {
            Draw(context, slot);
        }
        Convert(context, slot, isDrawn);
    }

    void Draw(const Context& context, const Slot& slot) {
        const DX::Size2DT<long> sourceSize = slot.source[0]->GetSize();
        const Placement placement = PlacePicture({}, sourceSize, GetParams().size);
        context->ClearRenderTargetView(slot.canvas->GetView(), kBlack);
        Picture source = slot.source[0];
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
        const Texture& source = isDrawn ? slot.canvas->GetTexture() : slot.source[0]->GetTexture();
        if (IsPlanar()) {
            m_converter->Encode(context, source, slot.planes[0], params.matrix);
        } else {
            m_converter->Encode(context, source, slot.planes[0], slot.planes[1],
                                params.format.planar, params.matrix);
        }
    }

    void ReadBack(const Context& context, const Slot& slot, std::uint8_t* planes) const {
        const EncoderParams& params = GetParams();
        if (params.onePass) {
            ReadBackPlanes(context, slot, planes);
            return;
        }
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

    void ReadBackPlanes(const Context& context, const Slot& slot, std::uint8_t* planes) const {
        const DX::D3FrameDesc& target = GetParams().onePass->target;
        for (unsigned i = 0; i < target.GetPlaneCount(); ++i) {
            const std::size_t rowBytes = GetPlaneRowBytes(target, i);
            const Mapping11 mapping(context, slot.readback[i], D3D11_MAP_READ);
            CopyRows(planes, rowBytes, mapping.GetData(), mapping.GetRowPitch(), rowBytes,
                     static_cast<std::size_t>(target.GetPlane(i).size.height));
            planes += GetPlaneBytes(target, i);
        }
    }

    boost::intrusive_ptr<DX::D11Device> m_device;
    boost::intrusive_ptr<DX::D11ImageDraw> m_draw;         // of two passes, as the next
    boost::intrusive_ptr<DX::D11YUVConverter> m_converter; // null in one
    boost::intrusive_ptr<DX::D11FrameConverter> m_onePass; // null in two
    boost::intrusive_ptr<DX::D11Scaler> m_scaler;          // null before it is needed
    std::array<Slot, kSlots> m_slots;
};

} // namespace

std::unique_ptr<FrameEncoder> MakeFrameEncoder11(const boost::intrusive_ptr<DX::D11Device>& device,
                                                 const EncoderParams& params,
                                                 const EncoderTextures& textures) {
    return std::make_unique<FrameEncoder11>(device, params, textures);
}

} // namespace Norvex::App
