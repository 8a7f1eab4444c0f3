// The viewer without its window and without a device.

#include <atomic>
#include <cmath>
#include <set>

#include <gmock/gmock.h>

#include "apps/norvexdx/graphics/Graphics.h"
#include "apps/norvexdx/pictures/ImageFile.h"
#include "apps/norvexdx/viewer/Album.h"
#include "apps/norvexdx/viewer/Screenshot.h"
#include "apps/norvexdx/viewer/TextOverlay.h"
#include "apps/norvexdx/viewer/ViewSession.h"
#include "tests/apps/Pictures.h"
#include "tests/support/ColorReference.h"

namespace Norvex::Test {

namespace {

using namespace App;
using DX::RenderFitMode;

constexpr DX::Size2DT<long> kPicture = {400, 300};
constexpr DX::Size2DT<long> kWindow = {640, 360};

Viewer MakeViewer() {
    Viewer viewer(3);
    viewer.SetPictureSize(kPicture);
    viewer.SetWindowSize(kWindow);
    return viewer;
}

// Where a point of the picture lies in the window.
std::array<float, 2> Locate(const Viewer& viewer, float x, float y) {
    return Test::Locate(viewer.GetView(), kPicture, kWindow, x, y);
}

void ExpectPoint(const std::array<float, 2>& expected, const std::array<float, 2>& actual) {
    EXPECT_NEAR(expected[0], actual[0], 0.01F);
    EXPECT_NEAR(expected[1], actual[1], 0.01F);
}

TEST(ViewerLogicTest, ZoomKeepsThePointUnderThePointer) {
    for (const Action turn : {Action::First, Action::TurnRight, Action::TiltLeft}) {
        for (const float steps : {1.0F, -1.0F, 3.5F, -0.25F}) {
            Viewer viewer = MakeViewer();
            viewer.Apply(turn);
            viewer.MoveBy(-20.0F, 35.0F);
            const auto point = Locate(viewer, 0.3F, -0.7F);
            const float before = PlacePicture(viewer.GetView(), kPicture, kWindow).scale;
            viewer.ZoomAbout(point, steps);
            ExpectPoint(point, Locate(viewer, 0.3F, -0.7F));
            EXPECT_FLOAT_EQ(*viewer.GetView().scale, before * std::pow(1.25F, steps));
            const auto other = Locate(viewer, 1.0F, 1.0F);
            viewer.ZoomAbout({7.0F, 300.0F}, 2.0F);
            viewer.ZoomAbout({7.0F, 300.0F}, -2.0F); // there and back
            ExpectPoint(other, Locate(viewer, 1.0F, 1.0F));
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
    constexpr std::pair<Action, std::size_t> kSteps[] = {
        {Action::Previous, 0}, {Action::Next, 1}, {Action::Next, 2},     {Action::Next, 2},
        {Action::First, 0},    {Action::Last, 2}, {Action::Previous, 1},
    };
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
    for (const int second : {0, 6, 11, 15}) {
        const auto time = LossLimit::Clock::time_point() + std::chrono::seconds(second);
        EXPECT_EQ(limit.Add(time), second == 15) << second;
    }
}

TEST(ViewerLogicTest, CountsHalvingsUntilHalfIsEnough) {
    EXPECT_EQ(Graphics::CountHalvings({1000, 10}, 0.5F), 0U);
    EXPECT_EQ(Graphics::CountHalvings({1000, 10}, 0.49F), 1U);
    EXPECT_EQ(Graphics::CountHalvings({1000, 10}, 0.1F), 3U);
    EXPECT_EQ(Graphics::CountHalvings({3, 1}, 1e-6F), 2U) << "one pixel is not halved";
}

TEST(ViewerLogicTest, DecodesTheSelectedPictureAndItsNeighbours) {
    const TemporaryFolder folder;
    const auto files = folder.Split("@1.png @2.png @3.png @4.png @missing.png");
    for (unsigned width = 1; width <= 4; ++width) {
        WriteImage(folder.GetPath(std::to_string(width) + ".png"), MakePlain(width, 1, {}));
    }
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
    // Grey of 203 cd/m2; red of 80; less than nothing.
    constexpr double kWhite = 203.0 / 80.0;
    const Pixels colors = {3, 1, {{kWhite, kWhite, kWhite, 1}, {1, 0, 0, 1}, {-1, -1, -1, 1}}};
    constexpr auto kScRGB = DXGI_FORMAT_R16G16B16A16_FLOAT;
    const Image shot = MakeScreenshot({{3, 1}, kScRGB, EncodePixels(colors, kScRGB)});
    EXPECT_EQ(shot.colorSpace, (Conf::RGBColorSpace{Conf::ColorPrimaries::BT2020,
                                                    Conf::TransferCharacteristics::PQ}));
    // SMPTE ST 2084 of 203 cd/m2 is 0.580688881.
    EXPECT_NEAR(GetSample(shot, 0, 0, 1), 38055, 8);
    EXPECT_EQ(GetSample(shot, 0, 0, 3), 65535U);
    EXPECT_EQ(GetSample(shot, 2, 0, 0), 0U);
    // As the conversion of sRGB red to PQ has it with that reference white.
    Proc::ColorAlphaConversionInfo info;
    info.target = *shot.colorSpace;
    info.referenceWhite = 80.0F;
    const Pixel red = ReferenceConvert({1.0, 0.0, 0.0, 1.0}, info);
    for (std::size_t channel = 0; channel < 3; ++channel) {
        EXPECT_NEAR(GetSample(shot, 1, 0, channel), red[channel] * 65535.0, 40.0);
    }

    // 1023, 512, 0 and 3, from the low bits on.
    const Image deep =
        MakeScreenshot({{1, 1}, DXGI_FORMAT_R10G10B10A2_UNORM, {0xFF, 0x03, 0x08, 0xC0}});
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
