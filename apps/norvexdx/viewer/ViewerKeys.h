#pragma once

// What the viewer's keys do. One table serves the keyboard, the overlay and --help. Pure functions,
// any thread.

#include <array>
#include <optional>
#include <string>

namespace Norvex::App {

enum class Action {
    Next,
    Previous,
    First,
    Last,
    ChangeFit,
    TurnRight,
    TurnLeft,
    TiltRight,
    TiltLeft,
    ResetView,
    ToggleHDR,
    ToggleStatistics,
    ToggleFullScreen,
    ToggleHelp,
    Close, // the last one
};
constexpr std::size_t kActionCount = static_cast<std::size_t>(Action::Close) + 1;

struct Key {
    unsigned code = 0; // VK_...
    bool withShift = false;
    bool withControl = false;

    friend bool operator==(const Key&, const Key&) = default;
};

struct NamedKey {
    const char* name = nullptr; // null: there is no such key
    Key key;
};

struct Binding {
    Action action = Action::Close;
    std::array<NamedKey, 3> keys; // at least one
    const char* help = nullptr;
};

std::optional<Action> FindAction(const Key& key);
// A line for each action and for what the mouse does; no line break at the end.
std::string GetViewerHelp();

} // namespace Norvex::App
