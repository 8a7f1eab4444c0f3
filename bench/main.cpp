// The library beside hand-written Direct3D: bench [PATTERN...] [--json FILE] [options of Google
// Benchmark].

#include <cstdio>
#include <exception>
#include <iterator>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "Proc/DirectX/Manager/Exceptions.h"
#include "bench/Cases.h"
#include "tests/support/MethodPatch.h"

using namespace Norvex::Bench;

namespace {

constexpr auto kHelp =
    R"(usage: bench [PATTERN...] [--json FILE] [--list] [options of Google Benchmark]

Measures each case in the ways of the library and of its twins, in turns, and prints medians and the
ratios of medians and of minima. Times are of the calling thread, of all threads where it says (all), or
what passes where it says (wall).
PATTERN is a regular expression that a case's name contains. A twin "expert" does what somebody would
write by hand; "same calls" makes the calls of Direct3D that the library makes.

  --benchmark_repetitions=N   of each way (9)
  --benchmark_min_time=Ns     that a repetition takes (0.1s)
)";

// Google Benchmark ends the process where the system tells nothing about its processors' caches.
using ProcessorQuestion = BOOL(SYSTEM_LOGICAL_PROCESSOR_INFORMATION*, DWORD*);
BOOL AnswerAboutProcessors(auto original, SYSTEM_LOGICAL_PROCESSOR_INFORMATION* answers,
                           DWORD* size) {
    if (original(answers, size) == FALSE && GetLastError() != ERROR_INSUFFICIENT_BUFFER) {
        *size = 0;
        return TRUE;
    }
    return answers != nullptr ? TRUE : FALSE;
}

std::vector<Case> MakeCases() {
    std::vector<Case> all;
    for (auto* const make :
         {&MakeFrameCases12, &MakeFrameCases11, &MakeTransferCases, &MakeSubmissionCases,
          &MakePoolCases, &MakeThreadCases, &MakePictureCases, &MakeConverterCases, &MakeStartCases,
          &MakeGrowthCases}) {
        auto some = make();
        std::move(some.begin(), some.end(), std::back_inserter(all));
    }
    return all;
}

int Run(const std::vector<std::string>& arguments) {
    std::vector<std::string> patterns;
    std::string jsonFile;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        if (arguments[i] == "--json" && i + 1 < arguments.size()) {
            jsonFile = arguments[++i];
        } else if (arguments[i] == "--help") {
            std::fputs(kHelp, stdout);
            return 0;
        } else if (arguments[i] == "--list") {
            for (const Case& one : MakeCases()) {
                std::puts(one.name.c_str());
            }
            return 0;
        } else if (arguments[i].starts_with("--")) {
            std::fprintf(stderr, "bench: unknown option %s\n", arguments[i].c_str());
            return 2;
        } else {
            patterns.push_back(arguments[i]);
        }
    }
    if (!RunCases(MakeCases(), patterns, jsonFile)) {
        std::fputs("bench: no case has such a name\n", stderr);
        return 1;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const Norvex::Test::MethodPatch<0, ProcessorQuestion> answering(
        Norvex::Test::FindImport(nullptr, "GetLogicalProcessorInformation"),
        [](auto original, auto* answers, auto* size) {
            return AnswerAboutProcessors(original, answers, size);
        });
    std::vector<std::string> options = {"bench", "--benchmark_enable_random_interleaving=true",
                                        "--benchmark_repetitions=9", "--benchmark_min_time=0.1s"};
    std::vector<std::string> own;
    for (const std::string& argument : std::vector<std::string>(argv + 1, argv + argc)) {
        (argument.starts_with("--benchmark_") ? options : own).push_back(argument);
    }
    std::vector<char*> pointers;
    pointers.reserve(options.size() + 1);
    for (std::string& option : options) {
        pointers.push_back(option.data());
    }
    auto count = static_cast<int>(pointers.size());
    pointers.push_back(nullptr);
    benchmark::Initialize(&count, pointers.data());
    if (benchmark::ReportUnrecognizedArguments(count, pointers.data())) {
        return 2;
    }
    try {
        return Run(own);
    } catch (const Norvex::DX::DirectXException& e) {
        std::fprintf(stderr, "bench: %s. %s\n", e.GetErrorDescription().c_str(),
                     e.GetResultDescription().c_str());
        return 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench: %s\n", e.what());
        return 1;
    }
}
