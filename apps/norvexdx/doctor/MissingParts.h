#pragma once

// What this system lacks that the library could use, and what that costs. Pure function.

#include "apps/norvexdx/console/ReportParts.h"

namespace Norvex::App {

// [{"what", "cost"}] for the adapter with that number in what MakeInfoJson made.
Json FindMissingParts(const Json& info, unsigned adapter);

} // namespace Norvex::App
