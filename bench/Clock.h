#pragma once

// Time that work takes on this thread, which is always the same, or on all.

#include <functional>

namespace Norvex::Bench {

using Work = std::function<void()>;

struct Times {
    double cpu = 0;  // seconds that the thread or all compute, in it and in the system for it
    double wall = 0; // seconds that passed
};

// The system's clock of a thread moves in steps of 10 to 16 ms. So the work begins at a step, and
// what remains up to the step after it is spent in looking at the clock, which costs the same each
// time: the result is good to a few milliseconds, and the work should take many of them.
Times MeasureThread(const Work& work);

// Of all threads of the process, those of a driver that draws itself among them; in steps of 10 ms.
Times MeasureProcess(const Work& work);

double MeasureWall(const Work& work);

} // namespace Norvex::Bench
