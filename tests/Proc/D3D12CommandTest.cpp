// Events, queues, allocators, lists, transfers: when work is done and what lives until then.

#include <chrono>
#include <new>
#include <numeric>
#include <optional>
#include <thread>

#include "tests/Proc/Direct3D12Fixture.h"
#include "tests/support/ImportPatch.h"
#include "tests/support/LogCapture.h"
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

TEST_F(D3D12CommandTest, EventsCompleteAtTheirTarget) {
    const auto event = Device()->CreateCompletionEvent(D3D12_FENCE_FLAG_NONE);
    EXPECT_TRUE(event->IsCompleted());
    EXPECT_EQ(event->GetSharedHandle(), nullptr);
    EXPECT_EQ(event->SignalNext([](std::uint64_t) { return E_OUTOFMEMORY; }), E_OUTOFMEMORY);
    EXPECT_TRUE(event->IsCompleted()) << "nothing will signal it";
    EXPECT_EQ(event->PreIncrementValue(), 1u);
    EXPECT_FALSE(event->IsCompleted());
    std::atomic<int> woken{0};
    RunThreads(4, [&](unsigned thread) {
        if (thread > 0) {
            event->WaitComplete();
            ++woken;
            return;
        }
        std::this_thread::sleep_for(50ms);
        EXPECT_EQ(woken, 0);
        Queue()->Get()->Signal(event->GetFence(), 1);
    });
    EXPECT_TRUE(event->IsCompleted());
}

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

TEST_F(D3D12CommandTest, TrackedObjectsLiveUntilTheGpuIsDone) {
    const auto gate = MakeGate();
    auto allocator = Queue()->CreateCommandAllocator();
    NORVEX_REFUSED("There is no active command list", allocator->TrackObject(Queue()->Get()));
    auto buffer = MakeBuffer(64);
    const LifeProbe probe(buffer);
    allocator->RecordList(nullptr, [&](const ListPtr& list) {
        const auto object = MakeTracked();
        list->TrackObject(object);
        allocator->TrackObject(object);
        EXPECT_EQ(object->GetRefCount(), 2u) << "tracked once";
        list->TrackObject(buffer.p);
    });
    buffer.Release();
    allocator->Wait(gate);
    allocator->Execute();
    allocator.reset();
    EXPECT_EQ(m_token.use_count(), 2);
    EXPECT_TRUE(probe.IsAlive());
    Open(gate);
    EXPECT_EQ(CountAlive(), 0);
    EXPECT_FALSE(probe.IsAlive());
}

TEST_F(D3D12CommandTest, ListsKeepWhatTheyName) {
    using Barrier = CD3DX12_RESOURCE_BARRIER;
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
    check("copy", [](auto& list, auto& a, auto& b) { list.CopyResource(a, b); });
    check("part", [](auto& list, auto& a, auto& b) { list.CopyBufferRegion(a, 0, b, 0, 4); });
    check("aliasing",
          [](auto& list, auto& a, auto& b) { list.ResourceBarrier({Barrier::Aliasing(a, b)}); });
    check("others", [](auto& list, auto& a, auto& b) {
        list.ResourceBarrier({Barrier::UAV(a), Barrier::Transition(b, {}, kCopyTo)});
    });
    check("input", [](auto& list, auto& a, auto& b) {
        list.IASetVertexBuffers(0, {D12VertexBuffer::Create(a, 4, 1)});
        list.IASetIndexBuffer(D12IndexBuffer::Create(b, DXGI_FORMAT_R16_UINT, 2, 4));
    });
    check("vertices", [](auto& list, auto& a, auto& b) {
        list.IASetVertexBuffer(D12VertexBuffer::Create(a, 4, 1));
        list.Draw(D12VertexBuffer::Create(b, 4, 0));
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

// Its destructor may wait for the submission that used it.
TEST_F(D3D12CommandTest, ReleasesOutsideItsLock) {
    const auto allocator = Queue()->CreateCommandAllocator();
    for (int i = 0; i < 2; ++i) {
        Record(allocator, [&] { allocator->WaitComplete(); });
        allocator->Execute();
    }
    allocator->WaitComplete();
    EXPECT_EQ(CountAlive(), 0);
}

TEST_F(D3D12CommandTest, SubmissionsWaitForEventsForOthersAndForTheirOwnLast) {
    const auto copyQueue = MakeQueue(D3D12_COMMAND_LIST_TYPE_COPY);
    EXPECT_EQ(copyQueue->GetType(), D3D12_COMMAND_LIST_TYPE_COPY);
    const auto gate = MakeGate();
    const CallCount<&ID3D12CommandQueue::Wait> waits(Queue()->Get());
    const auto first = copyQueue->CreateCommandAllocator();
    const auto second = Queue()->CreateCommandAllocator();
    Record(first);
    first->Wait(gate);
    first->Execute();
    second->Wait(first);
    Record(second);
    second->Execute();
    Record(first);
    std::atomic<bool> isSubmitted{false};
    std::thread again([&] {
        first->Execute();
        isSubmitted = true;
    });
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(isSubmitted || first->IsCompleted() || second->IsCompleted());
    Open(gate);
    again.join();
    second->WaitComplete();
    first->WaitComplete();
    EXPECT_TRUE(first->IsCompleted() && second->IsCompleted());
    EXPECT_EQ(waits.Get(), 2) << "each belongs to one submission";
}

TEST_F(D3D12CommandTest, ListsAreQueuedOnceAndSubmittedClosed) {
    constexpr auto kOpen = "Found command list that was not closed";
    const CallCount<&ID3D12CommandQueue::ExecuteCommandLists> submissions(Queue()->Get());
    const auto allocator = Queue()->CreateCommandAllocator();
    NORVEX_REFUSED("There are no command lists to execute", allocator->Execute());
    const auto list = allocator->CreateCommandList(nullptr);
    NORVEX_REFUSED("Command list already queued", allocator->EnqueueCommandList(list));
    NORVEX_REFUSED(kOpen, allocator->Execute());
    EXPECT_EQ(submissions.Get(), 0);
    NORVEX_REFUSED(kOpen, allocator->CreateCommandList(nullptr));
    list->Close();
    EXPECT_TRUE(list->IsClosed());
    EXPECT_EQ(list->GetType(), kDirect);
    allocator->Execute();
    EXPECT_EQ(submissions.Get(), 1);
}

// As an exception leaves it: what comes after is not disturbed.
TEST_F(D3D12CommandTest, AnAbandonedRecordingLeavesThePoolsUsable) {
    Queue()->CreateCommandAllocator()->CreateCommandList(nullptr);
    const auto allocator = Queue()->CreateCommandAllocator();
    Record(allocator);
    allocator->Execute();
    allocator->WaitComplete();

    const auto gate = MakeGate();
    ListPtr kept;
    const auto fail = [&](bool inClose) {
        return SentenceOf([&] {
            allocator->RecordList(nullptr, [&](const ListPtr& list) {
                kept = list;
                allocator->Wait(gate);
                if (inClose) {
                    list->GetGraphics()->Close();
                } else {
                    list->OMSetRenderTarget(nullptr, nullptr);
                }
            });
        });
    };
    Record(allocator);
    EXPECT_EQ(fail(false), "The descriptor is not a render target view");
    EXPECT_EQ(fail(true), "Failed to close command list");
    Record(allocator);
    EXPECT_TRUE(kept->IsClosed());
    allocator->Execute();
    allocator->WaitComplete();
    EXPECT_EQ(SentenceOf([&] { allocator->Execute(); }), "There are no command lists to execute");
}

TEST_F(D3D12CommandTest, AnOpenListOutlivesItsAllocator) {
    ListPtr list = Queue()->CreateCommandAllocator()->CreateCommandList(nullptr);
    const auto other = Queue()->CreateCommandAllocator();
    Record(other);
    list->CopyResource(MakeBuffer(4, kCopyTo), MakeBuffer(4, kCopyFrom));
    list->Close();
    other->EnqueueCommandList(list);
    list.reset();
    other->Execute();
    other->WaitComplete();
    list = Queue()->CreateCommandAllocator()->CreateCommandList(nullptr);
    list.reset();
    Record(other);
    other->Execute();
}

TEST_F(D3D12CommandTest, WaitingKeepsWhatIsRecorded) {
    const auto target = s_canvas->MakeTarget(2, 2, kColor);
    const auto allocator = Queue()->CreateCommandAllocator();
    Record(allocator);
    allocator->Execute();
    allocator->ClearRenderTargetView(target, {1, 0, 0, 1}, {});
    allocator->WaitComplete();
    allocator->Execute();
    EXPECT_THAT(s_canvas->Read(target).colors, testing::Each(Color{1, 0, 0, 1}));
}

// A host that waits for nothing itself: two Direct3D allocators take turns, and the recording
// thread resets them.
TEST_F(D3D12CommandTest, OneAllocatorServesFrameAfterFrame) {
    constexpr int kFrames = 100;
    const auto thread = std::this_thread::get_id();
    std::vector<ID3D12CommandAllocator*> resets;
    for (const auto& allocator :
         {Queue()->CreateCommandAllocator(), Queue()->CreateCommandAllocator()}) {
        Record(allocator);
        allocator->Execute();
    }
    ASSERT_EQ(CountAlive(), 0);
    const auto sizes = Device()->GetPoolSizes(); // enough
    auto allocator = Queue()->CreateCommandAllocator();
    CComPtr<ID3D12CommandAllocator> any;
    ASSERT_EQ(Raw()->CreateCommandAllocator(kDirect, IID_PPV_ARGS(&any)), S_OK);
    const CallCount<&ID3D12Device::CreateCommandAllocator> made(Raw());
    {
        const MethodPatch<&ID3D12CommandAllocator::Reset> patch(
            any, [&](auto original, auto* self) {
                EXPECT_EQ(std::this_thread::get_id(), thread);
                resets.push_back(self);
                return original(self);
            });
        EventPtr last; // the GPU is busy with that frame while the next one is recorded
        for (int i = 0; i < kFrames; ++i) {
            const auto gate = MakeGate();
            allocator->Wait(gate);
            Record(allocator);
            Record(allocator);
            if (last != nullptr) {
                Open(last);
            }
            allocator->Execute();
            last = i % 3 != 0 ? gate : nullptr;
            if (last == nullptr) {
                Open(gate);
                Queue()->WaitComplete();
            }
        }
    }
    ASSERT_EQ(resets.size(), kFrames - 1u);
    EXPECT_NE(resets[0], resets[1]);
    for (std::size_t i = 0; i < resets.size(); ++i) {
        EXPECT_EQ(resets[i], resets[i % 3 == 1 ? 1 : 0]) << "frame " << i + 1;
    }
    allocator.reset();
    EXPECT_EQ(CountAlive(), 0);
    EXPECT_EQ(made.Get(), 0);
    EXPECT_EQ(Device()->GetPoolSizes().commandAllocators, sizes.commandAllocators);
}

TEST_F(D3D12CommandTest, RenderTargetsAreCountedCheckedAndClearedInTheirRectangles) {
    const auto target = s_canvas->MakeTarget(4, 2, kColor, {0, 0, 1, 1});
    const auto source = s_canvas->MakeSource({1, 1, {Color{}}}, kColor);
    const auto allocator = Queue()->CreateCommandAllocator();
    constexpr const char* kNotTarget = "The descriptor is not a render target view";
    allocator->RecordList(nullptr, [&](const ListPtr& list) {
        list->OMSetRenderTargets(std::vector(8, target), nullptr);
        NORVEX_REFUSED("Invalid render target count",
                       list->OMSetRenderTargets(std::vector(9, target), nullptr));
        NORVEX_REFUSED(kNotTarget, list->OMSetRenderTarget(source, nullptr));
        NORVEX_REFUSED(kNotTarget, list->OMSetRenderTargets({target, source}, nullptr));
        NORVEX_REFUSED(kNotTarget, list->ClearRenderTargetView(source, {}, {}));
        list->ResourceBarrier({target->Transition(
            D3D12_RESOURCE_STATE_RENDER_TARGET, D3D12_RESOURCE_STATE_COMMON,
            D3D12_RESOURCE_BARRIER_ALL_SUBRESOURCES, D3D12_RESOURCE_BARRIER_FLAG_NONE)});
    });
    allocator->ClearRenderTargetView(target, bitflags(D3D12_RESOURCE_STATE_COMMON), {1, 0, 0, 1},
                                     {RECT{1, 0, 3, 1}});
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
    download.destination = read.data();
    download.size = read.size();
    download.sourceOffset = 156;
    Queue()->DownloadRegion(download);
    EXPECT_EQ(read, data);
    EXPECT_EQ(barriers.Get(), 1) << "it was a copy source and stays one";
    download.stateAfter = D3D12_RESOURCE_STATE_COMMON;
    Queue()->DownloadRegion(download);
    EXPECT_EQ(barriers.Get(), 2);

    const auto refuse = [&](const char* uploading, const char* downloading) {
        NORVEX_REFUSED(uploading, Queue()->UploadRegion(upload));
        NORVEX_REFUSED(downloading, Queue()->DownloadRegion(download));
    };
    upload.destinationOffset = download.sourceOffset = 157;
    refuse("Uploading data does not fit in the destination",
           "Downloading data does not fit in the source");
    upload.destinationOffset = download.sourceOffset = 0;
    upload.data = download.destination = nullptr;
    refuse("Invalid upload data", "Invalid download data");
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
    D12UploadResourceParams upload;
    upload.destination = Device()->CreateTexture2D(MakeTextureDesc(5, 3, 2, kCopyTo));
    upload.stateAfter = kCopyFrom;
    std::vector<std::uint8_t> data(2 * kSlice);
    std::iota(data.begin(), data.end(), std::uint8_t{0});
    upload.subresources = {{data.data(), kPitch, 0}, {data.data() + kSlice, kPitch, 0}};
    Queue()->UploadResource(upload);

    std::vector<std::uint8_t> read(data.size());
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

TEST_F(D3D12CommandTest, NullObjectsAreRefused) {
    const auto allocator = Queue()->CreateCommandAllocator();
    const auto list = allocator->CreateCommandList(nullptr);
    const auto buffer = MakeBuffer(4, kCopyTo);
    constexpr auto kNoDevice = "DirectX 12 device is null";
    constexpr auto kNoResource = "Resource is null";
    constexpr auto kNotTarget = "The descriptor is not a render target view";
    NORVEX_REFUSED(kNoDevice, D12CompletionEvent(nullptr, D3D12_FENCE_FLAG_NONE));
    NORVEX_REFUSED(kNoDevice, D12CommandQueue(nullptr, {}));
    NORVEX_REFUSED("Command queue is null", D12CommandAllocator(nullptr));
    NORVEX_REFUSED("Command list is null", allocator->EnqueueCommandList(nullptr));
    NORVEX_REFUSED("Completion event is null", allocator->Wait(EventPtr()));
    NORVEX_REFUSED("Command allocator is null", allocator->Wait(AllocatorPtr()));
    NORVEX_REFUSED("Vertex buffer is null", list->Draw(nullptr));
    NORVEX_REFUSED("Index buffer is null", list->DrawIndexed(nullptr));
    NORVEX_REFUSED("Query is null", list->BeginQuery(nullptr));
    NORVEX_REFUSED("Query is null", list->EndQuery(nullptr));
    NORVEX_REFUSED(kNoResource, list->CopyResource(buffer, nullptr));
    NORVEX_REFUSED(kNoResource, list->CopyBufferRegion(nullptr, 0, buffer, 0, 4));
    NORVEX_REFUSED(kNoResource, list->CopyTextureRegion({}, 0, 0, 0, {}, nullptr));
    NORVEX_REFUSED(kNotTarget, list->OMSetRenderTargets({nullptr}, nullptr));
    NORVEX_REFUSED(kNotTarget, list->ClearRenderTargetView(nullptr, {}, {}));
    NORVEX_REFUSED(kNoResource, list->UploadResource({}));
    NORVEX_REFUSED(kNoResource, Queue()->DownloadResource({}));
    list->IASetVertexBuffer(nullptr);
    list->IASetVertexBuffers(1, {nullptr, nullptr});
    list->IASetIndexBuffer(nullptr);
}

// What the queue refuses is told, what the GPU may use is kept, and nothing waits for ever.
TEST_F(D3D12CommandTest, RefusedWaitsAndSignals) {
    const auto allocator = Queue()->CreateCommandAllocator();
    const auto gate = MakeGate();
    allocator->Wait(gate);
    Record(allocator);
    {
        const FailingMethod<&ID3D12CommandQueue::Wait> patch(Queue()->Get(), E_OUTOFMEMORY);
        ExpectFailure12([&] { allocator->Execute(); }, "Failed to wait for fence", "Execute",
                        E_OUTOFMEMORY);
        EXPECT_TRUE(allocator->IsCompleted()) << "nothing was submitted";
    }
    {
        const FailingMethod<&ID3D12CommandQueue::Signal> patch(Queue()->Get(), E_OUTOFMEMORY);
        const auto fails = [](const auto& call, const char* function) {
            ExpectFailure12(call, "Failed to signal fence", function, E_OUTOFMEMORY);
        };
        fails([&] { allocator->Execute(); }, "Execute");
        EXPECT_FALSE(allocator->IsCompleted());
        fails([&] { allocator->WaitComplete(); }, "WaitComplete");
        fails([&] { Queue()->CreateCommandAllocator()->Wait(allocator); }, "Wait");
        fails([] { Queue()->WaitComplete(); }, "WaitComplete");
    }
    EXPECT_EQ(m_token.use_count(), 2);
    {
        const FailingMethod<&ID3D12Fence::SetEventOnCompletion> patch(gate->GetFence(),
                                                                      E_OUTOFMEMORY);
        const auto fails = [](const auto& call) {
            ExpectFailure12(call, "Failed to set event on completion", "WaitComplete",
                            E_OUTOFMEMORY);
        };
        fails([&] { allocator->WaitComplete(); });
        Record(allocator);
        fails([&] { allocator->Execute(); });
        fails([] { Queue()->WaitComplete(); });
        fails([&] { gate->WaitComplete(); });
    }
    EXPECT_EQ(m_token.use_count(), 3);
    Open(gate);
    allocator->Execute();
    allocator->WaitComplete();
    EXPECT_EQ(CountAlive(), 0);
}

TEST_F(D3D12CommandTest, AFailedDownloadKeepsItsBufferFromThePool) {
    std::uint8_t byte = 0;
    D12DownloadRegionParams params;
    params.source = MakeBuffer(4, kCopyFrom);
    params.destination = &byte;
    params.size = 1;
    params.pool = Device()->CreateBufferPool(kReadback);
    const LogCapture log;
    std::size_t freeBuffers = 1;
    std::atomic<int> refusals{0};
    const auto gate = MakeGate();
    ASSERT_EQ(Queue()->Get()->Wait(gate->GetFence(), gate->GetValue()), S_OK);
    // The download's own wait fails and that of the background; the allocator's end waits.
    const MethodPatch<&ID3D12Fence::SetEventOnCompletion> patch(
        gate->GetFence(), [&](auto original, auto* self, auto value, auto event) -> HRESULT {
            if (++refusals <= 2) {
                return E_OUTOFMEMORY;
            }
            freeBuffers = params.pool->CountFree().first;
            Open(gate);
            return original(self, value, event);
        });
    EXPECT_EQ(SentenceOf([&] { Queue()->DownloadRegion(params); }),
              "Failed to set event on completion");
    D12CommandAllocator::WaitAllComplete();
    EXPECT_EQ(log.Count(google::GLOG_ERROR,
                        "A completion task failed: Failed to set event on completion"),
              1);
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
thread_local int t_allocationsLeft = -1;

void* AllocateUntilNoneIsLeft(std::size_t size) {
    if (t_allocationsLeft == 0) {
        throw std::bad_alloc();
    }
    t_allocationsLeft -= t_allocationsLeft > 0 ? 1 : 0;
    return ::operator new(size);
}

TEST_F(D3D12CommandTest, OutOfMemoryLosesNothing) {
    std::unique_ptr<ImportPatch> patch;
    try {
        patch = std::make_unique<ImportPatch>(L"NorvexDX.dll", "_Znwy", &AllocateUntilNoneIsLeft);
    } catch (const std::runtime_error&) {
        GTEST_SKIP() << "the library has an allocator of its own";
    }
    bool hasFailed = true;
    for (int n = 0; hasFailed; ++n) {
        const auto gate = MakeGate();
        Ptr<IRefCountable> objects[] = {MakeTracked(), MakeTracked()};
        try {
            hasFailed = false;
            t_allocationsLeft = n;
            const auto allocator = Queue()->CreateCommandAllocator();
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
        t_allocationsLeft = -1;
        Open(gate);
        std::ranges::fill(objects, nullptr);
        Queue()->WaitComplete();
        EXPECT_EQ(CountAlive(), 0) << n;
        ASSERT_LT(n, 1000);
    }
}

} // namespace
} // namespace Norvex::DX
