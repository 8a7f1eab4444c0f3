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
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Proc/DirectX/Manager/D3D12Query.h"
#include "Proc/DirectX/Manager/D3D12TexturePool.h"
#include "Proc/DirectX/Manager/D3YUVConverter.h"
#include "Proc/DirectX/Manager/DXGISwapChain.h"
#include "tests/support/Canvas.h"
#include "tests/support/Canvas11.h"
#include "tests/support/Device11.h"
#include "tests/support/HDRDisplay.h"
#include "tests/support/LifeProbe.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/TestWindow.h"
#include "tests/support/Thrown.h"

namespace Norvex::Test {

namespace {

constexpr HRESULT kReason = DXGI_ERROR_DEVICE_HUNG; // why the device was removed

// What the caller is told of a method's failure, with the function that says so and as it begins,
// or why nothing.
struct Telling {
    std::vector<std::string> sentences = {};
    const char* untold = nullptr;
};

// Calls that the system makes within a call of the library's are left alone.
thread_local bool t_isInCall = false;

// Stands between the library and methods: which call of a workload fails, and with what. Any
// thread.
class Faults {
public:
    // Of all objects of the class. A name is written as the method is.
    template <auto method>
    void Interpose(IUnknown* object, const char* name, const Telling& telling) {
        m_tellings[name] = telling;
        m_patches.push_back(std::make_shared<MethodPatch<method>>(
            object, [this, name](auto original, auto* self, auto... rest) -> HRESULT {
                if constexpr (requires { self->GetDeviceRemovedReason(); }) {
                    WatchDevice(self);
                }
                const HRESULT result = t_isInCall ? S_OK : Take(name);
                if (t_isInCall || FAILED(result)) {
                    return FAILED(result) ? result : original(self, rest...);
                }
                t_isInCall = true;
                const HRESULT answer = original(self, rest...);
                t_isInCall = false;
                return answer;
            }));
    }
    template <auto reasonOf>
    void InterposeReason(IUnknown* device) {
        m_patches.push_back(
            std::make_shared<MethodPatch<reasonOf>>(device, [this](auto original, auto* self) {
                return IsRemoved() ? kReason : original(self);
            }));
    }
    // What is submitted to a device that will be removed is not executed, so that the driver that
    // stands in for it has nothing in flight when the library lets go of everything.
    void InterposeExecution(ID3D12CommandQueue* queue) {
        m_patches.push_back(std::make_shared<MethodPatch<&ID3D12CommandQueue::ExecuteCommandLists>>(
            queue, [this](auto original, auto* self, UINT count, auto* lists) {
                original(self, IsRemovedSoon() ? 0 : count, lists);
            }));
    }
    const Telling& GetTelling(const std::string& method) const { return m_tellings.at(method); }

    enum class Kind { Once, Lasting }; // lasting: as of a device that is removed by then

    // The call of that number, from 0 on; none at -1.
    void Begin(int failing, HRESULT result, Kind kind) {
        const std::lock_guard guard(m_mutex);
        m_failing = failing;
        m_result = result;
        m_kind = kind;
        m_hasFailed = false;
        m_calls.clear();
        m_device.reset();
    }
    // The methods that were called.
    std::vector<std::string> End() {
        const std::lock_guard guard(m_mutex);
        m_failing = -1;
        m_hasFailed = false;
        return m_calls;
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
    // S_OK: the call is to be made.
    HRESULT Take(const std::string& method) {
        const std::lock_guard guard(m_mutex);
        m_calls.push_back(method);
        const bool isIt = static_cast<int>(m_calls.size()) - 1 == m_failing;
        m_hasFailed = m_hasFailed || isIt;
        return isIt || (m_hasFailed && m_kind == Kind::Lasting) ? m_result : S_OK;
    }
    bool IsRemoved() {
        const std::lock_guard guard(m_mutex);
        return m_hasFailed && m_kind == Kind::Lasting;
    }
    bool IsRemovedSoon() {
        const std::lock_guard guard(m_mutex);
        return m_failing >= 0 && m_kind == Kind::Lasting;
    }

    void WatchDevice(auto* device) {
        const std::lock_guard guard(m_mutex);
        if (!m_device) {
            m_device.emplace(device);
        }
    }

    std::map<std::string, Telling> m_tellings;
    std::mutex m_mutex;
    int m_failing = -1;
    HRESULT m_result = S_OK;
    Kind m_kind = Kind::Once;
    bool m_hasFailed = false;
    std::vector<std::string> m_calls;
    std::optional<LifeProbe> m_device; // of the workload, which everything that it makes holds
    std::vector<std::shared_ptr<void>> m_patches;
};

// A workload leaves the same each time, also when it throws after a second attempt.
using Bytes = std::vector<std::uint8_t>;

Bytes ToBytes(const Pixels& pixels) {
    return EncodePixels(pixels, DXGI_FORMAT_R8G8B8A8_UNORM);
}

// All drawers of a generation; a drawing that failed is done again on what it was recorded on.
template <class Canvas, class Converter, class Prepare>
void DrawAll(Bytes& bytes, const Prepare& prepare) {
    Canvas canvas;
    const Pixels gradient =
        MakePixels(8, 4, [](unsigned x, unsigned y) { return Color{x / 7.0, y / 3.0, 0.5, 1.0}; });
    const auto source = canvas.MakeSource(gradient, DXGI_FORMAT_R8G8B8A8_UNORM);
    const auto target = canvas.MakeTarget(8, 4, DXGI_FORMAT_R8G8B8A8_UNORM);
    const auto luma = canvas.MakeTarget(8, 4, DXGI_FORMAT_R8_UNORM);
    const auto chroma = canvas.MakeTarget(4, 2, DXGI_FORMAT_R8G8_UNORM);
    const auto& device = canvas.GetDevice();
    const boost::intrusive_ptr draw(new typename Canvas::ImageDraw(device));
    const boost::intrusive_ptr renderer(new typename Canvas::ImageRenderer(device));
    renderer->SetRotation(0.5F);
    const boost::intrusive_ptr converter(new Converter(device, Proc::AlphaType::AlphaIsOne));
    const auto drawGenerationsOwn = prepare(device, converter, source, target, luma, chroma);
    Proc::ColorAlphaConversionInfo conversion;
    conversion.target = {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ};
    const auto drawEach = [&](const auto& on) {
        draw->Encode(on, source, target, conversion, std::nullopt);
        renderer->Encode(on, source, target, conversion, std::nullopt);
        drawGenerationsOwn(on);
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
    Bytes drawn = ToBytes(canvas.Read(target));
    std::ranges::copy(ToBytes(canvas.Read(luma)), std::back_inserter(drawn));
    bytes = drawn;
    if (failure) {
        std::rethrow_exception(failure);
    }
}

void Draw11(Bytes& bytes) {
    DrawAll<Canvas11, DX::D11YUVConverter>(bytes, [](const auto&, const auto& converter,
                                                     const auto& source, const auto&,
                                                     const auto& luma, const auto& chroma) {
        return [=](const auto& on) {
            converter->Encode(on, source->GetTexture(), luma->GetTexture(), chroma->GetTexture(),
                              DXGI_FORMAT_NV12, Conf::YCbCrMatrix::BT709);
        };
    });
}

void Draw12(Bytes& bytes) {
    DrawAll<Canvas, DX::D12YUVConverter>(bytes, [](const auto& device, const auto& converter,
                                                   const auto& source, const auto& target,
                                                   const auto& luma, const auto& chroma) {
        const boost::intrusive_ptr fill(new DX::D12FillDraw(device));
        return [=](const auto& on) {
            constexpr DX::D12ResourceStates kRead = {D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE,
                                                     D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE};
            constexpr DX::D12ResourceStates kDrawn = {D3D12_RESOURCE_STATE_RENDER_TARGET,
                                                      D3D12_RESOURCE_STATE_RENDER_TARGET};
            fill->Encode(on, {1.0F, 0.5F, 0.0F, 1.0F}, target, {1, 1, 3, 3});
            converter->Encode(on, source->GetFirstResource(), luma->GetFirstResource(),
                              chroma->GetFirstResource(), DXGI_FORMAT_NV12,
                              Conf::YCbCrMatrix::BT709, std::array{kRead, kDrawn, kDrawn});
        };
    });
}

// Pools, queries and one queue that waits for another.
void UsePools12(Bytes& bytes) {
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
    const auto allocator = canvas.GetQueue()->CreateCommandAllocator();
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
    bytes.push_back(static_cast<std::uint8_t>(query->GetUint64Stats() > 0));
}

void PresentWith(const boost::intrusive_ptr<DX::D3Device>& device) {
    const TestWindow window({64, 48});
    const auto swapChain = DX::DXGISwapChain::Create(device, window.Get());
    for (int i = 0; i < 3; ++i) {
        if (const auto target = swapChain->GetRenderTarget()) {
            const auto frame = swapChain->CreateCommandAllocator();
            frame->ClearRenderTargetView(target, D3D12_RESOURCE_STATE_PRESENT, {}, {});
            frame->ResourceBarrier({target->Transition(D3D12_RESOURCE_STATE_RENDER_TARGET,
                                                       D3D12_RESOURCE_STATE_PRESENT, 0, {})});
            frame->Execute();
        }
        swapChain->Present();
        SetWindowPos(window.Get(), nullptr, 0, 0, 100 + i, 90, SWP_NOMOVE | SWP_NOZORDER);
        swapChain->RecreateBuffers();
    }
}
void Present11(Bytes&) {
    PresentWith(DX::D11Device::CreatePrimary());
}
void Present12(Bytes&) {
    PresentWith(DX::D12Device::CreatePrimary());
}

// Ends the program where a call hangs, and says which.
class Watchdog {
public:
    void Expect(const std::string& what) {
        const std::lock_guard guard(m_mutex);
        m_what = what;
        m_since = std::chrono::steady_clock::now();
    }

private:
    void Watch(const std::stop_token& stop) {
        constexpr std::chrono::seconds kLimit(20);
        while (!stop.stop_requested()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            const std::lock_guard guard(m_mutex);
            if (std::chrono::steady_clock::now() - m_since > kLimit) {
                std::fprintf(stderr, "hangs: %s\n", m_what.c_str());
                TerminateProcess(GetCurrentProcess(), 1);
            }
        }
    }

    std::mutex m_mutex;
    std::string m_what;
    std::chrono::steady_clock::time_point m_since = std::chrono::steady_clock::now();
    std::jthread m_thread{[this](const std::stop_token& stop) { Watch(stop); }};
};

// An object that shows where its class has its methods.
template <class Object, class Create>
CComPtr<Object> Make(const Create& create) {
    CComPtr<Object> object;
    if (FAILED(create(__uuidof(Object), reinterpret_cast<void**>(&object)))) {
        throw std::runtime_error("no object to be interposed");
    }
    return object;
}

// NORVEX_INTERPOSE(object, method, telling): for a `faults` in scope. The address of a member takes
// no parentheses.
#define NORVEX_INTERPOSE(object, method, ...)                                                      \
    faults.Interpose<&method>(object, #method, __VA_ARGS__) // NOLINT(bugprone-macro-parentheses)

void InterposePresentation(Faults& faults, IDXGISwapChain* swapChain) {
    const auto factory =
        Make<IDXGIFactory2>([](auto... out) { return CreateDXGIFactory1(out...); });
    NORVEX_INTERPOSE(factory, IDXGIFactory2::CreateSwapChainForHwnd,
                     {{"CreateSwapChainForHwnd: Failed to create DXGI swap chain: width = "}});
    NORVEX_INTERPOSE(factory, IDXGIFactory::MakeWindowAssociation, {{}, "Alt+Enter stays DXGI's"});
    NORVEX_INTERPOSE(
        swapChain, IDXGISwapChain::GetBuffer,
        {{"Create: Failed to get back buffer", "RecreateBuffers: Failed to get back buffer"}});
    NORVEX_INTERPOSE(swapChain, IDXGISwapChain::GetDesc,
                     {{}, "it only tells whether anything changes"});
    NORVEX_INTERPOSE(swapChain, IDXGISwapChain::GetFullscreenState, {{}, "then it is a window"});
    NORVEX_INTERPOSE(swapChain, IDXGISwapChain::Present,
                     {{}, "the next call that creates something tells"});
    NORVEX_INTERPOSE(swapChain, IDXGISwapChain::ResizeBuffers,
                     {{"MakeBuffers: Failed to resize DXGI swap chain buffers"}});
    NORVEX_INTERPOSE(swapChain, IDXGISwapChain3::ResizeBuffers1,
                     {{"MakeBuffers: Failed to resize DXGI swap chain buffers"}});
}

void Interpose12(Faults& faults) {
    Canvas canvas;
    ID3D12Device* const device = canvas.GetDevice()->Get();
    ID3D12CommandQueue* const queue = canvas.GetQueue()->Get();
    const auto allocator = Make<ID3D12CommandAllocator>([&](auto... out) {
        return device->CreateCommandAllocator(D3D12_COMMAND_LIST_TYPE_DIRECT, out...);
    });
    const auto list = Make<ID3D12GraphicsCommandList>([&](auto... out) {
        return device->CreateCommandList(0, D3D12_COMMAND_LIST_TYPE_DIRECT, allocator, nullptr,
                                         out...);
    });
    const auto fence = Make<ID3D12Fence>(
        [&](auto... out) { return device->CreateFence(0, D3D12_FENCE_FLAG_NONE, out...); });
    const auto buffer = canvas.GetDevice()->CreateUploadBuffer(1);
    InterposePresentation(faults, HDRDisplay::MakeSwapChain(true, TestWindow({16, 16}).Get()));
    faults.InterposeReason<&ID3D12Device::GetDeviceRemovedReason>(device);
    faults.InterposeExecution(queue);
    NORVEX_INTERPOSE(device, ID3D12Device::CreateCommandList,
                     {{"CreateCommandList: Failed to create command list"}});
    NORVEX_INTERPOSE(device, ID3D12Device::CreateCommandAllocator,
                     {{"D12AllocatorState: Failed to create command allocator"}});
    NORVEX_INTERPOSE(device, ID3D12Device::CreateCommandQueue,
                     {{"D12CommandQueue: Failed to create command queue"}});
    NORVEX_INTERPOSE(
        device, ID3D12Device::CreateCommittedResource,
        {{"CreateBuffer: Failed to create buffer", "CreateDimensionBuffer: Failed to create buffer",
          "CreateTexture2D: Failed to create 2D texture",
          "D12QueryHeap: Failed to create 2D texture"}});
    NORVEX_INTERPOSE(device, ID3D12Device::CreateDescriptorHeap,
                     {{"CreateHeap: Failed to create descriptor heap"}});
    NORVEX_INTERPOSE(device, ID3D12Device::CreateFence,
                     {{"D12CompletionEvent: Failed to create fence"}});
    NORVEX_INTERPOSE(device, ID3D12Device::CreateGraphicsPipelineState,
                     {{"CreateGraphicsPipelineState: Failed to create graphics pipeline state"}});
    NORVEX_INTERPOSE(device, ID3D12Device::CreateQueryHeap,
                     {{"CreateHeap: Failed to create query heap"}});
    NORVEX_INTERPOSE(device, ID3D12Device::CreateRootSignature,
                     {{"SerializeRootSignature: Failed to create root signature"}});
    NORVEX_INTERPOSE(queue, ID3D12CommandQueue::Signal,
                     {{"Execute: Failed to signal fence", "WaitComplete: Failed to signal fence"},
                      "of a queue at its end; logged"});
    NORVEX_INTERPOSE(queue, ID3D12CommandQueue::Wait, {{"Execute: Failed to wait for fence"}});
    NORVEX_INTERPOSE(
        allocator, ID3D12CommandAllocator::Reset,
        {{"D12AllocatorState: Failed to create command allocator"}, "another allocator is made"});
    NORVEX_INTERPOSE(list, ID3D12GraphicsCommandList::Close,
                     {{"Close: Failed to close command list"}});
    NORVEX_INTERPOSE(list, ID3D12GraphicsCommandList::Reset,
                     {{"CreateCommandList: Failed to reset command list"}});
    NORVEX_INTERPOSE(fence, ID3D12Fence::SetEventOnCompletion,
                     {{"WaitComplete: Failed to set event on completion"},
                      "of a background thread's wait; logged"});
    NORVEX_INTERPOSE(
        buffer->GetResource(), ID3D12Resource::Map,
        {{"CreateBuffer: Failed to map buffer", "Read: Failed to map readback buffer",
          "Write: Failed to map upload buffer", "GetResult: Failed to map query buffer"}});
}

void Interpose11(Faults& faults) {
    const auto device = MakeRawDevice11();
    InterposePresentation(faults, HDRDisplay::MakeSwapChain(false, TestWindow({16, 16}).Get()));
    faults.InterposeReason<&ID3D11Device::GetDeviceRemovedReason>(device);
    NORVEX_INTERPOSE(device, ID3D11Device::CreateBuffer,
                     {{"CreateBuffer: Failed to create ID3D11Buffer: byteWidth = "}});
    NORVEX_INTERPOSE(device, ID3D11Device::CreateDepthStencilState,
                     {{"CreateDepthStencilState: Failed to create depth stencil state"}});
    NORVEX_INTERPOSE(device, ID3D11Device::CreateInputLayout,
                     {{"CreateInputLayout: Failed to create input layout"}});
    NORVEX_INTERPOSE(device, ID3D11Device::CreatePixelShader,
                     {{"CreatePixelShader: Failed to create pixel shader"}});
    NORVEX_INTERPOSE(device, ID3D11Device::CreateRasterizerState,
                     {{"CreateRasterizerState: Failed to create rasterizer state"}});
    NORVEX_INTERPOSE(device, ID3D11Device::CreateRenderTargetView,
                     {{"CreateRenderTargetView: Failed to create render rarget view"}});
    NORVEX_INTERPOSE(device, ID3D11Device::CreateSamplerState,
                     {{"CreateSamplerState: Failed to create sampler state"}});
    NORVEX_INTERPOSE(device, ID3D11Device::CreateShaderResourceView,
                     {{"CreateShaderResourceView: Failed to create shader resource view"}});
    NORVEX_INTERPOSE(device, ID3D11Device::CreateTexture2D,
                     {{"CreateTexture2D: Failed to create ID3D11Texture2D: width = "}});
    NORVEX_INTERPOSE(device, ID3D11Device::CreateVertexShader,
                     {{"CreateVertexShader: Failed to create vertex shader"}});
    NORVEX_INTERPOSE(GetImmediateContext(device), ID3D11DeviceContext::Map,
                     {{"Map: Failed to map resource"}});
}

constexpr std::pair<HRESULT, Faults::Kind> kFaults[] = {
    {E_OUTOFMEMORY, Faults::Kind::Once},
    {DXGI_ERROR_DEVICE_REMOVED, Faults::Kind::Lasting},
    {E_FAIL, Faults::Kind::Once},
    {E_INVALIDARG, Faults::Kind::Once},
};

struct Row {
    const char* name;
    void (*workload)(Bytes& bytes);
};

std::string NameOf(const testing::TestParamInfo<Row>& row) {
    return row.param.name;
}

// The first and the last call of each method, each with one of the results; with NORVEX_SWEEP set
// all calls with all results.
std::vector<std::pair<int, std::size_t>> ChooseFaults(const std::vector<std::string>& calls) {
    const bool isWhole = GetEnvironmentVariableW(L"NORVEX_SWEEP", nullptr, 0) != 0;
    std::vector<std::pair<int, std::size_t>> chosen;
    for (auto call = calls.begin(); call != calls.end(); ++call) {
        const auto number = static_cast<int>(call - calls.begin());
        const bool isFirst = std::find(calls.begin(), call, *call) == call;
        const bool isLast = std::find(call + 1, calls.end(), *call) == calls.end();
        for (std::size_t i = 0; isWhole && i < std::size(kFaults); ++i) {
            chosen.emplace_back(number, i);
        }
        if (!isWhole && (isFirst || isLast)) {
            chosen.emplace_back(number, chosen.size() % std::size(kFaults));
        }
    }
    return chosen;
}

class Sweep {
public:
    Sweep(const Row& row, void (*interpose)(Faults& faults)) : m_row(row) {
        interpose(m_faults);
        m_expected = Run(-1, 0);
        EXPECT_EQ(m_thrown.sentence, "(nothing)");
        for (const auto& [call, fault] : ChooseFaults(m_calls)) {
            ExpectTold(call, fault);
            ++m_faultCount;
        }
        EXPECT_EQ(Run(-1, 0), m_expected) << "after the faults";
        EXPECT_GT(m_faultCount, 0);
        std::printf("%s: %d calls failed\n", row.name, m_faultCount);
    }

private:
    // Alone: nothing that it makes may be left.
    Bytes Run(int call, std::size_t fault) {
        const auto& [result, kind] = kFaults[fault];
        m_what = fmt::format("{}, call {}, {:#010x}", m_row.name, call, static_cast<UINT>(result));
        m_watchdog.Expect(m_what);
        m_faults.Begin(call, result, kind);
        Bytes bytes;
        m_thrown = ThrownBy([&] { m_row.workload(bytes); });
        DX::D12CommandAllocator::WaitAllComplete();
        m_calls = m_faults.End();
        return bytes;
    }

    void ExpectTold(int call, std::size_t fault) {
        const Bytes bytes = Run(call, fault);
        const auto& [result, kind] = kFaults[fault];
        if (call >= std::ssize(m_calls)) {
            return; // background threads have made fewer calls this time
        }
        const std::string& method = m_calls[static_cast<std::size_t>(call)];
        SCOPED_TRACE(m_what + ": " + method);
        const bool isLasting = kind == Faults::Kind::Lasting;
        const Telling& telling = m_faults.GetTelling(method);
        EXPECT_TRUE(isLasting || bytes == m_expected || bytes.empty());
        if (m_thrown.sentence == "(nothing)") {
            EXPECT_NE(telling.untold, nullptr);
        } else if (isLasting) { // perhaps by a later call
            EXPECT_TRUE(m_thrown.result == kReason || m_thrown.result == result);
        } else {
            const std::string told = m_thrown.function + ": " + m_thrown.sentence;
            EXPECT_TRUE(std::ranges::any_of(telling.sentences, [&](const auto& sentence) {
                return told.starts_with(sentence);
            })) << told;
            EXPECT_EQ(m_thrown.result, result);
        }
        // What the GPU may still use is kept where it cannot be waited for.
        const bool isWait =
            method == "ID3D12CommandQueue::Signal" || method == "ID3D12Fence::SetEventOnCompletion";
        EXPECT_FALSE(!isWait && m_faults.IsDeviceAlive()) << "something is left";
    }

    Row m_row;
    Faults m_faults;
    Watchdog m_watchdog;
    std::string m_what;
    std::vector<std::string> m_calls;
    Thrown m_thrown;
    Bytes m_expected;
    int m_faultCount = 0;
};

class D3D11FaultTest : public testing::TestWithParam<Row> {};
class D3D12FaultTest : public testing::TestWithParam<Row> {};

INSTANTIATE_TEST_SUITE_P(, D3D12FaultTest,
                         testing::Values(Row{"Draw", &Draw12}, Row{"Pools", &UsePools12},
                                         Row{"Present", &Present12}),
                         &NameOf);
INSTANTIATE_TEST_SUITE_P(, D3D11FaultTest,
                         testing::Values(Row{"Draw", &Draw11}, Row{"Present", &Present11}),
                         &NameOf);

TEST_P(D3D12FaultTest, EachCallFailsOnce) {
    const Sweep sweep(GetParam(), &Interpose12);
}

TEST_P(D3D11FaultTest, EachCallFailsOnce) {
    const Sweep sweep(GetParam(), &Interpose11);
}

} // namespace

} // namespace Norvex::Test
