// One program, run on several systems of the past: Windows 7, one without d3d12.dll, and one whose
// dxgi.dll has no CreateDXGIFactory2. A suite each.

#include <cstring>

#include <fmt/format.h>
#include <fmt/xchar.h>
#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/API.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "Proc/DirectX/Manager/DXGISwapChain.h"
#include "tests/support/Canvas11.h"
#include "tests/support/Device11.h"
#include "tests/support/SwapChain11.h"
#include "tests/support/TemporaryKey.h"
#include "tests/support/Thrown.h"
#include "tests/support/Words.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;

// Everything else still works, and Direct3D 12 says that it is not there.
void ExpectOnlyDirect3D11() {
    API& api = API::GetInstance();
    EXPECT_FALSE(api.IsD12Loaded());
    EXPECT_FALSE(D12Device::IsAvailable());
    EXPECT_EQ(GetModuleHandleW(L"d3d12.dll"), nullptr);
    CComPtr<ID3D12Device> device;
    EXPECT_EQ(api.CreateDevice(nullptr, D3D_FEATURE_LEVEL_11_1, device), API::E_DELAY_LOAD_FAILED);
    CComPtr<ID3D12Debug> debug;
    EXPECT_EQ(api.GetDebugInterface(debug), API::E_DELAY_LOAD_FAILED);
    const D3D12_VERSIONED_ROOT_SIGNATURE_DESC desc = {};
    CComPtr<ID3D10Blob> blob;
    CComPtr<ID3D10Blob> errors;
    EXPECT_EQ(api.SerializeRootSignature(&desc, D3D_ROOT_SIGNATURE_VERSION_1_1, blob, errors),
              API::E_DELAY_LOAD_FAILED);
    ExpectFailure12([] { D12Device::CreatePrimary(); },
                    "DirectX 12 device interface is not supported on this system", "Create",
                    DXGI_ERROR_UNSUPPORTED);
    EXPECT_FALSE(DXGIFactory::Create()->EnumerateAdapterDescriptions(false).empty());
    const Color color = {1.0, 0.2, 0.0, 1.0};
    Canvas11 canvas;
    const auto source = canvas.MakeSource({1, 1, {color}}, DXGI_FORMAT_R8G8B8A8_UNORM);
    const auto target = canvas.MakeTarget(4, 4, DXGI_FORMAT_R8G8B8A8_UNORM);
    const boost::intrusive_ptr draw(new D11ImageDraw(canvas.GetDevice()));
    canvas.Record([&](const auto& context) { draw->Encode(context, source, target, {}, {}); });
    EXPECT_THAT(canvas.Read(target).colors, testing::Each(color));
}

TEST(NoDirect3D12Test, Direct3D11Draws) {
    EXPECT_TRUE(API::GetInstance().IsWindows10OrGreater());
    ExpectOnlyDirect3D11();
}

TEST(OldWindowsTest, Direct3D11Draws) {
    EXPECT_FALSE(API::GetInstance().IsWindows10OrGreater());
    ExpectOnlyDirect3D11();
}

TEST(OldWindowsTest, TheSwapChainIsOfOneBuffer) {
    const auto device = D11Device::CreatePrimary();
    const TestWindow window({160, 90});
    CComPtr<IDXGIFactory2> factory;
    ASSERT_EQ(CreateDXGIFactory1(IID_PPV_ARGS(&factory)), S_OK);
    DXGI_SWAP_CHAIN_DESC1 made = {};
    const MethodPatch<&IDXGIFactory2::CreateSwapChainForHwnd> create(
        factory,
        [&](auto original, auto* self, auto* queue, HWND of, const auto* desc, auto... rest) {
            made = *desc;
            return original(self, queue, of, desc, rest...);
        });
    const auto swapChain = DXGISwapChain::Create(device, window.Get());
    EXPECT_EQ(made.BufferCount, 1U);
    EXPECT_EQ(made.SwapEffect, DXGI_SWAP_EFFECT_DISCARD);
    constexpr TestWindow::RGB kGreen = {0, 255, 0};
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
    const InterfacePatch<ID3D11Device, IDXGIDevice> none(device->Get(), nullptr);
    ExpectFailure11([&] { device->CreateSwapChainForHwnd(nullptr, {}); },
                    "Failed to get DXGI device", "CreateSwapChainForHwnd", E_NOINTERFACE);
}

TEST(OldWindowsTest, DriverVersionComesFromTheMatchingVideoDevice) {
    const DXGIAdapter adapter = DXGIFactory::Create()->GetPrimaryAdapter();
    const auto before = adapter.GetDescription();
    EXPECT_EQ(before->driverVersion, 0u) << "the prefix has no such device";
    const std::wstring id = fmt::format(L"PCI\\VEN_{:04X}&DEV_{:04X}&SUBSYS_00000000",
                                        before->vendorId, before->deviceId);
    TemporaryKey key(L"SYSTEM\\CurrentControlSet\\Control\\Video\\{norvex-test}");
    const auto add = [&key](const wchar_t* device, const std::wstring& matchingId,
                            const wchar_t* version) {
        key.Set(device, L"MatchingDeviceId", matchingId);
        key.Set(device, L"DriverVersion", std::wstring(version));
    };
    add(L"\\0000", L"pci\\ven_ffff&dev_ffff", L"1.2.3.4");
    add(L"\\0001", id, L"9.9.9");
    add(L"\\0002", id, L"31.0.15.3742");
    EXPECT_EQ(adapter.GetDescription()->GetDriverVersion(), "31.0.15.3742");
}

TEST(OldFactoryTest, TheFactoryOfDxgi11Serves) {
    // The loader is told so before it is made.
    const ImportPatch patch(
        L"NorvexDX.dll", "GetProcAddress", [](HMODULE module, const char* name) {
            return std::strcmp(name, "CreateDXGIFactory2") == 0 ? nullptr
                                                                : GetProcAddress(module, name);
        });
    EXPECT_FALSE(API::GetInstance().IsFactory2Available());
    CComPtr<IDXGIFactory2> factory2;
    EXPECT_EQ(API::GetInstance().CreateFactory2(0, factory2), API::E_DELAY_LOAD_FAILED);

    const auto factory = DXGIFactory::Create();
    const DXGIVersion version = factory->GetVersion();
    EXPECT_TRUE(version == DXGIVersion::DXGI_1_1 || version >= DXGIVersion::DXGI_1_3)
        << "of what the factory itself does not answer only 1.2 and 1.4 are left out";
    const auto adapter = factory->GetPrimaryAdapter();
    const LUID luid = adapter.GetDescription()->adapterLuid;
    EXPECT_TRUE(IsSameLuid(factory->GetAdapter(luid).GetDescription()->adapterLuid, luid));
    // Without a result: the search found nothing.
    ExpectFailure([&] { factory->GetAdapter(LUID{0x7FFFFFF0, 0x7FFFFFF0}); },
                  "Failed to obtain adapter", "GetAdapter");

    CComPtr<IDXGIFactory> raw;
    ASSERT_EQ(adapter.Get()->GetParent(IID_PPV_ARGS(&raw)), S_OK);
    DXGI_SWAP_CHAIN_DESC made = {};
    const MethodPatch<&IDXGIFactory::CreateSwapChain> create(
        raw, [&made](auto original, auto* self, auto* device, auto* desc, auto** out) {
            made = *desc;
            return original(self, device, desc, out);
        });
    DrawAndPresent(*D11Device::CreatePrimary());
    EXPECT_EQ(WordsOf(&made.BufferDesc), "160 90 60 1 28") << "60 frames a second, of RGBA";
    EXPECT_EQ(made.BufferCount, 2U);
    EXPECT_EQ(made.SwapEffect, DXGI_SWAP_EFFECT_FLIP_DISCARD);
    EXPECT_EQ(made.BufferUsage, UINT{DXGI_USAGE_RENDER_TARGET_OUTPUT});
    EXPECT_EQ(made.Windowed, TRUE);
}

} // namespace
} // namespace Norvex::DX
