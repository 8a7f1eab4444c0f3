#pragma once

// A bar on standard error while many files are worked on; nothing when that is not a terminal. Any
// thread.

#include <cstddef>
#include <mutex>
#include <string_view>

namespace Norvex::App {

class ProgressBar {
public:
    explicit ProgressBar(std::size_t total);
    // Takes the bar off the terminal.
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    // One more is done.
    void Advance();
    // A line that stays: the bar makes room for it.
    void PrintMessage(std::string_view line);

private:
    void Show();
    void Hide();

    std::mutex m_mutex;
    std::size_t m_total;
    std::size_t m_done = 0;
    bool m_isShown;
};

} // namespace Norvex::App
