// Uploads on one queue, clears on another that waits for it, measures that with time stamps, and
// prints what device and pool hold, the memory budget, and in debug mode what is alive.

#include <cstdio>
#include <vector>

#include "Proc/DirectX/Manager/D3D12Query.h"
#include "Proc/DirectX/Manager/D3D12Renderer.h"
#include "Proc/DirectX/Manager/D3D12TexturePool.h"
#include "Proc/DirectX/Manager/DirectXDebug.h"
#include "Proc/DirectX/Manager/Exceptions.h"

using namespace Norvex;

namespace {

void Print(const char* name, const DX::PoolStatistics& pool) {
    std::printf("%s: %zu in use (%.1f MB), %zu idle (%.1f MB)\n", name, pool.inUse,
                static_cast<double>(pool.bytesInUse) / 1e6, pool.idle,
                static_cast<double>(pool.bytesIdle) / 1e6);
}

// [the statistics]
void PrintStatistics(const boost::intrusive_ptr<DX::D12Device>& device,
                     const boost::intrusive_ptr<DX::D12Texture2DPool>& pictures) {
    const DX::D12DeviceStatistics now = device->GetStatistics();
    if (now.localMemory && now.localMemory->usage > now.localMemory->budget) {
        std::puts("over the budget: Windows moves memory out, free caches");
    }
    Print("pictures", pictures->GetStatistics());
    Print("upload buffers", now.uploadBuffers);
    Print("allocators", now.commandAllocators);
    std::printf("%s", DX::DescribeLiveObjects().c_str()); // empty without debug mode
}
// [the statistics]

void Run() {
    const auto device = DX::D12Device::CreatePrimary();
    D3D12_COMMAND_QUEUE_DESC copies = {};
    copies.Type = D3D12_COMMAND_LIST_TYPE_COPY;
    const auto uploads = device->CreateCommandQueue(copies);
    const auto draws = device->CreateCommandQueue();
    // [the pool]
    DX::D12Texture2DDesc desc;
    desc.width = 256;
    desc.height = 256;
    desc.format = DXGI_FORMAT_R8G8B8A8_UNORM;
    desc.initialState = D3D12_RESOURCE_STATE_COMMON;
    desc.resourceFlags = D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET;
    const auto pictures = DX::D12Texture2DPool::Create(device, desc);
    const auto picture = pictures->ObtainTexture(); // returns to the pool with its last reference
    // [the pool]

    const std::vector<std::uint8_t> pixels(std::size_t{256} * 256 * 4, 128);
    // [two queues]
    DX::D12UploadResourceParams upload;
    upload.destination = picture->GetResource();
    upload.stateBefore = upload.stateAfter = D3D12_RESOURCE_STATE_COMMON;
    upload.subresources = {{pixels.data(), pixels.size() / 256, pixels.size()}};
    uploads->UploadResource(upload);
    const auto uploaded = device->CreateCompletionEvent(D3D12_FENCE_FLAG_NONE);
    uploads->Signal(uploaded);
    draws->Wait(uploaded); // on the GPU; this thread goes on

    const auto begin = device->CreateQuery(D3D12_QUERY_TYPE_TIMESTAMP);
    const auto end = device->CreateQuery(D3D12_QUERY_TYPE_TIMESTAMP);
    const auto frame = draws->CreateCommandAllocator();
    frame->EndQuery(begin);
    frame->ClearRenderTargetView(device->CreateRenderTargetView(picture->GetResource()),
                                 D3D12_RESOURCE_STATE_COMMON, {1, 0, 0, 1}, {});
    frame->EndQuery(end);
    frame->Execute();
    frame->WaitComplete(); // results of queries are there when the GPU is done
    // [two queues]
    UINT64 frequency = 1;
    draws->Get()->GetTimestampFrequency(&frequency);
    std::printf("the clear took %.3f ms\n",
                static_cast<double>(end->GetUint64Stats() - begin->GetUint64Stats()) * 1e3 /
                    static_cast<double>(frequency));
    PrintStatistics(device, pictures);
}

} // namespace

int main(int count, char**) {
    try {
        if (count > 1) { // any argument
            DX::EnableDebugMode();
        }
        Run();
    } catch (const DX::DirectXException& e) {
        std::fprintf(stderr, "%s\n", DX::Describe(e).c_str());
        return 1;
    }
    return 0;
}
