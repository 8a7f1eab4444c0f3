// The viewer as a user has it: a process, its window, worked with messages, and what the screen
// shows of it.

#include <cmath>
#include <functional>
#include <random>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "tests/apps/Process.h"
#include "tests/support/TestWindow.h"

#include <psapi.h>

namespace Norvex::Test {

namespace {

using namespace App;
using Point = std::array<long, 2>;
using Size = DX::Size2DT<long>;

constexpr Samples kPlain = {12, 140, 200, 255};

class ViewerProgram {
public:
    // Returns when the window is shown.
    explicit ViewerProgram(const std::vector<std::string>& arguments) : m_program(arguments) {
        for (int i = 0; !FindShownWindow(); ++i) {
            if (m_program.HasEnded(10) || i == 3000) {
                throw std::runtime_error("the viewer shows no window");
            }
        }
    }

    // Looks at the screen until it shows that; after some seconds it is a failure.
    void Expect(long x, long y, const Samples& expected) const {
        const ULONGLONG end = GetTickCount64() + 5000;
        int difference = 0;
        do {
            const auto rgb = TestWindow::GetPixel(m_window, x, y);
            difference = 0;
            for (std::size_t i = 0; i < rgb.size(); ++i) {
                const int wanted = static_cast<int>(expected[i]);
                difference = std::max(difference, std::abs(rgb[i] - wanted));
            }
        } while (difference > 1 && GetTickCount64() < end);
        EXPECT_LE(difference, 1) << "at " << x << ", " << y;
    }

    // Keys and the mouse: each returns when the viewer answers messages, so that it has got this
    // one or gets it next.
    void Press(unsigned key) const { Post(WM_KEYDOWN, key, 0); } // VK_..., without modifiers
    void Wheel(const Point& point, int steps) const {
        POINT onScreen = {point[0], point[1]};
        ClientToScreen(m_window, &onScreen);
        const auto delta = static_cast<WORD>(static_cast<short>(steps * WHEEL_DELTA));
        Post(WM_MOUSEWHEEL, WPARAM{delta} << 16, MAKELPARAM(onScreen.x, onScreen.y));
    }
    void Drag(const Point& from, const Point& to) const {
        Post(WM_LBUTTONDOWN, MK_LBUTTON, MAKELPARAM(from[0], from[1]));
        Post(WM_MOUSEMOVE, MK_LBUTTON, MAKELPARAM(to[0], to[1]));
        Post(WM_LBUTTONUP, 0, MAKELPARAM(to[0], to[1]));
    }
    void Place(const Point& corner, const Size& clientSize) const {
        RECT outer = {};
        RECT client = {};
        GetWindowRect(m_window, &outer);
        GetClientRect(m_window, &client);
        SetWindowPos(m_window, nullptr, corner[0], corner[1],
                     outer.right - outer.left - client.right + clientSize.width,
                     outer.bottom - outer.top - client.bottom + clientSize.height, SWP_NOZORDER);
    }
    void Show(int command) const { ShowWindow(m_window, command); } // SW_...

    // With Esc. It must succeed.
    ProcessResult Close() const {
        PostMessageW(m_window, WM_KEYDOWN, VK_ESCAPE, 0);
        const ProcessResult result = m_program.Wait();
        EXPECT_EQ(result.exitCode, 0U);
        return result;
    }

    double GetProcessorMs() const {
        FILETIME times[4] = {};
        GetProcessTimes(m_program.GetHandle(), &times[0], &times[1], &times[2], &times[3]);
        return (times[2].dwLowDateTime + times[3].dwLowDateTime) / 1e4;
    }
    double GetMemoryMiB() const {
        PROCESS_MEMORY_COUNTERS memory = {};
        GetProcessMemoryInfo(m_program.GetHandle(), &memory, sizeof(memory));
        return static_cast<double>(memory.WorkingSetSize) / (1 << 20);
    }

private:
    // Not by FindWindowEx from one window to the next: Wine's server looks for ever when the one
    // goes meanwhile, and other tests have viewers too.
    bool FindShownWindow() {
        DWORD owner = 0;
        m_window = GetTopWindow(nullptr);
        while (m_window != nullptr && (GetWindowThreadProcessId(m_window, &owner) == 0 ||
                                       owner != m_program.GetId() || !IsWindowVisible(m_window))) {
            m_window = GetWindow(m_window, GW_HWNDNEXT);
        }
        return m_window != nullptr;
    }
    void Post(UINT message, WPARAM wparam, LPARAM lparam) const {
        PostMessageW(m_window, message, wparam, lparam);
        DWORD_PTR answer = 0;
        SendMessageTimeoutW(m_window, WM_NULL, 0, 0, SMTO_NORMAL, 30000, &answer);
    }

    StartedProgram m_program;
    HWND m_window = nullptr;
};

class ViewerTest : public ProgramTestOfBoth {
protected:
    ViewerTest() {
        Write("noise.png", MakeNoise(320, 200, 8, false));
        Write("plain.png", MakePlain(64, 64, kPlain));
    }

    static constexpr unsigned kLastGrey = 250;
    static unsigned GetGrey(unsigned frame) { return frame * 20 % 256; } // never kLastGrey

    // A Y4M file of frames without colour, each of another grey than its neighbours.
    void WriteGreys(const std::string& name, const char* rate, unsigned count,
                    unsigned side = 8) const {
        std::string clip =
            fmt::format("YUV4MPEG2 W{0} H{0} F{1} Cmono XCOLORRANGE=FULL\n", side, rate);
        for (unsigned i = 0; i < count; ++i) {
            const unsigned grey = i + 1 < count ? GetGrey(i) : kLastGrey;
            clip += "FRAME\n" + std::string(std::size_t{side} * side, static_cast<char>(grey));
        }
        WriteBytes(m_folder.GetPath(name), clip);
    }
    static nlohmann::json ReportOf(const ViewerProgram& viewer) {
        return nlohmann::json::parse(viewer.Close().out).at("clip");
    }

    ViewerProgram View(const std::string& files) const {
        return ViewerProgram(m_folder.Split("view --size 320x200 " + files + m_options));
    }
    // Expects in a window of this size what `convert` draws.
    void ExpectNoise(const ViewerProgram& viewer, const Size& size,
                     const std::string& options = {}) const {
        SCOPED_TRACE(options);
        Run(fmt::format("convert @noise.png @shown.png --background 202020 --size {}x{} {}",
                        size.width, size.height, options));
        const Image picture = Read("shown.png");
        for (std::size_t i = 0; i < 64 && !HasFailure(); ++i) {
            const std::size_t x = (i % 8 * 2 + 1) * picture.width / 16;
            const std::size_t y = (i / 8 * 2 + 1) * picture.height / 16;
            viewer.Expect(static_cast<long>(x), static_cast<long>(y), GetPixel(picture, x, y));
        }
    }
};

INSTANTIATE_TEST_SUITE_P(, ViewerTest, BothGenerations(), &NameOf);

TEST_P(ViewerTest, ShowsWhatTheUserAsksFor) {
    WriteBytes(m_folder.GetPath("text.png"), std::string(100, 'a'));
    const ViewerProgram viewer = View("@missing.png @noise.png @plain.png @text.png");
    ExpectNoise(viewer, {320, 200}); // the first that can be read
    constexpr Size kSize = {640, 480};
    viewer.Place({50, 30}, kSize);
    viewer.Show(SW_MINIMIZE);
    viewer.Show(SW_RESTORE);
    for (const Size& size :
         {Size{GetSystemMetrics(SM_CXSCREEN), GetSystemMetrics(SM_CYSCREEN)}, kSize}) {
        viewer.Press(VK_F11); // full screen, and back
        ExpectNoise(viewer, size);
    }
    viewer.Press('R');
    ExpectNoise(viewer, kSize, "--rotate 270");
    viewer.Press('0');
    viewer.Press('F');
    ExpectNoise(viewer, kSize, "--fit fill");
    viewer.Press('F');
    viewer.Drag({300, 200}, {330, 160});
    // About a corner of the window, from which the picture's middle moves away.
    viewer.Wheel({0, 0}, 1);
    ExpectNoise(viewer, kSize, "--scale 1.25 --translate 117.5,10");
    viewer.Wheel({0, 0}, -1);
    ExpectNoise(viewer, kSize, "--fit free --translate 30,-40");
    viewer.Press(VK_RIGHT);
    viewer.Expect(320, 240, kPlain);
    viewer.Press(VK_LEFT);
    ExpectNoise(viewer, kSize, "--fit free");

    viewer.Press('0');
    viewer.Press('F');
    viewer.Press(VK_RIGHT);
    viewer.Expect(3, 3, kPlain);
    viewer.Press('H');
    viewer.Expect(3, 3, {4, 52, 75, 255}); // the help's margin lets 95 of 255 parts through
    viewer.Press('H');
    viewer.Expect(3, 3, kPlain);
    viewer.Press(VK_END);
    viewer.Expect(320, 479, {0x20, 0x20, 0x20, 255});
    EXPECT_THAT(
        viewer.Close().err,
        testing::ContainsRegex("^norvexdx: there is no file .*\n.*text.png: not a picture"));
    Run("view @missing.png @text.png", {"missing.png", "not a picture"}, 1);
}

TEST_P(ViewerTest, SavesAndReportsWhatItShowedUnattended) {
    Write("stripes.png", MakeStripes(1024, 1024)); // which become grey, in every frame
    const auto view = [&](const std::string& options) {
        const std::string out =
            Run("view @stripes.png --size 320x200 --screenshot @shot.png --frames " + options);
        ExpectPixel(Read("shot.png"), 160, 100, {128, 128, 128, 255}, 6);
        return out;
    };
    EXPECT_THAT(view("1"), testing::HasSubstr("frame "));
    const auto report = nlohmann::json::parse(view("60 --json"));
    EXPECT_EQ(report.at("frames"), 60);
    EXPECT_GT(report.at("frameTimeMs").at("median"), 0.0);
    EXPECT_LE(report.at("peakFramesInFlight"), 3);
}

TEST_P(ViewerTest, PlaysClipsAtTheirRate) {
    WriteGreys("slow.y4m", "1:10", 12, 512); // which is halved before it is drawn
    WriteGreys("fast.y4m", "1000:1", 1500);
    const ViewerProgram viewer = View("@slow.y4m @fast.y4m @plain.png --at 4 --json");
    const auto expectGrey = [&](unsigned grey) {
        viewer.Expect(160, 100, {grey, grey, grey, 255});
    };
    expectGrey(GetGrey(3));
    const std::pair<unsigned, unsigned> kSteps[] = {{VK_OEM_PERIOD, GetGrey(4)},
                                                    {VK_OEM_COMMA, GetGrey(3)},
                                                    {VK_END, kLastGrey},
                                                    {VK_HOME, GetGrey(0)},
                                                    {VK_RIGHT, GetGrey(1)}};
    for (const auto& [key, grey] : kSteps) {
        viewer.Press(key);
        expectGrey(grey);
    }
    viewer.Show(SW_MINIMIZE);
    viewer.Show(SW_RESTORE);
    expectGrey(GetGrey(1));
    viewer.Press(VK_NEXT); // the file after it, to its end
    expectGrey(kLastGrey);
    viewer.Press(VK_NEXT);
    viewer.Expect(160, 100, kPlain);
    viewer.Press(VK_PRIOR);
    expectGrey(kLastGrey);
    const auto report = ReportOf(viewer);
    EXPECT_EQ(report.at("frame"), 1500);
    EXPECT_EQ(report.at("playing"), false);
    EXPECT_GT(report.at("dropped"), 0);
    const unsigned shown = report.at("shown");
    EXPECT_EQ(report.at("dropped").get<unsigned>() + shown, 1497U);
    Run("view @slow.y4m --at 13 --frames 1", {"has 12 frames, not 13"}, 1);
}

TEST_P(ViewerTest, RestsWhileNothingChanges) {
    const ViewerProgram viewer = View("@noise.png --stats");
    Sleep(1500);
    for (const int command : {SW_SHOW, SW_MINIMIZE}) {
        viewer.Show(command);
        Sleep(500);
        const double before = viewer.GetProcessorMs();
        Sleep(1000);
        EXPECT_LT(viewer.GetProcessorMs() - before, 50.0) << command;
    }
}

TEST_P(ViewerTest, RandomActionsLeaveNothingBehind) {
    WriteGreys("clip.y4m", "50:1", 80);
    const ViewerProgram viewer = View("@noise.png @clip.y4m @plain.png --loop");
    std::mt19937 random(4711);
    const auto below = [&](unsigned end) { return static_cast<long>(random() % end); };
    const auto point = [&] { return Point{below(300), below(200)}; };
    constexpr unsigned kKeys[] = {'R',      'F',     'D',      'S',      'H',
                                  '0',      VK_HOME, VK_END,   VK_RIGHT, VK_LEFT,
                                  VK_SPACE, VK_F11,  VK_PRIOR, VK_NEXT,  VK_OEM_COMMA};
    const std::function<void()> kActions[] = {
        [&] { viewer.Place(point(), {120 + below(500), 40 + below(400)}); },
        [&] {
            viewer.Show(SW_MINIMIZE);
            viewer.Show(SW_RESTORE);
        },
        [&] { viewer.Wheel(point(), below(2) != 0 ? 1 : -1); },
        [&] { viewer.Drag(point(), point()); },
        [&] { viewer.Press(kKeys[random() % std::size(kKeys)]); }, // half of them
    };
    double memory = 0.0; // MiB
    double growth = 0.0;
    for (int round = 0; round < 2 || (round < 5 && growth > 16.0); ++round) {
        for (int i = 0; i < 100; ++i) {
            kActions[std::min<std::size_t>(random() % 8, 4)]();
        }
        // As at first: what a state needs more of is no leak.
        viewer.Show(SW_RESTORE);
        viewer.Place({}, {320, 200});
        Sleep(1000);
        growth = viewer.GetMemoryMiB() - memory;
        memory += growth;
    }
    EXPECT_LE(growth, 16.0) << "a leak grows in every round";
    EXPECT_EQ(viewer.Close().err, "");
}

} // namespace

} // namespace Norvex::Test
