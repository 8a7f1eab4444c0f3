// Before Windows 10: Direct3D 12 is not even loaded, and driver versions come from the video
// devices' keys.

#include <gmock/gmock.h>

#include <fmt/format.h>
#include <fmt/xchar.h>

#include "Proc/DirectX/Manager/API.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "tests/support/Device11.h"
#include "tests/support/Painter.h"
#include "tests/support/SwapChain11.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

// A video device in the registry while this object lives.
class VideoDevice {
public:
    VideoDevice(int number, const std::wstring& matchingId, const std::wstring& version)
        : m_path(fmt::format(L"SYSTEM\\CurrentControlSet\\Control\\Video\\{{norvex-test-{}}}",
                             number)) {
        const std::wstring device = m_path + L"\\0000";
        Set(device, L"MatchingDeviceId", matchingId);
        Set(device, L"DriverVersion", version);
    }
    ~VideoDevice() { RegDeleteTreeW(HKEY_LOCAL_MACHINE, m_path.c_str()); }

private:
    // The system keeps this part of the registry in memory only, so new keys must be volatile.
    static void Set(const std::wstring& path, const wchar_t* value, const std::wstring& text) {
        HKEY key = nullptr;
        ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, REG_OPTION_VOLATILE,
                                  KEY_ALL_ACCESS, nullptr, &key, nullptr),
                  ERROR_SUCCESS);
        const auto size = static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t));
        EXPECT_EQ(RegSetKeyValueW(key, nullptr, value, REG_SZ, text.c_str(), size), ERROR_SUCCESS);
        RegCloseKey(key);
    }

    std::wstring m_path;
};

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
    Norvex::Test::DrawAndPresent(*device);
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
    const VideoDevice other(1, L"pci\\ven_ffff&dev_ffff", L"1.2.3.4");
    const VideoDevice threeParts(2, id, L"9.9.9");
    const VideoDevice right(3, id, L"31.0.15.3742");
    const auto description = adapter.GetDescription();
    EXPECT_EQ(description->GetDriverVersion(), "31.0.15.3742");
    EXPECT_EQ(description->driverVersion, 31ull << 48 | 15ull << 16 | 3742);
}

} // namespace
} // namespace Norvex::DX
