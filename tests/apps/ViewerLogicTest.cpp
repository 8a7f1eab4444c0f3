// The viewer without its window and without a device.

#include <cmath>
#include <cstring>
#include <set>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "apps/norvexdx/pictures/ImageFile.h"
#include "apps/norvexdx/viewer/Album.h"
#include "apps/norvexdx/viewer/Screenshot.h"
#include "apps/norvexdx/viewer/ViewSession.h"
#include "tests/apps/Expectations.h"
#include "tests/support/ColorReference.h"

namespace Norvex::Test {

namespace {

using namespace App;
using testing::HasSubstr;
using Size = DX::Size2DT<long>;

constexpr Size kPicture = {400, 300};
constexpr Size kWindow = {640, 360};

Viewer MakeViewer(std::size_t count, const Size& picture, const Size& window) {
    Viewer viewer(count);
    viewer.SetPictureSize(picture);
    viewer.SetWindowSize(window);
    return viewer;
}

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
    Viewer viewer = MakeViewer(3, kPicture, kWindow);
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
    viewer = MakeViewer(1, {101, 60}, {640, 361});
    viewer.Apply(Action::ChangeFit);
    expect(Action::ChangeFit, "0 free 0 at 2,2");
    expect(Action::TurnLeft, "0 free 90 at 0,0");
    viewer.MoveBy(0.25F, 0.0F);
    EXPECT_EQ(Describe(viewer), "0 free 90 at 0,0");
}

TEST(ViewerLogicTest, ZoomKeepsThePointUnderThePointer) {
    Viewer viewer = MakeViewer(1, kPicture, kWindow);
    viewer.Apply(Action::TiltLeft);
    viewer.MoveBy(-20.0F, 35.0F);
    const auto locate = [&] { // one of its points, with y up from the middle
        const auto rows = PlacePicture(viewer.GetView(), kPicture, kWindow).transform.rows;
        return std::array{320.0F * (1.0F + 0.3F * rows[0][0] - 0.7F * rows[1][0]) + rows[3][0],
                          180.0F * (1.0F - 0.3F * rows[0][1] + 0.7F * rows[1][1]) - rows[3][1]};
    };
    const auto point = locate();
    const float before = PlacePicture(viewer.GetView(), kPicture, kWindow).scale;
    viewer.ZoomAbout(point, -3.5F);
    EXPECT_FLOAT_EQ(*viewer.GetView().scale, before * std::pow(1.25F, -3.5F));
    EXPECT_THAT(locate(), testing::Pointwise(testing::FloatNear(0.01F), point));
    for (const auto& [steps, scale] : {std::pair(100.0F, 64.0F), {-200.0F, 1.0F / 64.0F}}) {
        viewer.ZoomAbout({0.0F, 0.0F}, steps);
        EXPECT_EQ(viewer.GetView().scale, scale);
    }
}

TEST(ViewerLogicTest, EveryActionHasItsKeys) {
    std::set<Action> actions;
    for (const Binding& binding : GetBindings()) {
        actions.insert(binding.action);
        for (const NamedKey& key : binding.keys) {
            EXPECT_TRUE(key.name == nullptr || FindAction(key.key) == binding.action) << key.name;
        }
    }
    EXPECT_EQ(actions.size(), kActionCount);
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
    EXPECT_THAT(album.Get(3).failure, HasSubstr("missing.png"));
}

TEST(ViewerLogicTest, ScreenshotsOfHDRArePQ) {
    // Grey of 203 cd/m2; red of 80; less than nothing.
    constexpr std::array<std::uint16_t, 4> kHalfs[] = {
        {0x4113, 0x4113, 0x4113, 0x3C00}, {0x3C00, 0, 0, 0x3C00}, {0xBC00, 0xBC00, 0xBC00, 0x3C00}};
    ScreenPixels floats = {{3, 1}, DXGI_FORMAT_R16G16B16A16_FLOAT, Bytes(sizeof(kHalfs))};
    std::memcpy(floats.bytes.data(), kHalfs, sizeof(kHalfs));
    const Image shot = MakeScreenshot(floats);
    // SMPTE ST 2084 of 203 cd/m2 is 0.580688881.
    ExpectPixel(shot, 0, 0, {38055, 38055, 38055, 65535}, 8);
    ExpectPixel(shot, 2, 0, {0, 0, 0, 65535}, 0);
    // Rec. 709 red in the primaries of Rec. 2020, as ITU-R BT.2087 has it.
    const auto sample = [](double light) {
        return static_cast<unsigned>(65535.0 * PQFromLight(0.8 * light));
    };
    ExpectPixel(shot, 1, 0, {sample(0.6274), sample(0.0691), sample(0.0164), 65535}, 40);
    // 1023, 512, 0 and 3, from the low bits on.
    const Image deep =
        MakeScreenshot({{1, 1}, DXGI_FORMAT_R10G10B10A2_UNORM, {0xFF, 0x03, 0x08, 0xC0}});
    ExpectPixel(deep, 0, 0, {65535, 32800, 0, 65535});
}

} // namespace

} // namespace Norvex::Test
