#include "Host/Registry.h"

#include <array>
#include <utility>

namespace Norvex::Core {

namespace {

constexpr DWORD kMaxKeyNameLength = 255; // documented limit of the registry, without the zero

} // namespace

RegKey::RegKey(RegKey&& other) noexcept : m_key(std::exchange(other.m_key, nullptr)) {}

RegKey& RegKey::operator=(RegKey&& other) noexcept {
    if (this != &other) {
        Close();
        m_key = std::exchange(other.m_key, nullptr);
    }
    return *this;
}

RegKey::~RegKey() {
    Close();
}

bool RegKey::Open(HKEY parent, const std::wstring& path, REGSAM access) {
    // Opened first and closed after: the parent may be this very key.
    HKEY opened = nullptr;
    const bool done = RegOpenKeyExW(parent, path.c_str(), 0, access, &opened) == ERROR_SUCCESS;
    Close();
    m_key = done ? opened : nullptr;
    return done;
}

bool RegKey::Open(const RegKey& parent, const std::wstring& path, REGSAM access) {
    return Open(parent.m_key, path, access);
}

void RegKey::Close() {
    if (HKEY key = std::exchange(m_key, nullptr)) {
        RegCloseKey(key);
    }
}

std::optional<std::wstring> RegKey::EnumKey(std::uint32_t index) const {
    std::array<wchar_t, kMaxKeyNameLength + 1> name{};
    DWORD length = kMaxKeyNameLength + 1;
    if (RegEnumKeyExW(m_key, index, name.data(), &length, nullptr, nullptr, nullptr, nullptr) !=
        ERROR_SUCCESS) {
        return std::nullopt;
    }
    return std::wstring(name.data(), length);
}

std::optional<std::wstring> RegKey::QueryString(const std::wstring& name) const {
    constexpr DWORD kFlags = RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND;
    std::wstring text;
    DWORD bytes = 0;
    LSTATUS status = RegGetValueW(m_key, nullptr, name.c_str(), kFlags, nullptr, nullptr, &bytes);
    // The value may grow between asking for its size and reading it.
    while (status == ERROR_SUCCESS || status == ERROR_MORE_DATA) {
        // One more than is told of, so that a zero ends whatever comes.
        text.assign(bytes / sizeof(wchar_t) + 2, L'\0');
        bytes = static_cast<DWORD>((text.size() - 1) * sizeof(wchar_t));
        status = RegGetValueW(m_key, nullptr, name.c_str(), kFlags, nullptr, text.data(), &bytes);
        if (status == ERROR_SUCCESS) {
            text.resize(text.find(L'\0'));
            return text;
        }
    }
    return std::nullopt;
}

std::optional<std::uint64_t> RegKey::QueryQword(const std::wstring& name) const {
    std::uint64_t value = 0;
    DWORD bytes = sizeof(value);
    const LSTATUS status =
        RegGetValueW(m_key, nullptr, name.c_str(), RRF_RT_REG_QWORD, nullptr, &value, &bytes);
    return status == ERROR_SUCCESS && bytes == sizeof(value) ? std::optional(value) : std::nullopt;
}

} // namespace Norvex::Core
