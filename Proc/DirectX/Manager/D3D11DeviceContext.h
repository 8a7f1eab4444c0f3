#pragma once

// The immediate context of a Direct3D 11 device: what D11Device::Encode hands out to record with,
// to be used inside Encode alone. Mirrors the calls of ID3D11DeviceContext, and keeps nothing alive
// beyond what Direct3D does. Throws DirectX11Exception: Map, Signal and Wait when the system fails,
// and every operation that needs an object and gets null ("Resource is null", "View is null" ...).
// On a removed device recording does nothing, and Map fails. Next: D3D11Resource.h.

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <source_location>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/Color.h"
#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Platform/Mutex.h"
#include "Proc/DirectX/Manager/LiveObject.h"

namespace Norvex::DX {

class D11CompletionEvent;
class D11IndexBuffer;
class D11PixelShader;
class D11Query;
class D11VertexBuffer;
class D11VertexShader;

class NORVEX_DX_API D11DeviceContext : public LiveObject {
public:
    ~D11DeviceContext() override;
    D11DeviceContext(const D11DeviceContext&) = delete;
    D11DeviceContext& operator=(const D11DeviceContext&) = delete;

    // Borrowed, for recording what this class has not; as this object inside Encode alone.
    ID3D11DeviceContext* Get() const { return m_context; }

    // "Failed to map resource"; the result is DXGI_ERROR_WAS_STILL_DRAWING when the flag
    // D3D11_MAP_FLAG_DO_NOT_WAIT was given and the GPU still uses the resource.
    D3D11_MAPPED_SUBRESOURCE Map(ID3D11Resource* resource, UINT subresource, D3D11_MAP type,
                                 const std::optional<D3D11_MAP_FLAG>& flags);
    // Ends what Map began.
    void Unmap(ID3D11Resource* resource, UINT subresource);
    // Without a box: the whole subresource. Pitches in bytes. `data` is read before it returns.
    void UpdateSubresource(ID3D11Resource* resource, UINT subresource, const D3D11_BOX* box,
                           const void* data, UINT rowPitch, UINT depthPitch);
    // Whole resources of one size and of formats of one family.
    void CopyResource(ID3D11Resource* destination, ID3D11Resource* source);
    // To (x, y, z) of the destination's subresource. sourceBox may be null: the whole subresource.
    void CopySubresourceRegion(ID3D11Resource* destination, UINT destinationSubresource, UINT x,
                               UINT y, UINT z, ID3D11Resource* source, UINT sourceSubresource,
                               const D3D11_BOX* sourceBox);

    // The whole view.
    void ClearDepthStencilView(ID3D11DepthStencilView* view, D3D11_CLEAR_FLAG flags, float depth,
                               UINT8 stencil);
    // The whole view, with a colour in its own encoding.
    void ClearRenderTargetView(ID3D11RenderTargetView* view, const Proc::ColorF& color);
    // Unbinds everything.
    void ClearState();
    // Sends what was recorded to the GPU, without waiting.
    void Flush();

    // How vertices are read.
    void IASetInputLayout(ID3D11InputLayout* layout);
    // What vertices make up.
    void IASetPrimitiveTopology(D3D_PRIMITIVE_TOPOLOGY topology);
    // All binders: null unbinds. Those that take a vector bind from slot 0 on, and slots after its
    // end keep what they hold, so that an empty one changes nothing; but render targets and
    // viewports are replaced as a whole, so that an empty one leaves none.
    void IASetVertexBuffer(const boost::intrusive_ptr<D11VertexBuffer>& buffer); // slot 0
    // From slot 0 on.
    void IASetVertexBuffers(const std::vector<boost::intrusive_ptr<D11VertexBuffer>>& buffers);
    // In its own format, from its first index on.
    void IASetIndexBuffer(const boost::intrusive_ptr<D11IndexBuffer>& buffer);

    // The vertex shader.
    void VSSetShader(const std::shared_ptr<D11VertexShader>& shader);
    // Of the vertex shader, b0 and on.
    void VSSetConstantBuffers(const std::vector<ID3D11Buffer*>& buffers);
    // The pixel shader.
    void PSSetShader(const std::shared_ptr<D11PixelShader>& shader);
    // Of the pixel shader, b0 and on.
    void PSSetConstantBuffers(const std::vector<ID3D11Buffer*>& buffers);
    // Of the pixel shader, s0 and on.
    void PSSetSamplers(const std::vector<ID3D11SamplerState*>& samplers);
    // Of the pixel shader, t0 and on.
    void PSSetShaderResources(const std::vector<ID3D11ShaderResourceView*>& views);

    // Null: Direct3D's default.
    void RSSetState(ID3D11RasterizerState* state);
    // In pixels of the target.
    void RSSetViewports(const std::vector<D3D11_VIEWPORT>& viewports);
    // Blend factors of one unless given; all samples are written.
    void OMSetBlendState(ID3D11BlendState* state);
    void OMSetBlendState(ID3D11BlendState* state, const std::array<float, 4>& factor);
    // Null: Direct3D's default.
    void OMSetDepthStencilState(ID3D11DepthStencilState* state, UINT stencilRef);
    // At most 8 targets; depthView may be null.
    void OMSetRenderTargets(const std::vector<ID3D11RenderTargetView*>& targets,
                            ID3D11DepthStencilView* depthView);

    // As many vertices, or indices, as the buffer has; what is drawn is what is bound.
    void Draw(const boost::intrusive_ptr<D11VertexBuffer>& buffer);
    // As many indices as the buffer has.
    void DrawIndexed(const boost::intrusive_ptr<D11IndexBuffer>& buffer);

    // BeginQuery not for time stamps. "Query is null".
    void BeginQuery(const boost::intrusive_ptr<D11Query>& query);
    // Of time stamps and events alone, or after BeginQuery.
    void EndQuery(const boost::intrusive_ptr<D11Query>& query);
    // What lies between the last BeginQuery and EndQuery of the query; empty while the GPU has not
    // come so far. They send off what was recorded, and do not wait. Each is for certain types:
    // "Invalid query type". "Query is null", "Failed to get query data".
    // Occlusion: samples that passed; time stamp: ticks; event and predicates: 0 or 1.
    std::optional<std::uint64_t> GetUint64Stats(const boost::intrusive_ptr<D11Query>& query);
    std::optional<D3D11_QUERY_DATA_PIPELINE_STATISTICS>
    // Of D3D11_QUERY_PIPELINE_STATISTICS; none: not yet.
    GetPipelineStats(const boost::intrusive_ptr<D11Query>& query);
    // The frequency in ticks a second, and whether time stamps taken meanwhile cannot be compared.
    std::optional<D3D11_QUERY_DATA_TIMESTAMP_DISJOINT>
    GetTimestampDisjoint(const boost::intrusive_ptr<D11Query>& query);

    // Raises the event's target by one and has the GPU signal it after the work recorded so far;
    // Flush sends that work off. "The device context does not support this operation" where
    // D11Device::IsFencesSupported is false, "Failed to signal fence"; then the target stays, so
    // that nobody waits for what is not signalled.
    void Signal(const boost::intrusive_ptr<D11CompletionEvent>& event);
    // The work recorded from now on waits on the GPU for the event's present target. The same
    // failures, "Failed to wait for fence".
    void Wait(const boost::intrusive_ptr<D11CompletionEvent>& event);

private:
    template <class Data>
    std::optional<Data> GetData(const D11Query& query, const std::source_location& location);

    friend class D11Device;
    friend class D11QuadPipeline; // which binds without vectors

    D11DeviceContext(const CComPtr<ID3D11DeviceContext>& context,
                     const CComPtr<ID3D11DeviceContext4>& context4);

    CComPtr<ID3D11DeviceContext> m_context;
    CComPtr<ID3D11DeviceContext4> m_context4;        // null where fences are not supported
    CComPtr<ID3DUserDefinedAnnotation> m_annotation; // null where no debugger listens
    Platform::RecursiveMutex m_encodeLock;           // held while a D11Device::Encode runs
};

} // namespace Norvex::DX
