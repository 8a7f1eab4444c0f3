// Random work from a seed on real devices, beside a model of what every picture and buffer must
// hold: by eight threads at once, and by one that also passes what is wrong, which is refused with
// nothing changed. NORVEX_SECONDS, NORVEX_STEPS and NORVEX_SEED: ./dev stress, ./dev fuzz.

#include <chrono>
#include <map>
#include <mutex>

#include <fmt/format.h>

#include "tests/Proc/Direct3D12Fixture.h"
#include "tests/support/Canvas11.h"
#include "tests/support/FreedMemory.h"
#include "tests/support/Threads.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using AllocatorPtr = Ptr<D12CommandAllocator>;
using Rect = Rect2DT<long>;
using Bytes = std::vector<std::uint8_t>;

constexpr int kSide = 8; // of a picture
constexpr unsigned kSize = 300;
constexpr UINT64 kHuge = UINT64{1} << 63;
constexpr UINT64 kMost = ~UINT64{0};

struct GivenUp {}; // what callbacks throw

template <class Target>
struct Picture {
    Target target;
    Bytes bytes = Bytes(kSide * kSide * 4);
    AllocatorPtr last = {}; // which was the last to use it
};

template <class AnyCanvas>
struct Drawers {
    using Source = decltype(std::declval<AnyCanvas>().MakeSource({}, kColor));

    Drawers() {
        renderer->SetFitMode(RenderFitMode::Fill);
        for (unsigned i = 0; i < 6; ++i) {
            const Pixels pixel = {1, 1, {{i / 5.0, 1 - i / 5.0, i % 3 / 5.0, 1}}};
            sources.emplace_back(canvas.MakeSource(pixel, kColor), EncodePixels(pixel, kColor));
        }
    }

    AnyCanvas canvas;
    std::vector<std::pair<Source, Bytes>> sources;
    Ptr<typename AnyCanvas::ImageDraw> draw{new AnyCanvas::ImageDraw(canvas.GetDevice())};
    Ptr<typename AnyCanvas::ImageRenderer> renderer{
        new AnyCanvas::ImageRenderer(canvas.GetDevice())};
};

// What the threads share.
struct World {
    Drawers<Canvas11> on11;
    Drawers<Canvas> on12;
    Ptr<D12Device> device = on12.canvas.GetDevice();
    Ptr<D12CommandQueue> queues[2] = {new D12CommandQueue(device, {}),
                                      new D12CommandQueue(device, {})};
    Ptr<D12CompletionEvent> event = device->CreateCompletionEvent({}); // of the first
    Ptr<D12BufferPool> buffers = device->CreateBufferPool(kUpload);
    std::mutex mutex;                                  // guards what follows
    std::map<std::string, std::pair<int, int>> counts; // done, and calls refused
};

// All that one thread does. Its pictures and buffers are its own.
class Actor {
public:
    // errs: passes wrong arguments too.
    Actor(World& world, unsigned seed, bool errs) : m_world(world), m_random(seed), m_errs(errs) {
        for (int i = 0; i < 3; ++i) {
            m_pictures11.push_back({world.on11.canvas.MakeTarget(kSide, kSide, kColor)});
            m_pictures.push_back({world.on12.canvas.MakeTarget(kSide, kSide, kColor)});
        }
        world.on12.canvas.GetQueue()->WaitComplete();
    }

    unsigned Below(std::size_t end) { return static_cast<unsigned>(m_random() % end); }
    auto& Any(auto& items) { return items[Below(std::size(items))]; }

    void Step() {
        static constexpr std::pair<const char*, void (Actor::*)()> kOperations[] = {
            {"frame on 12", &Actor::DrawFrame},       {"frame on 12", &Actor::DrawFrame},
            {"frame on 11", &Actor::DrawFrame11},     {"read back", &Actor::Check},
            {"make, record by hand", &Actor::UseOne}, {"use a pool", &Actor::UsePool},
            {"call back", &Actor::CallBack}};
        const auto& [name, operation] = Any(kOperations);
        m_operation = name;
        EXPECT_EQ(SentenceOf([&, run = operation] { (this->*run)(); }), "(nothing)") << name;
        const std::lock_guard guard(m_world.mutex);
        auto& [done, refused] = m_world.counts[name];
        ++done;
        refused += std::exchange(m_refused, 0);
    }
    // Pictures show what they must, and the devices live.
    void Check() {
        const auto expect = [](auto& drawers, const auto& picture) {
            if (picture.last != nullptr) {
                picture.last->WaitComplete();
            }
            EXPECT_EQ(EncodePixels(drawers.canvas.Read(picture.target), kColor), picture.bytes);
        };
        expect(m_world.on11, Any(m_pictures11));
        expect(m_world.on12, Any(m_pictures));
        EXPECT_EQ(m_world.device->GetDeviceRemovedReason(), S_OK);
        EXPECT_EQ(m_world.on11.canvas.GetDevice()->GetDeviceRemovedReason(), S_OK);
    }

private:
    // At times one of the wrong ones, if this thread errs.
    template <class Value>
    Value Or(Value right, std::initializer_list<std::type_identity_t<Value>> wrong) {
        if (!m_errs || Below(6) != 0) {
            return right;
        }
        m_isWrong = true;
        return *(wrong.begin() + Below(wrong.size()));
    }
    // The call is refused if it takes something wrong, and only then. Whether it was made.
    template <class Call>
    bool Do(const Call& call, bool isWrong = false) {
        m_isWrong = isWrong;
        const Thrown thrown = ThrownBy(call);
        const bool isRefused = thrown.sentence != "(nothing)";
        EXPECT_EQ(isRefused, m_isWrong) << m_operation << ": " << thrown.sentence;
        EXPECT_EQ(isRefused, !thrown.function.empty()) << thrown.sentence;
        m_refused += isRefused ? 1 : 0;
        return !isRefused;
    }

    // Draws one colour over a part, on a context, an allocator or an open list.
    template <class AnyCanvas, class On>
    bool Draw(Drawers<AnyCanvas>& drawers, const On& on, auto& picture) {
        const auto& [source, color] = Any(drawers.sources);
        const unsigned kind = Below(3);
        const auto edge = [&] {
            return kind != 1 && Below(8) == 0 ? 1L << 20 : static_cast<long>(Below(16)) - 4;
        };
        const Rect rect = {edge(), edge(), edge(), edge()};
        const long right = kind == 1 ? static_cast<long>(Below(3)) : 0;
        const long up = kind == 1 ? static_cast<long>(Below(3)) : 0;
        AffineTransform shift;
        shift.rows[3] = {static_cast<float>(right), static_cast<float>(up), 0, 1};
        const bool isDone = Do([&] {
            const On where = Or(on, {nullptr});
            const auto target = Or(ViewOf(picture.target), {nullptr});
            if constexpr (std::is_same_v<AnyCanvas, Canvas>) {
                if (kind == 0) {
                    const auto part = [&](unsigned i) { return color[i] / 255.0F; };
                    return m_fill->Encode(where, {part(0), part(1), part(2), 1}, target, rect);
                }
            }
            const auto from = Or(source, {nullptr});
            kind == 1 ? drawers.draw->Encode(where, from, target, shift, {}, rect)
                      : drawers.renderer->Encode(where, from, target, {}, rect);
        });
        for (long i = 0; isDone && i < long{kSide} * kSide; ++i) {
            const long x = i % kSide;
            const long y = i / kSide;
            if (x >= rect.left + right && x < rect.right && y >= rect.top && y < rect.bottom - up) {
                std::ranges::copy(color, picture.bytes.begin() + i * 4);
            }
        }
        return isDone;
    }
    // On a queue of its own or a shared one, in a list each or one open list; at times given up.
    void DrawFrame() {
        const Ptr<D12CommandQueue> queue = Below(3) == 0 ? m_queue : Any(m_world.queues);
        AllocatorPtr& kept = m_allocators[queue.get()];
        const AllocatorPtr allocator = kept != nullptr ? kept : queue->CreateCommandAllocator();
        const auto before = m_pictures;
        const bool isOneList = Below(2) == 0;
        bool isEmpty = !isOneList;
        const auto record = [&](const auto& on) {
            for (unsigned left = Below(64) == 0 ? 400 : 1 + Below(4); left > 0; --left) {
                auto& picture = Any(m_pictures);
                if (picture.last != nullptr) {
                    allocator->Wait(picture.last);
                }
                isEmpty = !Draw(m_world.on12, on, picture) && isEmpty;
            }
            if (Below(8) == 0) {
                throw GivenUp();
            }
        };
        try {
            isOneList ? allocator->RecordList(nullptr, record) : record(allocator);
        } catch (const GivenUp&) {
            m_pictures = before;
            kept = isOneList ? allocator : nullptr; // with nothing of it
            return;
        }
        if (Do([&] { allocator->Execute(); }, isEmpty)) {
            for (auto& picture : m_pictures) {
                picture.last = allocator;
            }
        }
        kept = Below(2) == 0 ? allocator : nullptr;
        const std::function<void()> waits[] = {
            [] {}, [&] { allocator->WaitComplete(); }, [&] { queue->WaitComplete(); },
            [&] {
                m_world.event->SignalNext([this](UINT64 value) {
                    return m_world.queues[0]->Get()->Signal(m_world.event->GetFence(), value);
                });
                m_world.event->WaitComplete();
            }};
        Any(waits)();
    }
    void DrawFrame11() {
        m_world.on11.canvas.Record([&](const auto& context) {
            for (unsigned left = 1 + Below(4); left > 0; --left) {
                Draw(m_world.on11, context, Any(m_pictures11));
            }
        });
    }
    // Of what is made some lives for a while. A list that is closed takes nothing any more.
    void UseOne() {
        D12Device& on = *m_world.device;
        const auto& device11 = m_world.on11.canvas.GetDevice();
        const ResourcePtr texture = m_pictures[0].target->GetFirstResource();
        const ViewPtr& target = m_pictures[0].target;
        const ViewPtr& view = m_world.on12.sources[0].first;
        const auto buffer = on.CreateBuffer({.size = kSize});
        const auto query = on.CreateQuery(kTime);
        const auto to = [&] { return Or(buffer, {nullptr, texture}); };
        const auto at = [&] { return Or(UINT64{9}, {kSize, kHuge, kMost}); };
        const auto size = [&] { return Or(UINT64{9}, {0, kSize + 1, kHuge, kMost}); };
        Bytes bytes(9);
        Ptr<IRefCountable> made;
        AllocatorPtr allocator = m_queue->CreateCommandAllocator();
        const ListPtr list = allocator->CreateCommandList(nullptr);
        const std::function<void()> onList[] = {
            [&] { list->OMSetRenderTarget(Or(target, {nullptr, view}), Or(ViewPtr(), {target})); },
            [&] { list->ClearRenderTargetView(Or(target, {nullptr, view}), {}, {}); },
            [&] { list->CopyResource(Or(buffer, {nullptr}), buffer); },
            [&] { list->EndQuery(Or(query, {nullptr})); },
            [&] { list->IASetVertexBuffers(0, {nullptr}); },
            [&] { list->ResourceBarrier({}); },
            [&] {
                list->UploadRegion({to(), {}, {}, at(), Or(bytes.data(), {nullptr}), size(), {}});
            }};
        const std::function<void()> ways[] = {
            [&] { Any(onList)(); },
            [&] { made = on.CreateUploadBuffer(Or(UINT64{9}, {0, kHuge, kMost})); },
            [&] { made = on.CreateReadbackBuffer(Or(UINT64{9}, {0, kHuge, kHuge - 1})); },
            [&] { made = on.CreateQuery(Or(kTime, {static_cast<D3D12_QUERY_TYPE>(9)})); },
            [&] { made = on.CreateViewHeap(Or(1 + Below(200), {~0U})); },
            [&] { made = on.CreateTextureShaderResourceView(Or(texture, {nullptr, buffer})); },
            [&] { made = on.CreateRenderTargetView(Or(texture, {nullptr})); },
            [&] {
                made = on.CreateViewHeap(9)->CopyDescriptor(Or(9U, {~0U}), Or(view, {nullptr}));
            },
            [&] { made = D12VertexBuffer::Create(Or(buffer, {nullptr}), Or(4U, {1U << 31}), 2); },
            [&] { made = new D12CommandQueue(Or(m_world.device, {nullptr}), {}); },
            [&] { made = new D12BufferPool(Or(CComPtr(on.Get()), {nullptr}), kUpload); },
            [&] {
                made = D11RenderTexture2D::Create(Or(device11, {nullptr}),
                                                  MakeTextureDesc11(Or(4U, {0}), 4, kColor));
            },
            [&] {
                m_queue->DownloadRegion(
                    {Or(bytes.data(), {nullptr}), size(), to(), {}, {}, at(), {}});
            }};
        if (Do(Any(ways)) && made != nullptr) {
            Any(m_things) = made;
        }
        list->Close();
        Do(Any(onList), true);
    }
    // What a pool's buffer holds is its user's alone.
    void UsePool() {
        auto& [buffer, value] = Any(m_held);
        const auto next = static_cast<std::uint8_t>(Below(256));
        const auto write = [&, old = std::exchange(value, next)](std::uint8_t* data) {
            EXPECT_EQ(std::count(data, data + kSize, old), kSize);
        };
        if (buffer != nullptr) {
            buffer->Write(0, kSize, write);
        }
        buffer = m_world.buffers->CreateBuffer(kSize);
        buffer->Write(0, kSize, [&](std::uint8_t* data) { std::fill_n(data, kSize, next); });
        if (next < 8) {
            m_world.buffers->Clear();
        }
    }
    // Callbacks that throw, call back in, and drop what calls them.
    void CallBack() {
        const auto giveUp = [](auto*) { throw GivenUp(); };
        auto buffer = m_world.buffers->CreateBuffer(1);
        EXPECT_THROW(buffer->Write(0, 1, giveUp), GivenUp);
        EXPECT_THROW(m_world.device->CreateReadbackBuffer(1)->Read(0, 1, giveUp), GivenUp);
        buffer->Write(0, 1, [&](auto*) {
            buffer.reset();
            m_world.buffers->Clear();
        });
        const auto draw11 = [this](const auto&) {
            DrawFrame11();
            throw GivenUp();
        };
        EXPECT_THROW(m_world.on11.canvas.GetDevice()->Encode(draw11), GivenUp);
        AllocatorPtr allocator = m_queue->CreateCommandAllocator();
        allocator->RecordList(nullptr, [](const auto&) {});
        const auto misuse = [&](const ListPtr& list) {
            Do([&] { allocator->CreateCommandList(nullptr); }, true);
            Do([&] { allocator->Execute(); }, true);
            Do([&] { allocator->EnqueueCommandList(list); }, true);
            DrawFrame();
            allocator.reset();
            throw GivenUp();
        };
        EXPECT_THROW(allocator->RecordList(nullptr, misuse), GivenUp);
    }
    // The device's views come and go.
    ViewPtr ViewOf(const ViewPtr& target) const {
        return m_world.device->CreateRenderTargetView(target->GetFirstResource());
    }
    static auto ViewOf(const Ptr<D11RenderTexture2D>& target) { return target; }

    static constexpr auto kTime = D3D12_QUERY_TYPE_TIMESTAMP;

    World& m_world;
    std::mt19937 m_random;
    bool m_errs;
    bool m_isWrong = false; // an argument of the present call
    const char* m_operation = "begin";
    int m_refused = 0;
    Ptr<D12CommandQueue> m_queue{new D12CommandQueue(m_world.device, {})};
    std::map<D12CommandQueue*, AllocatorPtr> m_allocators;
    Ptr<D12FillDraw> m_fill{new D12FillDraw(m_world.device)};
    std::vector<Picture<ViewPtr>> m_pictures;
    std::vector<Picture<Ptr<D11RenderTexture2D>>> m_pictures11;
    std::array<std::pair<Ptr<D12Buffer>, std::uint8_t>, 8> m_held;
    std::array<Ptr<IRefCountable>, 16> m_things;
};

// Prints what was done, after which nothing may be left.
template <class Work>
void RunIn(const std::string& title, const Work& work) {
    auto world = std::make_unique<World>();
    auto device11 = world->on11.canvas.GetDevice();
    auto device12 = world->device;
    work(*world);
    fmt::print("{}\n{:24}{:>9}{:>9}\n", title, "", "done", "refused");
    for (const auto& [name, count] : world->counts) {
        fmt::print("{:24}{:9}{:9}\n", name, count.first, count.second);
    }
    world.reset();
    ReleaseLast(std::move(device12));
    ReleaseLast(std::move(device11));
}

TEST(RandomWorkTest, EightThreadsAtOnce) {
    using Clock = std::chrono::steady_clock;
    const unsigned seed = FromEnvironment("NORVEX_SEED", 1);
    const unsigned seconds = FromEnvironment("NORVEX_SECONDS", 2);
    RunIn(fmt::format("Seed {}, {} s", seed, seconds), [&](World& world) {
        const auto end = Clock::now() + std::chrono::seconds(seconds);
        RunThreads(8, [&](unsigned thread) {
            Actor actor(world, 8 * seed + thread, false);
            while (Clock::now() < end && !testing::Test::HasFailure()) {
                actor.Step();
            }
        });
    });
}

class FuzzTest : public testing::TestWithParam<unsigned> {};

TEST_P(FuzzTest, WhatIsWrongIsRefusedAndChangesNothing) {
    const unsigned seed = FromEnvironment("NORVEX_SEED", GetParam());
    const unsigned steps = FromEnvironment("NORVEX_STEPS", 400);
    RunIn(fmt::format("Seed {}, {} steps", seed, steps), [&](World& world) {
        KeepFreedMemory();
        Actor actor(world, seed, true);
        for (unsigned step = 0; step < steps && !HasFailure(); ++step) {
            SCOPED_TRACE(fmt::format("seed {}, step {}", seed, step));
            actor.Step();
        }
    });
}
INSTANTIATE_TEST_SUITE_P(, FuzzTest, testing::Values(1, 2));

} // namespace
} // namespace Norvex::DX
