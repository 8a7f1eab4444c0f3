#pragma once

// What the viewer shows and how, and what the user's actions do to that: logic without a window and
// without a device. Plain values, one thread. Points are pixels of the client area, right and down
// from its corner. Next: ViewerKeys.h, ViewSession.h.

#include <array>
#include <cstddef>

#include "apps/norvexdx/viewer/View.h"
#include "apps/norvexdx/viewer/ViewerKeys.h"

namespace Norvex::App {

class Viewer {
public:
    explicit Viewer(std::size_t pictureCount) : m_pictureCount(pictureCount) {}

    // In pixels; of no area where there is none.
    void SetPictureSize(const DX::Size2DT<long>& size) { m_pictureSize = size; }
    void SetWindowSize(const DX::Size2DT<long>& size) { m_windowSize = size; }

    void Apply(Action action);
    // A step in zooms by kZoomStep, one out undoes it, and so do parts of steps. The picture's
    // point under the given one stays there.
    void ZoomAbout(const std::array<float, 2>& point, float steps);
    void MoveBy(float dx, float dy);
    // Another picture is seen as this one was at first.
    void Select(std::size_t index);

    // At 1:1 moved by less than a pixel, so that the picture's pixels lie on the window's.
    View GetView() const;
    std::size_t GetIndex() const { return m_index; }
    bool WantsHDR() const { return m_wantsHDR; }
    bool ShowsStatistics() const { return m_showsStatistics; }
    bool ShowsHelp() const { return m_showsHelp; }
    bool IsFullScreen() const { return m_isFullScreen; }
    bool IsClosed() const { return m_isClosed; }
    void SetWantsHDR(bool wants) { m_wantsHDR = wants; }
    void SetShowsStatistics(bool shows) { m_showsStatistics = shows; }
    void SetFullScreen(bool isFullScreen) { m_isFullScreen = isFullScreen; }

    static constexpr float kZoomStep = 1.25F;
    // Target pixels per source pixel; a picture that is outside already is only kept from going
    // further.
    static constexpr float kMinScale = 1.0F / 64.0F;
    static constexpr float kMaxScale = 64.0F;

private:
    void ChangeFit();
    // Counter-clockwise, about the middle of the window.
    void Rotate(float degrees);
    void SetFit(DX::RenderFitMode fit);

    std::size_t m_pictureCount;
    std::size_t m_index = 0;
    DX::Size2DT<long> m_pictureSize;
    DX::Size2DT<long> m_windowSize;
    DX::RenderFitMode m_fit = DX::RenderFitMode::Fit; // as chosen; Free: 1:1
    View m_view;
    bool m_wantsHDR = true;
    bool m_showsStatistics = false;
    bool m_showsHelp = false;
    bool m_isFullScreen = false;
    bool m_isClosed = false;
};

} // namespace Norvex::App
