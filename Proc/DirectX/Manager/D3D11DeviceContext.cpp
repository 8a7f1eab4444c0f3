#include "Proc/DirectX/Manager/D3D11DeviceContext.h"

#include <algorithm>
#include <initializer_list>
#include <source_location>

#include "Proc/DirectX/Manager/Annotation.h"
#include "Proc/DirectX/Manager/D3D11Query.h"
#include "Proc/DirectX/Manager/D3D11Resource.h"
#include "Proc/DirectX/Manager/DirectXShader.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

constexpr UINT kAllSampleBits = 0xffffffff;

template <class T>
UINT CountOf(const std::vector<T>& items) {
    return static_cast<UINT>(items.size());
}

void RequireResource(ID3D11Resource* resource,
                     const std::source_location& location = std::source_location::current()) {
    ThrowUnless<DirectX11Exception>(resource != nullptr, "Resource is null", location);
}

void RequireView(ID3D11View* view,
                 const std::source_location& location = std::source_location::current()) {
    ThrowUnless<DirectX11Exception>(view != nullptr, "View is null", location);
}

void RequireEvent(const boost::intrusive_ptr<D11CompletionEvent>& event,
                  const std::source_location& location = std::source_location::current()) {
    ThrowUnless<DirectX11Exception>(event != nullptr, "Completion event is null", location);
}

// There is one, and where it matters, of one of the types.
void RequireQuery(const boost::intrusive_ptr<D11Query>& query,
                  std::initializer_list<D3D11_QUERY> types = {},
                  const std::source_location& location = std::source_location::current()) {
    ThrowUnless<DirectX11Exception>(query != nullptr, "Query is null", location);
    const bool isOne = std::ranges::find(types, query->GetType()) != types.end();
    ThrowUnless<DirectX11Exception>(isOne || types.size() == 0, "Invalid query type", location);
}

} // namespace

D11DeviceContext::D11DeviceContext(const CComPtr<ID3D11DeviceContext>& context,
                                   const CComPtr<ID3D11DeviceContext4>& context4)
    : m_context(context),
      m_context4(context4),
      m_annotation(FindAnnotation(context)) {}

D11DeviceContext::~D11DeviceContext() = default;

D3D11_MAPPED_SUBRESOURCE D11DeviceContext::Map(ID3D11Resource* resource, UINT subresource,
                                               D3D11_MAP type,
                                               const std::optional<D3D11_MAP_FLAG>& flags) {
    RequireResource(resource);
    D3D11_MAPPED_SUBRESOURCE mapped = {};
    const UINT mapFlags = flags ? static_cast<UINT>(*flags) : 0;
    ThrowIfFailed<DirectX11Exception>(
        m_context->Map(resource, subresource, type, mapFlags, &mapped), "Failed to map resource");
    return mapped;
}

void D11DeviceContext::Unmap(ID3D11Resource* resource, UINT subresource) {
    RequireResource(resource);
    m_context->Unmap(resource, subresource);
}

void D11DeviceContext::UpdateSubresource(ID3D11Resource* resource, UINT subresource,
                                         const D3D11_BOX* box, const void* data, UINT rowPitch,
                                         UINT depthPitch) {
    RequireResource(resource);
    ThrowUnless<DirectX11Exception>(data != nullptr, "Invalid upload data");
    m_context->UpdateSubresource(resource, subresource, box, data, rowPitch, depthPitch);
}

void D11DeviceContext::CopyResource(ID3D11Resource* destination, ID3D11Resource* source) {
    RequireResource(destination);
    RequireResource(source);
    m_context->CopyResource(destination, source);
}

void D11DeviceContext::CopySubresourceRegion(ID3D11Resource* destination,
                                             UINT destinationSubresource, UINT x, UINT y, UINT z,
                                             ID3D11Resource* source, UINT sourceSubresource,
                                             const D3D11_BOX* sourceBox) {
    RequireResource(destination);
    RequireResource(source);
    m_context->CopySubresourceRegion(destination, destinationSubresource, x, y, z, source,
                                     sourceSubresource, sourceBox);
}

void D11DeviceContext::ClearDepthStencilView(ID3D11DepthStencilView* view, D3D11_CLEAR_FLAG flags,
                                             float depth, UINT8 stencil) {
    RequireView(view);
    m_context->ClearDepthStencilView(view, flags, depth, stencil);
}

void D11DeviceContext::ClearRenderTargetView(ID3D11RenderTargetView* view,
                                             const Proc::ColorF& color) {
    RequireView(view);
    const std::array<float, 4> channels = {color.r, color.g, color.b, color.a};
    m_context->ClearRenderTargetView(view, channels.data());
}

void D11DeviceContext::ClearState() {
    m_context->ClearState();
}

void D11DeviceContext::Flush() {
    m_context->Flush();
}

void D11DeviceContext::IASetInputLayout(ID3D11InputLayout* layout) {
    m_context->IASetInputLayout(layout);
}

void D11DeviceContext::IASetPrimitiveTopology(D3D_PRIMITIVE_TOPOLOGY topology) {
    m_context->IASetPrimitiveTopology(topology);
}

void D11DeviceContext::IASetVertexBuffer(const boost::intrusive_ptr<D11VertexBuffer>& buffer) {
    ID3D11Buffer* const raw = buffer != nullptr ? buffer->GetBuffer().p : nullptr;
    const UINT stride = buffer != nullptr ? buffer->GetStride() : 0;
    const UINT offset = 0;
    m_context->IASetVertexBuffers(0, 1, &raw, &stride, &offset);
}

void D11DeviceContext::IASetVertexBuffers(
    const std::vector<boost::intrusive_ptr<D11VertexBuffer>>& buffers) {
    std::vector<ID3D11Buffer*> raw;
    std::vector<UINT> strides;
    for (const auto& buffer : buffers) {
        raw.push_back(buffer != nullptr ? buffer->GetBuffer().p : nullptr);
        strides.push_back(buffer != nullptr ? buffer->GetStride() : 0);
    }
    const std::vector<UINT> offsets(buffers.size(), 0);
    m_context->IASetVertexBuffers(0, CountOf(raw), raw.data(), strides.data(), offsets.data());
}

void D11DeviceContext::IASetIndexBuffer(const boost::intrusive_ptr<D11IndexBuffer>& buffer) {
    if (buffer == nullptr) {
        m_context->IASetIndexBuffer(nullptr, DXGI_FORMAT_UNKNOWN, 0);
        return;
    }
    m_context->IASetIndexBuffer(buffer->GetBuffer(), buffer->GetFormat(), 0);
}

void D11DeviceContext::VSSetShader(const std::shared_ptr<D11VertexShader>& shader) {
    m_context->VSSetShader(shader != nullptr ? shader->GetShader().p : nullptr, nullptr, 0);
}

void D11DeviceContext::VSSetConstantBuffers(const std::vector<ID3D11Buffer*>& buffers) {
    m_context->VSSetConstantBuffers(0, CountOf(buffers), buffers.data());
}

void D11DeviceContext::PSSetShader(const std::shared_ptr<D11PixelShader>& shader) {
    m_context->PSSetShader(shader != nullptr ? shader->GetShader().p : nullptr, nullptr, 0);
}

void D11DeviceContext::PSSetConstantBuffers(const std::vector<ID3D11Buffer*>& buffers) {
    m_context->PSSetConstantBuffers(0, CountOf(buffers), buffers.data());
}

void D11DeviceContext::PSSetSamplers(const std::vector<ID3D11SamplerState*>& samplers) {
    m_context->PSSetSamplers(0, CountOf(samplers), samplers.data());
}

void D11DeviceContext::PSSetShaderResources(const std::vector<ID3D11ShaderResourceView*>& views) {
    m_context->PSSetShaderResources(0, CountOf(views), views.data());
}

void D11DeviceContext::RSSetState(ID3D11RasterizerState* state) {
    m_context->RSSetState(state);
}

void D11DeviceContext::RSSetViewports(const std::vector<D3D11_VIEWPORT>& viewports) {
    m_context->RSSetViewports(CountOf(viewports), viewports.data());
}

void D11DeviceContext::OMSetBlendState(ID3D11BlendState* state) {
    m_context->OMSetBlendState(state, nullptr, kAllSampleBits);
}

void D11DeviceContext::OMSetBlendState(ID3D11BlendState* state,
                                       const std::array<float, 4>& factor) {
    m_context->OMSetBlendState(state, factor.data(), kAllSampleBits);
}

void D11DeviceContext::OMSetDepthStencilState(ID3D11DepthStencilState* state, UINT stencilRef) {
    m_context->OMSetDepthStencilState(state, stencilRef);
}

void D11DeviceContext::OMSetRenderTargets(const std::vector<ID3D11RenderTargetView*>& targets,
                                          ID3D11DepthStencilView* depthView) {
    m_context->OMSetRenderTargets(CountOf(targets), targets.data(), depthView);
}

void D11DeviceContext::Draw(const boost::intrusive_ptr<D11VertexBuffer>& buffer) {
    ThrowUnless<DirectX11Exception>(buffer != nullptr, "Vertex buffer is null");
    m_context->Draw(buffer->GetCount(), 0);
}

void D11DeviceContext::DrawIndexed(const boost::intrusive_ptr<D11IndexBuffer>& buffer) {
    ThrowUnless<DirectX11Exception>(buffer != nullptr, "Index buffer is null");
    m_context->DrawIndexed(buffer->GetCount(), 0, 0);
}

void D11DeviceContext::BeginQuery(const boost::intrusive_ptr<D11Query>& query) {
    RequireQuery(query);
    m_context->Begin(query->Get());
}

void D11DeviceContext::EndQuery(const boost::intrusive_ptr<D11Query>& query) {
    RequireQuery(query);
    m_context->End(query->Get());
}

template <class Data>
std::optional<Data> D11DeviceContext::GetData(const D11Query& query,
                                              const std::source_location& location) {
    Data data = {};
    const long result = m_context->GetData(query.Get(), &data, sizeof(data), 0);
    ThrowIfFailed<DirectX11Exception>(result, "Failed to get query data", {}, location);
    return result == S_OK ? std::optional(data) : std::nullopt; // S_FALSE: not yet
}

std::optional<std::uint64_t>
D11DeviceContext::GetUint64Stats(const boost::intrusive_ptr<D11Query>& query) {
    RequireQuery(query, {D3D11_QUERY_OCCLUSION, D3D11_QUERY_TIMESTAMP, D3D11_QUERY_EVENT,
                         D3D11_QUERY_OCCLUSION_PREDICATE, D3D11_QUERY_SO_OVERFLOW_PREDICATE});
    const auto location = std::source_location::current();
    if (query->GetType() == D3D11_QUERY_OCCLUSION || query->GetType() == D3D11_QUERY_TIMESTAMP) {
        return GetData<std::uint64_t>(*query, location);
    }
    const auto isSet = GetData<BOOL>(*query, location);
    return isSet ? std::optional<std::uint64_t>(*isSet != FALSE ? 1 : 0) : std::nullopt;
}

std::optional<D3D11_QUERY_DATA_PIPELINE_STATISTICS>
D11DeviceContext::GetPipelineStats(const boost::intrusive_ptr<D11Query>& query) {
    RequireQuery(query, {D3D11_QUERY_PIPELINE_STATISTICS});
    return GetData<D3D11_QUERY_DATA_PIPELINE_STATISTICS>(*query, std::source_location::current());
}

std::optional<D3D11_QUERY_DATA_TIMESTAMP_DISJOINT>
D11DeviceContext::GetTimestampDisjoint(const boost::intrusive_ptr<D11Query>& query) {
    RequireQuery(query, {D3D11_QUERY_TIMESTAMP_DISJOINT});
    return GetData<D3D11_QUERY_DATA_TIMESTAMP_DISJOINT>(*query, std::source_location::current());
}

void D11DeviceContext::Signal(const boost::intrusive_ptr<D11CompletionEvent>& event) {
    ThrowUnless<DirectX11Exception>(m_context4 != nullptr,
                                    "The device context does not support this operation");
    RequireEvent(event);
    ThrowIfFailed<DirectX11Exception>(event->SignalOn(*m_context4), "Failed to signal fence");
}

void D11DeviceContext::Wait(const boost::intrusive_ptr<D11CompletionEvent>& event) {
    ThrowUnless<DirectX11Exception>(m_context4 != nullptr,
                                    "The device context does not support this operation");
    RequireEvent(event);
    ThrowIfFailed<DirectX11Exception>(m_context4->Wait(event->GetFence(), event->GetValue()),
                                      "Failed to wait for fence");
}

} // namespace Norvex::DX
