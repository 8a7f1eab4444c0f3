#include "Proc/DirectX/Manager/D3D12CommandList.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <source_location>
#include <utility>

#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12DrawState.h"
#include "Proc/DirectX/Manager/D3D12Query.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

constexpr std::size_t kMaxRenderTargets = D3D12_SIMULTANEOUS_RENDER_TARGET_COUNT;

void CheckRenderTarget(const boost::intrusive_ptr<D12Descriptor>& descriptor,
                       const std::source_location& location = std::source_location::current()) {
    ThrowUnless<DirectX12Exception>(descriptor != nullptr &&
                                        descriptor->GetType() == D12Descriptor::RenderTarget,
                                    "The descriptor is not a render target view", location);
}

void CheckDepthStencil(const boost::intrusive_ptr<D12Descriptor>& descriptor,
                       const std::source_location& location = std::source_location::current()) {
    ThrowUnless<DirectX12Exception>(descriptor == nullptr ||
                                        descriptor->GetType() == D12Descriptor::DepthStencil,
                                    "The descriptor is not a depth stencil view", location);
}

D3D12_VERTEX_BUFFER_VIEW ViewOf(const boost::intrusive_ptr<D12VertexBuffer>& buffer) {
    return buffer != nullptr ? buffer->GetView() : D3D12_VERTEX_BUFFER_VIEW{};
}

} // namespace

D12CommandList::D12CommandList(const boost::intrusive_ptr<D12Device>& device,
                               const CComPtr<ID3D12CommandList>& list,
                               const CComPtr<ID3D12CommandAllocator>& allocator)
    : m_device(device),
      m_allocator(allocator),
      m_list(list) {
    ++m_device->m_listsInUse;
}

D12CommandList::~D12CommandList() {
    --m_device->m_listsInUse;
    if (!m_isPoolable) {
        return;
    }
    try {
        m_device->ReuseCommandList(std::move(m_list));
    } catch (...) {
        m_list.Release(); // no memory to keep it: the next user makes one
    }
}

D3D12_COMMAND_LIST_TYPE D12CommandList::GetType() const {
    return m_list.p->GetType();
}

void D12CommandList::TrackObject(ID3D12DeviceChild* object) {
    m_tracked.Add(object);
}

void D12CommandList::TrackObject(const boost::intrusive_ptr<IRefCountable>& object) {
    m_tracked.Add(object.get());
}

D12GraphicsCommandList::D12GraphicsCommandList(const boost::intrusive_ptr<D12Device>& device,
                                               const CComPtr<ID3D12GraphicsCommandList>& list,
                                               const CComPtr<ID3D12CommandAllocator>& allocator)
    : D12CommandList(device, CComPtr<ID3D12CommandList>(list.p), allocator),
      m_graphicsList(list) {}

D12GraphicsCommandList::~D12GraphicsCommandList() {
    GiveUp();
}

ID3D12GraphicsCommandList* D12GraphicsCommandList::GetGraphics() const {
    Forget(D12DrawState::kAll);
    return m_graphicsList;
}

void D12GraphicsCommandList::Forget(unsigned items) const {
    if (m_drawState != nullptr) {
        m_drawState->Forget(items);
    }
}

void D12GraphicsCommandList::Begin(unsigned items, const std::source_location& location) const {
    ThrowUnless<DirectX12Exception>(!IsClosed(), "The command list is closed", location);
    Forget(items);
}

void D12GraphicsCommandList::GiveUp() noexcept {
    if (IsClosed()) {
        return;
    }
    m_drawState.reset();
    if (FAILED(m_graphicsList->Close())) {
        KeepOutOfPool(); // an open list would fail the next user's reset
    }
    MarkClosed();
}

void D12GraphicsCommandList::Close() {
    ThrowIfFailed<DirectX12Exception>(m_graphicsList->Close(), "Failed to close command list",
                                      GetDevice()->Get());
    m_drawState.reset();
    MarkClosed();
}

void D12GraphicsCommandList::OMSetRenderTarget(const boost::intrusive_ptr<D12Descriptor>& target,
                                               const boost::intrusive_ptr<D12Descriptor>& depth) {
    Begin(D12DrawState::kTargets);
    CheckRenderTarget(target);
    CheckDepthStencil(depth);
    SetTargets({&target, 1}, depth);
}

void D12GraphicsCommandList::OMSetRenderTargets(
    const std::vector<boost::intrusive_ptr<D12Descriptor>>& targets,
    const boost::intrusive_ptr<D12Descriptor>& depth) {
    Begin(D12DrawState::kTargets);
    ThrowUnless<DirectX12Exception>(targets.size() <= kMaxRenderTargets,
                                    "Invalid render target count");
    for (const auto& target : targets) {
        CheckRenderTarget(target);
    }
    CheckDepthStencil(depth);
    SetTargets(targets, depth);
}

void D12GraphicsCommandList::SetTargets(
    std::span<const boost::intrusive_ptr<D12Descriptor>> targets,
    const boost::intrusive_ptr<D12Descriptor>& depth) {
    for (const auto& target : targets) {
        Keep(target.get());
    }
    Keep(depth.get());
    std::array<D3D12_CPU_DESCRIPTOR_HANDLE, kMaxRenderTargets> handles = {};
    std::ranges::transform(targets, handles.begin(),
                           [](const auto& target) { return target->GetCPUHandle(); });
    const D3D12_CPU_DESCRIPTOR_HANDLE depthHandle =
        depth != nullptr ? depth->GetCPUHandle() : D3D12_CPU_DESCRIPTOR_HANDLE{};
    m_graphicsList->OMSetRenderTargets(static_cast<UINT>(targets.size()), handles.data(), FALSE,
                                       depth != nullptr ? &depthHandle : nullptr);
}

void D12GraphicsCommandList::ClearRenderTargetView(
    const boost::intrusive_ptr<D12Descriptor>& target, const Proc::ColorF& color,
    const std::vector<RECT>& rects) {
    Begin();
    CheckRenderTarget(target);
    Keep(target.get());
    const float rgba[] = {color.r, color.g, color.b, color.a};
    m_graphicsList->ClearRenderTargetView(target->GetCPUHandle(), rgba,
                                          static_cast<UINT>(rects.size()),
                                          rects.empty() ? nullptr : rects.data());
}

void D12GraphicsCommandList::IASetVertexBuffer(
    const boost::intrusive_ptr<D12VertexBuffer>& buffer) {
    Begin(D12DrawState::kVertexBuffer);
    Keep(buffer.get());
    const D3D12_VERTEX_BUFFER_VIEW view = ViewOf(buffer);
    m_graphicsList->IASetVertexBuffers(0, 1, &view);
}

void D12GraphicsCommandList::IASetVertexBuffers(
    unsigned startSlot, const std::vector<boost::intrusive_ptr<D12VertexBuffer>>& buffers) {
    Begin(D12DrawState::kVertexBuffer);
    std::vector<D3D12_VERTEX_BUFFER_VIEW> views;
    views.reserve(buffers.size());
    for (const auto& buffer : buffers) {
        Keep(buffer.get());
        views.push_back(ViewOf(buffer));
    }
    m_graphicsList->IASetVertexBuffers(startSlot, static_cast<UINT>(views.size()), views.data());
}

void D12GraphicsCommandList::IASetIndexBuffer(const boost::intrusive_ptr<D12IndexBuffer>& buffer) {
    Begin();
    Keep(buffer.get());
    m_graphicsList->IASetIndexBuffer(buffer != nullptr ? &buffer->GetView() : nullptr);
}

void D12GraphicsCommandList::IASetPrimitiveTopology(D3D_PRIMITIVE_TOPOLOGY topology) {
    Begin(D12DrawState::kTopology);
    m_graphicsList->IASetPrimitiveTopology(topology);
}

void D12GraphicsCommandList::Draw(const boost::intrusive_ptr<D12VertexBuffer>& buffer) {
    Begin();
    ThrowUnless<DirectX12Exception>(buffer != nullptr, "Vertex buffer is null");
    Keep(buffer.get());
    m_graphicsList->DrawInstanced(buffer->GetCount(), 1, 0, 0);
}

void D12GraphicsCommandList::DrawIndexed(const boost::intrusive_ptr<D12IndexBuffer>& buffer) {
    Begin();
    ThrowUnless<DirectX12Exception>(buffer != nullptr, "Index buffer is null");
    Keep(buffer.get());
    m_graphicsList->DrawIndexedInstanced(buffer->GetCount(), 1, 0, 0, 0);
}

void D12GraphicsCommandList::RSSetViewports(const std::vector<D3D12_VIEWPORT>& viewports) {
    Begin(D12DrawState::kViewport);
    m_graphicsList->RSSetViewports(static_cast<UINT>(viewports.size()), viewports.data());
}

void D12GraphicsCommandList::RSSetScissorRects(const std::vector<RECT>& rects) {
    Begin(D12DrawState::kScissor);
    m_graphicsList->RSSetScissorRects(static_cast<UINT>(rects.size()), rects.data());
}

void D12GraphicsCommandList::SetPipelineState(const CComPtr<ID3D12PipelineState>& pipelineState) {
    Begin(D12DrawState::kPipelineState);
    ThrowUnless<DirectX12Exception>(pipelineState != nullptr, "Pipeline state is null");
    Keep(pipelineState.p);
    m_graphicsList->SetPipelineState(pipelineState);
}

void D12GraphicsCommandList::SetRootSignature(const CComPtr<ID3D12RootSignature>& rootSignature) {
    Begin(D12DrawState::kRootSignature);
    ThrowUnless<DirectX12Exception>(rootSignature != nullptr, "Root signature is null");
    Keep(rootSignature.p);
    m_graphicsList->SetGraphicsRootSignature(rootSignature);
}

void D12GraphicsCommandList::SetDescriptorHeaps(
    const boost::intrusive_ptr<D12DescriptorGPUHeap>& views,
    const boost::intrusive_ptr<D12DescriptorGPUHeap>& samplers) {
    Begin(D12DrawState::kHeaps);
    std::array<ID3D12DescriptorHeap*, 2> heaps = {};
    UINT count = 0;
    for (const auto& heap : {views, samplers}) {
        if (heap != nullptr) {
            Keep(heap.get());
            heaps[count++] = heap->GetHeap();
        }
    }
    if (count != 0) {
        m_graphicsList->SetDescriptorHeaps(count, heaps.data());
    }
}

void D12GraphicsCommandList::SetRoot32BitConstants(unsigned rootIndex, unsigned count,
                                                   const void* data) {
    Begin(D12DrawState::kTable);
    m_graphicsList->SetGraphicsRoot32BitConstants(rootIndex, count, data, 0);
}

void D12GraphicsCommandList::SetRootDescriptorTable(unsigned rootIndex,
                                                    D3D12_GPU_DESCRIPTOR_HANDLE table) {
    Begin(D12DrawState::kTable);
    m_graphicsList->SetGraphicsRootDescriptorTable(rootIndex, table);
}

void D12GraphicsCommandList::SetRootConstantBufferView(unsigned rootIndex,
                                                       D3D12_GPU_VIRTUAL_ADDRESS address) {
    Begin(D12DrawState::kTable);
    m_graphicsList->SetGraphicsRootConstantBufferView(rootIndex, address);
}

void D12GraphicsCommandList::SetRootShaderResourceView(unsigned rootIndex,
                                                       D3D12_GPU_VIRTUAL_ADDRESS address) {
    Begin(D12DrawState::kTable);
    m_graphicsList->SetGraphicsRootShaderResourceView(rootIndex, address);
}

void D12GraphicsCommandList::SetRootUnorderedAccessView(unsigned rootIndex,
                                                        D3D12_GPU_VIRTUAL_ADDRESS address) {
    Begin(D12DrawState::kTable);
    m_graphicsList->SetGraphicsRootUnorderedAccessView(rootIndex, address);
}

void D12GraphicsCommandList::ResourceBarrier(const std::vector<D3D12_RESOURCE_BARRIER>& barriers) {
    Begin();
    RecordBarriers(barriers);
}

void D12GraphicsCommandList::RecordBarriers(std::span<const D3D12_RESOURCE_BARRIER> barriers) {
    // A texture may change between two barriers, and what it holds is to stay while its table is
    // set: a draw of it afterwards sets the table anew.
    Forget(D12DrawState::kTable);
    for (const D3D12_RESOURCE_BARRIER& barrier : barriers) {
        switch (barrier.Type) {
        case D3D12_RESOURCE_BARRIER_TYPE_TRANSITION:
            Keep(barrier.Transition.pResource);
            break;
        case D3D12_RESOURCE_BARRIER_TYPE_ALIASING:
            Keep(barrier.Aliasing.pResourceBefore);
            Keep(barrier.Aliasing.pResourceAfter);
            break;
        case D3D12_RESOURCE_BARRIER_TYPE_UAV:
            Keep(barrier.UAV.pResource);
            break;
        }
    }
    m_graphicsList->ResourceBarrier(static_cast<UINT>(barriers.size()), barriers.data());
}

void D12GraphicsCommandList::CopyResource(const CComPtr<ID3D12Resource>& destination,
                                          const CComPtr<ID3D12Resource>& source) {
    Begin();
    ThrowUnless<DirectX12Exception>(destination != nullptr && source != nullptr,
                                    "Resource is null");
    Keep(destination.p);
    Keep(source.p);
    m_graphicsList->CopyResource(destination, source);
}

void D12GraphicsCommandList::CopyBufferRegion(const CComPtr<ID3D12Resource>& destination,
                                              std::uint64_t destinationOffset,
                                              const CComPtr<ID3D12Resource>& source,
                                              std::uint64_t sourceOffset, std::uint64_t size) {
    Begin();
    ThrowUnless<DirectX12Exception>(destination != nullptr && source != nullptr,
                                    "Resource is null");
    Keep(destination.p);
    Keep(source.p);
    m_graphicsList->CopyBufferRegion(destination, destinationOffset, source, sourceOffset, size);
}

void D12GraphicsCommandList::CopyTextureRegion(const D3D12_TEXTURE_COPY_LOCATION& destination,
                                               unsigned x, unsigned y, unsigned z,
                                               const D3D12_TEXTURE_COPY_LOCATION& source,
                                               const D3D12_BOX* sourceBox) {
    Begin();
    ThrowUnless<DirectX12Exception>(destination.pResource != nullptr && source.pResource != nullptr,
                                    "Resource is null");
    Keep(destination.pResource);
    Keep(source.pResource);
    m_graphicsList->CopyTextureRegion(&destination, x, y, z, &source, sourceBox);
}

void D12GraphicsCommandList::BeginQuery(const boost::intrusive_ptr<D12Query>& query) {
    Begin();
    ThrowUnless<DirectX12Exception>(query != nullptr, "Query is null");
    Keep(query.get());
    m_graphicsList->BeginQuery(query->GetHeap()->GetHeap(), query->GetType(), query->GetIndex());
}

void D12GraphicsCommandList::EndQuery(const boost::intrusive_ptr<D12Query>& query) {
    Begin();
    ThrowUnless<DirectX12Exception>(query != nullptr, "Query is null");
    Keep(query.get());
    ID3D12QueryHeap* const heap = query->GetHeap()->GetHeap();
    m_graphicsList->EndQuery(heap, query->GetType(), query->GetIndex());
    m_graphicsList->ResolveQueryData(heap, query->GetType(), query->GetIndex(), 1,
                                     query->GetResource(), query->GetOffset());
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
