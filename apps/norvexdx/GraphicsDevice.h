#pragma once

// The Direct3D 12 device that a command draws with, and its one queue. A plain value that shares
// both. Any thread. Throws Failure when the system or the adapter is not there, else what the
// library throws.

#include <optional>

#include "Proc/DirectX/Manager/D3D12CommandQueue.h"
#include "Proc/DirectX/Manager/D3D12Device.h"

namespace Norvex::App {

struct GraphicsDevice {
    unsigned adapterIndex = 0; // in DXGI's order
    boost::intrusive_ptr<DX::D12Device> device;
    boost::intrusive_ptr<DX::D12CommandQueue> queue;
    double creationMs = 0.0;

    // On adapter 0 unless another one is asked for. Failures: no Direct3D 12, no HLSL compiler, no
    // such adapter.
    static GraphicsDevice Open(std::optional<unsigned> adapterIndex);
};

} // namespace Norvex::App
