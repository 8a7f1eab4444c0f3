// Frames of video, 1920 x 1080. To encoders: the converter of one pass a plane beside the one of
// two passes, which has the colours converted by a draw before. From decoders: the drawer of frames
// beside the one of images.

#include <memory>
#include <optional>
#include <string>

#include <fmt/format.h>

#include "Host/ColorConversionInfo.h"
#include "Proc/DirectX/Manager/D3D12Renderer.h"
#include "Proc/DirectX/Manager/D3FrameConverter.h"
#include "Proc/DirectX/Manager/D3FrameDraw.h"
#include "Proc/DirectX/Manager/D3YUVConverter.h"
#include "bench/Cases.h"
#include "bench/Direct3D12Twin.h"

namespace Norvex::Bench {

namespace {

constexpr auto kConvertSource = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
constexpr auto kConvertTarget = D3D12_RESOURCE_STATE_RENDER_TARGET;
constexpr DX::D12ResourceStates kConvertRead = {kConvertSource, kConvertSource};
constexpr DX::D12ResourceStates kConvertDrawn = {kConvertTarget, kConvertTarget};
constexpr DX::Size2DT<long> kFullHD = {1920, 1080};
constexpr Conf::RGBColorSpace kFromSRGB = {Conf::ColorPrimaries::BT709,
                                           Conf::TransferCharacteristics::sRGB};
constexpr Conf::RGBColorSpace kToPQ = {Conf::ColorPrimaries::BT2020,
                                       Conf::TransferCharacteristics::PQ};

class ConvertedFrames {
public:
    ConvertedFrames(DX::FrameLayout layout, const Conf::RGBColorSpace& colorSpace) {
        m_source.desc = DX::D3FrameDesc::MakeRGB(kFullHD);
        m_target.desc.layout = layout;
        m_target.desc.bitDepth = layout == DX::FrameLayout::NV12 ? 8 : 10;
        m_target.desc.size = kFullHD;
        m_target.desc.chromaLocation = DX::ChromaLocation::Centre; // as the two passes have it
        m_target.desc.colorSpace = colorSpace;
        m_source.textures[0] = MakeTexture(kFullHD, DXGI_FORMAT_R8G8B8A8_UNORM, kConvertSource);
        for (unsigned plane = 0; plane < 2; ++plane) {
            const auto [format, size] = m_target.desc.GetPlane(plane);
            m_target.textures.at(plane) = MakeTexture(size, format, kConvertTarget);
        }
        if (colorSpace != m_source.desc.colorSpace) {
            m_conversion.emplace().target = colorSpace;
            m_conversion->source = m_source.desc.colorSpace;
            m_drawer->Specialize(m_conversion);
        }
        m_pictureTarget = m_device->CreateRenderTargetView(
            MakeTexture(kFullHD, DXGI_FORMAT_R8G8B8A8_UNORM, kConvertTarget));
        m_drawer->Specialize(GetWayBack().conversion);
        m_between = MakeTexture(kFullHD, DXGI_FORMAT_R16G16B16A16_FLOAT, kConvertTarget);
        m_pictureView = m_device->CreateTextureShaderResourceView(m_source.textures[0]);
        m_betweenTarget = m_device->CreateRenderTargetView(m_between);
    }

    void ConvertAtOnce() {
        Run([&](const auto& allocator) {
            m_converter->Encode(allocator, m_source, m_target, {kConvertRead, kConvertDrawn});
        });
    }
    void ConvertInTwoPasses() {
        Run([&](const auto& allocator) {
            if (m_conversion) {
                m_drawer->Encode(allocator, m_pictureView, m_betweenTarget, m_conversion,
                                 std::nullopt);
            }
            m_twoPasses->Encode(
                allocator, m_conversion ? m_between : m_source.textures[0], m_target.textures[0],
                m_target.textures[1], m_target.desc.GetPlanarFormat(), Conf::YCbCrMatrix::BT709,
                {m_conversion ? kConvertDrawn : kConvertRead, kConvertDrawn, kConvertDrawn});
        });
    }

    void DrawFrame() {
        Run([&](const auto& allocator) {
            const auto change = [&](D3D12_RESOURCE_STATES from, D3D12_RESOURCE_STATES to) {
                allocator->ResourceBarrier(
                    {CD3DX12_RESOURCE_BARRIER::Transition(m_target.textures[0], from, to),
                     CD3DX12_RESOURCE_BARRIER::Transition(m_target.textures[1], from, to)});
            };
            change(kConvertTarget, kConvertSource);
            m_frameDrawer->Encode(allocator, m_target, m_pictureTarget, GetWayBack());
            change(kConvertSource, kConvertTarget);
        });
    }
    void DrawImage() {
        Run([&](const auto& allocator) {
            m_drawer->Encode(allocator, m_pictureView, m_pictureTarget, GetWayBack());
        });
    }

private:
    DX::ImageDrawParams GetWayBack() const {
        DX::ImageDrawParams params;
        if (m_conversion) {
            params.conversion.emplace().source = m_conversion->target;
            params.conversion->target = m_conversion->source;
        }
        return params;
    }
    void Run(const auto& record) {
        const auto allocator = m_queue->CreateCommandAllocator();
        record(allocator);
        allocator->Execute();
        allocator->WaitComplete();
    }
    CComPtr<ID3D12Resource> MakeTexture(const DX::Size2DT<long>& size, DXGI_FORMAT format,
                                        D3D12_RESOURCE_STATES state) const {
        DX::D12Texture2DDesc desc;
        desc.width = static_cast<std::uint64_t>(size.width);
        desc.height = static_cast<std::uint32_t>(size.height);
        desc.format = format;
        desc.resourceFlags = state == kConvertTarget ? D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET
                                                     : D3D12_RESOURCE_FLAG_NONE;
        desc.initialState = state;
        return m_device->CreateTexture2D(desc);
    }

    boost::intrusive_ptr<DX::D12Device> m_device = DX::D12Device::CreatePrimary();
    boost::intrusive_ptr<DX::D12CommandQueue> m_queue{new DX::D12CommandQueue(m_device, {})};
    boost::intrusive_ptr<DX::D12FrameConverter> m_converter{new DX::D12FrameConverter(m_device)};
    boost::intrusive_ptr<DX::D12YUVConverter> m_twoPasses{
        new DX::D12YUVConverter(m_device, Proc::AlphaType::AlphaIsOne)};
    boost::intrusive_ptr<DX::D12ImageDraw> m_drawer{new DX::D12ImageDraw(m_device)};
    boost::intrusive_ptr<DX::D12FrameDraw> m_frameDrawer{new DX::D12FrameDraw(m_device)};
    std::optional<Proc::ColorAlphaConversionInfo> m_conversion;
    DX::D12Frame m_source;
    DX::D12Frame m_target;
    CComPtr<ID3D12Resource> m_between; // colours that are converted
    boost::intrusive_ptr<DX::D12Descriptor> m_pictureView;
    boost::intrusive_ptr<DX::D12Descriptor> m_betweenTarget;
    boost::intrusive_ptr<DX::D12Descriptor> m_pictureTarget;
};

Ways MakeConversionsOfFrames(DX::FrameLayout layout, const Conf::RGBColorSpace& colorSpace) {
    const auto frames = std::make_shared<ConvertedFrames>(layout, colorSpace);
    return {{MakeWay("one pass", [frames] { frames->ConvertAtOnce(); }, {"two passes"}),
             MakeWay("two passes", [frames] { frames->ConvertInTwoPasses(); })},
            {}};
}

Ways MakeDrawsOfFrames(DX::FrameLayout layout, const Conf::RGBColorSpace& colorSpace) {
    const auto frames = std::make_shared<ConvertedFrames>(layout, colorSpace);
    return {{MakeWay("frame", [frames] { frames->DrawFrame(); }, {"image"}),
             MakeWay("image", [frames] { frames->DrawImage(); })},
            {}};
}

} // namespace

std::vector<Case> MakeConverterCases() {
    std::vector<Case> cases;
    for (const auto layout : {DX::FrameLayout::NV12, DX::FrameLayout::P010}) {
        for (const auto& [name, space] : {std::pair("same", kFromSRGB), {"pq", kToPQ}}) {
            const bool isNV12 = layout == DX::FrameLayout::NV12;
            const auto add = [&](const char* kind,
                                 Ways (*make)(DX::FrameLayout, const Conf::RGBColorSpace&)) {
                cases.push_back(
                    {fmt::format("d3d12/{}/{}/{}", kind, isNV12 ? "nv12" : "p010", name),
                     Clock::Process, [=, target = space] { return make(layout, target); }});
            };
            add("converter", &MakeConversionsOfFrames);
            add("framedraw", &MakeDrawsOfFrames);
        }
    }
    return cases;
}

} // namespace Norvex::Bench
