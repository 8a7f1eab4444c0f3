#include "Host/Strings.h"

#include <cstddef>
#include <limits>
#include <stdexcept>

#include "Platform/Direct3D.h"

namespace Norvex::Core {

namespace {

// The system's conversions count in int, before and after; a character becomes three bytes at most.
template <class View>
int SystemLength(View text) {
    if (text.size() > static_cast<std::size_t>(std::numeric_limits<int>::max()) / 3) {
        throw std::length_error("Text too long");
    }
    return static_cast<int>(text.size());
}

} // namespace

std::string Utf8FromWstring(std::wstring_view text) {
    const int length = SystemLength(text);
    const int needed =
        WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
    std::string result(static_cast<std::size_t>(needed), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), length, result.data(), needed, nullptr, nullptr);
    return result;
}

std::wstring WstringFromUtf8(std::string_view text) {
    const int length = SystemLength(text);
    const int needed = MultiByteToWideChar(CP_UTF8, 0, text.data(), length, nullptr, 0);
    std::wstring result(static_cast<std::size_t>(needed), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), length, result.data(), needed);
    return result;
}

namespace Utils {

std::wstring ToLower(std::wstring_view text) {
    const int length = SystemLength(text);
    std::wstring result(text.size(), L'\0');
    // Without LCMAP_LINGUISTIC_CASING the mapping is one to one and "I" becomes "i" everywhere.
    LCMapStringEx(LOCALE_NAME_INVARIANT, LCMAP_LOWERCASE, text.data(), length, result.data(),
                  length, nullptr, nullptr, 0);
    return result;
}

} // namespace Utils

} // namespace Norvex::Core
