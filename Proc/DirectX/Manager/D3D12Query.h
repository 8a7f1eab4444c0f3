#pragma once

// GPU queries: occlusion, time stamps, statistics. A query is a slot of a heap, and its result's
// place in the heap's readback buffer. Ownership: query -> heap -> pool -> device. Record with
// D12GraphicsCommandList::BeginQuery and EndQuery, read when that submission has completed: the
// readers do not wait. Pool and heaps: any thread. A query: one thread at a time. Throws
// DirectX12Exception.

#include <cstddef>
#include <cstdint>
#include <memory>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/BitFlags.h"
#include "Platform/ComPtr.h"
#include "Platform/D3D12Video.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/LiveObject.h"
#include "Proc/DirectX/Manager/Statistics.h"

namespace Norvex::DX {

class D12QueryHeap;
class D12QueryHeapPool;
template <class Raw, class Heap>
class D12PooledHeaps;
class SlotBitmap;

class NORVEX_DX_API D12Query : public LiveObject {
public:
    D12Query(const D12Query&) = delete;
    D12Query& operator=(const D12Query&) = delete;
    // Frees the slot.
    ~D12Query() override;

    // The result of the last EndQuery. Each reader is for certain types of queries: "Invalid query
    // type". "Failed to map query buffer".
    // Occlusion: samples that passed; binary occlusion: 0 or not 0; time stamp: ticks, of the
    // frequency that ID3D12CommandQueue::GetTimestampFrequency tells.
    std::uint64_t GetUint64Stats() const;
    // Of a heap for pipeline statistics.
    D3D12_QUERY_DATA_PIPELINE_STATISTICS GetPipelineStats() const;
    // Of a heap for the longer form.
    D3D12_QUERY_DATA_PIPELINE_STATISTICS1 GetPipelineStats1() const;
    D3D12_QUERY_DATA_SO_STATISTICS GetSoStats() const; // any of the four streams
    // Of a heap for video decoding.
    D3D12_QUERY_DATA_VIDEO_DECODE_STATISTICS GetVideoDecodeStats() const;

    // What it lies in.
    const boost::intrusive_ptr<D12QueryHeap>& GetHeap() const { return m_heap; }
    // What is measured.
    D3D12_QUERY_TYPE GetType() const { return m_type; }
    // Its place there.
    std::uint32_t GetIndex() const { return m_index; }
    // Of the result in the readback buffer, bytes.
    std::uint64_t GetOffset() const { return m_offset; }
    // The readback buffer, in the copy-destination state.
    const CComPtr<ID3D12Resource>& GetResource() const { return m_resource; }
    // A transition of the readback buffer, which the barrier borrows.
    D3D12_RESOURCE_BARRIER Transition(bitflags<D3D12_RESOURCE_STATES> before,
                                      bitflags<D3D12_RESOURCE_STATES> after) const;

private:
    friend class D12QueryHeap;

    D12Query(D3D12_QUERY_TYPE type, std::uint32_t index, boost::intrusive_ptr<D12QueryHeap> heap,
             const CComPtr<ID3D12Resource>& readbackBuffer);

    // "The result buffer is too small".
    void GetResult(void* out, std::size_t size) const;

    CComPtr<ID3D12Resource> m_resource;
    D3D12_QUERY_TYPE m_type;
    std::uint32_t m_index;
    boost::intrusive_ptr<D12QueryHeap> m_heap;
    std::uint64_t m_offset;
};

class NORVEX_DX_API D12QueryHeap : public LiveObject {
public:
    D12QueryHeap(const D12QueryHeap&) = delete;
    D12QueryHeap& operator=(const D12QueryHeap&) = delete;
    // Gives the Direct3D heap back to the pool.
    ~D12QueryHeap() override;

    // The lowest free slot. "Invalid heap type" when the type is for other heaps, "Invalid query
    // type", "There is no free space in the heap for the query".
    boost::intrusive_ptr<D12Query> CreateQuery(D3D12_QUERY_TYPE type);
    // Whether a place is free at this moment.
    bool HasFreeQuery() const;
    // Of a slot's result in the readback buffer, bytes. "Query index out of range".
    std::uint64_t GetOffset(unsigned index) const;

    // What it lies in.
    const CComPtr<ID3D12QueryHeap>& GetHeap() const { return m_heap; }
    // What is measured.
    D3D12_QUERY_HEAP_TYPE GetType() const { return m_type; }
    std::uint32_t GetCount() const { return m_count; }         // slots
    std::uint32_t GetQuerySize() const { return m_querySize; } // bytes of one result

    // Called by a dying query.
    void ReuseQuery(std::uint32_t index);

private:
    friend class D12QueryHeapPool;
    template <class Raw, class Heap>
    friend class D12PooledHeaps;

    D12QueryHeap(const CComPtr<ID3D12Device>& device, CComPtr<ID3D12QueryHeap> heap,
                 D3D12_QUERY_HEAP_TYPE type, std::uint32_t count,
                 boost::intrusive_ptr<D12QueryHeapPool> pool);

    CComPtr<ID3D12Device> m_device;
    CComPtr<ID3D12QueryHeap> m_heap;
    D3D12_QUERY_HEAP_TYPE m_type;
    std::uint32_t m_count;
    std::uint32_t m_querySize;
    boost::intrusive_ptr<D12QueryHeapPool>
        m_pool; // null while the pool holds this as a shared heap
    CComPtr<ID3D12Resource> m_readbackBuffer;
    std::unique_ptr<SlotBitmap> m_slots;
};

class NORVEX_DX_API D12QueryHeapPool : public LiveObject {
public:
    // "DirectX 12 device is null".
    explicit D12QueryHeapPool(const CComPtr<ID3D12Device>& device);
    ~D12QueryHeapPool() override;
    D12QueryHeapPool(const D12QueryHeapPool&) = delete;
    D12QueryHeapPool& operator=(const D12QueryHeapPool&) = delete;

    // From the shared heap of the type, which is replaced when full. "Invalid query type", and what
    // CreateHeap throws.
    boost::intrusive_ptr<D12Query> CreateQuery(D3D12_QUERY_TYPE type);
    // A heap of the caller's own: of `count` slots where the Direct3D heap of a dead one is large
    // enough, else of the next multiple of 64. "Failed to create query heap" (a count of 0 too),
    // "Invalid query heap type", "Failed to create 2D texture" (the readback buffer).
    boost::intrusive_ptr<D12QueryHeap> CreateHeap(D3D12_QUERY_HEAP_TYPE type, unsigned count);
    // Direct3D heaps of dead wrappers that wait to be recycled, at this moment.
    std::size_t CountFreeHeaps() const;
    // In use and idle, at this moment.
    PoolStatistics GetStatistics() const;

private:
    friend class D12QueryHeap;

    // pool: the heap's owner, or null for a shared heap.
    boost::intrusive_ptr<D12QueryHeap> CreateHeap(D3D12_QUERY_HEAP_TYPE type, unsigned count,
                                                  boost::intrusive_ptr<D12QueryHeapPool> pool);
    void ReuseHeap(const D12QueryHeap& heap) noexcept;

    CComPtr<ID3D12Device> m_device;
    std::unique_ptr<D12PooledHeaps<ID3D12QueryHeap, D12QueryHeap>> m_heaps;
};

} // namespace Norvex::DX
