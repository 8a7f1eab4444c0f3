#include "apps/norvexdx/viewer/ViewerKeys.h"

#include <fmt/format.h>

#include "Platform/Direct3D.h"

namespace Norvex::App {

namespace {

constexpr bool kShift = true;
constexpr bool kControl = true;

constexpr Binding kBindings[] = {
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

constexpr int kKeysWidth = 24; // characters

} // namespace

std::optional<Action> FindAction(const Key& key) {
    for (const Binding& binding : kBindings) {
        for (const NamedKey& named : binding.keys) {
            if (named.name != nullptr && named.key == key) {
                return binding.action;
            }
        }
    }
    return std::nullopt;
}

std::string GetViewerHelp() {
    std::string text = fmt::format("{:{}}zoom about the pointer\n{:{}}move the picture", "wheel",
                                   kKeysWidth, "left drag", kKeysWidth);
    for (const Binding& binding : kBindings) {
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

} // namespace Norvex::App
