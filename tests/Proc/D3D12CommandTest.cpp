// Events, queues, allocators, lists, transfers: when work is done and what lives until then.

#include <array>
#include <new>
#include <numeric>
#include <thread>

#include "tests/Proc/Direct3D12Fixture.h"
#include "tests/support/Threads.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using namespace std::chrono_literals;

using AllocatorPtr = Ptr<D12CommandAllocator>;
using EventPtr = Ptr<D12CompletionEvent>;
using QueueSignal = MethodPatch<&ID3D12CommandQueue::Signal>;

// Something whose life can be watched.
struct Tracked : RefCountImpl {
    Tracked(std::shared_ptr<int> shared, std::function<void()> work)
        : token(std::move(shared)),
          onDestroy(std::move(work)) {}
    ~Tracked() override { onDestroy(); }

    std::shared_ptr<int> token;
    std::function<void()> onDestroy;
};

class D3D12CommandTest : public Direct3D12Test {
protected:
    static auto MakeQueue(D3D12_COMMAND_LIST_TYPE type) {
        return Ptr<D12CommandQueue>(
            new D12CommandQueue(Device(), {type, 0, D3D12_COMMAND_QUEUE_FLAG_NONE, 0}));
    }
    auto MakeTracked(std::function<void()> onDestroy = [] {}) {
        return Ptr<IRefCountable>(new Tracked(m_token, std::move(onDestroy)));
    }
    // Of those, once no background thread holds one.
    long CountAlive() {
        D12CommandAllocator::WaitAllComplete();
        return m_token.use_count() - 1;
    }
    void Record(const AllocatorPtr& allocator, std::function<void()> onDestroy = [] {}) {
        const auto object = MakeTracked(std::move(onDestroy));
        allocator->RecordList(nullptr, [&](const ListPtr& list) { list->TrackObject(object); });
    }

    // Holds the queue back until its value is signalled.
    static EventPtr MakeGate() {
        auto gate = Device()->CreateCompletionEvent(D3D12_FENCE_FLAG_NONE);
        gate->PreIncrementValue();
        return gate;
    }
    static void Open(const EventPtr& gate) {
        ASSERT_EQ(gate->GetFence()->Signal(gate->GetValue()), S_OK);
    }

    std::shared_ptr<int> m_token = std::make_shared<int>();
};

// A fence that goes back never wakes who waits for more.
TEST_F(D3D12CommandTest, ThreadsThatWaitForOneQueueSignalInOrder) {
    std::vector<UINT64> values;
    const QueueSignal patch(Queue()->Get(),
                            [&](auto original, auto* self, auto* fence, auto value) {
                                std::this_thread::sleep_for(value % 2 == 1 ? 20ms : 0ms);
                                values.push_back(value);
                                return original(self, fence, value);
                            });
    RunThreads(4, [](unsigned) { Queue()->WaitComplete(); });
    EXPECT_EQ(values.size(), 4u);
    EXPECT_TRUE(std::ranges::is_sorted(values));
}

// Allocators of one queue record, give up, submit, are refused and end at random, beside a model of
// what the GPU may still use. A gate holds the queue back meanwhile.
TEST_F(D3D12CommandTest, WhatIsTrackedLivesUntilTheGpuIsDone) {
    struct Host {
        AllocatorPtr allocator = Queue()->CreateCommandAllocator();
        int recorded = 0; // lists, each with an object
        bool isBusy = false;
    };
    std::array<Host, 3> hosts;
    EventPtr gate = MakeGate();
    int submitted = 0; // objects that the GPU may use
    int waits = 0;
    HRESULT answer = S_OK;
    const MethodPatch<&ID3D12CommandQueue::Wait> patch(
        Queue()->Get(), [&](auto original, auto... arguments) {
            ++waits;
            return SUCCEEDED(answer) ? original(arguments...) : answer;
        });
    const auto finish = [&] {
        Open(std::exchange(gate, MakeGate()));
        for (Host& host : hosts) {
            host.allocator->WaitComplete();
            host.isBusy = false;
        }
        D12CommandAllocator::WaitAllComplete();
        submitted = 0;
    };
    const auto giveUp = [&](const AllocatorPtr& allocator, bool inClose) {
        allocator->RecordList(nullptr, [&](const ListPtr& list) {
            list->TrackObject(MakeTracked());
            allocator->Wait(gate);
            if (inClose) {
                list->GetGraphics()->Close();
            } else {
                list->OMSetRenderTarget(nullptr, nullptr);
            }
        });
    };
    const auto execute = [&](Host& host, unsigned kind) {
        if (host.isBusy) { // this would wait for its last submission
            finish();
        }
        host.allocator->Wait(gate);
        if (kind == 0) {
            answer = E_OUTOFMEMORY;
            EXPECT_EQ(SentenceOf([&] { host.allocator->Execute(); }), "Failed to wait for fence");
            answer = S_OK;
            EXPECT_TRUE(host.allocator->IsCompleted()) << "nothing was submitted";
        }
        waits = 0;
        submitted += std::exchange(host.recorded, 0);
        if (kind == 1) {
            const FailingMethod<&ID3D12CommandQueue::Signal> fail(Queue()->Get(), E_OUTOFMEMORY);
            constexpr auto kSentence = "Failed to signal fence";
            EXPECT_EQ(SentenceOf([&] { host.allocator->Execute(); }), kSentence);
            EXPECT_EQ(SentenceOf([&] { host.allocator->WaitComplete(); }), kSentence);
        } else {
            host.allocator->Execute();
        }
        EXPECT_EQ(waits, 1) << "each belongs to one submission";
        EXPECT_FALSE(host.allocator->IsCompleted());
        host.isBusy = true;
    };
    std::mt19937 random(1);
    for (int round = 0; round < 500 && !HasFailure(); ++round) {
        Host& host = hosts[random() % hosts.size()];
        const unsigned kind = random() % 4;
        const unsigned action = random() % 8;
        bool mustFinish = kind == 0 && action == 7;
        if (action < 3) {
            // Its destructor may wait for the submission that used it.
            Record(host.allocator, [&user = *host.allocator] { user.WaitComplete(); });
            ++host.recorded;
        } else if (action == 3) {
            EXPECT_EQ(SentenceOf([&] { giveUp(host.allocator, kind == 0); }),
                      kind == 0 ? "Failed to close command list"
                                : "The descriptor is not a render target view");
        } else if (action == 4) { // a list that outlives its allocator, and may stay open
            const ListPtr list = Queue()->CreateCommandAllocator()->CreateCommandList(nullptr);
            list->TrackObject(MakeTracked());
            if (kind < 2) {
                list->Close();
                host.allocator->EnqueueCommandList(list);
                ++host.recorded;
            }
        } else if (action < 7 && host.recorded > 0) {
            execute(host, kind);
            mustFinish = kind == 1; // nobody waits for it by itself
        } else if (action == 7) {
            submitted += host.isBusy ? host.recorded : 0; // until the background drops it
            host = Host();
        }
        long recorded = 0;
        for (const Host& each : hosts) {
            recorded += each.recorded;
        }
        ASSERT_EQ(m_token.use_count() - 1, recorded + submitted) << round << ": " << action;
        if (mustFinish) {
            finish();
            ASSERT_EQ(m_token.use_count() - 1, recorded) << round;
        }
    }
    finish();
    std::ranges::fill(hosts, Host());
    EXPECT_EQ(CountAlive(), 0);
}

TEST_F(D3D12CommandTest, ListsKeepWhatTheyName) {
    const auto check = [](const char* name, const auto& record) {
        ResourcePtr resources[] = {MakeBuffer(256, {}, kUnordered), MakeBuffer(256)};
        const LifeProbe probes[] = {LifeProbe(resources[0]), LifeProbe(resources[1])};
        ListPtr list = Queue()->CreateCommandAllocator()->CreateCommandList(nullptr);
        record(*list, resources[0], resources[1]);
        std::ranges::fill(resources, nullptr);
        EXPECT_TRUE(probes[0].IsAlive() && probes[1].IsAlive()) << name;
        list.reset();
        EXPECT_FALSE(probes[0].IsAlive() || probes[1].IsAlive()) << name;
    };
    using Barrier = CD3DX12_RESOURCE_BARRIER;
    check("copy", [](auto& list, auto& a, auto& b) { list.CopyResource(a, b); });
    check("part", [](auto& list, auto& a, auto& b) { list.CopyBufferRegion(a, 0, b, 0, 4); });
    check("aliasing",
          [](auto& list, auto& a, auto& b) { list.ResourceBarrier({Barrier::Aliasing(a, b)}); });
    check("input", [](auto& list, auto& a, auto& b) {
        list.IASetVertexBuffers(0, {D12VertexBuffer::Create(a, 4, 1)});
        list.IASetIndexBuffer(D12IndexBuffer::Create(b, DXGI_FORMAT_R16_UINT, 2, 4));
    });
}

TEST_F(D3D12CommandTest, TrackingManyObjectsTakesNoLongerEach) {
    const auto list = Queue()->CreateCommandAllocator()->CreateCommandList(nullptr);
    std::vector<Ptr<IRefCountable>> objects(200'000);
    std::ranges::generate(objects, [&] { return MakeTracked(); });
    const auto start = std::chrono::steady_clock::now();
    for (std::size_t i = 0; i < 2 * objects.size(); ++i) {
        list->TrackObject(objects[i % objects.size()]);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s) << "a search through all takes 10 s";
    EXPECT_TRUE(std::ranges::all_of(objects,
                                    [](const auto& object) { return object->GetRefCount() == 2; }));
}

// The GPU is busy with one frame while the next is recorded: two Direct3D allocators take turns.
// Each frame waits for the one before it, and another queue for each frame.
TEST_F(D3D12CommandTest, SubmissionsWaitAndMemoryIsResetWhenTheGpuHasLeftIt) {
    constexpr int kFrames = 20;
    const auto copyQueue = MakeQueue(D3D12_COMMAND_LIST_TYPE_COPY);
    const auto allocator = Queue()->CreateCommandAllocator();
    const auto other = copyQueue->CreateCommandAllocator();
    CComPtr<ID3D12CommandAllocator> any;
    ASSERT_EQ(Raw()->CreateCommandAllocator(kDirect, IID_PPV_ARGS(&any)), S_OK);
    const CallCount<&ID3D12Device::CreateCommandAllocator> made(Raw());
    std::atomic<bool> isRecording{false};
    std::vector<ID3D12CommandAllocator*> resets;
    const MethodPatch<&ID3D12CommandAllocator::Reset> patch(any, [&](auto original, auto* self) {
        if (isRecording) {
            resets.push_back(self);
        }
        return original(self);
    });
    EventPtr last;
    for (int frame = 0; frame < kFrames; ++frame) {
        const auto gate = MakeGate();
        allocator->Wait(gate);
        isRecording = true;
        Record(allocator);
        Record(allocator);
        isRecording = false;
        const std::jthread opener([last] {
            std::this_thread::sleep_for(2ms);
            if (last != nullptr) {
                Open(last);
            }
        });
        allocator->Execute();
        EXPECT_TRUE(last == nullptr || last->IsCompleted());
        other->Wait(allocator);
        Record(other);
        other->Execute();
        EXPECT_FALSE(allocator->IsCompleted() || other->IsCompleted());
        last = gate;
    }
    Open(last);
    other->WaitComplete();
    allocator->WaitComplete(); // some systems tell one queue of the other's end before the host
    EXPECT_EQ(resets.size(), kFrames - 1u);
    EXPECT_EQ(std::ranges::adjacent_find(resets), resets.end());
    EXPECT_LE(made.Get(), 2);
}

TEST_F(D3D12CommandTest, WaitingKeepsWhatIsRecordedAndClearsKeepToTheirRectangles) {
    constexpr auto kCommon = D3D12_RESOURCE_STATE_COMMON;
    constexpr auto kAll = D3D12_RESOURCE_BARRIER_ALL_SUBRESOURCES;
    const auto target = s_canvas->MakeTarget(4, 2, kColor, {0, 0, 1, 1});
    const auto allocator = Queue()->CreateCommandAllocator();
    allocator->ResourceBarrier(
        {target->Transition(D3D12_RESOURCE_STATE_RENDER_TARGET, kCommon, kAll, {})});
    allocator->Execute();
    allocator->ClearRenderTargetView(target, bitflags(kCommon), {1, 0, 0, 1}, {RECT{1, 0, 3, 1}});
    allocator->WaitComplete();
    allocator->Execute();
    const Color red = {1, 0, 0, 1};
    const Color blue = {0, 0, 1, 1};
    EXPECT_THAT(s_canvas->Read(target).colors,
                ElementsAre(blue, red, red, blue, blue, blue, blue, blue));
}

TEST_F(D3D12CommandTest, RegionsTravelThereAndBack) {
    std::vector<std::uint8_t> data(100);
    std::iota(data.begin(), data.end(), std::uint8_t{1});
    D12UploadRegionParams upload;
    upload.destination = MakeBuffer(256, kCopyTo);
    upload.stateAfter = kCopyFrom;
    upload.destinationOffset = 156;
    upload.data = data.data();
    upload.size = data.size();
    // Of the wrong heap type, so the device's own pool serves.
    upload.pool = Device()->CreateBufferPool(kReadback);
    const auto list = Queue()->CreateCommandAllocator()->CreateCommandList(nullptr);
    const CallCount<&ID3D12GraphicsCommandList::ResourceBarrier> barriers(list->GetGraphics());
    Queue()->UploadRegion(upload);
    EXPECT_EQ(barriers.Get(), 1) << "it was a copy destination";
    std::vector<std::uint8_t> read(data.size());
    D12DownloadRegionParams download;
    download.source = upload.destination;
    download.stateAfter = D3D12_RESOURCE_STATE_COMMON;
    download.destination = read.data();
    download.size = read.size();
    download.sourceOffset = 156;
    Queue()->DownloadRegion(download);
    EXPECT_EQ(read, data);
    EXPECT_EQ(barriers.Get(), 2) << "it was a copy source";

    const auto refuse = [&](const char* uploading, const char* downloading) {
        NORVEX_REFUSED(uploading, Queue()->UploadRegion(upload));
        NORVEX_REFUSED(downloading, Queue()->DownloadRegion(download));
    };
    upload.destinationOffset = download.sourceOffset = 157;
    refuse("Uploading data does not fit in the destination",
           "Downloading data does not fit in the source");
    upload.destination = download.source = s_canvas->MakeTexture({1, 1, {Color{}}}, kColor);
    refuse("Destination resource is not a buffer", "Source resource is not a buffer");
    upload.destination = download.source = nullptr;
    refuse("Resource is null", "Resource is null");
}

// Two slices with rows that are not a multiple of the copy pitch, and callers' rows longer than
// needed.
TEST_F(D3D12CommandTest, TexturesTravelThereAndBack) {
    constexpr std::uint64_t kRow = 5ull * 4;
    constexpr std::uint64_t kPitch = 32;
    constexpr std::uint64_t kSlice = 3 * kPitch;
    std::vector<std::uint8_t> data(2 * kSlice);
    std::iota(data.begin(), data.end(), std::uint8_t{0});
    std::vector<std::uint8_t> read(data.size());
    D12UploadResourceParams upload;
    upload.destination = Device()->CreateTexture2D(MakeTextureDesc(5, 3, 2, kCopyTo));
    upload.stateAfter = kCopyFrom;
    upload.subresources = {{data.data(), kPitch, 0}, {data.data() + kSlice, kPitch, 0}};
    Queue()->UploadResource(upload);
    D12DownloadResourceParams download;
    download.source = upload.destination;
    download.subresources = {{read.data(), kPitch, 0}, {read.data() + kSlice, kPitch, 0}};
    Queue()->DownloadResource(download);
    for (std::size_t i = 0; i < data.size(); ++i) {
        ASSERT_EQ(read[i], i % kPitch < kRow ? data[i] : 0) << i;
    }
    upload.subresources[1].rowPitch = download.subresources[0].rowPitch = kRow - 1;
    NORVEX_REFUSED("Invalid upload data", Queue()->UploadResource(upload));
    NORVEX_REFUSED("Invalid download data", Queue()->DownloadResource(download));
}

TEST_F(D3D12CommandTest, RefusesWhatCannotBe) {
    constexpr auto kOpen = "Found command list that was not closed";
    constexpr auto kNotTarget = "The descriptor is not a render target view";
    const CallCount<&ID3D12CommandQueue::ExecuteCommandLists> submissions(Queue()->Get());
    const auto allocator = Queue()->CreateCommandAllocator();
    NORVEX_REFUSED("There is no active command list", allocator->TrackObject(Queue()->Get()));
    NORVEX_REFUSED("There are no command lists to execute", allocator->Execute());
    NORVEX_REFUSED("Completion event is null", allocator->Wait(EventPtr()));
    NORVEX_REFUSED("Command allocator is null", allocator->Wait(AllocatorPtr()));
    const auto list = allocator->CreateCommandList(nullptr);
    NORVEX_REFUSED("Command list already queued", allocator->EnqueueCommandList(list));
    NORVEX_REFUSED(kOpen, allocator->Execute());
    NORVEX_REFUSED(kOpen, allocator->CreateCommandList(nullptr));
    EXPECT_EQ(submissions.Get(), 0);

    const auto target = s_canvas->MakeTarget(4, 2, kColor);
    const auto source = s_canvas->MakeSource({1, 1, {Color{}}}, kColor);
    list->OMSetRenderTargets(std::vector(8, target), nullptr);
    NORVEX_REFUSED("Invalid render target count",
                   list->OMSetRenderTargets(std::vector(9, target), nullptr));
    NORVEX_REFUSED(kNotTarget, list->OMSetRenderTargets({target, source}, nullptr));
    NORVEX_REFUSED(kNotTarget, list->OMSetRenderTargets({nullptr}, nullptr));
    NORVEX_REFUSED(kNotTarget, list->ClearRenderTargetView(source, {}, {}));
    NORVEX_REFUSED("Vertex buffer is null", list->Draw(nullptr));
    NORVEX_REFUSED("Index buffer is null", list->DrawIndexed(nullptr));
    NORVEX_REFUSED("Query is null", list->EndQuery(nullptr));
    NORVEX_REFUSED("Resource is null", list->CopyResource(MakeBuffer(4), nullptr));
    list->IASetVertexBuffers(1, {nullptr, nullptr});
    list->IASetIndexBuffer(nullptr);
}

TEST_F(D3D12CommandTest, AFailedDownloadKeepsItsBufferFromThePool) {
    std::uint8_t byte = 0;
    D12DownloadRegionParams params;
    params.source = MakeBuffer(4, kCopyFrom);
    params.destination = &byte;
    params.size = 1;
    params.pool = Device()->CreateBufferPool(kReadback);
    const auto gate = MakeGate();
    ASSERT_EQ(Queue()->Get()->Wait(gate->GetFence(), gate->GetValue()), S_OK);
    std::size_t freeBuffers = 1;
    std::atomic<int> waits{0};
    // The download's own wait fails and that of the background; the allocator's end waits.
    const MethodPatch<&ID3D12Fence::SetEventOnCompletion> patch(
        gate->GetFence(), [&](auto original, auto... arguments) -> HRESULT {
            if (++waits <= 2) {
                return E_OUTOFMEMORY;
            }
            freeBuffers = params.pool->CountFree().first;
            Open(gate);
            return original(arguments...);
        });
    EXPECT_EQ(SentenceOf([&] { Queue()->DownloadRegion(params); }),
              "Failed to set event on completion");
    D12CommandAllocator::WaitAllComplete();
    EXPECT_EQ(freeBuffers, 0u);
    EXPECT_EQ(params.pool->CountFree().first, 1u);
}

// An allocator and a queue that can never know whether the GPU has finished.
TEST_F(D3D12CommandTest, WhatTheGpuMayUseIsReleasedWithTheDeviceOnly) {
    for (const bool isRemoved : {false, true}) {
        auto queue = MakeQueue(kDirect);
        ID3D12CommandQueue* const rawQueue = queue->Get();
        const LifeProbe queueProbe(rawQueue);
        D12AllocatorState state = Device()->CreateCommandAllocator(queue->GetType());
        ID3D12CommandAllocator* const rawAllocator = state.Get();
        const LifeProbe allocatorProbe(rawAllocator);
        const EventPtr event = state.GetCompletionEvent();
        Device()->ReuseCommandAllocator(queue->GetType(), std::move(state));
        auto allocator = queue->CreateCommandAllocator();
        auto object = MakeTracked();
        allocator->RecordList(nullptr, [&](const ListPtr& list) { list->TrackObject(object); });
        ID3D12Fence* queueFence = nullptr;
        bool isRefused = true;
        const QueueSignal patch(rawQueue, [&](auto original, auto* self, auto* fence, auto value) {
            queueFence = fence;
            return isRefused ? E_OUTOFMEMORY : original(self, fence, value);
        });
        const MethodPatch<&ID3D12Device::GetDeviceRemovedReason> patchReason(
            Raw(), [&](auto, auto) { return isRemoved ? DXGI_ERROR_DEVICE_HUNG : S_OK; });
        EXPECT_EQ(SentenceOf([&] { allocator->Execute(); }), "Failed to signal fence");
        EXPECT_EQ(allocator->IsCompleted(), isRemoved);
        isRefused = false;
        queue->WaitComplete(); // for the test alone, which releases what is kept
        isRefused = true;
        allocator.reset();
        queue.reset();
        EXPECT_EQ(object->GetRefCount() == 2, !isRemoved);
        EXPECT_EQ(allocatorProbe.IsAlive(), !isRemoved);
        EXPECT_EQ(queueProbe.IsAlive(), !isRemoved);
        if (!isRemoved) {
            object->Release();
            event->Release();
            rawAllocator->Release();
            rawQueue->Release();
            queueFence->Release();
        }
    }
}

// The n-th allocation of the library fails, for every n: told or coped with, and nothing is lost.
TEST_F(D3D12CommandTest, OutOfMemoryLosesNothing) {
    bool hasFailed = true;
    for (int n = 0; hasFailed; ++n) {
        const auto gate = MakeGate();
        Ptr<IRefCountable> objects[] = {MakeTracked(), MakeTracked()};
        AllocatorPtr allocator; // whose end waits for the gate
        try {
            hasFailed = false;
            const OutOfMemory outOfMemory(n);
            allocator = Queue()->CreateCommandAllocator();
            for (Ptr<IRefCountable>& object : objects) {
                allocator->RecordList(nullptr,
                                      [&](const ListPtr& list) { list->TrackObject(object); });
                object.reset();
            }
            allocator->Wait(gate);
            allocator->Execute();
        } catch (const std::bad_alloc&) {
            hasFailed = true;
        }
        Open(gate);
        allocator.reset();
        std::ranges::fill(objects, nullptr);
        Queue()->WaitComplete();
        EXPECT_EQ(CountAlive(), 0) << n;
        ASSERT_LT(n, 1000);
    }
}

} // namespace
} // namespace Norvex::DX
