#pragma once

// The library's handle on one Direct3D 11 device, root of the Direct3D 11 side. Create finds or
// makes the one device of an adapter; Attach wraps a device of the host's. Work on the immediate
// context goes through Encode. Any thread may call any operation, but for a device that the host
// made for one thread (see Attach). Throws DirectX11Exception. Next: D3D11DeviceContext.h,
// D3D11Resource.h.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/BitFlags.h"
#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/D3Device.h"

namespace Norvex::DX {

class D11DeviceContext;
class D11Query;
class D3ShaderBytecode;

class NORVEX_DX_API D11Device : public D3Device {
public:
    // The lowest that Create takes.
    static D3D_FEATURE_LEVEL GetMinFeatureLevel() { return D3D_FEATURE_LEVEL_10_0; }

    // The live device of the adapter, or a new one of the highest level from 11_1 down to 10_0 that
    // the adapter offers; a removed device is not reused. Ends the time in which debug mode may be
    // requested; with it, the device has the debug layer where the system has one. "Failed to
    // create D3D11 device", and what DXGIAdapter throws.
    static boost::intrusive_ptr<D11Device> Create(const DXGIAdapter& adapter);
    // On adapter 0. Also throws what DXGIFactory throws.
    static boost::intrusive_ptr<D11Device> CreatePrimary();
    // Wraps a device that the host made, and keeps it alive. Always a new wrapper: ask Find first
    // to reuse one; the wrappers of one device share context and lock. Create may answer it from
    // then on. The host uses its immediate context only while no Encode runs. A device made with
    // D3D11_CREATE_DEVICE_SINGLETHREADED stays one thread's, with all that is made from the
    // wrapper, and Create never answers it. "DirectX 11 device is null", "Failed to get DXGI
    // device", "Failed to get DXGI adapter", and what DXGIAdapter throws.
    static boost::intrusive_ptr<D11Device> Attach(ID3D11Device* device);
    // A live wrapper of the raw device, removed or not; null when there is none.
    static boost::intrusive_ptr<D11Device> Find(ID3D11Device* device);

    ~D11Device() override;
    std::uint32_t Release() override;
    long GetDeviceRemovedReason() override;
    void LogDebugMessages() const override;

    // The raw device, borrowed.
    ID3D11Device* Get() const { return m_device; }
    // Borrowed; null unless IsFencesSupported.
    ID3D11Device5* Get5() const { return m_device5; }
    // Fences need ID3D11Device5 and, for the context, ID3D11DeviceContext4.
    bool IsFencesSupported() const { return m_device5 != nullptr; }
    // References and video memory.
    DeviceStatistics GetStatistics() const;
    // Empty when the device does not know the format.
    std::optional<bitflags<D3D11_FORMAT_SUPPORT>> CheckFormatSupport(DXGI_FORMAT format) const;

    // Calls the function with the immediate context, on this thread, while no other thread's Encode
    // of the device runs, nor a DXGISwapChain presents (for at most a vertical blank; who cannot
    // wait that long takes a device of its own). The function may call Encode again, and may drop
    // the device. An empty function throws std::bad_function_call; what the function throws passes.
    void Encode(const std::function<void(const boost::intrusive_ptr<D11DeviceContext>&)>& function);

    // See DXGIFactory::CreateSwapChainForHwnd; present and resize inside Encode, since DXGI uses
    // the immediate context. Before Windows 10 the factory must be the one that made the device:
    // "Failed to get DXGI device".
    CComPtr<IDXGISwapChain> CreateSwapChainForHwnd(HWND window, const DXGI_SWAP_CHAIN_DESC1& desc);

    // Each answers a new object. "Failed to create ID3D11Buffer: byteWidth = " and the size;
    // "Failed to create ID3D11Texture2D: width = ..., height = ..., format = ".
    CComPtr<ID3D11Buffer> CreateBuffer(const D3D11_BUFFER_DESC& desc,
                                       const D3D11_SUBRESOURCE_DATA* initialData);
    // initialData: null, or one record for each subresource.
    CComPtr<ID3D11Texture2D> CreateTexture2D(const D3D11_TEXTURE2D_DESC& desc,
                                             const D3D11_SUBRESOURCE_DATA* initialData);
    // Views: "Failed to create shader resource view", "... render target view", "... depth stencil
    // view". Without a description: the whole resource in its own format.
    CComPtr<ID3D11ShaderResourceView> CreateShaderResourceView(ID3D11Resource* resource);
    CComPtr<ID3D11ShaderResourceView>
    CreateShaderResourceView(ID3D11Resource* resource, const D3D11_SHADER_RESOURCE_VIEW_DESC& desc);
    // A view to draw on, as described.
    CComPtr<ID3D11RenderTargetView>
    CreateRenderTargetView(ID3D11Resource* resource, const D3D11_RENDER_TARGET_VIEW_DESC& desc);
    // A view to test depth and stencil with.
    CComPtr<ID3D11DepthStencilView>
    CreateDepthStencilView(ID3D11Resource* resource, const D3D11_DEPTH_STENCIL_VIEW_DESC& desc);
    // States: "Failed to create rasterizer state", "... depth stencil state", "... sampler state",
    // "... input layout", "... blend state".
    CComPtr<ID3D11RasterizerState> CreateRasterizerState(const D3D11_RASTERIZER_DESC& desc);
    // A state to be bound.
    CComPtr<ID3D11DepthStencilState> CreateDepthStencilState(const D3D11_DEPTH_STENCIL_DESC& desc);
    // A state to be bound.
    CComPtr<ID3D11SamplerState> CreateSamplerState(const D3D11_SAMPLER_DESC& desc);
    // For the input of the vertex shader with this bytecode. "Shader bytecode is null".
    CComPtr<ID3D11InputLayout>
    CreateInputLayout(const std::vector<D3D11_INPUT_ELEMENT_DESC>& elements,
                      const std::shared_ptr<D3ShaderBytecode>& bytecode);
    // "Failed to create query".
    boost::intrusive_ptr<D11Query> CreateQuery(D3D11_QUERY type);
    // The first render target's; the others do not blend.
    CComPtr<ID3D11BlendState> CreateBlendState(const D3D11_RENDER_TARGET_BLEND_DESC& desc);

private:
    D11Device(const CComPtr<ID3D11Device>& device, const CComPtr<ID3D11DeviceContext>& context,
              std::shared_ptr<const AdapterDescription> description,
              D3D_FEATURE_LEVEL featureLevel);

    static boost::intrusive_ptr<D11Device> FindUsable(const LUID& luid);
    void MakeContext(const CComPtr<ID3D11DeviceContext>& context);

    CComPtr<ID3D11Device> m_device;
    CComPtr<ID3D11Device5> m_device5;
    boost::intrusive_ptr<D11DeviceContext> m_context;
};

} // namespace Norvex::DX
