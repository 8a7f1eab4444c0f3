// Direct3D 11 events over Direct3D 12 fences.

#include <algorithm>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D11DeviceContext.h"
#include "Proc/DirectX/Manager/D3D11Resource.h"
#include "Proc/DirectX/Manager/D3D12CommandQueue.h"
#include "tests/support/Device11.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using testing::ElementsAre;

using ContextPtr = boost::intrusive_ptr<D11DeviceContext>;
using EventPtr11 = boost::intrusive_ptr<D11CompletionEvent>;
using EventPtr12 = boost::intrusive_ptr<D12CompletionEvent>;

// All that a shared fence needs, where the system has none of it: one object that is the device of
// either generation, the context of Direct3D 11, and the fence, which notes its values.
struct FakeFence : FakeObject {
    FakeFence() {
        Set(SlotOf(&ID3D12Device::CreateFence), [](FakeFence* self, UINT64, D3D12_FENCE_FLAGS, REFIID,
                                         void** out) { return self->GiveTo(out); });
        Set(SlotOf(&ID3D12Device::CreateSharedHandle),
            [](FakeFence*, ID3D12DeviceChild*, const SECURITY_ATTRIBUTES*, DWORD, LPCWSTR,
               HANDLE* handle) -> HRESULT {
                *handle = CreateEventW(nullptr, FALSE, FALSE, nullptr);
                return S_OK;
            });
        Set(SlotOf(&ID3D11Device5::OpenSharedFence), [](FakeFence* self, HANDLE handle, REFIID, void** out) {
            self->opened = handle;
            return SUCCEEDED(self->answer) ? self->GiveTo(out) : self->answer;
        });
        Set(SlotOf(&ID3D11DeviceContext4::Signal), [](FakeFence* self, ID3D11Fence*, UINT64 value) {
            std::this_thread::yield(); // so that others overtake, where they may
            self->signalled.push_back(value);
            return self->answer;
        });
        Set(SlotOf(&ID3D11DeviceContext4::Wait), [](FakeFence* self, ID3D11Fence*, UINT64 value) {
            self->awaited.push_back(value);
            return self->answer;
        });
    }

    EventPtr12 MakeEvent(D3D12_FENCE_FLAGS flags) {
        return EventPtr12(new D12CompletionEvent(CComPtr(As<ID3D12Device>()), flags));
    }

    HRESULT answer = S_OK;
    HANDLE opened = nullptr;
    std::vector<UINT64> signalled;
    std::vector<UINT64> awaited;
};

TEST(D3D11EventTest, OpensWhatCanBeShared) {
    FakeFence fake;
    const auto raw = MakeRawDevice11();
    const auto shared = fake.MakeEvent(D3D12_FENCE_FLAG_SHARED);
    const auto open = [&](const EventPtr12& event) {
        return [device = D11Device::Attach(raw), event] {
            return D11CompletionEvent::OpenShared(device, event);
        };
    };
    {
        const FencePatch none(raw, nullptr, nullptr);
        ExpectFailure11(open(shared), "Shared fence not supported", "OpenShared");
    }
    const FencePatch patch(raw, &fake, &fake);
    ExpectFailure11([&] { D11CompletionEvent::OpenShared(nullptr, shared); },
                    "DirectX 11 device is null", "OpenShared");
    ExpectFailure11(open(nullptr), "Completion event is null", "OpenShared");
    ExpectFailure11([&] { D11CompletionEvent(nullptr, shared); }, "Completion event is null",
                    "D11CompletionEvent");
    ExpectFailure11(open(fake.MakeEvent(D3D12_FENCE_FLAG_NONE)), "D12 completion event not shared",
                    "OpenShared");
    fake.answer = E_ACCESSDENIED;
    ExpectFailure11(open(shared), "Failed to create fence", "OpenShared", E_ACCESSDENIED);
    fake.answer = S_OK;
    const int references = fake.GetReferences();
    const auto first = open(shared)();
    EXPECT_EQ(fake.opened, shared->GetSharedHandle());
    EXPECT_EQ(first->GetFence(), fake.As<ID3D11Fence>());
    EXPECT_EQ(first->PreIncrementValue(), 1u);
    EXPECT_EQ(open(shared)()->PreIncrementValue(), 2u);
    EXPECT_EQ(shared->PreIncrementValue(), 3u);
    EXPECT_EQ(first->GetValue(), 3u);
    EXPECT_EQ(fake.GetReferences(), references + 1) << "the first event's";
}

TEST(D3D11EventTest, SignalsAndWaitsDrawFromOneSequence) {
    FakeFence fake;
    const auto raw = MakeRawDevice11();
    const auto event12 = fake.MakeEvent(D3D12_FENCE_FLAG_NONE);
    const EventPtr11 event(new D11CompletionEvent(CComPtr(fake.As<ID3D11Fence>()), event12));
    const auto call = [&raw](auto operation, const EventPtr11& on) {
        return [&raw, operation, on] {
            D11Device::Attach(raw)->Encode(
                [&](const ContextPtr& context) { (context.get()->*operation)(on); });
        };
    };
    const auto signal = call(&D11DeviceContext::Signal, event);
    const auto wait = call(&D11DeviceContext::Wait, event);
    {
        const FencePatch none(raw, nullptr, nullptr);
        constexpr auto kUnsupported = "The device context does not support this operation";
        ExpectFailure11(signal, kUnsupported, "Signal");
        ExpectFailure11(wait, kUnsupported, "Wait");
    }
    const FencePatch patch(raw, &fake, &fake);
    ExpectFailure11(call(&D11DeviceContext::Signal, nullptr), "Completion event is null", "Signal");
    ExpectFailure11(call(&D11DeviceContext::Wait, nullptr), "Completion event is null", "Wait");
    fake.answer = E_ACCESSDENIED;
    ExpectFailure11(signal, "Failed to signal fence", "Signal", E_ACCESSDENIED);
    ExpectFailure11(wait, "Failed to wait for fence", "Wait", E_ACCESSDENIED);
    fake.answer = S_OK;
    signal();
    wait();
    event12->PreIncrementValue();
    wait();
    signal();
    EXPECT_THAT(fake.signalled, ElementsAre(1u, 1u, 3u)) << "again what was not signalled";
    EXPECT_THAT(fake.awaited, ElementsAre(0u, 1u, 2u));
}

// Two devices on two threads; a fence that goes down never wakes who waits.
TEST(D3D11EventTest, SignalsOfAllThreadsFollowInOrder) {
    FakeFence fake;
    const auto event12 = fake.MakeEvent(D3D12_FENCE_FLAG_NONE);
    const EventPtr11 event(new D11CompletionEvent(CComPtr(fake.As<ID3D11Fence>()), event12));
    const auto raw = MakeRawDevice11();
    const FencePatch patch(raw, &fake, &fake);
    std::vector<std::jthread> threads;
    for (const auto& device : {D11Device::Attach(raw), D11Device::Attach(MakeRawDevice11())}) {
        threads.emplace_back([device, &event] {
            for (int i = 0; i < 5000; ++i) {
                device->Encode([&](const ContextPtr& context) { context->Signal(event); });
            }
        });
    }
    threads.clear();
    EXPECT_EQ(fake.signalled.size(), 10'000u);
    EXPECT_TRUE(std::is_sorted(fake.signalled.begin(), fake.signalled.end()));
}

// What only some systems have.
TEST(D3D11RealFenceTest, SignalsReachTheirValues) {
    const auto device = D11Device::CreatePrimary();
    if (!device->IsFencesSupported()) {
        GTEST_SKIP() << "this system has no ID3D11Device5 and ID3D11DeviceContext4";
    }
    CComPtr<ID3D11Fence> fence;
    ASSERT_EQ(device->Get5()->CreateFence(0, D3D11_FENCE_FLAG_NONE, __uuidof(ID3D11Fence),
                                          reinterpret_cast<void**>(&fence)),
              S_OK);
    FakeFence fake; // counts; the fence is Direct3D 11's own
    const EventPtr11 event(new D11CompletionEvent(fence, fake.MakeEvent(D3D12_FENCE_FLAG_NONE)));
    device->Encode([&](const ContextPtr& context) {
        context->Signal(event);
        context->Signal(event);
        context->Wait(event);
        context->Flush();
    });
    EXPECT_EQ(event->GetValue(), 2u);
    HANDLE reached = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    EXPECT_EQ(fence->SetEventOnCompletion(2, reached), S_OK);
    EXPECT_EQ(WaitForSingleObject(reached, 20'000), WAIT_OBJECT_0);
    CloseHandle(reached);
}

} // namespace
} // namespace Norvex::DX
