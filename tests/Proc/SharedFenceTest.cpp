// Direct3D 11 events over Direct3D 12 fences.

#include <algorithm>
#include <array>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D11DeviceContext.h"
#include "Proc/DirectX/Manager/D3D11Resource.h"
#include "Proc/DirectX/Manager/D3D12CommandQueue.h"
#include "tests/support/Device11.h"
#include "tests/support/Threads.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using testing::ElementsAre;

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
    const auto call = [this](auto operation, const EventPtr11& on) {
        D11Device::Attach(raw)->Encode(
            [&](const auto& context) { (context.get()->*operation)(on); });
    };
    const auto refuse = [&](const EventPtr11& on, const std::string& signalSentence,
                            const std::string& waitSentence, long result = E_FAIL) {
        ExpectFailure11([&] { call(&D11DeviceContext::Signal, on); }, signalSentence, "Signal",
                        result);
        ExpectFailure11([&] { call(&D11DeviceContext::Wait, on); }, waitSentence, "Wait", result);
    };
    context4.fake = nullptr;
    constexpr auto kUnsupported = "The device context does not support this operation";
    refuse(event, kUnsupported, kUnsupported);
    context4.fake = &fake;
    refuse(nullptr, "Completion event is null", "Completion event is null");
    fake.answer = E_ACCESSDENIED;
    refuse(event, "Failed to signal fence", "Failed to wait for fence", E_ACCESSDENIED);
    fake.answer = S_OK;
    call(&D11DeviceContext::Signal, event);
    call(&D11DeviceContext::Wait, event);
    event12->PreIncrementValue();
    call(&D11DeviceContext::Wait, event);
    call(&D11DeviceContext::Signal, event);
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
    EXPECT_TRUE(std::is_sorted(fake.signalled.begin(), fake.signalled.end()));
}

// What only some systems have; the fake only counts.
TEST(D3D11FenceTest, SignalsReachTheirValues) {
    const auto device = D11Device::Attach(MakeRawDevice11());
    if (!device->IsFencesSupported()) {
        GTEST_SKIP() << "this system has no ID3D11Device5 and ID3D11DeviceContext4";
    }
    CComPtr<ID3D11Fence> fence;
    ASSERT_EQ(device->Get5()->CreateFence(0, D3D11_FENCE_FLAG_NONE, __uuidof(ID3D11Fence),
                                          reinterpret_cast<void**>(&fence)),
              S_OK);
    FakeFence fake;
    const EventPtr11 event(new D11CompletionEvent(fence, fake.MakeEvent()));
    device->Encode([&](const auto& context) {
        context->Signal(event);
        context->Signal(event);
        context->Wait(event);
        context->Flush();
    });
    for (int i = 0; i < 1000 && fence->GetCompletedValue() < 2; ++i) {
        Sleep(20);
    }
    EXPECT_EQ(fence->GetCompletedValue(), 2u);
}

} // namespace
} // namespace Norvex::DX
