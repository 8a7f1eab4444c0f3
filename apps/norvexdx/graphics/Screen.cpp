#include "apps/norvexdx/graphics/Screen.h"

namespace Norvex::App {

namespace {

// What pictures are taken to be made for, in cd/m2: the display that most HDR pictures are mastered
// on, and a common light level of their content.
constexpr float kMaxMasteringNits = 1000.0F;
constexpr float kMinMasteringNits = 0.005F;
constexpr float kMaxContentLightLevel = 1000.0F;
constexpr float kMaxFrameAverageLightLevel = 400.0F;

} // namespace

DX::Size2DT<long> Screen::Resize() {
    return m_swapChain->RecreateBuffers();
}

DXGI_FORMAT Screen::GetFormat() const {
    const auto backBuffer = GetBackBuffer();
    return backBuffer != nullptr ? backBuffer->GetFormat() : DXGI_FORMAT_UNKNOWN;
}

std::optional<double> Screen::Present(const Record& record, ScreenPixels* pixels) {
    const auto backBuffer = GetBackBuffer();
    if (backBuffer == nullptr) {
        return std::nullopt;
    }
    WaitForFrames(kMaxFramesInFlight - 1);
    const double milliseconds = Submit(*backBuffer, record, pixels);
    m_swapChain->Present();
    return milliseconds;
}

bool Screen::SetHDR(bool isWanted) {
    if (isWanted) {
        return m_swapChain->EnableHDRIfSupported(kMaxMasteringNits, kMinMasteringNits,
                                                 kMaxContentLightLevel, kMaxFrameAverageLightLevel);
    }
    m_swapChain->DisableHDR();
    return false;
}

} // namespace Norvex::App
