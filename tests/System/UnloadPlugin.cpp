// What UnloadTest loads and unloads.

#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3D12Device.h"

using namespace Norvex::DX;

extern "C" __declspec(dllexport) ID3D12Fence* Submit() {
    const auto device = D12Device::CreatePrimary();
    const boost::intrusive_ptr<D12CommandQueue> queue(new D12CommandQueue(device, {}));
    const auto gate = device->CreateCompletionEvent(D3D12_FENCE_FLAG_NONE);
    gate->PreIncrementValue();
    const auto allocator = queue->CreateCommandAllocator();
    allocator->CreateCommandList(nullptr)->Close();
    allocator->Wait(gate);
    allocator->Execute();
    return CComPtr<ID3D12Fence>(gate->GetFence()).Detach();
}

extern "C" __declspec(dllexport) ID3D12Fence* Drain() {
    D12CommandAllocator::WaitAllComplete();
    return nullptr;
}
