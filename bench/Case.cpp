#include "bench/Case.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <regex>
#include <stdexcept>
#include <utility>

#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace Norvex::Bench {

namespace {

using Json = nlohmann::ordered_json;
using Samples = std::vector<double>; // microseconds

constexpr double kMicrosecondsPerSecond = 1e6;
constexpr auto kWallCounter = "wall";

double GetMinimum(const Samples& samples) {
    return *std::ranges::min_element(samples);
}

double GetMedian(Samples samples) {
    const auto middle = samples.begin() + static_cast<std::ptrdiff_t>(samples.size() / 2);
    std::ranges::nth_element(samples, middle);
    return *middle;
}

struct WaySamples {
    Samples cpu; // or what the case's clock says
    Samples wall;
};

// Work that is prepared is measured in small batches, of which the median counts: what comes
// between is longer than they are.
double MeasurePrepared(const Way& way, std::int64_t times) {
    Samples batches;
    for (std::int64_t done = 0; done < times; done += way.batch) {
        way.prepare(way.batch);
        batches.push_back(MeasureWall([&] { way.run(way.batch); }) /
                          static_cast<double>(way.batch));
    }
    return GetMedian(batches) * static_cast<double>(times);
}

Times MeasureWay(const Way& way, Clock clock, std::int64_t times) {
    if (way.prepare) {
        return {0, MeasurePrepared(way, times)};
    }
    way.run(std::min<std::int64_t>(times, 4)); // pools and caches are warm again after other ways
    const auto work = [&] { way.run(times); };
    return clock == Clock::Wall      ? Times{0, MeasureWall(work)}
           : clock == Clock::Process ? MeasureProcess(work)
                                     : MeasureThread(work);
}

void Measure(benchmark::State& state, const Way& way, Clock clock) {
    while (state.KeepRunningBatch(state.max_iterations)) {
        const Times times = MeasureWay(way, clock, state.max_iterations);
        // What it measures by is how it finds out how often a way is to be run.
        state.SetIterationTime(clock == Clock::Wall ? times.wall : std::max(times.cpu, 1e-9));
        state.counters[kWallCounter] = times.wall / static_cast<double>(state.max_iterations);
    }
}

// Keeps the samples of the ways, and prints nothing: the ratios need them all.
class Collector : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context& /*context*/) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Iteration) {
                WaySamples& samples = m_samples[run.run_name.function_name];
                samples.cpu.push_back(run.real_accumulated_time /
                                      static_cast<double>(run.iterations) * kMicrosecondsPerSecond);
                samples.wall.push_back(run.counters.at(kWallCounter) * kMicrosecondsPerSecond);
            }
        }
    }

    const WaySamples& Get(const std::string& way) const { return m_samples.at(way); }

private:
    std::map<std::string, WaySamples> m_samples;
};

struct Ratios {
    double medians = 0;
    double minima = 0;
};

Ratios Divide(const Samples& library, const Samples& twin) {
    return {GetMedian(library) / GetMedian(twin), GetMinimum(library) / GetMinimum(twin)};
}

void PrintHead() {
    fmt::print("{:<31}{:<16}{:>12}  {:<16}{:>12}{:>9}{:>9}\n", "case", "library", "us", "beside",
               "us", "medians", "minima");
}

// One kind of time of a case, for people and for JSON.
Json Report(const std::string& name, const std::vector<Way>& ways, const Collector& collector,
            Samples WaySamples::* kind) {
    Json pairs = Json::array();
    for (const Way& way : ways) {
        const Samples& own = collector.Get(way.name).*kind;
        for (const std::string& twin : way.twins) {
            const Samples& others = collector.Get(twin).*kind;
            const Ratios ratios = Divide(own, others);
            fmt::print("{:<31}{:<16}{:>12.2f}  {:<16}{:>12.2f}{:>9.2f}{:>9.2f}\n", name, way.name,
                       GetMedian(own), twin, GetMedian(others), ratios.medians, ratios.minima);
            pairs.push_back({{"library", way.name},
                             {"twin", twin},
                             {"ratioOfMedians", ratios.medians},
                             {"ratioOfMinima", ratios.minima}});
        }
        const bool isAlone = way.twins.empty() && ways.size() == 1;
        if (isAlone) {
            fmt::print("{:<31}{:<16}{:>12.2f}\n", name, way.name, GetMedian(own));
        }
    }
    Json samples;
    for (const Way& way : ways) {
        samples[way.name] = collector.Get(way.name).*kind;
    }
    std::fflush(stdout);
    return {{"microseconds", samples}, {"pairs", pairs}};
}

// What one time costs besides, on average, when all is warm.
Json ReportCounts(const Ways& ways) {
    constexpr unsigned kTimes = 16;
    Json result;
    for (const Way& way : ways.ways) {
        if (way.twins.empty() || !ways.count || way.prepare) {
            continue;
        }
        const Test::CallCounts counts = ways.count([&] { way.run(kTimes); });
        const auto each = [](unsigned count) { return count / static_cast<double>(kTimes); };
        fmt::print("{:<31}{:<16}{:.1f} allocations, {:.1f} locks, {:.1f} objects of Direct3D\n", "",
                   way.name, each(counts.allocations), each(counts.locks), each(counts.objects));
        result[way.name] = {{"allocations", each(counts.allocations)},
                            {"locks", each(counts.locks)},
                            {"objects", each(counts.objects)}};
    }
    return result;
}

// The sizes of a row of cases and the medians of their times.
class Growth {
public:
    void Add(const Case& one, double median) {
        const std::string row = one.name.substr(0, one.name.rfind('/'));
        if (row != m_row || one.size == 0) {
            m_row = row;
            m_points.clear();
        }
        if (one.size != 0) {
            m_points.emplace_back(std::log(static_cast<double>(one.size)), std::log(median));
        }
    }
    // 0: the time does not grow; 1: as the size does. Of the line through all points.
    double GetExponent() const {
        const auto count = static_cast<double>(m_points.size());
        double x = 0;
        double y = 0;
        double xx = 0;
        double xy = 0;
        for (const auto& [size, time] : m_points) {
            x += size;
            y += time;
            xx += size * size;
            xy += size * time;
        }
        return (count * xy - x * y) / (count * xx - x * x);
    }
    bool IsRow() const { return m_points.size() > 1; }

private:
    std::string m_row;
    std::vector<std::pair<double, double>> m_points;
};

const char* GetUnit(Clock clock) {
    return clock == Clock::Wall ? " (wall)" : clock == Clock::Process ? " (all)" : "";
}

Json RunCase(const Case& chosen, Growth& growth) {
    const Ways ways = chosen.make();
    for (const Way& way : ways.ways) {
        benchmark::RegisterBenchmark(way.name, [&way, &chosen](benchmark::State& state) {
            Measure(state, way, chosen.clock);
        })->UseManualTime();
    }
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector, nullptr, "all");
    benchmark::ClearRegisteredBenchmarks();

    Json result = {{"name", chosen.name}};
    const bool isWall = chosen.clock == Clock::Wall;
    result[isWall ? "wall" : "cpu"] =
        Report(chosen.name + GetUnit(chosen.clock), ways.ways, collector, &WaySamples::cpu);
    if (chosen.clock == Clock::Both || chosen.clock == Clock::Process) {
        result["wall"] = Report(chosen.name + " (wall)", ways.ways, collector, &WaySamples::wall);
    }
    result["counts"] = ReportCounts(ways);
    growth.Add(chosen, GetMedian(collector.Get(ways.ways.front().name).cpu));
    if (growth.IsRow()) {
        fmt::print("{:<31}grows with exponent {:.2f} up to here\n", "", growth.GetExponent());
        result["exponent"] = growth.GetExponent();
    }
    return result;
}

} // namespace

bool RunCases(const std::vector<Case>& cases, const std::vector<std::string>& patterns,
              const std::string& jsonFile) {
    const auto isChosen = [&patterns](const Case& one) {
        return patterns.empty() || std::ranges::any_of(patterns, [&one](const auto& pattern) {
                   return std::regex_search(one.name, std::regex(pattern));
               });
    };
    PrintHead();
    Json results = Json::array();
    Growth growth;
    for (const Case& one : cases) {
        if (isChosen(one)) {
            results.push_back(RunCase(one, growth));
        }
    }
    if (!jsonFile.empty()) {
        std::ofstream file(jsonFile);
        file << results.dump(2) << '\n';
        if (!file.flush()) {
            throw std::runtime_error("cannot write " + jsonFile);
        }
    }
    return !results.empty();
}

} // namespace Norvex::Bench
