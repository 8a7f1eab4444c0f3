#include "apps/norvexdx/console/ProgressBar.h"

#include <string>

#include <fmt/format.h>

#include "apps/norvexdx/console/Console.h"

namespace Norvex::App {

namespace {

constexpr std::size_t kBarWidth = 30;  // characters
constexpr std::size_t kLineWidth = 60; // characters, what Hide wipes

} // namespace

ProgressBar::ProgressBar(std::size_t total)
    : m_total(total),
      m_isShown(total > 1 && Console::IsErrorTerminal()) {
    Show();
}

ProgressBar::~ProgressBar() {
    Hide();
}

void ProgressBar::Advance() {
    const std::lock_guard lock(m_mutex);
    ++m_done;
    Show();
}

void ProgressBar::PrintMessage(std::string_view line) {
    const std::lock_guard lock(m_mutex);
    Hide();
    Console::PrintMessage(line);
    Show();
}

void ProgressBar::Show() {
    if (m_isShown) {
        const std::size_t filled = kBarWidth * m_done / m_total;
        Console::PrintError(fmt::format("\r[{}{}] {}/{}", std::string(filled, '#'),
                                        std::string(kBarWidth - filled, '.'), m_done, m_total));
    }
}

void ProgressBar::Hide() {
    if (m_isShown) {
        Console::PrintError(fmt::format("\r{:{}}\r", "", kLineWidth));
    }
}

} // namespace Norvex::App
