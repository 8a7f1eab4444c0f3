// Direct3D 11 events over Direct3D 12 fences. Where the system has none of the fence interfaces of
// Direct3D 11, stand-ins for them pass on to the fence of Direct3D 12.

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <semaphore>
#include <thread>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D12CommandQueue.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "tests/support/Canvas11.h"
#include "tests/support/Device11.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;

using ContextPtr = boost::intrusive_ptr<D11DeviceContext>;
using EventPtr11 = boost::intrusive_ptr<D11CompletionEvent>;
using EventPtr12 = boost::intrusive_ptr<D12CompletionEvent>;

struct FakeDevice5 : FakeObject {
    FakeDevice5() {
        Set(Slot::kDevice11OpenSharedFence,
            [](FakeDevice5* self, HANDLE handle, REFIID, void** out) {
                self->opened = handle;
                return SUCCEEDED(self->answer) ? self->fence.GiveTo(out) : self->answer;
            });
    }

    FakeObject fence;
    HRESULT answer = S_OK;
    HANDLE opened = nullptr;
};

struct FakeContext4 : FakeObject {
    using Method = std::function<HRESULT(UINT64 value)>;

    FakeContext4() {
        Set(Slot::kContext11Signal,
            [](FakeContext4* self, ID3D11Fence*, UINT64 value) { return self->onSignal(value); });
        Set(Slot::kContext11Wait,
            [](FakeContext4* self, ID3D11Fence*, UINT64 value) { return self->onWait(value); });
    }

    Method onSignal = [](UINT64) { return E_ACCESSDENIED; };
    Method onWait = [](UINT64) { return E_ACCESSDENIED; };
};

// A Direct3D 12 device that makes nothing but fences that nobody can signal.
struct FakeDevice12 : FakeObject {
    FakeDevice12() {
        Set(Slot::kDeviceCreateFence, [](FakeDevice12* self, UINT64, D3D12_FENCE_FLAGS, REFIID,
                                         void** out) { return self->fence.GiveTo(out); });
        Set(Slot::kDeviceCreateSharedHandle,
            [](FakeDevice12*, ID3D12DeviceChild*, const SECURITY_ATTRIBUTES*, DWORD, LPCWSTR,
               HANDLE* handle) -> HRESULT {
                *handle = CreateEventW(nullptr, FALSE, FALSE, nullptr);
                return S_OK;
            });
    }

    EventPtr12 MakeEvent(D3D12_FENCE_FLAGS flags) {
        return EventPtr12(new D12CompletionEvent(CComPtr(As<ID3D12Device>()), flags));
    }

    FakeObject fence;
};

TEST(D3D11EventTest, OpensWhatCanBeShared) {
    FakeDevice12 device12;
    FakeDevice5 device5;
    FakeContext4 context4;
    const auto raw = MakeRawDevice11();
    const auto shared = device12.MakeEvent(D3D12_FENCE_FLAG_SHARED);
    const auto open = [&](const EventPtr12& event) {
        return [device = D11Device::Attach(raw), event] {
            return D11CompletionEvent::OpenShared(device, event);
        };
    };
    {
        const FencePatch none(raw, nullptr, nullptr);
        ExpectFailure11(open(shared), "Shared fence not supported", "OpenShared");
    }
    const FencePatch patch(raw, &device5, &context4);
    ExpectFailure11(open(device12.MakeEvent(D3D12_FENCE_FLAG_NONE)),
                    "D12 completion event not shared", "OpenShared");
    device5.answer = E_ACCESSDENIED;
    ExpectFailure11(open(shared), "Failed to create fence", "OpenShared", E_ACCESSDENIED);

    device5.answer = S_OK;
    const auto first = open(shared)();
    EXPECT_EQ(device5.opened, shared->GetSharedHandle());
    EXPECT_EQ(first->GetFence(), device5.fence.As<ID3D11Fence>());
    EXPECT_EQ(first->PreIncrementValue(), 1u);
    EXPECT_EQ(open(shared)()->PreIncrementValue(), 2u);
    EXPECT_EQ(shared->PreIncrementValue(), 3u);
    EXPECT_EQ(first->GetValue(), 3u);
    EXPECT_EQ(device5.fence.GetReferences(), 1) << "the first event's";
}

TEST(D3D11EventTest, ContextsTellWhyTheyDoNotSignalOrWait) {
    FakeDevice12 device12;
    FakeObject device5; // also serves as a fence, which nobody calls
    FakeContext4 context4;
    const auto raw = MakeRawDevice11();
    const auto event12 = device12.MakeEvent(D3D12_FENCE_FLAG_NONE);
    const EventPtr11 event(new D11CompletionEvent(CComPtr(device5.As<ID3D11Fence>()), event12));
    const auto call = [&](auto operation) {
        return [&, operation] {
            D11Device::Attach(raw)->Encode(
                [&](const ContextPtr& context) { (context.get()->*operation)(event); });
        };
    };
    const auto signal = call(&D11DeviceContext::Signal);
    const auto wait = call(&D11DeviceContext::Wait);
    {
        const FencePatch none(raw, nullptr, nullptr);
        constexpr auto kUnsupported = "The device context does not support this operation";
        ExpectFailure11(signal, kUnsupported, "Signal");
        ExpectFailure11(wait, kUnsupported, "Wait");
    }
    EXPECT_EQ(event12->GetValue(), 0u);
    const FencePatch patch(raw, &device5, &context4);
    ExpectFailure11(signal, "Failed to signal fence", "Signal", E_ACCESSDENIED);
    ExpectFailure11(wait, "Failed to wait for fence", "Wait", E_ACCESSDENIED);
}

// Direct3D 11 signals, 12 waits and copies, 12 signals, 11 waits: a thread each, one sequence. The
// stand-in for the GPU of Direct3D 11 is late, so that a wait that is left out is seen.
TEST(SharedFenceTest, BothGenerationsDrawFromOneSequence) {
    constexpr std::uint32_t kRounds = 40;
    const auto device12 = D12Device::CreatePrimary();
    const boost::intrusive_ptr queue(new D12CommandQueue(device12, D3D12_COMMAND_QUEUE_DESC{}));
    D12BufferDesc desc;
    desc.heapType = D3D12_HEAP_TYPE_UPLOAD;
    desc.initialState = D3D12_RESOURCE_STATE_GENERIC_READ;
    desc.size = sizeof(std::uint32_t);
    const auto buffer = device12->CreateBuffer(desc);
    void* memory = nullptr;
    ASSERT_EQ(buffer->Map(0, nullptr, &memory), S_OK);

    const MethodPatch<Slot::kDeviceCreateSharedHandle,
                      HRESULT(ID3D12Device*, ID3D12DeviceChild*, const SECURITY_ATTRIBUTES*, DWORD,
                              LPCWSTR, HANDLE*)>
        share(device12->Get(), [](auto, ID3D12Device*, ID3D12DeviceChild*,
                                  const SECURITY_ATTRIBUTES*, DWORD, LPCWSTR, HANDLE* handle) {
            *handle = CreateEventW(nullptr, FALSE, FALSE, nullptr);
            return S_OK;
        });
    const EventPtr12 event12(new D12CompletionEvent(device12->Get(), D3D12_FENCE_FLAG_SHARED));
    ID3D12Fence* const fence = event12->GetFence();
    FakeDevice5 device5;
    FakeContext4 context4;
    std::jthread gpu11;
    context4.onSignal = [&](UINT64 value) {
        gpu11 = std::jthread([=] {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            std::memcpy(memory, &value, sizeof(std::uint32_t));
            fence->Signal(value);
        });
        return S_OK;
    };
    context4.onWait = [fence](UINT64 value) { return fence->SetEventOnCompletion(value, nullptr); };
    const auto raw = MakeRawDevice11();
    const FencePatch patch(raw, &device5, &context4);
    const auto device11 = D11Device::Attach(raw);
    const auto event11 = D11CompletionEvent::OpenShared(device11, event12);

    std::binary_semaphore recorded11(0);
    std::binary_semaphore recorded12(0);
    std::atomic<bool> isInOrder = true; // else the values go down, and a wait may never end
    std::jthread thread12([&] {
        for (std::uint32_t round = 0; round < kRounds && isInOrder; ++round) {
            recorded11.acquire();
            queue->Get()->Wait(fence, event12->GetValue());
            std::uint32_t copied = 0;
            D12DownloadRegionParams params;
            params.destination = reinterpret_cast<std::uint8_t*>(&copied);
            params.size = sizeof(copied);
            params.source = buffer;
            queue->DownloadRegion(params);
            EXPECT_EQ(copied, 2 * round + 1) << "Direct3D 12 did not wait";
            isInOrder = copied == 2 * round + 1;
            if (isInOrder) {
                queue->Get()->Signal(fence, event12->PreIncrementValue());
            }
            recorded12.release();
        }
    });
    for (std::uint32_t round = 0; round < kRounds && isInOrder; ++round) {
        device11->Encode([&](const ContextPtr& context) { context->Signal(event11); });
        recorded11.release();
        recorded12.acquire();
        device11->Encode([&](const ContextPtr& context) { context->Wait(event11); });
        if (isInOrder) {
            EXPECT_EQ(fence->GetCompletedValue(), 2 * round + 2) << "Direct3D 11 did not wait";
        }
    }
    thread12.join();
    EXPECT_EQ(event11->GetValue(), 2 * kRounds);
    EXPECT_TRUE(event12->IsCompleted());
}

// What only some systems have: real fences, and a Map that does not wait.
class D3D11RealFenceTest : public testing::Test {
protected:
    void SetUp() override {
        m_device = D11Device::CreatePrimary();
        if (!m_device->IsFencesSupported()) {
            GTEST_SKIP() << "this system has no ID3D11Device5 and ID3D11DeviceContext4";
        }
    }

    // Some milliseconds of the GPU's time, ending in the texture that is answered.
    CComPtr<ID3D11Texture2D> RecordWork() {
        auto desc = MakeTextureDesc11(4096, 4096, DXGI_FORMAT_R8G8B8A8_UNORM);
        const auto first = m_device->CreateTexture2D(desc, nullptr);
        const auto second = m_device->CreateTexture2D(desc, nullptr);
        desc.Usage = D3D11_USAGE_STAGING;
        desc.CPUAccessFlags = D3D11_CPU_ACCESS_READ;
        auto staging = m_device->CreateTexture2D(desc, nullptr);
        m_device->Encode([&](const ContextPtr& context) {
            for (int i = 0; i < 4; ++i) {
                context->CopyResource(second, first);
                context->CopyResource(first, second);
            }
            context->CopyResource(staging, first);
        });
        return staging;
    }

    boost::intrusive_ptr<D11Device> m_device;
};

TEST_F(D3D11RealFenceTest, AMapThatDoesNotWaitSaysSo) {
    const auto staging = RecordWork();
    const auto map = [&](const ContextPtr& context) {
        context->Map(staging, 0, D3D11_MAP_READ, D3D11_MAP_FLAG_DO_NOT_WAIT);
        context->Unmap(staging, 0);
    };
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    int refusals = 0;
    Thrown thrown = ThrownBy([&] { m_device->Encode(map); });
    for (; thrown.result == DXGI_ERROR_WAS_STILL_DRAWING; ++refusals) {
        ASSERT_LT(std::chrono::steady_clock::now(), until);
        EXPECT_EQ(thrown.sentence, "Failed to map resource");
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        thrown = ThrownBy([&] { m_device->Encode(map); });
    }
    EXPECT_EQ(thrown.sentence, "(nothing)");
    EXPECT_GT(refusals, 0);
}

TEST_F(D3D11RealFenceTest, SignalsReachTheirValues) {
    CComPtr<ID3D11Fence> fence;
    ASSERT_EQ(m_device->Get5()->CreateFence(0, D3D11_FENCE_FLAG_NONE, __uuidof(ID3D11Fence),
                                            reinterpret_cast<void**>(&fence)),
              S_OK);
    FakeDevice12 device12; // counts; the fence is Direct3D 11's own
    const EventPtr11 event(
        new D11CompletionEvent(fence, device12.MakeEvent(D3D12_FENCE_FLAG_NONE)));
    m_device->Encode([&](const ContextPtr& context) {
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
