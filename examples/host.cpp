// A host with a message loop and a Direct3D 11 device of its own: it follows its window's size and
// DPI and the display, rests while nobody sees the window, begins anew when the device is lost.
// Links d3d11 beside the library.

#include <array>
#include <cstdio>
#include <functional>
#include <memory>

#include "Proc/DirectX/Manager/D11ImageDraw.h"
#include "Proc/DirectX/Manager/DXGISwapChain.h"
#include "Proc/DirectX/Manager/Exceptions.h"

using namespace Norvex;
namespace {
struct Scene { // what is made on one device
    boost::intrusive_ptr<DX::D11Device> device;
    boost::intrusive_ptr<DX::D11ShaderTexture2D> picture;
    boost::intrusive_ptr<DX::D11ImageRenderer> renderer;
    boost::intrusive_ptr<DX::DXGISwapChain> swapChain;

    explicit Scene(HWND window) {
        CComPtr<ID3D11Device> own; // null where there is none: Attach says so
        D3D11CreateDevice(nullptr, D3D_DRIVER_TYPE_HARDWARE, nullptr, 0, nullptr, 0,
                          D3D11_SDK_VERSION, &own, nullptr, nullptr);
        device = DX::D11Device::Attach(own);
        constexpr std::array<std::uint32_t, 4> kColors = {0xFF0000FF, 0xFF00FF00, 0xFFFF0000, ~0U};
        const CD3D11_TEXTURE2D_DESC desc(DXGI_FORMAT_R8G8B8A8_UNORM, 2, 2, 1, 1);
        const D3D11_SUBRESOURCE_DATA data = {kColors.data(), 8, 0};
        picture = DX::D11ShaderTexture2D::Create(device, desc, &data);
        renderer = new DX::D11ImageRenderer(device);
        swapChain = DX::DXGISwapChain::Create(device, window);
    }
    void Draw() const {
        if (const auto target = swapChain->GetRenderTexture()) { // none while it is minimised
            device->Encode([&](const auto& context) {
                context->ClearRenderTargetView(target->GetView(), {0, 0, 0, 1});
                renderer->Encode(context, picture, target, swapChain->GetConversionInfo({}, {}),
                                 {});
            });
            swapChain->Present();
        }
    }
};
std::unique_ptr<Scene> scene; // the window's

// Nothing leaves a window procedure. What a lost device did not draw is drawn on the next one.
void Do(HWND window, const std::function<void()>& work) try {
    work();
    if (scene->device->GetDeviceRemovedReason() != S_OK) {
        throw DX::DirectXException();
    }
} catch (const DX::DirectXException& e) {
    static int losses = 0;
    if (scene == nullptr || scene->device->GetDeviceRemovedReason() == S_OK || ++losses > 3) {
        std::fprintf(stderr, "%s\n", e.GetErrorDescription().c_str());
        return PostQuitMessage(1);
    }
    scene.reset(); // all of it, before there is another device
    InvalidateRect(window, nullptr, FALSE);
}
// [messages]
LRESULT CALLBACK HandleMessage(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    if (message == WM_PAINT || message == WM_TIMER) {
        ValidateRect(window, nullptr);
        Do(window, [=] {
            scene = scene != nullptr ? std::move(scene) : std::make_unique<Scene>(window);
            scene->Draw();
            const bool isHidden = scene->swapChain->GetPresentResult() == DXGI_STATUS_OCCLUDED;
            SetTimer(window, 1, isHidden ? 100 : USER_TIMER_MAXIMUM, nullptr); // ms
        });
    } else if (message == WM_DPICHANGED) { // lparam: where it looks as large on the other display
        const auto* to = reinterpret_cast<const RECT*>(lparam); // NOLINT(performance-no-int-to-ptr)
        MoveWindow(window, to->left, to->top, to->right - to->left, to->bottom - to->top, TRUE);
    } else if (message == WM_SIZE && scene != nullptr) {
        Do(window, [] { scene->swapChain->RecreateBuffers(); });
        InvalidateRect(window, nullptr, FALSE);
    } else if ((message == WM_DISPLAYCHANGE || message == WM_EXITSIZEMOVE) && scene != nullptr) {
        scene->swapChain->UpdateDisplayInfo();
        Do(window, [] { scene->swapChain->EnableHDRIfSupported(1000, 0, 1000, 400); }); // cd/m2
    } else if (message == WM_CLOSE) { // the window outlives the swap chain
        PostQuitMessage(0);
    } else {
        return DefWindowProcW(window, message, wparam, lparam);
    }
    return 0;
}
// [messages]
} // namespace
int main() {
    SetProcessDpiAwarenessContext(DPI_AWARENESS_CONTEXT_PER_MONITOR_AWARE_V2);
    HWND window = CreateWindowExW(0, L"STATIC", L"NorvexDX", WS_OVERLAPPEDWINDOW | WS_VISIBLE, 80,
                                  80, 640, 480, nullptr, nullptr, nullptr, nullptr);
    SetWindowLongPtrW(window, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(&HandleMessage));
    MSG message = {};
    for (; GetMessageW(&message, nullptr, 0, 0) > 0; DispatchMessageW(&message)) {
    }
    scene.reset();
    return static_cast<int>(message.wParam);
}
