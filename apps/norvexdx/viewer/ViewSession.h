#pragma once

// A run of the viewer: joins the logic, the window, the pictures and what is drawn; redraws when
// something has changed, and begins anew when the graphics device is lost. One thread, that of the
// window. Throws Failure and what the library throws. Next: Viewer.h, ViewerWindow.h, Album.h,
// ClipPlayer.h, ViewerScene.h, ViewStatistics.h.

#include <chrono>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "apps/norvexdx/viewer/Album.h"
#include "apps/norvexdx/viewer/ViewOptions.h"
#include "apps/norvexdx/viewer/ViewStatistics.h"
#include "apps/norvexdx/viewer/Viewer.h"
#include "apps/norvexdx/viewer/ViewerScene.h"
#include "apps/norvexdx/viewer/ViewerWindow.h"

namespace Norvex::App {

// Counts losses of the device, and says when there is no use in going on.
class LossLimit {
public:
    using Clock = std::chrono::steady_clock;

    // Answers whether this was one too many: the third within ten seconds.
    bool Add(Clock::time_point time);

    static constexpr std::size_t kTooMany = 3;
    static constexpr std::chrono::seconds kPeriod{10};

private:
    std::deque<Clock::time_point> m_losses;
};

class ViewSession final : private WindowEvents {
public:
    explicit ViewSession(const ViewOptions& options);

    // Shows the first picture that can be read; false when there is none.
    bool Open();
    // Until the user closes the window.
    void Run();
    // Draws so many frames as fast as they can be presented, and reads the last one where `pixels`
    // is given. Fewer when the user closes the window.
    void RunFrames(unsigned count, ScreenPixels* pixels);

    std::string MakeJson() const;
    std::string MakeText() const;

private:
    void OnKey(const Key& key) override;
    void OnWheel(const std::array<float, 2>& point, float steps) override;
    void OnDrag(float dx, float dy) override;
    void OnResize() override;
    void OnMove() override;
    void OnDisplayChange() override;
    void OnPaint() override;
    void OnWake() override;
    void OnClose() override;
    std::optional<ClipPlayer::Clock::time_point> OnIdle() override;

    using Work = std::function<void(ViewerScene&)>;
    // Works on the scene, and again on a new one when the device was lost.
    void OnDevice(const Work& work);
    // What the device was lost for meanwhile; S_OK when it works.
    long FindLoss(const Work& work);
    // The reason of a loss that the failure may follow from; where there is none, throws it on.
    long GetReasonOr(const std::exception_ptr& failure) const;
    void HandleLoss(long reason);
    void MakeScene();

    bool SelectFirst();
    void ShowPicture();
    void SetPicture(ViewerScene& scene, const DecodedPicture& picture) const;
    Conf::RGBColorSpace GetColorSpace(const Image& image) const;
    // A key of the clip's; answers whether it is one.
    bool ActOnClip(const Key& key);
    void PlayClip();
    void TellClipFailure();
    void FollowWindow(ViewerScene& scene);
    void UpdateHDR(ViewerScene& scene);
    void UpdateOverlay(ViewerScene& scene);
    std::string MakeOverlayText();
    void Draw(ScreenPixels* pixels);
    ViewStatistics::Setting GetSetting() const;

    ViewOptions m_options;
    Viewer m_viewer;
    ViewerWindow m_window;
    Album m_album;
    std::set<std::size_t> m_told;       // pictures that could not be read
    std::optional<std::size_t> m_shown; // the picture in the scene
    std::string m_toldClipFailure;
    std::string m_notice;                        // about the picture
    std::shared_ptr<ClipPlayer> m_clip;          // in the scene; null: a picture is
    std::optional<std::uint64_t> m_frameInScene; // its serial number
    std::string m_statisticsText;                // as of m_sinceStatistics
    Stopwatch m_sinceStatistics;
    std::string m_overlayText; // of the overlay in the scene
    ViewStatistics m_statistics;
    std::optional<std::size_t> m_framesAskedFor; // drawn so far
    LossLimit m_lossLimit;
    long m_lossReason = 0;                // of the loss that a new scene mends
    bool m_hasMoved = true;               // since the display was last looked at
    bool m_hasDisplayChanged = false;     // the same
    bool m_hasToldHDR = false;            // that there is none
    bool m_isBusy = false;                // with the scene
    DX::Size2DT<long> m_screenSize;       // of the back buffers
    std::unique_ptr<ViewerScene> m_scene; // last: before the window
};

} // namespace Norvex::App
