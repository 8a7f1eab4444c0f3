// Names and texts of result codes, from the system and from the table of ErrorTable.h.

#include "Host/SystemInfo.h"

#include <algorithm>
#include <array>
#include <string_view>

#include <fmt/format.h>

#include "Host/ErrorTable.h"
#include "Host/Strings.h"
#include "Platform/Direct3D.h"

namespace Norvex::Core::Utils {

namespace {

const ErrorText* FindErrorText(long result) {
    const auto table = GetErrorTable();
    const auto entry = std::ranges::find(table, result, &ErrorText::code);
    return entry != table.end() ? &*entry : nullptr;
}

std::string SystemText(long result, DWORD language) {
    // Inserts are ignored: there are no arguments to fill them with.
    constexpr DWORD kFlags = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;
    std::array<wchar_t, 1024> buffer{};
    const DWORD length = FormatMessageW(kFlags, nullptr, static_cast<DWORD>(result), language,
                                        buffer.data(), static_cast<DWORD>(buffer.size()), nullptr);
    std::wstring_view text(buffer.data(), length);
    const auto last = text.find_last_not_of(std::wstring_view(L"\r\n \t\0", 5));
    return Utf8FromWstring(text.substr(0, last == text.npos ? 0 : last + 1));
}

// In English where the system has it, as the library's own sentences are; else in the user's
// language.
std::string SystemText(long result) {
    std::string text = SystemText(result, MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US));
    return text.empty() ? SystemText(result, 0) : text;
}

} // namespace

std::pair<std::string, std::string> GetErrorInfo(long result) {
    const ErrorText* known = FindErrorText(result);
    std::string code = known != nullptr
                           ? std::string(known->name)
                           : fmt::format("0x{:08X}", static_cast<std::uint32_t>(result));
    std::string description = SystemText(result);
    if (description.empty() && known != nullptr) {
        description = known->text;
    }
    return {std::move(code), std::move(description)};
}

} // namespace Norvex::Core::Utils
