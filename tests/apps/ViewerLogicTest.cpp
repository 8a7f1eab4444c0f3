// The viewer without its window and without a device.

#include <cmath>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "apps/norvexdx/pictures/ImageFile.h"
#include "apps/norvexdx/viewer/Album.h"
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

} // namespace

} // namespace Norvex::Test
