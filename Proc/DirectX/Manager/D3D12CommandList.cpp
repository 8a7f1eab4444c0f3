#include "Proc/DirectX/Manager/D3D12CommandList.h"

#include <algorithm>
#include <array>

#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12Query.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

constexpr std::size_t kMaxRenderTargets = D3D12_SIMULTANEOUS_RENDER_TARGET_COUNT;

void CheckRenderTarget(const D12Descriptor& descriptor, const std::source_location& location) {
    ThrowUnless<DirectX12Exception>(descriptor.GetType() == D12Descriptor::RenderTarget,
                                    "The descriptor is not a render target view", location);
}

} // namespace

D12CommandList::D12CommandList(const boost::intrusive_ptr<D12Device>& device,
                               const CComPtr<ID3D12CommandList>& list)
    : m_device(device),
      m_list(list) {}

D12CommandList::~D12CommandList() {
    m_device->ReuseCommandList(std::move(m_list));
}

D3D12_COMMAND_LIST_TYPE D12CommandList::GetType() const {
    return m_list.p->GetType();
}

void D12CommandList::TrackObject(ID3D12DeviceChild* object) {
    const auto isSame = [object](const CComPtr<ID3D12DeviceChild>& tracked) {
        return tracked.p == object;
    };
    if (object != nullptr && std::ranges::none_of(m_trackedComObjects, isSame)) {
        m_trackedComObjects.emplace_back(object);
    }
}

void D12CommandList::TrackObject(const boost::intrusive_ptr<IRefCountable>& object) {
    if (object != nullptr &&
        std::ranges::find(m_trackedObjects, object) == m_trackedObjects.end()) {
        m_trackedObjects.push_back(object);
    }
}

D12GraphicsCommandList::D12GraphicsCommandList(const boost::intrusive_ptr<D12Device>& device,
                                               const CComPtr<ID3D12GraphicsCommandList>& list)
    : D12CommandList(device, list.p),
      m_graphicsList(list) {}

D12GraphicsCommandList::~D12GraphicsCommandList() {
    // A recording that was given up, as a rule by an exception: the list goes back to the pool,
    // where an open one would fail the next user's reset.
    if (!IsClosed()) {
        m_graphicsList->Close();
    }
}

void D12GraphicsCommandList::Close() {
    ThrowIfFailed<DirectX12Exception>(m_graphicsList->Close(), "Failed to close command list",
                                      GetDevice()->Get());
    MarkClosed();
}

void D12GraphicsCommandList::OMSetRenderTarget(const boost::intrusive_ptr<D12Descriptor>& target,
                                               const boost::intrusive_ptr<D12Descriptor>& depth) {
    CheckRenderTarget(*target, std::source_location::current());
    SetTargets({target}, depth);
}

void D12GraphicsCommandList::OMSetRenderTargets(
    const std::vector<boost::intrusive_ptr<D12Descriptor>>& targets,
    const boost::intrusive_ptr<D12Descriptor>& depth) {
    ThrowUnless<DirectX12Exception>(targets.size() <= kMaxRenderTargets,
                                    "Invalid render target count");
    for (const auto& target : targets) {
        CheckRenderTarget(*target, std::source_location::current());
    }
    SetTargets(targets, depth);
}

void D12GraphicsCommandList::SetTargets(
    const std::vector<boost::intrusive_ptr<D12Descriptor>>& targets,
    const boost::intrusive_ptr<D12Descriptor>& depth) {
    std::array<D3D12_CPU_DESCRIPTOR_HANDLE, kMaxRenderTargets> handles = {};
    std::ranges::transform(targets, handles.begin(),
                           [](const auto& target) { return target->GetCPUHandle(); });
    const D3D12_CPU_DESCRIPTOR_HANDLE depthHandle =
        depth != nullptr ? depth->GetCPUHandle() : D3D12_CPU_DESCRIPTOR_HANDLE{};
    m_graphicsList->OMSetRenderTargets(static_cast<UINT>(targets.size()), handles.data(), FALSE,
                                       depth != nullptr ? &depthHandle : nullptr);
    for (const auto& target : targets) {
        TrackObject(boost::intrusive_ptr<IRefCountable>(target));
    }
    TrackObject(boost::intrusive_ptr<IRefCountable>(depth));
}

void D12GraphicsCommandList::ClearRenderTargetView(
    const boost::intrusive_ptr<D12Descriptor>& target, const Proc::ColorF& color,
    const std::vector<RECT>& rects) {
    CheckRenderTarget(*target, std::source_location::current());
    const float rgba[] = {color.r, color.g, color.b, color.a};
    m_graphicsList->ClearRenderTargetView(target->GetCPUHandle(), rgba,
                                          static_cast<UINT>(rects.size()),
                                          rects.empty() ? nullptr : rects.data());
    TrackObject(boost::intrusive_ptr<IRefCountable>(target));
}

void D12GraphicsCommandList::IASetVertexBuffer(
    const boost::intrusive_ptr<D12VertexBuffer>& buffer) {
    IASetVertexBuffers(0, {buffer});
}

void D12GraphicsCommandList::IASetVertexBuffers(
    unsigned startSlot, const std::vector<boost::intrusive_ptr<D12VertexBuffer>>& buffers) {
    std::vector<D3D12_VERTEX_BUFFER_VIEW> views;
    views.reserve(buffers.size());
    for (const auto& buffer : buffers) {
        views.push_back(buffer->GetView());
        TrackObject(boost::intrusive_ptr<IRefCountable>(buffer));
    }
    m_graphicsList->IASetVertexBuffers(startSlot, static_cast<UINT>(views.size()), views.data());
}

void D12GraphicsCommandList::IASetIndexBuffer(const boost::intrusive_ptr<D12IndexBuffer>& buffer) {
    m_graphicsList->IASetIndexBuffer(&buffer->GetView());
    TrackObject(boost::intrusive_ptr<IRefCountable>(buffer));
}

void D12GraphicsCommandList::IASetPrimitiveTopology(D3D_PRIMITIVE_TOPOLOGY topology) {
    m_graphicsList->IASetPrimitiveTopology(topology);
}

void D12GraphicsCommandList::Draw(const boost::intrusive_ptr<D12VertexBuffer>& buffer) {
    m_graphicsList->DrawInstanced(buffer->GetCount(), 1, 0, 0);
    TrackObject(boost::intrusive_ptr<IRefCountable>(buffer));
}

void D12GraphicsCommandList::DrawIndexed(const boost::intrusive_ptr<D12IndexBuffer>& buffer) {
    m_graphicsList->DrawIndexedInstanced(buffer->GetCount(), 1, 0, 0, 0);
    TrackObject(boost::intrusive_ptr<IRefCountable>(buffer));
}

void D12GraphicsCommandList::RSSetViewports(const std::vector<D3D12_VIEWPORT>& viewports) {
    m_graphicsList->RSSetViewports(static_cast<UINT>(viewports.size()), viewports.data());
}

void D12GraphicsCommandList::RSSetScissorRects(const std::vector<RECT>& rects) {
    m_graphicsList->RSSetScissorRects(static_cast<UINT>(rects.size()), rects.data());
}

void D12GraphicsCommandList::SetPipelineState(const CComPtr<ID3D12PipelineState>& pipelineState) {
    m_graphicsList->SetPipelineState(pipelineState);
    TrackObject(pipelineState.p);
}

void D12GraphicsCommandList::SetRootSignature(const CComPtr<ID3D12RootSignature>& rootSignature) {
    m_graphicsList->SetGraphicsRootSignature(rootSignature);
    TrackObject(rootSignature.p);
}

void D12GraphicsCommandList::SetDescriptorHeaps(
    const boost::intrusive_ptr<D12DescriptorGPUHeap>& views,
    const boost::intrusive_ptr<D12DescriptorGPUHeap>& samplers) {
    std::array<ID3D12DescriptorHeap*, 2> heaps = {};
    UINT count = 0;
    for (const auto& heap : {views, samplers}) {
        if (heap != nullptr) {
            heaps[count++] = heap->GetHeap();
            TrackObject(boost::intrusive_ptr<IRefCountable>(heap));
        }
    }
    if (count != 0) {
        m_graphicsList->SetDescriptorHeaps(count, heaps.data());
    }
}

void D12GraphicsCommandList::SetRoot32BitConstants(unsigned rootIndex, unsigned count,
                                                   const void* data) {
    m_graphicsList->SetGraphicsRoot32BitConstants(rootIndex, count, data, 0);
}

void D12GraphicsCommandList::SetRootDescriptorTable(unsigned rootIndex,
                                                    D3D12_GPU_DESCRIPTOR_HANDLE table) {
    m_graphicsList->SetGraphicsRootDescriptorTable(rootIndex, table);
}

void D12GraphicsCommandList::SetRootConstantBufferView(unsigned rootIndex,
                                                       D3D12_GPU_VIRTUAL_ADDRESS address) {
    m_graphicsList->SetGraphicsRootConstantBufferView(rootIndex, address);
}

void D12GraphicsCommandList::SetRootShaderResourceView(unsigned rootIndex,
                                                       D3D12_GPU_VIRTUAL_ADDRESS address) {
    m_graphicsList->SetGraphicsRootShaderResourceView(rootIndex, address);
}

void D12GraphicsCommandList::SetRootUnorderedAccessView(unsigned rootIndex,
                                                        D3D12_GPU_VIRTUAL_ADDRESS address) {
    m_graphicsList->SetGraphicsRootUnorderedAccessView(rootIndex, address);
}

void D12GraphicsCommandList::ResourceBarrier(const std::vector<D3D12_RESOURCE_BARRIER>& barriers) {
    m_graphicsList->ResourceBarrier(static_cast<UINT>(barriers.size()), barriers.data());
    for (const D3D12_RESOURCE_BARRIER& barrier : barriers) {
        switch (barrier.Type) {
        case D3D12_RESOURCE_BARRIER_TYPE_TRANSITION:
            TrackObject(barrier.Transition.pResource);
            break;
        case D3D12_RESOURCE_BARRIER_TYPE_ALIASING:
            TrackObject(barrier.Aliasing.pResourceBefore);
            TrackObject(barrier.Aliasing.pResourceAfter);
            break;
        case D3D12_RESOURCE_BARRIER_TYPE_UAV:
            TrackObject(barrier.UAV.pResource);
            break;
        }
    }
}

void D12GraphicsCommandList::CopyResource(const CComPtr<ID3D12Resource>& destination,
                                          const CComPtr<ID3D12Resource>& source) {
    m_graphicsList->CopyResource(destination, source);
    TrackObject(destination.p);
    TrackObject(source.p);
}

void D12GraphicsCommandList::CopyBufferRegion(const CComPtr<ID3D12Resource>& destination,
                                              std::uint64_t destinationOffset,
                                              const CComPtr<ID3D12Resource>& source,
                                              std::uint64_t sourceOffset, std::uint64_t size) {
    m_graphicsList->CopyBufferRegion(destination, destinationOffset, source, sourceOffset, size);
    TrackObject(destination.p);
    TrackObject(source.p);
}

void D12GraphicsCommandList::CopyTextureRegion(const D3D12_TEXTURE_COPY_LOCATION& destination,
                                               unsigned x, unsigned y, unsigned z,
                                               const D3D12_TEXTURE_COPY_LOCATION& source,
                                               const D3D12_BOX* sourceBox) {
    m_graphicsList->CopyTextureRegion(&destination, x, y, z, &source, sourceBox);
    TrackObject(destination.pResource);
    TrackObject(source.pResource);
}

void D12GraphicsCommandList::BeginQuery(const boost::intrusive_ptr<D12Query>& query) {
    m_graphicsList->BeginQuery(query->GetHeap()->GetHeap(), query->GetType(), query->GetIndex());
    TrackObject(boost::intrusive_ptr<IRefCountable>(query));
}

void D12GraphicsCommandList::EndQuery(const boost::intrusive_ptr<D12Query>& query) {
    ID3D12QueryHeap* const heap = query->GetHeap()->GetHeap();
    m_graphicsList->EndQuery(heap, query->GetType(), query->GetIndex());
    m_graphicsList->ResolveQueryData(heap, query->GetType(), query->GetIndex(), 1,
                                     query->GetResource(), query->GetOffset());
    TrackObject(boost::intrusive_ptr<IRefCountable>(query));
}

boost::intrusive_ptr<D12VertexBuffer>
D12GraphicsCommandList::CreateVertexBuffer(const void* data, unsigned vertexSize,
                                           unsigned vertexCount) {
    const auto resource =
        CreateInputBuffer(data, std::uint64_t{vertexSize} * vertexCount, L"Vertex buffer");
    return D12VertexBuffer::Create(resource, vertexSize, vertexCount);
}

boost::intrusive_ptr<D12IndexBuffer>
D12GraphicsCommandList::CreateIndexBuffer(const std::vector<std::uint16_t>& indices) {
    const std::uint64_t size = indices.size() * sizeof(std::uint16_t);
    return D12IndexBuffer::Create(CreateInputBuffer(indices.data(), size, L"Index buffer"),
                                  DXGI_FORMAT_R16_UINT, static_cast<unsigned>(indices.size()),
                                  static_cast<unsigned>(size));
}

boost::intrusive_ptr<D12IndexBuffer>
D12GraphicsCommandList::CreateIndexBuffer(const std::vector<std::uint32_t>& indices) {
    const std::uint64_t size = indices.size() * sizeof(std::uint32_t);
    return D12IndexBuffer::Create(CreateInputBuffer(indices.data(), size, L"Index buffer"),
                                  DXGI_FORMAT_R32_UINT, static_cast<unsigned>(indices.size()),
                                  static_cast<unsigned>(size));
}

CComPtr<ID3D12Resource> D12GraphicsCommandList::CreateInputBuffer(const void* data,
                                                                  std::uint64_t size,
                                                                  const wchar_t* name) {
    D12BufferDesc desc;
    desc.heapType = D3D12_HEAP_TYPE_UPLOAD;
    desc.size = size;
    desc.initialState = D3D12_RESOURCE_STATE_GENERIC_READ;
    desc.initialData = static_cast<const std::uint8_t*>(data);
    auto buffer = GetDevice()->CreateBuffer(desc);
    buffer->SetName(name);
    return buffer;
}

} // namespace Norvex::DX
