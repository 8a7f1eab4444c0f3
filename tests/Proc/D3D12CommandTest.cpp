// Events, queues, allocators, lists, transfers: when work is done and what lives until then.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <numeric>
#include <thread>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "tests/support/Canvas.h"
#include "tests/support/LifeProbe.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;

using ListResourceBarrier =
    MethodPatch<Slot::kListResourceBarrier,
                void(ID3D12GraphicsCommandList*, UINT, const D3D12_RESOURCE_BARRIER*)>;
using CreateCommandAllocator =
    MethodPatch<Slot::kDeviceCreateCommandAllocator,
                HRESULT(ID3D12Device*, D3D12_COMMAND_LIST_TYPE, REFIID, void**)>;
using ExecuteCommandLists = MethodPatch<Slot::kQueueExecuteCommandLists,
                                        void(ID3D12CommandQueue*, UINT, ID3D12CommandList* const*)>;

// Something whose life can be watched.
class Tracked : public RefCountImpl {
public:
    explicit Tracked(std::atomic<int>& alive) : m_alive(alive) { ++m_alive; }
    ~Tracked() override { --m_alive; }

private:
    std::atomic<int>& m_alive;
};

class D3D12CommandTest : public testing::Test {
protected:
    static void SetUpTestSuite() { s_canvas = std::make_unique<Canvas>(); }
    static void TearDownTestSuite() {
        D12CommandAllocator::WaitAllComplete();
        const CComPtr<ID3D12Device> raw(s_canvas->GetDevice()->Get());
        s_canvas.reset();
        EXPECT_EQ((raw.p->AddRef(), raw.p->Release()), 1u)
            << "a Direct3D object outlived the library's";
    }

    static const boost::intrusive_ptr<D12Device>& Device() { return s_canvas->GetDevice(); }
    static const boost::intrusive_ptr<D12CommandQueue>& Queue() { return s_canvas->GetQueue(); }

    static CComPtr<ID3D12Resource> MakeBuffer(std::uint64_t size, D3D12_RESOURCE_STATES state) {
        D12BufferDesc desc;
        desc.size = size;
        desc.initialState = state;
        return Device()->CreateBuffer(desc);
    }

    // Holds the queue back until its value is signalled.
    static boost::intrusive_ptr<D12CompletionEvent> MakeGate() {
        auto gate = Device()->CreateCompletionEvent(D3D12_FENCE_FLAG_NONE);
        gate->PreIncrementValue();
        return gate;
    }
    static void Open(const boost::intrusive_ptr<D12CompletionEvent>& gate) {
        ASSERT_EQ(gate->GetFence()->Signal(gate->GetValue()), S_OK);
    }

    static inline std::unique_ptr<Canvas> s_canvas;
};

TEST_F(D3D12CommandTest, EventsCompleteAtTheirTarget) {
    const auto event = Device()->CreateCompletionEvent(D3D12_FENCE_FLAG_NONE);
    EXPECT_TRUE(event->IsCompleted());
    EXPECT_EQ(event->GetSharedHandle(), nullptr);
    EXPECT_EQ(event->PreIncrementValue(), 1u);
    EXPECT_FALSE(event->IsCompleted());
    Queue()->Get()->Signal(event->GetFence(), 1);
    event->WaitComplete();
    EXPECT_TRUE(event->IsCompleted());
}

TEST_F(D3D12CommandTest, TrackedObjectsLiveUntilTheGpuIsDone) {
    std::atomic<int> alive{0};
    const auto gate = MakeGate();
    auto allocator = Queue()->CreateCommandAllocator();
    EXPECT_EQ(SentenceOf([&] { allocator->TrackObject(Queue()->Get()); }),
              "There is no active command list");
    auto buffer = MakeBuffer(64, D3D12_RESOURCE_STATE_COMMON);
    const LifeProbe probe(buffer);
    {
        const auto list = allocator->CreateCommandList(nullptr);
        const boost::intrusive_ptr<Tracked> object(new Tracked(alive));
        list->TrackObject(boost::intrusive_ptr<IRefCountable>(object));
        allocator->TrackObject(boost::intrusive_ptr<IRefCountable>(object));
        EXPECT_EQ(object->GetRefCount(), 2u) << "tracked once";
        list->TrackObject(buffer.p);
        list->Close();
    }
    buffer.Release();
    allocator->Wait(gate);
    allocator->Execute();
    allocator.reset();
    EXPECT_EQ(alive, 1);
    EXPECT_TRUE(probe.IsAlive());
    Open(gate);
    D12CommandAllocator::WaitAllComplete();
    EXPECT_EQ(alive, 0);
    EXPECT_FALSE(probe.IsAlive());
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
    list->Close();
    EXPECT_TRUE(list->IsClosed());
    EXPECT_EQ(list->GetType(), D3D12_COMMAND_LIST_TYPE_DIRECT);
    allocator->Execute();
    EXPECT_EQ(submissions, 1);
}

// As an exception leaves it: what comes after is not disturbed.
TEST_F(D3D12CommandTest, AnAbandonedRecordingLeavesThePoolsUsable) {
    {
        const auto allocator = Queue()->CreateCommandAllocator();
        allocator->CreateCommandList(nullptr);
    }
    const auto allocator = Queue()->CreateCommandAllocator();
    const auto list = allocator->CreateCommandList(nullptr);
    list->Close();
    allocator->Execute();
    allocator->WaitComplete();

    D12UploadRegionParams params;
    params.destination = MakeBuffer(4, D3D12_RESOURCE_STATE_COPY_DEST);
    params.size = 5;
    EXPECT_EQ(SentenceOf([&] { allocator->UploadRegion(params); }),
              "Uploading data does not fit in the destination");
    EXPECT_EQ(SentenceOf([&] { allocator->Execute(); }), "There are no command lists to execute");
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
    const boost::intrusive_ptr<D12CommandQueue> copyQueue(
        new D12CommandQueue(Device(), D3D12_COMMAND_QUEUE_DESC{D3D12_COMMAND_LIST_TYPE_COPY, 0,
                                                               D3D12_COMMAND_QUEUE_FLAG_NONE, 0}));
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

} // namespace
} // namespace Norvex::DX
