#pragma once

// What the tests of swap chains share: a host's frame loop on either generation, in a real window.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D11DeviceContext.h"
#include "Proc/DirectX/Manager/D3D11Resource.h"
#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/DXGISwapChain.h"
#include "tests/support/Generation.h"
#include "tests/support/TestWindow.h"

namespace Norvex::Test {

inline constexpr DX::Size2DT<long> kClientSize = {320, 200};
inline constexpr Conf::RGBColorSpace kSRGB = {};

// A host's frame loop on either generation.
class Presenter {
public:
    Presenter(Generation generation, HWND window) {
        if (generation == Generation::Direct3D11) {
            m_device11 = DX::D11Device::CreatePrimary();
            m_swapChain = DX::DXGISwapChain::Create(m_device11, window);
        } else {
            m_device12 = DX::D12Device::CreatePrimary();
            m_swapChain = DX::DXGISwapChain::Create(m_device12, window);
        }
    }

    DX::DXGISwapChain& GetSwapChain() { return *m_swapChain; }
    // Of the back buffer; UNKNOWN when there is none.
    DXGI_FORMAT GetFormat() const {
        if (const auto target = m_swapChain->GetRenderTarget()) {
            return target->GetFormat();
        }
        D3D11_TEXTURE2D_DESC desc = {};
        if (const auto texture = m_swapChain->GetRenderTexture()) {
            texture->GetDesc(&desc);
        }
        return desc.Format;
    }
    DX::Size2DT<long> GetSize() const {
        const auto target = m_swapChain->GetRenderTarget();
        return target ? target->GetSize() : m_swapChain->GetRenderTexture()->GetSize();
    }
    // Direct3D 12: records a frame of one colour.
    void Record(DX::D12CommandAllocator& frame, const Proc::ColorF& color) const {
        const auto target = m_swapChain->GetRenderTarget();
        frame.ClearRenderTargetView(target, D3D12_RESOURCE_STATE_PRESENT, color, {});
        frame.ResourceBarrier({target->Transition(
            D3D12_RESOURCE_STATE_RENDER_TARGET, D3D12_RESOURCE_STATE_PRESENT,
            D3D12_RESOURCE_BARRIER_ALL_SUBRESOURCES, D3D12_RESOURCE_BARRIER_FLAG_NONE)});
    }
    // Fills the window.
    void Frame(const Proc::ColorF& color) {
        if (m_device11 != nullptr) {
            m_device11->Encode([&](const auto& context) {
                context->ClearRenderTargetView(m_swapChain->GetRenderTexture()->GetView(), color);
            });
        } else {
            const auto frame = m_swapChain->CreateCommandAllocator();
            Record(*frame, color);
            frame->Execute();
        }
        m_swapChain->Present();
    }

    boost::intrusive_ptr<DX::D11Device> m_device11;
    boost::intrusive_ptr<DX::D12Device> m_device12;

private:
    boost::intrusive_ptr<DX::DXGISwapChain> m_swapChain;
};

inline constexpr Proc::ColorF kOrange = {1.0F, 0.5019608F, 0.0F, 1.0F};
inline constexpr Proc::ColorF kTeal = {0.0F, 0.4F, 0.6F, 1.0F};

class DXGISwapChainTest : public testing::TestWithParam<Generation> {
protected:
    // Presents frames, as a host does, until every corner of the client area shows the colour;
    // after ten seconds that is a failure.
    void ExpectOnScreen(Presenter& presenter, const Proc::ColorF& color, const char* when) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        std::string difference;
        do {
            presenter.Frame(color);
            TestWindow::PumpMessages();
            difference = DescribeDifference(color);
        } while (!difference.empty() && std::chrono::steady_clock::now() < end);
        EXPECT_EQ(difference, "") << when;
    }

    std::string DescribeDifference(const Proc::ColorF& color) const {
        const DX::Size2DT<long> size = m_window.GetClientSize();
        for (const long x : {1L, size.width - 2}) {
            for (const long y : {1L, size.height - 2}) {
                const auto [r, g, b] = m_window.GetPixel(x, y);
                const float error = std::max({std::fabs(static_cast<float>(r) / 255 - color.r),
                                              std::fabs(static_cast<float>(g) / 255 - color.g),
                                              std::fabs(static_cast<float>(b) / 255 - color.b)});
                if (error > 1.4F / 255) {
                    return fmt::format("({}, {}) shows {} {} {}", x, y, r, g, b);
                }
            }
        }
        return {};
    }

    TestWindow m_window{kClientSize};
};

} // namespace Norvex::Test
