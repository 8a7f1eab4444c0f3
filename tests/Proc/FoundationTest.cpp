// Results, exceptions, adapters and the factory, on the system as it is.

#include <array>

#include <gmock/gmock.h>

#include "Host/CoreTracker.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "Proc/DirectX/Manager/DirectXDebug.h"
#include "Proc/DirectX/Manager/Version.h"
#include "tests/support/Canvas.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using testing::ElementsAre;

using GetDesc1 = MethodPatch<&IDXGIAdapter1::GetDesc1>;

TEST(ResultTest, AResultIsCapturedFromItsDevice) {
    const auto device = D12Device::CreatePrimary();
    const LogCapture log;
    const FailingMethod<&ID3D12Device::GetDeviceRemovedReason> patch(device->Get(), E_OUTOFMEMORY);
    const HResultValue removed = HResult(DXGI_ERROR_DEVICE_REMOVED, device->Get()).value();
    EXPECT_EQ(removed.result, E_OUTOFMEMORY);
    EXPECT_EQ(removed.memoryInfo, nullptr) << "the call itself did not run out of memory";
    EXPECT_THAT(log.GetEntries(), testing::IsEmpty()) << "without debug mode no messages are read";
}

struct OfflineTracker : Proc::ICoreTracker {
    void OnEvent(const std::string&, const std::map<std::string, std::string>&) override {
        throw std::runtime_error("it is offline");
    }
};

TEST(ExceptionTest, TheTrackerGetsWhatIsKnown) {
    AdapterDescription adapter;
    adapter.name = "Some adapter";
    adapter.vendorNames = {"AMD", "ATI"};
    adapter.vendorId = 0x1002;
    adapter.deviceId = 0x67df;
    adapter.driverVersion = 31ull << 48 | 3742;
    adapter.dedicatedVideoMemory = 4096ull << 20;
    const auto inMiB = [](std::uint64_t count) { return count << 20; };
    const Core::Utils::MEMINFO memory{42,       inMiB(1), inMiB(2),      inMiB(3),
                                      inMiB(4), inMiB(5), inMiB(6),      inMiB(7),
                                      inMiB(8), inMiB(9), inMiB(1234567)};
    const auto exception = D12EncoderException()
                           << ErrorDescription("Something failed")
                           << ErrorResult({static_cast<std::int32_t>(0x887A1234),
                                           std::make_shared<AdapterDescription>(adapter),
                                           std::make_shared<Core::Utils::MEMINFO>(memory)});

    const LogCapture log;
    DirectXException().TrackException(); // without a result there is nothing to report
    exception.TrackException();
    Proc::ICoreTracker::SetTracker(new OfflineTracker);
    exception.TrackException();
    Proc::ICoreTracker::SetTracker(nullptr);
    constexpr auto kEvent = "ERROR: CORE_GPU_EXCEPTION\n"
                            "  CORE_EXCEPTION_DESCRIPTION = Something failed\n"
                            "  CORE_EXCEPTION_HRESULT = 0x887a1234\n"
                            "  CORE_EXCEPTION_MEMINFO = "
                            "Process physical memory usage: 7/8 MB (cur/peak),\n"
                            "Process virtual memory usage: 9/1234567 MB (cur/peak),\n"
                            "Memory load: 42%,\n"
                            "Physical memory: 1/2 MB (avail/total),\n"
                            "Virtual memory: 5/6 MB (avail/total),\n"
                            "Committed memory: 3/4 MB (avail/total).\n"
                            "  CORE_EXCEPTION_WHAT = DirectX 12 encoder exception\n"
                            "  CORE_GPU_BRAND_STR = Some adapter\n"
                            "  CORE_GPU_DRIVER_VERSION = 31.0.0.3742\n"
                            "  CORE_GPU_VENDOR = AMD\n"
                            "  CORE_GPU_VIDEO_MEMORY = 4096";
    EXPECT_THAT(log.GetEntries(),
                ElementsAre(kEvent, "ERROR: Tracking an exception failed: it is offline"));
    EXPECT_THAT(exception.GetResultDescription(),
                testing::StartsWith("Code: 0x887A1234.\nAdapter name: Some adapter.\nProcess "));
    EXPECT_THAT(Describe(exception),
                testing::StartsWith("Something failed.\nKind: DirectX 12 encoder exception.\n"
                                    "Code: 0x887A1234. (0x887a1234)\n"
                                    "Adapter: Some adapter (1002:67df), 4096 MB. "
                                    "Driver: 31.0.0.3742.\nProcess physical memory usage: 7/8"));
}

TEST(ExceptionTest, IsDescribedWithAndWithoutWhatItMayCarry) {
    const auto version = std::string("\nNorvexDX ") + GetVersionString() + ".";
    EXPECT_EQ(Describe(std::runtime_error("it is raining")), "it is raining" + version);
    EXPECT_EQ(Describe(DirectX11Exception()), "DirectX 11 exception" + version);
    try {
        const DXGIAdapter refused(static_cast<IDXGIAdapter*>(nullptr));
        FAIL() << "it was not refused";
    } catch (const std::exception& e) {
        const std::string text = Describe(e);
        EXPECT_THAT(text, testing::ContainsRegex(
                              "1\\.\nKind: DirectX exception\\.\nCode: E_INVALIDARG, .*"
                              "0x80070057.\nThrown by \\w+, .*cpp:\\d+\\.\nCall stack:\n#0 "));
        EXPECT_TRUE(text.ends_with(version)) << text;
    }
}

// What the system knows of an adapter's driver, while it lives.
struct DriverKey : boost::noncopyable {
    DriverKey(std::uint64_t luid, std::uint64_t version) {
        HKEY key = nullptr;
        RegCreateKeyExW(HKEY_LOCAL_MACHINE, kPath, 0, nullptr, REG_OPTION_VOLATILE, KEY_ALL_ACCESS,
                        nullptr, &key, nullptr);
        RegSetKeyValueW(key, nullptr, L"AdapterLuid", REG_QWORD, &luid, sizeof(luid));
        RegSetKeyValueW(key, nullptr, L"DriverVersion", REG_QWORD, &version, sizeof(version));
        RegCloseKey(key);
    }
    ~DriverKey() { RegDeleteKeyW(HKEY_LOCAL_MACHINE, kPath); }

    static constexpr auto kPath = L"SOFTWARE\\Microsoft\\DirectX\\{norvex-test}";
};

TEST(AdapterTest, DescriptionsTellWhatDxgiAndTheRegistryKnow) {
    const DXGIAdapter adapter = DXGIFactory::Create()->GetPrimaryAdapter();
    DXGI_ADAPTER_DESC1 known = {L"Kart\u00E9", 0x1022, 2, 3, 4, 5, 6, 7, {8, 9}, 10};
    const GetDesc1 patch(adapter.Get(), [&](auto, auto*, auto* desc) {
        *desc = known;
        return S_OK;
    });
    const DriverKey driver(9ull << 32 | 8, 31ull << 48 | 15ull << 16 | 3742);
    const AdapterDescription description = *adapter.GetDescription();
    EXPECT_EQ(description.GetDriverVersion(), "31.0.15.3742");
    EXPECT_EQ(description.name, "Kart\xC3\xA9");
    EXPECT_EQ(description.vendor, 0x1002u);
    EXPECT_THAT(description.vendorNames, ElementsAre("AMD", "ATI"));
    EXPECT_THAT((std::array{description.dedicatedVideoMemory, description.dedicatedSystemMemory,
                            description.sharedSystemMemory}),
                ElementsAre(5u, 6u, 7u));
    known.VendorId = 0xAB;
    EXPECT_THAT(adapter.GetDescription()->vendorNames, ElementsAre("Unknown_  AB"));
}

// Three adapters, the last a software one.
TEST(FactoryTest, EnumerationLeavesOutSoftware) {
    const auto factory = DXGIFactory::Create();
    const DXGIAdapter real = factory->GetPrimaryAdapter();
    CComPtr<IDXGIFactory1> raw;
    ASSERT_EQ(real.Get()->GetParent(IID_PPV_ARGS(&raw)), S_OK);
    const MethodPatch<&IDXGIFactory1::EnumAdapters1> adapters(
        raw, [&](auto original, auto* self, UINT index, auto** out) {
            return index < 3 ? original(self, 0, out) : DXGI_ERROR_NOT_FOUND;
        });
    int call = 0;
    const GetDesc1 patch(real.Get(), [&](auto, auto*, auto* desc) {
        *desc = {};
        desc->Flags = call++ % 3 == 2 ? UINT{DXGI_ADAPTER_FLAG_SOFTWARE} : 0;
        return S_OK;
    });
    EXPECT_EQ(factory->EnumerateAdapterDescriptions(false).size(), 3u);
    std::vector<DXGIAdapter> out(7);
    factory->EnumerateAdapters(out, true);
    EXPECT_EQ(out.size(), 2u);
}

TEST(DebugModeTest, ComesTooLateAfterTheFirstFactory) {
    DXGIFactory::Create();
    ExpectFailure([] { EnableDebugMode(); },
                  "Debug mode must be enabled before creating the first DirectX object",
                  "EnableDebugMode");
}

} // namespace
} // namespace Norvex::DX
