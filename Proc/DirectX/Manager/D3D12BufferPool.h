#pragma once

// Pooled committed buffers of one heap type. Sizes are rounded up to powers of two; a buffer whose
// last reference dies goes back to the pool, stays reusable for 2 s and is then freed by a timer
// that runs every 2 s while there are free buffers. The pool lives as long as any of its buffers.
// Pools: any thread. A buffer: one thread at a time. Throws DirectX12Exception.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/BitFlags.h"
#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/LiveObject.h"
#include "Proc/DirectX/Manager/Statistics.h"

namespace Norvex::DX {

class D12Buffer;
class D12FreeList;

class NORVEX_DX_API D12BufferPool : public LiveObject {
public:
    // "DirectX 12 device is null".
    D12BufferPool(const CComPtr<ID3D12Device>& device, D3D12_HEAP_TYPE heapType);
    ~D12BufferPool() override;
    D12BufferPool(const D12BufferPool&) = delete;
    D12BufferPool& operator=(const D12BufferPool&) = delete;

    // A buffer of the smallest power of two strictly greater than size (256 gives 512): the last
    // one returned of that size, else a new one, in state common (default heap), generic read
    // (upload) or copy destination (readback). "Buffer size requested equal to zero", "Buffer size
    // requested is too large" (2^63 and above), "Invalid heap type", "Failed to create buffer".
    boost::intrusive_ptr<D12Buffer> CreateBuffer(std::uint64_t size);
    // Frees every free buffer and stops the timer.
    void Clear();
    // The heap type of its buffers.
    D3D12_HEAP_TYPE GetType() const { return m_heapType; }
    // Free buffers at this moment, and their bytes.
    std::pair<std::size_t, std::uint64_t> CountFree() const;
    // In use and idle, at this moment.
    PoolStatistics GetStatistics() const;

private:
    friend class D12Buffer;

    CComPtr<ID3D12Resource> CreateDimensionBuffer(std::uint64_t roundedSize);
    void ReuseBuffer(D12Buffer* buffer) noexcept;

    CComPtr<ID3D12Device> m_device;
    D3D12_HEAP_TYPE m_heapType;
    std::unique_ptr<D12FreeList> m_free;
};

class NORVEX_DX_API D12Buffer : public LiveObject {
public:
    // Another handle on the same resource, which returns to the pool when all handles are gone.
    D12Buffer(const D12Buffer& other);
    D12Buffer& operator=(const D12Buffer&) = delete;
    ~D12Buffer() override;

    // The raw resource, kept.
    const CComPtr<ID3D12Resource>& GetResource() const { return m_resource; }
    // The resource's.
    const D3D12_RESOURCE_DESC& GetDesc() const { return m_desc; }
    // The rounded size in bytes.
    std::uint64_t GetSize() const { return m_desc.Width; }

    // Maps, calls back with the start of the buffer (not offset by begin), unmaps. [begin, end) is
    // the byte range that the callback reads or writes. The GPU must be done with it. An empty
    // callback raises std::bad_function_call. "This buffer is not readable", "Failed to map
    // readback buffer".
    void Read(std::uint64_t begin, std::uint64_t end,
              const std::function<void(const std::uint8_t*)>& callback);
    // "This buffer is not writeable", "Failed to map upload buffer".
    void Write(std::uint64_t begin, std::uint64_t end,
               const std::function<void(std::uint8_t*)>& callback);

    // A transition of the whole buffer; borrows the resource.
    D3D12_RESOURCE_BARRIER Transition(bitflags<D3D12_RESOURCE_STATES> before,
                                      bitflags<D3D12_RESOURCE_STATES> after,
                                      D3D12_RESOURCE_BARRIER_FLAGS flags) const;

private:
    friend class D12BufferPool;

    D12Buffer(const CComPtr<ID3D12Resource>& resource,
              const boost::intrusive_ptr<D12BufferPool>& pool);

    CComPtr<ID3D12Resource> m_resource;
    D3D12_RESOURCE_DESC m_desc;
    boost::intrusive_ptr<D12BufferPool> m_pool;
    boost::intrusive_ptr<D12Buffer>
        m_original; // in a copy: the handle that will return the resource
};

} // namespace Norvex::DX
