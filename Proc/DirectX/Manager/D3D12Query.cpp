#include "Proc/DirectX/Manager/D3D12Query.h"

#include <cstring>
#include <source_location>
#include <utility>

#include "Proc/DirectX/Manager/Annotation.h"
#include "Proc/DirectX/Manager/D3D12PooledHeaps.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

D3D12_QUERY_HEAP_TYPE
GetHeapTypeFromQueryType(D3D12_QUERY_TYPE type,
                         const std::source_location& location = std::source_location::current()) {
    switch (type) {
    case D3D12_QUERY_TYPE_OCCLUSION:
    case D3D12_QUERY_TYPE_BINARY_OCCLUSION:
        return D3D12_QUERY_HEAP_TYPE_OCCLUSION;
    case D3D12_QUERY_TYPE_TIMESTAMP:
        return D3D12_QUERY_HEAP_TYPE_TIMESTAMP;
    case D3D12_QUERY_TYPE_PIPELINE_STATISTICS:
        return D3D12_QUERY_HEAP_TYPE_PIPELINE_STATISTICS;
    case D3D12_QUERY_TYPE_SO_STATISTICS_STREAM0:
    case D3D12_QUERY_TYPE_SO_STATISTICS_STREAM1:
    case D3D12_QUERY_TYPE_SO_STATISTICS_STREAM2:
    case D3D12_QUERY_TYPE_SO_STATISTICS_STREAM3:
        return D3D12_QUERY_HEAP_TYPE_SO_STATISTICS;
    case D3D12_QUERY_TYPE_VIDEO_DECODE_STATISTICS:
        return D3D12_QUERY_HEAP_TYPE_VIDEO_DECODE_STATISTICS;
    case D3D12_QUERY_TYPE_PIPELINE_STATISTICS1:
        return D3D12_QUERY_HEAP_TYPE_PIPELINE_STATISTICS1;
    default:
        Throw<DirectX12Exception>("Invalid query type", location);
    }
}

std::uint32_t GetQuerySizeFromHeapType(D3D12_QUERY_HEAP_TYPE type) {
    switch (type) {
    case D3D12_QUERY_HEAP_TYPE_OCCLUSION:
    case D3D12_QUERY_HEAP_TYPE_TIMESTAMP:
        return sizeof(std::uint64_t);
    case D3D12_QUERY_HEAP_TYPE_PIPELINE_STATISTICS:
        return sizeof(D3D12_QUERY_DATA_PIPELINE_STATISTICS);
    case D3D12_QUERY_HEAP_TYPE_SO_STATISTICS:
        return sizeof(D3D12_QUERY_DATA_SO_STATISTICS);
    case D3D12_QUERY_HEAP_TYPE_VIDEO_DECODE_STATISTICS:
        return sizeof(D3D12_QUERY_DATA_VIDEO_DECODE_STATISTICS);
    case D3D12_QUERY_HEAP_TYPE_PIPELINE_STATISTICS1:
        return sizeof(D3D12_QUERY_DATA_PIPELINE_STATISTICS1);
    default:
        Throw<DirectX12Exception>("Invalid query heap type");
    }
}

void CheckType(bool isValid,
               const std::source_location& location = std::source_location::current()) {
    ThrowUnless<DirectX12Exception>(isValid, "Invalid query type", location);
}

} // namespace

D12Query::D12Query(D3D12_QUERY_TYPE type, std::uint32_t index,
                   boost::intrusive_ptr<D12QueryHeap> heap,
                   const CComPtr<ID3D12Resource>& readbackBuffer)
    : m_resource(readbackBuffer),
      m_type(type),
      m_index(index),
      m_heap(std::move(heap)),
      m_offset(m_heap->GetOffset(index)) {}

D12Query::~D12Query() {
    m_heap->ReuseQuery(m_index);
}

std::uint64_t D12Query::GetUint64Stats() const {
    CheckType(m_type < D3D12_QUERY_TYPE_PIPELINE_STATISTICS);
    std::uint64_t result = 0;
    GetResult(&result, sizeof(result));
    return result;
}

D3D12_QUERY_DATA_PIPELINE_STATISTICS D12Query::GetPipelineStats() const {
    CheckType(m_type == D3D12_QUERY_TYPE_PIPELINE_STATISTICS);
    D3D12_QUERY_DATA_PIPELINE_STATISTICS result = {};
    GetResult(&result, sizeof(result));
    return result;
}

D3D12_QUERY_DATA_PIPELINE_STATISTICS1 D12Query::GetPipelineStats1() const {
    CheckType(m_type == D3D12_QUERY_TYPE_PIPELINE_STATISTICS1);
    D3D12_QUERY_DATA_PIPELINE_STATISTICS1 result = {};
    GetResult(&result, sizeof(result));
    return result;
}

D3D12_QUERY_DATA_SO_STATISTICS D12Query::GetSoStats() const {
    CheckType(m_type >= D3D12_QUERY_TYPE_SO_STATISTICS_STREAM0 &&
              m_type <= D3D12_QUERY_TYPE_SO_STATISTICS_STREAM3);
    D3D12_QUERY_DATA_SO_STATISTICS result = {};
    GetResult(&result, sizeof(result));
    return result;
}

D3D12_QUERY_DATA_VIDEO_DECODE_STATISTICS D12Query::GetVideoDecodeStats() const {
    CheckType(m_type == D3D12_QUERY_TYPE_VIDEO_DECODE_STATISTICS);
    D3D12_QUERY_DATA_VIDEO_DECODE_STATISTICS result = {};
    GetResult(&result, sizeof(result));
    return result;
}

void D12Query::GetResult(void* out, std::size_t size) const {
    const std::uint32_t querySize = m_heap->GetQuerySize();
    ThrowUnless<DirectX12Exception>(size >= querySize, "The result buffer is too small");
    const D3D12_RANGE range = {m_offset, m_offset + querySize};
    void* data = nullptr;
    ThrowIfFailed<DirectX12Exception>(m_resource->Map(0, &range, &data),
                                      "Failed to map query buffer");
    std::memcpy(out, static_cast<const std::uint8_t*>(data) + m_offset, querySize);
    const D3D12_RANGE nothing = {0, 0};
    m_resource->Unmap(0, &nothing);
}

D3D12_RESOURCE_BARRIER D12Query::Transition(bitflags<D3D12_RESOURCE_STATES> before,
                                            bitflags<D3D12_RESOURCE_STATES> after) const {
    return CD3DX12_RESOURCE_BARRIER::Transition(m_resource, before.get(), after.get());
}

D12QueryHeap::D12QueryHeap(const CComPtr<ID3D12Device>& device, CComPtr<ID3D12QueryHeap> heap,
                           D3D12_QUERY_HEAP_TYPE type, std::uint32_t count,
                           boost::intrusive_ptr<D12QueryHeapPool> pool)
    : m_device(device),
      m_heap(std::move(heap)),
      m_type(type),
      m_count(count),
      m_querySize(GetQuerySizeFromHeapType(type)),
      m_pool(std::move(pool)),
      m_slots(std::make_unique<SlotBitmap>(count)) {
    const CD3DX12_HEAP_PROPERTIES properties(D3D12_HEAP_TYPE_READBACK);
    const auto desc = CD3DX12_RESOURCE_DESC::Buffer(std::uint64_t{m_count} * m_querySize);
    ThrowIfFailed<DirectX12Exception>(
        m_device->CreateCommittedResource(&properties, D3D12_HEAP_FLAG_NONE, &desc,
                                          D3D12_RESOURCE_STATE_COPY_DEST, nullptr,
                                          IID_PPV_ARGS(&m_readbackBuffer)),
        "Failed to create 2D texture", m_device);
    SetName(m_readbackBuffer, "query results");
}

D12QueryHeap::~D12QueryHeap() {
    if (m_pool != nullptr) {
        m_pool->ReuseHeap(*this);
    }
}

bool D12QueryHeap::HasFreeQuery() const {
    return m_slots->HasFree();
}

void D12QueryHeap::ReuseQuery(std::uint32_t index) {
    m_slots->Free(index);
}

boost::intrusive_ptr<D12Query> D12QueryHeap::CreateQuery(D3D12_QUERY_TYPE type) {
    ThrowUnless<DirectX12Exception>(GetHeapTypeFromQueryType(type) == m_type, "Invalid heap type");
    const auto index = m_slots->Allocate();
    ThrowUnless<DirectX12Exception>(index.has_value(),
                                    "There is no free space in the heap for the query");
    return m_slots->Fill(*index, [&] {
        return boost::intrusive_ptr<D12Query>(new D12Query(type, *index, this, m_readbackBuffer));
    });
}

std::uint64_t D12QueryHeap::GetOffset(unsigned index) const {
    ThrowUnless<DirectX12Exception>(index < m_count, "Query index out of range");
    return std::uint64_t{index} * m_querySize;
}

D12QueryHeapPool::D12QueryHeapPool(const CComPtr<ID3D12Device>& device)
    : m_device(device),
      m_heaps(std::make_unique<D12PooledHeaps<ID3D12QueryHeap, D12QueryHeap>>()) {
    ThrowUnless<DirectX12Exception>(device != nullptr, "DirectX 12 device is null");
}

D12QueryHeapPool::~D12QueryHeapPool() = default;

boost::intrusive_ptr<D12Query> D12QueryHeapPool::CreateQuery(D3D12_QUERY_TYPE type) {
    const D3D12_QUERY_HEAP_TYPE heapType = GetHeapTypeFromQueryType(type);
    return m_heaps->UseShared(
        heapType, this, [&] { return CreateHeap(heapType, m_heaps->kSharedCapacity, nullptr); },
        [type](D12QueryHeap& heap) { return heap.CreateQuery(type); });
}

boost::intrusive_ptr<D12QueryHeap> D12QueryHeapPool::CreateHeap(D3D12_QUERY_HEAP_TYPE type,
                                                                unsigned count) {
    return CreateHeap(type, count, this);
}

boost::intrusive_ptr<D12QueryHeap>
D12QueryHeapPool::CreateHeap(D3D12_QUERY_HEAP_TYPE type, unsigned count,
                             boost::intrusive_ptr<D12QueryHeapPool> pool) {
    if (count == 0) { // not every driver survives it
        ThrowResult<DirectX12Exception>(E_INVALIDARG, "Failed to create query heap", m_device);
    }
    auto heap = m_heaps->Take(type, count, [&](unsigned capacity) {
        count = capacity;
        const D3D12_QUERY_HEAP_DESC desc = {type, capacity, 0};
        CComPtr<ID3D12QueryHeap> made;
        ThrowIfFailed<DirectX12Exception>(m_device->CreateQueryHeap(&desc, IID_PPV_ARGS(&made)),
                                          "Failed to create query heap", m_device);
        SetName(made, "query heap");
        return made;
    });
    return m_heaps->Lend(new D12QueryHeap(m_device, std::move(heap), type, count, std::move(pool)));
}

void D12QueryHeapPool::ReuseHeap(const D12QueryHeap& heap) noexcept {
    m_heaps->Put(heap.GetType(), heap.GetCount(), heap.GetHeap());
}

std::size_t D12QueryHeapPool::CountFreeHeaps() const {
    return m_heaps->CountFree();
}

PoolStatistics D12QueryHeapPool::GetStatistics() const {
    return m_heaps->GetStatistics();
}

} // namespace Norvex::DX
