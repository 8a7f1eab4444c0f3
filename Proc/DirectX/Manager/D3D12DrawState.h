#pragma once

// What an open command list knows for the drawers that share it, internal: the state that it has,
// so that only what differs is recorded, and memory for constants and views, filled linearly. Owned
// by its list, which outlives it. One thread at a time. Throws DirectX12Exception; adding constants
// and views records nothing, setting throws nothing but std::bad_alloc, before it records.

#include <array>
#include <cstddef>
#include <cstdint>
#include <source_location>
#include <span>
#include <utility>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Platform/ComPtr.h"
#include "Proc/DirectX/Manager/Annotation.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "Proc/DirectX/Manager/D3D12BufferPool.h"
#include "Proc/DirectX/Manager/D3D12CommandList.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"

namespace Norvex::DX {

class D12DrawState {
public:
    // Of a list that is open, for a drawer's operation at `location`: "There is no command list",
    // "The command list is closed".
    static D12DrawState& Of(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                            const std::source_location& location);
    explicit D12DrawState(D12GraphicsCommandList& list) : m_list(list) {}
    ~D12DrawState();
    D12DrawState(const D12DrawState&) = delete;
    D12DrawState& operator=(const D12DrawState&) = delete;

    D12GraphicsCommandList& GetList() const { return m_list; }
    // An event that debuggers show, while what is answered lives. A literal.
    [[nodiscard]] D12DrawEvent BeginEvent(const char* name) const {
        return {m_list.m_graphicsList, name};
    }

    // At most kChunkInBytes of constants. "Failed to map upload buffer", and what
    // D12Device::CreateUploadBuffer throws.
    D3D12_GPU_VIRTUAL_ADDRESS AddConstants(const void* data, std::size_t size);
    using Views = std::span<const boost::intrusive_ptr<D12Descriptor>>;
    // A table of this one view. What D12DescriptorHeapPool::CreateGPUHeap throws.
    D3D12_GPU_DESCRIPTOR_HANDLE AddView(const boost::intrusive_ptr<D12Descriptor>& view);
    // A table of these, at most kViewsInHeap. The same errors.
    D3D12_GPU_DESCRIPTOR_HANDLE AddViews(Views views);
    // The next `count` views will lie in one heap, as all tables of one draw or of several in a row
    // must: the newest heap is the one that is set. The same errors.
    void ReserveViews(std::size_t count);

    using Targets = std::span<const boost::intrusive_ptr<D12Descriptor>>;
    void SetPipelineState(ID3D12PipelineState* pipelineState);
    // With the heap of the views.
    void SetRootSignature(ID3D12RootSignature* rootSignature);
    void SetConstants(unsigned rootIndex, D3D12_GPU_VIRTUAL_ADDRESS constants);
    void SetTable(unsigned rootIndex, D3D12_GPU_DESCRIPTOR_HANDLE table);
    void SetTargets(Targets targets);
    // The scissor rectangle is the whole target.
    void SetViewport(const D3D12_VIEWPORT& viewport, const Size2DT<long>& target);
    void SetQuad(const boost::intrusive_ptr<D12VertexBuffer>& quad);
    // All subresources.
    void Transition(ID3D12Resource* resource, D3D12_RESOURCE_STATES before,
                    D3D12_RESOURCE_STATES after);

    // The host has set it on the list, or may have.
    enum Item : unsigned {
        kPipelineState = 1,
        kRootSignature = 2,
        kHeaps = 4,
        kTable = 8,
        kTargets = 16,
        kViewport = 32,
        kScissor = 64,
        kVertexBuffer = 128,
        kTopology = 256,
        kAll = 511,
    };
    void Forget(unsigned items) { m_known &= ~items; }

private:
    static constexpr std::size_t kChunkInBytes = 65536;
    static constexpr unsigned kViewsInHeap = 256;

    // Calls record() where the list has something else than `wanted`.
    template <class Value, class Record>
    void Set(Item item, Value& kept, const Value& wanted, const Record& record) {
        const bool isKnown = (m_known & item) != 0;
        if (isKnown && kept == wanted) {
            return;
        }
        Forget(item); // should it throw
        record();
        kept = wanted;
        m_known |= item;
    }
    void Unmap();

    D12GraphicsCommandList& m_list;

    // Kept alive with the list, like everything that is remembered here by address.
    boost::intrusive_ptr<D12Buffer> m_constants;
    std::uint8_t* m_mapped = nullptr;
    D3D12_GPU_VIRTUAL_ADDRESS m_address = 0;
    std::size_t m_usedBytes = 0;
    boost::intrusive_ptr<D12DescriptorGPUHeap> m_views;
    unsigned m_usedViews = 0;
    const D12Descriptor* m_lastView = nullptr;

    unsigned m_known = 0;
    ID3D12PipelineState* m_pipelineState = nullptr;
    ID3D12RootSignature* m_rootSignature = nullptr;
    ID3D12DescriptorHeap* m_heap = nullptr;
    std::pair<unsigned, std::uint64_t> m_table; // root index and place
    std::array<const D12Descriptor*, D3D12_SIMULTANEOUS_RENDER_TARGET_COUNT> m_targets = {};
    D3D12_VIEWPORT m_viewport = {};
    Size2DT<long> m_scissor;
    const D12VertexBuffer* m_quad = nullptr;
    D3D_PRIMITIVE_TOPOLOGY m_topology = D3D_PRIMITIVE_TOPOLOGY_UNDEFINED;
};

} // namespace Norvex::DX
