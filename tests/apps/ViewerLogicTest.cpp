// The viewer without its window and without a device.

#include <atomic>
#include <cmath>
#include <set>

#include <gmock/gmock.h>

#include "apps/norvexdx/Album.h"
#include "apps/norvexdx/Graphics.h"
#include "apps/norvexdx/ImageFile.h"
#include "apps/norvexdx/Screenshot.h"
#include "apps/norvexdx/TextOverlay.h"
#include "apps/norvexdx/ViewSession.h"
#include "tests/apps/Pictures.h"
#include "tests/support/ColorReference.h"

namespace Norvex::Test {

namespace {

using namespace App;
using DX::RenderFitMode;

Viewer MakeViewer(std::size_t pictures = 3) {
    Viewer viewer(pictures);
    viewer.SetPictureSize({400, 300});
    viewer.SetWindowSize({640, 360});
    return viewer;
}

// Where a point of the picture (-1 to 1, y up) lies in the window.
std::array<float, 2> Locate(const Viewer& viewer, float x, float y) {
    const auto rows = PlacePicture(viewer.GetView(), {400, 300}, {640, 360}).transform.rows;
    return {(x * rows[0][0] + y * rows[1][0]) * 320.0F + 320.0F + rows[3][0],
            180.0F - (x * rows[0][1] + y * rows[1][1]) * 180.0F - rows[3][1]};
}

TEST(ViewerLogicTest, ZoomKeepsThePointUnderThePointer) {
    for (const Action turn : {Action::First, Action::TurnRight, Action::TiltLeft}) {
        for (const float steps : {1.0F, -1.0F, 3.5F, -0.25F}) {
            Viewer viewer = MakeViewer();
            viewer.Apply(turn);
            viewer.MoveBy(-20.0F, 35.0F);
            const auto point = Locate(viewer, 0.3F, -0.7F);
            const float before = PlacePicture(viewer.GetView(), {400, 300}, {640, 360}).scale;
            viewer.ZoomAbout(point, steps);
            const auto after = Locate(viewer, 0.3F, -0.7F);
            EXPECT_NEAR(point[0], after[0], 0.01F);
            EXPECT_NEAR(point[1], after[1], 0.01F);
            EXPECT_FLOAT_EQ(*viewer.GetView().scale, before * std::pow(1.25F, steps));
            const auto other = Locate(viewer, 1.0F, 1.0F);
            viewer.ZoomAbout({7.0F, 300.0F}, 2.0F);
            viewer.ZoomAbout({7.0F, 300.0F}, -2.0F);
            EXPECT_NEAR(other[0], Locate(viewer, 1.0F, 1.0F)[0], 0.01F) << "there and back";
            EXPECT_NEAR(other[1], Locate(viewer, 1.0F, 1.0F)[1], 0.01F) << "there and back";
        }
    }
    Viewer viewer = MakeViewer();
    viewer.ZoomAbout({0.0F, 0.0F}, 100.0F);
    EXPECT_EQ(viewer.GetView().scale, Viewer::kMaxScale);
    viewer.ZoomAbout({0.0F, 0.0F}, -200.0F);
    EXPECT_EQ(viewer.GetView().scale, Viewer::kMinScale);
}

TEST(ViewerLogicTest, FitModesRotationAndResetGoRound) {
    Viewer viewer = MakeViewer();
    for (const auto fit : {RenderFitMode::Fill, RenderFitMode::Free, RenderFitMode::Fit}) {
        viewer.ZoomAbout({1.0F, 2.0F}, 1.0F);
        viewer.Apply(Action::ChangeFit);
        EXPECT_EQ(viewer.GetView().fit, fit);
        EXPECT_EQ(viewer.GetView().scale, std::nullopt) << "1:1 when free";
        EXPECT_EQ(viewer.GetView().translation, (std::array{0.0F, 0.0F}));
    }
    viewer.Apply(Action::TurnRight);
    EXPECT_EQ(viewer.GetView().rotationDegrees, 270.0F);
    for (const Action action : {Action::TurnLeft, Action::TiltLeft, Action::TiltRight}) {
        viewer.Apply(action);
    }
    EXPECT_EQ(viewer.GetView().rotationDegrees, 0.0F);

    // What is in the middle stays there.
    viewer.MoveBy(40.0F, 0.0F);
    viewer.Apply(Action::TurnLeft);
    EXPECT_NEAR(viewer.GetView().translation[0], 0.0F, 1e-4F);
    EXPECT_NEAR(viewer.GetView().translation[1], -40.0F, 1e-4F);
    viewer.Apply(Action::ResetView);
    EXPECT_EQ(viewer.GetView().rotationDegrees, 0.0F);
    EXPECT_EQ(viewer.GetView().translation, (std::array{0.0F, 0.0F}));
}

TEST(ViewerLogicTest, PixelsLieOnPixelsAtOneToOne) {
    Viewer viewer(1);
    viewer.SetPictureSize({101, 60});
    viewer.SetWindowSize({640, 361});
    viewer.Apply(Action::ChangeFit);
    viewer.Apply(Action::ChangeFit);
    EXPECT_EQ(viewer.GetView().translation, (std::array{0.5F, 0.5F}));
    viewer.Apply(Action::TurnLeft);
    EXPECT_EQ(viewer.GetView().translation, (std::array{0.0F, 0.0F}));
    viewer.Apply(Action::TiltLeft);
    viewer.MoveBy(0.25F, 0.0F);
    EXPECT_EQ(viewer.GetView().translation[0], 0.25F) << "no pixels to lie on";
}

TEST(ViewerLogicTest, NavigationEndsAtTheEnds) {
    Viewer viewer = MakeViewer();
    const struct {
        Action action;
        std::size_t index;
    } kSteps[] = {{Action::Previous, 0}, {Action::Next, 1}, {Action::Next, 2},    {Action::Next, 2},
                  {Action::First, 0},    {Action::Last, 2}, {Action::Previous, 1}};
    for (const auto& [action, index] : kSteps) {
        viewer.Apply(action);
        EXPECT_EQ(viewer.GetIndex(), index);
    }
    viewer.Apply(Action::ChangeFit);
    viewer.Apply(Action::TurnLeft);
    viewer.ZoomAbout({0.0F, 0.0F}, 3.0F);
    viewer.Apply(Action::Next);
    EXPECT_EQ(viewer.GetView().fit, RenderFitMode::Fill) << "the mode is kept";
    EXPECT_EQ(viewer.GetView().rotationDegrees, 0.0F);
    EXPECT_EQ(viewer.GetView().translation, (std::array{0.0F, 0.0F}));
}

TEST(ViewerLogicTest, EveryActionHasItsKeysAndItsHelp) {
    std::set<Action> actions;
    const std::string help = GetViewerHelp();
    for (const Binding& binding : GetBindings()) {
        EXPECT_TRUE(actions.insert(binding.action).second) << binding.help;
        ASSERT_NE(binding.keys[0].name, nullptr);
        EXPECT_THAT(help, testing::HasSubstr(binding.help));
        for (const NamedKey& key : binding.keys) {
            if (key.name != nullptr) {
                EXPECT_EQ(FindAction(key.key), binding.action) << key.name << " is taken";
                EXPECT_THAT(help, testing::HasSubstr(key.name));
            }
        }
    }
    EXPECT_EQ(actions.size(), kActionCount);
    EXPECT_EQ(FindAction({'R', true, false}), Action::TurnLeft);
    EXPECT_EQ(FindAction({'R', false, true}), std::nullopt);
    EXPECT_EQ(FindAction({}), std::nullopt);
}

TEST(ViewerLogicTest, GivesUpAtTheThirdLossWithinTenSeconds) {
    LossLimit limit;
    const LossLimit::Clock::time_point start;
    using std::chrono::seconds;
    EXPECT_FALSE(limit.Add(start));
    EXPECT_FALSE(limit.Add(start + seconds(6)));
    EXPECT_FALSE(limit.Add(start + seconds(11)));
    EXPECT_TRUE(limit.Add(start + seconds(15)));
}

TEST(ViewerLogicTest, CountsHalvingsUntilHalfIsEnough) {
    EXPECT_EQ(Graphics::CountHalvings({1000, 10}, 0.5F), 0U);
    EXPECT_EQ(Graphics::CountHalvings({1000, 10}, 0.49F), 1U);
    EXPECT_EQ(Graphics::CountHalvings({1000, 10}, 0.1F), 3U);
    EXPECT_EQ(Graphics::CountHalvings({3, 1}, 1e-6F), 2U) << "one pixel is not halved";
}

TEST(ViewerLogicTest, DecodesTheSelectedPictureAndItsNeighbours) {
    const TemporaryFolder folder;
    std::vector<std::string> files;
    for (const char* name : {"0.png", "1.png", "2.png", "3.png"}) {
        const auto width = static_cast<std::uint32_t>(files.size() + 1);
        WriteImage(folder.GetPath(name), MakePlain(width, 1, {}));
        files.push_back(folder.GetText(name));
    }
    files.push_back(folder.GetText("missing.png"));
    std::atomic<int> decoded{0};
    {
        Album album(files, [&] { ++decoded; });
        EXPECT_EQ(album.Get(1).image.width, 2U);
        EXPECT_EQ(album.Get(2).image.width, 3U) << "a neighbour";
        EXPECT_EQ(album.Get(0).image.width, 1U);
        album.Select(2);
        EXPECT_EQ(album.Find(0), nullptr) << "forgotten";
        EXPECT_EQ(album.Get(3).failure, "");
        EXPECT_THAT(album.Get(4).failure, testing::HasSubstr("missing.png"));
    }
    EXPECT_GE(decoded, 5);
}

TEST(ViewerLogicTest, ScreenshotsOfHDRArePQ) {
    // scRGB in half precision: 203 / 80 in grey; 1.0 in red; less than nothing.
    ScreenPixels scRGB = {{3, 1}, DXGI_FORMAT_R16G16B16A16_FLOAT, {}};
    for (const unsigned half : {0x4113U, 0x4113U, 0x4113U, 0x3C00U, 0x3C00U, 0U, 0U, 0x3C00U,
                                0xBC00U, 0xBC00U, 0xBC00U, 0x3C00U}) {
        scRGB.bytes.push_back(static_cast<std::uint8_t>(half & 0xFF));
        scRGB.bytes.push_back(static_cast<std::uint8_t>(half >> 8));
    }
    const Image shot = MakeScreenshot(scRGB);
    EXPECT_EQ(shot.colorSpace, (Conf::RGBColorSpace{Conf::ColorPrimaries::BT2020,
                                                    Conf::TransferCharacteristics::PQ}));
    // SMPTE ST 2084 of 203 cd/m2 is 0.580688881.
    EXPECT_NEAR(GetSample(shot, 0, 0, 1), 38055, 8);
    EXPECT_EQ(GetSample(shot, 0, 0, 3), 65535U);
    EXPECT_EQ(GetSample(shot, 2, 0, 0), 0U);
    // Red of 80 cd/m2, as the conversion of sRGB red to PQ has it with that reference white.
    Proc::ColorAlphaConversionInfo info;
    info.target = *shot.colorSpace;
    info.referenceWhite = 80.0F;
    const Pixel red = ReferenceConvert({1.0, 0.0, 0.0, 1.0}, info);
    for (std::size_t channel = 0; channel < 3; ++channel) {
        EXPECT_NEAR(GetSample(shot, 1, 0, channel), red[channel] * 65535.0, 40.0);
    }

    const std::uint32_t packed = 1023U | 512U << 10 | 3U << 30;
    ScreenPixels tenBits = {{1, 1}, DXGI_FORMAT_R10G10B10A2_UNORM, {}};
    for (unsigned shift = 0; shift < 32; shift += 8) {
        tenBits.bytes.push_back(static_cast<std::uint8_t>(packed >> shift & 0xFF));
    }
    const Image deep = MakeScreenshot(tenBits);
    EXPECT_EQ(deep.colorSpace, shot.colorSpace);
    EXPECT_EQ(GetSample(deep, 0, 0, 0), 65535U);
    EXPECT_NEAR(GetSample(deep, 0, 0, 1), 32800, 1); // 512 of 1023
    EXPECT_EQ(GetSample(deep, 0, 0, 2), 0U);
}

TEST(ViewerLogicTest, TextIsWhiteOnTranslucentBlack) {
    const Image one = RenderText("Hm", 96);
    const Image large = RenderText("Hm\n\xC3\xA4", 192);
    EXPECT_GT(large.width, one.width);
    EXPECT_GT(large.height, 2 * one.height);
    unsigned brightest = 0;
    for (std::size_t i = 0; i < one.pixels.size(); i += 4) {
        EXPECT_EQ(one.pixels[i], one.pixels[i + 2]);
        EXPECT_GE(one.pixels[i + 3], one.pixels[i]) << "premultiplied";
        brightest = std::max<unsigned>(brightest, one.pixels[i]);
    }
    EXPECT_GT(brightest, 200U);
    EXPECT_EQ(one.pixels[0], 0U);
    EXPECT_EQ(one.pixels[3], 160U);
}

} // namespace

} // namespace Norvex::Test
