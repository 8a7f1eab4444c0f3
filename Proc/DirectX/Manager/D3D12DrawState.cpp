#include "Proc/DirectX/Manager/D3D12DrawState.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

D12DrawState& D12DrawState::Of(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                               const std::source_location& location) {
    ThrowUnless<DirectX12Exception>(list != nullptr, "There is no command list", location);
    ThrowUnless<DirectX12Exception>(!list->IsClosed(), "The command list is closed", location);
    if (list->m_drawState == nullptr) {
        list->m_drawState = std::make_unique<D12DrawState>(*list);
    }
    return *list->m_drawState;
}

D12DrawState::~D12DrawState() {
    Unmap();
}

void D12DrawState::Unmap() {
    if (m_mapped != nullptr) {
        m_constants->GetResource()->Unmap(0, nullptr);
        m_mapped = nullptr;
    }
}

D3D12_GPU_VIRTUAL_ADDRESS D12DrawState::AddConstants(const void* data, std::size_t size) {
    constexpr std::size_t kAlignment = D3D12_CONSTANT_BUFFER_DATA_PLACEMENT_ALIGNMENT;
    const std::size_t room = (size + kAlignment - 1) / kAlignment * kAlignment;
    if (m_mapped == nullptr || m_usedBytes + room > kChunkInBytes) {
        // The pool rounds up from the next larger number.
        auto constants = m_list.GetDevice()->CreateUploadBuffer(kChunkInBytes - 1);
        m_list.Keep(constants.get());
        void* mapped = nullptr;
        const D3D12_RANGE nothing = {};
        ThrowIfFailed<DirectX12Exception>(constants->GetResource()->Map(0, &nothing, &mapped),
                                          "Failed to map upload buffer", m_list.GetDevice()->Get());
        Unmap();
        m_constants = std::move(constants);
        m_mapped = static_cast<std::uint8_t*>(mapped);
        m_address = m_constants->GetResource()->GetGPUVirtualAddress();
        m_usedBytes = 0;
    }
    std::memcpy(m_mapped + m_usedBytes, data, size);
    const D3D12_GPU_VIRTUAL_ADDRESS address = m_address + m_usedBytes;
    m_usedBytes += room;
    return address;
}

void D12DrawState::ReserveViews(std::size_t count) {
    if (m_views == nullptr || m_usedViews + count > kViewsInHeap) {
        auto views = m_list.GetDevice()->CreateViewHeap(kViewsInHeap);
        m_list.Keep(views.get());
        m_views = std::move(views);
        m_usedViews = 0;
        m_lastView = nullptr;
    }
}

D3D12_GPU_DESCRIPTOR_HANDLE D12DrawState::AddViews(Views views) {
    ReserveViews(views.size());
    const unsigned first = m_usedViews;
    for (const auto& view : views) {
        m_list.Keep(view.get());
        m_list.GetDevice()->Get()->CopyDescriptorsSimple(1, m_views->GetCPUHandle(m_usedViews),
                                                         view->GetCPUHandle(),
                                                         D3D12_DESCRIPTOR_HEAP_TYPE_CBV_SRV_UAV);
        ++m_usedViews;
        m_lastView = view.get();
    }
    return m_views->GetGPUHandle(first);
}

D3D12_GPU_DESCRIPTOR_HANDLE
D12DrawState::AddView(const boost::intrusive_ptr<D12Descriptor>& view) {
    return view.get() != m_lastView ? AddViews({&view, 1}) : m_views->GetGPUHandle(m_usedViews - 1);
}

void D12DrawState::SetPipelineState(ID3D12PipelineState* pipelineState) {
    Set(kPipelineState, m_pipelineState, pipelineState, [&] {
        m_list.Keep(pipelineState);
        m_list.m_graphicsList->SetPipelineState(pipelineState);
    });
}

void D12DrawState::SetRootSignature(ID3D12RootSignature* rootSignature) {
    Set(kRootSignature, m_rootSignature, rootSignature, [&] {
        m_list.Keep(rootSignature);
        m_list.m_graphicsList->SetGraphicsRootSignature(rootSignature);
        Forget(kTable);
    });
}

void D12DrawState::SetConstants(unsigned rootIndex, D3D12_GPU_VIRTUAL_ADDRESS constants) {
    m_list.m_graphicsList->SetGraphicsRootConstantBufferView(rootIndex, constants);
}

void D12DrawState::SetTable(unsigned rootIndex, D3D12_GPU_DESCRIPTOR_HANDLE table) {
    ID3D12DescriptorHeap* const heap = m_views->GetHeap();
    Set(kHeaps, m_heap, heap, [&] {
        m_list.m_graphicsList->SetDescriptorHeaps(1, &heap);
        Forget(kTable);
    });
    Set(kTable, m_table, {rootIndex, table.ptr},
        [&] { m_list.m_graphicsList->SetGraphicsRootDescriptorTable(rootIndex, table); });
}

void D12DrawState::SetTargets(Targets targets) {
    decltype(m_targets) wanted = {};
    std::ranges::transform(targets, wanted.begin(),
                           [](const auto& target) { return target.get(); });
    Set(kTargets, m_targets, wanted, [&] { m_list.SetTargets(targets, nullptr); });
}

void D12DrawState::SetViewport(const D3D12_VIEWPORT& viewport, const Size2DT<long>& target) {
    Set(kViewport, m_viewport, viewport,
        [&] { m_list.m_graphicsList->RSSetViewports(1, &viewport); });
    Set(kScissor, m_scissor, target, [&] {
        const RECT whole = {0, 0, target.width, target.height};
        m_list.m_graphicsList->RSSetScissorRects(1, &whole);
    });
}

void D12DrawState::SetQuad(const boost::intrusive_ptr<D12VertexBuffer>& quad) {
    const D12VertexBuffer* const buffer = quad.get();
    Set(kVertexBuffer, m_quad, buffer, [&] {
        m_list.Keep(quad.get());
        m_list.m_graphicsList->IASetVertexBuffers(0, 1, &quad->GetView());
    });
    constexpr D3D_PRIMITIVE_TOPOLOGY kStrip = D3D_PRIMITIVE_TOPOLOGY_TRIANGLESTRIP;
    Set(kTopology, m_topology, kStrip,
        [&] { m_list.m_graphicsList->IASetPrimitiveTopology(kStrip); });
}

void D12DrawState::Transition(ID3D12Resource* resource, D3D12_RESOURCE_STATES before,
                              D3D12_RESOURCE_STATES after) {
    const D3D12_RESOURCE_BARRIER barrier =
        CD3DX12_RESOURCE_BARRIER::Transition(resource, before, after);
    m_list.RecordBarriers({&barrier, 1});
}

} // namespace Norvex::DX
