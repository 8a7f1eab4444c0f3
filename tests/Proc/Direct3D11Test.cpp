// Direct3D 11: devices, and the registry of devices of either generation (one an adapter, found
// again while it lives); resources, the context that records on them, and events.

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include "Proc/DirectX/Manager/D3D11Query.h"
#include "Proc/DirectX/Manager/D3D12CommandQueue.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "tests/support/Canvas11.h"
#include "tests/support/Device11.h"
#include "tests/support/DeviceTest.h"
#include "tests/support/Threads.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using std::chrono::steady_clock;
using ContextPtr = boost::intrusive_ptr<D11DeviceContext>;

constexpr auto kRgba8 = DXGI_FORMAT_R8G8B8A8_UNORM;

template <class Type>
struct DeviceRegistryTest : testing::Test {
    using Raw = std::remove_pointer_t<decltype(std::declval<Type>().Get())>;
    boost::intrusive_ptr<Type> device = Type::CreatePrimary();
};
struct NameOfDevice {
    template <class Type>
    static std::string GetName(int) {
        return std::is_same_v<Type, D11Device> ? "D3D11" : "D3D12";
    }
};
using Devices = testing::Types<D11Device, D12Device>;
TYPED_TEST_SUITE(DeviceRegistryTest, Devices, NameOfDevice);

TYPED_TEST(DeviceRegistryTest, OneDeviceAnAdapterWhileItLivesAndWorks) {
    using Raw = typename TestFixture::Raw;
    auto& device = this->device;
    const CComPtr<Raw> raw(device->Get());
    EXPECT_EQ(TypeParam::CreatePrimary(), device);
    {
        const MethodPatch<&IDXGIAdapter1::GetDesc1> patch(
            DXGIFactory::Create()->GetPrimaryAdapter().Get(),
            [](auto original, IDXGIAdapter1* self, auto* desc) {
                const HRESULT result = original(self, desc);
                desc->AdapterLuid.LowPart ^= 1;
                return result;
            });
        EXPECT_NE(TypeParam::CreatePrimary(), device) << "it is of another adapter";
    }
    {
        // All devices share the method table: only this one is removed.
        const MethodPatch<&Raw::GetDeviceRemovedReason> patch(
            raw.p, [&raw](auto original, Raw* self) {
                return self == raw.p ? DXGI_ERROR_DEVICE_HUNG : original(self);
            });
        EXPECT_NE(TypeParam::CreatePrimary(), device);
        EXPECT_EQ(TypeParam::Find(raw), device);
    }
    device.reset();
    EXPECT_EQ(TypeParam::Find(raw), nullptr);
    EXPECT_EQ((raw.p->AddRef(), raw.p->Release()), 1u) << "the test's own reference is the last";
}

// Each thread finds or makes the device and drops it at once; a dead object handed out would crash.
TYPED_TEST(DeviceRegistryTest, CreateFindAndLastReleaseMayRace) {
    this->device.reset();
    std::atomic<typename TestFixture::Raw*> last{nullptr};
    constexpr int kAtLeast = 5; // on a busy machine too
    std::atomic<int> made{0};
    const auto until = steady_clock::now() + std::chrono::seconds(3);
    RunThreads(4, [&](unsigned thread) {
        while (steady_clock::now() < until || made < kAtLeast) {
            const auto found = thread % 2 == 0 ? TypeParam::CreatePrimary() : TypeParam::Find(last);
            if (found != nullptr) {
                last = found->Get();
                EXPECT_FALSE(found->GetAdapterName().empty());
                ++made;
            }
        }
    });
}

TEST(D3D11DeviceTest, AttachedDevicesAreFoundUntilTheirLastRelease) {
    NORVEX_EXPECT_REFUSED11("DirectX 11 device is null", D11Device::Attach(nullptr));
    auto raw = MakeRawDevice11();
    auto first = D11Device::Attach(raw);
    auto second = D11Device::Attach(raw);
    first.reset();
    EXPECT_EQ(D11Device::Find(raw), second);
    EXPECT_EQ(D11Device::CreatePrimary(), second);
    {
        const MethodPatch<&ID3D11Device::GetCreationFlags> patch(
            raw, [](auto...) { return D3D11_CREATE_DEVICE_SINGLETHREADED; });
        EXPECT_NE(D11Device::CreatePrimary(), second);
    }
}

TEST(D3D11DeviceTest, AttachWaitsWhileCreateLooksAtTheRegistry) {
    const auto raw = MakeRawDevice11();
    std::future<boost::intrusive_ptr<D11Device>> attached;
    const CreateDevice11Patch patch([&](auto...) -> HRESULT {
        attached = std::async(std::launch::async, [&raw] { return D11Device::Attach(raw); });
        EXPECT_EQ(attached.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout);
        return S_OK;
    });
    EXPECT_NE(D11Device::CreatePrimary(), nullptr);
    EXPECT_EQ(attached.get()->Get(), raw.p);
}

// Two wrappers of one device have one lock.
TEST(D3D11DeviceTest, EncodeLetsOneThreadInAtATime) {
    auto device = D11Device::Attach(MakeRawDevice11());
    auto again = D11Device::Attach(device->Get());
    std::atomic<int> inside{0};
    RunThreads(4, [&](unsigned thread) {
        for (int round = 0; round < 1000; ++round) {
            (thread % 2 == 0 ? device : again)->Encode([&](const ContextPtr& outer) {
                EXPECT_EQ(++inside, 1);
                std::this_thread::yield();
                device->Encode([&](const ContextPtr& inner) { EXPECT_EQ(inner, outer); });
                --inside;
            });
        }
    });
    again.reset();
    device->Encode([&](const ContextPtr& context) {
        device.reset(); // the last reference
        context->Flush();
    });
}

class D3D11ResourceTest : public testing::Test {
protected:
    void TearDown() override {
        m_texture.Release();
        ReleaseLast(std::move(m_device));
    }

    D3D11_TEXTURE2D_DESC m_desc = MakeTextureDesc11(8, 8, kRgba8);
    boost::intrusive_ptr<D11Device> m_device = D11Device::CreatePrimary();
    CComPtr<ID3D11Texture2D> m_texture = m_device->CreateTexture2D(m_desc, nullptr);
};

TEST_F(D3D11ResourceTest, TexturesAddTheirBindFlagAndViewsHaveTheirFormat) {
    m_desc.BindFlags = D3D11_BIND_SHADER_RESOURCE;
    const auto target = D11RenderTexture2D::Create(m_device, m_desc);
    EXPECT_NO_THROW(D11ShaderTexture2D(target->GetTexture(), {}));
    m_desc.BindFlags = D3D11_BIND_RENDER_TARGET;
    const auto source = D11ShaderTexture2D::Create(m_device, m_desc, nullptr);
    EXPECT_NO_THROW(D11RenderTexture2D(source->GetTexture(), {}));

    // There is no view of a typeless texture that is of no format of its own.
    m_desc.BindFlags |= D3D11_BIND_SHADER_RESOURCE;
    m_desc.Format = DXGI_FORMAT_R8G8B8A8_TYPELESS;
    const auto typeless = m_device->CreateTexture2D(m_desc, nullptr);
    EXPECT_NO_THROW(D11RenderTexture2D(typeless, kRgba8));
    EXPECT_NO_THROW(D11ShaderTexture2D(typeless, kRgba8));
}

// A view of nothing would end the process elsewhere.
TEST_F(D3D11ResourceTest, ViewsOfNothingAreRefused) {
    const auto expect = [](const auto& make) { EXPECT_EQ(ThrownBy(make).result, E_INVALIDARG); };
    expect([&] { m_device->CreateShaderResourceView(nullptr); });
    expect([&] { m_device->CreateShaderResourceView(nullptr, {}); });
    expect([&] { m_device->CreateRenderTargetView(nullptr, {}); });
    expect([&] { m_device->CreateDepthStencilView(nullptr, {}); });
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

// Notes the arguments of the methods that it is told to have.
struct NotingFake : FakeObject {
    template <class... Methods>
    explicit NotingFake(Methods... methods) {
        (Note(methods), ...);
    }
    ~NotingFake() { EXPECT_EQ(GetReferences(), 0); }

    HRESULT answer = S_OK;
    std::string calls;

private:
    template <class Result, class Object, class... Args>
    void Note(Result (WINAPI Object::*method)(Args...)) {
        Set(method, &Noted<Result, Args...>);
    }
    template <class Result, class... Args>
    static Result WINAPI Noted(NotingFake* self, Args... args) {
        self->calls += fmt::format("{}; ", fmt::join({TextOf(args)...}, " "));
        return static_cast<Result>(self->answer);
    }
};

// Sharing adds a keyed mutex and a handle to a texture, which this system lacks.
TEST_F(D3D11ResourceTest, SharedTexturesPassFlagsKeyTimeAndAccess) {
    const auto older = D11Device::Attach(MakeRawDevice11(D3D_FEATURE_LEVEL_11_0));
    NORVEX_EXPECT_REFUSED11("Shared texture not supported", D11SharedTexture2D::Create(older, {}));
    const MethodPatch<&ID3D11Device::CreateTexture2D> create(
        m_device->Get(), [&](auto, auto*, const auto* desc, auto*, ID3D11Texture2D** out) {
            EXPECT_EQ(desc->MiscFlags, 0x900u);
            return CComPtr<ID3D11Texture2D>(m_texture).CopyTo(out);
        });
    NotingFake sharing(&IDXGIKeyedMutex::AcquireSync, &IDXGIKeyedMutex::ReleaseSync,
                       &IDXGIResource1::CreateSharedHandle);
    const InterfacePatch<ID3D11Texture2D, IDXGIKeyedMutex, IDXGIResource1> patch(m_texture,
                                                                                 &sharing);
    const auto shared = D11SharedTexture2D::Create(m_device, {});
    const auto acquire = [&shared] { shared->AcquireSync(7, 250); };
    const auto release = [&shared] { shared->ReleaseSync(8); };
    const auto share = [&shared] { shared->CreateSharedHandle(9); };
    std::jthread other;
    sharing.answer = WAIT_TIMEOUT; // no failure
    m_device->Encode([&](const ContextPtr&) {
        RunThreads(1, [&](unsigned) { acquire(); }); // has no turn on the context
        other = std::jthread(release);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(sharing.calls, "7 250; ") << "the context was used by two threads";
    });
    other.join();
    share();
    EXPECT_EQ(sharing.calls, "7 250; 8; none 9 none none; ");
    sharing.answer = E_ABORT;
    ExpectFailure11(acquire, "Failed to acquire texture key mutex", "AcquireSync", E_ABORT);
    ExpectFailure11(release, "Failed to release texture key mutex", "ReleaseSync", E_ABORT);
    ExpectFailure11(share, "Failed to create shared handle", "CreateSharedHandle", E_ABORT);
}

TEST_F(D3D11ResourceTest, BuffersHoldAllTheirContentsOrAreRefused) {
    D3D11_BUFFER_DESC desc = {};
    D11IndexBuffer::Create(m_device, std::vector<UINT32>(6))->GetBuffer()->GetDesc(&desc);
    EXPECT_EQ(desc.ByteWidth, 24u);
    const auto refuse = [this](const std::string& size, const void* data, UINT count) {
        ExpectFailure11([=, this] { D11VertexBuffer::Create(m_device, data, 65536, count); },
                        "Failed to create ID3D11Buffer: byteWidth = " + size, "Create",
                        E_INVALIDARG);
    };
    refuse("4295032832", "", 65537); // 65536 in 32 bits
    refuse("0", "", 0);
    refuse("65536", nullptr, 1);
}

// Of what drawing an image does not use.
TEST_F(D3D11ResourceTest, ArgumentsReachTheContext) {
    using Context = ID3D11DeviceContext;
    NotingFake fake(&Context::UpdateSubresource, &Context::ClearDepthStencilView,
                    &Context::DrawIndexed, &Context::IASetVertexBuffers, &Context::IASetIndexBuffer,
                    &Context::OMSetBlendState, &Context::OMSetDepthStencilState,
                    &Context::OMSetRenderTargets, &Context::Map, &Context::CopySubresourceRegion);
    const auto raw = MakeRawDevice11();
    const MethodPatch<&ID3D11Device::GetImmediateContext> patch(
        raw, [&fake](auto, auto*, Context** out) { fake.GiveTo(reinterpret_cast<void**>(out)); });
    const auto vertices = D11VertexBuffer::Create(m_device, "abcd", 2, 2);
    const auto indices = D11IndexBuffer::Create(m_device, std::vector<UINT16>(6));
    const D3D11_BOX box = {1, 2, 0, 3, 4, 1};
    auto* const view = fake.As<ID3D11DepthStencilView>();
    D11Device::Attach(raw)->Encode([&](const ContextPtr& pointer) {
        D11DeviceContext& context = *pointer;
        context.UpdateSubresource(m_texture, 1, &box, "abcd", 12, 34);
        context.ClearDepthStencilView(view, D3D11_CLEAR_STENCIL, 0.5F, 3);
        context.DrawIndexed(indices);
        context.IASetVertexBuffers({vertices, nullptr});
        context.IASetVertexBuffer(nullptr);
        context.IASetIndexBuffer(indices);
        context.IASetIndexBuffer(D11IndexBuffer::Create(m_device, std::vector<UINT32>(3)));
        context.IASetIndexBuffer(nullptr);
        context.OMSetBlendState(nullptr, {0.5F});
        context.OMSetBlendState(nullptr);
        context.OMSetDepthStencilState(nullptr, 3);
        context.OMSetRenderTargets({nullptr, nullptr}, view);
        context.Map(m_texture, 2, D3D11_MAP_READ, D3D11_MAP_FLAG_DO_NOT_WAIT);
        context.CopySubresourceRegion(m_texture, 1, 2, 3, 4, m_texture, 5, &box);
        EXPECT_EQ(context.Get(), fake.As<Context>());
        EXPECT_EQ(fake.calls, "one 1 one one 12 34; one 2 0.5 3; 6 0 0; 0 2 one 2 0; "
                              "0 1 none 0 0; one 57 0; one 42 0; none 0 0; none 0.5 4294967295; "
                              "none none 4294967295; none 3; 2 none one; one 2 1 1048576 one; "
                              "one 1 2 3 4 one 5 one; ");
    });
}

// A fill is counted, and timed within its frequency.
TEST_F(D3D11ResourceTest, QueriesCountAndTime) {
    const auto target = D11RenderTexture2D::Create(m_device, m_desc);
    const boost::intrusive_ptr fill(new D11FillDraw(m_device));
    const auto samples = m_device->CreateQuery(D3D11_QUERY_OCCLUSION);
    const auto statistics = m_device->CreateQuery(D3D11_QUERY_PIPELINE_STATISTICS);
    const auto clock = m_device->CreateQuery(D3D11_QUERY_TIMESTAMP_DISJOINT);
    const auto before = m_device->CreateQuery(D3D11_QUERY_TIMESTAMP);
    const auto after = m_device->CreateQuery(D3D11_QUERY_TIMESTAMP);
    const auto isDone = m_device->CreateQuery(D3D11_QUERY_EVENT);
    const auto await = [](const auto& read) {
        auto value = read();
        while (!value) {
            value = read();
        }
        return *value;
    };
    m_device->Encode([&](const ContextPtr& context) {
        for (const auto& query : {clock, samples, statistics}) {
            context->BeginQuery(query);
        }
        context->EndQuery(before);
        fill->Encode(context, {1, 0, 0, 1}, target, {2, 3, 7, 9});
        for (const auto& query : {after, statistics, samples, clock, isDone}) {
            context->EndQuery(query);
        }
        const auto numberOf = [&](const auto& query) {
            return await([&] { return context->GetUint64Stats(query); });
        };
        // First, because a Vulkan driver under DXVK tells 0 of a query that it has not begun yet.
        EXPECT_EQ(numberOf(isDone), 1u);
        EXPECT_EQ(numberOf(samples), 25u) << "the rest is cut off";
        EXPECT_LE(numberOf(before), numberOf(after));
        EXPECT_EQ(await([&] { return context->GetPipelineStats(statistics); }).IAVertices, 4u);
        EXPECT_GT(await([&] { return context->GetTimestampDisjoint(clock); }).Frequency, 0u);
        NORVEX_EXPECT_REFUSED11("Invalid query type", context->GetUint64Stats(clock));
    });
}

// All that a shared fence needs, where the system has none of it: one object that is the device of
// either generation, the context of Direct3D 11, and the fence, which notes its values.
struct FakeFence : NotingFake {
    FakeFence() : NotingFake(&ID3D11DeviceContext4::Signal, &ID3D11DeviceContext4::Wait) {
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
    }

    HANDLE opened = nullptr;
};

TEST(D3D11EventTest, SharedFencesAreOpenedAndCountOneSequence) {
    FakeFence fake;
    const auto raw = MakeRawDevice11();
    const InterfacePatch<ID3D11Device, ID3D11Device5> device5(raw, &fake);
    InterfacePatch<ID3D11DeviceContext, ID3D11DeviceContext4> context4(GetImmediateContext(raw),
                                                                       &fake);
    auto device = D11Device::Attach(raw);
    const boost::intrusive_ptr shared(
        new D12CompletionEvent(CComPtr(fake.As<ID3D12Device>()), D3D12_FENCE_FLAG_SHARED));
    const auto open = [&] { return D11CompletionEvent::OpenShared(device, shared); };
    NORVEX_EXPECT_REFUSED11("Completion event is null",
                            D11CompletionEvent::OpenShared(device, nullptr));
    fake.answer = E_ACCESSDENIED;
    ExpectFailure11(open, "Failed to create fence", "OpenShared", E_ACCESSDENIED);
    fake.answer = S_OK;
    const auto event = open();
    EXPECT_EQ(fake.opened, shared->GetSharedHandle());

    const auto signal = [&] { device->Encode([&](const auto& on) { on->Signal(event); }); };
    const auto wait = [&] { device->Encode([&](const auto& on) { on->Wait(event); }); };
    fake.answer = E_ACCESSDENIED;
    ExpectFailure11(signal, "Failed to signal fence", "Signal", E_ACCESSDENIED);
    ExpectFailure11(wait, "Failed to wait for fence", "Wait", E_ACCESSDENIED);
    fake.answer = S_OK;
    signal();
    wait();
    EXPECT_EQ(shared->PreIncrementValue(), 2u);
    wait();
    signal();
    EXPECT_EQ(event->PreIncrementValue(), 4u);
    EXPECT_EQ(fake.calls, "one 1; one 0; one 1; one 1; one 2; one 3; ");

    device.reset();
    context4.fake = nullptr;
    device = D11Device::Attach(raw);
    constexpr auto kUnsupported = "The device context does not support this operation";
    ExpectFailure11(open, "Shared fence not supported", "OpenShared");
    ExpectFailure11(signal, kUnsupported, "Signal");
    ExpectFailure11(wait, kUnsupported, "Wait");
}

} // namespace
} // namespace Norvex::DX
