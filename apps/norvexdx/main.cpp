// norvexdx: pictures through the library, from the command line. Exit codes: 0, 1 for a failure, 2
// for wrong usage, 130 when interrupted; a failure is one line on standard error.

#include <memory>
#include <utility>

#include <glog/logging.h>

#include "Host/Strings.h"
#include "Platform/Direct3D.h"
#include "apps/norvexdx/commands/ConvertCommand.h"
#include "apps/norvexdx/commands/EncodeCommand.h"
#include "apps/norvexdx/commands/ViewCommand.h"
#include "apps/norvexdx/console/CommandLine.h"
#include "apps/norvexdx/console/Console.h"
#include "apps/norvexdx/console/ProcessEnd.h"
#include "apps/norvexdx/pictures/OutputFile.h"

#include <shellapi.h>

namespace Norvex::App {

namespace {

struct RunCommand {
    ExitCode operator()(const ShowText& command) const {
        Console::Print(command.text);
        return ExitCode::Success;
    }
    ExitCode operator()(const InfoOptions& options) const {
        RunInfo(options);
        return ExitCode::Success;
    }
    ExitCode operator()(const ConvertOptions& options) const { return RunConvert(options); }
    ExitCode operator()(const FillOptions& options) const {
        RunFill(options);
        return ExitCode::Success;
    }
    ExitCode operator()(const SheetOptions& options) const {
        RunSheet(options);
        return ExitCode::Success;
    }
    ExitCode operator()(const DoctorOptions& options) const { return RunDoctor(options); }
    ExitCode operator()(const ViewOptions& options) const { return RunView(options); }
    ExitCode operator()(const EncodeOptions& options) const {
        RunEncode(options);
        return ExitCode::Success;
    }
};

// As the user typed them: the runtime's own are in the code page.
std::vector<std::string> GetArguments() {
    int count = 0;
    const std::unique_ptr<wchar_t*[], decltype(&LocalFree)> wide(
        CommandLineToArgvW(GetCommandLineW(), &count), &LocalFree);
    std::vector<std::string> arguments;
    for (int i = 1; i < count; ++i) {
        arguments.push_back(Core::Utf8FromWstring(wide[static_cast<std::size_t>(i)]));
    }
    return arguments;
}

// The library logs through glog; a program for people shows only what matters to them, and writes
// no files.
void StartLogging(bool isVerbose) {
    FLAGS_logtostderr = true;
    FLAGS_minloglevel = isVerbose ? google::GLOG_INFO : google::GLOG_ERROR;
    google::InitGoogleLogging("norvexdx");
}

ExitCode Run() {
    const CommandLine commandLine = ParseCommandLine(GetArguments());
    StartLogging(commandLine.isVerbose);
    OutputFile::RemoveUnfinishedOnInterruption();
    return std::visit(RunCommand(), commandLine.command);
}

} // namespace

} // namespace Norvex::App

int main() {
    using namespace Norvex::App;
    try {
        return EndProcess(Run());
    } catch (...) {
        const FailureReport report = DescribeFailure(std::current_exception());
        Console::PrintMessage(report.line);
        return EndProcess(report.exitCode);
    }
}
