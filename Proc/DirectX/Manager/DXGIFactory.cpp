#include "Proc/DirectX/Manager/DXGIFactory.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include <fmt/format.h>

#include "Proc/DirectX/Manager/API.h"
#include "Proc/DirectX/Manager/DirectXDebug.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

bool IsSoftware(const DXGIAdapter& adapter) {
    return (adapter.GetDescription()->flags & DXGI_ADAPTER_FLAG_SOFTWARE) != 0;
}

// For systems without DXGI 1.2.
DXGI_SWAP_CHAIN_DESC ToOldDesc(const DXGI_SWAP_CHAIN_DESC1& desc, HWND window) {
    DXGI_SWAP_CHAIN_DESC old = {};
    old.BufferDesc.Width = desc.Width;
    old.BufferDesc.Height = desc.Height;
    old.BufferDesc.RefreshRate = {60, 1};
    old.BufferDesc.Format = desc.Format;
    old.BufferDesc.ScanlineOrdering = DXGI_MODE_SCANLINE_ORDER_UNSPECIFIED;
    old.BufferDesc.Scaling = DXGI_MODE_SCALING_UNSPECIFIED;
    old.SampleDesc = desc.SampleDesc;
    old.BufferUsage = desc.BufferUsage;
    old.BufferCount = desc.BufferCount;
    old.OutputWindow = window;
    old.Windowed = TRUE;
    old.SwapEffect = desc.SwapEffect;
    old.Flags = desc.Flags;
    return old;
}

} // namespace

DXGIFactory::DXGIFactory() {
    ThrowUnlessVersionFits();
    if (Debug::MarkFirstObject()) {
        Debug::EnableLayerOnce();
    }
    long result = API::GetInstance().CreateFactory2(
        Debug::IsLayerActive() ? DXGI_CREATE_FACTORY_DEBUG : 0, m_factory2);
    if (SUCCEEDED(result)) {
        m_factory1 = m_factory2.p;
        m_factory4 = Platform::Query<IDXGIFactory4>(m_factory1);
        return;
    }
    if (result == API::E_DELAY_LOAD_FAILED) {
        result = CreateDXGIFactory1(IID_PPV_ARGS(&m_factory1));
    }
    ThrowIfFailed<DirectXException>(result, "Failed to create DXGI factory");
}

DXGIFactory::DXGIFactory(const CComPtr<IDXGIFactory1>& factory)
    : m_factory1(factory),
      m_factory2(Platform::Query<IDXGIFactory2>(factory)),
      m_factory4(Platform::Query<IDXGIFactory4>(factory)) {}

DXGIFactory::~DXGIFactory() = default;

boost::intrusive_ptr<DXGIFactory> DXGIFactory::Create() {
    return boost::intrusive_ptr<DXGIFactory>(new DXGIFactory());
}

boost::intrusive_ptr<DXGIFactory> DXGIFactory::GetFromDevice(const CComPtr<IDXGIDevice>& device) {
    CComPtr<IDXGIAdapter> adapter;
    ThrowIfFailed<DirectXException>(device != nullptr ? device->GetAdapter(&adapter) : E_INVALIDARG,
                                    "Failed to get DXGI adapter");
    CComPtr<IDXGIFactory1> factory;
    ThrowIfFailed<DirectXException>(adapter->GetParent(IID_PPV_ARGS(&factory)),
                                    "Failed to get DXGI factory");
    return boost::intrusive_ptr<DXGIFactory>(new DXGIFactory(factory));
}

void DXGIFactory::EnumerateAdapters(std::vector<DXGIAdapter>& out, bool excludeSoftware) {
    std::vector<DXGIAdapter> adapters;
    for (unsigned index = 0;; ++index) {
        CComPtr<IDXGIAdapter1> adapter;
        const long result = m_factory1->EnumAdapters1(index, &adapter);
        if (result == DXGI_ERROR_NOT_FOUND) {
            break;
        }
        if (FAILED(result)) {
            ThrowResult<DirectXException>(result,
                                          fmt::format("Failed to obtain adapter: {}", index));
        }
        adapters.emplace_back(adapter.p);
    }
    if (excludeSoftware) {
        std::erase_if(adapters, IsSoftware);
    }
    out = std::move(adapters);
}

std::vector<std::shared_ptr<const AdapterDescription>>
DXGIFactory::EnumerateAdapterDescriptions(bool excludeSoftware) {
    std::vector<DXGIAdapter> adapters;
    EnumerateAdapters(adapters, excludeSoftware);
    std::vector<std::shared_ptr<const AdapterDescription>> descriptions;
    descriptions.reserve(adapters.size());
    std::ranges::transform(adapters, std::back_inserter(descriptions),
                           &DXGIAdapter::GetDescription);
    return descriptions;
}

DXGIAdapter DXGIFactory::GetPrimaryAdapter() {
    CComPtr<IDXGIAdapter1> adapter;
    ThrowIfFailed<DirectXException>(m_factory1->EnumAdapters1(0, &adapter),
                                    "Failed to obtain primary adapter");
    return DXGIAdapter(adapter.p);
}

DXGIAdapter DXGIFactory::GetAdapter(const LUID& luid) {
    if (m_factory4 != nullptr) {
        CComPtr<IDXGIAdapter1> adapter;
        ThrowIfFailed<DirectXException>(m_factory4->EnumAdapterByLuid(luid, IID_PPV_ARGS(&adapter)),
                                        "Failed to obtain adapter");
        return DXGIAdapter(adapter.p);
    }
    std::vector<DXGIAdapter> adapters;
    EnumerateAdapters(adapters, false);
    const auto found = std::ranges::find_if(adapters, [&luid](const DXGIAdapter& adapter) {
        return IsSameLuid(adapter.GetDescription()->adapterLuid, luid);
    });
    ThrowUnless<DirectXException>(found != adapters.end(), "Failed to obtain adapter");
    return *found;
}

DXGIVersion DXGIFactory::GetVersion() const {
    if (Platform::Query<IDXGIFactory6>(m_factory1) != nullptr) {
        return DXGIVersion::DXGI_1_6;
    }
    if (Platform::Query<IDXGIFactory5>(m_factory1) != nullptr) {
        return DXGIVersion::DXGI_1_5;
    }
    if (m_factory4 != nullptr) {
        return DXGIVersion::DXGI_1_4;
    }
    if (Platform::Query<IDXGIFactory3>(m_factory1) != nullptr) {
        return DXGIVersion::DXGI_1_3;
    }
    return m_factory2 != nullptr ? DXGIVersion::DXGI_1_2 : DXGIVersion::DXGI_1_1;
}

bool DXGIFactory::IsCurrent() const {
    return m_factory1->IsCurrent() != FALSE;
}

CComPtr<IDXGISwapChain> DXGIFactory::CreateSwapChain(IUnknown* deviceOrQueue, HWND window,
                                                     const DXGI_SWAP_CHAIN_DESC1& desc) {
    if (desc.AlphaMode != DXGI_ALPHA_MODE_UNSPECIFIED) {
        ThrowResult<DirectXException>(
            DXGI_ERROR_INVALID_CALL,
            "Alpha blended swapchains must be created with CreateSwapChainForComposition, "
            "or CreateSwapChainForCoreWindow");
    }
    CComPtr<IDXGISwapChain> swapChain;
    long result = S_OK;
    if (m_factory2 != nullptr) {
        CComPtr<IDXGISwapChain1> swapChain1;
        result = m_factory2->CreateSwapChainForHwnd(deviceOrQueue, window, &desc, nullptr, nullptr,
                                                    &swapChain1);
        swapChain = swapChain1.p;
    } else {
        DXGI_SWAP_CHAIN_DESC oldDesc = ToOldDesc(desc, window);
        result = m_factory1->CreateSwapChain(deviceOrQueue, &oldDesc, &swapChain);
    }
    if (FAILED(result)) {
        ThrowResult<DirectXException>(
            result, fmt::format("Failed to create DXGI swap chain: width = {}, height = {}",
                                desc.Width, desc.Height));
    }
    return swapChain;
}

CComPtr<IDXGISwapChain> DXGIFactory::CreateSwapChainForHwnd(const CComPtr<ID3D11Device>& device,
                                                            HWND window,
                                                            const DXGI_SWAP_CHAIN_DESC1& desc) {
    try {
        return CreateSwapChain(device, window, desc);
    } catch (const DirectXException& e) {
        ThrowResult<DirectX11Exception>(e.GetResult(), e.GetErrorDescription(), device);
    }
}

CComPtr<IDXGISwapChain3>
DXGIFactory::CreateSwapChainForHwnd(const CComPtr<ID3D12Device>& device,
                                    const CComPtr<ID3D12CommandQueue>& queue, HWND window,
                                    const DXGI_SWAP_CHAIN_DESC1& desc) {
    CComPtr<IDXGISwapChain> swapChain;
    try {
        swapChain = CreateSwapChain(queue, window, desc);
    } catch (const DirectXException& e) {
        ThrowResult<DirectX12Exception>(e.GetResult(), e.GetErrorDescription(), device);
    }
    CComPtr<IDXGISwapChain3> swapChain3;
    ThrowIfFailed<DirectX12Exception>(swapChain->QueryInterface(IID_PPV_ARGS(&swapChain3)),
                                      "Failed to create DXGI swap chain", device);
    return swapChain3;
}

} // namespace Norvex::DX
