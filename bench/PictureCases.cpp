// Whole pictures: conversion to the planes of encoders beside a draw that converts nothing, and
// showing a frame.

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "Host/ColorConversionInfo.h"
#include "Proc/DirectX/Manager/D3D12Renderer.h"
#include "Proc/DirectX/Manager/D3YUVConverter.h"
#include "Proc/DirectX/Manager/DXGISwapChain.h"
#include "bench/Cases.h"
#include "bench/Direct3D12Twin.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/TestWindow.h"

namespace Norvex::Bench {

namespace {

class Pictures {
public:
    Pictures(unsigned width, unsigned height, DXGI_FORMAT format)
        : m_width(width),
          m_height(height),
          m_format(format) {
        const bool isDeep = format == DXGI_FORMAT_P010;
        m_source = m_device->CreateTextureShaderResourceView(
            MakeTexture(1, DXGI_FORMAT_R8G8B8A8_UNORM, D3D12_RESOURCE_FLAG_NONE));
        m_target = m_device->CreateRenderTargetView(MakeTarget(1, DXGI_FORMAT_R8G8B8A8_UNORM));
        m_luma = MakeTarget(1, isDeep ? DXGI_FORMAT_R16_UNORM : DXGI_FORMAT_R8_UNORM);
        m_chroma = MakeTarget(2, isDeep ? DXGI_FORMAT_R16G16_UNORM : DXGI_FORMAT_R8G8_UNORM);
    }

    using Conversion = std::optional<Proc::ColorAlphaConversionInfo>;

    void Draw(const Conversion& conversion = {}) { DrawWith(m_drawer, conversion); }
    void DrawSpecialized(const Conversion& conversion) {
        m_specialized->Specialize(conversion);
        DrawWith(m_specialized, conversion);
    }
    void Convert() {
        constexpr DX::D12ResourceStates kRead = {kSource, kSource};
        constexpr DX::D12ResourceStates kDrawn = {kDrawTarget, kDrawTarget};
        Run([&](const auto& allocator) {
            m_converter->Encode(allocator, m_source->GetFirstResource(), m_luma, m_chroma, m_format,
                                Conf::YCbCrMatrix::BT709, {kRead, kDrawn, kDrawn});
        });
    }

private:
    static constexpr auto kSource = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
    static constexpr auto kDrawTarget = D3D12_RESOURCE_STATE_RENDER_TARGET;

    void DrawWith(const auto& drawer, const Conversion& conversion) {
        Run([&](const auto& allocator) {
            drawer->Encode(allocator, m_source, m_target, conversion, std::nullopt);
        });
    }
    void Run(const auto& record) {
        const auto allocator = m_queue->CreateCommandAllocator();
        record(allocator);
        allocator->Execute();
        allocator->WaitComplete();
    }
    CComPtr<ID3D12Resource> MakeTexture(unsigned divisor, DXGI_FORMAT format,
                                        D3D12_RESOURCE_FLAGS flags) {
        DX::D12Texture2DDesc desc;
        desc.width = m_width / divisor;
        desc.height = m_height / divisor;
        desc.format = format;
        desc.resourceFlags = flags;
        desc.initialState = flags == D3D12_RESOURCE_FLAG_NONE ? kSource : kDrawTarget;
        return m_device->CreateTexture2D(desc);
    }
    CComPtr<ID3D12Resource> MakeTarget(unsigned divisor, DXGI_FORMAT format) {
        return MakeTexture(divisor, format, D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET);
    }

    unsigned m_width;
    unsigned m_height;
    DXGI_FORMAT m_format;
    boost::intrusive_ptr<DX::D12Device> m_device = DX::D12Device::CreatePrimary();
    boost::intrusive_ptr<DX::D12CommandQueue> m_queue{new DX::D12CommandQueue(m_device, {})};
    boost::intrusive_ptr<DX::D12ImageDraw> m_drawer{new DX::D12ImageDraw(m_device)};
    boost::intrusive_ptr<DX::D12ImageDraw> m_specialized{new DX::D12ImageDraw(m_device)};
    boost::intrusive_ptr<DX::D12YUVConverter> m_converter{
        new DX::D12YUVConverter(m_device, Proc::AlphaType::AlphaIsOne)};
    boost::intrusive_ptr<DX::D12Descriptor> m_source;
    boost::intrusive_ptr<DX::D12Descriptor> m_target;
    CComPtr<ID3D12Resource> m_luma;
    CComPtr<ID3D12Resource> m_chroma;
};

Ways MakeConversions(unsigned width, unsigned height, DXGI_FORMAT format) {
    const auto pictures = std::make_shared<Pictures>(width, height, format);
    return {{MakeWay("convert", [pictures] { pictures->Convert(); }, {"draw"}),
             MakeWay("draw", [pictures] { pictures->Draw(); })},
            {}};
}

// The compiled shader of the pipeline state that the call makes.
std::size_t GetShaderSize(const auto& call) {
    std::size_t size = 0;
    const auto device = DX::D12Device::CreatePrimary();
    const Test::MethodPatch<&ID3D12Device::CreateGraphicsPipelineState> patch(
        device->Get(), [&](auto original, auto* self, const auto* desc, auto&&... where) {
            size = desc->PS.BytecodeLength;
            return original(self, desc, where...);
        });
    call();
    return size;
}

Ways MakeDraws(const Conf::RGBColorSpace& from, const Conf::RGBColorSpace& to) {
    const auto pictures = std::make_shared<Pictures>(1920, 1080, DXGI_FORMAT_NV12);
    Proc::ColorAlphaConversionInfo conversion;
    conversion.source = from;
    conversion.target = to;
    const auto specialized = [=] { pictures->DrawSpecialized(conversion); };
    const auto general = [=] { pictures->Draw(conversion); };
    const auto name = fmt::format("specialized, {} bytes", GetShaderSize(specialized));
    const auto twin = fmt::format("one for all, {} bytes", GetShaderSize(general));
    return {{MakeWay(name.c_str(), specialized, {twin}), MakeWay(twin.c_str(), general)}, {}};
}

struct Screens {
    static constexpr DX::Size2DT<long> kSize = {320, 240};

    Scene12 scene;
    Test::TestWindow ownWindow{kSize};
    Test::TestWindow otherWindow{kSize};
    boost::intrusive_ptr<DX::DXGISwapChain> swapChain =
        DX::DXGISwapChain::Create(scene.device, ownWindow.Get());
    CComPtr<IDXGISwapChain3> raw = scene.queue->CreateSwapChainForHwnd(
        otherWindow.Get(), Test::MakeSwapChainDesc(kSize.width, kSize.height));
};

Ways MakePresents() {
    const auto screens = std::make_shared<Screens>();
    return {{MakeWay("Present", [screens] { screens->swapChain->Present(); }, {"raw"}),
             MakeWay("raw", [screens] { screens->raw->Present(1, 0); })},
            {}};
}

} // namespace

std::vector<Case> MakePictureCases() {
    struct Row {
        const char* name;
        unsigned width;
        unsigned height;
        DXGI_FORMAT format;
    };
    std::vector<Case> cases;
    for (const auto& [name, width, height, format] :
         {Row{"nv12/1080p", 1920, 1080, DXGI_FORMAT_NV12},
          Row{"p010/1080p", 1920, 1080, DXGI_FORMAT_P010},
          Row{"nv12/4k", 3840, 2160, DXGI_FORMAT_NV12},
          Row{"p010/4k", 3840, 2160, DXGI_FORMAT_P010}}) {
        cases.push_back({std::string("d3d12/convert/") + name, Clock::Wall,
                         [=] { return MakeConversions(width, height, format); }});
    }
    using Conf::ColorPrimaries;
    using Conf::TransferCharacteristics;
    const std::pair<const char*, Conf::RGBColorSpace> spaces[] = {
        {"srgb", {ColorPrimaries::BT709, TransferCharacteristics::sRGB}},
        {"rec709", {ColorPrimaries::BT709, TransferCharacteristics::BT709}},
        {"rec2020", {ColorPrimaries::BT2020, TransferCharacteristics::BT709}},
        {"pq", {ColorPrimaries::BT2020, TransferCharacteristics::PQ}},
        {"hlg", {ColorPrimaries::BT2020, TransferCharacteristics::HLG}},
        {"scrgb", {ColorPrimaries::BT709, TransferCharacteristics::Linear}}}; // as target alone
    for (const auto& [source, from] : spaces) {
        for (const auto& [target, to] : spaces) {
            if (from.transfer != TransferCharacteristics::Linear) {
                cases.push_back({fmt::format("d3d12/draw/1080p/{}-{}", source, target), Clock::Wall,
                                 [before = from, after = to] { return MakeDraws(before, after); }});
            }
        }
    }
    cases.push_back({"d3d12/present", Clock::Both, &MakePresents});
    return cases;
}

} // namespace Norvex::Bench
