#pragma once

// A host's window with a swap chain, and its frame loop, on either generation. One thread.

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D11DeviceContext.h"
#include "Proc/DirectX/Manager/D3D11Resource.h"
#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/DXGISwapChain.h"
#include "tests/support/Generation.h"
#include "tests/support/TestWindow.h"

namespace Norvex::Test {

struct FrameHost {
    static constexpr DX::Size2DT<long> kSize = {320, 200};

    explicit FrameHost(Generation generation)
        : device(generation == Generation::Direct3D11
                     ? boost::intrusive_ptr<DX::D3Device>(DX::D11Device::CreatePrimary())
                     : DX::D12Device::CreatePrimary()) {
        MakeSwapChain();
    }

    void MakeSwapChain() {
        swapChain.reset();
        swapChain = DX::DXGISwapChain::Create(device, window.Get());
    }
    bool EnableHDR() const {
        return swapChain->EnableHDRIfSupported(1000.0F, 0.005F, 800.0F, 400.0F);
    }
    // On Direct3D 12.
    void Record(DX::D12CommandAllocator& frame) const {
        const auto target = swapChain->GetRenderTarget();
        frame.ClearRenderTargetView(target, D3D12_RESOURCE_STATE_PRESENT, {}, {});
        frame.ResourceBarrier({target->Transition(D3D12_RESOURCE_STATE_RENDER_TARGET,
                                                  D3D12_RESOURCE_STATE_PRESENT, 0, {})});
    }
    // Draws and presents.
    void Frame() const {
        if (const auto device11 = boost::dynamic_pointer_cast<DX::D11Device>(device)) {
            device11->Encode([this](const auto& context) {
                context->ClearRenderTargetView(swapChain->GetRenderTexture()->GetView(), {});
            });
        } else {
            const auto frame = swapChain->CreateCommandAllocator();
            Record(*frame);
            frame->Execute();
        }
        swapChain->Present();
    }

    TestWindow window{kSize};
    boost::intrusive_ptr<DX::D3Device> device;
    boost::intrusive_ptr<DX::DXGISwapChain> swapChain;
};

} // namespace Norvex::Test
