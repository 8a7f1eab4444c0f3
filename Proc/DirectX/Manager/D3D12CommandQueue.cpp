#include "Proc/DirectX/Manager/D3D12CommandQueue.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "Platform/D3D12Abi.h"
#include "Proc/DirectX/Manager/Annotation.h"
#include "Proc/DirectX/Manager/D3D12BufferPool.h"
#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12Staging.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

D12CompletionEvent::D12CompletionEvent(const CComPtr<ID3D12Device>& device,
                                       D3D12_FENCE_FLAGS flags) {
    ThrowUnless<DirectX12Exception>(device != nullptr, "DirectX 12 device is null");
    ThrowIfFailed<DirectX12Exception>(device->CreateFence(0, flags, IID_PPV_ARGS(&m_fence)),
                                      "Failed to create fence", device);
    SetName(m_fence, "completion fence");
    if ((flags & D3D12_FENCE_FLAG_SHARED) != 0) {
        ThrowIfFailed<DirectX12Exception>(
            device->CreateSharedHandle(m_fence, nullptr, GENERIC_ALL, nullptr, &m_sharedHandle),
            "Failed to share d3d12 fence", device);
    }
}

D12CompletionEvent::~D12CompletionEvent() {
    for (HANDLE handle : {m_sharedHandle, m_idleEvent.load()}) {
        if (handle != nullptr) {
            CloseHandle(handle);
        }
    }
}

std::uint64_t D12CompletionEvent::PreIncrementValue() {
    const std::lock_guard guard(m_signalLock);
    return ++m_value;
}

bool D12CompletionEvent::IsCompleted() const {
    return m_value <= m_fence->GetCompletedValue();
}

void D12CompletionEvent::WaitComplete() {
    WaitFor(m_value, std::source_location::current());
}

void D12CompletionEvent::WaitFor(std::uint64_t value, const std::source_location& location) {
    if (m_fence->GetCompletedValue() >= value) {
        return;
    }
    // A null event makes the call itself block, which is the shortest way.
    ThrowIfFailed<DirectX12Exception>(m_fence->SetEventOnCompletion(value, nullptr),
                                      "Failed to set event on completion", {}, location);
    // Some systems block only the first of several threads that wait for the same value.
    while (m_fence->GetCompletedValue() < value) {
        WaitByEvent(value, location);
    }
}

void D12CompletionEvent::WaitByEvent(std::uint64_t value, const std::source_location& location) {
    HANDLE event = m_idleEvent.exchange(nullptr);
    if (event == nullptr) {
        event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    }
    const long result =
        event != nullptr ? m_fence->SetEventOnCompletion(value, event) : E_OUTOFMEMORY;
    if (SUCCEEDED(result)) {
        WaitForSingleObject(event, INFINITE);
    }
    event = m_idleEvent.exchange(event);
    if (event != nullptr) {
        CloseHandle(event);
    }
    ThrowIfFailed<DirectX12Exception>(result, "Failed to set event on completion", {}, location);
}

D12CommandQueue::D12CommandQueue(const boost::intrusive_ptr<D12Device>& device,
                                 const D3D12_COMMAND_QUEUE_DESC& desc)
    : m_device(device),
      m_type(desc.Type) {
    ThrowUnless<DirectX12Exception>(device != nullptr, "DirectX 12 device is null");
    ThrowIfFailed<DirectX12Exception>(
        m_device->Get()->CreateCommandQueue(&desc, IID_PPV_ARGS(&m_queue)),
        "Failed to create command queue", m_device->Get());
    SetName(m_queue, m_type, "queue");
    m_completionEvent = m_device->CreateCompletionEvent(D3D12_FENCE_FLAG_NONE);
}

D12CommandQueue::~D12CommandQueue() {
    try {
        WaitComplete();
    } catch (...) {
        LogCurrentException("A command queue was released without waiting for the GPU");
        if (m_device->GetDeviceRemovedReason() == S_OK) {
            m_queue.Detach();
            m_completionEvent.detach();
            for (UsedEvent& used : m_usedEvents) {
                used.event.detach();
            }
        }
    }
}

boost::intrusive_ptr<D12CommandAllocator> D12CommandQueue::CreateCommandAllocator() {
    return boost::intrusive_ptr<D12CommandAllocator>(
        new D12CommandAllocator(boost::intrusive_ptr<D12CommandQueue>(this)));
}

CComPtr<IDXGISwapChain3>
D12CommandQueue::CreateSwapChainForHwnd(HWND window, const DXGI_SWAP_CHAIN_DESC1& desc) {
    return DXGIFactory::Create()->CreateSwapChainForHwnd(CComPtr<ID3D12Device>(m_device->Get()),
                                                         m_queue, window, desc);
}

boost::intrusive_ptr<D12CommandAllocator>
D12CommandQueue::UploadRegion(const D12UploadRegionParams& params) {
    auto allocator = CreateCommandAllocator();
    allocator->UploadRegion(params);
    allocator->Execute();
    return allocator;
}

boost::intrusive_ptr<D12CommandAllocator>
D12CommandQueue::UploadResource(const D12UploadResourceParams& params) {
    auto allocator = CreateCommandAllocator();
    allocator->UploadResource(params);
    allocator->Execute();
    return allocator;
}

void D12CommandQueue::DownloadRegion(const D12DownloadRegionParams& params) {
    ThrowUnless<DirectX12Exception>(params.source != nullptr, "Resource is null");
    const D3D12_RESOURCE_DESC desc = Platform::GetDesc(params.source);
    ThrowUnless<DirectX12Exception>(desc.Dimension == D3D12_RESOURCE_DIMENSION_BUFFER,
                                    "Source resource is not a buffer");
    ThrowUnless<DirectX12Exception>(params.size <= desc.Width &&
                                        params.sourceOffset <= desc.Width - params.size,
                                    "Downloading data does not fit in the source");
    ThrowUnless<DirectX12Exception>(params.destination != nullptr || params.size == 0,
                                    "Invalid download data");
    const auto staging = Staging::GetReadbackBuffer(*m_device, params.pool, params.size);
    const Staging::Subresources whole;
    CopyToStaging(params, whole, *staging, [&](D12GraphicsCommandList& list) {
        list.CopyBufferRegion(staging->GetResource(), 0, params.source, params.sourceOffset,
                              params.size);
    });
    staging->Read(0, params.size, [&params](const std::uint8_t* data) {
        std::memcpy(params.destination, data, params.size);
    });
}

void D12CommandQueue::DownloadResource(const D12DownloadResourceParams& params) {
    ThrowUnless<DirectX12Exception>(params.source != nullptr, "Resource is null");
    const Staging::Layout layout(*m_device, params.source, params,
                                 "Downloading data does not fit in the source");
    layout.Check(params.subresources, "Invalid download data");
    const auto staging = Staging::GetReadbackBuffer(*m_device, params.pool, layout.GetSize());
    CopyToStaging(params, layout.GetStates(), *staging, [&](D12GraphicsCommandList& list) {
        for (unsigned i = 0; i < layout.GetCount(); ++i) {
            list.CopyTextureRegion(layout.InBuffer(staging->GetResource(), i), 0, 0, 0,
                                   layout.InTexture(params.source, i),
                                   params.box ? &*params.box : nullptr);
        }
    });
    staging->Read(0, layout.GetSize(),
                  [&](const std::uint8_t* data) { layout.CopyOut(data, params.subresources); });
}

template <class Params, class Copy>
void D12CommandQueue::CopyToStaging(const Params& params, const Staging::Subresources& states,
                                    D12Buffer& staging, const Copy& copy) {
    const auto allocator = CreateCommandAllocator();
    allocator->RecordList(nullptr, [&](const boost::intrusive_ptr<D12GraphicsCommandList>& list) {
        // Whatever fails from here on: the buffer does not return to its pool under the copy.
        list->TrackObject(boost::intrusive_ptr<IRefCountable>(&staging));
        list->RecordTransition(params.source, states, params.stateBefore,
                               D3D12_RESOURCE_STATE_COPY_SOURCE);
        copy(*list);
        list->RecordTransition(params.source, states, D3D12_RESOURCE_STATE_COPY_SOURCE,
                               params.stateAfter);
    });
    // Nobody else is to release what this thread waits for.
    allocator->Execute(D12CommandAllocator::Release::ByCaller);
    allocator->WaitComplete();
}

template <class Use>
void D12CommandQueue::UseEvent(const boost::intrusive_ptr<D12CompletionEvent>& event,
                               const Use& use) {
    std::vector<UsedEvent> finished; // go after the lock
    const std::lock_guard guard(m_usedEventsLock);
    const auto done = std::ranges::partition(m_usedEvents, [](const UsedEvent& used) {
        return used.event->GetFence()->GetCompletedValue() < used.value;
    });
    finished.reserve(done.size());
    std::ranges::move(done, std::back_inserter(finished));
    m_usedEvents.erase(done.begin(), done.end());
    UsedEvent& used = m_usedEvents.emplace_back(event); // what needs memory comes first
    used.value = use();
}

void D12CommandQueue::Signal(const boost::intrusive_ptr<D12CompletionEvent>& event) {
    ThrowUnless<DirectX12Exception>(event != nullptr, "Completion event is null");
    long result = S_OK;
    UseEvent(event, [&] {
        std::uint64_t signalled = 0;
        result = event->SignalNext([&](std::uint64_t value) {
            signalled = value;
            return m_queue->Signal(event->GetFence(), value);
        });
        return SUCCEEDED(result) ? signalled : 0;
    });
    ThrowIfFailed<DirectX12Exception>(result, "Failed to signal fence", m_device->Get());
}

void D12CommandQueue::Wait(const boost::intrusive_ptr<D12CompletionEvent>& event) {
    ThrowUnless<DirectX12Exception>(event != nullptr, "Completion event is null");
    long result = S_OK;
    UseEvent(event, [&] {
        const std::uint64_t value = event->GetValue();
        result = m_queue->Wait(event->GetFence(), value);
        return SUCCEEDED(result) ? value : 0;
    });
    ThrowIfFailed<DirectX12Exception>(result, "Failed to wait for fence", m_device->Get());
}

void D12CommandQueue::WaitComplete() {
    std::uint64_t signalled = 0;
    const long result = m_completionEvent->SignalNext([&](std::uint64_t value) {
        signalled = value;
        return m_queue->Signal(m_completionEvent->GetFence(), value);
    });
    ThrowIfFailed<DirectX12Exception>(result, "Failed to signal fence", m_device->Get());
    m_completionEvent->WaitFor(signalled, std::source_location::current());
}

} // namespace Norvex::DX
