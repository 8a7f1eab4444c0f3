#include "Proc/DirectX/Manager/D3D12BufferPool.h"

#include <bit>
#include <optional>

#include "Platform/D3D12Abi.h"
#include "Proc/DirectX/Manager/Annotation.h"
#include "Proc/DirectX/Manager/D3D12FreeList.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

// Empty for a heap type that has no pool.
std::optional<D3D12_RESOURCE_STATES> InitialStateOf(D3D12_HEAP_TYPE heapType) {
    switch (heapType) {
    case D3D12_HEAP_TYPE_DEFAULT:
        return D3D12_RESOURCE_STATE_COMMON;
    case D3D12_HEAP_TYPE_UPLOAD:
        return D3D12_RESOURCE_STATE_GENERIC_READ;
    case D3D12_HEAP_TYPE_READBACK:
        return D3D12_RESOURCE_STATE_COPY_DEST;
    default:
        return std::nullopt;
    }
}

// Undoes a Map, also when the callback throws or drops the buffer.
class MappedGuard {
public:
    MappedGuard(const CComPtr<ID3D12Resource>& resource, D3D12_RANGE written)
        : m_resource(resource),
          m_written(written) {}
    ~MappedGuard() { m_resource->Unmap(0, &m_written); }
    MappedGuard(const MappedGuard&) = delete;
    MappedGuard& operator=(const MappedGuard&) = delete;

private:
    CComPtr<ID3D12Resource> m_resource;
    D3D12_RANGE m_written;
};

constexpr D3D12_RANGE kNothing = {0, 0};

const char* NameOf(D3D12_HEAP_TYPE type) {
    return type == D3D12_HEAP_TYPE_UPLOAD     ? "upload buffer"
           : type == D3D12_HEAP_TYPE_READBACK ? "readback buffer"
                                              : "buffer";
}

} // namespace

D12BufferPool::D12BufferPool(const CComPtr<ID3D12Device>& device, D3D12_HEAP_TYPE heapType)
    : m_device(device),
      m_heapType(heapType),
      m_free(std::make_unique<D12FreeList>()) {
    ThrowUnless<DirectX12Exception>(device != nullptr, "DirectX 12 device is null");
}

D12BufferPool::~D12BufferPool() = default;

boost::intrusive_ptr<D12Buffer> D12BufferPool::CreateBuffer(std::uint64_t size) {
    ThrowUnless<DirectX12Exception>(size != 0, "Buffer size requested equal to zero");
    ThrowUnless<DirectX12Exception>(std::countl_zero(size) != 0,
                                    "Buffer size requested is too large");
    const std::uint64_t roundedSize = std::uint64_t{1} << std::bit_width(size);
    CComPtr<ID3D12Resource> resource = m_free->Take(roundedSize, D12FreeList::End::Newest);
    if (resource == nullptr) {
        resource = CreateDimensionBuffer(roundedSize);
    }
    boost::intrusive_ptr<D12Buffer> buffer(new D12Buffer(resource, this));
    m_free->CountLent(roundedSize);
    return buffer;
}

CComPtr<ID3D12Resource> D12BufferPool::CreateDimensionBuffer(std::uint64_t roundedSize) {
    const auto initialState = InitialStateOf(m_heapType);
    ThrowUnless<DirectX12Exception>(initialState.has_value(), "Invalid heap type");
    const CD3DX12_HEAP_PROPERTIES heap(m_heapType);
    const auto desc = CD3DX12_RESOURCE_DESC::Buffer(roundedSize);
    CComPtr<ID3D12Resource> resource;
    ThrowIfFailed<DirectX12Exception>(
        m_device->CreateCommittedResource(&heap, D3D12_HEAP_FLAG_NONE, &desc, *initialState,
                                          nullptr, IID_PPV_ARGS(&resource)),
        "Failed to create buffer", m_device);
    SetName(resource, NameOf(m_heapType), roundedSize);
    return resource;
}

void D12BufferPool::ReuseBuffer(D12Buffer* buffer) noexcept {
    m_free->Put(buffer->GetSize(), buffer->GetResource());
}

void D12BufferPool::Clear() {
    m_free->Clear();
}

std::pair<std::size_t, std::uint64_t> D12BufferPool::CountFree() const {
    const PoolStatistics statistics = GetStatistics();
    return {statistics.idle, statistics.bytesIdle};
}

PoolStatistics D12BufferPool::GetStatistics() const {
    return m_free->GetStatistics();
}

D12Buffer::D12Buffer(const CComPtr<ID3D12Resource>& resource,
                     const boost::intrusive_ptr<D12BufferPool>& pool)
    : m_resource(resource),
      m_desc(Platform::GetDesc(resource)),
      m_pool(pool) {}

D12Buffer::D12Buffer(const D12Buffer& other)
    : LiveObject(other),
      m_resource(other.m_resource),
      m_desc(other.m_desc),
      m_pool(other.m_pool),
      m_original(other.m_original ? other.m_original.get() : const_cast<D12Buffer*>(&other)) {}

D12Buffer::~D12Buffer() {
    if (m_original == nullptr) {
        m_pool->ReuseBuffer(this);
    }
}

void D12Buffer::Read(std::uint64_t begin, std::uint64_t end,
                     const std::function<void(const std::uint8_t*)>& callback) {
    ThrowUnless<DirectX12Exception>(m_pool->GetType() == D3D12_HEAP_TYPE_READBACK,
                                    "This buffer is not readable");
    const D3D12_RANGE range = {begin, end};
    void* data = nullptr;
    ThrowIfFailed<DirectX12Exception>(m_resource->Map(0, &range, &data),
                                      "Failed to map readback buffer", m_pool->m_device);
    const MappedGuard guard(m_resource, kNothing);
    callback(static_cast<const std::uint8_t*>(data));
}

void D12Buffer::Write(std::uint64_t begin, std::uint64_t end,
                      const std::function<void(std::uint8_t*)>& callback) {
    ThrowUnless<DirectX12Exception>(m_pool->GetType() == D3D12_HEAP_TYPE_UPLOAD,
                                    "This buffer is not writeable");
    void* data = nullptr;
    ThrowIfFailed<DirectX12Exception>(m_resource->Map(0, &kNothing, &data),
                                      "Failed to map upload buffer", m_pool->m_device);
    const MappedGuard guard(m_resource, {begin, end});
    callback(static_cast<std::uint8_t*>(data));
}

D3D12_RESOURCE_BARRIER D12Buffer::Transition(bitflags<D3D12_RESOURCE_STATES> before,
                                             bitflags<D3D12_RESOURCE_STATES> after,
                                             D3D12_RESOURCE_BARRIER_FLAGS flags) const {
    return CD3DX12_RESOURCE_BARRIER::Transition(m_resource, before.get(), after.get(),
                                                D3D12_RESOURCE_BARRIER_ALL_SUBRESOURCES, flags);
}

} // namespace Norvex::DX
