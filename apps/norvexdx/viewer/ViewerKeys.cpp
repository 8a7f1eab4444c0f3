#include "apps/norvexdx/viewer/ViewerKeys.h"

#include <fmt/format.h>

#include "Platform/Direct3D.h"

namespace Norvex::App {

namespace {

constexpr bool kShift = true;
constexpr bool kControl = true;

constexpr Binding<Action> kBindings[] = {
    {Action::Next,
     {{{"Right", {VK_RIGHT}}, {"Space", {VK_SPACE}}, {"PageDown", {VK_NEXT}}}},
     "next picture"},
    {Action::Previous, {{{"Left", {VK_LEFT}}, {"PageUp", {VK_PRIOR}}}}, "previous picture"},
    {Action::First, {{{"Home", {VK_HOME}}}}, "first picture"},
    {Action::Last, {{{"End", {VK_END}}}}, "last picture"},
    {Action::ChangeFit, {{{"F", {'F'}}}}, "all of the picture, fill the window, or 1:1"},
    {Action::TurnRight, {{{"R", {'R'}}}}, "turn right by 90 degrees"},
    {Action::TurnLeft, {{{"Shift+R", {'R', kShift}}}}, "turn left by 90 degrees"},
    {Action::TiltRight, {{{"Ctrl+Right", {VK_RIGHT, false, kControl}}}}, "turn right by 1 degree"},
    {Action::TiltLeft, {{{"Ctrl+Left", {VK_LEFT, false, kControl}}}}, "turn left by 1 degree"},
    {Action::ResetView, {{{"0", {'0'}}, {"keypad 0", {VK_NUMPAD0}}}}, "as at first"},
    {Action::ToggleHDR, {{{"D", {'D'}}}}, "HDR on or off"},
    {Action::ToggleStatistics, {{{"S", {'S'}}}}, "statistics on or off"},
    {Action::ToggleFullScreen, {{{"F11", {VK_F11}}}}, "full screen and back"},
    {Action::ToggleHelp, {{{"H", {'H'}}, {"F1", {VK_F1}}}}, "these keys on or off"},
    {Action::Close, {{{"Esc", {VK_ESCAPE}}}}, "close"},
};

constexpr Binding<ClipAction> kClipBindings[] = {
    {ClipAction::TogglePlaying, {{{"Space", {VK_SPACE}}}}, "pause, and go on"},
    {ClipAction::StepForward, {{{".", {VK_OEM_PERIOD}}}}, "next frame"},
    {ClipAction::StepBack, {{{",", {VK_OEM_COMMA}}}}, "previous frame"},
    {ClipAction::JumpForward, {{{"Right", {VK_RIGHT}}}}, "a second on"},
    {ClipAction::JumpBack, {{{"Left", {VK_LEFT}}}}, "a second back"},
    {ClipAction::JumpFarForward, {{{"Shift+Right", {VK_RIGHT, kShift}}}}, "ten seconds on"},
    {ClipAction::JumpFarBack, {{{"Shift+Left", {VK_LEFT, kShift}}}}, "ten seconds back"},
    {ClipAction::First, {{{"Home", {VK_HOME}}}}, "first frame"},
    {ClipAction::Last, {{{"End", {VK_END}}}}, "last frame"},
};

constexpr int kKeysWidth = 24; // characters

template <class Action, std::size_t N>
std::optional<Action> FindIn(const Binding<Action> (&bindings)[N], const Key& key) {
    for (const auto& binding : bindings) {
        for (const NamedKey& named : binding.keys) {
            if (named.name != nullptr && named.key == key) {
                return binding.action;
            }
        }
    }
    return std::nullopt;
}

template <class Action, std::size_t N>
std::string DescribeBindings(const Binding<Action> (&bindings)[N]) {
    std::string text;
    for (const auto& binding : bindings) {
        std::string keys;
        for (const NamedKey& named : binding.keys) {
            if (named.name != nullptr) {
                keys += (keys.empty() ? "" : ", ") + std::string(named.name);
            }
        }
        text += fmt::format("\n{:{}}{}", keys, kKeysWidth, binding.help);
    }
    return text;
}

} // namespace

std::optional<Action> FindAction(const Key& key) {
    return FindIn(kBindings, key);
}

std::optional<ClipAction> FindClipAction(const Key& key) {
    return FindIn(kClipBindings, key);
}

std::string GetViewerHelp() {
    return fmt::format("{:{}}zoom about the pointer\n{:{}}move the picture", "wheel", kKeysWidth,
                       "left drag", kKeysWidth) +
           DescribeBindings(kBindings) + "\nIn a clip:" + DescribeBindings(kClipBindings);
}

} // namespace Norvex::App
