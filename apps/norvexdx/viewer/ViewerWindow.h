#pragma once

// The viewer's window: Windows' messages become calls of a WindowEvents, and nothing more is
// decided here. One thread, but for Wake. What a handler throws ends the loop, which throws it on.
// Throws Failure when the system makes no window. Next: ViewSession.h.

#include <array>
#include <chrono>
#include <exception>
#include <optional>
#include <string>

#include "Proc/DirectX/Manager/CommonTypes.h"
#include "apps/norvexdx/viewer/ViewerKeys.h"

namespace Norvex::App {

// Points are pixels of the client area.
class WindowEvents {
public:
    virtual void OnKey(const Key& key) = 0;
    virtual void OnWheel(const std::array<float, 2>& point, float steps) = 0; // away: positive
    virtual void OnDrag(float dx, float dy) = 0;
    // The client area has changed, or is there again; inside Windows' own loop too, while the user
    // drags the frame.
    virtual void OnResize() = 0;
    virtual void OnMove() = 0; // to where it stays
    virtual void OnDisplayChange() = 0;
    virtual void OnPaint() = 0;
    virtual void OnWake() = 0;
    virtual void OnClose() = 0;
    // No message is waiting. When it is to be called again, also without one; inside Windows' own
    // loop it is called now and then.
    virtual std::optional<std::chrono::steady_clock::time_point> OnIdle() = 0;

protected:
    ~WindowEvents() = default;
};

class ViewerWindow {
public:
    // Hidden at first. Declares that the process scales by itself on each monitor.
    explicit ViewerWindow(WindowEvents& events);
    ~ViewerWindow();
    ViewerWindow(const ViewerWindow&) = delete;
    ViewerWindow& operator=(const ViewerWindow&) = delete;

    HWND Get() const { return m_window; }
    DX::Size2DT<long> GetClientSize() const;
    DX::Size2DT<long> GetWorkSize() const; // of the monitor, without what the system keeps
    bool IsShown() const;                  // visible and not minimised
    unsigned GetDotsPerInch() const;

    void SetTitle(const std::string& title);
    // As large as the monitor's work area at most.
    void SetClientSize(const DX::Size2DT<long>& size);
    void Show();
    // Without a frame over all of the monitor, and back.
    void SetFullScreen(bool isFullScreen);
    // OnPaint comes soon, once.
    void Redraw();
    // OnWake comes soon. Any thread.
    void Wake();
    // Ends the loop.
    void Close() { m_isClosed = true; }

    // Until Close. Blocks while there is nothing to do.
    void Run();
    // What has arrived so far; answers whether the window is still open.
    bool HandlePending();

    // By which other programs find it.
    static constexpr const wchar_t* kClassName = L"NorvexDXViewer";

private:
    static LRESULT CALLBACK OnMessage(HWND window, UINT message, WPARAM wparam, LPARAM lparam);
    // Answers whether the message is dealt with.
    bool Handle(UINT message, WPARAM wparam, LPARAM lparam);
    bool HandleMouse(UINT message, WPARAM wparam, LPARAM lparam);
    bool HandlePlace(UINT message, WPARAM wparam, LPARAM lparam);
    void Dispatch(const MSG& message);
    // For a message, or until then.
    void Wait(const std::optional<std::chrono::steady_clock::time_point>& time) const;

    WindowEvents& m_events;
    HWND m_window = nullptr;
    HANDLE m_timer = nullptr;
    WINDOWPLACEMENT m_placement = {}; // before full screen
    POINT m_dragged = {};             // where the pointer was
    bool m_isDragging = false;
    bool m_isInSizeMove = false;
    bool m_isFullScreen = false;
    bool m_isClosed = false;
    std::exception_ptr m_failure;
};

} // namespace Norvex::App
