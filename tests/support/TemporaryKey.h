#pragma once

// A key under HKEY_LOCAL_MACHINE while this object lives. Volatile, since parts of the registry are
// kept in memory only. Link advapi32.

#include <string>
#include <utility>

#include <boost/core/noncopyable.hpp>

#include "Platform/Direct3D.h"

namespace Norvex::Test {

class TemporaryKey : boost::noncopyable {
public:
    explicit TemporaryKey(std::wstring path) : m_path(std::move(path)) {}
    ~TemporaryKey() { RegDeleteTreeW(HKEY_LOCAL_MACHINE, m_path.c_str()); }

    // In the key itself or, by its path, one below; the data as the registry keeps them.
    void Set(const std::wstring& subkey, const wchar_t* name, DWORD type,
             const std::wstring& data) {
        HKEY key = nullptr;
        RegCreateKeyExW(HKEY_LOCAL_MACHINE, (m_path + subkey).c_str(), 0, nullptr,
                        REG_OPTION_VOLATILE, KEY_ALL_ACCESS, nullptr, &key, nullptr);
        RegSetKeyValueW(key, nullptr, name, type, data.data(),
                        static_cast<DWORD>(data.size() * sizeof(wchar_t)));
        RegCloseKey(key);
    }

private:
    std::wstring m_path;
};

} // namespace Norvex::Test
