#include "tests/support/ImportPatch.h"

#include <stdexcept>
#include <string>

namespace Norvex::Test {

namespace {

template <class Record>
Record* At(HMODULE module, std::size_t offset) {
    return reinterpret_cast<Record*>(reinterpret_cast<char*>(module) + offset);
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

void** FindImport(const wchar_t* module, const char* name) {
    auto* const base = GetModuleHandleW(module);
    const auto headerPlace = static_cast<std::size_t>(At<IMAGE_DOS_HEADER>(base, 0)->e_lfanew);
    const auto* header = At<IMAGE_NT_HEADERS>(base, headerPlace);
    const auto& table = header->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    const auto* import = At<IMAGE_IMPORT_DESCRIPTOR>(base, table.VirtualAddress);
    for (; import->Name != 0; ++import) {
        const auto* entry = At<IMAGE_THUNK_DATA>(base, import->OriginalFirstThunk);
        auto* address = At<void*>(base, import->FirstThunk);
        for (; entry->u1.AddressOfData != 0; ++entry, ++address) {
            if (!IMAGE_SNAP_BY_ORDINAL(entry->u1.Ordinal) &&
                std::string(name) == At<char>(base, entry->u1.AddressOfData + sizeof(WORD))) {
                return address;
            }
        }
    }
    throw std::runtime_error(std::string("not imported: ") + name);
}

} // namespace Norvex::Test
