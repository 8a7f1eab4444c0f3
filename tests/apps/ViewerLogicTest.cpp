// The viewer without its window and without a device.

#include <chrono>
#include <cmath>
#include <thread>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "apps/norvexdx/pictures/ImageFile.h"
#include "apps/norvexdx/viewer/Album.h"
#include "apps/norvexdx/viewer/ClipPlayer.h"
#include "apps/norvexdx/viewer/ViewSession.h"
#include "tests/apps/Expectations.h"

namespace Norvex::Test {

namespace {

using namespace App;

// The picture's number, fit mode, degrees and quarters of pixels.
std::string Describe(const Viewer& viewer) {
    constexpr const char* kFits[] = {"free", "fill", "fit"};
    const View view = viewer.GetView();
    const auto quarters = [&](std::size_t i) { return std::lround(view.translation[i] * 4.0F); };
    return fmt::format("{} {} {:g} at {},{}", viewer.GetIndex(),
                       kFits[static_cast<std::size_t>(view.fit)], view.rotationDegrees, quarters(0),
                       quarters(1));
}

TEST(ViewerLogicTest, ActionsDoWhatTheirKeysSay) {
    Viewer viewer(3);
    viewer.SetPictureSize({400, 300});
    viewer.SetWindowSize({640, 360});
    const auto expect = [&](Action action, const char* state) {
        viewer.Apply(action);
        EXPECT_EQ(Describe(viewer), state);
    };
    for (const char* state : {"0 fill 0 at 0,0", "0 free 0 at 0,0", "0 fit 0 at 0,0"}) {
        viewer.ZoomAbout({1.0F, 2.0F}, 1.0F);
        expect(Action::ChangeFit, state);
    }
    expect(Action::TurnRight, "0 fit 270 at 0,0");
    expect(Action::TurnLeft, "0 fit 0 at 0,0");
    viewer.MoveBy(40.0F, 0.0F);
    expect(Action::TurnLeft, "0 fit 90 at 0,-160"); // what is in the middle stays there
    expect(Action::Next, "1 fit 0 at 0,0");
    expect(Action::First, "0 fit 0 at 0,0");
    expect(Action::Previous, "0 fit 0 at 0,0");
    expect(Action::Last, "2 fit 0 at 0,0");
    expect(Action::Next, "2 fit 0 at 0,0");
    expect(Action::ChangeFit, "2 fill 0 at 0,0");
    expect(Action::TurnLeft, "2 fill 90 at 0,0");
    expect(Action::Previous, "1 fill 0 at 0,0"); // only the mode is kept
    viewer.MoveBy(1.0F, 1.0F);
    expect(Action::ResetView, "1 fit 0 at 0,0");

    // At one to one, pixels lie on pixels.
    viewer.SetPictureSize({101, 60});
    viewer.SetWindowSize({640, 361});
    viewer.Apply(Action::ChangeFit);
    expect(Action::ChangeFit, "1 free 0 at 2,2");
    expect(Action::TurnLeft, "1 free 90 at 0,0");
    viewer.MoveBy(0.25F, 0.0F);
    EXPECT_EQ(Describe(viewer), "1 free 90 at 0,0");
    expect(Action::TiltLeft, "1 free 91 at 1,0"); // there are none to lie on
    for (const auto& [steps, scale] : {std::pair(100.0F, 64.0F), {-200.0F, 1.0F / 64.0F}}) {
        viewer.ZoomAbout({0.0F, 0.0F}, steps);
        EXPECT_EQ(viewer.GetView().scale, scale);
    }
    EXPECT_EQ(FindAction({'R', true, false}), Action::TurnLeft);
    EXPECT_EQ(FindAction({'R', false, true}), std::nullopt);
}

TEST(ViewerLogicTest, GivesUpAtTheThirdLossWithinTenSeconds) {
    LossLimit limit;
    for (const int second : {0, 6, 11, 15}) {
        const auto time = LossLimit::Clock::time_point() + std::chrono::seconds(second);
        EXPECT_EQ(limit.Add(time), second == 15) << second;
    }
}

TEST(ViewerLogicTest, DecodesTheSelectedPictureAndItsNeighbours) {
    const TemporaryFolder folder;
    for (const char* name : {"1.png", "2.png", "3.png"}) {
        WriteImage(folder.GetPath(name), MakePlain(static_cast<unsigned>(*name - '0'), 1, {}));
    }
    Album album(folder.Split("@1.png @2.png @3.png @missing.png"), [] {});
    for (const std::size_t index : {1U, 2U, 0U}) {
        EXPECT_EQ(album.Get(index).image.width, index + 1);
    }
    album.Select(2);
    EXPECT_EQ(album.Find(0), nullptr) << "forgotten";
    EXPECT_THAT(album.Get(3).failure, testing::HasSubstr("missing.png"));
}

// Ten frames, each with its number for a pixel.
class NumberedSource : public FrameSource {
public:
    explicit NumberedSource(bool isFile) : m_isFile(isFile) {
        if (isFile) {
            m_count = kCount;
        }
    }

    bool Read(ClipFrame& frame) override {
        static_cast<Image&>(frame) = MakePlain(1, 1, {static_cast<unsigned>(m_next), 0, 0, 255});
        return m_next++ < kCount;
    }
    bool CanSeek() const override { return m_isFile; }
    std::uint64_t Seek(std::uint64_t frame) override {
        return m_next = std::min<std::uint64_t>(frame, kCount - 1);
    }

    static constexpr std::uint64_t kCount = 10;

private:
    bool m_isFile;
    std::uint64_t m_next = 0;
};

class ClipPlayerTest : public testing::Test {
protected:
    static std::unique_ptr<ClipPlayer> Play(bool isFile, bool isLoop = false) {
        auto player = std::make_unique<ClipPlayer>(std::make_unique<NumberedSource>(isFile), "clip",
                                                   ClipSetting{{4, 1}, isLoop}, [] {});
        player->CountShown();
        return player;
    }
    // Has the player reach this frame at that time, in seconds, as soon as it is read, and be seen.
    static void Expect(ClipPlayer& player, double seconds, unsigned frame) {
        using namespace std::chrono;
        const auto now = ClipPlayer::Clock::time_point() +
                         duration_cast<ClipPlayer::Clock::duration>(duration<double>(seconds));
        const auto end = steady_clock::now() + std::chrono::seconds(5);
        while (player.GetFrame().pixels[0] != frame && steady_clock::now() < end) {
            player.Advance(now);
            std::this_thread::sleep_for(milliseconds(1));
        }
        player.Advance(now);
        player.CountShown();
        EXPECT_EQ(player.GetFrame().pixels[0], frame) << "after " << seconds << " s";
        EXPECT_EQ(player.GetState().frame, frame + 1);
    }
};

TEST_F(ClipPlayerTest, AFrameIsSeenAtItsTimeOrGivesWayToTheNext) {
    const auto player = Play(true);
    Expect(*player, 0.0, 0);
    Expect(*player, 0.2499, 0);
    Expect(*player, 0.25, 1);
    Expect(*player, 1.3, 5);
    EXPECT_EQ(player->GetState().shown, 3U);
    EXPECT_EQ(player->GetState().dropped, 3U);
    const auto next = player->GetNextTime({});
    ASSERT_TRUE(next);
    EXPECT_EQ(next->time_since_epoch(), std::chrono::milliseconds(1500));
    player->Apply(ClipAction::TogglePlaying);
    Expect(*player, 60.0, 5);
    EXPECT_EQ(player->GetNextTime({}), std::nullopt);
    player->Apply(ClipAction::TogglePlaying);
    Expect(*player, 70.0, 5); // paused time does not count
    Expect(*player, 70.25, 6);
    player->Rest();
    Expect(*player, 90.0, 6);
    player->CountUnseen();
    Expect(*player, 200.0, 9);
    EXPECT_EQ(player->GetState().dropped, 3U);
    EXPECT_FALSE(player->GetState().isPlaying); // it stays
    player->Apply(ClipAction::TogglePlaying);
    Expect(*player, 300.0, 0);
    Expect(*player, 300.25, 1);
}

TEST_F(ClipPlayerTest, KeysGoWhereTheySayAndAStreamHasNoWayBack) {
    for (const bool isFile : {true, false}) {
        SCOPED_TRACE(isFile);
        const auto player = Play(isFile);
        const auto expect = [&](ClipAction action, unsigned ofFile, unsigned ofStream) {
            const std::string refusal = player->Apply(action);
            Expect(*player, 0.0, isFile ? ofFile : ofStream);
            return !refusal.empty();
        };
        EXPECT_FALSE(expect(ClipAction::StepForward, 1, 1));
        EXPECT_FALSE(expect(ClipAction::JumpForward, 5, 5));
        EXPECT_EQ(expect(ClipAction::StepBack, 4, 5), !isFile);
        EXPECT_EQ(expect(ClipAction::JumpBack, 0, 5), !isFile);
        EXPECT_EQ(expect(ClipAction::Last, 9, 5), !isFile);
        EXPECT_FALSE(expect(ClipAction::JumpFarForward, 9, 9));
        EXPECT_FALSE(expect(ClipAction::StepForward, 9, 9));
        EXPECT_EQ(expect(ClipAction::First, 0, 9), !isFile);
        EXPECT_EQ(player->GetState().dropped, 0U);
        EXPECT_FALSE(player->GetState().isPlaying);
    }
    const auto player = Play(true, true);
    Expect(*player, 0.0, 0);
    Expect(*player, 2.25, 9);
    Expect(*player, 2.5, 0); // from now on
    Expect(*player, 2.75, 1);
}

} // namespace

} // namespace Norvex::Test
