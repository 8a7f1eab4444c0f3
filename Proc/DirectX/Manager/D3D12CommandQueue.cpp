#include "Proc/DirectX/Manager/D3D12CommandQueue.h"

#include <cstring>

#include <glog/logging.h>

#include "Platform/D3D12Abi.h"
#include "Proc/DirectX/Manager/D3D12BufferPool.h"
#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12Staging.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

D12CompletionEvent::D12CompletionEvent(const CComPtr<ID3D12Device>& device,
                                       D3D12_FENCE_FLAGS flags) {
    ThrowIfFailed<DirectX12Exception>(
        device->CreateFence(0, flags, __uuidof(ID3D12Fence), reinterpret_cast<void**>(&m_fence)),
        "Failed to create fence", device);
    if ((flags & D3D12_FENCE_FLAG_SHARED) != 0) {
        ThrowIfFailed<DirectX12Exception>(
            device->CreateSharedHandle(m_fence, nullptr, GENERIC_ALL, nullptr, &m_sharedHandle),
            "Failed to share d3d12 fence", device);
    }
}

D12CompletionEvent::~D12CompletionEvent() {
    if (m_sharedHandle != nullptr) {
        CloseHandle(m_sharedHandle);
    }
}

bool D12CompletionEvent::IsCompleted() const {
    return m_value <= m_fence->GetCompletedValue();
}

void D12CompletionEvent::WaitComplete() {
    const std::uint64_t target = m_value;
    if (m_fence->GetCompletedValue() < target) {
        // A null event makes the call itself block.
        ThrowIfFailed<DirectX12Exception>(m_fence->SetEventOnCompletion(target, nullptr),
                                          "Failed to set event on completion");
    }
}

D12CommandQueue::D12CommandQueue(const boost::intrusive_ptr<D12Device>& device,
                                 const D3D12_COMMAND_QUEUE_DESC& desc)
    : m_device(device),
      m_type(desc.Type) {
    ThrowIfFailed<DirectX12Exception>(
        m_device->Get()->CreateCommandQueue(&desc, __uuidof(ID3D12CommandQueue),
                                            reinterpret_cast<void**>(&m_queue)),
        "Failed to create command queue", m_device->Get());
    m_completionEvent = m_device->CreateCompletionEvent(D3D12_FENCE_FLAG_NONE);
}

D12CommandQueue::~D12CommandQueue() {
    try {
        WaitComplete();
    } catch (const DirectXException& e) {
        LOG(ERROR) << "A command queue was released without waiting for the GPU: "
                   << e.GetErrorDescription() << ". " << e.GetResultDescription();
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
    const D3D12_RESOURCE_DESC desc = Platform::GetDesc(params.source);
    ThrowUnless<DirectX12Exception>(desc.Dimension == D3D12_RESOURCE_DIMENSION_BUFFER,
                                    "Source resource is not a buffer");
    ThrowUnless<DirectX12Exception>(params.size <= desc.Width &&
                                        params.sourceOffset <= desc.Width - params.size,
                                    "Downloading data does not fit in the source");
    const auto staging = Staging::GetReadbackBuffer(*m_device, params.pool, params.size);
    {
        const auto allocator = CreateCommandAllocator();
        const auto list = allocator->CreateCommandList(nullptr);
        list->RecordTransition(params.source, params.stateBefore, D3D12_RESOURCE_STATE_COPY_SOURCE);
        list->CopyBufferRegion(staging->GetResource(), 0, params.source, params.sourceOffset,
                               params.size);
        list->RecordTransition(params.source, D3D12_RESOURCE_STATE_COPY_SOURCE, params.stateAfter);
        list->Close();
        allocator->Execute();
        allocator->WaitComplete();
    }
    staging->Read(0, params.size, [&params](const std::uint8_t* data) {
        std::memcpy(params.destination, data, params.size);
    });
}

void D12CommandQueue::DownloadResource(const D12DownloadResourceParams& params) {
    const Staging::Layout layout(*m_device, params.source, params.subresources.size());
    layout.Check(params.subresources, "Invalid download data");
    const auto staging = Staging::GetReadbackBuffer(*m_device, params.pool, layout.GetSize());
    {
        const auto allocator = CreateCommandAllocator();
        const auto list = allocator->CreateCommandList(nullptr);
        list->RecordTransition(params.source, params.stateBefore, D3D12_RESOURCE_STATE_COPY_SOURCE);
        for (unsigned i = 0; i < layout.GetCount(); ++i) {
            list->CopyTextureRegion(layout.InBuffer(staging->GetResource(), i), 0, 0, 0,
                                    CD3DX12_TEXTURE_COPY_LOCATION(params.source, i), nullptr);
        }
        list->RecordTransition(params.source, D3D12_RESOURCE_STATE_COPY_SOURCE, params.stateAfter);
        list->Close();
        allocator->Execute();
        allocator->WaitComplete();
    }
    staging->Read(0, layout.GetSize(),
                  [&](const std::uint8_t* data) { layout.CopyOut(data, params.subresources); });
}

void D12CommandQueue::WaitComplete() {
    // Not checked: on a removed device the fence counts as reached.
    m_queue->Signal(m_completionEvent->GetFence(), m_completionEvent->PreIncrementValue());
    m_completionEvent->WaitComplete();
}

} // namespace Norvex::DX
