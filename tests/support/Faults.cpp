#include "tests/support/Faults.h"

#include <algorithm>
#include <chrono>
#include <system_error>
#include <thread>

#include "Proc/DirectX/Manager/D3D12BufferPool.h"
#include "tests/support/Canvas11.h"
#include "tests/support/Device11.h"
#include "tests/support/HDRDisplay.h"
#include "tests/support/NamedFunction.h"

namespace Norvex::Test {

Faults::~Faults() {
    while (!m_kept.empty()) {
        m_kept.pop_back();
    }
}

void Faults::Begin(int failing, const Fault& fault) {
    const std::lock_guard guard(m_mutex);
    m_failing = failing;
    m_fault = fault;
    m_made.clear();
    m_isReasonDue = false;
    if (fault.isLoss) { // of a device of its own: something may keep the shared one for ever
        m_shared.Release();
        m_probe.reset();
    }
    m_references = CountReferences();
}

std::vector<std::string> Faults::End() {
    const std::lock_guard guard(m_mutex);
    m_failing = -1;
    return m_made;
}

bool Faults::IsAnythingLeft() {
    const auto isLeft = [this] {
        const std::lock_guard guard(m_mutex);
        return m_shared != nullptr ? m_references != 0 && CountReferences() > m_references
                                   : m_probe && m_probe->IsAlive();
    };
    for (int i = 0; i < 100 && isLeft(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return isLeft();
}

bool Faults::IsRemovalDue() {
    const std::lock_guard guard(m_mutex);
    return m_failing >= 0 && m_fault.result == DXGI_ERROR_DEVICE_REMOVED;
}

bool Faults::IsLost() {
    const std::lock_guard guard(m_mutex);
    return m_isLost;
}

bool Faults::IsReasonDue() {
    const std::lock_guard guard(m_mutex);
    return std::exchange(m_isReasonDue, false) || m_isLost;
}

Faults::Row::Row(Faults& owner, std::string call, void** place, void* function)
    : faults(owner),
      name(std::move(call)),
      entry(place),
      original(*place) {
    StoreProtected(entry, function);
}
Faults::Row::~Row() {
    StoreProtected(entry, original);
}

void Faults::Add(const std::string& name, HRESULT own, const Tellings& tellings) {
    Call& call = m_calls[name];
    call.own = own;
    for (const std::string& telling : tellings) {
        const std::size_t text = telling.find_first_not_of('-');
        const bool isOwn = telling.compare(text, 6, "Failed") == 0;
        const std::string function = name.substr(name.rfind('>') + 1) + ": ";
        call.tellings.push_back(telling.substr(0, text) + (isOwn ? function : "") +
                                telling.substr(text));
    }
}

bool Faults::EndsWithDevice(const std::string& name) const {
    const auto begins = [&name](const char* with) { return name.starts_with(with); };
    return m_calls.at(name).own == S_OK && name.front() >= 'a' && !begins("factory") &&
           !begins("adapter") && !begins("output") && !begins("device->Check");
}

HRESULT Faults::Take(const std::string& name) {
    const std::lock_guard guard(m_mutex);
    m_made.push_back(name);
    const Call& call = m_calls.at(name);
    if (m_failing + 1 != std::ssize(m_made) || IsSpared(name, m_fault)) {
        return m_isLost && EndsWithDevice(name) ? kLoss.result : S_OK;
    }
    if (call.own != S_OK) {
        m_failing += m_fault.isLoss ? 1 : 0; // then the device is lost at the next
        return m_fault.isLoss ? S_OK : call.own;
    }
    m_isLost = m_fault.isLoss && EndsWithDevice(name);
    m_isReasonDue = m_fault.result == DXGI_ERROR_DEVICE_REMOVED;
    return m_fault.result;
}

ULONG Faults::CountReferences() const {
    return m_shared != nullptr ? (m_shared.p->AddRef(), m_shared.p->Release()) : 0;
}

namespace {

NamedFunction<decltype(D3D12CreateDevice)> createDevice12("D3D12CreateDevice");
NamedFunction<decltype(CreateDXGIFactory2)> createFactory("CreateDXGIFactory2");
NamedFunction<decltype(D3DCompile2)> compile("D3DCompile2");
NamedFunction<decltype(D3D12SerializeVersionedRootSignature)>
    serialize("D3D12SerializeVersionedRootSignature");

template <class Pointer>
using ClassOf = std::remove_pointer_t<decltype(Pointer::p)>;

// NORVEX_FAIL(object, method, tellings...): for a `faults` in scope. The address of a member takes
// no parentheses.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define NORVEX_FAIL(object, method, ...)                                                           \
    faults.Interpose<&ClassOf<decltype(object)>::method>(object.p, #object "->" #method,           \
                                                         {__VA_ARGS__})
// NOLINTEND(bugprone-macro-parentheses)
#define NORVEX_FAIL_QUERY(object, ...)                                                             \
    faults.InterposeQuery(object.p, #object "->QueryInterface", {__VA_ARGS__})

template <class Signature>
void FailFunction(Faults& faults, NamedFunction<Signature>& function, const std::string& name,
                  const Tellings& tellings) {
    faults.Stand<MethodPatch<0, Signature, Faults>>(
        function.Get(), name, S_OK, [](HRESULT result, auto...) { return result; }, tellings);
}

// What Windows itself may refuse.
void InterposeWindows(Faults& faults) {
    faults.Stand<MethodPatch<0, decltype(CreateEventW), Faults>>(
        FindImport(L"NorvexDX.dll", "CreateEventW"), "CreateEventW", E_OUTOFMEMORY,
        [](auto...) { return HANDLE{}; },
        {"-WaitComplete: Failed to set event on completion", kUntold});
    faults.Stand<MethodPatch<0, decltype(CreateThreadpoolTimer), Faults>>(
        FindImport(L"NorvexHost.dll", "CreateThreadpoolTimer"), "CreateThreadpoolTimer",
        E_OUTOFMEMORY, [](auto...) { return PTP_TIMER{}; },
        {"--WaitableTimer: Failed to create timer"});
    const auto refuse = [](auto...) {
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    };
    const Tellings told = {"--: no thread", kUntold};
    // What MinGW's C++ runtime starts threads by; Microsoft's does it inline, by the C runtime.
    constexpr auto kStart = "_ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_"
                            "deleteIS1_EEPFvvE";
    using StartByC = std::uintptr_t(void*, unsigned, void*, void*, unsigned, unsigned*);
    try {
        faults.Stand<MethodPatch<0, void(void*, void*, void (*)()), Faults>>(
            FindImport(L"NorvexDX.dll", kStart), "std::thread", E_OUTOFMEMORY, refuse, told);
    } catch (const std::runtime_error&) {
        faults.Stand<MethodPatch<0, StartByC, Faults>>(
            FindImport(L"NorvexDX.dll", "_beginthreadex"), "std::thread", E_OUTOFMEMORY,
            [](auto...) { return std::uintptr_t{}; }, told);
    }
}

void InterposeDXGI(Faults& faults, bool isDirect3D12) {
    faults.Keep<HDRDisplay>(isDirect3D12);
    const auto swapChain =
        Platform::Query<IDXGISwapChain4>(HDRDisplay::MakeSwapChain(isDirect3D12));
    CComPtr<IDXGIFactory2> factory;
    swapChain->GetParent(IID_PPV_ARGS(&factory));
    const CComPtr adapter(DX::DXGIFactory::Create()->GetPrimaryAdapter().Get());
    CComPtr<IDXGIOutput> output;
    adapter->EnumOutputs(0, &output);
    const auto output6 = Platform::Query<IDXGIOutput6>(output);
    constexpr auto kResize = "MakeBuffers: Failed to resize DXGI swap chain buffers";
    // One serves for all, since making one takes long.
    faults.Keep<MethodPatch<0, decltype(CreateDXGIFactory2)>>(
        createFactory.Get(), [factory](auto, auto, const GUID& id, void** out) {
            return factory.p->QueryInterface(id, out);
        });
    FailFunction(faults, createFactory, "CreateDXGIFactory2",
                 {"--DXGIFactory: Failed to create DXGI factory"});
    NORVEX_FAIL(factory, CreateSwapChainForHwnd, "Failed to create DXGI swap chain: width = ");
    NORVEX_FAIL(factory, EnumAdapters1, "--GetPrimaryAdapter: Failed to obtain primary adapter",
                "--EnumerateAdapters: Failed to obtain adapter: ");
    NORVEX_FAIL(factory, MakeWindowAssociation, kUntold); // Alt+Enter stays DXGI's
    NORVEX_FAIL_QUERY(factory, kUntold);
    NORVEX_FAIL(adapter, GetDesc1, "--GetDescription: Failed to get DXGI adapter description");
    NORVEX_FAIL(adapter, EnumOutputs, kUntold); // then none is in HDR
    NORVEX_FAIL(output, GetDesc, kUntold);
    NORVEX_FAIL(output6, GetDesc1, kUntold);
    NORVEX_FAIL(swapChain, GetBuffer, "Create: Failed to get back buffer",
                "RecreateBuffers: Failed to get back buffer",
                "EnableHDRIfSupported: Failed to get back buffer",
                "DisableHDR: Failed to get back buffer");
    NORVEX_FAIL(swapChain, GetDesc, kUntold);            // tells whether anything changes
    NORVEX_FAIL(swapChain, GetFullscreenState, kUntold); // then it is a window
    NORVEX_FAIL(swapChain, Present, kUntold); // the next call that creates something tells
    NORVEX_FAIL(swapChain, ResizeBuffers, kResize);
    NORVEX_FAIL(swapChain, ResizeBuffers1, kResize);
    NORVEX_FAIL(swapChain, CheckColorSpaceSupport, kUntold); // then it stays as it is
    NORVEX_FAIL(swapChain, SetColorSpace1, "--SetColorSpace: Failed to set color space");
    NORVEX_FAIL(swapChain, SetHDRMetaData, "--EnableHDRIfSupported: Failed to set HDR metadata",
                "--DisableHDR: Failed to set HDR metadata");
    FailFunction(faults, compile, "D3DCompile2", {"-CompileShader: Failed to compile shader"});
}

// Until the queue is idle.
void WaitFor(ID3D12CommandQueue* queue) {
    const Faults::InCall unnoticed;
    CComPtr<ID3D12Device> device;
    CComPtr<ID3D12Fence> fence;
    queue->GetDevice(IID_PPV_ARGS(&device));
    device->CreateFence(0, D3D12_FENCE_FLAG_NONE, IID_PPV_ARGS(&fence));
    queue->Signal(fence, 1);
    fence->SetEventOnCompletion(1, nullptr);
}

void Interpose12(Faults& faults) {
    const auto wrapper = DX::D12Device::CreatePrimary();
    const CComPtr device(wrapper->Get());
    const boost::intrusive_ptr owner(new DX::D12CommandQueue(wrapper, {}));
    const CComPtr queue(owner->Get());
    const DX::D12AllocatorState state(device, D3D12_COMMAND_LIST_TYPE_DIRECT);
    const CComPtr allocator(state.Get());
    const auto fence = state.GetCompletionEvent()->GetFence();
    const auto closed = owner->CreateCommandAllocator()->CreateCommandList(nullptr);
    closed->Close();
    const CComPtr list(closed->GetGraphics());
    const CComPtr buffer(wrapper->CreateUploadBuffer(1)->GetResource());
    faults.LoseBy(device.p);
    faults.Keep<MethodPatch<&ID3D12CommandQueue::ExecuteCommandLists>>(
        queue, [&faults](auto original, auto* self, UINT count, auto* lists) {
            original(self, faults.IsLost() ? 0 : count, lists);
            if (faults.IsRemovalDue() && !faults.IsLost()) {
                WaitFor(self);
            }
        });
    faults.Keep<MethodPatch<&ID3D12CommandQueue::Signal>>(
        queue, [&faults](auto original, auto* self, auto* event, UINT64 value) {
            const HRESULT result = original(self, event, value);
            if (faults.IsRemovalDue()) {
                const Faults::InCall unnoticed;
                event->SetEventOnCompletion(value, nullptr);
            }
            return result;
        });
    faults.Keep<MethodPatch<&ID3D12Fence::GetCompletedValue>>(
        fence, [&faults](auto original, auto* self) {
            return faults.IsLost() ? ~UINT64{} : original(self);
        });
    // What this system lacks: any handle, and any object for it.
    auto& opened = faults.Keep<FakeObject>();
    faults.Keep<MethodPatch<&ID3D12Device::CreateSharedHandle>>(
        device, [](auto, auto*, auto*, auto*, auto, auto, HANDLE* handle) {
            *handle = CreateEventW(nullptr, FALSE, FALSE, nullptr);
            return S_OK;
        });
    faults.Keep<MethodPatch<&ID3D12Device::OpenSharedHandle>>(
        device, [&opened](auto, auto*, auto, auto&, void** out) { return opened.GiveTo(out); });

    faults.Keep<MethodPatch<0, decltype(D3D12CreateDevice)>>(
        createDevice12.Get(),
        [&faults](auto original, auto* on, auto level, const GUID& id, void** out) {
            return faults.MakeDevice(reinterpret_cast<ID3D12Device**>(out),
                                     [&] { return original(on, level, id, out); });
        });
    FailFunction(faults, createDevice12, "D3D12CreateDevice",
                 {"-Create: Failed to create D3D12 device"});
    FailFunction(faults, serialize, "D3D12SerializeVersionedRootSignature",
                 {"SerializeRootSignature: Failed to serialize root signature: "});
    NORVEX_FAIL(device, CheckFeatureSupport,
                "GetMaxSupportedFeatureLevel: Failed to check feature level for D3D12 device",
                "-GetMaxSupportedFeatureLevel: Failed to check feature level for D3D12 device",
                kUntold); // what is not told is not supported
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
    NORVEX_FAIL(device, CreateSharedHandle, "Failed to create shared handle",
                "D12CompletionEvent: Failed to share d3d12 fence");
    NORVEX_FAIL(device, OpenSharedHandle, "OpenSharedResource: Failed to create shared handle");
    NORVEX_FAIL(queue, Signal, "Execute: Failed to signal fence",
                "WaitComplete: Failed to signal fence", kUntold); // a queue's at its end is logged
    NORVEX_FAIL(queue, Wait, "Execute: Failed to wait for fence");
    NORVEX_FAIL(allocator, Reset, "D12AllocatorState: Failed to create command allocator",
                kUntold); // another one is made
    NORVEX_FAIL(list, Close, "Failed to close command list");
    NORVEX_FAIL(list, Reset, "CreateCommandList: Failed to reset command list");
    NORVEX_FAIL_QUERY(list, kUntold); // another one is made
    NORVEX_FAIL(fence, SetEventOnCompletion, "-WaitComplete: Failed to set event on completion",
                kUntold); // a background thread's is logged
    NORVEX_FAIL(buffer, Map, "CreateBuffer: Failed to map buffer",
                "AddConstants: Failed to map upload buffer", "Read: Failed to map readback buffer",
                "Write: Failed to map upload buffer", "-GetResult: Failed to map query buffer");
}

void Interpose11(Faults& faults) {
    const auto device = MakeRawDevice11();
    const auto context = GetImmediateContext(device);
    const auto dxgiDevice = Platform::Query<IDXGIDevice>(device);
    faults.LoseBy(device.p);
    using Create = decltype(D3D11CreateDevice);
    void** const place = FindImport(L"NorvexDX.dll", "D3D11CreateDevice");
    faults.Keep<MethodPatch<0, Create>>(
        place,
        [&faults](auto original, auto* on, auto type, auto module, auto flags, const auto* levels,
                  auto count, auto sdk, auto** out, auto* level, auto** immediate) {
            const HRESULT result = faults.MakeDevice(out, [&] {
                return original(on, type, module, flags, levels, count, sdk, out, level, nullptr);
            });
            if (SUCCEEDED(result)) {
                *level = (*out)->GetFeatureLevel();
                (*out)->GetImmediateContext(immediate);
            }
            return result;
        });
    faults.Stand<MethodPatch<0, Create, Faults>>(
        place, "D3D11CreateDevice", E_FAIL, [](HRESULT result, auto...) { return result; },
        {"-Create: Failed to create D3D11 device", kUntold}); // a lower level is tried
    NORVEX_FAIL(device, CheckFormatSupport, kUntold);         // then it is not supported
    NORVEX_FAIL(device, CreateBuffer, "Failed to create ID3D11Buffer: byteWidth = ");
    NORVEX_FAIL(device, CreateDepthStencilState, "Failed to create depth stencil state");
    NORVEX_FAIL(device, CreateInputLayout, "Failed to create input layout");
    NORVEX_FAIL(device, CreatePixelShader, "Failed to create pixel shader");
    NORVEX_FAIL(device, CreateRasterizerState, "Failed to create rasterizer state");
    NORVEX_FAIL(device, CreateRenderTargetView, "Failed to create render rarget view",
                "CreateRenderTargetView: Failed to create render target view");
    NORVEX_FAIL(device, CreateSamplerState, "Failed to create sampler state");
    NORVEX_FAIL(device, CreateShaderResourceView, "Failed to create shader resource view");
    NORVEX_FAIL(device, CreateTexture2D, "Failed to create ID3D11Texture2D: width = ");
    NORVEX_FAIL(device, CreateVertexShader, "Failed to create vertex shader");
    NORVEX_FAIL_QUERY(device, "Attach: Failed to get DXGI device", kUntold);
    NORVEX_FAIL(dxgiDevice, GetAdapter, "Attach: Failed to get DXGI adapter");
    NORVEX_FAIL(context, Map, "-Failed to map resource");
}

} // namespace

void Interpose(Faults& faults, bool isDirect3D12) {
    InterposeDXGI(faults, isDirect3D12);
    InterposeWindows(faults);
    isDirect3D12 ? Interpose12(faults) : Interpose11(faults);
}

} // namespace Norvex::Test
