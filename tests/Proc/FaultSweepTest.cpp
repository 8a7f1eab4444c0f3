// Every call that a workload makes of the system fails once, with each of some results, and so does
// every allocation. The caller gets the library's exception, with that result, or the call is one
// whose failure is not told; nothing that the workload made is left; and the same workload works
// right after, on a new device where the device was lost.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <iterator>
#include <limits>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include "Host/CoreException.h"
#include "Proc/DirectX/Manager/D3D12Query.h"
#include "Proc/DirectX/Manager/D3D12TexturePool.h"
#include "Proc/DirectX/Manager/D3FrameConverter.h"
#include "Proc/DirectX/Manager/D3Scaler.h"
#include "tests/support/Canvas.h"
#include "tests/support/Canvas11.h"
#include "tests/support/Faults.h"
#include "tests/support/FrameHost.h"
#include "tests/support/OutOfMemory.h"
#include "tests/support/Thrown.h"

namespace Norvex::Test {

namespace {

constexpr Fault kFaults[] = {
    {E_OUTOFMEMORY}, kLoss, {E_FAIL}, {DXGI_ERROR_DEVICE_REMOVED}, {E_INVALIDARG}};

// A workload leaves the same each time, also when it throws after a second attempt.
using Leaving = std::vector<Color>;

// A picture, and what is drawn of it.
template <class AnyCanvas>
struct Drawing {
    // drawEach(on) records. What failed is done again on what it was recorded on, and told then.
    template <class Call>
    void Record(Leaving& leaving, const Call& drawEach) {
        std::exception_ptr failure;
        canvas.Record([&](const auto& on) {
            try {
                drawEach(on);
            } catch (const std::exception&) {
                failure = std::current_exception();
                drawEach(on);
            }
        });
        const Leaving drawn = canvas.Read(target).colors;
        leaving = canvas.Read(luma).colors;
        leaving.insert(leaving.end(), drawn.begin(), drawn.end());
        if (failure) {
            std::rethrow_exception(failure);
        }
    }

    AnyCanvas canvas;
    decltype(canvas.MakeSource({}, {})) source = canvas.MakeSource(
        MakePixels(8, 4, [](unsigned x, unsigned y) { return Color{x / 7.0, y / 3.0, 0.5, 1.0}; }),
        DXGI_FORMAT_R8G8B8A8_UNORM);
    typename AnyCanvas::View target = canvas.MakeTarget(8, 4, DXGI_FORMAT_R8G8B8A8_UNORM);
    typename AnyCanvas::View luma = canvas.MakeTarget(8, 4, DXGI_FORMAT_R8_UNORM);
    typename AnyCanvas::View chroma = canvas.MakeTarget(4, 2, DXGI_FORMAT_R8G8_UNORM);
};

// The drawers of images of a generation.
template <class AnyCanvas>
void DrawAll(Leaving& leaving) {
    Drawing<AnyCanvas> drawing;
    const auto& device = drawing.canvas.GetDevice();
    const boost::intrusive_ptr draw(new typename AnyCanvas::ImageDraw(device));
    const boost::intrusive_ptr renderer(new typename AnyCanvas::ImageRenderer(device));
    renderer->SetRotation(0.5F);
    const boost::intrusive_ptr converter(
        new typename AnyCanvas::Converter(device, Proc::AlphaType::AlphaIsOne));
    Proc::ColorAlphaConversionInfo conversion;
    conversion.target = {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ};
    drawing.Record(leaving, [&](const auto& on) {
        draw->Encode(on, drawing.source, drawing.target, conversion, std::nullopt);
        renderer->Encode(on, drawing.source, drawing.target, conversion, std::nullopt);
        AnyCanvas::Convert(*converter, on, AnyCanvas::TextureOf(drawing.source),
                           AnyCanvas::TextureOf(drawing.luma), AnyCanvas::TextureOf(drawing.chroma),
                           DXGI_FORMAT_NV12, Conf::YCbCrMatrix::BT709);
    });
}

void ConvertFrame(DX::D12FrameConverter& converter, const auto& on, const DX::D12Frame& from,
                  const DX::D12Frame& to) {
    constexpr auto kRead = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
    constexpr auto kDrawn = D3D12_RESOURCE_STATE_RENDER_TARGET;
    converter.Encode(on, from, to, {{{kRead, kRead}, {kDrawn, kDrawn}}});
}

void ConvertFrame(DX::D11FrameConverter& converter, const auto& on, const DX::D11Frame& from,
                  const DX::D11Frame& to) {
    converter.Encode(on, from, to);
}

// The drawers of frames, and the scaler. AnyFrame and others: of the canvas's generation.
template <class AnyCanvas, class AnyFrame, class FrameDraw, class Converter, class Scaler>
void DrawFrames(Leaving& leaving) {
    Drawing<AnyCanvas> drawing;
    const auto& device = drawing.canvas.GetDevice();
    const boost::intrusive_ptr draw(new FrameDraw(device));
    const boost::intrusive_ptr converter(new Converter(device));
    const boost::intrusive_ptr scaler(new Scaler(device));
    const boost::intrusive_ptr peak(new typename AnyCanvas::FramePeak(device));
    AnyFrame from;
    from.desc = DX::D3FrameDesc::MakeRGB({8, 4});
    from.textures[0] = AnyCanvas::TextureOf(drawing.source);
    AnyFrame bright = from;
    bright.desc.colorSpace = kPQ;
    AnyFrame to;
    to.desc.size = from.desc.size;
    to.textures = {AnyCanvas::TextureOf(drawing.luma), AnyCanvas::TextureOf(drawing.chroma)};
    drawing.Record(leaving, [&](const auto& on) {
        draw->Encode(on, from, drawing.target);
        scaler->Encode(on, drawing.source, drawing.target, {.rect = DX::Rect2DT<long>{1, 1, 5, 3}});
        scaler->Encode(on, from, drawing.target, {.rect = DX::Rect2DT<long>{5, 1, 8, 4}});
        ConvertFrame(*converter, on, from, to);
        peak->Encode(on, bright);
    });
}

// Draws into one open list.
struct ListCanvas : Canvas {
    template <class Call>
    void Record(const Call& call) {
        Canvas::Record([&](const auto& allocator) { allocator->RecordList(nullptr, call); });
    }
};

// Pools, queries, a fill and one queue that waits for another.
void UsePools12(Leaving& leaving) {
    Canvas canvas;
    const auto& device = canvas.GetDevice();
    DX::D12Texture2DDesc desc;
    desc.width = desc.height = 4;
    desc.format = DXGI_FORMAT_R8G8B8A8_UNORM;
    const auto texture = DX::D12Texture2DPool::Create(device, desc)->ObtainTexture();
    const auto query = device->CreateQuery(D3D12_QUERY_TYPE_TIMESTAMP);
    const std::uint8_t byte = 5;
    device->CreateBuffer({.heapType = D3D12_HEAP_TYPE_UPLOAD,
                          .size = 1,
                          .initialState = D3D12_RESOURCE_STATE_GENERIC_READ,
                          .initialData = &byte});
    device->CreateUploadBuffer(1)->Write(0, 1, [](auto*) {});
    device->CreateReadbackBuffer(1)->Read(0, 1, [](const auto*) {});
    const auto sampler = device->CreateSamplerHeap(4);
    device->CreateCompletionEvent(D3D12_FENCE_FLAG_SHARED);
    auto* const handle = device->CreateSharedHandle(texture->GetResource());
    CloseHandle(handle);
    device->OpenSharedResource(handle);
    const auto target = canvas.MakeTarget(4, 4, desc.format);
    const boost::intrusive_ptr fill(new DX::D12FillDraw(device));
    const auto allocator = canvas.GetQueue()->CreateCommandAllocator();
    fill->Encode(allocator, {1.0F, 0.5F, 0.0F, 1.0F}, target, {1, 1, 3, 3});
    allocator->RecordList(nullptr, [&](const auto& list) { list->TrackObject(texture); });
    allocator->EndQuery(query);
    allocator->Execute();
    const boost::intrusive_ptr other(new DX::D12CommandQueue(device, {}));
    const auto second = other->CreateCommandAllocator();
    second->Wait(allocator);
    second->RecordList(nullptr, [](const auto&) {});
    second->Execute();
    second->WaitComplete();
    leaving.push_back({query->GetUint64Stats() > 0 ? 1.0 : 0.0});
}

void Attach11(Leaving&) {
    DX::D11Device::Attach(DX::D11Device::CreatePrimary()->Get());
}

// Frames, new sizes, and to HDR and back; a switch that failed left nothing half done, and works
// when it is made again.
template <Generation generation>
void Present(Leaving& leaving) {
    FrameHost host(generation);
    std::exception_ptr failure;
    for (const bool isHDR : {false, true, false}) {
        host.Frame();
        host.window.Place(40, 40, {isHDR ? 100 : 101, 90});
        const auto change = [&] {
            host.swapChain->RecreateBuffers();
            isHDR ? void(host.EnableHDR()) : host.swapChain->DisableHDR();
        };
        try {
            change();
        } catch (const std::exception&) {
            failure = std::current_exception();
            change();
        }
    }
    host.Frame();
    const auto target = host.swapChain->GetConversionInfo({}, {}).target.transfer;
    leaving.push_back({target == Conf::TransferCharacteristics::sRGB ? 1.0 : 0.0});
    if (failure) {
        std::rethrow_exception(failure);
    }
}

// A wait that the system does not block, as some do, until an event is asked for.
void Wait12(Leaving&) {
    const auto device = DX::D12Device::CreatePrimary();
    const auto gate = device->CreateCompletionEvent(D3D12_FENCE_FLAG_NONE);
    ID3D12Fence* const fence = gate->GetFence();
    const MethodPatch<&ID3D12Fence::SetEventOnCompletion> patch(
        fence, [fence](auto original, auto* self, UINT64 value, HANDLE event) {
            if (event == nullptr) {
                return S_OK;
            }
            fence->Signal(1);
            return original(self, value, event);
        });
    const boost::intrusive_ptr queue(new DX::D12CommandQueue(device, {}));
    {
        const Faults::InCall unnoticed;
        queue->Get()->Wait(fence, 1);
    }
    queue->WaitComplete();
}

struct Row {
    const char* name;
    bool isDirect3D12;
    void (*workload)(Leaving& leaving);
};

bool IsWhole() {
    return GetEnvironmentVariableW(L"NORVEX_SWEEP", nullptr, 0) != 0;
}

class FaultTest : public testing::TestWithParam<Row> {
protected:
    FaultTest() {
        Interpose(m_faults, GetParam().isDirect3D12);
        // Wine ends the program where a swap chain is kept for its GPU when the window goes.
        if (GetParam().workload == &Present<Generation::Direct3D12>) {
            m_faults.Spare({"queue->Signal", "fence->SetEventOnCompletion"});
        }
    }
    static void TearDownTestSuite() {
        fmt::print("{:16}{:>8}{:>8}{:>8}\n{}", "", "calls", "failed", "faults", s_table);
        fmt::print("Not called: {}\n", fmt::join(s_notCalled, ", "));
        const auto& test = *testing::UnitTest::GetInstance()->current_test_suite();
        EXPECT_TRUE(s_notCalled.empty() || test.test_to_run_count() < test.total_test_count());
    }

    // What it leaves. Alone: nothing that it makes may be left.
    Leaving Run(int call, const Fault& fault) {
        m_what = fmt::format("{}, call {}, {:#010x}", GetParam().name, call,
                             static_cast<UINT>(fault.result));
        std::fprintf(stderr, "%s\n", m_what.c_str()); // and tells which one hangs
        m_faults.Begin(call, fault);
        Leaving leaving;
        try {
            m_thrown = ThrownBy([&] { GetParam().workload(leaving); });
        } catch (const Core::CoreException& e) {
            m_thrown = {*boost::get_error_info<ErrorDescription>(e),
                        *boost::get_error_info<boost::throw_function>(e), E_OUTOFMEMORY, ""};
        } catch (const std::system_error& e) {
            EXPECT_EQ(e.code(), std::errc::resource_unavailable_try_again);
            m_thrown = {"no thread", "", E_OUTOFMEMORY, ""};
        } catch (const std::bad_alloc&) {
            m_thrown = {"no memory", "", E_OUTOFMEMORY, ""};
        }
        DX::D12CommandAllocator::WaitAllComplete();
        m_calls = m_faults.End();
        return leaving;
    }

    bool Matches(const std::string& telling, HRESULT result) const {
        const std::size_t text = telling.find_first_not_of('-');
        const bool isNeutral = text == 2;
        result = text == 3 ? E_FAIL : result;
        const bool isOfGeneration =
            m_thrown.kind == Canvas::kKind || m_thrown.kind == Canvas11::kKind;
        const std::string told = m_thrown.function + ": " + m_thrown.sentence;
        return told.starts_with(telling.substr(text)) && m_thrown.result == result &&
               (telling == kUntold ||
                (isOfGeneration != isNeutral && m_thrown.hasAdapter == (text == 0) &&
                 m_thrown.hasMemory == (!m_thrown.kind.empty() && result == E_OUTOFMEMORY)));
    }

    static bool IsWait(const std::string& call) {
        return call == "queue->Signal" || call == "fence->SetEventOnCompletion";
    }

    void ExpectTold(int call, Fault fault) {
        if (GetParam().workload == &Wait12 && fault.result == DXGI_ERROR_DEVICE_REMOVED) {
            return; // what it waits for would not come: only Windows calls off its GPU's work
        }
        const Leaving leaving = Run(call, fault);
        if (call >= std::ssize(m_calls)) {
            return; // background threads have made fewer calls this time
        }
        const std::string& method = m_calls[static_cast<std::size_t>(call)];
        if (fault.isLoss && m_faults.GetOwnResult(method) != S_OK) {
            return; // or others
        }
        if (m_faults.IsSpared(method, fault)) {
            return; // background threads have made more calls this time
        }
        SCOPED_TRACE(m_what + ": " + method);
        const bool isRemoval = fault.result == DXGI_ERROR_DEVICE_REMOVED;
        const HRESULT own = m_faults.GetOwnResult(method);
        fault = own == S_OK ? fault : Fault{own};
        EXPECT_TRUE(isRemoval || leaving == m_expected || leaving.empty());
        const std::string told =
            fmt::format("{}: {}, {}, {:#010x}", m_thrown.function, m_thrown.sentence, m_thrown.kind,
                        static_cast<UINT>(m_thrown.result));
        const HRESULT result = m_thrown.result;
        const bool hasReason = own == S_OK && isRemoval && result == kLossReason;
        if (fault.isLoss && m_thrown.sentence != "(nothing)") { // perhaps by a later call
            EXPECT_TRUE(hasReason || (result == fault.result && !m_thrown.hasAdapter)) << told;
        } else {
            EXPECT_TRUE(std::ranges::any_of(m_faults.GetTellings(method), [&](const auto& telling) {
                return Matches(telling, telling == kUntold ? S_OK
                                        : hasReason        ? kLossReason
                                                           : fault.result);
            })) << told;
            EXPECT_TRUE(hasReason || !isRemoval || !m_thrown.hasAdapter || own != S_OK) << told;
        }
        // What the GPU may still use is kept where it cannot be waited for.
        const bool isWait = IsWait(method);
        EXPECT_FALSE((!isWait || fault.isLoss) && m_faults.IsAnythingLeft()) << "something is left";
        if (fault.isLoss) {
            EXPECT_EQ(Run(-1, {}), m_expected) << "on a new device: " << m_thrown.sentence;
        }
    }

    Faults m_faults;
    std::string m_what;
    std::vector<std::string> m_calls;
    Thrown m_thrown;
    Leaving m_expected;
    static inline std::string s_table;
    static inline std::map<std::string, int> s_failed; // how often, of each call
    static inline std::set<std::string> s_notCalled;
};

INSTANTIATE_TEST_SUITE_P(, FaultTest,
                         testing::Values(Row{"Draw11", false, &DrawAll<Canvas11>},
                                         Row{"Present11", false, &Present<Generation::Direct3D11>},
                                         Row{"Draw12", true, &DrawAll<Canvas>},
                                         Row{"DrawIntoList12", true, &DrawAll<ListCanvas>},
                                         Row{"Frames11", false,
                                             &DrawFrames<Canvas11, DX::D11Frame, DX::D11FrameDraw,
                                                         DX::D11FrameConverter, DX::D11Scaler>},
                                         Row{"Frames12", true,
                                             &DrawFrames<Canvas, DX::D12Frame, DX::D12FrameDraw,
                                                         DX::D12FrameConverter, DX::D12Scaler>},
                                         Row{"FramesIntoList12", true,
                                             &DrawFrames<ListCanvas, DX::D12Frame, DX::D12FrameDraw,
                                                         DX::D12FrameConverter, DX::D12Scaler>},
                                         Row{"Pools12", true, &UsePools12},
                                         Row{"Attach11", false, &Attach11},
                                         Row{"Wait12", true, &Wait12},
                                         Row{"Present12", true, &Present<Generation::Direct3D12>}),
                         [](const auto& row) { return std::string(row.param.name); });

// The first and the last call of each method, until it has failed some times, each with one of the
// results; with NORVEX_SWEEP set all calls with all results.
TEST_P(FaultTest, EachCallFailsOnce) {
    constexpr int kMost = 5;
    m_expected = Run(-1, {});
    const std::vector<std::string> calls = m_calls;
    EXPECT_EQ(m_thrown.sentence, "(nothing)");
    for (const auto& [name, call] : m_faults.GetTable()) {
        s_failed.contains(name) || s_notCalled.insert(name).second;
    }
    int failed = 0;
    std::size_t faults = 0;
    for (auto call = calls.begin(); call != calls.end(); ++call) {
        int& times = s_failed[*call];
        s_notCalled.erase(*call);
        const bool isEnd =
            times < kMost && (std::find(calls.begin(), call, *call) == call ||
                              std::find(call + 1, calls.end(), *call) == calls.end());
        const bool isOwn = m_faults.GetOwnResult(*call) != S_OK;
        for (std::size_t i = 0; i < (isOwn ? 1 : std::size(kFaults)); ++i) {
            if (m_faults.IsSpared(*call, kFaults[i])) {
                continue;
            }
            if (IsWhole() || (isEnd && (isOwn || i == static_cast<std::size_t>(times)))) {
                ExpectTold(static_cast<int>(call - calls.begin()), kFaults[i]);
                ++faults;
            }
        }
        times += isEnd ? 1 : 0;
        failed += isEnd || IsWhole() ? 1 : 0;
    }
    EXPECT_EQ(Run(-1, {}), m_expected) << "after the faults";
    s_table += fmt::format("{:16}{:8}{:8}{:8}\n", GetParam().name, calls.size(), failed, faults);
}

// Each allocation of this thread's in the library is refused, in the short form some of them.
TEST_P(FaultTest, EachAllocationFailsOnce) {
    int count = 0;
    {
        const OutOfMemory counted(std::numeric_limits<int>::max());
        m_expected = Run(-1, {});
        count = OutOfMemory::CountAllocations();
    }
    const double step = IsWhole() ? 1.0 : std::max(1.0, count / 6.0);
    for (double call = 0.0; call < count; call += step) {
        const int number = static_cast<int>(call + std::fmod(call * 0.618, step));
        SCOPED_TRACE(fmt::format("allocation {} of {}", number, count));
        Leaving leaving;
        {
            const OutOfMemory refused(number, 1);
            leaving = Run(-1, {});
        }
        EXPECT_TRUE(leaving == m_expected || leaving.empty());
        EXPECT_TRUE(m_thrown.result == S_OK || m_thrown.result == E_OUTOFMEMORY)
            << m_thrown.sentence;
        EXPECT_FALSE(m_faults.IsAnythingLeft()) << "something is left";
    }
    EXPECT_EQ(Run(-1, {}), m_expected) << "after the refusals";
    s_table += fmt::format("{:16}{:8}{:>8}{:>8}\n", "", count, "", "memory");
}

} // namespace

} // namespace Norvex::Test
