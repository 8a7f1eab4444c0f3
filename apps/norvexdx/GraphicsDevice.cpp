#include "apps/norvexdx/GraphicsDevice.h"

#include <vector>

#include <fmt/format.h>

#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "Proc/DirectX/Manager/DirectXShader.h"
#include "apps/norvexdx/Failure.h"
#include "apps/norvexdx/Stopwatch.h"

namespace Norvex::App {

namespace {

DX::DXGIAdapter FindAdapter(unsigned index) {
    std::vector<DX::DXGIAdapter> adapters;
    DX::DXGIFactory::Create()->EnumerateAdapters(adapters, false);
    if (adapters.empty()) {
        throw Failure("this system has no graphics adapter");
    }
    if (index >= adapters.size()) {
        throw Failure(fmt::format("there is no adapter {}; this system's adapters are 0 to {}",
                                  index, adapters.size() - 1));
    }
    return adapters[index];
}

} // namespace

GraphicsDevice GraphicsDevice::Open(std::optional<unsigned> adapterIndex) {
    if (!DX::D12Device::IsAvailable()) {
        throw Failure("this system has no Direct3D 12");
    }
    if (!DX::D3ShaderBytecode::IsCompilerLoaded()) {
        throw Failure("this system has no HLSL compiler (d3dcompiler_47.dll)");
    }
    const Stopwatch stopwatch;
    GraphicsDevice result;
    result.adapterIndex = adapterIndex.value_or(0);
    result.device = DX::D12Device::Create(FindAdapter(result.adapterIndex));
    const D3D12_COMMAND_QUEUE_DESC desc = {.Type = D3D12_COMMAND_LIST_TYPE_DIRECT,
                                           .Priority = D3D12_COMMAND_QUEUE_PRIORITY_NORMAL,
                                           .Flags = D3D12_COMMAND_QUEUE_FLAG_NONE,
                                           .NodeMask = 0};
    result.queue = new DX::D12CommandQueue(result.device, desc);
    result.creationMs = stopwatch.GetMilliseconds();
    return result;
}

} // namespace Norvex::App
