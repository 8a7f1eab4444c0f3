#include "tests/support/ImportPatch.h"

#include <cstdint>
#include <stdexcept>
#include <string>

namespace Norvex::Test {

namespace {

// The place in the module's import table that holds the function's address; null when it is not
// imported by name.
void** FindImport(HMODULE module, const std::string& name) {
    auto* base = reinterpret_cast<std::uint8_t*>(module);
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const auto& directory = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    const auto* import =
        reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + directory.VirtualAddress);
    for (; import->Name != 0; ++import) {
        const auto* names =
            reinterpret_cast<const IMAGE_THUNK_DATA*>(base + import->OriginalFirstThunk);
        auto* addresses = reinterpret_cast<IMAGE_THUNK_DATA*>(base + import->FirstThunk);
        for (; names->u1.AddressOfData != 0; ++names, ++addresses) {
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) {
                continue;
            }
            const auto* byName =
                reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
            if (name == reinterpret_cast<const char*>(byName->Name)) {
                return reinterpret_cast<void**>(&addresses->u1.Function);
            }
        }
    }
    return nullptr;
}

} // namespace

void StoreProtected(void** place, void* value) {
    DWORD protection = 0;
    if (!VirtualProtect(static_cast<void*>(place), sizeof(void*), PAGE_READWRITE, &protection)) {
        throw std::runtime_error("the table cannot be written");
    }
    *place = value;
    VirtualProtect(static_cast<void*>(place), sizeof(void*), protection, &protection);
}

ImportPatch::ImportPatch(const wchar_t* module, const char* name, void* replacement)
    : m_place(FindImport(GetModuleHandleW(module), name)) {
    if (m_place == nullptr) {
        throw std::runtime_error(std::string("not imported: ") + name);
    }
    m_original = *m_place;
    StoreProtected(m_place, replacement);
}

ImportPatch::~ImportPatch() {
    StoreProtected(m_place, m_original);
}

} // namespace Norvex::Test
