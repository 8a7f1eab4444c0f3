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

    explicit FrameHost(Generation generation) {
        if (generation == Generation::Direct3D11) {
            device11 = DX::D11Device::CreatePrimary();
        } else {
            device12 = DX::D12Device::CreatePrimary();
        }
        MakeSwapChain();
    }

    void MakeSwapChain() {
        swapChain.reset();
        swapChain = device11 != nullptr ? DX::DXGISwapChain::Create(device11, window.Get())
                                        : DX::DXGISwapChain::Create(device12, window.Get());
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
        if (device11 != nullptr) {
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
    boost::intrusive_ptr<DX::D11Device> device11;
    boost::intrusive_ptr<DX::D12Device> device12;
    boost::intrusive_ptr<DX::DXGISwapChain> swapChain;
};

} // namespace Norvex::Test
