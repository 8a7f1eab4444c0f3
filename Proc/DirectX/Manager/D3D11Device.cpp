// The device registry, creation, attachment, and the lock around the immediate context.

#include "Proc/DirectX/Manager/D3D11Device.h"

#include <algorithm>
#include <iterator>
#include <mutex>
#include <unordered_set>
#include <utility>

#include "Host/RefCountable.h"
#include "Platform/Mutex.h"
#include "Proc/DirectX/Manager/API.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "Proc/DirectX/Manager/DirectXDebug.h"
#include "Proc/DirectX/Manager/Throw.h"
// Upwards by nature: the device makes and keeps the wrapper of its context.
#include "Proc/DirectX/Manager/D3D11DeviceContext.h"

namespace Norvex::DX {

namespace {

struct DeviceRegistry {
    Platform::Mutex lock;
    std::unordered_set<D11Device*> devices;
};

DeviceRegistry& GetRegistry() {
    static DeviceRegistry registry;
    return registry;
}

struct RawDevice {
    CComPtr<ID3D11Device> device;
    CComPtr<ID3D11DeviceContext> context;
    D3D_FEATURE_LEVEL level = {};
};

// One level a call: a runtime that does not know 11_1 refuses a list that names it. Answers the
// last failure.
long CreateRawDevice(IDXGIAdapter* adapter, RawDevice& raw) {
    static constexpr D3D_FEATURE_LEVEL kLevels[] = {D3D_FEATURE_LEVEL_11_1, D3D_FEATURE_LEVEL_11_0,
                                                    D3D_FEATURE_LEVEL_10_1, D3D_FEATURE_LEVEL_10_0};
    UINT flags = D3D11_CREATE_DEVICE_BGRA_SUPPORT;
    if (Debug::MarkFirstObject()) {
        flags |= D3D11_CREATE_DEVICE_DEBUG;
    }
    long result = E_FAIL;
    for (const auto* level = std::begin(kLevels); level != std::end(kLevels);) {
        result = D3D11CreateDevice(adapter, D3D_DRIVER_TYPE_UNKNOWN, nullptr, flags, level, 1,
                                   D3D11_SDK_VERSION, &raw.device, &raw.level, &raw.context);
        if (SUCCEEDED(result)) {
            break;
        }
        const bool lacksDebugLayer =
            result == DXGI_ERROR_SDK_COMPONENT_MISSING && (flags & D3D11_CREATE_DEVICE_DEBUG) != 0;
        if (lacksDebugLayer) {
            flags &= ~static_cast<UINT>(D3D11_CREATE_DEVICE_DEBUG); // the same level again
        } else {
            ++level;
        }
    }
    return result;
}

bool IsForOneThread(ID3D11Device* device) {
    return (device->GetCreationFlags() & D3D11_CREATE_DEVICE_SINGLETHREADED) != 0;
}

} // namespace

boost::intrusive_ptr<D11Device> D11Device::FindUsable(const LUID& luid) {
    const auto& devices = GetRegistry().devices;
    const auto found = std::ranges::find_if(devices, [&luid](D11Device* device) {
        return IsSameLuid(device->GetAdapterLuid(), luid) && !IsForOneThread(device->Get()) &&
               device->GetDeviceRemovedReason() == S_OK;
    });
    return found != devices.end() ? boost::intrusive_ptr<D11Device>(*found) : nullptr;
}

boost::intrusive_ptr<D11Device> D11Device::Create(const DXGIAdapter& adapter) {
    auto description = adapter.GetDescription();
    const std::lock_guard guard(GetRegistry().lock);
    if (auto found = FindUsable(description->adapterLuid)) {
        return found;
    }
    RawDevice raw;
    ThrowIfFailed<DirectX11Exception>(CreateRawDevice(adapter.Get(), raw),
                                      "Failed to create D3D11 device");
    return boost::intrusive_ptr<D11Device>(
        new D11Device(raw.device, raw.context, std::move(description), raw.level));
}

boost::intrusive_ptr<D11Device> D11Device::CreatePrimary() {
    return Create(DXGIFactory::Create()->GetPrimaryAdapter());
}

boost::intrusive_ptr<D11Device> D11Device::Attach(ID3D11Device* device) {
    ThrowUnless<DirectX11Exception>(device != nullptr, "DirectX 11 device is null");
    CComPtr<ID3D11DeviceContext> context;
    device->GetImmediateContext(&context);
    CComPtr<IDXGIDevice> dxgiDevice;
    ThrowIfFailed<DirectX11Exception>(device->QueryInterface(IID_PPV_ARGS(&dxgiDevice)),
                                      "Failed to get DXGI device", device);
    CComPtr<IDXGIAdapter> adapter;
    ThrowIfFailed<DirectX11Exception>(dxgiDevice->GetAdapter(&adapter),
                                      "Failed to get DXGI adapter", device);
    auto description = DXGIAdapter(adapter.p).GetDescription();
    const D3D_FEATURE_LEVEL level = device->GetFeatureLevel();
    const std::lock_guard guard(GetRegistry().lock); // the constructor registers
    return boost::intrusive_ptr<D11Device>(
        new D11Device(device, context, std::move(description), level));
}

boost::intrusive_ptr<D11Device> D11Device::Find(ID3D11Device* device) {
    const std::lock_guard guard(GetRegistry().lock);
    const auto& devices = GetRegistry().devices;
    const auto found = std::ranges::find(devices, device, &D11Device::Get);
    return found != devices.end() ? boost::intrusive_ptr<D11Device>(*found) : nullptr;
}

// The registry lock is held. Another wrapper of the device has the context and the lock already.
D11Device::D11Device(const CComPtr<ID3D11Device>& device,
                     const CComPtr<ID3D11DeviceContext>& context,
                     std::shared_ptr<const AdapterDescription> description,
                     D3D_FEATURE_LEVEL featureLevel)
    : D3Device(std::move(description), featureLevel),
      m_device(device) {
    auto& devices = GetRegistry().devices;
    const auto other = std::ranges::find(devices, m_device.p, &D11Device::Get);
    if (other != devices.end()) {
        m_device5 = (*other)->m_device5;
        m_context = (*other)->m_context;
    } else {
        MakeContext(context);
    }
    devices.insert(this);
}

void D11Device::MakeContext(const CComPtr<ID3D11DeviceContext>& context) {
    m_device5 = Platform::Query<ID3D11Device5>(m_device);
    auto context4 = Platform::Query<ID3D11DeviceContext4>(context);
    if (m_device5 == nullptr || context4 == nullptr) {
        m_device5.Release();
        context4.Release();
    }
    m_context.reset(new D11DeviceContext(context, context4));
}

// The registry lock is held, by Release.
D11Device::~D11Device() {
    GetRegistry().devices.erase(this);
}

// Under the lock that Create and Find take, so that they never hand out a device whose count has
// reached zero.
std::uint32_t D11Device::Release() {
    // Go after the lock: with them go objects that the host stored in them, which may call us.
    CComPtr<ID3D11Device> device;
    boost::intrusive_ptr<D11DeviceContext> context;
    const std::lock_guard guard(GetRegistry().lock);
    if (GetRefCount() == 1) { // the last, since nobody else could add one
        device = m_device;
        context = m_context;
    }
    return RefCountImpl::Release();
}

long D11Device::GetDeviceRemovedReason() {
    return m_device->GetDeviceRemovedReason();
}

DeviceStatistics D11Device::GetStatistics() const {
    CComPtr<IDXGIAdapter> adapter;
    if (const auto device = Platform::Query<IDXGIDevice>(m_device)) {
        device->GetAdapter(&adapter);
    }
    return MakeStatistics(Platform::Query<IDXGIAdapter3>(adapter));
}

void D11Device::LogDebugMessages() const {
    Debug::DrainMessages(m_device.p);
}

std::optional<bitflags<D3D11_FORMAT_SUPPORT>>
D11Device::CheckFormatSupport(DXGI_FORMAT format) const {
    UINT support = 0;
    if (FAILED(m_device->CheckFormatSupport(format, &support))) {
        return std::nullopt;
    }
    return bitflags(static_cast<D3D11_FORMAT_SUPPORT>(support));
}

void D11Device::Encode(
    const std::function<void(const boost::intrusive_ptr<D11DeviceContext>&)>& function) {
    const auto context = m_context; // the function may drop the device, which holds it
    const std::lock_guard guard(context->m_encodeLock);
    function(context);
}

CComPtr<IDXGISwapChain> D11Device::CreateSwapChainForHwnd(HWND window,
                                                          const DXGI_SWAP_CHAIN_DESC1& desc) {
    boost::intrusive_ptr<DXGIFactory> factory;
    if (API::GetInstance().IsWindows10OrGreater()) {
        factory = DXGIFactory::Create();
    } else {
        CComPtr<IDXGIDevice> dxgiDevice;
        ThrowIfFailed<DirectX11Exception>(m_device->QueryInterface(IID_PPV_ARGS(&dxgiDevice)),
                                          "Failed to get DXGI device", m_device);
        factory = DXGIFactory::GetFromDevice(dxgiDevice);
    }
    CComPtr<IDXGISwapChain> swapChain;
    Encode([&](const auto&) { // DXGI uses the immediate context
        swapChain = factory->CreateSwapChainForHwnd(m_device, window, desc);
    });
    return swapChain;
}

} // namespace Norvex::DX
