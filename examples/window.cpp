// A gradient in a window that can be resized.

#include <cstdio>
#include <vector>

#include "Proc/DirectX/Manager/D3D12Renderer.h"
#include "Proc/DirectX/Manager/DXGISwapChain.h"

using namespace Norvex;

namespace {

constexpr UINT kSide = 256; // pixels
constexpr UINT kRowSize = kSide * 4;

boost::intrusive_ptr<DX::D12Descriptor>
MakePicture(const boost::intrusive_ptr<DX::D12Device>& device) {
    std::vector<std::uint32_t> gradient(std::size_t{kSide} * kSide);
    for (std::uint32_t i = 0; i < gradient.size(); ++i) {
        gradient[i] = 0xFF800000 | i; // red to the right, green down
    }
    DX::D12Texture2DDesc desc;
    desc.width = desc.height = kSide;
    desc.format = DXGI_FORMAT_R8G8B8A8_UNORM;
    desc.initialState = D3D12_RESOURCE_STATE_COPY_DEST;
    DX::D12UploadResourceParams upload;
    upload.destination = device->CreateTexture2D(desc);
    upload.stateAfter = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(gradient.data());
    upload.subresources = {{bytes, kRowSize, gradient.size() * 4}};
    const boost::intrusive_ptr queue(new DX::D12CommandQueue(device, {}));
    queue->UploadResource(upload)->WaitComplete();
    return device->CreateTextureShaderResourceView(upload.destination);
}

// Between two messages a frame; Present waits for the display.
void Show(HWND window) {
    // [the objects]
    const auto device = DX::D12Device::CreatePrimary();
    const auto picture = MakePicture(device);
    const boost::intrusive_ptr renderer(new DX::D12ImageRenderer(device)); // fits the picture in
    const auto swapChain = DX::DXGISwapChain::Create(device, window);
    // [the objects]
    for (RECT last = {}, now = {};; last = now) {
        for (MSG message = {}; PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE) != FALSE;) {
            if (message.message == WM_QUIT) {
                return;
            }
            DispatchMessageW(&message);
        }
        GetClientRect(window, &now);
        if (EqualRect(&last, &now) == FALSE) {
            swapChain->RecreateBuffers();
        }
        if (IsRectEmpty(&now) != FALSE) { // minimised
            WaitMessage();
            continue;
        }
        // [a frame]
        constexpr auto kShown = D3D12_RESOURCE_STATE_PRESENT;
        const auto target = swapChain->GetRenderTarget();
        const auto frame = swapChain->CreateCommandAllocator();
        frame->ClearRenderTargetView(target, kShown, {0, 0, 0, 1}, {});
        renderer->Encode(frame, picture, target, swapChain->GetConversionInfo({}, {}), {});
        frame->ResourceBarrier(
            {target->Transition(D3D12_RESOURCE_STATE_RENDER_TARGET, kShown, 0, {})});
        frame->Execute();
        swapChain->Present();
        // [a frame]
    }
}

// The window stays until the swap chain is gone, whose frames may still be on their way to it.
LRESULT CALLBACK HandleMessage(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    if (message != WM_CLOSE) {
        return DefWindowProcW(window, message, wparam, lparam);
    }
    PostQuitMessage(0);
    return 0;
}

} // namespace

int main() {
    HWND window = CreateWindowExW(0, L"STATIC", L"NorvexDX", WS_OVERLAPPEDWINDOW | WS_VISIBLE, 80,
                                  80, 640, 480, nullptr, nullptr, nullptr, nullptr);
    SetWindowLongPtrW(window, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(&HandleMessage));
    try {
        Show(window);
    } catch (const DX::DirectXException& e) {
        std::fprintf(stderr, "%s. %s\n", e.GetErrorDescription().c_str(),
                     e.GetResultDescription().c_str());
        return 1;
    }
    return 0;
}
