#pragma once

// Read access to the Windows registry. Failures are empty results: whoever reads the registry has
// to live without the value. Nothing here throws except for lack of memory. One RegKey is used by
// one thread at a time.

#include <cstdint>
#include <optional>
#include <string>

#include "Platform/Direct3D.h"
#include "Platform/Export.h"

namespace Norvex::Core {

class NORVEX_HOST_API RegKey {
public:
    RegKey() = default;
    // Takes the open key; the other has none then.
    RegKey(RegKey&& other) noexcept;
    // Closes its own key and takes the other.
    RegKey& operator=(RegKey&& other) noexcept;
    ~RegKey();

    // Opens the subkey `path` of `parent` with `access` (KEY_READ, ...), closing what was open.
    // False on failure, and nothing is open then. A closed parent is a failure.
    bool Open(HKEY parent, const std::wstring& path, REGSAM access);
    bool Open(const RegKey& parent, const std::wstring& path, REGSAM access);
    // Nothing where none is open.
    void Close();
    // Whether a key is open.
    bool IsOpen() const { return m_key != nullptr; }

    // The name of subkey `index` (from 0); empty at the end and on failure.
    std::optional<std::wstring> EnumKey(std::uint32_t index) const;
    // The REG_SZ or REG_EXPAND_SZ value (not expanded), up to its terminating zero; empty when
    // missing or of another type.
    std::optional<std::wstring> QueryString(const std::wstring& name) const;
    // The REG_QWORD value; empty when missing, of another type or not of eight bytes.
    std::optional<std::uint64_t> QueryQword(const std::wstring& name) const;

private:
    HKEY m_key = nullptr;
};

} // namespace Norvex::Core
