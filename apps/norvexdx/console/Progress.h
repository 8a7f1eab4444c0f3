#pragma once

// A line on standard error that tells how far work has come, renewed a few times a second while
// this object lives. Any thread.

#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "apps/norvexdx/console/Stopwatch.h"

namespace Norvex::App {

class Progress {
public:
    // Not shown: nothing happens.
    explicit Progress(bool isShown) : m_isShown(isShown) {}
    // Takes the line off a terminal; elsewhere ends it.
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Asks for the line when it is time to renew it.
    void Show(const std::function<std::string()>& makeLine);

private:
    bool m_isShown;
    std::mutex m_mutex;
    std::optional<Stopwatch> m_sinceShown; // empty before the first time
};

} // namespace Norvex::App
