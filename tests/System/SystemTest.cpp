// One program, run on several systems: in debug mode, whether there is a debug layer or not; on
// Windows 7, without d3d12.dll, and with a dxgi.dll that has no CreateDXGIFactory2; under a
// validation layer that must hear a mistake. A suite each.

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <fmt/xchar.h>
#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/API.h"
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "Proc/DirectX/Manager/DXGISwapChain.h"
#include "Proc/DirectX/Manager/DirectXDebug.h"
#include "tests/support/Canvas.h"
#include "tests/support/Device11.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryKey.h"
#include "tests/support/TestWindow.h"
#include "tests/support/Thrown.h"
#include "tests/support/Words.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;

using Entry = std::pair<google::LogSeverity, std::string>;

// Messages with the severities and the ids 0 to 4, one that has no size and one that cannot be
// fetched.
template <class Message>
struct FakeInfoQueue : FakeObject {
    FakeInfoQueue() {
        Set(&ID3D11InfoQueue::GetMessage,
            [](FakeInfoQueue*, UINT64 index, Message* message, SIZE_T* size) -> HRESULT {
                if (index == 5 || (index == 6 && message != nullptr)) {
                    return E_INVALIDARG;
                }
                static constexpr char kText[] = "Something is wrong";
                *size = sizeof(Message);
                if (message != nullptr) {
                    message->Severity = static_cast<decltype(message->Severity)>(index);
                    message->ID = static_cast<decltype(message->ID)>(index);
                    message->pDescription = kText;
                    message->DescriptionByteLength = sizeof(kText);
                }
                return S_OK;
            });
        Set(&ID3D11InfoQueue::GetNumStoredMessagesAllowedByRetrievalFilter,
            [](FakeInfoQueue* self) { return self->count; });
        Set(&ID3D11InfoQueue::ClearStoredMessages, [](FakeInfoQueue* self) { self->count = 0; });
    }

    UINT64 count = 7;
};

template <class Queue, class Message, class Device>
void CheckMessages(const Device& device, const std::string& name) {
    SCOPED_TRACE(name);
    const auto fail = [&device] { return Norvex::HResult(E_FAIL, device->Get()); };
    FakeInfoQueue<Message> queue;
    InterfacePatch<std::remove_reference_t<decltype(*device->Get())>, Queue> patch(device->Get(),
                                                                                   nullptr);
    const LogCapture log([&] { // a host's sink may call the library
        patch.fake = &queue;
        fail();
    });
    EXPECT_EQ(fail().value().adapter, device->GetDescription());
    std::vector<Entry> expected = {
        {google::GLOG_ERROR, name + ": Failed to get information queue"}};
    for (const google::LogSeverity severity :
         {google::GLOG_ERROR, google::GLOG_ERROR, google::GLOG_WARNING, google::GLOG_INFO,
          google::GLOG_INFO}) {
        expected.emplace_back(severity, fmt::format("{}: Something is wrong{} ({})", name, '\0',
                                                    expected.size() - 1));
    }
    const std::string refused =
        fmt::format("{}: I{}InfoQueue::GetMessage failed with -2147024809", name, name);
    expected.resize(expected.size() + 2, Entry(google::GLOG_ERROR, refused));
    EXPECT_EQ(log.GetEntries(), expected);
    EXPECT_EQ(queue.count, 0u);
    EXPECT_EQ(queue.GetReferences(), 0);
}

TEST(DebugModeTest, MessagesReachTheLog) {
    EnableDebugMode();
    EnableDebugMode();

    const LogCapture log;
    CComPtr<ID3D12Debug> debug;
    const bool hasLayer = SUCCEEDED(API::GetInstance().GetDebugInterface(debug));
    DXGIFactory::Create();
    DXGIFactory::Create();
    const char* const warning = "The application requested an operation that depends on an SDK "
                                "component that is missing or mismatched.\n"
                                "To resolve this issue, go to the Settings panel, under System, "
                                "Apps & features, Manage optional Features,\n"
                                "Add a feature, and then look for \"Graphics Tools\".";
    EXPECT_EQ(log.Count(google::GLOG_WARNING, warning), hasLayer ? 0 : 1);

    // Without the layer's component the same level is tried again without it.
    std::vector<UINT> flagsTried;
    const CreateDevice11Patch creation([&](D3D_FEATURE_LEVEL, UINT flags) -> HRESULT {
        flagsTried.push_back(flags & D3D11_CREATE_DEVICE_DEBUG);
        return flagsTried.back() != 0 ? DXGI_ERROR_SDK_COMPONENT_MISSING : S_OK;
    });
    const auto device11 = D11Device::CreatePrimary();
    EXPECT_EQ(device11->GetFeatureLevel(), D3D_FEATURE_LEVEL_11_1);
    EXPECT_THAT(flagsTried, testing::ElementsAre(D3D11_CREATE_DEVICE_DEBUG, 0));
    CheckMessages<ID3D11InfoQueue, D3D11_MESSAGE>(device11, "D3D11");
    CheckMessages<ID3D12InfoQueue, D3D12_MESSAGE>(D12Device::CreatePrimary(), "D3D12");
}

// Direct3D 12 says that it is not there.
void ExpectNoDirect3D12(bool isWindows10) {
    API& api = API::GetInstance();
    EXPECT_EQ(api.IsWindows10OrGreater(), isWindows10);
    EXPECT_FALSE(D12Device::IsAvailable());
    EXPECT_EQ(GetModuleHandleW(L"d3d12.dll"), nullptr);
    CComPtr<ID3D12Debug> debug;
    EXPECT_EQ(api.GetDebugInterface(debug), HRESULT_FROM_WIN32(1285));
    const D3D12_VERSIONED_ROOT_SIGNATURE_DESC desc = {};
    CComPtr<ID3D10Blob> blob;
    EXPECT_EQ(api.SerializeRootSignature(&desc, D3D_ROOT_SIGNATURE_VERSION_1_1, blob, blob),
              API::E_DELAY_LOAD_FAILED);
    ExpectFailure12([] { D12Device::CreatePrimary(); },
                    "DirectX 12 device interface is not supported on this system", "Create",
                    DXGI_ERROR_UNSUPPORTED);
}

TEST(NoDirect3D12Test, Direct3D12IsNotThere) {
    ExpectNoDirect3D12(true);
}

TEST(OldWindowsTest, Direct3D12IsNotThere) {
    ExpectNoDirect3D12(false);
}

TEST(OldWindowsTest, TheSwapChainIsOfOneBuffer) {
    const auto device = D11Device::CreatePrimary();
    const TestWindow window({160, 90});
    const auto swapChain = DXGISwapChain::Create(device, window.Get());
    swapChain->Present();
    EXPECT_FALSE(swapChain->EnableHDRIfSupported(1000.0F, 0.005F, 800.0F, 400.0F));
    CComPtr<IDXGIFactory2> factory;
    ASSERT_EQ(CreateDXGIFactory1(IID_PPV_ARGS(&factory)), S_OK);
    const MethodPatch<&IDXGIFactory2::CreateSwapChainForHwnd> create(
        factory, [](auto, auto*, auto*, HWND, const auto* desc, auto...) -> HRESULT {
            EXPECT_EQ(desc->BufferCount, 1U);
            EXPECT_EQ(desc->SwapEffect, DXGI_SWAP_EFFECT_DISCARD);
            return E_ABORT;
        });
    EXPECT_EQ(ThrownBy([&] { DXGISwapChain::Create(device, window.Get()); }).result, E_ABORT);
    // Only the factory that made the device serves.
    const InterfacePatch<ID3D11Device, IDXGIDevice> none(device->Get(), nullptr);
    ExpectFailure11([&] { device->CreateSwapChainForHwnd(nullptr, {}); },
                    "Failed to get DXGI device", "CreateSwapChainForHwnd", E_NOINTERFACE);
}

TEST(OldWindowsTest, DriverVersionComesFromTheMatchingVideoDevice) {
    const DXGIAdapter adapter = DXGIFactory::Create()->GetPrimaryAdapter();
    const auto before = adapter.GetDescription();
    const std::wstring id = fmt::format(L"PCI\\VEN_{:04X}&DEV_{:04X}&SUBSYS_00000000",
                                        before->vendorId, before->deviceId);
    TemporaryKey key(L"SYSTEM\\CurrentControlSet\\Control\\Video\\{norvex-test}");
    key.Set(L"\\0000", L"MatchingDeviceId", L"pci\\ven_ffff&dev_ffff");
    key.Set(L"\\0000", L"DriverVersion", L"1.2.3.4");
    key.Set(L"\\0001", L"MatchingDeviceId", id);
    key.Set(L"\\0001", L"DriverVersion", L"31.0.15.3742");
    EXPECT_EQ(adapter.GetDescription()->GetDriverVersion(), "31.0.15.3742");
}

TEST(OldFactoryTest, TheFactoryOfDxgi11Serves) {
    // The loader is told so before it is made.
    const ImportPatch patch(
        L"NorvexDX.dll", "GetProcAddress", [](HMODULE module, const char* name) {
            return std::strcmp(name, "CreateDXGIFactory2") == 0 ? nullptr
                                                                : GetProcAddress(module, name);
        });
    const auto factory = DXGIFactory::Create();
    EXPECT_FALSE(API::GetInstance().IsFactory2Available());
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
    const TestWindow window({160, 90});
    DXGISwapChain::Create(D11Device::CreatePrimary(), window.Get())->Present();
    EXPECT_EQ(WordsOf(&made.BufferDesc), "160 90 60 1 28") << "60 frames a second, of RGBA";
    EXPECT_EQ(made.SwapEffect, DXGI_SWAP_EFFECT_FLIP_DISCARD);
    EXPECT_EQ(made.Windowed, TRUE);
}

// Draws from a texture that is still a copy destination. The driver does it, the validation layer
// must complain: the test's entry fails unless it does.
TEST(ForgottenBarrierTest, TheLayerHearsIt) {
    Canvas canvas;
    D12Texture2DDesc desc;
    desc.width = 8;
    desc.height = 8;
    desc.format = DXGI_FORMAT_R8G8B8A8_UNORM;
    desc.initialState = D3D12_RESOURCE_STATE_COPY_DEST;
    const auto& device = canvas.GetDevice();
    const auto source = device->CreateTextureShaderResourceView(device->CreateTexture2D(desc));
    const auto target = canvas.MakeTarget(8, 8, desc.format);
    const boost::intrusive_ptr<D12ImageDraw> draw(new D12ImageDraw(device));
    const auto allocator = canvas.GetQueue()->CreateCommandAllocator();
    draw->Encode(allocator, source, target, std::nullopt, std::nullopt);
    allocator->Execute();
    EXPECT_EQ(canvas.Read(target).width, 8u);
}

} // namespace
} // namespace Norvex::DX
