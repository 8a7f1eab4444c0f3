#include "Proc/DirectX/Manager/D3D12Command.h"

#include <algorithm>
#include <iterator>

#include <glog/logging.h>

#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/DispatchThreads.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

D12AllocatorState::D12AllocatorState(const CComPtr<ID3D12Device>& device,
                                     D3D12_COMMAND_LIST_TYPE type) {
    ThrowIfFailed<DirectX12Exception>(
        device->CreateCommandAllocator(type, __uuidof(ID3D12CommandAllocator),
                                       reinterpret_cast<void**>(&m_allocator)),
        "Failed to create command allocator", device);
    m_completionEvent.reset(new D12CompletionEvent(device, D3D12_FENCE_FLAG_NONE));
}

D12CommandAllocator::D12CommandAllocator(const boost::intrusive_ptr<D12CommandQueue>& queue)
    : m_state(queue->GetDevice()->CreateCommandAllocator(queue->GetType())),
      m_device(queue->GetDevice()),
      m_queue(queue),
      m_type(queue->GetType()) {
    ThrowUnless<DirectX12Exception>(IsCompleted(), "Command allocator is busy");
}

D12CommandAllocator::~D12CommandAllocator() {
    const std::lock_guard guard(m_lock);
    try {
        WaitAndClear();
        m_waits.clear();
        // Before the reset: it fails while a list of the allocator is open.
        m_commandLists.clear();
        if (SUCCEEDED(m_state.Get()->Reset())) {
            m_device->ReuseCommandAllocator(m_type, std::move(m_state));
        }
    } catch (const DirectXException& e) {
        LOG(ERROR) << "A command allocator was released without waiting for the GPU: "
                   << e.GetErrorDescription() << ". " << e.GetResultDescription();
    }
}

boost::intrusive_ptr<D12GraphicsCommandList>
D12CommandAllocator::CreateCommandList(const CComPtr<ID3D12PipelineState>& pipelineState) {
    const auto list = m_device->CreateCommandList(
        m_type, CComPtr<ID3D12CommandAllocator>(m_state.Get()), pipelineState);
    boost::intrusive_ptr<D12GraphicsCommandList> wrapper(
        new D12GraphicsCommandList(m_device, list));
    m_commandLists.push_back(wrapper);
    wrapper->TrackObject(pipelineState.p);
    return wrapper;
}

void D12CommandAllocator::EnqueueCommandList(const boost::intrusive_ptr<D12CommandList>& list) {
    ThrowUnless<DirectX12Exception>(std::ranges::find(m_commandLists, list) == m_commandLists.end(),
                                    "Command list already queued");
    m_commandLists.push_back(list);
}

D12CommandList& D12CommandAllocator::GetActiveList(const std::source_location& location) const {
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
    m_waits.push_back({event->GetFence(), event->GetValue()});
}

void D12CommandAllocator::Wait(const boost::intrusive_ptr<D12CommandAllocator>& other) {
    Wait(other->m_state.GetCompletionEvent());
}

void D12CommandAllocator::Execute() {
    ThrowUnless<DirectX12Exception>(!m_commandLists.empty(),
                                    "There are no command lists to execute");
    {
        const std::lock_guard guard(m_lock);
        WaitAndClear();
        ThrowUnless<DirectX12Exception>(
            std::ranges::all_of(m_commandLists, &D12CommandList::IsClosed),
            "Found command list that was not closed");
        SubmitWaits();
        SubmitLists();
    }
    QueueDispatchTask(boost::intrusive_ptr<IRefCountable>(this), [this](IRefCountable&) {
        const std::lock_guard guard(m_lock);
        WaitAndClear();
    });
}

void D12CommandAllocator::SubmitWaits() {
    for (FenceWait& wait : m_waits) {
        m_queue->Get()->Wait(wait.fence, wait.value);
        m_trackedComObjects.emplace_back(wait.fence.p);
    }
    m_waits.clear();
}

void D12CommandAllocator::SubmitLists() {
    std::vector<ID3D12CommandList*> lists;
    lists.reserve(m_commandLists.size());
    for (const auto& list : m_commandLists) {
        lists.push_back(list->Get());
        std::ranges::move(list->m_trackedComObjects, std::back_inserter(m_trackedComObjects));
        std::ranges::move(list->m_trackedObjects, std::back_inserter(m_trackedObjects));
        list->m_trackedComObjects.clear();
        list->m_trackedObjects.clear();
    }
    m_queue->Get()->ExecuteCommandLists(static_cast<UINT>(lists.size()), lists.data());
    const auto& event = m_state.GetCompletionEvent();
    // Not checked: on a removed device the fence counts as reached.
    m_queue->Get()->Signal(event->GetFence(), event->PreIncrementValue());
    m_commandLists.clear();
}

void D12CommandAllocator::WaitAndClear() {
    m_state.GetCompletionEvent()->WaitComplete();
    m_trackedObjects.clear();
    m_trackedComObjects.clear();
}

void D12CommandAllocator::WaitComplete() {
    const std::lock_guard guard(m_lock);
    WaitAndClear();
    m_state.Get()->Reset();
}

void D12CommandAllocator::DiscardRecording(std::size_t lists, std::size_t waits) noexcept {
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

void D12CommandAllocator::WaitAllComplete() {
    DrainDispatchThreads();
}

} // namespace Norvex::DX
