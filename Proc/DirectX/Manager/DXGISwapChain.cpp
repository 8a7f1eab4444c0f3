#include "Proc/DirectX/Manager/DXGISwapChain.h"

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string>

#include <glog/logging.h>

#include "Proc/DirectX/Manager/API.h"
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D11Resource.h"
#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3D12CommandQueue.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12Resource.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "Proc/DirectX/Manager/DXGISwapChain.Display.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

constexpr DXGI_FORMAT kSDRFormat = DXGI_FORMAT_R8G8B8A8_UNORM;
constexpr UINT kBufferCount = 2;

// ITU-R BT.2408-7, 2.1; and the luminance of 1.0 in scRGB (IEC 61966-2-2).
constexpr float kReferenceWhiteNits = 203.0F;
constexpr float kScRGBUnitNits = 80.0F;

Size2DT<long> GetClientSize(HWND window) {
    RECT rect = {};
    GetClientRect(window, &rect);
    return {std::abs(rect.right - rect.left), std::abs(rect.bottom - rect.top)};
}

DXGI_SWAP_CHAIN_DESC1 MakeDesc(const Size2DT<long>& size) {
    DXGI_SWAP_CHAIN_DESC1 desc = {};
    desc.Width = static_cast<UINT>(size.width);
    desc.Height = static_cast<UINT>(size.height);
    desc.Format = kSDRFormat;
    desc.SampleDesc = {1, 0};
    desc.BufferUsage = DXGI_USAGE_RENDER_TARGET_OUTPUT;
    desc.BufferCount = 1;
    desc.Scaling = DXGI_SCALING_STRETCH;
    desc.SwapEffect = DXGI_SWAP_EFFECT_DISCARD;
    desc.AlphaMode = DXGI_ALPHA_MODE_UNSPECIFIED;
    if (API::GetInstance().IsWindows10OrGreater()) {
        desc.BufferCount = kBufferCount;
        desc.SwapEffect = DXGI_SWAP_EFFECT_FLIP_DISCARD;
    }
    return desc;
}

bool IsRenderTarget(const D11Device& device, DXGI_FORMAT format) {
    const auto support = device.CheckFormatSupport(format);
    return support && support->has(D3D11_FORMAT_SUPPORT_RENDER_TARGET);
}

bool IsRenderTarget(const D12Device& device, DXGI_FORMAT format) {
    return device.CheckFormatSupport(format).first.has(D3D12_FORMAT_SUPPORT1_RENDER_TARGET);
}

template <class Device>
DXGI_FORMAT ChooseHDRFormat(const Device& device) {
    if (API::GetInstance().IsWindows10OrGreater()) {
        for (const auto format : {DXGI_FORMAT_R16G16B16A16_FLOAT, DXGI_FORMAT_R10G10B10A2_UNORM}) {
            if (IsRenderTarget(device, format)) {
                return format;
            }
        }
    }
    return kSDRFormat;
}

// H.273: BT.709 primaries, sRGB transfer, BT.709 matrix.
constexpr Conf::ColorSpace kSRGB = {1, 13, 1};

} // namespace

boost::intrusive_ptr<DXGISwapChain>
DXGISwapChain::Create(const boost::intrusive_ptr<D3Device>& device, HWND window) {
    const Size2DT<long> size = GetClientSize(window);
    const DXGI_SWAP_CHAIN_DESC1 desc = MakeDesc(size);
    boost::intrusive_ptr<DXGISwapChain> result;
    if (const auto device12 = boost::dynamic_pointer_cast<D12Device>(device)) {
        const boost::intrusive_ptr<D12CommandQueue> queue(new D12CommandQueue(device12, {}));
        result = new DXGISwapChain(window, kSDRFormat, ChooseHDRFormat(*device12),
                                   queue->CreateSwapChainForHwnd(window, desc), queue);
    } else if (const auto device11 = boost::dynamic_pointer_cast<D11Device>(device)) {
        result = new DXGISwapChain(window, kSDRFormat, ChooseHDRFormat(*device11),
                                   device11->CreateSwapChainForHwnd(window, desc), device11);
    }
    if (result != nullptr) {
        result->MakeBuffers(size, DXGI_FORMAT_UNKNOWN);
    }
    return result;
}

DXGISwapChain::DXGISwapChain(HWND window, DXGI_FORMAT sdrFormat, DXGI_FORMAT hdrFormat,
                             const CComPtr<IDXGISwapChain3>& swapChain,
                             const boost::intrusive_ptr<D12CommandQueue>& commandQueue)
    : m_window(window),
      m_sdrFormat(sdrFormat),
      m_hdrFormat(hdrFormat),
      m_swapChain3(swapChain),
      m_swapChain4(Platform::Query<IDXGISwapChain4>(m_swapChain3)),
      m_commandQueue(commandQueue),
      m_outputColorSpace(kSRGB) {}

DXGISwapChain::DXGISwapChain(HWND window, DXGI_FORMAT sdrFormat, DXGI_FORMAT hdrFormat,
                             const CComPtr<IDXGISwapChain>& swapChain,
                             const boost::intrusive_ptr<D11Device>& device)
    : m_window(window),
      m_sdrFormat(sdrFormat),
      m_hdrFormat(hdrFormat),
      m_swapChain(swapChain),
      m_swapChain3(Platform::Query<IDXGISwapChain3>(m_swapChain)),
      m_swapChain4(Platform::Query<IDXGISwapChain4>(m_swapChain3)),
      m_device(device),
      m_outputColorSpace(kSRGB) {}

DXGISwapChain::~DXGISwapChain() {
    try {
        WaitComplete();
    } catch (const DirectXException& e) {
        LOG(ERROR) << "A swap chain was released without waiting for the GPU: "
                   << e.GetErrorDescription() << ". " << e.GetResultDescription();
    }
}

boost::intrusive_ptr<D12CommandAllocator> DXGISwapChain::CreateCommandAllocator() {
    if (!IsD12Level()) {
        return nullptr;
    }
    // Completed is not enough: one that the host still holds may yet be executed, and until the
    // background release has let go too the frame's objects, back buffers among them, are alive.
    m_inFlightAllocators.remove_if([](const auto& allocator) {
        return allocator->IsCompleted() && allocator->GetRefCount() == 1;
    });
    m_inFlightAllocators.push_back(m_commandQueue->CreateCommandAllocator());
    return m_inFlightAllocators.back();
}

boost::intrusive_ptr<D12Descriptor> DXGISwapChain::GetRenderTarget() const {
    if (!IsD12Level()) {
        return nullptr;
    }
    const std::size_t index = m_swapChain3->GetCurrentBackBufferIndex();
    return index < m_renderTargets.size() ? m_renderTargets[index] : nullptr;
}

boost::intrusive_ptr<D11RenderTexture2D> DXGISwapChain::GetRenderTexture() const {
    return m_renderTexture;
}

void DXGISwapChain::Present() {
    constexpr UINT kVerticalBlanks = 1;
    if (m_swapChain3 != nullptr) {
        m_swapChain3->Present(kVerticalBlanks, 0);
    } else {
        m_swapChain->Present(kVerticalBlanks, 0);
    }
}

Size2DT<long> DXGISwapChain::RecreateBuffers() {
    return RecreateBuffers(DXGI_FORMAT_UNKNOWN);
}

Size2DT<long> DXGISwapChain::RecreateBuffers(DXGI_FORMAT format) {
    const Size2DT<long> size = GetClientSize(m_window);
    m_renderTexture.reset();
    m_renderTargets.clear();
    MakeBuffers(size, format);
    return size;
}

void DXGISwapChain::MakeBuffers(const Size2DT<long>& size, DXGI_FORMAT format) {
    constexpr const char* kFailed = "Failed to resize DXGI swap chain buffers";
    if (size.width <= 0 || size.height <= 0) {
        return;
    }
    const auto width = static_cast<UINT>(size.width);
    const auto height = static_cast<UINT>(size.height);
    if (IsD12Level()) {
        WaitComplete();
        const std::array<UINT, kBufferCount> nodeMasks = {};
        std::array<IUnknown*, kBufferCount> queues = {};
        queues.fill(m_commandQueue->Get());
        ThrowIfFailed<DirectX12Exception>(m_swapChain3->ResizeBuffers1(kBufferCount, width, height,
                                                                       format, 0, nodeMasks.data(),
                                                                       queues.data()),
                                          kFailed, m_commandQueue->GetDevice()->Get());
    } else {
        ThrowIfFailed<DirectX11Exception>(m_swapChain->ResizeBuffers(0, width, height, format, 0),
                                          kFailed, m_device->Get());
    }
    MakeRenderTexture();
}

void DXGISwapChain::MakeRenderTexture() {
    if (IsD12Level()) {
        ThrowUnless<DirectX12Exception>(m_renderTargets.empty(),
                                        "Render targets view already make");
        MakeRenderTargets12();
        return;
    }
    ThrowUnless<DirectX11Exception>(m_renderTexture == nullptr, "Render target view already make");
    CComPtr<ID3D11Texture2D> texture;
    ThrowIfFailed<DirectX11Exception>(
        m_swapChain->GetBuffer(0, __uuidof(ID3D11Texture2D), reinterpret_cast<void**>(&texture)),
        "Failed to get back buffer", m_device->Get());
    m_renderTexture = new D11RenderTexture2D(texture, std::nullopt);
}

void DXGISwapChain::MakeRenderTargets12() {
    const auto& device = m_commandQueue->GetDevice();
    for (UINT i = 0; i < kBufferCount; ++i) {
        CComPtr<ID3D12Resource> buffer;
        ThrowIfFailed<DirectX12Exception>(
            m_swapChain3->GetBuffer(i, __uuidof(ID3D12Resource), reinterpret_cast<void**>(&buffer)),
            "Failed to get back buffer", device->Get());
        buffer->SetName((L"Swap chain back buffer #" + std::to_wstring(i)).c_str());
        m_renderTargets.push_back(device->CreateRenderTargetView(buffer));
    }
}

void DXGISwapChain::WaitComplete() {
    for (const auto& allocator : m_inFlightAllocators) {
        allocator->WaitComplete();
    }
    m_inFlightAllocators.clear();
    if (m_commandQueue != nullptr) {
        m_commandQueue->WaitComplete();
    }
}

void DXGISwapChain::UpdateDisplayInfo() {
    m_windowRect.right = 0;
    m_windowRect.bottom = 0;
}

bool DXGISwapChain::CheckDisplayHDRSupport() {
    const bool canShowHDR =
        m_swapChain3 != nullptr && (m_hdrFormat == DXGI_FORMAT_R16G16B16A16_FLOAT ||
                                    m_hdrFormat == DXGI_FORMAT_R10G10B10A2_UNORM);
    if (!canShowHDR) {
        m_isHDRSupported = false;
        return false;
    }
    RECT rect = {};
    GetWindowRect(m_window, &rect);
    if (EqualRect(&rect, &m_windowRect) != FALSE) {
        return m_isHDRSupported;
    }
    m_windowRect = rect;
    if (m_factory == nullptr || !m_factory->IsCurrent()) {
        m_factory = DXGIFactory::Create();
    }
    m_isHDRSupported = Display::IsInHDR(Display::FindOutputUnder(*m_factory, m_windowRect));
    if (!m_isHDRSupported) {
        DisableHDR();
    }
    return m_isHDRSupported;
}

bool DXGISwapChain::EnableHDRIfSupported(float maxMasteringNits, float minMasteringNits,
                                         float maxContentLightLevel,
                                         float maxFrameAverageLightLevel) {
    if (!CheckDisplayHDRSupport() || m_isHDREnabled) {
        return m_isHDREnabled;
    }
    const auto output = Display::FindHDROutput(m_hdrFormat);
    if (!output) {
        return false;
    }
    RecreateBuffers(m_hdrFormat);
    UINT support = 0;
    if (FAILED(m_swapChain3->CheckColorSpaceSupport(output->colorSpace, &support)) ||
        (support & DXGI_SWAP_CHAIN_COLOR_SPACE_SUPPORT_FLAG_PRESENT) == 0) {
        RecreateBuffers(m_sdrFormat);
        return false;
    }
    SetColorSpace(output->colorSpace);
    if (m_swapChain4 != nullptr) {
        DXGI_HDR_METADATA_HDR10 metadata =
            Display::MakeMetadata(output->primaries, maxMasteringNits, minMasteringNits,
                                  maxContentLightLevel, maxFrameAverageLightLevel);
        ThrowIfFailed<DirectXException>(
            m_swapChain4->SetHDRMetaData(DXGI_HDR_METADATA_TYPE_HDR10, sizeof(metadata), &metadata),
            "Failed to set HDR metadata");
    }
    m_outputColorSpace = ConvertColorSpace(output->colorSpace);
    m_isHDREnabled = true;
    return true;
}

void DXGISwapChain::DisableHDR() {
    if (!m_isHDREnabled) {
        return;
    }
    if (m_swapChain4 != nullptr) {
        ThrowIfFailed<DirectXException>(
            m_swapChain4->SetHDRMetaData(DXGI_HDR_METADATA_TYPE_NONE, 0, nullptr),
            "Failed to set HDR metadata");
    }
    RecreateBuffers(m_sdrFormat);
    SetColorSpace(DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P709);
    m_isHDREnabled = false;
    m_outputColorSpace = kSRGB;
}

void DXGISwapChain::SetColorSpace(DXGI_COLOR_SPACE_TYPE colorSpace) {
    if (m_swapChain3 != nullptr) {
        ThrowIfFailed<DirectXException>(m_swapChain3->SetColorSpace1(colorSpace),
                                        "Failed to set color space");
    }
}

Proc::ColorAlphaConversionInfo DXGISwapChain::GetConversionInfo(const Conf::RGBColorSpace& source,
                                                                Proc::AlphaType sourceAlpha) const {
    Proc::ColorAlphaConversionInfo info;
    info.source = source;
    info.target = {static_cast<Conf::ColorPrimaries>(m_outputColorSpace.primaries),
                   static_cast<Conf::TransferCharacteristics>(m_outputColorSpace.transfer)};
    info.mode = m_isHDREnabled ? Proc::LinearizationMode::DisplayReferredHDR
                               : Proc::LinearizationMode::DisplayReferred;
    const bool isScRGB =
        m_isHDREnabled && info.target.transfer == Conf::TransferCharacteristics::Linear;
    info.linearScale = isScRGB ? kReferenceWhiteNits / kScRGBUnitNits : 1.0F;
    info.sourcePeakLuminance = 1000.0F;
    info.targetPeakLuminance = 1000.0F;
    info.referenceWhite = kReferenceWhiteNits;
    info.sourceAlpha = sourceAlpha;
    info.targetAlpha = Proc::AlphaType::Premultiplied;
    return info;
}

} // namespace Norvex::DX
