// A gradient in a window that can be resized, on Direct3D 12 or 11: window [d3d11]

#include <cstdio>
#include <functional>
#include <string_view>
#include <vector>

#include "Proc/DirectX/Manager/D11ImageDraw.h"
#include "Proc/DirectX/Manager/D3D12Renderer.h"
#include "Proc/DirectX/Manager/DXGISwapChain.h"

using namespace Norvex;
namespace {
constexpr UINT kSide = 256; // pixels
constexpr UINT kRowSize = kSide * 4;
using Pixels = std::vector<std::uint32_t>;
using Draw = std::function<void(DX::DXGISwapChain&)>; // one frame

Draw MakeDraw(const boost::intrusive_ptr<DX::D11Device>& device, const Pixels& pixels) {
    const CD3D11_TEXTURE2D_DESC desc(DXGI_FORMAT_R8G8B8A8_UNORM, kSide, kSide, 1, 1);
    const D3D11_SUBRESOURCE_DATA data = {pixels.data(), kRowSize, 0};
    const auto picture = DX::D11ShaderTexture2D::Create(device, desc, &data);
    const boost::intrusive_ptr renderer(new DX::D11ImageRenderer(device)); // fits the picture in
    return [=](DX::DXGISwapChain& swapChain) {
        device->Encode([&](const boost::intrusive_ptr<DX::D11DeviceContext>& context) {
            const auto target = swapChain.GetRenderTexture();
            context->ClearRenderTargetView(target->GetView(), {0, 0, 0, 1});
            renderer->Encode(context, picture, target, swapChain.GetConversionInfo({}, {}), {});
        });
    };
}

Draw MakeDraw(const boost::intrusive_ptr<DX::D12Device>& device, const Pixels& pixels) {
    DX::D12Texture2DDesc desc;
    desc.width = desc.height = kSide;
    desc.format = DXGI_FORMAT_R8G8B8A8_UNORM;
    desc.initialState = D3D12_RESOURCE_STATE_COPY_DEST;
    DX::D12UploadResourceParams upload;
    upload.destination = device->CreateTexture2D(desc);
    upload.stateAfter = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(pixels.data());
    upload.subresources = {{bytes, kRowSize, pixels.size() * 4}};
    const boost::intrusive_ptr queue(new DX::D12CommandQueue(device, {}));
    queue->UploadResource(upload)->WaitComplete();
    const auto picture = device->CreateTextureShaderResourceView(upload.destination);
    const boost::intrusive_ptr renderer(new DX::D12ImageRenderer(device));
    return [=](DX::DXGISwapChain& swapChain) {
        constexpr auto kDrawn = D3D12_RESOURCE_STATE_RENDER_TARGET;
        const auto frame = swapChain.CreateCommandAllocator();
        const auto target = swapChain.GetRenderTarget();
        frame->ClearRenderTargetView(target, D3D12_RESOURCE_STATE_PRESENT, {0, 0, 0, 1}, {});
        renderer->Encode(frame, picture, target, swapChain.GetConversionInfo({}, {}), {});
        frame->ResourceBarrier({target->Transition(kDrawn, D3D12_RESOURCE_STATE_PRESENT, 0, {})});
        frame->Execute();
    };
}

void Show(HWND window, const auto& device) {
    Pixels gradient;
    for (UINT i = 0; i < kSide * kSide; ++i) {
        gradient.push_back(0xFF800000 | i); // red to the right, green down
    }
    const auto draw = MakeDraw(device, gradient);
    const auto swapChain = DX::DXGISwapChain::Create(device, window);
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
        draw(*swapChain);
        swapChain->Present();
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

int main(int argc, char** argv) {
    HWND window = CreateWindowExW(0, L"STATIC", L"NorvexDX", WS_OVERLAPPEDWINDOW | WS_VISIBLE, 80,
                                  80, 640, 480, nullptr, nullptr, nullptr, nullptr);
    SetWindowLongPtrW(window, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(&HandleMessage));
    try {
        if (argc > 1 && std::string_view(argv[1]) == "d3d11") {
            Show(window, DX::D11Device::CreatePrimary());
        } else {
            Show(window, DX::D12Device::CreatePrimary());
        }
    } catch (const DX::DirectXException& e) {
        std::fprintf(stderr, "%s\n", e.GetErrorDescription().c_str());
        return 1;
    }
}
