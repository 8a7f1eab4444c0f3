#pragma once

// Queues and completion: when GPU work is finished. A D12CompletionEvent is a fence with a growing
// target value; a D12CommandQueue submits, makes command allocators (D3D12Command.h) and copies
// between CPU memory and resources. Events: any thread. Queues: any thread, as Direct3D's. The
// queue's destructor waits for the GPU. Throws DirectX12Exception; what is null where an object is
// needed throws "... is null".

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <source_location>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Platform/Mutex.h"
#include "Proc/DirectX/Manager/D3D12BufferPool.h"
#include "Proc/DirectX/Manager/LiveObject.h"

namespace Norvex::DX {

class D12CommandAllocator;
class D12Device;
namespace Staging {
struct Subresources;
}

class NORVEX_DX_API D12CompletionEvent : public LiveObject {
public:
    // Born complete: target 0, fence 0. With D3D12_FENCE_FLAG_SHARED the fence gets an NT handle
    // that lives as long as this object. "Failed to create fence", "Failed to share d3d12 fence".
    D12CompletionEvent(const CComPtr<ID3D12Device>& device, D3D12_FENCE_FLAGS flags);
    ~D12CompletionEvent() override;
    D12CompletionEvent(const D12CompletionEvent&) = delete;
    D12CompletionEvent& operator=(const D12CompletionEvent&) = delete;

    // The raw fence, kept.
    const CComPtr<ID3D12Fence>& GetFence() const { return m_fence; }
    // Null unless shared; the event's, not to be closed.
    HANDLE GetSharedHandle() const { return m_sharedHandle; }
    // The current target.
    std::uint64_t GetValue() const { return m_value; }
    // Raises the target by one; returns the new target, which the caller has some queue signal. The
    // signals follow in the order of the values: a fence takes whatever value comes, and one that
    // goes back never wakes who waits. Threads that share an event call SignalNext.
    std::uint64_t PreIncrementValue();
    // Raises the target and has `signal` signal the new one, one caller at a time, so that signals
    // follow in order. When it fails the target stays what it was, so that nobody waits for a value
    // that nothing signals. Returns what `signal` returns: long signal(std::uint64_t value), which
    // leaves this event alone.
    template <class Signal>
    long SignalNext(const Signal& signal) {
        const std::lock_guard guard(m_signalLock);
        const std::uint64_t next = m_value + 1;
        const long result = signal(next);
        if (result >= 0) {
            m_value = next;
        }
        return result;
    }
    // The fence has reached the target.
    bool IsCompleted() const;
    // Blocks until it has reached the target of now; any number of threads at once. "Failed to set
    // event on completion".
    void WaitComplete();

private:
    friend class D12CommandAllocator;
    friend class D12CommandQueue;

    void WaitFor(std::uint64_t value, const std::source_location& location);
    // By an event of the system's.
    void WaitByEvent(std::uint64_t value, const std::source_location& location);

    std::atomic<HANDLE> m_idleEvent{nullptr}; // for the next wait by event
    Platform::Mutex m_signalLock;             // one raises the target at a time
    std::atomic<std::uint64_t> m_value{0};
    CComPtr<ID3D12Fence> m_fence;
    HANDLE m_sharedHandle = nullptr;
};

// CPU memory of one subresource; pitches in bytes, and never less than what a row or slice holds.
struct D12UploadSubresource {
    const std::uint8_t* data = nullptr; // what is copied
    std::uint64_t rowPitch = 0;         // bytes from row to row
    std::uint64_t slicePitch = 0;       // bytes from slice to slice
};

struct D12DownloadSubresource {
    std::uint8_t* data = nullptr; // what is copied
    std::uint64_t rowPitch = 0;   // bytes from row to row
    std::uint64_t slicePitch = 0; // bytes from slice to slice
};

// From CPU memory into a part of a buffer. `data` is read before the call returns.
struct D12UploadRegionParams {
    CComPtr<ID3D12Resource> destination;                                // a buffer
    D3D12_RESOURCE_STATES stateBefore = D3D12_RESOURCE_STATE_COPY_DEST; // when it begins
    D3D12_RESOURCE_STATES stateAfter = D3D12_RESOURCE_STATE_COPY_DEST;  // when it ends
    std::uint64_t destinationOffset = 0;                                // bytes
    const std::uint8_t* data = nullptr;                                 // what is copied
    std::uint64_t size = 0;                                             // bytes
    boost::intrusive_ptr<D12BufferPool>
        pool; // staging, when it is an upload pool; else the device's
};

// From a part of a buffer into CPU memory.
struct D12DownloadRegionParams {
    std::uint8_t* destination = nullptr;                                  // where it goes
    std::uint64_t size = 0;                                               // bytes
    CComPtr<ID3D12Resource> source;                                       // a buffer
    D3D12_RESOURCE_STATES stateBefore = D3D12_RESOURCE_STATE_COPY_SOURCE; // when it begins
    D3D12_RESOURCE_STATES stateAfter = D3D12_RESOURCE_STATE_COPY_SOURCE;  // when it ends
    std::uint64_t sourceOffset = 0;                                       // bytes
    boost::intrusive_ptr<D12BufferPool>
        pool; // staging, when it is a readback pool; else the device's
};

// From CPU memory into subresources of a texture, one record each in subresource order. Read before
// the call returns.
struct D12UploadResourceParams {
    CComPtr<ID3D12Resource> destination;                                // what is written
    D3D12_RESOURCE_STATES stateBefore = D3D12_RESOURCE_STATE_COPY_DEST; // when it begins
    D3D12_RESOURCE_STATES stateAfter = D3D12_RESOURCE_STATE_COPY_DEST;  // when it ends
    std::vector<D12UploadSubresource> subresources;                     // the first ones
    boost::intrusive_ptr<D12BufferPool>
        pool; // staging, when it is an upload pool; else the device's
    // The first of the subresources, which the states then are of alone. Without: the first of the
    // texture, and the states are those of all of it.
    std::optional<unsigned> firstSubresource = std::nullopt;
    // The part of each of them, in its own texels; the records have its rows alone. Edges in block
    // compressed formats are multiples of the block.
    std::optional<D3D12_BOX> box = std::nullopt;
};

// From subresources of a texture into CPU memory. The same as there.
struct D12DownloadResourceParams {
    CComPtr<ID3D12Resource> source;                                       // what is read
    D3D12_RESOURCE_STATES stateBefore = D3D12_RESOURCE_STATE_COPY_SOURCE; // when it begins
    D3D12_RESOURCE_STATES stateAfter = D3D12_RESOURCE_STATE_COPY_SOURCE;  // when it ends
    std::vector<D12DownloadSubresource> subresources;                     // the first ones
    boost::intrusive_ptr<D12BufferPool>
        pool; // staging, when it is a readback pool; else the device's
    // As of an upload.
    std::optional<unsigned> firstSubresource = std::nullopt;
    // As of an upload.
    std::optional<D3D12_BOX> box = std::nullopt;
};

class NORVEX_DX_API D12CommandQueue : public LiveObject {
public:
    // "Failed to create command queue", "DirectX 12 device is null".
    D12CommandQueue(const boost::intrusive_ptr<D12Device>& device,
                    const D3D12_COMMAND_QUEUE_DESC& desc);
    // Blocks until the queue is idle. Where that fails and the device is not removed, it is logged
    // and the Direct3D queue is never released: the GPU may be at work on it.
    ~D12CommandQueue() override;
    D12CommandQueue(const D12CommandQueue&) = delete;
    D12CommandQueue& operator=(const D12CommandQueue&) = delete;

    // The raw queue, borrowed.
    ID3D12CommandQueue* Get() const { return m_queue; }
    // What it was made on.
    const boost::intrusive_ptr<D12Device>& GetDevice() const { return m_device; }
    // Of its lists.
    D3D12_COMMAND_LIST_TYPE GetType() const { return m_type; }

    // A new allocator, idle.
    boost::intrusive_ptr<D12CommandAllocator> CreateCommandAllocator();
    // See DXGIFactory::CreateSwapChainForHwnd.
    CComPtr<IDXGISwapChain3> CreateSwapChainForHwnd(HWND window, const DXGI_SWAP_CHAIN_DESC1& desc);

    // Submit and return: wait on the allocator or drop it; what it uses lives until the GPU is
    // done. "Resource is null", "Destination resource is not a buffer", "Uploading data does not
    // fit in the destination" (an empty box or one beyond a subresource, too); "Invalid upload
    // data" without data, and for resources when a row pitch is smaller than the row; "Buffer size
    // requested equal to zero" without a subresource; "Subresource index out of range".
    boost::intrusive_ptr<D12CommandAllocator> UploadRegion(const D12UploadRegionParams& params);
    // Into a texture.
    boost::intrusive_ptr<D12CommandAllocator> UploadResource(const D12UploadResourceParams& params);
    // Block until the data are in CPU memory. "Resource is null", "Source resource is not a
    // buffer", "Downloading data does not fit in the source", "Invalid download data" as above.
    void DownloadRegion(const D12DownloadRegionParams& params);
    // From a texture.
    void DownloadResource(const D12DownloadResourceParams& params);

    // Raises the event's target by one and has the GPU signal it after what was submitted before,
    // one caller at a time, so that the values follow in order. Where that fails ("Failed to signal
    // fence") the target stays.
    void Signal(const boost::intrusive_ptr<D12CompletionEvent>& event);
    // What is submitted from now on waits on the GPU for the event's present target; of another
    // queue, or of the host. A target that nothing ever signals holds the queue back for ever, and
    // its destructor. "Failed to wait for fence". The queue keeps the events of both until the GPU
    // is done with them.
    void Wait(const boost::intrusive_ptr<D12CompletionEvent>& event);

    // Blocks until everything submitted before is done. Any number of threads at once. "Failed to
    // signal fence" (a removed device, as a rule), "Failed to set event on completion".
    void WaitComplete();

private:
    // copy(D12GraphicsCommandList&) records what goes from params.source into the staging buffer.
    template <class Params, class Copy>
    void CopyToStaging(const Params& params, const Staging::Subresources& states,
                       D12Buffer& staging, const Copy& copy);

    // An event that the GPU reaches at a value.
    struct UsedEvent {
        boost::intrusive_ptr<D12CompletionEvent> event;
        std::uint64_t value = 0;
    };
    // Calls use(); keeps the event until the GPU has reached what it answers. One at a time.
    template <class Use>
    void UseEvent(const boost::intrusive_ptr<D12CompletionEvent>& event, const Use& use);

    boost::intrusive_ptr<D12Device> m_device;
    CComPtr<ID3D12CommandQueue> m_queue;
    D3D12_COMMAND_LIST_TYPE m_type;
    boost::intrusive_ptr<D12CompletionEvent> m_completionEvent;
    Platform::Mutex m_usedEventsLock;
    std::vector<UsedEvent> m_usedEvents; // by Signal and Wait
};

} // namespace Norvex::DX
