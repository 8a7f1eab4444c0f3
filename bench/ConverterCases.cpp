// Frames for encoders, 1920 x 1080: the converter of one pass a plane beside the one of two passes,
// which has the colours converted by a draw before.

#include <memory>
#include <optional>
#include <string>

#include "Host/ColorConversionInfo.h"
#include "Proc/DirectX/Manager/D3D12Renderer.h"
#include "Proc/DirectX/Manager/D3FrameConverter.h"
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

private:
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
    std::optional<Proc::ColorAlphaConversionInfo> m_conversion;
    DX::D12Frame m_source;
    DX::D12Frame m_target;
    CComPtr<ID3D12Resource> m_between; // colours that are converted
    boost::intrusive_ptr<DX::D12Descriptor> m_pictureView;
    boost::intrusive_ptr<DX::D12Descriptor> m_betweenTarget;
};

Ways MakeConversionsOfFrames(DX::FrameLayout layout, const Conf::RGBColorSpace& colorSpace) {
    const auto frames = std::make_shared<ConvertedFrames>(layout, colorSpace);
    return {{MakeWay("one pass", [frames] { frames->ConvertAtOnce(); }, {"two passes"}),
             MakeWay("two passes", [frames] { frames->ConvertInTwoPasses(); })},
            {}};
}

} // namespace

std::vector<Case> MakeConverterCases() {
    std::vector<Case> cases;
    for (const auto layout : {DX::FrameLayout::NV12, DX::FrameLayout::P010}) {
        for (const auto& [name, space] : {std::pair("same", kFromSRGB), {"srgb-pq", kToPQ}}) {
            const std::string prefix =
                layout == DX::FrameLayout::NV12 ? "d3d12/converter/nv12/" : "d3d12/converter/p010/";
            cases.push_back({prefix + name, Clock::Wall, [layout, space = space] {
                                 return MakeConversionsOfFrames(layout, space);
                             }});
        }
    }
    return cases;
}

} // namespace Norvex::Bench
