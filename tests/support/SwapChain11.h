#pragma once

// A swap chain of a Direct3D 11 device for a real window.

#include <gtest/gtest.h>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D11DeviceContext.h"
#include "Proc/DirectX/Manager/D3D11Resource.h"
#include "tests/support/TestWindow.h"

namespace Norvex::Test {

// Draws on a new window through a swap chain of two buffers and presents it; expects success.
inline void DrawAndPresent(DX::D11Device& device) {
    const TestWindow window({160, 90});
    const CComPtr<IDXGISwapChain> swapChain =
        device.CreateSwapChainForHwnd(window.Get(), MakeSwapChainDesc(160, 90));
    CComPtr<ID3D11Texture2D> buffer;
    EXPECT_EQ(swapChain->GetBuffer(0, IID_PPV_ARGS(&buffer)), S_OK);
    const boost::intrusive_ptr target(new DX::D11RenderTexture2D(buffer, std::nullopt));
    EXPECT_EQ(target->GetSize(), (DX::Size2DT<long>{160, 90}));
    device.Encode([&](const auto& context) {
        context->ClearRenderTargetView(target->GetView(), {0, 1, 0, 1});
    });
    EXPECT_EQ(swapChain->Present(0, 0), S_OK);
}

} // namespace Norvex::Test
