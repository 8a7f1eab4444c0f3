#pragma once

// Names and English texts of the result codes that graphics and COM calls answer; internal
// to GetErrorInfo. Read-only data, any thread.

#include <span>
#include <string_view>

namespace Norvex::Core::Utils {

struct ErrorText {
    long code;
    std::string_view name; // the constant's name in the system's headers
    std::string_view text; // one sentence, no line break
};

std::span<const ErrorText> GetErrorTable();

} // namespace Norvex::Core::Utils
