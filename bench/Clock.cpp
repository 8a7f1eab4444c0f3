#include "bench/Clock.h"

#include <chrono>

#include "Platform/Direct3D.h"

namespace Norvex::Bench {

namespace {

double SecondsOf(const FILETIME& time) {
    constexpr double kSecondsPerUnit = 1e-7;
    const ULARGE_INTEGER value = {{time.dwLowDateTime, time.dwHighDateTime}};
    return static_cast<double>(value.QuadPart) * kSecondsPerUnit;
}

// GetThreadTimes or GetProcessTimes.
double GetSeconds(BOOL(WINAPI* getTimes)(HANDLE, FILETIME*, FILETIME*, FILETIME*, FILETIME*),
                  HANDLE ofWhat) {
    FILETIME creation = {};
    FILETIME exit = {};
    FILETIME kernel = {};
    FILETIME user = {};
    getTimes(ofWhat, &creation, &exit, &kernel, &user);
    return SecondsOf(kernel) + SecondsOf(user);
}

double GetThreadSeconds() {
    return GetSeconds(&GetThreadTimes, GetCurrentThread());
}

struct Step {
    double at = 0;    // seconds of the clock, which has just moved
    double looks = 0; // that it took
};

Step LookUpToStep() {
    const double before = GetThreadSeconds();
    Step step = {before, 0};
    while (step.at == before) {
        step.at = GetThreadSeconds();
        ++step.looks;
    }
    return step;
}

} // namespace

double MeasureWall(const Work& work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

Times MeasureProcess(const Work& work) {
    const double begin = GetSeconds(&GetProcessTimes, GetCurrentProcess());
    Times times;
    times.wall = MeasureWall(work);
    times.cpu = GetSeconds(&GetProcessTimes, GetCurrentProcess()) - begin;
    return times;
}

Times MeasureThread(const Work& work) {
    // On average over all: the clock counts user's and system's time in steps of their own, so that
    // one step may follow another at once.
    static double allSeconds = 0;
    static double allLooks = 0;
    const Step first = LookUpToStep();
    const Step begin = LookUpToStep();
    allSeconds += begin.at - first.at;
    allLooks += begin.looks;
    Times times;
    times.wall = MeasureWall(work);
    const Step end = LookUpToStep();
    times.cpu = end.at - begin.at - end.looks * allSeconds / allLooks;
    return times;
}

} // namespace Norvex::Bench
