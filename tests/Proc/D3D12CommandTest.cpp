// Events, queues, allocators, lists, transfers: when work is done and what lives until then.

#include <array>
#include <chrono>
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

// What the queue signals when four threads make the call.
template <class Call>
std::vector<UINT64> SignalsOf(ID3D12CommandQueue* queue, const Call& call) {
    std::vector<UINT64> values;
    const QueueSignal patch(queue, [&](auto original, auto* self, auto* fence, auto value) {
        std::this_thread::sleep_for(value % 2 == 1 ? 20ms : 0ms);
        values.push_back(value);
        return original(self, fence, value);
    });
    RunThreads(4, [&](unsigned) { call(); });
    return values;
}

// A fence that goes back never wakes who waits for more.
TEST_F(D3D12CommandTest, ThreadsThatWaitForOneQueueSignalInOrder) {
    const auto values = SignalsOf(Queue()->Get(), [] { Queue()->WaitComplete(); });
    EXPECT_EQ(values.size(), 4u);
    EXPECT_TRUE(std::ranges::is_sorted(values));
}

// Threads signal one event on a queue, for which another waits. Both keep it meanwhile.
TEST_F(D3D12CommandTest, QueuesSignalEventsInOrderAndWaitForThem) {
    const auto other = Device()->CreateCommandQueue();
    EventPtr event = Device()->CreateCompletionEvent(D3D12_FENCE_FLAG_NONE);
    const auto done = Device()->CreateCompletionEvent(D3D12_FENCE_FLAG_NONE);
    const auto gate = MakeGate();
    Queue()->Wait(gate);
    EXPECT_EQ(SignalsOf(Queue()->Get(), [&] { Queue()->Signal(event); }),
              (std::vector<UINT64>{1, 2, 3, 4}));
    other->Wait(event);
    other->Signal(done);
    EXPECT_FALSE(event->IsCompleted() || done->IsCompleted());
    const LifeProbe probe(event->GetFence());
    event.reset();
    EXPECT_TRUE(probe.IsAlive());
    Open(gate);
    done->WaitComplete();
    Queue()->WaitComplete();
    Queue()->Wait(done);
    other->Wait(done);
    EXPECT_FALSE(probe.IsAlive()) << "it is not kept for longer";
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
    const CallCount<&ID3D12CommandQueue::Wait> waits(Queue()->Get());
    const auto finish = [&] {
        Open(std::exchange(gate, MakeGate()));
        for (Host& host : hosts) {
            host.allocator->WaitComplete();
            host.isBusy = false;
        }
        D12CommandAllocator::WaitAllComplete();
        submitted = 0;
    };
    const auto execute = [&](Host& host, unsigned kind) {
        if (host.isBusy) { // this would wait for its last submission
            finish();
        }
        host.allocator->Wait(gate);
        if (kind == 0) {
            const FailingMethod<&ID3D12CommandQueue::Wait> fail(Queue()->Get(), E_OUTOFMEMORY);
            EXPECT_EQ(SentenceOf([&] { host.allocator->Execute(); }), "Failed to wait for fence");
            EXPECT_TRUE(host.allocator->IsCompleted()) << "nothing was submitted";
        }
        const int before = waits.Get();
        submitted += std::exchange(host.recorded, 0);
        if (kind == 1) {
            const FailingMethod<&ID3D12CommandQueue::Signal> fail(Queue()->Get(), E_OUTOFMEMORY);
            constexpr auto kSentence = "Failed to signal fence";
            EXPECT_EQ(SentenceOf([&] { host.allocator->Execute(); }), kSentence);
            EXPECT_EQ(SentenceOf([&] { host.allocator->WaitComplete(); }), kSentence);
        } else {
            host.allocator->Execute();
        }
        EXPECT_EQ(waits.Get(), before + 1) << "each belongs to one submission";
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
            const auto giveUp = [&](const ListPtr& list) {
                list->TrackObject(MakeTracked());
                host.allocator->Wait(gate);
                list->OMSetRenderTarget(nullptr, nullptr);
            };
            EXPECT_EQ(SentenceOf([&] { host.allocator->RecordList(nullptr, giveUp); }),
                      "The descriptor is not a render target view");
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

// The GPU is busy with one frame while the next is recorded: two Direct3D allocators take turns.
// Each frame waits for the one before it, and another queue for each frame. A recording that is
// given up before takes no turn.
TEST_F(D3D12CommandTest, SubmissionsWaitAndMemoryIsResetWhenTheGpuHasLeftIt) {
    const auto copyQueue = MakeQueue(D3D12_COMMAND_LIST_TYPE_COPY);
    const auto allocator = Queue()->CreateCommandAllocator();
    const auto other = copyQueue->CreateCommandAllocator();
    const D12AllocatorState any = Device()->CreateCommandAllocator(kDirect);
    const CallCount<&ID3D12Device::CreateCommandAllocator> made(Raw());
    const CallCount<&ID3D12Device::CreateCommandList> madeLists(Raw());
    std::vector<ID3D12CommandAllocator*> resets;
    EventPtr last = MakeGate();
    Open(last);
    for (int frame = 0; frame < 20; ++frame) {
        const auto gate = MakeGate();
        allocator->Wait(gate);
        {
            const MethodPatch<&ID3D12CommandAllocator::Reset> patch(any.Get(),
                                                                    [&](auto original, auto* self) {
                                                                        resets.push_back(self);
                                                                        return original(self);
                                                                    });
            EXPECT_THROW(allocator->RecordList(nullptr, [](const auto&) { throw 0; }), int);
            Record(allocator);
            Record(allocator);
        }
        const std::jthread opener([last] {
            std::this_thread::sleep_for(2ms);
            Open(last);
        });
        allocator->Execute();
        EXPECT_TRUE(last->IsCompleted());
        other->Wait(allocator);
        Record(other);
        other->Execute();
        EXPECT_FALSE(allocator->IsCompleted() || other->IsCompleted());
        last = gate;
    }
    Open(last);
    other->WaitComplete();
    allocator->WaitComplete(); // some systems tell one queue of the other's end before the host
    ASSERT_EQ(resets.size(), 39u);
    for (std::size_t i = 1; i < resets.size(); i += 2) { // what was given up, and what was not
        EXPECT_TRUE(resets[i] == resets[i + 1] && resets[i] != resets[i - 1]) << i;
    }
    EXPECT_LE(made.Get(), 2);
    EXPECT_LE(madeLists.Get(), 6) << "those of two frames";
}

TEST_F(D3D12CommandTest, ClearsKeepToTheirRectangles) {
    const Color red = {1, 0, 0, 1};
    const Color blue = {0, 0, 1, 1};
    const auto target = s_canvas->MakeTarget(4, 2, kColor, {0, 0, 1, 1});
    s_canvas->Record([&](const AllocatorPtr& allocator) {
        allocator->ClearRenderTargetView(target, {1, 0, 0, 1}, {RECT{1, 0, 3, 1}});
    });
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

    upload.destinationOffset = download.sourceOffset = 157;
    NORVEX_REFUSED("Uploading data does not fit in the destination", Queue()->UploadRegion(upload));
    NORVEX_REFUSED("Downloading data does not fit in the source",
                   Queue()->DownloadRegion(download));
}

// Two slices with rows that are not a multiple of the copy pitch, and callers' rows longer than
// needed.
TEST_F(D3D12CommandTest, TexturesTravelThereAndBack) {
    constexpr std::uint64_t kRow = 5ull * 4;
    constexpr std::uint64_t kPitch = 32;
    constexpr std::uint64_t kSlice = 3 * kPitch;
    std::uint8_t data[2 * kSlice];
    std::uint8_t read[2 * kSlice] = {};
    std::iota(std::begin(data), std::end(data), std::uint8_t{0});
    D12UploadResourceParams upload;
    upload.destination = Device()->CreateTexture2D({.width = 5,
                                                    .height = 3,
                                                    .arraySize = 2,
                                                    .format = kColor,
                                                    .initialState = kCopyTo,
                                                    .clearColor = {}});
    upload.stateAfter = kCopyFrom;
    upload.subresources = {{data, kPitch, 0}, {data + kSlice, kPitch, 0}};
    Queue()->UploadResource(upload);
    D12DownloadResourceParams download;
    download.source = upload.destination;
    download.subresources = {{read, kPitch, 0}, {read + kSlice, kPitch, 0}};
    const auto expectRead = [&] {
        Queue()->DownloadResource(download);
        for (std::size_t i = 0; i < std::size(data); ++i) {
            ASSERT_EQ(read[i], i % kPitch < kRow ? data[i] : 0) << i;
        }
    };
    expectRead();
    // A box of the second slice, while the first stays in its state.
    std::uint8_t box[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 9, 9, 1, 2, 3, 4, 5, 6, 7, 8};
    std::uint8_t readBox[std::size(box)] = {0, 0, 0, 0, 0, 0, 0, 0, 9, 9, 9};
    auto uploadBox = upload;
    uploadBox.stateBefore = kCopyFrom;
    uploadBox.stateAfter = D3D12_RESOURCE_STATE_COMMON;
    uploadBox.subresources = {{box, 11, 0}};
    uploadBox.firstSubresource = 1;
    uploadBox.box = {2, 1, 0, 4, 3, 1};
    auto downloadBox = download;
    downloadBox.stateBefore = D3D12_RESOURCE_STATE_COMMON;
    downloadBox.subresources = {{readBox, 11, 0}};
    downloadBox.firstSubresource = uploadBox.firstSubresource;
    downloadBox.box = uploadBox.box;
    Queue()->UploadResource(uploadBox);
    Queue()->DownloadResource(downloadBox);
    EXPECT_THAT(readBox, testing::ElementsAreArray(box));
    std::copy_n(box, 8, data + kSlice + kPitch + 8);
    std::copy_n(box + 11, 8, data + kSlice + 2 * kPitch + 8);
    expectRead();
    uploadBox.firstSubresource = 2;
    NORVEX_REFUSED("Subresource index out of range", Queue()->UploadResource(uploadBox));
    downloadBox.box->right = 6;
    NORVEX_REFUSED("Downloading data does not fit in the source",
                   Queue()->DownloadResource(downloadBox));
    upload.subresources[1].rowPitch = download.subresources[0].rowPitch = kRow - 1;
    NORVEX_REFUSED("Invalid upload data", Queue()->UploadResource(upload));
    NORVEX_REFUSED("Invalid download data", Queue()->DownloadResource(download));
}

TEST_F(D3D12CommandTest, RefusesWhatCannotBe) {
    const auto allocator = Queue()->CreateCommandAllocator();
    const auto list = allocator->CreateCommandList(nullptr);
    NORVEX_REFUSED("Found command list that was not closed", allocator->Execute());
    NORVEX_REFUSED("Invalid query type",
                   allocator->EndQuery(Device()->CreateQuery(D3D12_QUERY_TYPE_OCCLUSION)));
    const auto target = s_canvas->MakeTarget(4, 2, kColor);
    list->OMSetRenderTargets(std::vector(8, target), nullptr);
    NORVEX_REFUSED("Invalid render target count",
                   list->OMSetRenderTargets(std::vector(9, target), nullptr));
}

// An allocator and a queue that can never know whether the GPU has finished.
TEST_F(D3D12CommandTest, WhatTheGpuMayUseIsReleasedWithTheDeviceOnly) {
    auto queue = MakeQueue(kDirect);
    ID3D12CommandQueue* const rawQueue = queue->Get();
    D12AllocatorState state = Device()->CreateCommandAllocator(kDirect);
    ID3D12CommandAllocator* const rawAllocator = state.Get();
    const EventPtr event = state.GetCompletionEvent();
    Device()->ReuseCommandAllocator(kDirect, std::move(state));
    const LifeProbe probes[] = {LifeProbe(rawQueue), LifeProbe(rawAllocator)};
    auto allocator = queue->CreateCommandAllocator();
    const auto object = MakeTracked();
    allocator->RecordList(nullptr, [&](const ListPtr& list) { list->TrackObject(object); });
    ID3D12Fence* queueFence = nullptr;
    const MethodPatch<&ID3D12CommandQueue::ExecuteCommandLists> idle(rawQueue, [](auto...) {});
    const QueueSignal refuse(rawQueue, [&](auto, auto*, auto* fence, auto) {
        queueFence = fence; // the last one
        return E_OUTOFMEMORY;
    });
    EXPECT_EQ(SentenceOf([&] { allocator->Execute(); }), "Failed to signal fence");
    EXPECT_FALSE(allocator->IsCompleted());
    allocator.reset();
    queue.reset();
    EXPECT_EQ(object->GetRefCount(), 2u);
    ASSERT_TRUE(probes[0].IsAlive() && probes[1].IsAlive());
    object->Release(); // here no GPU uses it
    event->Release();
    rawAllocator->Release();
    rawQueue->Release();
    queueFence->Release();
}

} // namespace
} // namespace Norvex::DX
