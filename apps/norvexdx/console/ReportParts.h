#pragma once

// The pieces that several reports share, as JSON values. For the sources that write reports only:
// the JSON header is large. Pure functions, any thread.

#include <string>

#include <nlohmann/json.hpp>

#include "Proc/DirectX/Manager/D3Device.h"

namespace Norvex::App {

using Json = nlohmann::ordered_json;

Json MakeAdapterJson(unsigned index, const DX::AdapterDescription& description);
// Generation, level, driver, and what only the one or the other generation has.
Json MakeDeviceJson(const DX::D3Device& device);
// Indented, with a line break at the end. Text that is not UTF-8 is mended, never refused.
std::string DumpJson(const Json& json);

} // namespace Norvex::App
