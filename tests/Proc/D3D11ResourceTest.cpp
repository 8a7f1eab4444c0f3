// Direct3D 11 resources, the context that records on them, and events over Direct3D 12 fences.

#include "Proc/DirectX/Manager/D3D11Resource.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <thread>
#include <type_traits>
#include <vector>

#include <fmt/ranges.h>
#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D11DeviceContext.h"
#include "Proc/DirectX/Manager/D3D12CommandQueue.h"
#include "tests/support/Canvas11.h"
#include "tests/support/Device11.h"
#include "tests/support/DeviceTest.h"
#include "tests/support/Threads.h"
#include "tests/support/Thrown.h"
#include "tests/support/Words.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using testing::ElementsAre;

constexpr auto kRgba8 = DXGI_FORMAT_R8G8B8A8_UNORM;
constexpr auto kTypeless = DXGI_FORMAT_R8G8B8A8_TYPELESS;

class D3D11ResourceTest : public Device11Test {
protected:
    template <class Function>
    static void Encode(const Function& function) {
        s_device->Encode([&](const auto& context) { function(*context); });
    }
    static CComPtr<ID3D11Texture2D> MakeTexture(UINT bindFlags = 0, DXGI_FORMAT format = kRgba8) {
        D3D11_TEXTURE2D_DESC desc = MakeTextureDesc11(8, 8, format);
        desc.BindFlags = bindFlags;
        return s_device->CreateTexture2D(desc, nullptr);
    }
};

TEST_F(D3D11ResourceTest, TexturesAddTheirBindFlag) {
    D3D11_TEXTURE2D_DESC desc = MakeTextureDesc11(20, 10, kRgba8);
    desc.BindFlags = D3D11_BIND_SHADER_RESOURCE;
    const auto target = D11RenderTexture2D::Create(s_device, desc);
    EXPECT_EQ(target->GetRect(), (Rect2DT<long>{0, 0, 20, 10}));
    desc.BindFlags = D3D11_BIND_RENDER_TARGET;
    const auto source = D11ShaderTexture2D::Create(s_device, desc, nullptr);
    EXPECT_EQ(source->GetSize(), (Size2DT<long>{20, 10}));
    EXPECT_NO_THROW(D11ShaderTexture2D(target->GetTexture(), {}));
    EXPECT_NO_THROW(D11RenderTexture2D(source->GetTexture(), {}));
}

// There is no view of a typeless texture that is of no format of its own.
TEST_F(D3D11ResourceTest, ViewsAreOfTheFormatAskedFor) {
    const auto typeless =
        MakeTexture(D3D11_BIND_SHADER_RESOURCE | D3D11_BIND_RENDER_TARGET, kTypeless);
    EXPECT_NO_THROW(D11RenderTexture2D(typeless, kRgba8));
    EXPECT_NO_THROW(D11ShaderTexture2D(typeless, kRgba8));
    EXPECT_NO_THROW(s_device->CreateShaderResourceView(
        typeless, CD3D11_SHADER_RESOURCE_VIEW_DESC(D3D11_SRV_DIMENSION_TEXTURE2D, kRgba8)));
    EXPECT_NO_THROW(s_device->CreateRenderTargetView(
        typeless, CD3D11_RENDER_TARGET_VIEW_DESC(D3D11_RTV_DIMENSION_TEXTURE2D, kRgba8)));
    EXPECT_NO_THROW(s_device->CreateDepthStencilView(
        MakeTexture(D3D11_BIND_DEPTH_STENCIL, DXGI_FORMAT_R24G8_TYPELESS),
        {DXGI_FORMAT_D24_UNORM_S8_UINT, D3D11_DSV_DIMENSION_TEXTURE2D, 0, {}}));
}

// What sharing adds to a texture, which this system lacks: a keyed mutex and a handle.
struct FakeSharing : FakeObject {
    FakeSharing() {
        Set(&IDXGIKeyedMutex::AcquireSync,
            [](FakeSharing* self, UINT64 key, DWORD time) -> HRESULT {
                self->acquired = {key, time};
                return WAIT_TIMEOUT; // no failure
            });
        Set(&IDXGIKeyedMutex::ReleaseSync, [](FakeSharing* self, UINT64 key) -> HRESULT {
            self->released = key;
            return S_OK;
        });
        Set(&IDXGIResource1::CreateSharedHandle,
            [](FakeSharing* self, const SECURITY_ATTRIBUTES*, DWORD access, LPCWSTR,
               HANDLE* handle) -> HRESULT {
                *handle = access == 9 ? self : nullptr;
                return S_OK;
            });
    }

    std::pair<UINT64, DWORD> acquired;
    std::atomic<UINT64> released = 0;
};

TEST_F(D3D11ResourceTest, SharedTexturesPassFlagsKeyTimeAndAccess) {
    const auto texture = MakeTexture();
    UINT miscFlags = 0;
    const MethodPatch<&ID3D11Device::CreateTexture2D> create(
        Raw(), [&](auto, auto*, const auto* desc, auto*, ID3D11Texture2D** out) {
            miscFlags = desc->MiscFlags;
            return CComPtr<ID3D11Texture2D>(texture).CopyTo(out);
        });
    FakeSharing sharing;
    InterfacePatch<ID3D11Texture2D, IDXGIKeyedMutex, IDXGIResource1> patch(texture, &sharing);
    auto shared = D11SharedTexture2D::Create(s_device, {});
    EXPECT_EQ(miscFlags, 0x900u);
    std::jthread other;
    Encode([&](D11DeviceContext&) {
        RunThreads(1, [&](unsigned) { shared->AcquireSync(7, 250); }); // has no turn on the context
        other = std::jthread([&shared] { shared->ReleaseSync(8); });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(sharing.released, 0u) << "the context was used by two threads";
    });
    other.join();
    EXPECT_EQ(sharing.acquired, std::pair(UINT64{7}, DWORD{250}));
    EXPECT_EQ(sharing.released, 8u);
    EXPECT_EQ(shared->CreateSharedHandle(9), &sharing);

    FakeObject refusing;
    patch.fake = &refusing;
    shared = D11SharedTexture2D::Create(s_device, {});
    const auto share = [&shared] { shared->CreateSharedHandle(9); };
    ExpectFailure11([&] { shared->AcquireSync(7, 250); }, "Failed to acquire texture key mutex",
                    "AcquireSync", E_NOTIMPL);
    ExpectFailure11([&] { shared->ReleaseSync(8); }, "Failed to release texture key mutex",
                    "ReleaseSync", E_NOTIMPL);
    ExpectFailure11(share, "Failed to create shared handle", "CreateSharedHandle", E_NOTIMPL);
    patch.fake = nullptr;
    ExpectFailure11(share, "Failed to query interface", "CreateSharedHandle", E_NOINTERFACE);
    ExpectFailure11([&] { D11SharedTexture2D::Create(s_device, {}); },
                    "Failed to get texture key mutex", "GetKeyedMutex", E_NOINTERFACE);
    const auto older = D11Device::Attach(MakeRawDevice11(D3D_FEATURE_LEVEL_11_0));
    NORVEX_EXPECT_REFUSED11("Shared texture not supported", D11SharedTexture2D::Create(older, {}));
    shared.reset();
    EXPECT_EQ(sharing.GetReferences(), 0);
}

TEST_F(D3D11ResourceTest, BuffersAreAsLargeAsTheirContents) {
    const auto check = [](const auto& made, UINT size, UINT bindFlags, UINT count) {
        D3D11_BUFFER_DESC desc = {};
        made->GetBuffer()->GetDesc(&desc);
        EXPECT_EQ(WordsOf(&desc), fmt::format("{} 0 {}", size, bindFlags));
        EXPECT_EQ(made->GetCount(), count);
    };
    const std::vector<std::uint8_t> bytes(60);
    check(D11VertexBuffer::Create(s_device, bytes.data(), 20, 3), 60, D3D11_BIND_VERTEX_BUFFER, 3);
    check(D11IndexBuffer::Create(s_device, std::vector<UINT16>(6)), 12, D3D11_BIND_INDEX_BUFFER, 6);
    check(D11IndexBuffer::Create(s_device, std::vector<UINT32>(6)), 24, D3D11_BIND_INDEX_BUFFER, 6);
    const auto refuse = [](const char* size, const void* data, UINT stride, UINT count) {
        ExpectFailure11([=] { D11VertexBuffer::Create(s_device, data, stride, count); },
                        std::string("Failed to create ID3D11Buffer: byteWidth = ") + size, "Create",
                        E_INVALIDARG);
    };
    refuse("4295032832", bytes.data(), 65536, 65537); // 65536 in 32 bits
    refuse("0", bytes.data(), 20, 0);
    refuse("60", nullptr, 20, 3);
}

TEST_F(D3D11ResourceTest, NullIsRefusedByName) {
    const auto texture = MakeTexture();
    constexpr auto kNoDevice = "DirectX 11 device is null";
    NORVEX_EXPECT_REFUSED11(kNoDevice, D11RenderTexture2D::Create(nullptr, {}));
    NORVEX_EXPECT_REFUSED11(kNoDevice, D11ShaderTexture2D::Create(nullptr, {}, nullptr));
    NORVEX_EXPECT_REFUSED11(kNoDevice, D11SharedTexture2D::Create(nullptr, {}));
    NORVEX_EXPECT_REFUSED11(kNoDevice, D11VertexBuffer::Create(nullptr, "", 1, 1));
    NORVEX_EXPECT_REFUSED11("Texture is null", D11RenderTexture2D(nullptr, {}));
    NORVEX_EXPECT_REFUSED11("Texture is null", D11ShaderTexture2D(nullptr, {}));
    NORVEX_EXPECT_REFUSED11("Texture is null", D11SharedTexture2D(nullptr));
    NORVEX_EXPECT_REFUSED11("Shader bytecode is null", s_device->CreateInputLayout({}, nullptr));
    Encode([&](D11DeviceContext& c) {
        NORVEX_EXPECT_REFUSED11("Resource is null", c.Map(nullptr, 0, D3D11_MAP_READ, {}));
        NORVEX_EXPECT_REFUSED11("Resource is null", c.Unmap(nullptr, 0));
        NORVEX_EXPECT_REFUSED11("Resource is null", c.CopyResource(texture, nullptr));
        NORVEX_EXPECT_REFUSED11("Resource is null", c.CopyResource(nullptr, texture));
        NORVEX_EXPECT_REFUSED11("Invalid upload data",
                                c.UpdateSubresource(texture, 0, nullptr, nullptr, 1, 1));
        NORVEX_EXPECT_REFUSED11("View is null", c.ClearDepthStencilView(nullptr, {}, 0, 0));
        NORVEX_EXPECT_REFUSED11("View is null", c.ClearRenderTargetView(nullptr, {}));
        NORVEX_EXPECT_REFUSED11("Vertex buffer is null", c.Draw(nullptr));
        NORVEX_EXPECT_REFUSED11("Index buffer is null", c.DrawIndexed(nullptr));
        EXPECT_NO_THROW(c.VSSetShader(nullptr));
        EXPECT_NO_THROW(c.PSSetShader(nullptr));
    });
}

// A number itself, the first element of an array, whether there is an object.
template <class Argument>
std::string TextOf(Argument argument) {
    if constexpr (std::is_pointer_v<Argument>) {
        using Element = std::remove_cv_t<std::remove_pointer_t<Argument>>;
        if constexpr (std::is_arithmetic_v<Element> || std::is_pointer_v<Element>) {
            return argument != nullptr ? TextOf(*argument) : "none";
        }
        return argument != nullptr ? "one" : "none";
    } else {
        return fmt::format("{}", +argument);
    }
}

// Stands in for methods and notes their arguments.
template <auto... methods>
struct CallRecord : MethodPatch<methods>... {
    CallRecord(IUnknown* object, std::string& calls)
        : MethodPatch<methods>(object, [&calls](auto, auto*, auto... arguments) {
              calls += fmt::format("{}; ", fmt::join({TextOf(arguments)...}, " "));
          })... {}
};

// Of what drawing an image does not use.
TEST_F(D3D11ResourceTest, ArgumentsReachTheContext) {
    using Context = ID3D11DeviceContext;
    const auto raw = GetImmediateContext(Raw());
    const MethodPatch<&Context::Map> map(
        raw, [](auto, auto*, auto*, UINT, auto, UINT flags, auto*) {
            return flags == D3D11_MAP_FLAG_DO_NOT_WAIT ? S_OK : E_ACCESSDENIED;
        });
    std::string calls;
    const CallRecord<&Context::UpdateSubresource, &Context::ClearDepthStencilView,
                     &Context::DrawIndexed, &Context::IASetVertexBuffers,
                     &Context::IASetIndexBuffer, &Context::OMSetBlendState,
                     &Context::OMSetDepthStencilState, &Context::OMSetRenderTargets>
        record(raw, calls);
    const auto texture = MakeTexture();
    const auto vertices = D11VertexBuffer::Create(s_device, "abcd", 2, 2);
    const auto indices = D11IndexBuffer::Create(s_device, std::vector<UINT16>(6));
    const D3D11_BOX box = {1, 2, 0, 3, 4, 1};
    FakeObject fake;
    auto* const view = fake.As<ID3D11DepthStencilView>();
    Encode([&](D11DeviceContext& context) {
        context.UpdateSubresource(texture, 1, &box, "abcd", 12, 34);
        context.ClearDepthStencilView(view, D3D11_CLEAR_STENCIL, 0.5F, 3);
        context.DrawIndexed(indices);
        context.IASetVertexBuffers({vertices, nullptr});
        context.IASetVertexBuffer(nullptr);
        context.IASetIndexBuffer(indices);
        context.IASetIndexBuffer(D11IndexBuffer::Create(s_device, std::vector<UINT32>(3)));
        context.IASetIndexBuffer(nullptr);
        context.OMSetBlendState(nullptr, {0.5F});
        context.OMSetBlendState(nullptr);
        context.OMSetDepthStencilState(nullptr, 3);
        context.OMSetRenderTargets({nullptr, nullptr}, view);
        EXPECT_EQ(calls, "one 1 one one 12 34; one 2 0.5 3; 6 0 0; 0 2 one 2 0; 0 1 none 0 0; "
                         "one 57 0; one 42 0; none 0 0; none 0.5 4294967295; "
                         "none none 4294967295; none 3; 2 none one; ");
        context.Map(texture, 0, D3D11_MAP_READ, D3D11_MAP_FLAG_DO_NOT_WAIT);
        ExpectFailure11([&] { context.Map(texture, 0, D3D11_MAP_READ, {}); },
                        "Failed to map resource", "Map", E_ACCESSDENIED);
    });
}

using EventPtr11 = boost::intrusive_ptr<D11CompletionEvent>;
using EventPtr12 = boost::intrusive_ptr<D12CompletionEvent>;

// All that a shared fence needs, where the system has none of it: one object that is the device of
// either generation, the context of Direct3D 11, and the fence, which notes its values.
struct FakeFence : FakeObject {
    FakeFence() {
        Set(&ID3D12Device::CreateFence, [](FakeFence* self, UINT64, D3D12_FENCE_FLAGS, REFIID,
                                           void** out) { return self->GiveTo(out); });
        Set(&ID3D12Device::CreateSharedHandle,
            [](FakeFence*, ID3D12DeviceChild*, const SECURITY_ATTRIBUTES*, DWORD, LPCWSTR,
               HANDLE* handle) -> HRESULT {
                *handle = CreateEventW(nullptr, FALSE, FALSE, nullptr);
                return S_OK;
            });
        Set(&ID3D11Device5::OpenSharedFence,
            [](FakeFence* self, HANDLE handle, REFIID, void** out) {
                self->opened = handle;
                return SUCCEEDED(self->answer) ? self->GiveTo(out) : self->answer;
            });
        Set(&ID3D11DeviceContext4::Signal, [](FakeFence* self, ID3D11Fence*, UINT64 value) {
            std::this_thread::yield(); // so that others overtake, where they may
            self->signalled.push_back(value);
            return self->answer;
        });
        Set(&ID3D11DeviceContext4::Wait, [](FakeFence* self, ID3D11Fence*, UINT64 value) {
            self->awaited.push_back(value);
            return self->answer;
        });
    }

    EventPtr12 MakeEvent(D3D12_FENCE_FLAGS flags = D3D12_FENCE_FLAG_NONE) {
        return EventPtr12(new D12CompletionEvent(CComPtr(As<ID3D12Device>()), flags));
    }

    HRESULT answer = S_OK;
    HANDLE opened = nullptr;
    std::vector<UINT64> signalled;
    std::vector<UINT64> awaited;
};

struct D3D11EventTest : testing::Test {
    void TearDown() override {
        event.reset();
        event12.reset();
        EXPECT_EQ(fake.GetReferences(), 0);
    }

    FakeFence fake;
    CComPtr<ID3D11Device> raw = MakeRawDevice11();
    InterfacePatch<ID3D11Device, ID3D11Device5> device5{raw, &fake};
    InterfacePatch<ID3D11DeviceContext, ID3D11DeviceContext4> context4{GetImmediateContext(raw),
                                                                       &fake};
    EventPtr12 event12 = fake.MakeEvent();
    EventPtr11 event{new D11CompletionEvent(CComPtr(fake.As<ID3D11Fence>()), event12)};
};

TEST_F(D3D11EventTest, OpensWhatCanBeShared) {
    const auto shared = fake.MakeEvent(D3D12_FENCE_FLAG_SHARED);
    const auto open = [this](const EventPtr12& of) {
        return D11CompletionEvent::OpenShared(D11Device::Attach(raw), of);
    };
    const auto refuse = [&](const EventPtr12& of, const char* sentence, long result = E_FAIL) {
        ExpectFailure11([&] { open(of); }, sentence, "OpenShared", result);
    };
    for (FakeObject** answer : {&device5.fake, &context4.fake}) {
        *answer = nullptr;
        refuse(shared, "Shared fence not supported");
        *answer = &fake;
    }
    NORVEX_EXPECT_REFUSED11("DirectX 11 device is null",
                            D11CompletionEvent::OpenShared(nullptr, shared));
    NORVEX_EXPECT_REFUSED11("Completion event is null", D11CompletionEvent(nullptr, shared));
    refuse(nullptr, "Completion event is null");
    refuse(event12, "D12 completion event not shared");
    fake.answer = E_ACCESSDENIED;
    refuse(shared, "Failed to create fence", E_ACCESSDENIED);
    fake.answer = S_OK;
    const auto opened = open(shared);
    EXPECT_EQ(fake.opened, shared->GetSharedHandle());
    EXPECT_EQ(opened->GetFence(), fake.As<ID3D11Fence>());
    EXPECT_EQ(opened->PreIncrementValue(), 1u);
    EXPECT_EQ(shared->PreIncrementValue(), 2u);
    EXPECT_EQ(opened->GetValue(), 2u);
}

TEST_F(D3D11EventTest, SignalsAndWaitsDrawFromOneSequence) {
    constexpr auto kUnsupported = "The device context does not support this operation";
    context4.fake = nullptr;
    D11Device::Attach(raw)->Encode([&](const auto& context) {
        NORVEX_EXPECT_REFUSED11(kUnsupported, context->Signal(event));
        NORVEX_EXPECT_REFUSED11(kUnsupported, context->Wait(event));
    });
    context4.fake = &fake;
    D11Device::Attach(raw)->Encode([&](const auto& context) {
        NORVEX_EXPECT_REFUSED11("Completion event is null", context->Signal(nullptr));
        NORVEX_EXPECT_REFUSED11("Completion event is null", context->Wait(nullptr));
        fake.answer = E_ACCESSDENIED;
        ExpectFailure11([&] { context->Signal(event); }, "Failed to signal fence", "Signal",
                        E_ACCESSDENIED);
        ExpectFailure11([&] { context->Wait(event); }, "Failed to wait for fence", "Wait",
                        E_ACCESSDENIED);
        fake.answer = S_OK;
        context->Signal(event);
        context->Wait(event);
        event12->PreIncrementValue();
        context->Wait(event);
        context->Signal(event);
    });
    EXPECT_THAT(fake.signalled, ElementsAre(1u, 1u, 3u)) << "again what was not signalled";
    EXPECT_THAT(fake.awaited, ElementsAre(0u, 1u, 2u));
}

// Two devices on two threads; a fence that goes down never wakes who waits.
TEST_F(D3D11EventTest, SignalsOfAllThreadsFollowInOrder) {
    const std::array devices = {D11Device::Attach(raw), D11Device::Attach(MakeRawDevice11())};
    RunThreads(2, [&](unsigned thread) {
        for (int i = 0; i < 5000; ++i) {
            devices.at(thread)->Encode([&](const auto& context) { context->Signal(event); });
        }
    });
    EXPECT_EQ(fake.signalled.size(), 10'000u);
    EXPECT_TRUE(std::ranges::is_sorted(fake.signalled));
}

// What only some systems have; the fake only counts.
TEST(D3D11FenceTest, SignalsReachTheirValues) {
    const auto device = D11Device::Attach(MakeRawDevice11());
    if (!device->IsFencesSupported()) {
        GTEST_SKIP() << "this system has no ID3D11Device5 and ID3D11DeviceContext4";
    }
    CComPtr<ID3D11Fence> fence;
    EXPECT_EQ(device->Get5()->CreateFence(0, D3D11_FENCE_FLAG_NONE, IID_PPV_ARGS(&fence)), S_OK);
    FakeFence fake;
    const EventPtr11 event(new D11CompletionEvent(fence, fake.MakeEvent()));
    device->Encode([&](const auto& context) {
        context->Signal(event);
        context->Wait(event);
        context->Flush();
    });
    for (int i = 0; i < 1000 && fence->GetCompletedValue() < 1; ++i) {
        Sleep(20);
    }
    EXPECT_EQ(fence->GetCompletedValue(), 1u);
}

} // namespace
} // namespace Norvex::DX
