#include "apps/norvexdx/viewer/ViewSession.h"

#include <algorithm>
#include <exception>
#include <utility>

#include <fmt/format.h>

#include "Proc/DirectX/Manager/Exceptions.h"
#include "apps/norvexdx/console/Console.h"
#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/pictures/InputFile.h"
#include "apps/norvexdx/viewer/TextOverlay.h"

namespace Norvex::App {

namespace {

constexpr double kStatisticsPeriod = 250.0; // ms, so that the text can be read

// A picture's own size, smaller where the screen is, and not too small to use.
DX::Size2DT<long> ChooseWindowSize(const DX::Size2DT<long>& picture,
                                   const DX::Size2DT<long>& screen) {
    constexpr double kPartOfScreen = 0.8;
    constexpr DX::Size2DT<long> kSmallest = {320, 240};
    const auto part = [&](long space, long side) {
        return kPartOfScreen * static_cast<double>(space) / static_cast<double>(side);
    };
    const double scale =
        std::min({1.0, part(screen.width, picture.width), part(screen.height, picture.height)});
    const auto scaled = [&](long side, long smallest) {
        return std::max(smallest, static_cast<long>(static_cast<double>(side) * scale));
    };
    return {scaled(picture.width, kSmallest.width), scaled(picture.height, kSmallest.height)};
}

void AppendParagraph(std::string& text, const std::string& paragraph) {
    if (!paragraph.empty()) {
        text += (text.empty() ? "" : "\n\n") + paragraph;
    }
}

class Busy {
public:
    explicit Busy(bool& flag) : m_flag(flag) { m_flag = true; }
    ~Busy() { m_flag = false; }
    Busy(const Busy&) = delete;
    Busy& operator=(const Busy&) = delete;

private:
    bool& m_flag;
};

} // namespace

bool LossLimit::Add(Clock::time_point time) {
    m_losses.push_back(time);
    while (time - m_losses.front() > kPeriod) {
        m_losses.pop_front();
    }
    return m_losses.size() >= kTooMany;
}

ViewSession::ViewSession(const ViewOptions& options)
    : m_options(options),
      m_viewer(options.files.size()),
      m_window(*this),
      m_album(options.files, [this] { m_window.Wake(); }, options.from, options.clips) {
    m_viewer.SetWantsHDR(options.hdr != HDRChoice::Off);
    m_viewer.SetShowsStatistics(options.showsStatistics);
    m_viewer.SetFullScreen(options.isFullScreen);
}

bool ViewSession::Open() {
    m_album.Select(0); // decodes while the device is made
    OnDevice([](ViewerScene&) {});
    if (!SelectFirst()) {
        return false;
    }
    const DX::Size2DT<long> picture = m_album.Get(m_viewer.GetIndex()).GetSize();
    m_window.SetClientSize(
        m_options.size.value_or(ChooseWindowSize(picture, m_window.GetWorkSize())));
    ShowPicture();
    m_window.Show();
    m_window.SetFullScreen(m_viewer.IsFullScreen());
    return true;
}

bool ViewSession::SelectFirst() {
    for (std::size_t i = 0; i < m_album.GetCount(); ++i) {
        const DecodedPicture& picture = m_album.Get(i);
        if (picture.failure.empty()) {
            m_viewer.Select(i);
            return true;
        }
        m_told.insert(i);
        Console::PrintMessage(picture.failure);
    }
    return false;
}

void ViewSession::Run() {
    m_window.Run();
}

void ViewSession::RunFrames(unsigned count, ScreenPixels* pixels) {
    m_statistics.ForgetTimes();
    m_framesAskedFor = 0;
    while (*m_framesAskedFor < count && m_window.HandlePending()) {
        if (++*m_framesAskedFor > 1 && m_clip != nullptr) {
            m_clip->ShowNext();
            TellClipFailure();
        }
        Draw(m_framesAskedFor == count ? pixels : nullptr);
    }
}

std::string ViewSession::MakeJson() const {
    return m_statistics.MakeJson(GetSetting(),
                                 m_framesAskedFor.value_or(m_statistics.GetFrameCount()));
}

std::string ViewSession::MakeText() const {
    return m_statistics.MakeText(GetSetting()) + "\n";
}

void ViewSession::OnKey(const Key& key) {
    if (m_clip != nullptr && ActOnClip(key)) {
        return;
    }
    const auto action = FindAction(key);
    if (!action) {
        return;
    }
    m_viewer.Apply(*action);
    if (m_viewer.IsClosed()) {
        m_window.Close();
        return;
    }
    m_window.SetFullScreen(m_viewer.IsFullScreen());
    m_hasMoved = m_hasMoved || action == Action::ToggleHDR;
    m_statisticsText.clear(); // anew
    ShowPicture();
    m_window.Redraw();
}

bool ViewSession::ActOnClip(const Key& key) {
    const auto action = FindClipAction(key);
    if (action) {
        m_notice = m_clip->Apply(*action);
        m_statisticsText.clear(); // anew
        m_window.Redraw();
    }
    return action.has_value();
}

void ViewSession::OnWheel(const std::array<float, 2>& point, float steps) {
    m_viewer.ZoomAbout(point, steps);
    m_window.Redraw();
}

void ViewSession::OnDrag(float dx, float dy) {
    m_viewer.MoveBy(dx, dy);
    m_window.Redraw();
}

void ViewSession::OnResize() {
    Draw(nullptr);
}

void ViewSession::OnMove() {
    m_hasMoved = true;
    if (m_window.IsShown()) {
        OnDevice([this](ViewerScene& scene) { FollowWindow(scene); });
    }
}

void ViewSession::OnDisplayChange() {
    m_hasDisplayChanged = true;
    OnMove();
}

void ViewSession::OnPaint() {
    Draw(nullptr);
}

void ViewSession::OnWake() {
    ShowPicture();
}

void ViewSession::OnClose() {
    m_window.Close();
}

std::optional<ClipPlayer::Clock::time_point> ViewSession::OnIdle() {
    if (m_clip == nullptr || m_framesAskedFor || m_isBusy) {
        return std::nullopt;
    }
    PlayClip();
    return m_clip->GetNextTime(ClipPlayer::Clock::now());
}

void ViewSession::PlayClip() {
    TellClipFailure();
    const bool wasPlaying = m_clip->GetState().isPlaying;
    if (!m_clip->Advance(ClipPlayer::Clock::now())) {
        return;
    }
    if (!m_window.IsShown()) {
        m_clip->CountUnseen();
    }
    if (wasPlaying != m_clip->GetState().isPlaying) {
        m_statisticsText.clear(); // anew
    }
    Draw(nullptr);
}

void ViewSession::TellClipFailure() {
    const std::string failure = m_clip->TakeFailure();
    if (failure.empty()) {
        return;
    }
    m_notice = failure;
    m_window.Redraw();
    if (std::exchange(m_toldClipFailure, failure) != failure) { // a loop meets it again and again
        Console::PrintMessage(failure);
    }
}

void ViewSession::OnDevice(const Work& work) {
    if (m_isBusy) {
        // Windows sends messages in the middle of other calls. The next frame catches up.
        m_window.Redraw();
        return;
    }
    const Busy busy(m_isBusy);
    while (const long reason = FindLoss(work)) {
        HandleLoss(reason);
    }
}

long ViewSession::FindLoss(const Work& work) {
    try {
        if (m_scene == nullptr) {
            MakeScene();
        }
        work(*m_scene);
        return m_scene->GetGraphics().GetDeviceRemovedReason();
    } catch (const DX::DirectXException& failure) {
        if (DX::IsDeviceLoss(failure.GetResult())) {
            return failure.GetResult();
        }
        return GetReasonOr(std::current_exception());
    } catch (const std::exception&) { // a lost device supports nothing, for one
        return GetReasonOr(std::current_exception());
    }
}

long ViewSession::GetReasonOr(const std::exception_ptr& failure) const {
    const long reason = m_scene != nullptr ? m_scene->GetGraphics().GetDeviceRemovedReason() : S_OK;
    if (reason == S_OK) {
        std::rethrow_exception(failure);
    }
    return reason;
}

void ViewSession::HandleLoss(long reason) {
    m_scene.reset();
    Graphics::WaitUntilReleased();
    m_statistics.AddLoss();
    const std::string code = fmt::format("{:#010x}", static_cast<std::uint32_t>(reason));
    if (m_lossLimit.Add(LossLimit::Clock::now())) {
        throw Failure(fmt::format("the graphics device was lost {} times within {} seconds ({})",
                                  LossLimit::kTooMany, LossLimit::kPeriod.count(), code));
    }
    m_lossReason = reason;
}

void ViewSession::MakeScene() {
    m_scene = std::make_unique<ViewerScene>(
        Graphics::Open(m_options.graphics, DrawKind::Over, &Console::PrintMessage), m_window.Get());
    m_screenSize = m_window.GetClientSize();
    m_hasMoved = true;
    m_overlayText.clear();
    m_frameInScene.reset();
    if (m_clip != nullptr) {
        m_clip->Rest(); // it goes on where it was
    }
    if (const DecodedPicture* picture = m_shown ? m_album.Find(*m_shown) : nullptr) {
        SetPicture(*m_scene, *picture);
    }
    if (m_lossReason != S_OK) {
        Console::PrintMessage(fmt::format("the graphics device was lost ({:#010x}): started anew",
                                          static_cast<std::uint32_t>(m_lossReason)));
        m_lossReason = S_OK;
    }
}

// The one before stays until the selected one is there.
void ViewSession::ShowPicture() {
    const std::size_t index = m_viewer.GetIndex();
    m_album.Select(index);
    const std::string& file = m_album.GetName(index);
    m_window.SetTitle(fmt::format("{} ({}/{}) - norvexdx",
                                  Utf8FromPath(PathFromUtf8(file).filename()), index + 1,
                                  m_album.GetCount()));
    if (m_shown == index) {
        return;
    }
    m_window.Redraw();
    const DecodedPicture* picture = m_album.Find(index);
    if (picture == nullptr) {
        m_notice = "reading " + file;
        return;
    }
    m_notice = picture->failure;
    if (!m_notice.empty() && m_told.insert(index).second) {
        Console::PrintMessage(m_notice);
    }
    m_viewer.SetPictureSize(picture->GetSize());
    m_shown = index;
    m_clip = picture->clip;
    m_frameInScene.reset();
    if (m_clip != nullptr) {
        m_clip->Rest();
        m_clip->CountUnseen();
    }
    OnDevice([&](ViewerScene& scene) { SetPicture(scene, *picture); });
}

// Of a clip nothing: Draw gives the scene its frames.
void ViewSession::SetPicture(ViewerScene& scene, const DecodedPicture& picture) const {
    const bool isImage = picture.failure.empty() && picture.clip == nullptr;
    scene.SetPicture(isImage ? &picture.image : nullptr, GetColorSpace(picture.image));
}

Conf::RGBColorSpace ViewSession::GetColorSpace(const Image& image) const {
    const auto space = m_options.from.value_or(image.colorSpace.value_or(Conf::RGBColorSpace()));
    const bool isLinear = space.transfer == Conf::TransferCharacteristics::Linear;
    return isLinear ? Conf::RGBColorSpace() : space; // it cannot be converted
}

void ViewSession::FollowWindow(ViewerScene& scene) {
    if (std::exchange(m_hasDisplayChanged, false)) {
        scene.GetScreen().UpdateDisplay();
    }
    if (std::exchange(m_hasMoved, false)) {
        UpdateHDR(scene);
    }
    const DX::Size2DT<long> size = m_window.GetClientSize();
    if (size != m_screenSize || scene.GetScreen().GetFormat() == DXGI_FORMAT_UNKNOWN) {
        m_screenSize = scene.GetScreen().Resize();
    }
    m_viewer.SetWindowSize(m_screenSize);
}

void ViewSession::UpdateHDR(ViewerScene& scene) {
    Screen& screen = scene.GetScreen();
    const auto look = [&] { return std::pair(screen.IsHDR(), screen.GetSDRWhite()); };
    const auto before = look();
    const bool isHDR = screen.SetHDR(m_viewer.WantsHDR());
    if (look() != before) {
        m_window.Redraw();
    }
    const bool isMissed = m_options.hdr == HDRChoice::On && m_viewer.WantsHDR() && !isHDR;
    if (isMissed && !std::exchange(m_hasToldHDR, true)) {
        Console::PrintMessage(screen.GetHDRRefusal() + ": pictures are shown in SDR");
    }
}

void ViewSession::UpdateOverlay(ViewerScene& scene) {
    const std::string text = MakeOverlayText();
    if (text == m_overlayText) {
        return;
    }
    if (text.empty()) {
        scene.SetOverlay(nullptr);
    } else {
        const Image image = RenderText(text, m_window.GetDotsPerInch());
        scene.SetOverlay(&image);
    }
    m_overlayText = text;
}

std::string ViewSession::MakeOverlayText() {
    const bool isOld = m_sinceStatistics.GetMilliseconds() > kStatisticsPeriod;
    if (m_viewer.ShowsStatistics() && (m_statisticsText.empty() || isOld)) {
        m_statisticsText = m_statistics.MakeText(GetSetting());
        m_sinceStatistics = {};
    }
    std::string text = m_notice;
    AppendParagraph(text, m_viewer.ShowsStatistics() ? m_statisticsText : std::string());
    AppendParagraph(text, m_viewer.ShowsHelp() ? GetViewerHelp() : std::string());
    return text;
}

void ViewSession::Draw(ScreenPixels* pixels) {
    if (!m_window.IsShown()) {
        return;
    }
    std::optional<FrameTimes> times;
    OnDevice([&](ViewerScene& scene) {
        FollowWindow(scene);
        UpdateOverlay(scene);
        if (m_clip != nullptr && m_frameInScene != m_clip->GetSerial()) {
            scene.SetFrame(m_clip->GetFrame(), GetColorSpace(m_clip->GetFrame()));
        }
        const Stopwatch stopwatch;
        if (const auto recording = scene.Draw(m_viewer.GetView(), pixels)) {
            times = {stopwatch.GetMilliseconds(), *recording,
                     scene.GetScreen().CountFramesInFlight()};
        }
    });
    if (times && m_clip != nullptr) {
        m_frameInScene = m_clip->GetSerial();
        m_clip->CountShown();
    }
    if (times && pixels == nullptr) {
        const bool isPlaying = m_clip != nullptr && m_clip->GetState().isPlaying;
        m_statistics.Add(*times, m_framesAskedFor.has_value() || isPlaying);
    } else if (times) {
        m_statistics.AddUntimed(); // reading takes most of it
    }
}

ViewStatistics::Setting ViewSession::GetSetting() const {
    const Screen& screen = m_scene->GetScreen();
    return {m_scene->GetGraphics(), GetFormatName(screen.GetFormat()), screen.IsHDR(),
            screen.GetSDRWhite(),
            m_clip != nullptr ? std::optional(m_clip->GetState()) : std::nullopt};
}

} // namespace Norvex::App
