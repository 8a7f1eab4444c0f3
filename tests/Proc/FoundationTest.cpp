// Results, exceptions, the loader, adapters and the factory, on the system as it is.

#include <locale>

#include <gmock/gmock.h>

#include "Platform/ComPtr.h"
#include "Proc/DirectX/Manager/API.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "Proc/DirectX/Manager/DirectXDebug.h"
#include "tests/support/Canvas.h"
#include "tests/support/Device11.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RecordingTracker.h"
#include "tests/support/TemporaryKey.h"
#include "tests/support/TestWindow.h"
#include "tests/support/Thrown.h"
#include "tests/support/Words.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

using GetDesc1 = MethodPatch<&IDXGIAdapter1::GetDesc1>;

constexpr auto kInvalidCall = static_cast<long>(0x887A0001);

// In every field another number of MiB, less than one byte short of the next.
Core::Utils::MEMINFO MakeMemoryInfo() {
    const auto inMiB = [](std::uint64_t count) { return ((count + 1) << 20) - 1; };
    return {42,       inMiB(1), inMiB(2), inMiB(3), inMiB(4),      inMiB(5),
            inMiB(6), inMiB(7), inMiB(8), inMiB(9), inMiB(1234567)};
}
constexpr auto kMemoryText = "Process physical memory usage: 7/8 MB (cur/peak),\n"
                             "Process virtual memory usage: 9/1234567 MB (cur/peak),\n"
                             "Memory load: 42%,\n"
                             "Physical memory: 1/2 MB (avail/total),\n"
                             "Virtual memory: 5/6 MB (avail/total),\n"
                             "Committed memory: 3/4 MB (avail/total).";

HResultValue MakeResult(long result) {
    AdapterDescription adapter;
    adapter.name = "Some adapter";
    adapter.vendorNames = {"AMD", "ATI"};
    adapter.driverVersion = 31ull << 48 | 3742;
    adapter.dedicatedVideoMemory = 4096ull << 20;
    return {static_cast<std::int32_t>(result), std::make_shared<AdapterDescription>(adapter),
            std::make_shared<Core::Utils::MEMINFO>(MakeMemoryInfo())};
}

TEST(ResultTest, TextFormsSayWhatIsKnown) {
    const std::string known = to_string(HResultValue{E_OUTOFMEMORY, nullptr, nullptr});
    EXPECT_THAT(known, StartsWith("Code: E_OUTOFMEMORY, Description: "));
    EXPECT_THAT(known, Not(EndsWith("\n")));
    EXPECT_EQ(to_string(MakeResult(static_cast<long>(0x887A1234))),
              std::string("Code: 0x887A1234.\nAdapter name: Some adapter.\n") + kMemoryText);
}

TEST(ResultTest, AResultIsCapturedFromItsDevice) {
    const auto device = D12Device::CreatePrimary();
    const LogCapture log;
    {
        const MethodPatch<kQueryInterface> unasked(device->Get(), [](auto...) -> HRESULT {
            ADD_FAILURE() << "nobody asks for messages without debug mode";
            return E_NOINTERFACE;
        });
        const HResult plain(E_FAIL, device->Get());
        EXPECT_EQ(plain.value().adapter, device->GetDescription());
        EXPECT_EQ(plain.value().memoryInfo, nullptr);
    }
    EXPECT_NE(HResult(E_OUTOFMEMORY, device->Get()).value().memoryInfo, nullptr);
    for (const auto& value : {HResult(E_OUTOFMEMORY).value(),
                              HResult(E_OUTOFMEMORY, CComPtr<ID3D11Device>()).value()}) {
        EXPECT_EQ(value.adapter, nullptr);
        EXPECT_GT(value.memoryInfo->physicalTotal, 0u);
    }
    const FailingMethod<&ID3D12Device::GetDeviceRemovedReason> removed(device->Get(),
                                                                       E_OUTOFMEMORY);
    const HResult removal(DXGI_ERROR_DEVICE_REMOVED, device->Get());
    EXPECT_EQ(removal.value().result, E_OUTOFMEMORY);
    EXPECT_EQ(removal.value().memoryInfo, nullptr) << "the call itself did not run out of memory";
    const ImportPatch refusal(L"NorvexHost.dll", "GlobalMemoryStatusEx",
                              [](void*) { return FALSE; });
    EXPECT_EQ(HResult(E_OUTOFMEMORY).value().memoryInfo, nullptr) << "the system does not tell";
    EXPECT_THAT(log.GetEntries(), testing::IsEmpty());
}

TEST(ExceptionTest, SaysWhatItIsWithPlaceAndStack) {
    EXPECT_STREQ(DirectX11Exception().what(), "DirectX 11 exception");
    EXPECT_STREQ(DirectX12Exception().what(), "DirectX 12 exception");
    EXPECT_EQ(DirectXException().GetResultDescription(), "Undefined result");
    const auto exception = D12EncoderException() << HResult(kInvalidCall);
    EXPECT_STREQ(exception.what(), "DirectX 12 encoder exception");
    EXPECT_EQ(exception.GetResult(), kInvalidCall);
    EXPECT_EQ(boost::get_error_info<ErrorResult>(exception)->result, kInvalidCall);
    try {
        ConvertColorSpace(DXGI_COLOR_SPACE_CUSTOM);
        FAIL();
    } catch (const DirectXException& e) {
        EXPECT_EQ(e.GetResult(), E_FAIL);
        EXPECT_STREQ(*boost::get_error_info<boost::throw_file>(e),
                     "Proc/DirectX/Manager/CommonTypes.cpp");
        const std::string stack = *boost::get_error_info<ErrorCallStack>(e);
        EXPECT_THAT(stack, HasSubstr("ConvertColorSpace"));
        EXPECT_THAT(stack, Not(HasSubstr("SlotBitmap"))) << "a stranger, exported nearby";
    }
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
    (DirectX12Exception() << ErrorDescription("Something failed")
                          << ErrorResult(MakeResult(kInvalidCall)))
        .TrackException();
    (DirectXException() << HResult(S_OK)).TrackException();
    std::locale::global(before);
    ICoreTracker::SetTracker(nullptr);

    const RecordingTracker::Attributes expected = {
        {ICoreTracker::CORE_EXCEPTION_WHAT, "DirectX 12 exception"},
        {ICoreTracker::CORE_EXCEPTION_DESCRIPTION, "Something failed"},
        {ICoreTracker::CORE_EXCEPTION_HRESULT, "0x887a0001"},
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

TEST(ValueTypeTest, ColorSpacesConvert) {
    using Space = Conf::ColorSpace;
    EXPECT_EQ(ConvertColorSpace(DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P709), (Space{1, 13, 1}));
    EXPECT_EQ(ConvertColorSpace(DXGI_COLOR_SPACE_RGB_FULL_G10_NONE_P709), (Space{1, 8, 1}));
    EXPECT_EQ(ConvertColorSpace(DXGI_COLOR_SPACE_RGB_FULL_G2084_NONE_P2020), (Space{9, 16, 9}));
    ExpectFailure([] { ConvertColorSpace(DXGI_COLOR_SPACE_CUSTOM); }, "Unknown DXGI color space",
                  "ConvertColorSpace");
}

TEST(ApiTest, LoadsWhatTheSystemHas) {
    const API& api = API::GetInstance();
    EXPECT_TRUE(api.IsWindows10OrGreater());
    EXPECT_TRUE(api.IsD12Loaded());
    EXPECT_TRUE(api.IsCompilerLoaded());
    EXPECT_TRUE(api.IsFactory2Available());
    EXPECT_EQ(API::E_DELAY_LOAD_FAILED, HRESULT_FROM_WIN32(1285));
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

    const auto serialize = [&desc](int version) {
        CComPtr<ID3D10Blob> blob;
        CComPtr<ID3D10Blob> errors;
        const HRESULT result = API::GetInstance().SerializeRootSignature(
            &desc, static_cast<D3D_ROOT_SIGNATURE_VERSION>(version), blob, errors);
        return std::pair(result, blob);
    };
    const auto blob = serialize(1).second;
    EXPECT_EQ(serialize(2).first, S_OK);
    EXPECT_EQ(serialize(0).first, E_INVALIDARG);
    EXPECT_EQ(serialize(4).first, E_INVALIDARG);
    // Of a type that nobody knows: read as a table it would have four billion ranges.
    parameters[1].InitAsConstants(~0u, ~0u, ~0u);
    parameters[1].ParameterType = static_cast<D3D12_ROOT_PARAMETER_TYPE>(5);
    EXPECT_EQ(serialize(1).first, E_INVALIDARG);

    // Read the 1.0 form back: the same parameters, without the flags.
    CComPtr<ID3D12VersionedRootSignatureDeserializer> reader;
    ASSERT_EQ(D3D12CreateVersionedRootSignatureDeserializer(
                  blob->GetBufferPointer(), blob->GetBufferSize(), IID_PPV_ARGS(&reader)),
              S_OK);
    const auto& read = *reader->GetUnconvertedRootSignatureDesc();
    ASSERT_EQ(read.Version, D3D_ROOT_SIGNATURE_VERSION_1_0);
    const auto& [count, parametersRead, samplers, sampler, flags] = read.Desc_1_0;
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(flags, desc.Desc_1_1.Flags);
    const auto& table = parametersRead[0].DescriptorTable;
    EXPECT_EQ(WordsOf(table.pDescriptorRanges, table.NumDescriptorRanges), "0 3 2 0 -1");
    EXPECT_EQ(WordsOf(&parametersRead[1].Constants), "1 2 4");
    EXPECT_EQ(WordsOf(&parametersRead[2].Descriptor), "5 6");
}

TEST(AdapterTest, DescriptionsTellWhatDxgiAndTheRegistryKnow) {
    const DXGIAdapter adapter = DXGIFactory::Create()->GetPrimaryAdapter();
    const DXGI_ADAPTER_DESC1 known = {L"Kart\u00E9", 0, 2, 3, 4, 5, 6, 7, {8, 9}, 10};
    UINT vendorId = 0;
    HRESULT result = S_OK;
    const GetDesc1 patch(adapter.Get(), [&](auto, auto*, auto* desc) {
        *desc = known;
        desc->VendorId = vendorId;
        return result;
    });
    const auto check = [&](UINT id, const std::string& expected) {
        vendorId = id;
        const auto description = adapter.GetDescription();
        EXPECT_EQ(
            fmt::format("{:X} {}", description->vendor, fmt::join(description->vendorNames, " ")),
            expected);
    };
    check(0x8087, "8086 Intel");
    check(0x12D2, "10DE NVIDIA");
    check(0x1022, "1002 AMD ATI");
    check(0x045E, "1414 Microsoft");
    check(0x5143, "0 Unknown_5143");
    check(0x00AB, "0 Unknown_  AB");
    EXPECT_EQ(adapter.GetDescription()->GetDriverVersion(), "0.0.0.0");

    // Half of the id is not enough, nor is a value of another type.
    const auto add = [](wchar_t name, std::uint64_t luid, const auto& version) {
        auto key = std::make_unique<TemporaryKey>(
            std::wstring(L"SOFTWARE\\Microsoft\\DirectX\\{norvex-test-") + name);
        key->Set(L"", L"AdapterLuid", luid);
        key->Set(L"", L"DriverVersion", version);
        return key;
    };
    const auto lowHalf = add(L'0', 8, std::uint64_t{1});
    const auto highHalf = add(L'1', 9ull << 32, std::uint64_t{2});
    const auto text = add(L'2', 9ull << 32 | 8, std::wstring(L"1.2.3.4"));
    const auto right = add(L'3', 9ull << 32 | 8, 31ull << 48 | 15ull << 16 | 3742);
    const AdapterDescription d = *adapter.GetDescription();
    EXPECT_EQ(d.GetDriverVersion(), "31.0.15.3742");
    EXPECT_EQ(d.name, "Kart\xC3\xA9");
    EXPECT_THAT((std::array<std::uint64_t, 8>{d.vendorId, d.deviceId, d.subSysId, d.revision,
                                              d.dedicatedVideoMemory, d.dedicatedSystemMemory,
                                              d.sharedSystemMemory, d.flags}),
                testing::ElementsAre(0xABu, 2u, 3u, 4u, 5u, 6u, 7u, 10u));
    EXPECT_TRUE(IsSameLuid(d.adapterLuid, {8, 9}));

    result = E_ACCESSDENIED;
    const char* const kSentence = "Failed to get DXGI adapter description";
    ExpectFailure([&] { adapter.GetDescription(); }, kSentence, "GetDescription", E_ACCESSDENIED);
    ExpectFailure([] { DXGIAdapter().GetDescription(); }, kSentence, "GetDescription",
                  E_INVALIDARG);
    ExpectFailure([] { DXGIAdapter(static_cast<IDXGIAdapter*>(nullptr)); },
                  "Failed to get DXGI adapter version 1", "GetIDXGIAdapter1", E_INVALIDARG);
}

TEST(FactoryTest, FindsAdapters) {
    const auto factory = DXGIFactory::Create();
    EXPECT_GE(factory->GetVersion(), DXGIVersion::DXGI_1_4);
    EXPECT_TRUE(factory->IsCurrent());
    const auto primary = factory->GetPrimaryAdapter().GetDescription();
    EXPECT_FALSE(primary->name.empty());
    const auto luid = primary->adapterLuid;
    const auto descriptions = factory->EnumerateAdapterDescriptions(false);
    EXPECT_TRUE(IsSameLuid(descriptions.at(0)->adapterLuid, luid));
    EXPECT_TRUE(IsSameLuid(factory->GetAdapter(luid).GetDescription()->adapterLuid, luid));

    ExpectFailure([&] { factory->GetAdapter(LUID{0x7FFFFFF0, 0x7FFFFFF0}); },
                  "Failed to obtain adapter", "GetAdapter", DXGI_ERROR_NOT_FOUND);
    ExpectFailure([] { DXGIFactory::GetFromDevice(nullptr); }, "Failed to get DXGI adapter",
                  "GetFromDevice", E_INVALIDARG);
}

// Two adapters, the second a software one; then a failing call.
TEST(FactoryTest, EnumerationKeepsOrderAndLeavesOutSoftware) {
    CComPtr<IDXGIFactory1> raw;
    const DXGIAdapter real = DXGIFactory::Create()->GetPrimaryAdapter();
    ASSERT_EQ(real.Get()->GetParent(IID_PPV_ARGS(&raw)), S_OK);
    const auto factory = DXGIFactory::Create();
    HRESULT third = DXGI_ERROR_NOT_FOUND;
    const MethodPatch<&IDXGIFactory1::EnumAdapters1> adapters(
        raw, [&](auto original, auto* self, UINT index, auto** out) {
            return index < 2 ? original(self, 0, out) : third;
        });
    int call = 0;
    const GetDesc1 patch(real.Get(), [&](auto original, auto* self, auto* desc) {
        const HRESULT result = original(self, desc);
        desc->Flags = call++ % 2 == 1 ? UINT{DXGI_ADAPTER_FLAG_SOFTWARE} : 0;
        return result;
    });
    std::vector<DXGIAdapter> out(7);
    factory->EnumerateAdapters(out, false);
    EXPECT_EQ(out.size(), 2u);
    factory->EnumerateAdapters(out, true);
    EXPECT_EQ(out.size(), 1u);

    third = E_ACCESSDENIED;
    ExpectFailure([&] { factory->EnumerateAdapters(out, false); }, "Failed to obtain adapter: 2",
                  "EnumerateAdapters", E_ACCESSDENIED);
    EXPECT_EQ(out.size(), 1u) << "unchanged";
}

TEST(FactoryTest, SwapChainFailuresNameTheGeneration) {
    const auto factory = DXGIFactory::Create();
    const Canvas canvas;
    const CComPtr device(canvas.GetDevice()->Get());
    auto desc = MakeSwapChainDesc(1920, 1080);
    const auto create = [&](const auto&... devices) {
        return [&factory, &desc, devices...] {
            factory->CreateSwapChainForHwnd(devices..., nullptr, desc);
        };
    };
    std::string sentence = "Failed to create DXGI swap chain: width = 1920, height = 1080";
    constexpr auto kFunction = "CreateSwapChainForHwnd";
    constexpr auto kResult = DXGI_ERROR_INVALID_CALL;
    const auto thrown =
        ExpectFailure12(create(device, canvas.GetQueue()->Get()), sentence, kFunction, kResult);
    EXPECT_THAT(thrown.details, HasSubstr("Adapter name: " + canvas.GetDevice()->GetAdapterName()));
    const CComPtr<ID3D11Device> none;
    ExpectFailure11(create(none), sentence, kFunction, kResult);
    desc.AlphaMode = DXGI_ALPHA_MODE_PREMULTIPLIED;
    sentence = "Alpha blended swapchains must be created with CreateSwapChainForComposition, or "
               "CreateSwapChainForCoreWindow";
    ExpectFailure11(create(MakeRawDevice11()), sentence, kFunction, kResult);
}

TEST(DebugModeTest, ComesTooLateAfterTheFirstFactory) {
    DXGIFactory::Create();
    ExpectFailure([] { EnableDebugMode(); },
                  "Debug mode must be enabled before creating the first DirectX object",
                  "EnableDebugMode");
    ReportDirectXLeaks();
}

} // namespace
} // namespace Norvex::DX
