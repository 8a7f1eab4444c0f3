#pragma once

// Recording and submission. A D12CommandAllocator is one unit of submission: lists recorded from
// it, waits before them, and all objects they use, kept alive until the GPU has finished. Execute
// submits; a background thread then releases the objects. One thread records and executes at a
// time, any may wait. Throws DirectX12Exception; what is null where an object is needed throws
// "... is null". Next: D3D12CommandList.h, D3D12CommandQueue.h.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <source_location>
#include <utility>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/BitFlags.h"
#include "Host/Color.h"
#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Platform/Mutex.h"
#include "Proc/DirectX/Manager/D3D12CommandList.h"
#include "Proc/DirectX/Manager/LiveObject.h"

namespace Norvex::DX {

// A Direct3D 12 allocator with the event that says when the GPU has finished with it. Movable, kept
// idle by the device.
class NORVEX_DX_API D12AllocatorState {
public:
    // Empty vectors, which keep their memory for the next user.
    struct Room {
        std::vector<boost::intrusive_ptr<D12CommandList>> lists; // queued for the next submission
        std::vector<ID3D12CommandList*> submitted;               // what the queue is given
        std::vector<D12TrackedObjects> inUse;                    // by the GPU
    };

    // "Failed to create command allocator".
    D12AllocatorState(const CComPtr<ID3D12Device>& device, D3D12_COMMAND_LIST_TYPE type);
    D12AllocatorState(D12AllocatorState&&) noexcept = default;
    D12AllocatorState& operator=(D12AllocatorState&&) noexcept = default;
    ~D12AllocatorState() = default;

    // The raw allocator, borrowed.
    ID3D12CommandAllocator* Get() const { return m_allocator; }
    // Its fence and target.
    const boost::intrusive_ptr<D12CompletionEvent>& GetCompletionEvent() const {
        return m_completionEvent;
    }

    // The other's Direct3D allocator, to record on while the GPU reads this one's.
    void SwapMemory(D12AllocatorState& other) noexcept {
        std::swap(m_allocator, other.m_allocator);
    }
    // Never releases them: nothing tells when the GPU has finished.
    void Abandon() noexcept;

    // To be taken and given back.
    Room& GetRoom() { return m_room; }

private:
    Room m_room;
    CComPtr<ID3D12CommandAllocator> m_allocator;
    boost::intrusive_ptr<D12CompletionEvent> m_completionEvent;
};

// Queued lists and waits belong to the next Execute. Until it has taken them nothing touches the
// memory that the lists were recorded in: WaitComplete between recording and Execute is harmless.
// What a submission uses is kept until its fence says that the GPU has finished; where no fence can
// say so any more, until the device is removed.
class NORVEX_DX_API D12CommandAllocator : public LiveObject {
public:
    // Takes an idle allocator of the queue's type. "Command queue is null", "Command allocator is
    // busy".
    explicit D12CommandAllocator(const boost::intrusive_ptr<D12CommandQueue>& queue);
    // Blocks until the GPU has finished its last submission. What was not submitted is dropped; a
    // list that the host still holds stays valid to record, close and drop. Where the wait fails
    // and the device is not removed, it is logged and what the submission uses is never released.
    ~D12CommandAllocator() override;
    D12CommandAllocator(const D12CommandAllocator&) = delete;
    D12CommandAllocator& operator=(const D12CommandAllocator&) = delete;

    // The queue's.
    const boost::intrusive_ptr<D12Device>& GetDevice() const { return m_device; }
    // The queue's.
    D3D12_COMMAND_LIST_TYPE GetType() const { return m_type; }
    // The GPU has finished the last submission (true before the first, and on a removed device).
    bool IsCompleted() const;

    // A new open list, queued; it is now the active one. The pipeline state may be null. While a
    // list made here is open there is no other: "Found command list that was not closed". The first
    // list after an Execute goes to memory that the GPU has read, so that an allocator may serve
    // frame after frame and its memory stays that of two.
    boost::intrusive_ptr<D12GraphicsCommandList>
    CreateCommandList(const CComPtr<ID3D12PipelineState>& pipelineState);
    // Queues a list of this type made elsewhere; it is submitted once. Another allocator's list:
    // that one is left alone until this one has finished. "Command list is null", "Command list
    // already queued".
    void EnqueueCommandList(const boost::intrusive_ptr<D12CommandList>& list);
    // Keeps an object alive with the active list. "There is no active command list".
    void TrackObject(ID3D12DeviceChild* object);
    void TrackObject(const boost::intrusive_ptr<IRefCountable>& object);

    // The next submission waits on the GPU for the event's present target. "Completion event is
    // null".
    void Wait(const boost::intrusive_ptr<D12CompletionEvent>& event);
    // For the other's last submission: execute it first. What it has recorded since, or never
    // submitted, is not waited for. "Command allocator is null", "Failed to signal fence".
    void Wait(const boost::intrusive_ptr<D12CommandAllocator>& other);

    // Submits the queued lists, which are closed, and signals completion. Blocks first while the
    // previous submission of this allocator runs. "There are no command lists to execute", "Found
    // command list that was not closed", "Failed to set event on completion", "Failed to wait for
    // fence": nothing is submitted, lists and waits stay. "Failed to signal fence",
    // std::system_error (no thread for the background): submitted; the next wait signals and waits
    // for it.
    void Execute();
    // Blocks until the GPU has finished and what the submission used is released, here or by the
    // background thread that came first; those objects' destructors may use this allocator. The
    // caller holds no lock that they take. "Failed to signal fence" (a removed device, as a rule),
    // "Failed to set event on completion": nothing is released.
    void WaitComplete();

    // Records one closed list: record(const boost::intrusive_ptr<D12GraphicsCommandList>&) is
    // called with the open list. When it or Close throws, the allocator is as it was before: lists
    // and waits that came meanwhile are gone, and the next recording finds everything usable.
    // Whatever can fail without a list (pipeline states, buffers) is better made before the call.
    // The function may drop the allocator.
    template <class Record>
    void RecordList(const CComPtr<ID3D12PipelineState>& pipelineState, const Record& record) {
        const boost::intrusive_ptr<D12CommandAllocator> keep(this);
        const std::size_t lists = m_commandLists.size();
        const std::size_t waits = m_waits.size();
        const auto list = CreateCommandList(pipelineState);
        try {
            record(list);
            list->Close();
        } catch (...) {
            DiscardRecording(*list, lists, waits);
            throw;
        }
    }

    // Each records one closed list, or throws and records nothing; submit with Execute.
    void ResourceBarrier(const std::vector<D3D12_RESOURCE_BARRIER>& barriers);
    // No rectangles: the whole view. The resource is in the render-target state.
    void ClearRenderTargetView(const boost::intrusive_ptr<D12Descriptor>& target,
                               const Proc::ColorF& color, const std::vector<RECT>& rects);
    // From `state`, which is not the render-target state; leaves the resource in the render-target
    // state.
    void ClearRenderTargetView(const boost::intrusive_ptr<D12Descriptor>& target,
                               bitflags<D3D12_RESOURCE_STATES> state, const Proc::ColorF& color,
                               const std::vector<RECT>& rects);
    // Into a buffer; what is wrong: D12CommandQueue.
    void UploadRegion(const D12UploadRegionParams& params);
    // Into a texture; what is wrong: D12CommandQueue.
    void UploadResource(const D12UploadResourceParams& params);
    // For time stamps: when the GPU comes here, after what was recorded before. (Other queries are
    // of one list: RecordList.) "Query is null", "Invalid query type".
    void EndQuery(const boost::intrusive_ptr<D12Query>& query);

    // Blocks until the background threads have released what all finished submissions used, and
    // have ended. The next Execute starts them again. Not from a background release.
    static void WaitAllComplete();

private:
    friend class D12CommandQueue;

    struct FenceWait {
        CComPtr<ID3D12Fence> fence;
        std::uint64_t value;
    };
    using Location = std::source_location;

    // ByCaller: by the WaitComplete that follows.
    enum class Release { InBackground, ByCaller };
    void Execute(Release release);
    // These expect m_lock to be held.
    std::vector<D12TrackedObjects> WaitAndTake(const Location& location);
    // Nothing where it has been taken already; the memory stays then.
    std::vector<D12TrackedObjects> TakeUsed();
    void Submit(const Location& location);
    void SignalIfDue(const Location& location);

    // The state has been recorded on, the GPU has read it, and no queued list is in it.
    void RecycleMemory();
    void ReturnToDevice(D12AllocatorState& state) noexcept;
    void Abandon() noexcept;
    bool HasOpenList() const;
    // "There is no active command list", thrown for the operation that asks.
    D12CommandList& GetActiveList(const Location& location = Location::current()) const;
    // Drops the list, and all but the first queued lists and waits.
    void DiscardRecording(D12GraphicsCommandList& list, std::size_t lists,
                          std::size_t waits) noexcept;

    D12AllocatorState m_state;
    // Takes turns with m_state's, when recording begins while the GPU reads that one.
    std::optional<D12AllocatorState> m_otherState;
    bool m_isMemoryUsed = false;      // of m_state, since its last reset
    bool m_isMemorySubmitted = false; // since then
    boost::intrusive_ptr<D12Device> m_device;
    boost::intrusive_ptr<D12CommandQueue> m_queue;
    D3D12_COMMAND_LIST_TYPE m_type;
    // Guards submission and release: whoever has waited for the GPU and had it finds released what
    // the GPU used, and relies on that, as a swap chain does that resizes its buffers. Recursive,
    // since the destructors may use this allocator.
    Platform::RecursiveMutex m_lock;
    // The queue has work of this allocator that no signal follows.
    std::atomic<bool> m_isSignalDue{false};
    std::vector<FenceWait> m_waits;
    // The last one is the active list.
    std::vector<boost::intrusive_ptr<D12CommandList>> m_commandLists =
        std::move(m_state.GetRoom().lists);
    std::vector<D12TrackedObjects> m_inUse =
        std::move(m_state.GetRoom().inUse); // by the last submission
};

} // namespace Norvex::DX
