#pragma once

// The command line: names, help texts, and the options of the command that was asked for. Called
// once, from the main thread. Next: Arguments.h (values), ConvertPlan.h (what convert's options
// mean together).

#include <string>
#include <variant>
#include <vector>

#include "apps/norvexdx/commands/ConvertPlan.h"
#include "apps/norvexdx/commands/DoctorCommand.h"
#include "apps/norvexdx/commands/EncodePlan.h"
#include "apps/norvexdx/commands/FillCommand.h"
#include "apps/norvexdx/commands/InfoCommand.h"
#include "apps/norvexdx/commands/SheetCommand.h"
#include "apps/norvexdx/viewer/ViewOptions.h"

namespace Norvex::App {

// Help or the version, asked for.
struct ShowText {
    std::string text;
};

struct CommandLine {
    std::variant<ShowText, InfoOptions, ConvertOptions, FillOptions, SheetOptions, ViewOptions,
                 EncodeOptions, DoctorOptions>
        command;
    bool isVerbose = false;
};

// arguments: in UTF-8, without the program's name. Wildcards and folders among the inputs are
// expanded (ExpandFileNames). Throws Failure (wrong usage).
CommandLine ParseCommandLine(std::vector<std::string> arguments);

} // namespace Norvex::App
