#pragma once

// Text conversions. Pure functions, any thread. Texts of 700 million characters throw
// std::length_error.

#include <string>
#include <string_view>

#include "Platform/Export.h"

namespace Norvex::Core {

// UTF-8 of UTF-16 text; an unpaired surrogate becomes U+FFFD.
NORVEX_HOST_API std::string Utf8FromWstring(std::wstring_view text);
// UTF-16 of UTF-8 text; malformed bytes become U+FFFD.
NORVEX_HOST_API std::wstring WstringFromUtf8(std::string_view text);

namespace Utils {

// Lower case without regard to the locale's language; one result character for each character.
NORVEX_HOST_API std::wstring ToLower(std::wstring_view text);

} // namespace Utils

} // namespace Norvex::Core
