#pragma once

// What the tests of swap chains share: a host's frame loop on either generation, in a real window.

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

using RGB = TestWindow::RGB;

inline constexpr DX::Size2DT<long> kClientSize = {320, 200};
inline constexpr Conf::RGBColorSpace kSRGB = {};
inline constexpr auto kPresent = D3D12_RESOURCE_STATE_PRESENT;
inline constexpr auto kRenderTarget = D3D12_RESOURCE_STATE_RENDER_TARGET;

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
    // Fills the window.
    void Frame(const Proc::ColorF& color) {
        if (m_device11 != nullptr) {
            m_device11->Encode([&](const auto& context) {
                context->ClearRenderTargetView(m_swapChain->GetRenderTexture()->GetView(), color);
            });
        } else {
            const auto allocator = m_swapChain->CreateCommandAllocator();
            const auto target = m_swapChain->GetRenderTarget();
            allocator->ClearRenderTargetView(target, kPresent, color, {});
            allocator->ResourceBarrier({target->Transition(kRenderTarget, kPresent,
                                                           D3D12_RESOURCE_BARRIER_ALL_SUBRESOURCES,
                                                           D3D12_RESOURCE_BARRIER_FLAG_NONE)});
            allocator->Execute();
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
    // after two seconds that is a failure.
    void ExpectOnScreen(Presenter& presenter, const Proc::ColorF& color, const char* when) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
        std::string difference;
        do {
            presenter.Frame(color);
            TestWindow::PumpMessages();
            difference = DescribeDifference(color);
        } while (!difference.empty() && std::chrono::steady_clock::now() < end);
        EXPECT_EQ(difference, "") << when;
    }

    std::string DescribeDifference(const Proc::ColorF& color) const {
        const RGB expected = {static_cast<int>(std::lround(color.r * 255.0F)),
                              static_cast<int>(std::lround(color.g * 255.0F)),
                              static_cast<int>(std::lround(color.b * 255.0F))};
        const DX::Size2DT<long> size = m_window.GetClientSize();
        for (const long x : {1L, size.width - 2}) {
            for (const long y : {1L, size.height - 2}) {
                const RGB seen = m_window.GetPixel(x, y);
                for (std::size_t i = 0; i < seen.size(); ++i) {
                    if (std::abs(seen[i] - expected[i]) > 1) {
                        return fmt::format("({}, {}) shows {} {} {} instead of {} {} {}", x, y,
                                           seen[0], seen[1], seen[2], expected[0], expected[1],
                                           expected[2]);
                    }
                }
            }
        }
        return {};
    }

    TestWindow m_window{kClientSize};
};

} // namespace Norvex::Test
