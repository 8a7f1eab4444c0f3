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

// Of clips, whose keys go before those of pictures while one is seen.
enum class ClipAction {
    TogglePlaying,
    StepForward, // these two pause
    StepBack,
    JumpForward,
    JumpBack,
    JumpFarForward,
    JumpFarBack,
    First,
    Last,
};

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

template <class Action>
struct Binding {
    Action action = {};
    std::array<NamedKey, 3> keys; // at least one
    const char* help = nullptr;
};

std::optional<Action> FindAction(const Key& key);
std::optional<ClipAction> FindClipAction(const Key& key);
// A line for each action and for what the mouse does, then those of clips; no line break at the
// end.
std::string GetViewerHelp();

} // namespace Norvex::App
