// A texture and a fence go from Direct3D 11 to Direct3D 12 and back: Direct3D 11 clears the texture
// to a colour, Direct3D 12 waits for it, reads it and makes it white, Direct3D 11 waits for that
// and reads it. The processor waits only where it reads.

#include <array>
#include <cstdio>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D11DeviceContext.h"
#include "Proc/DirectX/Manager/D3D11Resource.h"
#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3D12CommandQueue.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/Exceptions.h"

using namespace Norvex;
namespace {

struct Shared {
    boost::intrusive_ptr<DX::D11SharedTexture2D> texture11;
    CComPtr<ID3D11Texture2D> staging11;
    CComPtr<ID3D12Resource> texture12;
    boost::intrusive_ptr<DX::D12CompletionEvent> event12;
    boost::intrusive_ptr<DX::D11CompletionEvent> event11;
};
// [what is shared]
Shared MakeShared(const auto& device11, const auto& device12) {
    Shared shared;
    shared.event12 = device12->CreateCompletionEvent(D3D12_FENCE_FLAG_SHARED);
    shared.event11 = DX::D11CompletionEvent::OpenShared(device11, shared.event12);
    D3D11_TEXTURE2D_DESC desc = {};
    desc.Width = desc.Height = desc.MipLevels = desc.ArraySize = desc.SampleDesc.Count = 1;
    desc.Format = DXGI_FORMAT_R8G8B8A8_UNORM;
    desc.BindFlags = D3D11_BIND_RENDER_TARGET | D3D11_BIND_SHADER_RESOURCE;
    shared.texture11 = DX::D11SharedTexture2D::Create(device11, desc);
    HANDLE handle = shared.texture11->CreateSharedHandle(DXGI_SHARED_RESOURCE_READ |
                                                         DXGI_SHARED_RESOURCE_WRITE);
    shared.texture12 = device12->OpenSharedResource(handle);
    CloseHandle(handle);
    desc.Usage = D3D11_USAGE_STAGING;
    desc.BindFlags = 0;
    desc.CPUAccessFlags = D3D11_CPU_ACCESS_READ;
    shared.staging11 = device11->CreateTexture2D(desc, nullptr);
    return shared;
}
// [what is shared] [the handshake]
void Exchange() {
    const auto device11 = DX::D11Device::CreatePrimary();
    const auto device12 = DX::D12Device::Create(device11->GetAdapterLuid());
    const Shared shared = MakeShared(device11, device12);
    const DX::D11RenderTexture2D target(shared.texture11->GetTexture(), std::nullopt);
    device11->Encode([&](const auto& context) {
        shared.texture11->AcquireSync(0, INFINITE);
        context->ClearRenderTargetView(target.GetView(), {1.0F, 0.5F, 0.0F, 1.0F});
        shared.texture11->ReleaseSync(0);
        context->Signal(shared.event11);
        context->Flush();
    });

    const boost::intrusive_ptr<DX::D12CommandQueue> queue(new DX::D12CommandQueue(device12, {}));
    queue->Get()->Wait(shared.event12->GetFence(), shared.event12->GetValue());
    // [the handshake]
    std::array<std::uint8_t, 4> pixel = {};
    DX::D12DownloadResourceParams download;
    download.source = shared.texture12;
    download.stateBefore = download.stateAfter = D3D12_RESOURCE_STATE_COMMON;
    download.subresources = {{pixel.data(), sizeof(pixel), sizeof(pixel)}};
    queue->DownloadResource(download);
    std::printf("Direct3D 12 reads %d %d %d\n", pixel[0], pixel[1], pixel[2]);
    pixel.fill(255);
    DX::D12UploadResourceParams upload;
    upload.destination = shared.texture12;
    upload.stateBefore = upload.stateAfter = D3D12_RESOURCE_STATE_COMMON;
    upload.subresources = {{pixel.data(), sizeof(pixel), sizeof(pixel)}};
    queue->UploadResource(upload);
    queue->Get()->Signal(shared.event12->GetFence(), shared.event12->PreIncrementValue());
    device11->Encode([&](const auto& context) {
        context->Wait(shared.event11);
        shared.texture11->AcquireSync(0, INFINITE);
        context->CopyResource(shared.staging11, shared.texture11->GetTexture());
        shared.texture11->ReleaseSync(0);
        const auto mapped = context->Map(shared.staging11, 0, D3D11_MAP_READ, std::nullopt);
        const auto* back = static_cast<const std::uint8_t*>(mapped.pData);
        std::printf("Direct3D 11 reads %d %d %d\n", back[0], back[1], back[2]);
        context->Unmap(shared.staging11, 0);
    });
}

} // namespace

int main() {
    try {
        Exchange();
    } catch (const DX::DirectXException& e) {
        std::fprintf(stderr, "This system does not share between Direct3D 11 and 12: %s. %s\n",
                     e.GetErrorDescription().c_str(), e.GetResultDescription().c_str());
        return 1;
    }
}
