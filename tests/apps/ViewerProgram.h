#pragma once

// The viewer as a user has it: started, its window found, worked with messages, and looked at on
// the screen. One thread. Throws std::runtime_error when there is no window.

#include <array>
#include <functional>

#include "Proc/DirectX/Manager/CommonTypes.h"
#include "tests/apps/Process.h"

namespace Norvex::Test {

class ViewerProgram {
public:
    // Runs `norvexdx view` with these; returns when its window is shown.
    explicit ViewerProgram(std::vector<std::string> arguments);

    HWND Get() const { return m_window; }
    DX::Size2DT<long> GetClientSize() const;

    // Each returns when the viewer answers messages: it has got this one, or gets it next.
    void Press(unsigned key); // VK_..., without modifiers
    void Wheel(const std::array<long, 2>& point, int steps);
    void Drag(const std::array<long, 2>& from, const std::array<long, 2>& to);
    void Resize(const DX::Size2DT<long>& clientSize);
    void MoveTo(long left, long top);
    void Show(int command); // SW_...

    bool IsRunning() const { return !m_program.HasEnded(); }
    // Presses Esc and waits.
    ProcessResult Close();

    // What the screen shows of the client area, opaque.
    App::Image ReadScreen() const;

    struct Usage {
        double processorMs = 0.0; // since the start
        double memoryMiB = 0.0;
        std::ptrdiff_t handles = 0;
    };
    Usage GetUsage() const;

private:
    void Post(UINT message, WPARAM wparam, LPARAM lparam);

    StartedProgram m_program;
    HWND m_window = nullptr;
};

} // namespace Norvex::Test
