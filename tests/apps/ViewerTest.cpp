// The viewer as a user has it: a process, its window, worked with messages, and what the screen
// shows of it.

#include <cmath>
#include <random>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "apps/norvexdx/viewer/View.h"
#include "apps/norvexdx/viewer/ViewerWindow.h"
#include "tests/apps/Process.h"
#include "tests/support/TestWindow.h"

#include <psapi.h>

namespace Norvex::Test {

namespace {

using namespace App;
using nlohmann::json;
using testing::HasSubstr;
using RGB = TestWindow::RGB;
using DX::RenderFitMode;
using Point = std::array<long, 2>;
using Size = DX::Size2DT<long>;

constexpr RGB kDark = {0x20, 0x20, 0x20};
constexpr RGB kPlain = {12, 140, 200};
constexpr Size kPicture = {320, 200};

// In the order of reading, as the screen shows them. The last one is half transparent.
constexpr std::array<RGB, 4> kQuadrants = {
    {{255, 0, 0}, {0, 255, 0}, {16, 32, 240}, {116, 66, 41}}};

Image MakeQuadrants() {
    Image image = MakePlain(320, 200, {200, 100, 50, 128});
    for (std::size_t i = 0; i < image.pixels.size(); ++i) {
        const std::size_t quadrant =
            (i / 4 / 320 >= 100 ? 2U : 0U) + (i / 4 % 320 >= 160 ? 1U : 0U);
        if (quadrant < 3) {
            image.pixels[i] =
                static_cast<std::uint8_t>(i % 4 == 3 ? 255 : kQuadrants[quadrant][i % 4]);
        }
    }
    return image;
}

std::string DescribePixel(HWND window, long x, long y, const RGB& expected) {
    const RGB rgb = TestWindow::GetPixel(window, x, y);
    for (std::size_t i = 0; i < rgb.size(); ++i) {
        if (std::abs(rgb[i] - expected[i]) > 1) {
            return fmt::format("({}, {}) is {} instead of {}", x, y, testing::PrintToString(rgb),
                               testing::PrintToString(expected));
        }
    }
    return {};
}

Size GetClientSize(HWND window) {
    RECT rect = {};
    GetClientRect(window, &rect);
    return {rect.right, rect.bottom};
}

// In the quadrants, close to the picture's edges and beside them, as far as the window goes.
std::string DescribeQuadrants(HWND window, const App::View& view) {
    const Size size = GetClientSize(window);
    std::string difference;
    for (const float x : {-1.03F, -0.97F, -0.3F, 0.3F, 0.97F, 1.03F}) {
        for (const float y : {-1.03F, -0.97F, -0.3F, 0.3F, 0.97F, 1.03F}) {
            const auto at = Locate(view, kPicture, size, x, y);
            const bool isOutside = std::abs(x) > 1.0F || std::abs(y) > 1.0F;
            const RGB& rgb = isOutside ? kDark : kQuadrants[(y < 0 ? 2U : 0U) + (x > 0 ? 1U : 0U)];
            const long left = std::lround(std::floor(at[0]));
            const long top = std::lround(std::floor(at[1]));
            if (difference.empty() && left >= 0 && top >= 0 && left < size.width &&
                top < size.height) {
                difference = DescribePixel(window, left, top, rgb);
            }
        }
    }
    return difference;
}

// Of all processes, as the system tells them under the number 64, five words each of which the
// second is the process; GetProcessHandleCount is not everywhere more than a stub.
std::ptrdiff_t CountHandles(DWORD process) {
    using Query = LONG(WINAPI*)(ULONG, void*, ULONG, ULONG*);
    static const auto query = reinterpret_cast<Query>(reinterpret_cast<void*>(
        GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
    std::vector<std::uint64_t> words(1 << 18);
    const LONG result = query(64, words.data(), static_cast<ULONG>(words.size() * 8), nullptr);
    EXPECT_EQ(result, 0) << "the system does not tell its handles";
    std::ptrdiff_t count = 0;
    for (std::uint64_t i = 0; result == 0 && i < words[0]; ++i) {
        count += words[2 + 5 * i + 1] == process ? 1 : 0;
    }
    return count;
}

double GetMilliseconds(const FILETIME& time) {
    return static_cast<double>(std::uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime) / 1e4;
}

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

    // Looks at the screen until it is as described; after some seconds that is a failure.
    template <class Describe>
    static void Expect(const char* when, const Describe& describe) {
        const ULONGLONG end = GetTickCount64() + 5000;
        std::string difference;
        while (!(difference = describe()).empty() && GetTickCount64() < end) {
        }
        EXPECT_EQ(difference, "") << when;
    }
    void ExpectPixel(const char* when, const Point& at, const RGB& rgb) const {
        Expect(when, [&] { return DescribePixel(m_window, at[0], at[1], rgb); });
    }
    // size: of the window, where that matters.
    void ExpectQuadrants(const char* when, const App::View& view = {},
                         const std::optional<Size>& size = {}) const {
        Expect(when, [&] {
            return !size || *size == GetClientSize(m_window) ? DescribeQuadrants(m_window, view)
                                                             : "another size";
        });
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
    void Resize(const Size& clientSize) const {
        RECT outer = {};
        GetWindowRect(m_window, &outer);
        const Size client = GetClientSize(m_window);
        SetWindowPos(m_window, nullptr, 0, 0,
                     outer.right - outer.left - client.width + clientSize.width,
                     outer.bottom - outer.top - client.height + clientSize.height,
                     SWP_NOMOVE | SWP_NOZORDER);
    }
    void MoveTo(long left, long top) const {
        SetWindowPos(m_window, nullptr, left, top, 0, 0, SWP_NOSIZE | SWP_NOZORDER);
    }
    void Show(int command) const { ShowWindow(m_window, command); } // SW_...

    // With Esc. It must succeed.
    ProcessResult Close() {
        PostMessageW(m_window, WM_KEYDOWN, VK_ESCAPE, 0);
        const ProcessResult result = m_program.Wait();
        EXPECT_EQ(result.exitCode, 0U);
        return result;
    }

    bool IsRunning() const { return !m_program.HasEnded(); }
    double GetProcessorMs() const {
        FILETIME times[4] = {};
        GetProcessTimes(m_program.GetHandle(), &times[0], &times[1], &times[2], &times[3]);
        return GetMilliseconds(times[2]) + GetMilliseconds(times[3]);
    }
    double GetMemoryMiB() const {
        PROCESS_MEMORY_COUNTERS memory = {};
        GetProcessMemoryInfo(m_program.GetHandle(), &memory, sizeof(memory));
        return static_cast<double>(memory.WorkingSetSize) / (1 << 20);
    }
    std::ptrdiff_t CountHandles() const { return Test::CountHandles(m_program.GetId()); }

private:
    bool FindShownWindow() {
        DWORD owner = 0;
        do {
            m_window = FindWindowExW(nullptr, m_window, ViewerWindow::kClassName, nullptr);
            GetWindowThreadProcessId(m_window, &owner);
        } while (m_window != nullptr && owner != m_program.GetId());
        return m_window != nullptr && IsWindowVisible(m_window) != FALSE;
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
        Write("quadrants.png", MakeQuadrants());
        Write("plain.png", MakePlain(64, 64, {kPlain[0], kPlain[1], kPlain[2], 255}));
        m_options += " --size 320x200";
    }

    ViewerProgram View(const std::string& files) const {
        return ViewerProgram(m_folder.Split("view " + files + m_options));
    }
};

INSTANTIATE_TEST_SUITE_P(, ViewerTest, BothGenerations(), &NameOf);

TEST_P(ViewerTest, ShowsThePictureWhateverTheWindowDoes) {
    ViewerProgram viewer = View("@quadrants.png");
    viewer.ExpectQuadrants("at first", {}, kPicture);
    for (const Size& size : {Size{501, 333}, {900, 250}, {150, 400}}) {
        viewer.Resize(size);
        viewer.ExpectQuadrants("resized");
    }
    viewer.MoveTo(200, 150);
    viewer.ExpectQuadrants("moved");
    viewer.Show(SW_MINIMIZE);
    viewer.Show(SW_RESTORE);
    viewer.ExpectQuadrants("restored");
    for (const Size& size :
         {Size{GetSystemMetrics(SM_CXSCREEN), GetSystemMetrics(SM_CYSCREEN)}, {150, 400}}) {
        viewer.Press(VK_F11);
        viewer.ExpectQuadrants("in full screen, and back", {}, size);
    }
    const ProcessResult result = viewer.Close();
    EXPECT_EQ(result.out + result.err, "");
}

TEST_P(ViewerTest, DoesWhatTheUserAsksFor) {
    ViewerProgram viewer = View("@quadrants.png @plain.png");
    viewer.Resize({640, 480});
    viewer.ExpectQuadrants("at first");
    viewer.Press('R');
    viewer.ExpectQuadrants("turned", {.rotationDegrees = 270.0F});
    viewer.Press('R');
    viewer.Press('R');
    viewer.ExpectQuadrants("turned thrice", {.rotationDegrees = 90.0F});
    viewer.Press('0');
    viewer.ExpectQuadrants("reset");
    viewer.Press('F');
    viewer.ExpectQuadrants("filled", {.fit = RenderFitMode::Fill});
    viewer.Press('F');
    viewer.ExpectQuadrants("one to one", {.fit = RenderFitMode::Free});
    viewer.Drag({300, 200}, {330, 160});
    viewer.ExpectQuadrants("dragged", {.fit = RenderFitMode::Free, .translation = {30.0F, -40.0F}});
    // About a corner of the window, from which the picture's middle moves away.
    viewer.Wheel({0, 0}, 1);
    viewer.ExpectQuadrants(
        "zoomed", {.fit = RenderFitMode::Free, .scale = 1.25F, .translation = {117.5F, 10.0F}});
    viewer.Wheel({0, 0}, -1);
    viewer.Press(VK_RIGHT);
    viewer.ExpectPixel("the next picture", {320, 240}, kPlain);
    viewer.Press(VK_RIGHT);
    viewer.Press(VK_LEFT);
    viewer.ExpectQuadrants("the picture before", {.fit = RenderFitMode::Free});

    viewer.Press('0');
    viewer.ExpectQuadrants("before the help");
    viewer.Press('F'); // filled: the corner is red
    viewer.Press('H');
    viewer.ExpectPixel("with help: its margin lets 95 of 255 parts through", {3, 3}, {95, 0, 0});
    viewer.Press('H');
    viewer.ExpectPixel("without help", {3, 3}, {255, 0, 0});
    EXPECT_EQ(viewer.Close().err, "");
}

TEST_P(ViewerTest, RestsWhileNothingChanges) {
    ViewerProgram viewer = View("@quadrants.png --json --stats");
    Sleep(1500);
    for (const int command : {SW_SHOW, SW_MINIMIZE}) {
        viewer.Show(command);
        Sleep(500);
        const double before = viewer.GetProcessorMs();
        Sleep(1000);
        EXPECT_LT(viewer.GetProcessorMs() - before, 50.0) << command;
    }
    const ProcessResult result = viewer.Close();
    EXPECT_EQ(result.err, "");
    EXPECT_LE(json::parse(result.out).at("redraws"), 8);
}

TEST_P(ViewerTest, TwoHundredRandomActionsLeaveNothingBehind) {
    ViewerProgram viewer = View("@quadrants.png @plain.png");
    std::mt19937 random(4711);
    const auto below = [&](unsigned end) { return static_cast<long>(random() % end); };
    const auto point = [&] { return Point{below(300), below(200)}; };
    const auto act = [&](long kind) {
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
            return viewer.Wheel(point(), below(2) != 0 ? 1 : -1);
        case 5:
            return viewer.Drag(point(), point());
        default:
            return viewer.Press(kKeys[random() % std::size(kKeys)]);
        }
    };
    std::array<double, 2> memory{};
    std::array<std::ptrdiff_t, 2> handles{};
    for (std::size_t half = 0; half < 2; ++half) {
        for (int i = 0; i < 100; ++i) {
            act(below(12));
            ASSERT_TRUE(viewer.IsRunning()) << "action " << i;
        }
        // As at first: what a state needs more of is no leak.
        viewer.Show(SW_RESTORE);
        viewer.Resize(kPicture);
        Sleep(1000);
        memory[half] = viewer.GetMemoryMiB();
        handles[half] = viewer.CountHandles();
    }
    EXPECT_LE(memory[1], memory[0] + 16.0);
    EXPECT_GT(handles[0], 0);
    EXPECT_LE(handles[1], handles[0] + 8);
    EXPECT_EQ(viewer.Close().err, "");
}

TEST_P(ViewerTest, GoesOnWithoutThePicturesThatCannotBeRead) {
    WriteBytes(m_folder.GetPath("text.png"), Bytes(100, 'a'));
    ViewerProgram viewer = View("@missing.png @quadrants.png @text.png");
    viewer.ExpectQuadrants("the first that can be read");
    viewer.Press(VK_END);
    viewer.ExpectPixel("one that cannot be read", {160, 199}, kDark);
    viewer.Press(VK_LEFT);
    viewer.ExpectQuadrants("again");
    EXPECT_THAT(GetLines(viewer.Close().err),
                testing::ElementsAre(testing::StartsWith("norvexdx: there is no file"),
                                     HasSubstr("text.png: not a picture")));
    ExpectFailure("view @missing.png @text.png", 1, {"missing.png", "not a picture"});
}

} // namespace

} // namespace Norvex::Test
