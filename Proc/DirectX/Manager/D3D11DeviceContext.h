#pragma once

// The immediate context of a D11Device: what Encode hands out to record with. Mirrors the calls of
// ID3D11DeviceContext; binders bind from slot 0 on, an empty vector binds nothing. It keeps nothing
// alive beyond what Direct3D does. One thread at a time, inside D11Device::Encode. Only Map, Signal
// and Wait throw, DirectX11Exception. Next: D3D11Resource.h.

#include <array>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/Color.h"
#include "Host/RefCountable.h"
#include "Platform/ComPtr.h"
#include "Platform/Export.h"

namespace Norvex::DX {

class D11CompletionEvent;
class D11IndexBuffer;
class D11PixelShader;
class D11VertexBuffer;
class D11VertexShader;

class NORVEX_DX_API D11DeviceContext : public RefCountImpl {
public:
    ~D11DeviceContext() override;
    D11DeviceContext(const D11DeviceContext&) = delete;
    D11DeviceContext& operator=(const D11DeviceContext&) = delete;

    // "Failed to map resource"; the result is DXGI_ERROR_WAS_STILL_DRAWING when the flag
    // D3D11_MAP_FLAG_DO_NOT_WAIT was given and the GPU still uses the resource.
    D3D11_MAPPED_SUBRESOURCE Map(ID3D11Resource* resource, UINT subresource, D3D11_MAP type,
                                 const std::optional<D3D11_MAP_FLAG>& flags);
    void Unmap(ID3D11Resource* resource, UINT subresource);
    // Without a box: the whole subresource. Pitches in bytes. `data` is read before it returns.
    void UpdateSubresource(ID3D11Resource* resource, UINT subresource, const D3D11_BOX* box,
                           const void* data, UINT rowPitch, UINT depthPitch);
    void CopyResource(ID3D11Resource* destination, ID3D11Resource* source);

    void ClearDepthStencilView(ID3D11DepthStencilView* view, D3D11_CLEAR_FLAG flags, float depth,
                               UINT8 stencil);
    void ClearRenderTargetView(ID3D11RenderTargetView* view, const Proc::ColorF& color);
    void ClearState();
    void Flush();

    void IASetInputLayout(ID3D11InputLayout* layout);
    void IASetPrimitiveTopology(D3D_PRIMITIVE_TOPOLOGY topology);
    // Null unbinds.
    void IASetVertexBuffer(const boost::intrusive_ptr<D11VertexBuffer>& buffer);
    // None is null.
    void IASetVertexBuffers(const std::vector<boost::intrusive_ptr<D11VertexBuffer>>& buffers);
    // Not null.
    void IASetIndexBuffer(const boost::intrusive_ptr<D11IndexBuffer>& buffer);

    // Not null.
    void VSSetShader(const std::shared_ptr<D11VertexShader>& shader);
    void VSSetConstantBuffers(const std::vector<ID3D11Buffer*>& buffers);
    void PSSetShader(const std::shared_ptr<D11PixelShader>& shader);
    void PSSetConstantBuffers(const std::vector<ID3D11Buffer*>& buffers);
    void PSSetSamplers(const std::vector<ID3D11SamplerState*>& samplers);
    void PSSetShaderResources(const std::vector<ID3D11ShaderResourceView*>& views);

    void RSSetState(ID3D11RasterizerState* state);
    void RSSetViewports(const std::vector<D3D11_VIEWPORT>& viewports);
    // Blend factors of one unless given; all samples are written.
    void OMSetBlendState(ID3D11BlendState* state);
    void OMSetBlendState(ID3D11BlendState* state, const std::array<float, 4>& factor);
    void OMSetDepthStencilState(ID3D11DepthStencilState* state, UINT stencilRef);
    void OMSetRenderTargets(const std::vector<ID3D11RenderTargetView*>& targets,
                            ID3D11DepthStencilView* depthView);

    // All vertices, or all indices, of a buffer that is bound.
    void Draw(const boost::intrusive_ptr<D11VertexBuffer>& buffer);
    void DrawIndexed(const boost::intrusive_ptr<D11IndexBuffer>& buffer);

    // Raises the event's target by one and has the GPU signal it after the work recorded so far;
    // Flush sends that work off. "The device context does not support this operation" where
    // D11Device::IsFencesSupported is false (the target stays), "Failed to signal fence".
    void Signal(const boost::intrusive_ptr<D11CompletionEvent>& event);
    // The work recorded from now on waits on the GPU for the event's present target. The same
    // failures, "Failed to wait for fence".
    void Wait(const boost::intrusive_ptr<D11CompletionEvent>& event);

private:
    friend class D11Device;

    D11DeviceContext(const CComPtr<ID3D11DeviceContext>& context,
                     const CComPtr<ID3D11DeviceContext4>& context4);

    CComPtr<ID3D11DeviceContext> m_context;
    CComPtr<ID3D11DeviceContext4> m_context4; // null where fences are not supported
    std::recursive_mutex m_encodeLock;        // held while a D11Device::Encode runs
};

} // namespace Norvex::DX
