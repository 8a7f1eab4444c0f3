// One program, run on several systems: in debug mode, whether there is a debug layer or not; on
// Windows 7, and with a dxgi.dll that has no CreateDXGIFactory2; in a graphics debugger; under a
// validation layer that must hear a mistake. A suite each.

#include <cstring>
#include <set>
#include <string>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/API.h"
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "Proc/DirectX/Manager/DXGISwapChain.h"
#include "Proc/DirectX/Manager/DirectXDebug.h"
#include "tests/support/Canvas11.h"
#include "tests/support/Device11.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NamedFunction.h"
#include "tests/support/TestWindow.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;

// Messages with the severities and the ids 0 to 4, and one that cannot be fetched.
template <class Message>
struct FakeInfoQueue : FakeObject {
    FakeInfoQueue() {
        Set(&ID3D11InfoQueue::GetMessage,
            [](FakeInfoQueue*, UINT64 index, Message* message, SIZE_T* size) -> HRESULT {
                *size = sizeof(Message);
                if (message != nullptr) {
                    message->Severity = static_cast<decltype(message->Severity)>(index);
                    message->ID = static_cast<decltype(message->ID)>(index);
                    message->pDescription = "Something is wrong";
                    message->DescriptionByteLength = 19; // with the zero at its end
                }
                return index < 5 || message == nullptr ? S_OK : E_INVALIDARG;
            });
        Set(&ID3D11InfoQueue::GetNumStoredMessagesAllowedByRetrievalFilter,
            [](FakeInfoQueue* self) { return self->count; });
        Set(&ID3D11InfoQueue::ClearStoredMessages, [](FakeInfoQueue* self) { self->count = 0; });
    }

    UINT64 count = 6;
};

template <class Queue, class Message, class Device>
void CheckMessages(const Device& device, const std::string& name) {
    const auto fail = [&device] { return Norvex::HResult(E_FAIL, device->Get()).value(); };
    FakeInfoQueue<Message> queue;
    InterfacePatch<std::remove_reference_t<decltype(*device->Get())>, Queue> patch(device->Get(),
                                                                                   nullptr);
    const LogCapture log([&] { // a host's sink may call the library
        patch.fake = &queue;
        fail();
    });
    EXPECT_EQ(fail().adapter, device->GetDescription());
    const auto message = [&](const char* severity, int id) {
        return fmt::format("{}: {}: Something is wrong{} ({})", severity, name, '\0', id);
    };
    EXPECT_THAT(
        log.GetEntries(),
        testing::ElementsAre(
            "ERROR: " + name + ": Failed to get information queue", message("ERROR", 0),
            message("ERROR", 1), message("WARNING", 2), message("INFO", 3), message("INFO", 4),
            fmt::format("ERROR: {0}: I{0}InfoQueue::GetMessage failed with -2147024809", name)));
    EXPECT_EQ(queue.count, 0u);
    EXPECT_EQ(queue.GetReferences(), 0);
}

TEST(DebugModeTest, MessagesReachTheLog) {
    EnableDebugMode();
    const LogCapture log;
    CComPtr<ID3D12Debug> debug;
    const bool hasLayer = SUCCEEDED(API::GetInstance().GetDebugInterface(debug));
    DXGIFactory::Create();
    DXGIFactory::Create();
    const char* const warning =
        "WARNING: The application requested an operation that depends on an SDK "
        "component that is missing or mismatched.\n"
        "To resolve this issue, go to the Settings panel, under System, "
        "Apps & features, Manage optional Features,\n"
        "Add a feature, and then look for \"Graphics Tools\".";
    EXPECT_THAT(log.GetEntries(), testing::Contains(warning).Times(hasLayer ? 0 : 1));

    // Without the layer's component the same level is tried again without it, then the next.
    std::string tried;
    {
        const CreateDevice11Patch patch([&tried](D3D_FEATURE_LEVEL level, UINT flags) {
            tried += fmt::format("{:x} {}, ", +level, flags);
            return DXGI_ERROR_SDK_COMPONENT_MISSING;
        });
        ExpectFailure11([] { D11Device::CreatePrimary(); }, "Failed to create D3D11 device",
                        "Create", DXGI_ERROR_SDK_COMPONENT_MISSING);
    }
    EXPECT_EQ(tried, "b100 34, b100 32, b000 32, a100 32, a000 32, ");
    CheckMessages<ID3D11InfoQueue, D3D11_MESSAGE>(D11Device::CreatePrimary(), "D3D11");
    CheckMessages<ID3D12InfoQueue, D3D12_MESSAGE>(D12Device::CreatePrimary(), "D3D12");
}

// By class and place, the most first; and no longer when they are gone.
TEST(DebugModeTest, LiveObjectsAreToldWithThePlacesWhereTheyWereMade) {
    try {
        EnableDebugMode();
    } catch (const DirectXException&) { // it is on, by the test before
    }
    const auto device = D12Device::CreatePrimary();
    std::vector<boost::intrusive_ptr<D12Buffer>> buffers(3);
    for (auto& buffer : buffers) {
        buffer = device->CreateUploadBuffer(100);
    }
    buffers.pop_back();
    const std::string text = DescribeLiveObjects();
    EXPECT_THAT(text, testing::HasSubstr(" live objects, made at "));
    EXPECT_THAT(text, testing::HasSubstr("\n2 x D12Buffer\n  #0 NorvexDX.dll+0x"));
    EXPECT_THAT(text, testing::HasSubstr(" SystemTest.exe+0x"));
    EXPECT_THAT(text, testing::HasSubstr("\n1 x D12Device\n"));
    buffers.clear();
    EXPECT_THAT(DescribeLiveObjects(), testing::Not(testing::HasSubstr("D12Buffer\n")));
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
}

TEST(OldFactoryTest, TheFactoryOfDxgi11Serves) {
    // The loader is told so before it is made.
    const MethodPatch<0, decltype(GetProcAddress)> patch(
        FindImport(L"NorvexDX.dll", "GetProcAddress"),
        [](auto original, HMODULE module, const char* name) {
            return std::strcmp(name, "CreateDXGIFactory2") == 0 ? nullptr : original(module, name);
        });
    const auto factory = DXGIFactory::Create();
    EXPECT_FALSE(API::GetInstance().IsFactory2Available());
    const LUID luid = factory->GetPrimaryAdapter().GetDescription()->adapterLuid;
    EXPECT_NO_THROW(factory->GetAdapter(luid));
    // Without a result: the search found nothing.
    ExpectFailure([&] { factory->GetAdapter(LUID{0x7FFFFFF0, 0x7FFFFFF0}); },
                  "Failed to obtain adapter", "GetAdapter");

    const TestWindow window({160, 90});
    EXPECT_NO_THROW(DXGISwapChain::Create(D11Device::CreatePrimary(), window.Get())->Present());
}

NamedFunction<HRESULT(UINT, REFIID, void**)> getAnalysis("DXGIGetDebugInterface1");

template <class Object>
struct NamePatch : MethodPatch<&ID3D12Object::SetName, HRESULT(Object*, LPCWSTR)> {
    NamePatch(Object* object, std::set<std::wstring>& names)
        : NamePatch::MethodPatch(object, [&names](auto original, Object* self, LPCWSTR name) {
              names.insert(name);
              return original(self, name);
          }) {}
};

constexpr auto kRgba = DXGI_FORMAT_R8G8B8A8_UNORM;

// On an allocator, an open list, or a context.
template <class AnyCanvas>
void DrawAll(AnyCanvas& canvas, const auto& on) {
    const auto& device = canvas.GetDevice();
    const auto source = canvas.MakeSource({2, 2, std::vector<Color>(4)}, kRgba);
    const auto target = canvas.MakeTarget(2, 2, kRgba);
    const auto luma = canvas.MakeTarget(2, 2, DXGI_FORMAT_R8_UNORM);
    const auto chroma = canvas.MakeTarget(1, 1, DXGI_FORMAT_R8G8_UNORM);
    typename AnyCanvas::FillDraw(device).Encode(on, {}, target, {0, 0, 1, 1});
    typename AnyCanvas::ImageDraw(device).Encode(on, source, target, {}, {});
    typename AnyCanvas::Converter converter(device, {});
    AnyCanvas::Convert(converter, on, AnyCanvas::TextureOf(source), AnyCanvas::TextureOf(luma),
                       AnyCanvas::TextureOf(chroma), DXGI_FORMAT_NV12, Conf::YCbCrMatrix::BT709);
}
constexpr auto kAllDraws = "fill draw()image draw()YCbCr conversion()";

// The debugger comes before the first object.
struct GraphicsDebuggerTest : testing::Test {
    FakeObject analysis;
    const MethodPatch<0, HRESULT(UINT, REFIID, void**)> m_patch{
        (API::GetInstance(), getAnalysis.Get()),
        [this](auto, UINT, REFIID, void** out) { return analysis.GiveTo(out); }};
    std::string events;
};

TEST_F(GraphicsDebuggerTest, SeesNamesAndEventsOnDirect3D12) {
    Canvas canvas;
    const auto& device = canvas.GetDevice();
    const auto queue = device->CreateCommandQueue();
    const auto allocator = queue->CreateCommandAllocator();
    const auto list = allocator->CreateCommandList(nullptr);
    std::set<std::wstring> names;
    const boost::intrusive_ptr parameters(device->CreateShaderParameters());
    parameters->SerializeRootSignature();
    const auto buffer = device->CreateUploadBuffer(1);
    const NamePatch<ID3D12Resource> resources(buffer->GetResource(), names);
    const NamePatch<ID3D12CommandQueue> queues(queue->Get(), names);
    const NamePatch<ID3D12GraphicsCommandList> lists(list->GetGraphics(), names);
    const NamePatch<ID3D12RootSignature> signatures(parameters->GetRootSignature(), names);
    const MethodPatch<&ID3D12GraphicsCommandList::BeginEvent> begin(
        list->GetGraphics(), [&](auto, auto*, UINT kind, const void* data, UINT size) {
            EXPECT_EQ(kind, 1U) << "characters with a zero";
            const std::string name = static_cast<const char*>(data);
            EXPECT_EQ(size, name.size() + 1);
            events += name + "(";
        });
    const MethodPatch<&ID3D12GraphicsCommandList::EndEvent> end(
        list->GetGraphics(), [&](auto, auto*) { events += ")"; });
    D3D12_COMMAND_QUEUE_DESC compute = {};
    compute.Type = D3D12_COMMAND_LIST_TYPE_COMPUTE;
    device->CreateCommandQueue(compute);
    canvas.Record([&](const auto& on) { DrawAll(canvas, on); });
    EXPECT_EQ(events, kAllDraws);
    DrawAll(canvas, list);
    EXPECT_EQ(events, std::string(kAllDraws) + kAllDraws);
    list->Close();
    allocator->Execute();
    EXPECT_THAT(names, testing::IsSupersetOf({L"compute queue", L"direct command list",
                                              L"root signature", L"Matrix Buffer",
                                              L"upload buffer 64 KiB", L"YCbCr params buffer"}));
    events.clear();
    const auto target = canvas.MakeTarget(2, 2, kRgba);
    const boost::intrusive_ptr fill(new D12FillDraw(device));
    const FailingMethod<&ID3D12Device::CreateCommittedResource> noQuad(device->Get(), E_FAIL);
    EXPECT_THROW(fill->Encode(queue->CreateCommandAllocator(), {}, target, {0, 0, 1, 1}),
                 DirectX12Exception);
    EXPECT_EQ(events, "fill draw()");
}

TEST_F(GraphicsDebuggerTest, SeesNamesAndEventsOnDirect3D11) {
    const auto annotation =
        Platform::Query<ID3DUserDefinedAnnotation>(GetImmediateContext(MakeRawDevice11()).p);
    const MethodPatch<&ID3DUserDefinedAnnotation::BeginEvent> begin(
        annotation, [&](auto, auto*, std::wstring_view name) {
            events.append(name.begin(), name.end()).append("(");
            return 0;
        });
    const MethodPatch<&ID3DUserDefinedAnnotation::EndEvent> end(annotation, [&](auto, auto*) {
        events += ")";
        return 0;
    });
    Canvas11 canvas;
    canvas.Record([&](const auto& on) { DrawAll(canvas, on); });
    EXPECT_EQ(events, kAllDraws);
    std::string name(64, ' ');
    UINT size = 64;
    const auto target = canvas.MakeTarget(1, 1, kRgba);
    EXPECT_EQ(target->GetView()->GetPrivateData(WKPDID_D3DDebugObjectName, &size, name.data()),
              S_OK);
    EXPECT_EQ(name.substr(0, size), "render target view");
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
    canvas.Record([&](const auto& on) { draw->Encode(on, source, target, {}, {}); });
    EXPECT_EQ(canvas.Read(target).width, 8u);
}

} // namespace
} // namespace Norvex::DX
