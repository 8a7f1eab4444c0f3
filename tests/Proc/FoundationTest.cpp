// Results, exceptions, the loader, adapters and the factory, on the system as it is.

#include <map>

#include <gmock/gmock.h>

#include "Host/CoreTracker.h"
#include "Platform/ComPtr.h"
#include "Proc/DirectX/Manager/API.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "Proc/DirectX/Manager/DirectXDebug.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using Norvex::Test::MethodPatch;
using Norvex::Test::ThrownBy;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
namespace Slot = Norvex::Test::Slot;

using GetDeviceRemovedReason =
    MethodPatch<Slot::kDeviceGetDeviceRemovedReason, HRESULT(ID3D12Device*)>;
using GetDesc1 = MethodPatch<Slot::kAdapterGetDesc1, HRESULT(IDXGIAdapter1*, DXGI_ADAPTER_DESC1*)>;
using EnumAdapters1 =
    MethodPatch<Slot::kFactoryEnumAdapters1, HRESULT(IDXGIFactory1*, UINT, IDXGIAdapter1**)>;

template <class E>
E Make(const HResult& result) {
    E exception;
    exception << ErrorDescription("Something failed") << result;
    return exception;
}

TEST(ResultTest, TextFormsSayWhatIsKnown) {
    HResultValue value;
    value.result = static_cast<std::int32_t>(0x887A1234);
    EXPECT_EQ(to_string(value), "Code: 0x887A1234.") << "no description: a period";
    value.result = E_OUTOFMEMORY;
    EXPECT_THAT(to_string(value), StartsWith("Code: E_OUTOFMEMORY, Description: "));
    EXPECT_THAT(to_string(value), Not(EndsWith("\n")));

    value.result = static_cast<std::int32_t>(0x887A1234);
    const auto adapter = std::make_shared<AdapterDescription>();
    adapter->name = "Some adapter";
    value.adapter = adapter;
    Core::Utils::MEMINFO info;
    info.memoryLoad = 42;
    info.physicalAvailable = (5ull << 20) - 1;
    info.committedTotal = 7ull << 20;
    value.memoryInfo = std::make_shared<Core::Utils::MEMINFO>(info);
    EXPECT_EQ(to_string(value), "Code: 0x887A1234.\n"
                                "Adapter name: Some adapter.\n"
                                "Process physical memory usage: 0/0 MB (cur/peak),\n"
                                "Process virtual memory usage: 0/0 MB (cur/peak),\n"
                                "Memory load: 42%,\n"
                                "Physical memory: 4/0 MB (avail/total),\n"
                                "Virtual memory: 0/0 MB (avail/total),\n"
                                "Committed memory: 0/7 MB (avail/total).");
}

TEST(ResultTest, AResultIsCapturedFromItsDevice) {
    const auto device = D12Device::CreatePrimary();
    const HResult plain(E_FAIL, device->Get());
    EXPECT_EQ(plain.value().adapter, device->GetDescription());
    EXPECT_EQ(plain.value().memoryInfo, nullptr);
    EXPECT_NE(HResult(E_OUTOFMEMORY, device->Get()).value().memoryInfo, nullptr);
    EXPECT_EQ(HResult(E_OUTOFMEMORY).value().adapter, nullptr);
    EXPECT_GT(HResult(E_OUTOFMEMORY).value().memoryInfo->physicalTotal, 0u);

    const GetDeviceRemovedReason removed(device->Get(),
                                         [](auto, ID3D12Device*) { return E_OUTOFMEMORY; });
    const HResult removal(DXGI_ERROR_DEVICE_REMOVED, device->Get());
    EXPECT_EQ(removal.value().result, E_OUTOFMEMORY);
    EXPECT_EQ(removal.value().memoryInfo, nullptr) << "the call itself did not run out of memory";
}

TEST(ExceptionTest, ClassesSayWhatTheyAre) {
    try {
        boost::throw_exception(Make<DirectX12Exception>(HResult(E_FAIL)), BOOST_CURRENT_LOCATION);
    } catch (const std::exception& e) {
        EXPECT_STREQ(e.what(), "DirectX 12 exception");
    }
    EXPECT_STREQ(DirectXException().what(), "DirectX exception");
    EXPECT_STREQ(DirectX11Exception().what(), "DirectX 11 exception");
    EXPECT_STREQ(D12EncoderException().what(), "DirectX 12 encoder exception");
    EXPECT_EQ(DirectXException().GetResult(), E_FAIL);
    EXPECT_EQ(DirectXException().GetResultDescription(), "Undefined result");
}

TEST(ExceptionTest, AThrowCarriesPlaceAndStack) {
    try {
        ConvertColorSpace(DXGI_COLOR_SPACE_CUSTOM);
        FAIL();
    } catch (const DirectXException& e) {
        EXPECT_EQ(e.GetErrorDescription(), "Unknown DXGI color space");
        EXPECT_EQ(e.GetResult(), E_FAIL);
        EXPECT_STREQ(*boost::get_error_info<boost::throw_function>(e), "ConvertColorSpace");
        EXPECT_STREQ(*boost::get_error_info<boost::throw_file>(e),
                     "Proc/DirectX/Manager/CommonTypes.cpp");
        EXPECT_THAT(*boost::get_error_info<ErrorCallStack>(e), HasSubstr("NorvexDX.dll"));
    }
}

class RecordingTracker : public Proc::ICoreTracker {
public:
    void OnEvent(const std::string& key,
                 const std::map<std::string, std::string>& attributes) override {
        events.emplace_back(key, attributes);
    }
    std::vector<std::pair<std::string, std::map<std::string, std::string>>> events;
};

TEST(ExceptionTest, TheTrackerGetsWhatIsKnown) {
    using Proc::ICoreTracker;
    const boost::intrusive_ptr<RecordingTracker> tracker(new RecordingTracker);
    ICoreTracker::SetTracker(tracker);
    DirectXException().TrackException();
    EXPECT_TRUE(tracker->events.empty()) << "without a result there is nothing to report";

    const auto device = D12Device::CreatePrimary();
    Make<DirectX12Exception>(HResult(static_cast<long>(0x887A0006), device->Get()))
        .TrackException();
    Make<DirectXException>(HResult(E_OUTOFMEMORY)).TrackException();
    ICoreTracker::SetTracker(nullptr);
    ASSERT_EQ(tracker->events.size(), 2u);
    const auto& [key, attributes] = tracker->events[0];
    EXPECT_EQ(key, ICoreTracker::CORE_GPU_EXCEPTION);
    const AdapterDescription& adapter = *device->GetDescription();
    const std::map<std::string, std::string> expected = {
        {ICoreTracker::CORE_EXCEPTION_WHAT, "DirectX 12 exception"},
        {ICoreTracker::CORE_EXCEPTION_DESCRIPTION, "Something failed"},
        {ICoreTracker::CORE_EXCEPTION_HRESULT, "0x887a0006"},
        {ICoreTracker::CORE_GPU_VENDOR, adapter.vendorNames.front()},
        {ICoreTracker::CORE_GPU_DRIVER_VERSION, adapter.GetDriverVersion()},
        {ICoreTracker::CORE_GPU_BRAND_STR, adapter.name},
        {ICoreTracker::CORE_GPU_VIDEO_MEMORY, std::to_string(adapter.dedicatedVideoMemory >> 20)},
    };
    EXPECT_EQ(attributes, expected);
    EXPECT_THAT(tracker->events[1].second.at(ICoreTracker::CORE_EXCEPTION_MEMINFO),
                StartsWith("Process physical memory usage: "));
}

TEST(ValueTypeTest, ColorSpacesConvert) {
    EXPECT_EQ(ConvertColorSpace(DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P709),
              (Conf::ColorSpace{1, 13, 1}));
    EXPECT_EQ(ConvertColorSpace(DXGI_COLOR_SPACE_RGB_FULL_G10_NONE_P709),
              (Conf::ColorSpace{1, 8, 1}));
    EXPECT_EQ(ConvertColorSpace(DXGI_COLOR_SPACE_RGB_FULL_G2084_NONE_P2020),
              (Conf::ColorSpace{9, 16, 9}));
}

TEST(ApiTest, LoadsWhatTheSystemHas) {
    API& api = API::GetInstance();
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

    const auto serialize = [&desc](int version, CComPtr<ID3D10Blob>& blob) {
        CComPtr<ID3D10Blob> errors;
        return API::GetInstance().SerializeRootSignature(
            &desc, static_cast<D3D_ROOT_SIGNATURE_VERSION>(version), blob, errors);
    };
    CComPtr<ID3D10Blob> blob10;
    CComPtr<ID3D10Blob> blob11;
    CComPtr<ID3D10Blob> none;
    EXPECT_EQ(serialize(1, blob10), S_OK);
    EXPECT_EQ(serialize(2, blob11), S_OK);
    EXPECT_EQ(serialize(0, none), E_INVALIDARG);
    EXPECT_EQ(serialize(4, none), E_INVALIDARG);

    // Read the 1.0 form back: the same parameters, without the flags.
    CComPtr<ID3D12VersionedRootSignatureDeserializer> reader;
    ASSERT_EQ(D3D12CreateVersionedRootSignatureDeserializer(
                  blob10->GetBufferPointer(), blob10->GetBufferSize(),
                  __uuidof(ID3D12VersionedRootSignatureDeserializer),
                  reinterpret_cast<void**>(&reader)),
              S_OK);
    const auto* read = reader->GetUnconvertedRootSignatureDesc();
    ASSERT_EQ(read->Version, D3D_ROOT_SIGNATURE_VERSION_1_0);
    ASSERT_EQ(read->Desc_1_0.NumParameters, 3u);
    EXPECT_EQ(read->Desc_1_0.Flags, D3D12_ROOT_SIGNATURE_FLAG_ALLOW_INPUT_ASSEMBLER_INPUT_LAYOUT);
    const auto& table = read->Desc_1_0.pParameters[0].DescriptorTable;
    ASSERT_EQ(table.NumDescriptorRanges, 1u);
    EXPECT_EQ(table.pDescriptorRanges[0].NumDescriptors, 3u);
    EXPECT_EQ(table.pDescriptorRanges[0].BaseShaderRegister, 2u);
    EXPECT_EQ(read->Desc_1_0.pParameters[1].Constants.RegisterSpace, 2u);
    EXPECT_EQ(read->Desc_1_0.pParameters[2].Descriptor.ShaderRegister, 5u);
}

TEST(AdapterTest, VendorsAndVersionsHaveTheirForms) {
    const DXGIAdapter adapter = DXGIFactory::Create()->GetPrimaryAdapter();
    UINT vendorId = 0;
    const GetDesc1 patch(adapter.Get(),
                         [&vendorId](auto original, IDXGIAdapter1* self, DXGI_ADAPTER_DESC1* desc) {
                             const HRESULT result = original(self, desc);
                             desc->VendorId = vendorId;
                             return result;
                         });
    const struct {
        UINT id;
        std::uint32_t vendor;
        std::vector<std::string> names;
    } cases[] = {
        {0x8087, 0x8086, {"Intel"}},      {0x12D2, 0x10DE, {"NVIDIA"}},
        {0x1022, 0x1002, {"AMD", "ATI"}}, {0x045E, 0x1414, {"Microsoft"}},
        {0x5143, 0, {"Unknown_5143"}},    {0x00AB, 0, {"Unknown_  AB"}},
    };
    for (const auto& c : cases) {
        vendorId = c.id;
        const auto description = adapter.GetDescription();
        EXPECT_EQ(description->vendor, c.vendor) << std::hex << c.id;
        EXPECT_EQ(description->vendorNames, c.names) << std::hex << c.id;
    }
    AdapterDescription description;
    EXPECT_EQ(description.GetDriverVersion(), "0.0.0.0");
    description.driverVersion = 31ull << 48 | 15ull << 16 | 3742;
    EXPECT_EQ(description.GetDriverVersion(), "31.0.15.3742");
}

TEST(FactoryTest, FindsAdapters) {
    const auto factory = DXGIFactory::Create();
    EXPECT_GE(factory->GetVersion(), DXGIVersion::DXGI_1_4);
    EXPECT_TRUE(factory->IsCurrent());
    const auto descriptions = factory->EnumerateAdapterDescriptions(false);
    ASSERT_FALSE(descriptions.empty());
    EXPECT_FALSE(descriptions[0]->name.empty());
    const LUID luid = factory->GetPrimaryAdapter().GetDescription()->adapterLuid;
    EXPECT_TRUE(IsSameLuid(luid, descriptions[0]->adapterLuid));
    EXPECT_TRUE(IsSameLuid(factory->GetAdapter(luid).GetDescription()->adapterLuid, luid));

    const auto unknown = ThrownBy([&] { factory->GetAdapter(LUID{0x7FFFFFF0, 0x7FFFFFF0}); });
    EXPECT_EQ(unknown.sentence, "Failed to obtain adapter");
    EXPECT_EQ(unknown.function, "GetAdapter");
    EXPECT_NE(unknown.result, E_FAIL) << "DXGI's own answer";
}

// Two adapters, the second a software one; then a failing call.
TEST(FactoryTest, EnumerationKeepsOrderAndLeavesOutSoftware) {
    const auto factory = DXGIFactory::Create();
    CComPtr<IDXGIFactory1> raw;
    const DXGIAdapter real = factory->GetPrimaryAdapter();
    ASSERT_EQ(real.Get()->GetParent(__uuidof(IDXGIFactory1), reinterpret_cast<void**>(&raw)), S_OK);
    HRESULT third = DXGI_ERROR_NOT_FOUND;
    const EnumAdapters1 adapters(
        raw, [&](auto original, IDXGIFactory1* self, UINT index, IDXGIAdapter1** out) {
            return index < 2 ? original(self, 0, out) : third;
        });
    int call = 0;
    const GetDesc1 patch(real.Get(),
                         [&call](auto original, IDXGIAdapter1* self, DXGI_ADAPTER_DESC1* desc) {
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
    const auto failure = ThrownBy([&] { factory->EnumerateAdapters(out, false); });
    EXPECT_EQ(failure.sentence, "Failed to obtain adapter: 2");
    EXPECT_EQ(failure.result, E_ACCESSDENIED);
    EXPECT_EQ(out.size(), 1u) << "unchanged";
}

TEST(FactoryTest, SwapChainFailuresNameTheGeneration) {
    const auto factory = DXGIFactory::Create();
    const auto device = D12Device::CreatePrimary();
    const CComPtr<ID3D12Device> device12(device->Get());
    CComPtr<ID3D12CommandQueue> queue;
    const D3D12_COMMAND_QUEUE_DESC queueDesc = {};
    ASSERT_EQ(device12->CreateCommandQueue(&queueDesc, __uuidof(ID3D12CommandQueue),
                                           reinterpret_cast<void**>(&queue)),
              S_OK);
    DXGI_SWAP_CHAIN_DESC1 desc = {};
    desc.Width = 1920;
    desc.Height = 1080;
    desc.Format = DXGI_FORMAT_R8G8B8A8_UNORM;
    desc.SampleDesc = {1, 0};
    desc.BufferUsage = DXGI_USAGE_RENDER_TARGET_OUTPUT;
    desc.BufferCount = 2;
    desc.SwapEffect = DXGI_SWAP_EFFECT_FLIP_DISCARD;
    try {
        factory->CreateSwapChainForHwnd(device12, queue, nullptr, desc);
        FAIL();
    } catch (const DirectX12Exception& e) {
        EXPECT_EQ(e.GetErrorDescription(),
                  "Failed to create DXGI swap chain: width = 1920, height = 1080");
        EXPECT_THAT(e.GetResultDescription(),
                    HasSubstr("Adapter name: " + device->GetAdapterName()));
    }
    CComPtr<ID3D11Device> device11;
    ASSERT_EQ(D3D11CreateDevice(nullptr, D3D_DRIVER_TYPE_HARDWARE, nullptr, 0, nullptr, 0,
                                D3D11_SDK_VERSION, &device11, nullptr, nullptr),
              S_OK);
    desc.AlphaMode = DXGI_ALPHA_MODE_PREMULTIPLIED;
    try {
        factory->CreateSwapChainForHwnd(device11, nullptr, desc);
        FAIL();
    } catch (const DirectX11Exception& e) {
        EXPECT_THAT(e.GetErrorDescription(),
                    StartsWith("Alpha blended swapchains must be created with "));
        EXPECT_EQ(e.GetResult(), DXGI_ERROR_INVALID_CALL);
    }
}

TEST(DebugModeTest, ComesTooLateAfterTheFirstFactory) {
    DXGIFactory::Create();
    const auto thrown = ThrownBy([] { EnableDebugMode(); });
    EXPECT_EQ(thrown.sentence,
              "Debug mode must be enabled before creating the first DirectX object");
    EXPECT_EQ(thrown.function, "EnableDebugMode");
    EXPECT_EQ(thrown.result, E_FAIL);
    ReportDirectXLeaks();
}

} // namespace
} // namespace Norvex::DX
