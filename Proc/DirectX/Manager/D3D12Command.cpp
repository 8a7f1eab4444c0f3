#include "Proc/DirectX/Manager/D3D12Command.h"

#include <algorithm>

#include "Proc/DirectX/Manager/Annotation.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12Query.h"
#include "Proc/DirectX/Manager/DispatchThreads.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

D12AllocatorState::D12AllocatorState(const CComPtr<ID3D12Device>& device,
                                     D3D12_COMMAND_LIST_TYPE type) {
    ThrowIfFailed<DirectX12Exception>(
        device->CreateCommandAllocator(type, IID_PPV_ARGS(&m_allocator)),
        "Failed to create command allocator", device);
    SetName(m_allocator, type, "command allocator");
    m_completionEvent.reset(new D12CompletionEvent(device, D3D12_FENCE_FLAG_NONE));
}

void D12AllocatorState::Abandon() noexcept {
    m_allocator.Detach();
    m_completionEvent.detach();
}

namespace {

boost::intrusive_ptr<D12CommandQueue> Checked(const boost::intrusive_ptr<D12CommandQueue>& queue,
                                              const std::source_location& location) {
    ThrowUnless<DirectX12Exception>(queue != nullptr, "Command queue is null", location);
    return queue;
}

} // namespace

D12CommandAllocator::D12CommandAllocator(const boost::intrusive_ptr<D12CommandQueue>& queue)
    : m_state(Checked(queue, Location::current())
                  ->GetDevice()
                  ->CreateCommandAllocator(queue->GetType())),
      m_device(queue->GetDevice()),
      m_queue(queue),
      m_type(queue->GetType()) {
    ThrowUnless<DirectX12Exception>(IsCompleted(), "Command allocator is busy");
    ++m_device->m_allocatorsInUse;
}

D12CommandAllocator::~D12CommandAllocator() {
    --m_device->m_allocatorsInUse;
    try {
        WaitComplete();
    } catch (...) {
        LogCurrentException("A command allocator was released without waiting for the GPU");
        if (m_device->GetDeviceRemovedReason() == S_OK) {
            Abandon();
        }
        return;
    }
    // The host may still record a list that it holds, or have queued it elsewhere.
    const bool isMemoryFree = std::ranges::all_of(
        m_commandLists, [](const auto& list) { return list->GetRefCount() == 1; });
    m_commandLists.clear();
    if (isMemoryFree) {
        m_state.GetRoom().lists = std::move(m_commandLists);
        m_state.GetRoom().inUse = std::move(m_inUse);
        ReturnToDevice(m_state);
    }
    if (m_otherState) {
        ReturnToDevice(*m_otherState);
    }
}

void D12CommandAllocator::ReturnToDevice(D12AllocatorState& state) noexcept {
    try {
        if (SUCCEEDED(state.Get()->Reset())) {
            m_device->ReuseCommandAllocator(m_type, std::move(state));
        }
    } catch (...) {
        return; // no memory to keep it: the next user makes one
    }
}

void D12CommandAllocator::Abandon() noexcept {
    for (D12TrackedObjects& objects : m_inUse) {
        objects.Abandon();
    }
    m_state.Abandon();
    if (m_otherState) {
        m_otherState->Abandon();
    }
}

bool D12CommandAllocator::IsCompleted() const {
    return m_state.GetCompletionEvent()->IsCompleted() &&
           (!m_isSignalDue || m_device->GetDeviceRemovedReason() != S_OK);
}

void D12CommandAllocator::RecycleMemory() {
    // Memory that was taken after the last submission is not the GPU's, nor is the other one free.
    if (m_isMemorySubmitted && !IsCompleted()) {
        // Of the submission before, which the last Execute has waited for.
        if (!m_otherState) {
            m_otherState.emplace(m_device->CreateCommandAllocator(m_type));
        }
        m_state.SwapMemory(*m_otherState);
    }
    m_isMemorySubmitted = false;
    // After a failure it only grows; the next one tries again.
    m_isMemoryUsed = FAILED(m_state.Get()->Reset());
}

bool D12CommandAllocator::HasOpenList() const {
    // Of those made here only the last can be open.
    const auto last =
        std::find_if(m_commandLists.rbegin(), m_commandLists.rend(),
                     [this](const auto& list) { return list->m_allocator == m_state.Get(); });
    return last != m_commandLists.rend() && !(*last)->IsClosed();
}

boost::intrusive_ptr<D12GraphicsCommandList>
D12CommandAllocator::CreateCommandList(const CComPtr<ID3D12PipelineState>& pipelineState) {
    ThrowUnless<DirectX12Exception>(!HasOpenList(), "Found command list that was not closed");
    if (m_isMemoryUsed && m_commandLists.empty()) {
        RecycleMemory();
    }
    m_isMemoryUsed = true;
    const CComPtr<ID3D12CommandAllocator> allocator(m_state.Get());
    const auto list = m_device->CreateCommandList(m_type, allocator, pipelineState);
    boost::intrusive_ptr<D12GraphicsCommandList> wrapper(
        new D12GraphicsCommandList(m_device, list, allocator));
    wrapper->TrackObject(pipelineState.p);
    m_commandLists.push_back(wrapper);
    return wrapper;
}

void D12CommandAllocator::EnqueueCommandList(const boost::intrusive_ptr<D12CommandList>& list) {
    ThrowUnless<DirectX12Exception>(list != nullptr, "Command list is null");
    ThrowUnless<DirectX12Exception>(std::ranges::find(m_commandLists, list) == m_commandLists.end(),
                                    "Command list already queued");
    m_commandLists.push_back(list);
}

D12CommandList& D12CommandAllocator::GetActiveList(const Location& location) const {
    ThrowUnless<DirectX12Exception>(!m_commandLists.empty(), "There is no active command list",
                                    location);
    return *m_commandLists.back();
}

void D12CommandAllocator::TrackObject(ID3D12DeviceChild* object) {
    GetActiveList().TrackObject(object);
}

void D12CommandAllocator::TrackObject(const boost::intrusive_ptr<IRefCountable>& object) {
    GetActiveList().TrackObject(object);
}

void D12CommandAllocator::Wait(const boost::intrusive_ptr<D12CompletionEvent>& event) {
    ThrowUnless<DirectX12Exception>(event != nullptr, "Completion event is null");
    m_waits.push_back({event->GetFence(), event->GetValue()});
}

void D12CommandAllocator::Wait(const boost::intrusive_ptr<D12CommandAllocator>& other) {
    ThrowUnless<DirectX12Exception>(other != nullptr, "Command allocator is null");
    if (other->m_isSignalDue) {
        const std::lock_guard guard(other->m_lock);
        other->SignalIfDue(Location::current());
    }
    Wait(other->m_state.GetCompletionEvent());
}

void D12CommandAllocator::Execute() {
    Execute(Release::InBackground);
}

void D12CommandAllocator::Execute(Release release) {
    {
        const std::lock_guard guard(m_lock);
        ThrowUnless<DirectX12Exception>(!m_commandLists.empty(),
                                        "There are no command lists to execute");
        ThrowUnless<DirectX12Exception>(
            std::ranges::all_of(m_commandLists, &D12CommandList::IsClosed),
            "Found command list that was not closed");
        const auto finished = WaitAndTake(Location::current());
        Submit(Location::current());
    }
    if (release == Release::InBackground) {
        QueueDispatchTask(boost::intrusive_ptr<IRefCountable>(this),
                          [this](IRefCountable&) { WaitComplete(); });
    }
}

void D12CommandAllocator::Submit(const Location& location) {
    // What needs memory comes first: what the queue has been given cannot be taken back.
    auto& lists = m_state.GetRoom().submitted;
    lists.clear();
    lists.reserve(m_commandLists.size());
    m_inUse.reserve(m_commandLists.size() + 1);
    D12TrackedObjects& others = m_inUse.emplace_back();
    for (const FenceWait& wait : m_waits) {
        others.Add(wait.fence.p);
    }
    for (const auto& list : m_commandLists) {
        lists.push_back(list->Get());
        if (list->m_allocator != m_state.Get()) {
            others.Add(list.get()); // its memory is another's
        }
    }

    for (const FenceWait& wait : m_waits) {
        ThrowIfFailed<DirectX12Exception>(m_queue->Get()->Wait(wait.fence, wait.value),
                                          "Failed to wait for fence", m_device->Get(), location);
        m_isSignalDue = true;
    }
    m_waits.clear();
    for (const auto& list : m_commandLists) {
        m_inUse.push_back(std::exchange(list->m_tracked, {}));
    }
    m_isSignalDue = true;
    m_isMemorySubmitted = true;
    m_queue->Get()->ExecuteCommandLists(static_cast<UINT>(lists.size()), lists.data());
    m_commandLists.clear();
    SignalIfDue(location);
}

void D12CommandAllocator::SignalIfDue(const Location& location) {
    if (!m_isSignalDue) {
        return;
    }
    const auto& event = m_state.GetCompletionEvent();
    const long result = event->SignalNext(
        [&](std::uint64_t value) { return m_queue->Get()->Signal(event->GetFence(), value); });
    ThrowIfFailed<DirectX12Exception>(result, "Failed to signal fence", m_device->Get(), location);
    m_isSignalDue = false;
}

std::vector<D12TrackedObjects> D12CommandAllocator::WaitAndTake(const Location& location) {
    SignalIfDue(location);
    m_state.GetCompletionEvent()->WaitComplete();
    return TakeUsed();
}

void D12CommandAllocator::WaitComplete() {
    if (m_isSignalDue) {
        const std::lock_guard guard(m_lock);
        SignalIfDue(Location::current());
    }
    // Without the lock, so that the GPU wakes each of those who wait, not one the other.
    D12CompletionEvent& event = *m_state.GetCompletionEvent();
    event.WaitFor(event.GetValue(), Location::current());
    const std::lock_guard guard(m_lock);
    if (!IsCompleted()) {
        return; // a later Execute has released it, and what is in use is of that submission
    }
    auto finished = TakeUsed();
    finished.clear();                       // the destructors may use this allocator, and submit
    constexpr std::size_t kMostKept = 1024; // a burst is no reason to keep its memory
    if (m_inUse.capacity() == 0 && finished.capacity() <= kMostKept) {
        m_inUse = std::move(finished);
    }
}

std::vector<D12TrackedObjects> D12CommandAllocator::TakeUsed() {
    return m_inUse.empty() ? std::vector<D12TrackedObjects>() : std::exchange(m_inUse, {});
}

void D12CommandAllocator::DiscardRecording(D12GraphicsCommandList& list, std::size_t lists,
                                           std::size_t waits) noexcept {
    list.GiveUp(); // whoever else holds it
    m_commandLists.erase(m_commandLists.begin() + static_cast<std::ptrdiff_t>(lists),
                         m_commandLists.end());
    m_waits.erase(m_waits.begin() + static_cast<std::ptrdiff_t>(waits), m_waits.end());
}

void D12CommandAllocator::ResourceBarrier(const std::vector<D3D12_RESOURCE_BARRIER>& barriers) {
    RecordList(nullptr, [&](const auto& list) { list->ResourceBarrier(barriers); });
}

void D12CommandAllocator::ClearRenderTargetView(const boost::intrusive_ptr<D12Descriptor>& target,
                                                const Proc::ColorF& color,
                                                const std::vector<RECT>& rects) {
    RecordList(nullptr,
               [&](const auto& list) { list->ClearRenderTargetView(target, color, rects); });
}

void D12CommandAllocator::ClearRenderTargetView(const boost::intrusive_ptr<D12Descriptor>& target,
                                                bitflags<D3D12_RESOURCE_STATES> state,
                                                const Proc::ColorF& color,
                                                const std::vector<RECT>& rects) {
    RecordList(nullptr, [&](const auto& list) {
        list->ResourceBarrier({target->Transition(state, D3D12_RESOURCE_STATE_RENDER_TARGET,
                                                  D3D12_RESOURCE_BARRIER_ALL_SUBRESOURCES,
                                                  D3D12_RESOURCE_BARRIER_FLAG_NONE)});
        list->ClearRenderTargetView(target, color, rects);
    });
}

void D12CommandAllocator::UploadRegion(const D12UploadRegionParams& params) {
    RecordList(nullptr, [&](const auto& list) { list->UploadRegion(params); });
}

void D12CommandAllocator::UploadResource(const D12UploadResourceParams& params) {
    RecordList(nullptr, [&](const auto& list) { list->UploadResource(params); });
}

void D12CommandAllocator::EndQuery(const boost::intrusive_ptr<D12Query>& query) {
    ThrowUnless<DirectX12Exception>(
        query == nullptr || query->GetType() == D3D12_QUERY_TYPE_TIMESTAMP, "Invalid query type");
    RecordList(nullptr, [&](const auto& list) { list->EndQuery(query); });
}

void D12CommandAllocator::WaitAllComplete() {
    DrainDispatchThreads();
}

} // namespace Norvex::DX
