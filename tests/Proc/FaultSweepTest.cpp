// Every Direct3D and DXGI call that a workload makes fails once, with each of some results. The
// caller gets the library's exception, with that result, or the call is one whose failure is not
// told; nothing that the workload made is left; and the same workload works right after.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Proc/DirectX/Manager/D3D12Query.h"
#include "Proc/DirectX/Manager/D3D12TexturePool.h"
#include "tests/support/Canvas.h"
#include "tests/support/Canvas11.h"
#include "tests/support/Device11.h"
#include "tests/support/FrameHost.h"
#include "tests/support/HDRDisplay.h"
#include "tests/support/LifeProbe.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/Thrown.h"

namespace Norvex::Test {

namespace {

constexpr HRESULT kReason = DXGI_ERROR_DEVICE_HUNG; // why the device was removed

struct Fault {
    HRESULT result = S_OK;
    bool isLasting = false; // as of a device that is removed by then
};
constexpr Fault kFaults[] = {
    {E_OUTOFMEMORY}, {DXGI_ERROR_DEVICE_REMOVED, true}, {E_FAIL}, {E_INVALIDARG}};

// What the caller is told: one of some functions and sentences, as they begin. A function of the
// method's own name is left out.
using Tellings = std::vector<std::string>;
constexpr auto kUntold = ": (nothing)";

// Calls that the system makes within a call of the library's are left alone.
thread_local bool t_isInCall = false;

// Stands between the library and methods: which call of a workload fails, and with what. Any
// thread.
class Faults {
public:
    template <auto method>
    void Patch(IUnknown* object, const typename MethodPatch<method>::Function& function) {
        m_patches.push_back(std::make_shared<MethodPatch<method>>(object, function));
    }
    // Of all objects of the class.
    template <auto method>
    void Interpose(IUnknown* object, const std::string& objectName, const std::string& methodName,
                   const Tellings& tellings) {
        const std::string name = objectName + methodName;
        for (const std::string& telling : tellings) {
            m_tellings[name].push_back(telling.starts_with("Failed")
                                           ? fmt::format("{}: {}", methodName, telling)
                                           : telling);
        }
        Patch<method>(object, [this, name](auto original, auto* self, auto... rest) -> HRESULT {
            const HRESULT result = t_isInCall ? S_OK : this->Take(name, self);
            if (t_isInCall || FAILED(result)) {
                return FAILED(result) ? result : original(self, rest...);
            }
            t_isInCall = true;
            const HRESULT answer = original(self, rest...);
            t_isInCall = false;
            return answer;
        });
    }
    const Tellings& GetTellings(const std::string& method) const { return m_tellings.at(method); }

    // The call of that number, from 0 on; none at -1.
    void Begin(int failing, const Fault& fault) {
        const std::lock_guard guard(m_mutex);
        m_failing = failing;
        m_fault = fault;
        m_calls.clear();
        m_device.reset();
    }
    // The methods that were called.
    std::vector<std::string> End() {
        const std::lock_guard guard(m_mutex);
        m_failing = -1;
        return m_calls;
    }

    bool IsRemovedSoon() {
        const std::lock_guard guard(m_mutex);
        return m_fault.isLasting && m_failing >= 0;
    }
    bool IsRemoved() {
        const std::lock_guard guard(m_mutex);
        return m_fault.isLasting && HasFailed();
    }
    // Threads of the system's may hold it a little longer.
    bool IsDeviceAlive() {
        const std::lock_guard guard(m_mutex);
        for (int i = 0; i < 100 && m_device && m_device->IsAlive(); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return m_device && m_device->IsAlive();
    }

private:
    bool HasFailed() const { return m_failing >= 0 && std::ssize(m_calls) > m_failing; }

    // S_OK: the call is to be made.
    template <class Object>
    HRESULT Take(const std::string& method, Object* object) {
        const std::lock_guard guard(m_mutex);
        if constexpr (requires { object->GetDeviceRemovedReason(); }) {
            if (!m_device) {
                m_device.emplace(object);
            }
        }
        m_calls.push_back(method);
        const bool isIt = std::ssize(m_calls) == m_failing + 1;
        return HasFailed() && (isIt || m_fault.isLasting) ? m_fault.result : S_OK;
    }

    std::map<std::string, Tellings> m_tellings;
    std::mutex m_mutex;
    int m_failing = -1;
    Fault m_fault;
    std::vector<std::string> m_calls;
    std::optional<LifeProbe> m_device; // of the workload, which everything that it makes holds
    std::vector<std::shared_ptr<void>> m_patches;
};

// A workload leaves the same each time, also when it throws after a second attempt.
using Leaving = std::vector<Color>;

// The drawers of a generation; a drawing that failed is done again on what it was recorded on.
template <class AnyCanvas>
void DrawAll(Leaving& leaving) {
    AnyCanvas canvas;
    const Pixels gradient =
        MakePixels(8, 4, [](unsigned x, unsigned y) { return Color{x / 7.0, y / 3.0, 0.5, 1.0}; });
    const auto source = canvas.MakeSource(gradient, DXGI_FORMAT_R8G8B8A8_UNORM);
    const auto target = canvas.MakeTarget(8, 4, DXGI_FORMAT_R8G8B8A8_UNORM);
    const auto luma = canvas.MakeTarget(8, 4, DXGI_FORMAT_R8_UNORM);
    const auto chroma = canvas.MakeTarget(4, 2, DXGI_FORMAT_R8G8_UNORM);
    const auto& device = canvas.GetDevice();
    const boost::intrusive_ptr draw(new typename AnyCanvas::ImageDraw(device));
    const boost::intrusive_ptr renderer(new typename AnyCanvas::ImageRenderer(device));
    renderer->SetRotation(0.5F);
    const boost::intrusive_ptr converter(
        new typename AnyCanvas::Converter(device, Proc::AlphaType::AlphaIsOne));
    Proc::ColorAlphaConversionInfo conversion;
    conversion.target = {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ};
    const auto drawEach = [&](const auto& on) {
        draw->Encode(on, source, target, conversion, std::nullopt);
        renderer->Encode(on, source, target, conversion, std::nullopt);
        AnyCanvas::Convert(*converter, on, AnyCanvas::TextureOf(source), AnyCanvas::TextureOf(luma),
                           AnyCanvas::TextureOf(chroma), DXGI_FORMAT_NV12,
                           Conf::YCbCrMatrix::BT709);
    };
    std::exception_ptr failure;
    canvas.Record([&](const auto& on) {
        try {
            drawEach(on);
        } catch (const DX::DirectXException&) {
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
    device->CreateCompletionEvent(D3D12_FENCE_FLAG_NONE);
    const auto target = canvas.MakeTarget(4, 4, desc.format);
    const boost::intrusive_ptr fill(new DX::D12FillDraw(device));
    const auto allocator = canvas.GetQueue()->CreateCommandAllocator();
    fill->Encode(allocator, {1.0F, 0.5F, 0.0F, 1.0F}, target, {1, 1, 3, 3});
    allocator->RecordList(nullptr, [&](const auto& list) {
        list->TrackObject(texture);
        list->EndQuery(query);
    });
    allocator->Execute();
    const boost::intrusive_ptr other(new DX::D12CommandQueue(device, {}));
    const auto second = other->CreateCommandAllocator();
    second->Wait(allocator);
    second->RecordList(nullptr, [](const auto&) {});
    second->Execute();
    second->WaitComplete();
    leaving.push_back({query->GetUint64Stats() > 0 ? 1.0 : 0.0});
}

template <Generation generation>
void Present(Leaving&) {
    FrameHost host(generation);
    for (int i = 0; i < 3; ++i) {
        host.Frame();
        host.window.Place(40, 40, {100 + i, 90});
        host.swapChain->RecreateBuffers();
    }
}

template <class Pointer>
using ClassOf = std::remove_pointer_t<decltype(Pointer::p)>;

// NORVEX_FAIL(object, method, tellings...): for a `faults` in scope. The address of a member takes
// no parentheses.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define NORVEX_FAIL(object, method, ...)                                                           \
    faults.Interpose<&ClassOf<decltype(object)>::method>(object, #object "->", #method,            \
                                                         {__VA_ARGS__})
// NOLINTEND(bugprone-macro-parentheses)

template <class Device>
void InterposeReason(Faults& faults, Device* device) {
    faults.Patch<&Device::GetDeviceRemovedReason>(device, [&faults](auto original, auto* self) {
        return faults.IsRemoved() ? kReason : original(self);
    });
}

void InterposePresentation(Faults& faults, bool isDirect3D12) {
    const auto swapChain =
        Platform::Query<IDXGISwapChain3>(HDRDisplay::MakeSwapChain(isDirect3D12));
    CComPtr<IDXGIFactory2> factory;
    swapChain->GetParent(IID_PPV_ARGS(&factory));
    constexpr auto kResize = "MakeBuffers: Failed to resize DXGI swap chain buffers";
    NORVEX_FAIL(factory, CreateSwapChainForHwnd, "Failed to create DXGI swap chain: width = ");
    NORVEX_FAIL(factory, MakeWindowAssociation, kUntold); // Alt+Enter stays DXGI's
    NORVEX_FAIL(swapChain, GetBuffer, "Create: Failed to get back buffer",
                "RecreateBuffers: Failed to get back buffer");
    NORVEX_FAIL(swapChain, GetDesc, kUntold);            // tells whether anything changes
    NORVEX_FAIL(swapChain, GetFullscreenState, kUntold); // then it is a window
    NORVEX_FAIL(swapChain, Present, kUntold); // the next call that creates something tells
    NORVEX_FAIL(swapChain, ResizeBuffers, kResize);
    NORVEX_FAIL(swapChain, ResizeBuffers1, kResize);
}

void Interpose12(Faults& faults) {
    InterposePresentation(faults, true);
    Canvas canvas;
    const CComPtr device(canvas.GetDevice()->Get());
    const CComPtr queue(canvas.GetQueue()->Get());
    const DX::D12AllocatorState state(device, D3D12_COMMAND_LIST_TYPE_DIRECT);
    const CComPtr allocator(state.Get());
    const auto fence = state.GetCompletionEvent()->GetFence();
    const auto closed = canvas.GetQueue()->CreateCommandAllocator()->CreateCommandList(nullptr);
    closed->Close();
    const CComPtr list(closed->GetGraphics());
    const CComPtr buffer(canvas.GetDevice()->CreateUploadBuffer(1)->GetResource());
    InterposeReason(faults, device.p);
    // What is submitted to a device that will be removed is not executed, so that the driver that
    // stands in for it has nothing in flight when the library lets go of everything.
    faults.Patch<&ID3D12CommandQueue::ExecuteCommandLists>(
        queue, [&faults](auto original, auto* self, UINT count, auto* lists) {
            original(self, faults.IsRemovedSoon() ? 0 : count, lists);
        });
    NORVEX_FAIL(device, CreateCommandList, "Failed to create command list");
    NORVEX_FAIL(device, CreateCommandAllocator,
                "D12AllocatorState: Failed to create command allocator");
    NORVEX_FAIL(device, CreateCommandQueue, "D12CommandQueue: Failed to create command queue");
    NORVEX_FAIL(device, CreateCommittedResource, "CreateBuffer: Failed to create buffer",
                "CreateDimensionBuffer: Failed to create buffer",
                "CreateTexture2D: Failed to create 2D texture",
                "D12QueryHeap: Failed to create 2D texture");
    NORVEX_FAIL(device, CreateDescriptorHeap, "CreateHeap: Failed to create descriptor heap");
    NORVEX_FAIL(device, CreateFence, "D12CompletionEvent: Failed to create fence");
    NORVEX_FAIL(device, CreateGraphicsPipelineState, "Failed to create graphics pipeline state");
    NORVEX_FAIL(device, CreateQueryHeap, "CreateHeap: Failed to create query heap");
    NORVEX_FAIL(device, CreateRootSignature,
                "SerializeRootSignature: Failed to create root signature");
    NORVEX_FAIL(queue, Signal, "Execute: Failed to signal fence",
                "WaitComplete: Failed to signal fence", kUntold); // a queue's at its end is logged
    NORVEX_FAIL(queue, Wait, "Execute: Failed to wait for fence");
    NORVEX_FAIL(allocator, Reset, "D12AllocatorState: Failed to create command allocator",
                kUntold); // another one is made
    NORVEX_FAIL(list, Close, "Failed to close command list");
    NORVEX_FAIL(list, Reset, "CreateCommandList: Failed to reset command list");
    NORVEX_FAIL(fence, SetEventOnCompletion, "WaitComplete: Failed to set event on completion",
                kUntold); // a background thread's is logged
    NORVEX_FAIL(buffer, Map, "CreateBuffer: Failed to map buffer",
                "AddConstants: Failed to map upload buffer", "Read: Failed to map readback buffer",
                "Write: Failed to map upload buffer", "GetResult: Failed to map query buffer");
}

void Interpose11(Faults& faults) {
    InterposePresentation(faults, false);
    const auto device = MakeRawDevice11();
    const auto context = GetImmediateContext(device);
    InterposeReason(faults, device.p);
    NORVEX_FAIL(device, CreateBuffer, "Failed to create ID3D11Buffer: byteWidth = ");
    NORVEX_FAIL(device, CreateDepthStencilState, "Failed to create depth stencil state");
    NORVEX_FAIL(device, CreateInputLayout, "Failed to create input layout");
    NORVEX_FAIL(device, CreatePixelShader, "Failed to create pixel shader");
    NORVEX_FAIL(device, CreateRasterizerState, "Failed to create rasterizer state");
    NORVEX_FAIL(device, CreateRenderTargetView, "Failed to create render rarget view");
    NORVEX_FAIL(device, CreateSamplerState, "Failed to create sampler state");
    NORVEX_FAIL(device, CreateShaderResourceView, "Failed to create shader resource view");
    NORVEX_FAIL(device, CreateTexture2D, "Failed to create ID3D11Texture2D: width = ");
    NORVEX_FAIL(device, CreateVertexShader, "Failed to create vertex shader");
    NORVEX_FAIL(context, Map, "Failed to map resource");
}

struct Row {
    const char* name;
    void (*interpose)(Faults& faults);
    void (*workload)(Leaving& leaving);
};

class FaultTest : public testing::TestWithParam<Row> {
protected:
    FaultTest() { GetParam().interpose(m_faults); }

    // Alone: nothing that it makes may be left.
    Leaving Run(int call, const Fault& fault) {
        m_what = fmt::format("call {}, {:#010x}", call, static_cast<UINT>(fault.result));
        std::fprintf(stderr, "%s\n", m_what.c_str()); // and tells which one hangs
        m_faults.Begin(call, fault);
        Leaving leaving;
        m_thrown = ThrownBy([&] { GetParam().workload(leaving); });
        DX::D12CommandAllocator::WaitAllComplete();
        m_calls = m_faults.End();
        return leaving;
    }

    void ExpectTold(int call, const Fault& fault) {
        const Leaving leaving = Run(call, fault);
        if (call >= std::ssize(m_calls)) {
            return; // background threads have made fewer calls this time
        }
        const std::string& method = m_calls[static_cast<std::size_t>(call)];
        const std::string told = m_thrown.function + ": " + m_thrown.sentence;
        SCOPED_TRACE(m_what + ": " + method);
        EXPECT_TRUE(fault.isLasting || leaving == m_expected || leaving.empty());
        if (fault.isLasting && told != kUntold) { // perhaps by a later call
            EXPECT_TRUE(m_thrown.result == kReason || m_thrown.result == fault.result);
        } else {
            EXPECT_TRUE(std::ranges::any_of(m_faults.GetTellings(method), [&](const auto& telling) {
                return told.starts_with(telling);
            })) << told;
            EXPECT_EQ(m_thrown.result, told != kUntold ? fault.result : S_OK);
        }
        // What the GPU may still use is kept where it cannot be waited for.
        const bool isWait = method == "queue->Signal" || method == "fence->SetEventOnCompletion";
        EXPECT_FALSE(!isWait && m_faults.IsDeviceAlive()) << "something is left";
    }

    Faults m_faults;
    std::string m_what;
    std::vector<std::string> m_calls;
    Thrown m_thrown;
    Leaving m_expected;
};

INSTANTIATE_TEST_SUITE_P(
    , FaultTest,
    testing::Values(Row{"Draw11", &Interpose11, &DrawAll<Canvas11>},
                    Row{"Draw12", &Interpose12, &DrawAll<Canvas>},
                    Row{"DrawIntoList12", &Interpose12, &DrawAll<ListCanvas>},
                    Row{"Pools12", &Interpose12, &UsePools12},
                    Row{"Present11", &Interpose11, &Present<Generation::Direct3D11>},
                    Row{"Present12", &Interpose12, &Present<Generation::Direct3D12>}),
    [](const auto& row) { return std::string(row.param.name); });

// The first and the last call of each method, each with one of the results; with NORVEX_SWEEP set
// all calls with all results.
TEST_P(FaultTest, EachCallFailsOnce) {
    const bool isWhole = GetEnvironmentVariableW(L"NORVEX_SWEEP", nullptr, 0) != 0;
    m_expected = Run(-1, {});
    const std::vector<std::string> calls = m_calls;
    EXPECT_EQ(m_thrown.sentence, "(nothing)");
    std::size_t ends = 0;
    for (auto call = calls.begin(); call != calls.end(); ++call) {
        const bool isEnd = std::find(calls.begin(), call, *call) == call ||
                           std::find(call + 1, calls.end(), *call) == calls.end();
        for (std::size_t i = 0; i < std::size(kFaults); ++i) {
            if (isWhole || (isEnd && i == ends % std::size(kFaults))) {
                ExpectTold(static_cast<int>(call - calls.begin()), kFaults[i]);
            }
        }
        ends += isEnd ? 1 : 0;
    }
    EXPECT_GT(ends, 0U);
    EXPECT_EQ(Run(-1, {}), m_expected) << "after the faults";
}

} // namespace

} // namespace Norvex::Test
