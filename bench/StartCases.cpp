// What a start consists of, a part at a time: a device where there is none, and a drawer with its
// first picture. The process is not new and the driver's caches are warm: that is the system's
// share, and the same for both.

#include <memory>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D12Renderer.h"
#include "bench/Cases.h"
#include "bench/Direct3D12Twin.h"

namespace Norvex::Bench {

namespace {

CComPtr<IDXGIAdapter1> GetAdapter() {
    CComPtr<IDXGIFactory1> factory;
    Check(CreateDXGIFactory1(IID_PPV_ARGS(&factory)));
    CComPtr<IDXGIAdapter1> adapter;
    Check(factory->EnumAdapters1(0, &adapter));
    return adapter;
}

void CreateDevice11() {
    constexpr D3D_FEATURE_LEVEL kLevels[] = {D3D_FEATURE_LEVEL_11_1, D3D_FEATURE_LEVEL_11_0};
    CComPtr<ID3D11Device> device;
    CComPtr<ID3D11DeviceContext> context;
    Check(D3D11CreateDevice(GetAdapter(), D3D_DRIVER_TYPE_UNKNOWN, nullptr,
                            D3D11_CREATE_DEVICE_BGRA_SUPPORT, kLevels, 2, D3D11_SDK_VERSION,
                            &device, nullptr, &context));
}

Ways MakeDevices11() {
    return {{MakeWay("CreatePrimary", [] { DX::D11Device::CreatePrimary(); }, {"raw"}),
             MakeWay("raw", &CreateDevice11)},
            {}};
}

Ways MakeDevices12() {
    const HMODULE module = LoadLibraryW(L"d3d12.dll");
    const auto create = reinterpret_cast<PFN_D3D12_CREATE_DEVICE>(
        reinterpret_cast<void*>(GetProcAddress(module, "D3D12CreateDevice")));
    const auto createDevice = [create] {
        CComPtr<ID3D12Device> device;
        Check(create(GetAdapter(), D3D_FEATURE_LEVEL_11_1, IID_PPV_ARGS(&device)));
    };
    return {{MakeWay("CreatePrimary", [] { DX::D12Device::CreatePrimary(); }, {"raw"}),
             MakeWay("raw", createDevice)},
            {}};
}

// Shaders compiled, pipeline made, one picture drawn and complete.
Ways MakeDrawers12() {
    const auto scene = std::make_shared<Scene12>();
    const auto draw = [scene] {
        const auto allocator = scene->queue->CreateCommandAllocator();
        const boost::intrusive_ptr<DX::D12ImageDraw> drawer(new DX::D12ImageDraw(scene->device));
        drawer->Encode(allocator, scene->source, scene->target, scene->conversion, scene->area);
        allocator->Execute();
        allocator->WaitComplete();
    };
    const auto drawAsExpert = [scene] {
        scene->MakePipeline();
        ExpertFrames12(*scene).Draw(1);
    };
    return {{MakeWay("D12ImageDraw", draw, {"expert"}), MakeWay("expert", drawAsExpert)}, {}};
}

} // namespace

std::vector<Case> MakeStartCases() {
    return {{"d3d11/start/device", Clock::Wall, &MakeDevices11},
            {"d3d12/start/device", Clock::Wall, &MakeDevices12},
            {"d3d12/start/picture", Clock::Wall, &MakeDrawers12}};
}

} // namespace Norvex::Bench
