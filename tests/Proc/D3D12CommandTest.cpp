// Events, queues, allocators, lists, transfers: when work is done and what lives until then.

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <new>
#include <numeric>
#include <thread>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3D12GraphicsPipelineState.h"
#include "Proc/DirectX/Manager/D3D12Query.h"
#include "Proc/DirectX/Manager/D3D12ShaderParameters.h"
#include "tests/support/DeviceTest.h"
#include "tests/support/ImportPatch.h"
#include "tests/support/LifeProbe.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using namespace std::chrono_literals;

using ObjectPtr = boost::intrusive_ptr<IRefCountable>;
using ListPtr = boost::intrusive_ptr<D12GraphicsCommandList>;
using EventPtr = boost::intrusive_ptr<D12CompletionEvent>;
using ListResourceBarrier =
    MethodPatch<&ID3D12GraphicsCommandList::ResourceBarrier>;
using CreateCommandAllocator =
    MethodPatch<&ID3D12Device::CreateCommandAllocator>;
using AllocatorReset = MethodPatch<&ID3D12CommandAllocator::Reset>;
using ExecuteCommandLists = MethodPatch<&ID3D12CommandQueue::ExecuteCommandLists>;
using QueueSignal =
    MethodPatch<&ID3D12CommandQueue::Signal>;
using SetEventOnCompletion =
    MethodPatch<&ID3D12Fence::SetEventOnCompletion>;
using GetDeviceRemovedReason =
    MethodPatch<&ID3D12Device::GetDeviceRemovedReason>;

// Something whose life can be watched.
class Tracked : public RefCountImpl {
public:
    explicit Tracked(
        std::atomic<int>& alive, std::function<void()> onDestroy = [] {})
        : m_alive(alive),
          m_onDestroy(std::move(onDestroy)) {
        ++m_alive;
    }
    ~Tracked() override {
        m_onDestroy();
        --m_alive;
    }

private:
    std::atomic<int>& m_alive;
    std::function<void()> m_onDestroy;
};

class D3D12CommandTest : public CanvasTest {
protected:
    static CComPtr<ID3D12Resource> MakeBuffer(std::uint64_t size, D3D12_RESOURCE_STATES state) {
        D12BufferDesc desc;
        desc.size = size;
        desc.initialState = state;
        return Device()->CreateBuffer(desc);
    }
    static auto MakeQueue(D3D12_COMMAND_LIST_TYPE type) {
        return boost::intrusive_ptr(
            new D12CommandQueue(Device(), {type, 0, D3D12_COMMAND_QUEUE_FLAG_NONE, 0}));
    }
    ObjectPtr MakeTracked(std::function<void()> onDestroy = [] {}) {
        return ObjectPtr(new Tracked(m_alive, std::move(onDestroy)));
    }
    void Record(const boost::intrusive_ptr<D12CommandAllocator>& allocator) {
        allocator->RecordList(nullptr,
                              [&](const ListPtr& list) { list->TrackObject(MakeTracked()); });
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

    std::atomic<int> m_alive{0};
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
    std::vector<std::jthread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] {
            event->WaitComplete();
            ++woken;
        });
    }
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(woken, 0);
    Queue()->Get()->Signal(event->GetFence(), 1);
    waiters.clear();
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
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] { Queue()->WaitComplete(); });
    }
    threads.clear();
    EXPECT_EQ(values.size(), 4u);
    EXPECT_TRUE(std::ranges::is_sorted(values));
}

TEST_F(D3D12CommandTest, TrackedObjectsLiveUntilTheGpuIsDone) {
    const auto gate = MakeGate();
    auto allocator = Queue()->CreateCommandAllocator();
    EXPECT_EQ(SentenceOf([&] { allocator->TrackObject(Queue()->Get()); }),
              "There is no active command list");
    auto buffer = MakeBuffer(64, D3D12_RESOURCE_STATE_COMMON);
    const LifeProbe probe(buffer);
    {
        const auto list = allocator->CreateCommandList(nullptr);
        const ObjectPtr object = MakeTracked();
        list->TrackObject(object);
        allocator->TrackObject(object);
        EXPECT_EQ(object->GetRefCount(), 2u) << "tracked once";
        list->TrackObject(buffer.p);
        list->Close();
    }
    buffer.Release();
    allocator->Wait(gate);
    allocator->Execute();
    allocator.reset();
    EXPECT_EQ(m_alive, 1);
    EXPECT_TRUE(probe.IsAlive());
    Open(gate);
    D12CommandAllocator::WaitAllComplete();
    EXPECT_EQ(m_alive, 0);
    EXPECT_FALSE(probe.IsAlive());
}

TEST_F(D3D12CommandTest, TrackingManyObjectsTakesNoLongerEach) {
    const auto allocator = Queue()->CreateCommandAllocator();
    const auto list = allocator->CreateCommandList(nullptr);
    std::vector<ObjectPtr> objects(200'000);
    std::ranges::generate(objects, [&] { return MakeTracked(); });
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 2; ++i) {
        for (const auto& object : objects) {
            list->TrackObject(object);
        }
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s) << "a search through all takes 10 s";
    EXPECT_TRUE(std::ranges::all_of(objects,
                                    [](const auto& object) { return object->GetRefCount() == 2; }));
}

// Its destructor may wait for the submission that used it.
TEST_F(D3D12CommandTest, ReleasesOutsideItsLock) {
    const auto allocator = Queue()->CreateCommandAllocator();
    for (int i = 0; i < 2; ++i) {
        allocator->RecordList(nullptr, [&](const ListPtr& list) {
            list->TrackObject(MakeTracked([&] { allocator->WaitComplete(); }));
        });
        allocator->Execute();
    }
    allocator->WaitComplete();
    D12CommandAllocator::WaitAllComplete();
    EXPECT_EQ(m_alive, 0);
}

TEST_F(D3D12CommandTest, ASecondExecuteWaitsForTheFirst) {
    const auto gate = MakeGate();
    const auto allocator = Queue()->CreateCommandAllocator();
    allocator->Wait(gate);
    allocator->CreateCommandList(nullptr)->Close();
    allocator->Execute();
    EXPECT_FALSE(allocator->IsCompleted());
    allocator->CreateCommandList(nullptr)->Close();
    std::atomic<bool> submitted{false};
    std::thread second([&] {
        allocator->Execute();
        submitted = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(submitted);
    Open(gate);
    second.join();
    allocator->WaitComplete();
    EXPECT_TRUE(allocator->IsCompleted());
}

TEST_F(D3D12CommandTest, ListsAreQueuedOnceAndSubmittedClosed) {
    int submissions = 0;
    const ExecuteCommandLists patch(Queue()->Get(),
                                    [&](auto original, auto* self, UINT count, auto* lists) {
                                        ++submissions;
                                        original(self, count, lists);
                                    });
    const auto allocator = Queue()->CreateCommandAllocator();
    EXPECT_EQ(SentenceOf([&] { allocator->Execute(); }), "There are no command lists to execute");
    const auto list = allocator->CreateCommandList(nullptr);
    EXPECT_EQ(SentenceOf([&] { allocator->EnqueueCommandList(list); }),
              "Command list already queued");
    EXPECT_EQ(SentenceOf([&] { allocator->Execute(); }), "Found command list that was not closed");
    EXPECT_EQ(submissions, 0);
    EXPECT_EQ(SentenceOf([&] { allocator->ResourceBarrier({}); }),
              "Found command list that was not closed");
    list->Close();
    EXPECT_TRUE(list->IsClosed());
    EXPECT_EQ(list->GetType(), D3D12_COMMAND_LIST_TYPE_DIRECT);
    allocator->Execute();
    EXPECT_EQ(submissions, 1);
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
    list->CopyResource(MakeBuffer(4, D3D12_RESOURCE_STATE_COPY_DEST),
                       MakeBuffer(4, D3D12_RESOURCE_STATE_COPY_SOURCE));
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
    const auto target = s_canvas->MakeTarget(2, 2, DXGI_FORMAT_R8G8B8A8_UNORM);
    const auto allocator = Queue()->CreateCommandAllocator();
    Record(allocator);
    allocator->Execute();
    allocator->ClearRenderTargetView(target, {1, 0, 0, 1}, {});
    allocator->WaitComplete();
    allocator->Execute();
    EXPECT_THAT(s_canvas->Read(target).colors, testing::Each(Color{1, 0, 0, 1}));
}

// A host that waits for nothing itself: two Direct3D allocators take turns, and the recording thread
// resets them.
TEST_F(D3D12CommandTest, OneAllocatorServesFrameAfterFrame) {
    constexpr int kFrames = 100;
    const auto thread = std::this_thread::get_id();
    std::vector<ID3D12CommandAllocator*> resets;
    int made = 0;
    D12CommandAllocator::WaitAllComplete(); // what came before
    const auto allocator = Queue()->CreateCommandAllocator();
    CComPtr<ID3D12CommandAllocator> any;
    ASSERT_EQ(Device()->Get()->CreateCommandAllocator({}, IID_PPV_ARGS(&any)), S_OK);
    {
        const AllocatorReset patch(any, [&](auto original, auto* self) {
            EXPECT_EQ(std::this_thread::get_id(), thread);
            resets.push_back(self);
            return original(self);
        });
        const CreateCommandAllocator patchMake(Device()->Get(),
                                               [&](auto original, auto... arguments) {
                                                   ++made;
                                                   return original(arguments...);
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
    EXPECT_LE(made, 1);
    allocator->WaitComplete();
    D12CommandAllocator::WaitAllComplete();
    EXPECT_EQ(m_alive, 0);
}

TEST_F(D3D12CommandTest, SteadyStateMakesNoAllocators) {
    const auto record = [] {
        const auto allocator = Queue()->CreateCommandAllocator();
        allocator->CreateCommandList(nullptr)->Close();
        allocator->Execute();
        allocator->WaitComplete();
    };
    record();
    D12CommandAllocator::WaitAllComplete();
    int made = 0;
    const CreateCommandAllocator patch(Device()->Get(), [&](auto original, auto... arguments) {
        ++made;
        return original(arguments...);
    });
    for (int i = 0; i < 5; ++i) {
        record();
        D12CommandAllocator::WaitAllComplete();
    }
    EXPECT_EQ(made, 0);
}

TEST_F(D3D12CommandTest, RenderTargetsAreCountedAndChecked) {
    const auto target = s_canvas->MakeTarget(4, 4, DXGI_FORMAT_R8G8B8A8_UNORM);
    const auto source = s_canvas->MakeSource(MakePixels(4, 4, [](auto, auto) { return Color{}; }),
                                             DXGI_FORMAT_R8G8B8A8_UNORM);
    const auto allocator = Queue()->CreateCommandAllocator();
    const auto list = allocator->CreateCommandList(nullptr);
    const auto set = [&](std::size_t count) {
        return SentenceOf([&] {
            list->OMSetRenderTargets(
                std::vector<boost::intrusive_ptr<D12Descriptor>>(count, target), nullptr);
        });
    };
    EXPECT_EQ(set(8), "(nothing)");
    EXPECT_EQ(set(9), "Invalid render target count");
    constexpr const char* kNotTarget = "The descriptor is not a render target view";
    EXPECT_EQ(SentenceOf([&] { list->OMSetRenderTarget(source, nullptr); }), kNotTarget);
    EXPECT_EQ(SentenceOf([&] { list->OMSetRenderTargets({target, source}, nullptr); }), kNotTarget);
    EXPECT_EQ(SentenceOf([&] { list->ClearRenderTargetView(source, {}, {}); }), kNotTarget);
    list->Close();
    allocator->Execute();
}

TEST_F(D3D12CommandTest, ClearsTouchTheirRectangles) {
    const auto target = s_canvas->MakeTarget(4, 2, DXGI_FORMAT_R8G8B8A8_UNORM, {0, 0, 1, 1});
    const auto allocator = Queue()->CreateCommandAllocator();
    allocator->ResourceBarrier({target->Transition(
        D3D12_RESOURCE_STATE_RENDER_TARGET, D3D12_RESOURCE_STATE_COMMON,
        D3D12_RESOURCE_BARRIER_ALL_SUBRESOURCES, D3D12_RESOURCE_BARRIER_FLAG_NONE)});
    allocator->ClearRenderTargetView(target, bitflags(D3D12_RESOURCE_STATE_COMMON), {1, 0, 0, 1},
                                     {RECT{1, 0, 3, 1}});
    allocator->Execute();
    const Pixels pixels = s_canvas->Read(target);
    EXPECT_EQ(pixels.At(0, 0), (Color{0, 0, 1, 1}));
    EXPECT_EQ(pixels.At(1, 0), (Color{1, 0, 0, 1}));
    EXPECT_EQ(pixels.At(2, 0), (Color{1, 0, 0, 1}));
    EXPECT_EQ(pixels.At(1, 1), (Color{0, 0, 1, 1}));
}

TEST_F(D3D12CommandTest, RegionsTravelThereAndBack) {
    std::vector<std::uint8_t> data(100);
    std::iota(data.begin(), data.end(), std::uint8_t{1});
    D12UploadRegionParams upload;
    upload.destination = MakeBuffer(256, D3D12_RESOURCE_STATE_COPY_DEST);
    upload.stateAfter = D3D12_RESOURCE_STATE_COPY_SOURCE;
    upload.destinationOffset = 156;
    upload.data = data.data();
    upload.size = data.size();
    // Of the wrong heap type, so the device's own pool serves.
    upload.pool = Device()->CreateBufferPool(D3D12_HEAP_TYPE_READBACK);
    Queue()->UploadRegion(upload);

    int barriers = 0;
    const auto allocator = Queue()->CreateCommandAllocator();
    const ListResourceBarrier patch(allocator->CreateCommandList(nullptr)->GetGraphics(),
                                    [&](auto original, auto... arguments) {
                                        ++barriers;
                                        original(arguments...);
                                    });
    std::vector<std::uint8_t> read(data.size());
    D12DownloadRegionParams download;
    download.source = upload.destination;
    download.destination = read.data();
    download.size = read.size();
    download.sourceOffset = 156;
    Queue()->DownloadRegion(download);
    EXPECT_EQ(read, data);
    EXPECT_EQ(barriers, 0) << "it was a copy source and stays one";
    download.stateAfter = D3D12_RESOURCE_STATE_COMMON;
    Queue()->DownloadRegion(download);
    EXPECT_EQ(barriers, 1);

    download.sourceOffset = 157;
    EXPECT_EQ(SentenceOf([&] { Queue()->DownloadRegion(download); }),
              "Downloading data does not fit in the source");
    upload.destinationOffset = 157;
    EXPECT_EQ(SentenceOf([&] { Queue()->UploadRegion(upload); }),
              "Uploading data does not fit in the destination");
    upload.destination = s_canvas->MakeTexture(MakePixels(4, 4, [](auto, auto) { return Color{}; }),
                                               DXGI_FORMAT_R8G8B8A8_UNORM);
    EXPECT_EQ(SentenceOf([&] { Queue()->UploadRegion(upload); }),
              "Destination resource is not a buffer");
    download.source = upload.destination;
    EXPECT_EQ(SentenceOf([&] { Queue()->DownloadRegion(download); }),
              "Source resource is not a buffer");

    upload.destination = MakeBuffer(256, D3D12_RESOURCE_STATE_COPY_DEST);
    upload.destinationOffset = 0;
    upload.data = nullptr;
    EXPECT_EQ(SentenceOf([&] { Queue()->UploadRegion(upload); }), "Invalid upload data");
    download.source = upload.destination;
    download.destination = nullptr;
    download.sourceOffset = 0;
    EXPECT_EQ(SentenceOf([&] { Queue()->DownloadRegion(download); }), "Invalid download data");
}

// Two slices with rows that are not a multiple of the copy pitch, and callers' rows longer than
// needed.
TEST_F(D3D12CommandTest, TexturesTravelThereAndBack) {
    constexpr unsigned kWidth = 5;
    constexpr unsigned kHeight = 3;
    constexpr std::uint64_t kPitch = 32;
    D12Texture2DDesc desc;
    desc.width = kWidth;
    desc.height = kHeight;
    desc.arraySize = 2;
    desc.format = DXGI_FORMAT_R8G8B8A8_UNORM;
    desc.initialState = D3D12_RESOURCE_STATE_COPY_DEST;
    D12UploadResourceParams upload;
    upload.destination = Device()->CreateTexture2D(desc);
    upload.stateAfter = D3D12_RESOURCE_STATE_COPY_SOURCE;
    std::vector<std::uint8_t> data(2 * kPitch * kHeight);
    std::iota(data.begin(), data.end(), std::uint8_t{0});
    upload.subresources = {{data.data(), kPitch, 0}, {data.data() + kPitch * kHeight, kPitch, 0}};
    Queue()->UploadResource(upload);

    std::vector<std::uint8_t> read(data.size());
    D12DownloadResourceParams download;
    download.source = upload.destination;
    download.subresources = {{read.data(), kPitch, 0}, {read.data() + kPitch * kHeight, kPitch, 0}};
    Queue()->DownloadResource(download);
    for (std::size_t row = 0; row < 2 * kHeight; ++row) {
        const auto* expected = data.data() + row * kPitch;
        EXPECT_TRUE(std::equal(expected, expected + kWidth * 4, read.data() + row * kPitch))
            << "row " << row;
        EXPECT_EQ(read[row * kPitch + kWidth * 4], 0) << "past the row";
    }
    upload.subresources[1].rowPitch = kWidth * 4 - 1;
    EXPECT_EQ(SentenceOf([&] { Queue()->UploadResource(upload); }), "Invalid upload data");
    download.subresources[0].rowPitch = kWidth * 4 - 1;
    EXPECT_EQ(SentenceOf([&] { Queue()->DownloadResource(download); }), "Invalid download data");
}

TEST_F(D3D12CommandTest, WaitsOrderTwoQueues) {
    const auto copyQueue = MakeQueue(D3D12_COMMAND_LIST_TYPE_COPY);
    EXPECT_EQ(copyQueue->GetType(), D3D12_COMMAND_LIST_TYPE_COPY);
    const auto gate = MakeGate();
    const auto first = copyQueue->CreateCommandAllocator();
    first->Wait(gate);
    first->CreateCommandList(nullptr)->Close();
    first->Execute();
    const auto second = Queue()->CreateCommandAllocator();
    second->Wait(first);
    second->CreateCommandList(nullptr)->Close();
    second->Execute();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(second->IsCompleted());
    Open(gate);
    second->WaitComplete();
    EXPECT_TRUE(first->IsCompleted());
}

TEST_F(D3D12CommandTest, NullObjectsAreRefused) {
    const auto allocator = Queue()->CreateCommandAllocator();
    const auto list = allocator->CreateCommandList(nullptr);
    const auto buffer = MakeBuffer(4, D3D12_RESOURCE_STATE_COPY_DEST);
    const struct {
        std::function<void()> call;
        const char* sentence;
        const char* function;
    } cases[] = {
        {[] { D12CompletionEvent(nullptr, D3D12_FENCE_FLAG_NONE); }, "DirectX 12 device is null",
         "D12CompletionEvent"},
        {[] { D12CommandQueue(nullptr, {}); }, "DirectX 12 device is null", "D12CommandQueue"},
        {[] { D12CommandAllocator(nullptr); }, "Command queue is null", "D12CommandAllocator"},
        {[&] { allocator->EnqueueCommandList(nullptr); }, "Command list is null",
         "EnqueueCommandList"},
        {[&] { allocator->Wait(EventPtr()); }, "Completion event is null", "Wait"},
        {[&] { allocator->Wait(boost::intrusive_ptr<D12CommandAllocator>()); },
         "Command allocator is null", "Wait"},
        {[&] { list->Draw(nullptr); }, "Vertex buffer is null", "Draw"},
        {[&] { list->DrawIndexed(nullptr); }, "Index buffer is null", "DrawIndexed"},
        {[&] { list->BeginQuery(nullptr); }, "Query is null", "BeginQuery"},
        {[&] { list->EndQuery(nullptr); }, "Query is null", "EndQuery"},
        {[&] { list->CopyResource(buffer, nullptr); }, "Resource is null", "CopyResource"},
        {[&] { list->CopyBufferRegion(nullptr, 0, buffer, 0, 4); }, "Resource is null",
         "CopyBufferRegion"},
        {[&] { list->CopyTextureRegion({}, 0, 0, 0, {}, nullptr); }, "Resource is null",
         "CopyTextureRegion"},
        {[&] { list->OMSetRenderTargets({nullptr}, nullptr); },
         "The descriptor is not a render target view", "OMSetRenderTargets"},
        {[&] { list->ClearRenderTargetView(nullptr, {}, {}); },
         "The descriptor is not a render target view", "ClearRenderTargetView"},
        {[&] { list->UploadRegion({}); }, "Resource is null", "UploadRegion"},
        {[&] { list->UploadResource({}); }, "Resource is null", "UploadResource"},
        {[] { Queue()->DownloadRegion({}); }, "Resource is null", "DownloadRegion"},
        {[] { Queue()->DownloadResource({}); }, "Resource is null", "DownloadResource"},
    };
    for (const auto& c : cases) {
        ExpectFailure12(c.call, c.sentence, c.function);
    }
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
    EXPECT_EQ(m_alive, 1);
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
    EXPECT_EQ(m_alive, 2);
    Open(gate);
    allocator->Execute();
    allocator->WaitComplete();
    D12CommandAllocator::WaitAllComplete();
    EXPECT_EQ(m_alive, 0);
}

TEST_F(D3D12CommandTest, AFailedDownloadKeepsItsBufferFromThePool) {
    std::uint8_t byte = 0;
    D12DownloadRegionParams params;
    params.source = MakeBuffer(4, D3D12_RESOURCE_STATE_COPY_SOURCE);
    params.destination = &byte;
    params.size = 1;
    params.pool = Device()->CreateBufferPool(D3D12_HEAP_TYPE_READBACK);
    const LogCapture log;
    std::size_t freeBuffers = 1;
    std::atomic<int> refusals{0};
    const auto gate = MakeGate();
    ASSERT_EQ(Queue()->Get()->Wait(gate->GetFence(), gate->GetValue()), S_OK);
    // The download's own wait fails and that of the background; the allocator's end waits.
    const SetEventOnCompletion patch(
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
        auto queue = MakeQueue(D3D12_COMMAND_LIST_TYPE_DIRECT);
        ID3D12CommandQueue* const rawQueue = queue->Get();
        const LifeProbe queueProbe(rawQueue);
        D12AllocatorState state = Device()->CreateCommandAllocator(queue->GetType());
        ID3D12CommandAllocator* const rawAllocator = state.Get();
        const LifeProbe allocatorProbe(rawAllocator);
        const EventPtr event = state.GetCompletionEvent();
        Device()->ReuseCommandAllocator(queue->GetType(), std::move(state));
        auto allocator = queue->CreateCommandAllocator();
        ObjectPtr object = MakeTracked();
        allocator->RecordList(nullptr, [&](const ListPtr& list) { list->TrackObject(object); });
        ID3D12Fence* queueFence = nullptr;
        bool isRefused = true;
        const QueueSignal patch(rawQueue, [&](auto original, auto* self, auto* fence, auto value) {
            queueFence = fence;
            return isRefused ? E_OUTOFMEMORY : original(self, fence, value);
        });
        const GetDeviceRemovedReason patchReason(
            Device()->Get(), [&](auto, auto) { return isRemoved ? DXGI_ERROR_DEVICE_HUNG : S_OK; });
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
        ObjectPtr objects[] = {MakeTracked(), MakeTracked()};
        try {
            hasFailed = false;
            t_allocationsLeft = n;
            const auto allocator = Queue()->CreateCommandAllocator();
            for (ObjectPtr& object : objects) {
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
        D12CommandAllocator::WaitAllComplete();
        EXPECT_EQ(m_alive, 0) << n;
        ASSERT_LT(n, 1000);
    }
}

TEST_F(D3D12CommandTest, DrawsThroughIndices) {
    const auto parameters = Device()->CreateShaderParameters();
    parameters->SetFlags({D3D12_ROOT_SIGNATURE_FLAG_ALLOW_INPUT_ASSEMBLER_INPUT_LAYOUT});
    parameters->SerializeRootSignature();
    D12GraphicsPipelineDesc desc;
    desc.rootSignature = parameters->GetRootSignature();
    desc.vertexShader = D12Shader::CreateVertex(
        "VsMain", "float4 VsMain(float2 p : POSITION) : SV_POSITION { return float4(p, 0, 1); }");
    desc.pixelShader =
        D12Shader::CreatePixel("PsMain", "float4 PsMain() : SV_TARGET { return 1; }");
    desc.rasterizer = CD3DX12_RASTERIZER_DESC(D3D12_DEFAULT);
    desc.depthStencil = CD3DX12_DEPTH_STENCIL_DESC(D3D12_DEFAULT);
    desc.depthStencil.DepthEnable = FALSE;
    desc.inputLayout = {{"POSITION", 0, DXGI_FORMAT_R32G32_FLOAT, 0, 0,
                         D3D12_INPUT_CLASSIFICATION_PER_VERTEX_DATA, 0}};
    desc.primitiveTopologyType = D3D12_PRIMITIVE_TOPOLOGY_TYPE_TRIANGLE;
    desc.renderTargetFormats = {DXGI_FORMAT_R8G8B8A8_UNORM};
    const auto pipeline = Device()->CreateGraphicsPipelineState(desc);

    const float corners[][2] = {{-1, -1}, {-1, 1}, {1, -1}, {1, 1}, {9, 9}};
    const auto draw = [&](const auto& indices) {
        const auto target = s_canvas->MakeTarget(4, 4, DXGI_FORMAT_R8G8B8A8_UNORM);
        const auto allocator = Queue()->CreateCommandAllocator();
        allocator->RecordList(pipeline, [&](const ListPtr& list) {
            const auto buffer = list->CreateIndexBuffer(indices);
            list->SetRootSignature(desc.rootSignature);
            list->OMSetRenderTarget(target, nullptr);
            list->RSSetViewports({{0, 0, 4, 4, 0, 1}});
            list->RSSetScissorRects({{0, 0, 4, 4}});
            list->IASetPrimitiveTopology(D3D_PRIMITIVE_TOPOLOGY_TRIANGLELIST);
            list->IASetVertexBuffer(list->CreateVertexBuffer(corners, sizeof(corners[0]), 5));
            list->IASetIndexBuffer(buffer);
            list->DrawIndexed(buffer);
        });
        allocator->Execute();
        EXPECT_THAT(s_canvas->Read(target).colors, testing::Each(Color{1, 1, 1, 1}));
    };
    draw(std::vector<std::uint16_t>{0, 1, 2, 2, 1, 3});
    draw(std::vector<std::uint32_t>{0, 1, 2, 2, 1, 3});
}

} // namespace
} // namespace Norvex::DX
