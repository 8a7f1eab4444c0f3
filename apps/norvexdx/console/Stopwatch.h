#pragma once

// Wall time since construction. A plain value.

#include <chrono>

namespace Norvex::App {

class Stopwatch {
public:
    double GetMilliseconds() const {
        return std::chrono::duration<double, std::milli>(Clock::now() - m_start).count();
    }

private:
    using Clock = std::chrono::steady_clock;

    Clock::time_point m_start = Clock::now();
};

} // namespace Norvex::App
