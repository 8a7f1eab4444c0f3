#pragma once

// Recording and submission. A D12CommandAllocator is one unit of submission: lists recorded from
// it, waits before them, and all objects they use, kept alive until the GPU has finished. Execute
// submits once; a background thread then releases the objects. One thread records into an allocator
// at a time; Execute, WaitComplete and the background release exclude each other. Throws
// DirectX12Exception. Next: D3D12CommandList.h, D3D12CommandQueue.h.

#include <cstdint>
#include <mutex>
#include <source_location>
#include <utility>
#include <vector>

#include "Proc/DirectX/Manager/D3D12CommandList.h"

namespace Norvex::DX {

// A Direct3D 12 allocator with the event that says when the GPU has finished with it. Movable, kept
// idle by the device.
class NORVEX_DX_API D12AllocatorState {
public:
    // "Failed to create command allocator".
    D12AllocatorState(const CComPtr<ID3D12Device>& device, D3D12_COMMAND_LIST_TYPE type);
    D12AllocatorState(D12AllocatorState&&) noexcept = default;
    D12AllocatorState& operator=(D12AllocatorState&&) noexcept = default;
    ~D12AllocatorState() = default;

    ID3D12CommandAllocator* Get() const { return m_allocator; }
    const boost::intrusive_ptr<D12CompletionEvent>& GetCompletionEvent() const {
        return m_completionEvent;
    }

private:
    CComPtr<ID3D12CommandAllocator> m_allocator;
    boost::intrusive_ptr<D12CompletionEvent> m_completionEvent;
};

class NORVEX_DX_API D12CommandAllocator : public RefCountImpl {
public:
    // Takes an idle allocator of the queue's type. "Command allocator is busy".
    explicit D12CommandAllocator(const boost::intrusive_ptr<D12CommandQueue>& queue);
    // Blocks until the GPU has finished its last submission.
    ~D12CommandAllocator() override;
    D12CommandAllocator(const D12CommandAllocator&) = delete;
    D12CommandAllocator& operator=(const D12CommandAllocator&) = delete;

    const boost::intrusive_ptr<D12Device>& GetDevice() const { return m_device; }
    D3D12_COMMAND_LIST_TYPE GetType() const { return m_type; }
    // The GPU has finished the last submission (true before the first).
    bool IsCompleted() const { return m_state.GetCompletionEvent()->IsCompleted(); }

    // A new open list, queued; it is now the active one. The pipeline state may be null.
    boost::intrusive_ptr<D12GraphicsCommandList>
    CreateCommandList(const CComPtr<ID3D12PipelineState>& pipelineState);
    // "Command list already queued".
    void EnqueueCommandList(const boost::intrusive_ptr<D12CommandList>& list);
    // Keeps an object alive with the active list. "There is no active command list".
    void TrackObject(ID3D12DeviceChild* object);
    void TrackObject(const boost::intrusive_ptr<IRefCountable>& object);

    // The next submission waits on the GPU for the event's present target.
    void Wait(const boost::intrusive_ptr<D12CompletionEvent>& event);
    void Wait(const boost::intrusive_ptr<D12CommandAllocator>& other);

    // Submits the queued lists, which are closed, and signals completion. Blocks first while the
    // previous submission of this allocator runs. "There are no command lists to execute", "Found
    // command list that was not closed" (nothing is submitted then, lists and waits stay).
    void Execute();
    // Blocks until the GPU has finished, releases what was tracked, makes the allocator's memory
    // reusable.
    void WaitComplete();

    // Records one closed list: record(const boost::intrusive_ptr<D12GraphicsCommandList>&) is called
    // with the open list. When it or Close throws, the allocator is as it was before: lists and
    // waits that came meanwhile are gone, and the next recording finds everything usable. Whatever
    // can fail without a list (pipeline states, buffers) is better made before the call.
    template <class Record>
    void RecordList(const CComPtr<ID3D12PipelineState>& pipelineState, const Record& record) {
        const std::size_t lists = m_commandLists.size();
        const std::size_t waits = m_waits.size();
        const auto list = CreateCommandList(pipelineState);
        try {
            record(list);
            list->Close();
        } catch (...) {
            DiscardRecording(lists, waits);
            throw;
        }
    }

    // Each records one closed list; submit with Execute.
    void ResourceBarrier(const std::vector<D3D12_RESOURCE_BARRIER>& barriers);
    // No rectangles: the whole view. The resource is in the render-target state.
    void ClearRenderTargetView(const boost::intrusive_ptr<D12Descriptor>& target,
                               const Proc::ColorF& color, const std::vector<RECT>& rects);
    // From `state`, which is not the render-target state; leaves the resource in the render-target
    // state.
    void ClearRenderTargetView(const boost::intrusive_ptr<D12Descriptor>& target,
                               bitflags<D3D12_RESOURCE_STATES> state, const Proc::ColorF& color,
                               const std::vector<RECT>& rects);
    void UploadRegion(const D12UploadRegionParams& params);
    void UploadResource(const D12UploadResourceParams& params);

    // Blocks until the background threads have released what all finished submissions used, and
    // have ended. The next Execute starts them again. Not from a background release.
    static void WaitAllComplete();

private:
    friend class D12CommandQueue;

    struct FenceWait {
        CComPtr<ID3D12Fence> fence;
        std::uint64_t value;
    };

    // These expect m_lock to be held.
    void WaitAndClear();
    void SubmitWaits();
    void SubmitLists();

    // "There is no active command list", thrown for the operation that asks.
    D12CommandList&
    GetActiveList(const std::source_location& location = std::source_location::current()) const;
    // Keeps the first lists and waits, drops the later ones.
    void DiscardRecording(std::size_t lists, std::size_t waits) noexcept;

    D12AllocatorState m_state;
    boost::intrusive_ptr<D12Device> m_device;
    boost::intrusive_ptr<D12CommandQueue> m_queue;
    D3D12_COMMAND_LIST_TYPE m_type;
    std::mutex m_lock; // guards submission and clearing
    std::vector<FenceWait> m_waits;
    std::vector<boost::intrusive_ptr<D12CommandList>>
        m_commandLists; // the last one is the active list
    std::vector<CComPtr<ID3D12DeviceChild>> m_trackedComObjects;
    std::vector<boost::intrusive_ptr<IRefCountable>> m_trackedObjects;
};

} // namespace Norvex::DX
