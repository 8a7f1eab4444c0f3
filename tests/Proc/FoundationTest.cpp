// Results, exceptions, adapters and the factory, on the system as it is.

#include <locale>

#include <gmock/gmock.h>

#include "Platform/ComPtr.h"
#include "Proc/DirectX/Manager/API.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "Proc/DirectX/Manager/DirectXDebug.h"
#include "tests/support/Canvas.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RecordingTracker.h"
#include "tests/support/TemporaryKey.h"
#include "tests/support/TestWindow.h"
#include "tests/support/Thrown.h"
#include "tests/support/Words.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using testing::ElementsAre;
using testing::HasSubstr;

using GetDesc1 = MethodPatch<&IDXGIAdapter1::GetDesc1>;

constexpr auto kUnknownResult = static_cast<std::int32_t>(0x887A1234);

// In every field of the memory another number of MiB, less than one byte short of the next.
HResultValue MakeResult() {
    const auto inMiB = [](std::uint64_t count) { return ((count + 1) << 20) - 1; };
    AdapterDescription adapter;
    adapter.name = "Some adapter";
    adapter.vendorNames = {"AMD", "ATI"};
    adapter.driverVersion = 31ull << 48 | 3742;
    adapter.dedicatedVideoMemory = 4096ull << 20;
    return {kUnknownResult, std::make_shared<AdapterDescription>(adapter),
            std::make_shared<Core::Utils::MEMINFO>(
                Core::Utils::MEMINFO{42, inMiB(1), inMiB(2), inMiB(3), inMiB(4), inMiB(5), inMiB(6),
                                     inMiB(7), inMiB(8), inMiB(9), inMiB(1234567)})};
}
constexpr auto kMemoryText = "Process physical memory usage: 7/8 MB (cur/peak),\n"
                             "Process virtual memory usage: 9/1234567 MB (cur/peak),\n"
                             "Memory load: 42%,\n"
                             "Physical memory: 1/2 MB (avail/total),\n"
                             "Virtual memory: 5/6 MB (avail/total),\n"
                             "Committed memory: 3/4 MB (avail/total).";

TEST(ResultTest, AResultIsCapturedFromItsDevice) {
    const auto device = D12Device::CreatePrimary();
    const LogCapture log;
    const HResultValue outOfMemory = HResult(E_OUTOFMEMORY, device->Get()).value();
    EXPECT_EQ(outOfMemory.adapter, device->GetDescription());
    EXPECT_GT(outOfMemory.memoryInfo->physicalTotal, 0u);
    EXPECT_THAT(to_string(outOfMemory), testing::StartsWith("Code: E_OUTOFMEMORY, Description: "));
    EXPECT_EQ(HResult(E_OUTOFMEMORY, CComPtr<ID3D11Device>()).value().adapter, nullptr);
    EXPECT_EQ(HResult(E_FAIL).value().memoryInfo, nullptr);
    const FailingMethod<&ID3D12Device::GetDeviceRemovedReason> patch(device->Get(), E_OUTOFMEMORY);
    const HResultValue removed = HResult(DXGI_ERROR_DEVICE_REMOVED, device->Get()).value();
    EXPECT_EQ(removed.result, E_OUTOFMEMORY);
    EXPECT_EQ(removed.memoryInfo, nullptr) << "the call itself did not run out of memory";
    EXPECT_THAT(log.GetEntries(), testing::IsEmpty()) << "without debug mode no messages are read";
}

TEST(ValueTypeTest, ColorSpacesConvert) {
    using Space = Conf::ColorSpace;
    EXPECT_EQ(ConvertColorSpace(DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P709), (Space{1, 13, 1}));
    EXPECT_EQ(ConvertColorSpace(DXGI_COLOR_SPACE_RGB_FULL_G10_NONE_P709), (Space{1, 8, 1}));
    EXPECT_EQ(ConvertColorSpace(DXGI_COLOR_SPACE_RGB_FULL_G2084_NONE_P2020), (Space{9, 16, 9}));
    const auto thrown = ExpectFailure([] { ConvertColorSpace(DXGI_COLOR_SPACE_CUSTOM); },
                                      "Unknown DXGI color space", "ConvertColorSpace");
    EXPECT_EQ(thrown.details, "Undefined result");
}

// Numbers in groups, as many hosts have them.
struct Grouping : std::numpunct<char> {
    std::string do_grouping() const override { return "\3"; }
};

TEST(ExceptionTest, TheTrackerGetsWhatIsKnownWhateverTheLocale) {
    using Proc::ICoreTracker;
    const boost::intrusive_ptr<RecordingTracker> tracker(new RecordingTracker);
    ICoreTracker::SetTracker(tracker);
    DirectXException().TrackException();
    EXPECT_TRUE(tracker->events.empty()) << "without a result there is nothing to report";

    const std::locale before = std::locale::global(std::locale(std::locale(), new Grouping));
    tracker->isThrowing = true;
    const LogCapture log;
    const auto exception = D12EncoderException()
                           << ErrorDescription("Something failed") << ErrorResult(MakeResult());
    exception.TrackException();
    (DirectXException() << HResult(S_OK)).TrackException();
    EXPECT_EQ(exception.GetResultDescription(),
              std::string("Code: 0x887A1234.\nAdapter name: Some adapter.\n") + kMemoryText);
    std::locale::global(before);
    ICoreTracker::SetTracker(nullptr);

    const RecordingTracker::Attributes expected = {
        {ICoreTracker::CORE_EXCEPTION_WHAT, "DirectX 12 encoder exception"},
        {ICoreTracker::CORE_EXCEPTION_DESCRIPTION, "Something failed"},
        {ICoreTracker::CORE_EXCEPTION_HRESULT, "0x887a1234"},
        {ICoreTracker::CORE_EXCEPTION_MEMINFO, kMemoryText},
        {ICoreTracker::CORE_GPU_VENDOR, "AMD"},
        {ICoreTracker::CORE_GPU_DRIVER_VERSION, "31.0.0.3742"},
        {ICoreTracker::CORE_GPU_BRAND_STR, "Some adapter"},
        {ICoreTracker::CORE_GPU_VIDEO_MEMORY, "4096"},
    };
    ASSERT_EQ(tracker->events.size(), 2u);
    EXPECT_EQ(tracker->events[0], std::pair(ICoreTracker::CORE_GPU_EXCEPTION, expected));
    EXPECT_EQ(tracker->events[1].second.at(ICoreTracker::CORE_EXCEPTION_HRESULT), "0");
    EXPECT_EQ(log.Count(google::GLOG_ERROR, "Tracking an exception failed: tracker is offline"), 2);
}

TEST(ApiTest, RootSignaturesSerialiseUpToTheVersionAskedFor) {
    CD3DX12_DESCRIPTOR_RANGE1 range(D3D12_DESCRIPTOR_RANGE_TYPE_SRV, 3, 2, 0,
                                    D3D12_DESCRIPTOR_RANGE_FLAG_DATA_STATIC);
    CD3DX12_ROOT_PARAMETER1 parameters[3];
    parameters[0].InitAsDescriptorTable(1, &range);
    parameters[1].InitAsConstants(4, 1, 2);
    parameters[2].InitAsConstantBufferView(5, 6, D3D12_ROOT_DESCRIPTOR_FLAG_DATA_STATIC);
    CD3DX12_VERSIONED_ROOT_SIGNATURE_DESC desc;
    desc.Init_1_1(3, parameters, 0, nullptr,
                  D3D12_ROOT_SIGNATURE_FLAG_ALLOW_INPUT_ASSEMBLER_INPUT_LAYOUT);
    CComPtr<ID3D10Blob> blob;
    const auto serialize = [&](int version) {
        CComPtr<ID3D10Blob> errors;
        return API::GetInstance().SerializeRootSignature(
            &desc, static_cast<D3D_ROOT_SIGNATURE_VERSION>(version), blob, errors);
    };
    EXPECT_EQ(serialize(4), E_INVALIDARG);
    EXPECT_EQ(serialize(1), S_OK);

    // Read the 1.0 form back: the same parameters, without the flags.
    CComPtr<ID3D12VersionedRootSignatureDeserializer> reader;
    ASSERT_EQ(D3D12CreateVersionedRootSignatureDeserializer(
                  blob->GetBufferPointer(), blob->GetBufferSize(), IID_PPV_ARGS(&reader)),
              S_OK);
    const auto& read = *reader->GetUnconvertedRootSignatureDesc();
    ASSERT_EQ(read.Version, D3D_ROOT_SIGNATURE_VERSION_1_0);
    ASSERT_EQ(read.Desc_1_0.NumParameters, 3u);
    EXPECT_EQ(read.Desc_1_0.Flags, desc.Desc_1_1.Flags);
    const auto* parameter = read.Desc_1_0.pParameters;
    EXPECT_EQ(WordsOf(parameter->DescriptorTable.pDescriptorRanges), "0 3 2 0 -1");
    EXPECT_EQ(WordsOf(&(++parameter)->Constants), "1 2 4");
    EXPECT_EQ(WordsOf(&(++parameter)->Descriptor), "5 6");
}

TEST(AdapterTest, DescriptionsTellWhatDxgiAndTheRegistryKnow) {
    const DXGIAdapter adapter = DXGIFactory::Create()->GetPrimaryAdapter();
    DXGI_ADAPTER_DESC1 known = {L"Kart\u00E9", 0, 2, 3, 4, 5, 6, 7, {8, 9}, 10};
    HRESULT result = S_OK;
    const GetDesc1 patch(adapter.Get(), [&](auto, auto*, auto* desc) {
        *desc = known;
        return result;
    });
    const auto check = [&](UINT id, const std::string& expected) {
        known.VendorId = id;
        const auto description = adapter.GetDescription();
        EXPECT_EQ(
            fmt::format("{:X} {}", description->vendor, fmt::join(description->vendorNames, " ")),
            expected);
    };
    check(0x8087, "8086 Intel");
    check(0x1022, "1002 AMD ATI");
    check(0x00AB, "0 Unknown_  AB");
    // Half of the id is not enough.
    const auto add = [](const wchar_t* name, std::uint64_t luid, std::uint64_t version) {
        auto key = std::make_unique<TemporaryKey>(
            std::wstring(L"SOFTWARE\\Microsoft\\DirectX\\{norvex-test-") + name);
        key->Set(L"", L"AdapterLuid", luid);
        key->Set(L"", L"DriverVersion", version);
        return key;
    };
    const auto lowHalf = add(L"0", 8, 1);
    const auto highHalf = add(L"1", 9ull << 32, 2);
    const auto right = add(L"2", 9ull << 32 | 8, 31ull << 48 | 15ull << 16 | 3742);
    const AdapterDescription d = *adapter.GetDescription();
    EXPECT_EQ(d.GetDriverVersion(), "31.0.15.3742");
    EXPECT_EQ(d.name, "Kart\xC3\xA9");
    EXPECT_THAT((std::array<std::uint64_t, 8>{d.vendorId, d.deviceId, d.subSysId, d.revision,
                                              d.dedicatedVideoMemory, d.dedicatedSystemMemory,
                                              d.sharedSystemMemory, d.flags}),
                ElementsAre(0xABu, 2u, 3u, 4u, 5u, 6u, 7u, 10u));
    EXPECT_TRUE(IsSameLuid(d.adapterLuid, {8, 9}));

    result = E_ACCESSDENIED;
    ExpectFailure([&] { adapter.GetDescription(); }, "Failed to get DXGI adapter description",
                  "GetDescription", E_ACCESSDENIED);
    ExpectFailure([] { DXGIAdapter(static_cast<IDXGIAdapter*>(nullptr)); },
                  "Failed to get DXGI adapter version 1", "GetIDXGIAdapter1", E_INVALIDARG);
}

// Three adapters, the last a software one; then a failing call.
TEST(FactoryTest, EnumerationLeavesOutSoftware) {
    const auto factory = DXGIFactory::Create();
    const DXGIAdapter real = factory->GetPrimaryAdapter();
    const LUID luid = real.GetDescription()->adapterLuid;
    EXPECT_TRUE(IsSameLuid(factory->GetAdapter(luid).GetDescription()->adapterLuid, luid));
    ExpectFailure([&] { factory->GetAdapter(LUID{0x7FFFFFF0, 0x7FFFFFF0}); },
                  "Failed to obtain adapter", "GetAdapter", DXGI_ERROR_NOT_FOUND);
    ExpectFailure([] { DXGIFactory::GetFromDevice(nullptr); }, "Failed to get DXGI adapter",
                  "GetFromDevice", E_INVALIDARG);

    CComPtr<IDXGIFactory1> raw;
    ASSERT_EQ(real.Get()->GetParent(IID_PPV_ARGS(&raw)), S_OK);
    HRESULT fourth = DXGI_ERROR_NOT_FOUND;
    const MethodPatch<&IDXGIFactory1::EnumAdapters1> adapters(
        raw, [&](auto original, auto* self, UINT index, auto** out) {
            return index < 3 ? original(self, 0, out) : fourth;
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

    fourth = E_ACCESSDENIED;
    ExpectFailure([&] { factory->EnumerateAdapters(out, false); }, "Failed to obtain adapter: 3",
                  "EnumerateAdapters", E_ACCESSDENIED);
    EXPECT_EQ(out.size(), 2u) << "unchanged";
}

TEST(FactoryTest, SwapChainFailuresNameTheGeneration) {
    const Canvas canvas;
    auto desc = MakeSwapChainDesc(1920, 1080);
    const auto thrown =
        ExpectFailure12([&] { canvas.GetQueue()->CreateSwapChainForHwnd(nullptr, desc); },
                        "Failed to create DXGI swap chain: width = 1920, height = 1080",
                        "CreateSwapChainForHwnd", DXGI_ERROR_INVALID_CALL);
    EXPECT_THAT(thrown.details, HasSubstr("Adapter name: " + canvas.GetDevice()->GetAdapterName()));
    desc.AlphaMode = DXGI_ALPHA_MODE_PREMULTIPLIED;
    ExpectFailure11([&] { D11Device::CreatePrimary()->CreateSwapChainForHwnd(nullptr, desc); },
                    "Alpha blended swapchains must be created with CreateSwapChainForComposition, "
                    "or CreateSwapChainForCoreWindow",
                    "CreateSwapChainForHwnd", DXGI_ERROR_INVALID_CALL);
}

TEST(DebugModeTest, ComesTooLateAfterTheFirstFactory) {
    DXGIFactory::Create();
    ExpectFailure([] { EnableDebugMode(); },
                  "Debug mode must be enabled before creating the first DirectX object",
                  "EnableDebugMode");
}

} // namespace
} // namespace Norvex::DX
