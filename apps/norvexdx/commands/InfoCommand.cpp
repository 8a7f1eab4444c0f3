#include "apps/norvexdx/commands/InfoCommand.h"

#include "apps/norvexdx/commands/InfoReport.h"
#include "apps/norvexdx/console/Console.h"

namespace Norvex::App {

void RunInfo(const InfoOptions& options) {
    const Json info = MakeInfoJson();
    Console::Print(options.json ? DumpJson(info) : MakeInfoText(info));
}

} // namespace Norvex::App
