// The viewer as a user has it: a process, its window, and what the screen shows of it.

#include <chrono>
#include <cmath>
#include <random>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "apps/norvexdx/ImageFile.h"
#include "apps/norvexdx/InputFile.h"
#include "tests/apps/ViewerProgram.h"

namespace Norvex::Test {

namespace {

using namespace App;
using nlohmann::json;
using testing::HasSubstr;
using RGB = std::array<int, 3>;
using Point = std::array<long, 2>;

constexpr DX::Size2DT<long> kPicture = {320, 200};
constexpr int kBackground = 0x20;
constexpr RGB kDark = {kBackground, kBackground, kBackground};

// Straight alpha, in the order of reading. The last one lets the background through.
constexpr std::array<std::array<std::uint8_t, 4>, 4> kQuadrants = {
    {{255, 0, 0, 255}, {0, 255, 0, 255}, {16, 32, 240, 255}, {200, 100, 50, 128}}};

Image MakeQuadrants() {
    Image image = MakePlain(kPicture.width, kPicture.height, {});
    for (std::size_t i = 0; i < image.pixels.size(); ++i) {
        const std::size_t x = i / 4 % image.width;
        const std::size_t y = i / 4 / image.width;
        image.pixels[i] =
            kQuadrants[(y >= image.height / 2 ? 2U : 0U) + (x >= image.width / 2 ? 1U : 0U)][i % 4];
    }
    return image;
}

RGB GetShownColor(std::size_t quadrant) {
    const auto& color = kQuadrants[quadrant];
    RGB result{};
    for (std::size_t i = 0; i < result.size(); ++i) {
        result[i] = static_cast<int>(
            std::lround((color[i] * color[3] + kBackground * (255 - color[3])) / 255.0));
    }
    return result;
}

std::string DescribePixel(const Image& image, const Point& at, const RGB& expected) {
    const auto seen = [&](std::size_t channel) {
        return static_cast<int>(GetSample(image, static_cast<std::size_t>(at[0]),
                                          static_cast<std::size_t>(at[1]), channel));
    };
    for (std::size_t i = 0; i < expected.size(); ++i) {
        if (std::abs(seen(i) - expected[i]) > 1) {
            return fmt::format("({}, {}) is {} {} {} instead of {} {} {}", at[0], at[1], seen(0),
                               seen(1), seen(2), expected[0], expected[1], expected[2]);
        }
    }
    return {};
}

// How the quadrants lie on the window.
struct Shown {
    double scale = 0.0;   // 0: the largest with which all of the picture is seen
    int quarterTurns = 0; // to the right
    Point moved = {0, 0};
};

// Close to the picture's four corners, as far as the window shows them, and beside the picture.
std::string DescribeQuadrants(const Image& image, const Shown& shown) {
    constexpr double kInside = 0.47; // of the way from the middle to both corners
    constexpr std::array<std::size_t, 4> kAround = {0, 1, 3, 2}; // to the right
    constexpr std::array<Point, 4> kSides = {{{-1, -1}, {1, -1}, {1, 1}, {-1, 1}}};
    const Point window = {static_cast<long>(image.width), static_cast<long>(image.height)};
    std::array<double, 2> picture = {kPicture.width, kPicture.height};
    if (shown.quarterTurns % 2 != 0) {
        std::swap(picture[0], picture[1]);
    }
    const double fitting = std::min(image.width / picture[0], image.height / picture[1]);
    const double scale = shown.scale > 0.0 ? shown.scale : fitting;
    std::array<double, 2> middle{};
    for (std::size_t axis = 0; axis < 2; ++axis) {
        middle[axis] =
            static_cast<double>(window[axis]) / 2.0 + static_cast<double>(shown.moved[axis]);
    }
    for (std::size_t i = 0; i < kSides.size(); ++i) {
        Point at{};
        for (std::size_t axis = 0; axis < 2; ++axis) {
            const double offset =
                static_cast<double>(kSides[i][axis]) * kInside * picture[axis] * scale;
            at[axis] = std::clamp(std::lround(middle[axis] + offset), 1L, window[axis] - 2);
        }
        const std::size_t quadrant =
            kAround[(i + 4 - static_cast<std::size_t>(shown.quarterTurns) % 4) % 4];
        std::string difference = DescribePixel(image, at, GetShownColor(quadrant));
        if (!difference.empty()) {
            return difference;
        }
    }
    for (std::size_t axis = 0; axis < 2; ++axis) {
        const long edge = std::lround(middle[axis] - picture[axis] * scale / 2.0);
        Point at = {window[0] / 2, window[1] / 2};
        at[axis] = edge - 2;
        std::string difference = edge > 2 ? DescribePixel(image, at, kDark) : std::string();
        if (!difference.empty()) {
            return difference;
        }
    }
    return {};
}

// Of pictures that differ from what was expected.
std::filesystem::path GetScreenshotFolder() {
    const std::filesystem::path folder = PathFromUtf8(NORVEX_SOURCE_DIR "/out");
    std::filesystem::create_directories(folder);
    return folder;
}

class ViewerTest : public testing::TestWithParam<const char*> {
protected:
    ViewerTest() {
        WriteImage(m_folder.GetPath("quadrants.png"), MakeQuadrants());
        WriteImage(m_folder.GetPath("plain.png"), MakePlain(64, 64, {12, 140, 200, 255}));
    }

    std::vector<std::string> MakeArguments(const std::vector<std::string>& options) const {
        std::vector<std::string> arguments = {m_folder.GetText("quadrants.png"),
                                              m_folder.GetText("plain.png"),
                                              "--api",
                                              GetParam(),
                                              "--size",
                                              "320x200"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return arguments;
    }

    // Looks at the screen until it is as described; after some seconds that is a failure, and the
    // picture is kept.
    template <class Describe>
    void Expect(const ViewerProgram& viewer, const char* when, const Describe& describe) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        Image image;
        std::string difference;
        do {
            image = viewer.ReadScreen();
            difference = describe(image);
        } while (!difference.empty() && std::chrono::steady_clock::now() < end);
        EXPECT_EQ(difference, "") << when;
        if (!difference.empty()) {
            WriteImage(GetScreenshotFolder() / fmt::format("viewer {} {}.png", GetParam(), when),
                       image);
        }
    }
    void ExpectQuadrants(const ViewerProgram& viewer, const char* when, const Shown& shown = {}) {
        Expect(viewer, when, [&](const Image& image) { return DescribeQuadrants(image, shown); });
    }
    void ExpectPlain(const ViewerProgram& viewer, const char* when) {
        Expect(viewer, when,
               [](const Image& image) { return DescribePixel(image, {320, 240}, {12, 140, 200}); });
    }

    TemporaryFolder m_folder;
};

INSTANTIATE_TEST_SUITE_P(Api, ViewerTest, testing::Values("d3d11", "d3d12"),
                         [](const auto& api) { return std::string(api.param); });

TEST_P(ViewerTest, ShowsThePictureWhateverTheWindowDoes) {
    ViewerProgram viewer(MakeArguments({}));
    EXPECT_EQ(viewer.GetClientSize(), kPicture);
    ExpectQuadrants(viewer, "at first");
    for (const DX::Size2DT<long>& size : {DX::Size2DT<long>{501, 333}, {900, 250}, {150, 400}}) {
        viewer.Resize(size);
        ExpectQuadrants(viewer, "resized");
    }
    viewer.MoveTo(200, 150);
    ExpectQuadrants(viewer, "moved");
    viewer.Show(SW_MINIMIZE);
    viewer.Show(SW_RESTORE);
    ExpectQuadrants(viewer, "restored");

    viewer.Press(VK_F11);
    const DX::Size2DT<long> screen = {GetSystemMetrics(SM_CXSCREEN), GetSystemMetrics(SM_CYSCREEN)};
    Expect(viewer, "in full screen", [&](const Image& image) {
        return viewer.GetClientSize() == screen ? DescribeQuadrants(image, {}) : "smaller";
    });
    viewer.Press(VK_F11);
    Expect(viewer, "back from full screen", [&](const Image& image) {
        return viewer.GetClientSize().width == 150 ? DescribeQuadrants(image, {}) : "larger";
    });
    const ProcessResult result = viewer.Close();
    EXPECT_EQ(result.exitCode, 0U);
    EXPECT_EQ(result.out + result.err, "");
}

TEST_P(ViewerTest, DoesWhatTheUserAsksFor) {
    ViewerProgram viewer(MakeArguments({}));
    viewer.Resize({640, 480});
    ExpectQuadrants(viewer, "at first");
    viewer.Press('R');
    ExpectQuadrants(viewer, "turned", {.quarterTurns = 1});
    viewer.Press('R');
    viewer.Press('R');
    ExpectQuadrants(viewer, "turned thrice", {.quarterTurns = 3});
    viewer.Press('0');
    ExpectQuadrants(viewer, "reset");
    viewer.Press('F');
    ExpectQuadrants(viewer, "filled", {.scale = 2.4});
    viewer.Press('F');
    ExpectQuadrants(viewer, "one to one", {.scale = 1.0});
    viewer.Drag({300, 200}, {330, 160});
    ExpectQuadrants(viewer, "dragged", {.scale = 1.0, .moved = {30, -40}});
    // About a corner of the window, from which the picture's middle moves away.
    viewer.Wheel({0, 0}, 1);
    ExpectQuadrants(viewer, "zoomed", {.scale = 1.25, .moved = {118, 10}});
    viewer.Wheel({0, 0}, -1);
    viewer.Press(VK_RIGHT);
    ExpectPlain(viewer, "the next picture");
    viewer.Press(VK_RIGHT);
    viewer.Press(VK_LEFT);
    ExpectQuadrants(viewer, "the picture before", {.scale = 1.0});

    viewer.Press('0');
    ExpectQuadrants(viewer, "before the help");
    viewer.Press('F'); // filled: the corner is red
    viewer.Press('H');
    // Its margin, without text, lets 95 of 255 parts through.
    Expect(viewer, "with help",
           [](const Image& image) { return DescribePixel(image, {3, 3}, {95, 0, 0}); });
    viewer.Press('H');
    Expect(viewer, "without help",
           [](const Image& image) { return DescribePixel(image, {3, 3}, {255, 0, 0}); });
    const ProcessResult result = viewer.Close();
    EXPECT_EQ(result.exitCode, 0U);
    EXPECT_EQ(result.err, "");
}

TEST_P(ViewerTest, RestsWhileNothingChanges) {
    ViewerProgram viewer(MakeArguments({"--json", "--stats"}));
    Sleep(1500);
    for (const bool isMinimised : {false, true}) {
        if (isMinimised) {
            viewer.Show(SW_MINIMIZE);
            Sleep(500);
        }
        const double before = viewer.GetUsage().processorMs;
        Sleep(1000);
        EXPECT_LT(viewer.GetUsage().processorMs - before, 50.0) << isMinimised;
    }
    const ProcessResult result = viewer.Close();
    EXPECT_EQ(result.err, "");
    EXPECT_LE(json::parse(result.out).at("redraws"), 8);
}

TEST_P(ViewerTest, TwoHundredRandomActionsLeaveNothingBehind) {
    ViewerProgram viewer(MakeArguments({}));
    std::mt19937 random(4711);
    const auto below = [&](unsigned end) { return static_cast<long>(random() % end); };
    const auto act = [&](unsigned kind) {
        constexpr unsigned kKeys[] = {'R',    'F',      'D',     'S',      'H',    '0',     VK_HOME,
                                      VK_END, VK_RIGHT, VK_LEFT, VK_SPACE, VK_F11, VK_PRIOR};
        switch (kind) {
        case 0:
            return viewer.Resize({120 + below(500), 40 + below(400)});
        case 1:
            return viewer.MoveTo(below(500), below(400));
        case 2:
            viewer.Show(SW_MINIMIZE);
            return viewer.Show(SW_RESTORE);
        case 3:
        case 4:
            return viewer.Wheel({below(300), below(200)}, below(2) != 0 ? 1 : -1);
        case 5:
            return viewer.Drag({below(300), below(200)}, {below(300), below(200)});
        default:
            return viewer.Press(kKeys[random() % std::size(kKeys)]);
        }
    };
    std::array<ViewerProgram::Usage, 2> usage;
    for (ViewerProgram::Usage& atEnd : usage) {
        for (int i = 0; i < 100; ++i) {
            act(random() % 12);
            ASSERT_TRUE(viewer.IsRunning()) << "action " << i;
        }
        // As at first: what a state needs more of is no leak.
        viewer.Show(SW_RESTORE);
        viewer.Resize(kPicture);
        Sleep(1000);
        atEnd = viewer.GetUsage();
    }
    EXPECT_LE(usage[1].memoryMiB, usage[0].memoryMiB + 16.0);
    EXPECT_GT(usage[0].handles, 0);
    EXPECT_LE(usage[1].handles, usage[0].handles + 8);
    RecordProperty("memoryMiB",
                   fmt::format("{:.1f} {:.1f}", usage[0].memoryMiB, usage[1].memoryMiB));
    RecordProperty("handles", fmt::format("{} {}", usage[0].handles, usage[1].handles));
    const ProcessResult result = viewer.Close();
    EXPECT_EQ(result.exitCode, 0U);
    EXPECT_EQ(result.err, "");
}

TEST_P(ViewerTest, SavesAndReportsWhatItShowedUnattended) {
    const auto show = [&](std::vector<std::string> arguments) {
        arguments = MakeArguments(arguments);
        arguments.insert(arguments.begin(), "view");
        const ProcessResult result = RunProgram(arguments);
        EXPECT_EQ(result.exitCode, 0U) << result.err;
        EXPECT_EQ(result.err, "");
        return result.out;
    };
    const std::string file = m_folder.GetText("shot.png");
    const json report = json::parse(show({"--frames", "20", "--screenshot", file, "--json"}));
    const Image shot = ReadImage(m_folder.GetPath("shot.png"));
    EXPECT_EQ(shot.bitsPerChannel, 8U);
    EXPECT_EQ(DescribeQuadrants(shot, {}), "");
    EXPECT_EQ(report.at("frames"), 20);
    EXPECT_EQ(report.at("api"), GetParam());
    EXPECT_NE(report.at("adapter"), "");
    EXPECT_EQ(report.at("hdr"), false);
    EXPECT_EQ(report.at("format"), "R8G8B8A8_UNORM");
    EXPECT_GT(report.at("frameTimeMs").at("median"), 0.0);
    EXPECT_GE(report.at("frameTimeMs").at("p95"), report.at("frameTimeMs").at("median"));
    EXPECT_GT(report.at("recordingMs").at("median"), 0.0);
    EXPECT_GT(report.at("presentIntervalMs").at("median"), 0.0);
    EXPECT_GE(report.at("redraws"), 20);
    EXPECT_GE(report.at("peakFramesInFlight"), 1);
    EXPECT_LE(report.at("peakFramesInFlight"), 3);
    EXPECT_EQ(report.at("deviceLosses"), 0);
    EXPECT_EQ(report.at("idlePools").is_null(), std::string_view(GetParam()) == "d3d11");
    EXPECT_THAT(show({"--frames", "2"}), HasSubstr("frame "));

    // Fine stripes become grey, in every frame.
    Image stripes = MakePlain(1024, 1024, {0, 0, 0, 255});
    for (std::size_t i = 0; i < stripes.pixels.size(); i += 8) {
        std::fill_n(stripes.pixels.begin() + static_cast<std::ptrdiff_t>(i), 3, std::uint8_t{255});
    }
    WriteImage(m_folder.GetPath("quadrants.png"), stripes);
    for (const char* frames : {"1", "3"}) {
        show({"--frames", frames, "--screenshot", file});
        EXPECT_NEAR(GetSample(ReadImage(m_folder.GetPath("shot.png")), 160, 100, 0), 128, 6);
    }
}

TEST_P(ViewerTest, GoesOnWithoutThePicturesThatCannotBeRead) {
    WriteBytes(m_folder.GetPath("text.png"), std::vector<std::uint8_t>(100, 'a'));
    const std::string text = m_folder.GetText("text.png");
    const std::string missing = m_folder.GetText("missing.png");
    ViewerProgram viewer({missing, m_folder.GetText("quadrants.png"), text, "--api", GetParam(),
                          "--size", "320x200"});
    ExpectQuadrants(viewer, "the first that can be read");
    viewer.Press(VK_END);
    Expect(viewer, "one that cannot be read",
           [](const Image& image) { return DescribePixel(image, {160, 199}, kDark); });
    viewer.Press(VK_LEFT);
    ExpectQuadrants(viewer, "again");
    const ProcessResult result = viewer.Close();
    EXPECT_EQ(result.exitCode, 0U);
    EXPECT_THAT(result.err, testing::AllOf(testing::StartsWith("norvexdx: there is no file"),
                                           HasSubstr("text.png: not a picture")));
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 2) << result.err;

    const ProcessResult none = RunProgram({"view", missing, text, "--api", GetParam()});
    EXPECT_EQ(none.exitCode, 1U);
    EXPECT_THAT(none.err, testing::AllOf(HasSubstr("missing.png"), HasSubstr("not a picture")));
}

} // namespace

} // namespace Norvex::Test
