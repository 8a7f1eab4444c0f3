// Before Windows 10: Direct3D 12 is not even loaded, and driver versions come from the video
// devices' keys.

#include <gmock/gmock.h>

#include <fmt/format.h>
#include <fmt/xchar.h>

#include "Proc/DirectX/Manager/API.h"
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D11DeviceContext.h"
#include "Proc/DirectX/Manager/D3D11Resource.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "Proc/DirectX/Manager/DXGISwapChain.h"
#include "tests/support/Device11.h"
#include "tests/support/Painter.h"
#include "tests/support/TemporaryKey.h"
#include "tests/support/TestWindow.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using CreateSwapChainForHwnd = Norvex::Test::MethodPatch<
    15, HRESULT(IDXGIFactory2*, IUnknown*, HWND, const DXGI_SWAP_CHAIN_DESC1*,
                const DXGI_SWAP_CHAIN_FULLSCREEN_DESC*, IDXGIOutput*, IDXGISwapChain1**)>;

TEST(OldWindowsTest, Direct3D12StaysUnloaded) {
    EXPECT_FALSE(API::GetInstance().IsWindows10OrGreater());
    EXPECT_FALSE(D12Device::IsAvailable());
    CComPtr<ID3D12Device> device;
    EXPECT_EQ(API::GetInstance().CreateDevice(nullptr, D3D_FEATURE_LEVEL_11_1, device),
              API::E_DELAY_LOAD_FAILED);
    EXPECT_EQ(GetModuleHandleW(L"d3d12.dll"), nullptr);
}

TEST(OldWindowsTest, Direct3D11DrawsAndPresents) {
    const Norvex::Test::Color color = {1.0, 0.2, 0.0, 1.0};
    const auto picture = Norvex::Test::MakePixels(4, 4, [&](unsigned, unsigned) { return color; });
    EXPECT_THAT(Norvex::Test::MakePainter11()->Draw({.source = picture}).colors,
                testing::Each(color));
    const auto device = D11Device::CreatePrimary();
    const Norvex::Test::TestWindow window({160, 90});
    CComPtr<IDXGIFactory2> factory;
    ASSERT_EQ(CreateDXGIFactory1(IID_PPV_ARGS(&factory)), S_OK);
    DXGI_SWAP_CHAIN_DESC1 made = {};
    const CreateSwapChainForHwnd create(factory, [&made](auto original, auto* self, auto* queue,
                                                         HWND of, const auto* desc, auto... rest) {
        made = *desc;
        return original(self, queue, of, desc, rest...);
    });
    const auto swapChain = DXGISwapChain::Create(device, window.Get());
    EXPECT_EQ(made.BufferCount, 1U);
    EXPECT_EQ(made.SwapEffect, DXGI_SWAP_EFFECT_DISCARD);
    constexpr Norvex::Test::TestWindow::RGB kGreen = {0, 255, 0};
    for (int frame = 0; frame < 100 && window.GetPixel(80, 45) != kGreen; ++frame) {
        device->Encode([&](const auto& context) {
            context->ClearRenderTargetView(swapChain->GetRenderTexture()->GetView(), {0, 1, 0, 1});
        });
        swapChain->Present();
        window.PumpMessages();
        Sleep(20);
    }
    EXPECT_EQ(window.GetPixel(80, 45), kGreen);
    EXPECT_FALSE(swapChain->EnableHDRIfSupported(1000.0F, 0.005F, 800.0F, 400.0F));
    // Only the factory that made the device serves.
    const Norvex::Test::InterfacePatch<ID3D11Device, IDXGIDevice> none(device->Get(), nullptr);
    Norvex::Test::ExpectFailure11([&] { device->CreateSwapChainForHwnd(nullptr, {}); },
                                  "Failed to get DXGI device", "CreateSwapChainForHwnd",
                                  E_NOINTERFACE);
}

TEST(OldWindowsTest, DriverVersionComesFromTheMatchingVideoDevice) {
    const DXGIAdapter adapter = DXGIFactory::Create()->GetPrimaryAdapter();
    const auto before = adapter.GetDescription();
    EXPECT_EQ(before->driverVersion, 0u) << "the prefix has no such device";
    const std::wstring id = fmt::format(L"PCI\\VEN_{:04X}&DEV_{:04X}&SUBSYS_00000000",
                                        before->vendorId, before->deviceId);
    Norvex::Test::TemporaryKey key(L"SYSTEM\\CurrentControlSet\\Control\\Video\\{norvex-test}");
    const auto add = [&key](const wchar_t* device, const std::wstring& matchingId,
                            const wchar_t* version) {
        key.Set(device, L"MatchingDeviceId", matchingId);
        key.Set(device, L"DriverVersion", std::wstring(version));
    };
    add(L"\\0000", L"pci\\ven_ffff&dev_ffff", L"1.2.3.4");
    add(L"\\0001", id, L"9.9.9");
    add(L"\\0002", id, L"31.0.15.3742");
    const auto description = adapter.GetDescription();
    EXPECT_EQ(description->GetDriverVersion(), "31.0.15.3742");
    EXPECT_EQ(description->driverVersion, 31ull << 48 | 15ull << 16 | 3742);
}

} // namespace
} // namespace Norvex::DX
