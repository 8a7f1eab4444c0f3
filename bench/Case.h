#pragma once

// A case: one piece of work, done in several ways that are measured in turns. The library's ways
// stand beside twins, which do the same with Direct3D alone. Cases are made when they are run, and
// go before the next one. One thread.

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "bench/CallCounts.h"
#include "bench/Clock.h"

namespace Norvex::Bench {

struct Way {
    std::string name;
    // Does the work so many times.
    std::function<void(std::int64_t times)> run;
    // The names of the ways that it stands beside; none for a twin.
    std::vector<std::string> twins;
    // Where it is set, it makes ready for run(times), which is all that is measured then.
    std::function<void(std::int64_t times)> prepare;
    std::int64_t batch = 64; // times between two preparations
};

template <class Once>
Way MakeWay(const char* name, const Once& once, std::vector<std::string> twins = {}) {
    const auto run = [once](std::int64_t times) {
        for (; times > 0; --times) {
            once();
        }
    };
    return {name, run, std::move(twins), {}};
}

struct Ways {
    std::vector<Way> ways;
    // What this thread has the library do meanwhile; may be empty.
    std::function<Test::CallCounts(const Work&)> count;
};

enum class Clock : int {
    Thread,  // what the calling thread computes
    Both,    // and what passes, for work that it waits for
    Process, // what all its threads compute, and what passes: for what a software driver draws
    Wall,    // what passes alone: for work that is short, or on several threads
};

struct Case {
    std::string name;
    Clock clock = Clock::Thread;
    std::function<Ways()> make;
    // What its work may grow with; the exponent of the growth is printed after the last of a row.
    std::int64_t size = 0;
};

// Runs those of the cases whose names match one of the patterns, all without patterns; prints a
// line for each pair and writes `jsonFile`, unless that is empty. False when nothing matches.
bool RunCases(const std::vector<Case>& cases, const std::vector<std::string>& patterns,
              const std::string& jsonFile);

} // namespace Norvex::Bench
