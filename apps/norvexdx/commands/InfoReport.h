#pragma once

// Adapters, displays, the devices of both generations and what they do with formats: what `info`
// prints, and a part of the doctor's report. Any thread.

#include <string>

#include "apps/norvexdx/console/ReportParts.h"

namespace Norvex::App {

// What an adapter cannot do is told in its place; throws only when DXGI itself fails.
Json MakeInfoJson();
std::string MakeInfoText(const Json& info);
// "output \\.\DISPLAY1 at [0,0,1920,1080]: sRGB (DXGI 0), 8 bits, ...", without line break.
std::string MakeOutputText(const Json& output);

} // namespace Norvex::App
