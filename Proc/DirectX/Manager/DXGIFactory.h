#pragma once

// The DXGI factory: lists adapters, finds one by id, creates swap chains. Immutable after
// construction; any thread. Creating the first factory of the process ends the time in which debug
// mode may be requested (DirectXDebug.h). Throws DirectXException; the swap-chain operations throw
// the exception of their generation.

#include <memory>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/DXGIAdapter.h"
#include "Proc/DirectX/Manager/LiveObject.h"

namespace Norvex::DX {

// The newest DXGI interface that a factory answers.
enum class DXGIVersion {
    DXGI_1_1 = 0,
    DXGI_1_2 = 1,
    DXGI_1_3 = 2,
    DXGI_1_4 = 3,
    DXGI_1_5 = 4,
    DXGI_1_6 = 5
};

class NORVEX_DX_API DXGIFactory : public LiveObject {
public:
    // A DXGI 1.2 factory, or a 1.1 one where the system has no other. "Failed to create DXGI
    // factory".
    DXGIFactory();
    DXGIFactory(const DXGIFactory&) = default;
    DXGIFactory& operator=(const DXGIFactory&) = default;
    ~DXGIFactory() override;

    // A new one. "Failed to create DXGI factory".
    static boost::intrusive_ptr<DXGIFactory> Create();
    // The factory that made the device's adapter. "Failed to get DXGI adapter" (E_INVALIDARG for
    // null), "Failed to get DXGI factory".
    static boost::intrusive_ptr<DXGIFactory> GetFromDevice(const CComPtr<IDXGIDevice>& device);

    // Replaces the contents of `out` by all adapters in DXGI's order, without the software ones
    // when asked. On failure ("Failed to obtain adapter: " and the index) `out` is unchanged.
    void EnumerateAdapters(std::vector<DXGIAdapter>& out, bool excludeSoftware);
    // The descriptions of the same adapters in the same order.
    std::vector<std::shared_ptr<const AdapterDescription>>
    EnumerateAdapterDescriptions(bool excludeSoftware);
    // Adapter 0. "Failed to obtain primary adapter".
    DXGIAdapter GetPrimaryAdapter();
    // "Failed to obtain adapter".
    DXGIAdapter GetAdapter(const LUID& luid);
    // Of the interface that the system has.
    DXGIVersion GetVersion() const;
    // False once the adapters or outputs have changed: make a new factory then.
    bool IsCurrent() const;

    // Swap chains for a window, not full screen, on any output. AlphaMode must be unspecified.
    // "Failed to create DXGI swap chain" with the size, also for a null device, queue or window.
    // For Direct3D 12 DXGI wants the queue that will present; the device is for the error record.
    // On Direct3D 11, DXGI uses the immediate context: create, present and resize inside
    // D11Device::Encode.
    CComPtr<IDXGISwapChain> CreateSwapChainForHwnd(const CComPtr<ID3D11Device>& device, HWND window,
                                                   const DXGI_SWAP_CHAIN_DESC1& desc);
    CComPtr<IDXGISwapChain3> CreateSwapChainForHwnd(const CComPtr<ID3D12Device>& device,
                                                    const CComPtr<ID3D12CommandQueue>& queue,
                                                    HWND window, const DXGI_SWAP_CHAIN_DESC1& desc);

private:
    explicit DXGIFactory(const CComPtr<IDXGIFactory1>& factory);

    CComPtr<IDXGISwapChain> CreateSwapChain(IUnknown* deviceOrQueue, HWND window,
                                            const DXGI_SWAP_CHAIN_DESC1& desc);

    CComPtr<IDXGIFactory1> m_factory1;
    CComPtr<IDXGIFactory2> m_factory2;
    CComPtr<IDXGIFactory4> m_factory4;
};

} // namespace Norvex::DX
