#include "apps/norvexdx/viewer/Viewer.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace Norvex::App {

namespace {

constexpr float kQuarterTurn = 90.0F;
constexpr float kTilt = 1.0F;
constexpr float kFullTurn = 360.0F;

// From 0 to less than 360.
float WrapDegrees(float degrees) {
    const float rest = std::fmod(degrees, kFullTurn);
    return rest < 0.0F ? rest + kFullTurn : rest;
}

} // namespace

View Viewer::GetView() const {
    View view = m_view;
    const bool isUpright = std::fmod(view.rotationDegrees, 2.0F * kQuarterTurn) == 0.0F;
    const bool isAcross = !isUpright && std::fmod(view.rotationDegrees, kQuarterTurn) == 0.0F;
    if (view.fit != DX::RenderFitMode::Free || view.scale.value_or(1.0F) != 1.0F ||
        !(isUpright || isAcross)) {
        return view;
    }
    const std::array picture = {isAcross ? m_pictureSize.height : m_pictureSize.width,
                                isAcross ? m_pictureSize.width : m_pictureSize.height};
    const std::array window = {m_windowSize.width, m_windowSize.height};
    for (std::size_t i = 0; i < window.size(); ++i) {
        const bool isBetweenPixels = (window[i] - picture[i]) % 2 != 0;
        view.translation[i] = std::round(view.translation[i]) + (isBetweenPixels ? 0.5F : 0.0F);
    }
    return view;
}

void Viewer::Apply(Action action) {
    switch (action) {
    case Action::Next:
        return Select(std::min(m_index + 1, m_pictureCount - 1));
    case Action::Previous:
        return Select(m_index > 0 ? m_index - 1 : 0);
    case Action::First:
        return Select(0);
    case Action::Last:
        return Select(m_pictureCount - 1);
    case Action::ChangeFit:
        return ChangeFit();
    case Action::TurnRight:
        return Rotate(-kQuarterTurn);
    case Action::TurnLeft:
        return Rotate(kQuarterTurn);
    case Action::TiltRight:
        return Rotate(-kTilt);
    case Action::TiltLeft:
        return Rotate(kTilt);
    case Action::ResetView:
        m_view = {};
        return SetFit(DX::RenderFitMode::Fit);
    case Action::ToggleHDR:
        m_wantsHDR = !m_wantsHDR;
        return;
    case Action::ToggleStatistics:
        m_showsStatistics = !m_showsStatistics;
        return;
    case Action::ToggleFullScreen:
        m_isFullScreen = !m_isFullScreen;
        return;
    case Action::ToggleHelp:
        m_showsHelp = !m_showsHelp;
        return;
    case Action::Close:
        m_isClosed = true;
        return;
    }
}

void Viewer::ZoomAbout(const std::array<float, 2>& point, float steps) {
    const float before = PlacePicture(m_view, m_pictureSize, m_windowSize).scale;
    const float after = std::clamp(before * std::pow(kZoomStep, steps), std::min(kMinScale, before),
                                   std::max(kMaxScale, before));
    const std::array middle = {static_cast<float>(m_windowSize.width) / 2.0F,
                               static_cast<float>(m_windowSize.height) / 2.0F};
    for (std::size_t i = 0; i < middle.size(); ++i) {
        const float fromMiddle = point[i] - middle[i];
        m_view.translation[i] = fromMiddle - (fromMiddle - m_view.translation[i]) * after / before;
    }
    m_view.fit = DX::RenderFitMode::Free;
    m_view.scale = after;
}

void Viewer::MoveBy(float dx, float dy) {
    m_view.translation[0] += dx;
    m_view.translation[1] += dy;
}

void Viewer::Select(std::size_t index) {
    if (index != m_index) {
        m_index = index;
        m_view = {};
        SetFit(m_fit);
    }
}

void Viewer::ChangeFit() {
    switch (m_fit) {
    case DX::RenderFitMode::Fit:
        return SetFit(DX::RenderFitMode::Fill);
    case DX::RenderFitMode::Fill:
        return SetFit(DX::RenderFitMode::Free);
    case DX::RenderFitMode::Free:
        return SetFit(DX::RenderFitMode::Fit);
    }
}

void Viewer::SetFit(DX::RenderFitMode fit) {
    m_fit = fit;
    m_view.fit = fit;
    m_view.scale.reset();
    m_view.translation = {};
}

void Viewer::Rotate(float degrees) {
    m_view.rotationDegrees = WrapDegrees(m_view.rotationDegrees + degrees);
    // The translation turns along, so that what is in the middle stays there. Its y points down.
    const float radians = degrees * std::numbers::pi_v<float> / 180.0F;
    const auto [x, y] = m_view.translation;
    m_view.translation = {x * std::cos(radians) + y * std::sin(radians),
                          y * std::cos(radians) - x * std::sin(radians)};
}

} // namespace Norvex::App
