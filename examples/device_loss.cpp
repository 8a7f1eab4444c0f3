// Draws ten frames on a device that is removed before one of them, and goes on with the same
// picture on a new device: device_loss [FRAME]

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "Proc/DirectX/Manager/D3D12Renderer.h"
#include "Proc/DirectX/Manager/Exceptions.h"

using namespace Norvex;
namespace {
using Pixel = std::array<std::uint8_t, 4>;
constexpr Pixel kPicture = {255, 128, 0, 255}; // a host keeps what it cannot draw again

class Scene { // everything that is made on one device
public:
    Scene()
        : m_device(DX::D12Device::CreatePrimary()),
          m_queue(new DX::D12CommandQueue(m_device, {})),
          m_draw(new DX::D12ImageDraw(m_device)) {
        DX::D12Texture2DDesc desc;
        desc.width = desc.height = 1;
        desc.format = DXGI_FORMAT_R8G8B8A8_UNORM;
        desc.initialState = D3D12_RESOURCE_STATE_COPY_DEST;
        DX::D12UploadResourceParams upload;
        upload.destination = m_device->CreateTexture2D(desc);
        upload.stateAfter = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
        upload.subresources = {{kPicture.data(), sizeof(Pixel), sizeof(Pixel)}};
        m_queue->UploadResource(upload);
        m_source = m_device->CreateTextureShaderResourceView(upload.destination);
        desc.resourceFlags = D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET;
        desc.initialState = D3D12_RESOURCE_STATE_RENDER_TARGET;
        m_target = m_device->CreateRenderTargetView(m_device->CreateTexture2D(desc));
    }
    Pixel Draw() const {
        const auto frame = m_queue->CreateCommandAllocator();
        m_draw->Encode(frame, m_source, m_target, std::nullopt, std::nullopt);
        frame->Execute();
        Pixel pixel = {};
        DX::D12DownloadResourceParams download;
        download.source = m_target->GetFirstResource();
        download.stateBefore = download.stateAfter = D3D12_RESOURCE_STATE_RENDER_TARGET;
        download.subresources = {{pixel.data(), sizeof(Pixel), sizeof(Pixel)}};
        m_queue->DownloadResource(download);
        return pixel;
    }
    bool IsLost() const { return m_device->GetDeviceRemovedReason() != S_OK; }
    void RemoveDevice() const { // as if the adapter had been unplugged
        CComPtr<ID3D12Device5> device5;
        if (SUCCEEDED(m_device->Get()->QueryInterface(IID_PPV_ARGS(&device5)))) {
            device5->RemoveDevice();
        }
        std::puts(IsLost() ? "The device is removed." : "Here a device cannot be removed.");
    }

private:
    boost::intrusive_ptr<DX::D12Device> m_device;
    boost::intrusive_ptr<DX::D12CommandQueue> m_queue;
    boost::intrusive_ptr<DX::D12ImageDraw> m_draw;
    boost::intrusive_ptr<DX::D12Descriptor> m_source;
    boost::intrusive_ptr<DX::D12Descriptor> m_target;
};

void Play(int removedAt) {
    auto scene = std::make_unique<Scene>();
    for (int frame = 1, losses = 0; frame <= 10;) {
        try {
            if (frame == removedAt && losses == 0) {
                scene->RemoveDevice();
            }
            const Pixel pixel = scene->Draw();
            std::printf("Frame %d is %d %d %d.\n", frame++, pixel[0], pixel[1], pixel[2]);
        } catch (const DX::DirectXException& e) {
            // [what to do]
            if (!(scene->IsLost() || DX::IsDeviceLoss(e.GetResult())) || ++losses > 3) {
                throw;
            }
            std::printf("Lost: %s. Beginning anew.\n", e.GetErrorDescription().c_str());
            scene.reset(); // all of it, before there is another device
            DX::D12CommandAllocator::WaitAllComplete();
            scene = std::make_unique<Scene>();
            // [what to do]
        }
    }
}
} // namespace

int main(int argc, char** argv) {
    try {
        Play(argc > 1 ? std::atoi(argv[1]) : 0);
        return 0;
    } catch (const DX::DirectXException& e) {
        std::fprintf(stderr, "%s\n", e.GetErrorDescription().c_str());
        return 1;
    }
}
