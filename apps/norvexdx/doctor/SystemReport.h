#pragma once

// The system that the program runs on: Windows, memory, the graphics DLLs that are loaded. Any
// thread.

#include <string>

#include "apps/norvexdx/console/ReportParts.h"

namespace Norvex::App {

// {"windows", "wine" (null elsewhere), "processors", "memory" and "memoryAvailable" in bytes,
// "modules": {name: version of those that are loaded}}
Json MakeSystemJson();
// One line without line break.
std::string MakeSystemText(const Json& system);

} // namespace Norvex::App
