#include "Proc/DirectX/Manager/DXGISwapChain.h"

#include <array>
#include <cstddef>
#include <cstdlib>
#include <exception>
#include <string>
#include <utility>

#include "Proc/DirectX/Manager/API.h"
#include "Proc/DirectX/Manager/Annotation.h"
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D11DeviceContext.h"
#include "Proc/DirectX/Manager/D3D11Resource.h"
#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3D12CommandQueue.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12Resource.h"
#include "Proc/DirectX/Manager/DXGIDisplay.h"
#include "Proc/DirectX/Manager/DXGISwapChain.HDR.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

constexpr UINT kBufferCount = 2;

// ITU-R BT.2408-7, 2.1; and the luminance of 1.0 in scRGB (IEC 61966-2-2).
constexpr float kReferenceWhiteNits = 203.0F;
constexpr float kScRGBUnitNits = 80.0F;

Size2DT<long> GetClientSize(HWND window) {
    RECT rect = {};
    GetClientRect(window, &rect);
    return {std::abs(rect.right - rect.left), std::abs(rect.bottom - rect.top)};
}

bool HasArea(const Size2DT<long>& size) {
    return size.width > 0 && size.height > 0;
}

DXGI_SWAP_CHAIN_DESC1 MakeDesc(const Size2DT<long>& size, DXGI_FORMAT format) {
    DXGI_SWAP_CHAIN_DESC1 desc = {};
    desc.Width = static_cast<UINT>(size.width);
    desc.Height = static_cast<UINT>(size.height);
    desc.Format = format;
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
DXGI_FORMAT ChooseHDRFormat(const Device& device, DXGI_FORMAT otherwise) {
    if (API::GetInstance().IsWindows10OrGreater()) {
        for (const auto format : {DXGI_FORMAT_R16G16B16A16_FLOAT, DXGI_FORMAT_R10G10B10A2_UNORM}) {
            if (IsRenderTarget(device, format)) {
                return format;
            }
        }
    }
    return otherwise;
}

// DXGI would switch the swap chain to exclusive full screen, which nobody here asked for. Only the
// factory that made it can forbid that; a failure leaves the key as it is.
void IgnoreAltEnter(IDXGISwapChain* swapChain, HWND window) {
    CComPtr<IDXGIFactory> factory;
    if (SUCCEEDED(swapChain->GetParent(IID_PPV_ARGS(&factory)))) {
        factory->MakeWindowAssociation(window, DXGI_MWA_NO_ALT_ENTER);
    }
}

HDRRefusal RefusalOf(const DisplayDescription& display) {
    return display.isHDR          ? HDRRefusal::None
           : display.name.empty() ? HDRRefusal::NoDisplay
                                  : HDRRefusal::DisplayInSDR;
}

} // namespace

std::string to_string(HDRRefusal refusal) {
    switch (refusal) {
    case HDRRefusal::None:
        return "HDR is on";
    case HDRRefusal::NotAsked:
        return "HDR was not asked for";
    case HDRRefusal::OldSystem:
        return "the system is too old for HDR";
    case HDRRefusal::NoFormat:
        return "the device cannot draw in a format for HDR";
    case HDRRefusal::NoDisplay:
        return "the window is on no display";
    case HDRRefusal::DisplayInSDR:
        return "the display is not in HDR";
    case HDRRefusal::ColorSpaceRefused:
        return "HDR cannot be shown in this window";
    }
    return {};
}

boost::intrusive_ptr<DXGISwapChain>
DXGISwapChain::Create(const boost::intrusive_ptr<D3Device>& device, HWND window) {
    const auto location = std::source_location::current();
    const Size2DT<long> size = GetClientSize(window);
    const DXGI_SWAP_CHAIN_DESC1 desc = MakeDesc(size, kSDR.format);
    boost::intrusive_ptr<DXGISwapChain> result;
    if (const auto device12 = boost::dynamic_pointer_cast<D12Device>(device)) {
        const boost::intrusive_ptr<D12CommandQueue> queue(new D12CommandQueue(device12, {}));
        result = new DXGISwapChain(window, ChooseHDRFormat(*device12, kSDR.format),
                                   queue->CreateSwapChainForHwnd(window, desc), nullptr, queue);
    } else if (const auto device11 = boost::dynamic_pointer_cast<D11Device>(device)) {
        CComPtr<IDXGISwapChain> swapChain;
        device11->Encode(
            [&](const auto&) { swapChain = device11->CreateSwapChainForHwnd(window, desc); });
        result = new DXGISwapChain(window, ChooseHDRFormat(*device11, kSDR.format), swapChain,
                                   device11, nullptr);
    }
    if (result != nullptr) {
        IgnoreAltEnter(result->m_swapChain, window);
        result->MakeBuffers(size, kSDR.format, location);
    }
    return result;
}

DXGISwapChain::DXGISwapChain(HWND window, DXGI_FORMAT hdrFormat, IDXGISwapChain* swapChain,
                             const boost::intrusive_ptr<D11Device>& device,
                             const boost::intrusive_ptr<D12CommandQueue>& commandQueue)
    : m_window(window),
      m_hdrFormat(hdrFormat),
      m_swapChain(swapChain),
      m_swapChain3(Platform::Query<IDXGISwapChain3>(m_swapChain)),
      m_swapChain4(Platform::Query<IDXGISwapChain4>(m_swapChain3)),
      m_device(device),
      m_commandQueue(commandQueue) {}

DXGISwapChain::~DXGISwapChain() {
    try {
        WaitComplete();
        LeaveFullScreen();
        if (m_device != nullptr) {
            // Direct3D 11 puts destruction off; a window takes its next swap chain only when the
            // last one's buffers are destroyed.
            m_device->Encode([this](const auto& context) {
                context->OMSetRenderTargets({}, nullptr);
                m_renderTexture.reset();
                m_swapChain4.Release();
                m_swapChain3.Release();
                m_swapChain.Release();
                context->Flush();
            });
        }
    } catch (...) {
        LogCurrentException("A swap chain was released without waiting for the GPU");
        if (IsD12Level() && m_commandQueue->GetDevice()->GetDeviceRemovedReason() == S_OK) {
            m_swapChain.Detach(); // the GPU may still use the buffers
        }
    }
}

// DXGI does not allow the last release of a full-screen one; whoever got it there is gone.
void DXGISwapChain::LeaveFullScreen() {
    BOOL isFullScreen = FALSE;
    if (SUCCEEDED(m_swapChain->GetFullscreenState(&isFullScreen, nullptr)) &&
        isFullScreen != FALSE) {
        m_swapChain->SetFullscreenState(FALSE, nullptr);
    }
}

boost::intrusive_ptr<D12CommandAllocator> DXGISwapChain::CreateCommandAllocator() {
    if (!IsD12Level()) {
        return nullptr;
    }
    ForgetIdleAllocators();
    m_inFlightAllocators.push_back(m_commandQueue->CreateCommandAllocator());
    return m_inFlightAllocators.back();
}

// Completed is not enough: one that the host still holds may yet be executed, and until the
// background release has let go too the frame's objects, back buffers among them, are alive.
void DXGISwapChain::ForgetIdleAllocators() {
    m_inFlightAllocators.remove_if([](const auto& allocator) {
        return allocator->IsCompleted() && allocator->GetRefCount() == 1;
    });
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

Size2DT<long> DXGISwapChain::GetSize() const {
    if (m_renderTexture == nullptr && m_renderTargets.empty()) {
        return {};
    }
    const DXGI_MODE_DESC desc = GetBufferDesc();
    return {static_cast<long>(desc.Width), static_cast<long>(desc.Height)};
}

void DXGISwapChain::Present() {
    constexpr UINT kVerticalBlanks = 1;
    m_presentResult = DXGI_ERROR_INVALID_CALL;
    if (IsWindow(m_window) == FALSE) {
        return; // not every system's swap chain survives its window
    }
    if (IsD12Level()) {
        m_presentResult = m_swapChain3->Present(kVerticalBlanks, 0);
    } else {
        m_device->Encode(
            [this](const auto&) { m_presentResult = m_swapChain->Present(kVerticalBlanks, 0); });
    }
}

Size2DT<long> DXGISwapChain::RecreateBuffers() {
    const Size2DT<long> size = GetClientSize(m_window);
    MakeBuffers(size, m_output.format, std::source_location::current());
    SetColorSpace(m_output.colorSpace);
    return size;
}

// Where the old buffers cannot be made anew, they stay, with targets.
void DXGISwapChain::MakeBuffers(const Size2DT<long>& size, DXGI_FORMAT format,
                                const std::source_location& location) {
    const DXGI_MODE_DESC old = GetBufferDesc();
    const bool areKept = !HasArea(size) && old.Format == format;
    if (!areKept) {
        WaitComplete();
    }
    m_renderTexture.reset();
    m_renderTargets.clear();
    if (areKept) {
        return;
    }
    const long result = HasArea(size) ? ResizeBuffers(static_cast<UINT>(size.width),
                                                      static_cast<UINT>(size.height), format)
                                      : ResizeBuffers(old.Width, old.Height, format);
    if (SUCCEEDED(result)) {
        MakeRenderTexture(size, location);
        return;
    }
    try {
        MakeRenderTexture(size, location);
    } catch (const std::exception&) { // what is told is why it came to this
    }
    constexpr const char* kFailed = "Failed to resize DXGI swap chain buffers";
    if (IsD12Level()) {
        ThrowResult<DirectX12Exception>(result, kFailed, m_commandQueue->GetDevice()->Get());
    }
    ThrowResult<DirectX11Exception>(result, kFailed, m_device->Get());
}

DXGI_MODE_DESC DXGISwapChain::GetBufferDesc() const {
    DXGI_SWAP_CHAIN_DESC desc = {};
    m_swapChain->GetDesc(&desc);
    return desc.BufferDesc;
}

long DXGISwapChain::ResizeBuffers(UINT width, UINT height, DXGI_FORMAT format) {
    if (IsD12Level()) {
        const std::array<UINT, kBufferCount> nodeMasks = {};
        std::array<IUnknown*, kBufferCount> queues = {};
        queues.fill(m_commandQueue->Get());
        return m_swapChain3->ResizeBuffers1(kBufferCount, width, height, format, 0,
                                            nodeMasks.data(), queues.data());
    }
    long result = E_FAIL;
    m_device->Encode([&](const auto& context) {
        context->OMSetRenderTargets({}, nullptr); // what is bound is not dropped
        result = m_swapChain->ResizeBuffers(0, width, height, format, 0);
    });
    return result;
}

void DXGISwapChain::MakeRenderTexture(const Size2DT<long>& size,
                                      const std::source_location& location) {
    if (!HasArea(size)) {
        return;
    }
    if (IsD12Level()) {
        MakeRenderTargets12(location);
        return;
    }
    ThrowUnless<DirectX11Exception>(m_renderTexture == nullptr, "Render target view already make",
                                    location);
    CComPtr<ID3D11Texture2D> texture;
    ThrowIfFailed<DirectX11Exception>(m_swapChain->GetBuffer(0, IID_PPV_ARGS(&texture)),
                                      "Failed to get back buffer", m_device->Get(), location);
    SetName(texture, "Swap chain back buffer");
    m_renderTexture = new D11RenderTexture2D(texture, std::nullopt);
}

void DXGISwapChain::MakeRenderTargets12(const std::source_location& location) {
    ThrowUnless<DirectX12Exception>(m_renderTargets.empty(), "Render targets view already make",
                                    location);
    const auto& device = m_commandQueue->GetDevice();
    std::vector<boost::intrusive_ptr<D12Descriptor>> targets;
    for (UINT i = 0; i < kBufferCount; ++i) {
        CComPtr<ID3D12Resource> buffer;
        ThrowIfFailed<DirectX12Exception>(m_swapChain3->GetBuffer(i, IID_PPV_ARGS(&buffer)),
                                          "Failed to get back buffer", device->Get(), location);
        buffer->SetName((L"Swap chain back buffer #" + std::to_wstring(i)).c_str());
        targets.push_back(device->CreateRenderTargetView(buffer));
    }
    m_renderTargets = std::move(targets);
}

void DXGISwapChain::WaitComplete() {
    if (!IsD12Level()) {
        return;
    }
    for (const auto& allocator : m_inFlightAllocators) {
        allocator->WaitComplete();
    }
    m_commandQueue->WaitComplete();
    ForgetIdleAllocators();
}

void DXGISwapChain::UpdateDisplayInfo() {
    m_look.reset();
}

// Remembers the answer only when all that follows from it has succeeded.
HDRRefusal DXGISwapChain::CheckDisplayHDRSupport() {
    if (m_swapChain3 == nullptr) {
        return HDRRefusal::OldSystem;
    }
    if (!FindHDROutput(m_hdrFormat)) {
        return HDRRefusal::NoFormat;
    }
    RECT window = {};
    GetWindowRect(m_window, &window);
    if (m_look && EqualRect(&window, &m_look->window) != FALSE) {
        return m_look->refusal;
    }
    if (m_display == nullptr) {
        m_display = DXGIDisplay::Create(m_window);
    } else {
        m_display->Update();
    }
    const HDRRefusal refusal = RefusalOf(m_display->GetDescription());
    if (refusal != HDRRefusal::None) {
        DisableHDR();
    }
    m_look = Look{window, refusal};
    return refusal;
}

bool DXGISwapChain::EnableHDRIfSupported(float maxMasteringNits, float minMasteringNits,
                                         float maxContentLightLevel,
                                         float maxFrameAverageLightLevel) {
    m_refusal = CheckDisplayHDRSupport();
    if (m_refusal != HDRRefusal::None || IsHDREnabled()) {
        return IsHDREnabled();
    }
    m_refusal = HDRRefusal::NotAsked; // as long as it fails
    const auto hdr = FindHDROutput(m_hdrFormat);
    DXGI_HDR_METADATA_HDR10 metadata =
        MakeMetadata(hdr->primaries, maxMasteringNits, minMasteringNits, maxContentLightLevel,
                     maxFrameAverageLightLevel);
    // A refused colour space is not asked for again in this place.
    const bool isShown =
        SetOutput({m_hdrFormat, hdr->colorSpace}, &metadata, std::source_location::current());
    m_refusal = isShown ? HDRRefusal::None : HDRRefusal::ColorSpaceRefused;
    m_look->refusal = m_refusal;
    return isShown;
}

void DXGISwapChain::DisableHDR() {
    if (IsHDREnabled()) {
        SetOutput(kSDR, nullptr, std::source_location::current());
        m_refusal = HDRRefusal::NotAsked;
    }
}

float DXGISwapChain::GetSDRWhite() const {
    const bool isTold = m_followsSDRWhite && IsHDREnabled() && m_display != nullptr;
    return isTold ? m_display->GetDescription().sdrWhite.value_or(kReferenceWhiteNits)
                  : kReferenceWhiteNits;
}

// Commits last: where a step fails, or the swap chain cannot show the colour space (false), the
// output stays what it was. Without metadata: SDR.
bool DXGISwapChain::SetOutput(const Output& output, DXGI_HDR_METADATA_HDR10* metadata,
                              const std::source_location& location) {
    try {
        MakeBuffers(GetClientSize(m_window), output.format, location);
        if (metadata != nullptr && !CanShow(output.colorSpace)) {
            RecreateBuffers();
            return false;
        }
        SetColorSpace(output.colorSpace);
        SetMetadata(metadata, location);
    } catch (...) {
        RestoreOutput();
        throw;
    }
    m_output = output;
    return true;
}

// Where this fails too, the next RecreateBuffers tries it again.
void DXGISwapChain::RestoreOutput() {
    try {
        if (GetBufferDesc().Format != m_output.format) {
            RecreateBuffers();
        }
    } catch (...) {
        LogCurrentException("A swap chain could not go back to its output");
    }
}

bool DXGISwapChain::CanShow(DXGI_COLOR_SPACE_TYPE colorSpace) const {
    UINT support = 0;
    return SUCCEEDED(m_swapChain3->CheckColorSpaceSupport(colorSpace, &support)) &&
           (support & DXGI_SWAP_CHAIN_COLOR_SPACE_SUPPORT_FLAG_PRESENT) != 0;
}

void DXGISwapChain::SetColorSpace(DXGI_COLOR_SPACE_TYPE colorSpace) {
    if (m_swapChain3 != nullptr && colorSpace != m_colorSpaceOfDXGI) {
        ThrowIfFailed<DirectXException>(m_swapChain3->SetColorSpace1(colorSpace),
                                        "Failed to set color space");
        m_colorSpaceOfDXGI = colorSpace;
    }
}

void DXGISwapChain::SetMetadata(DXGI_HDR_METADATA_HDR10* metadata,
                                const std::source_location& location) {
    if (m_swapChain4 != nullptr) {
        const bool isHDR = metadata != nullptr;
        ThrowIfFailed<DirectXException>(
            m_swapChain4->SetHDRMetaData(isHDR ? DXGI_HDR_METADATA_TYPE_HDR10
                                               : DXGI_HDR_METADATA_TYPE_NONE,
                                         isHDR ? sizeof(*metadata) : 0, metadata),
            "Failed to set HDR metadata", {}, location);
    }
}

Proc::ColorAlphaConversionInfo DXGISwapChain::GetConversionInfo(const Conf::RGBColorSpace& source,
                                                                Proc::AlphaType sourceAlpha) const {
    Proc::ColorAlphaConversionInfo info;
    info.source = source;
    const Conf::ColorSpace target = ConvertColorSpace(m_output.colorSpace);
    info.target = {static_cast<Conf::ColorPrimaries>(target.primaries),
                   static_cast<Conf::TransferCharacteristics>(target.transfer)};
    info.mode = IsHDREnabled() ? Proc::LinearizationMode::DisplayReferredHDR
                               : Proc::LinearizationMode::DisplayReferred;
    const bool isScRGB =
        IsHDREnabled() && info.target.transfer == Conf::TransferCharacteristics::Linear;
    info.linearScale = isScRGB ? GetSDRWhite() / kScRGBUnitNits : 1.0F;
    info.sourcePeakLuminance = 1000.0F;
    info.targetPeakLuminance = 1000.0F;
    info.referenceWhite = GetSDRWhite();
    info.sourceAlpha = sourceAlpha;
    info.targetAlpha = Proc::AlphaType::Premultiplied;
    return info;
}

} // namespace Norvex::DX
