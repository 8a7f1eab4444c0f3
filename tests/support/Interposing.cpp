// What MethodPatch.h and FakeObject.h keep out of sight of the compiler, which may
// take tables of functions for constant.

#include <array>
#include <map>
#include <stdexcept>
#include <string>

#include "tests/support/FakeObject.h"
#include "tests/support/NamedFunction.h"

namespace Norvex::Test {

namespace {

template <class Record>
Record* At(HMODULE module, std::size_t offset) {
    return reinterpret_cast<Record*>(reinterpret_cast<char*>(module) + offset);
}

template <std::size_t slot>
std::size_t WINAPI GetPlace(void*) {
    return slot;
}

constexpr auto kPlaces = []<std::size_t... slots>(std::index_sequence<slots...>) {
    return std::array{&GetPlace<slots>...};
}(std::make_index_sequence<256>());

struct Named {
    void* caller;
    void** place; // of the system's
};
std::map<std::string, Named>& GetNamed() {
    static std::map<std::string, Named> named;
    return named;
}

FARPROC WINAPI FindFunction(HMODULE module, const char* name) {
    auto* const found = GetProcAddress(module, name);
    const auto named = GetNamed().find(name);
    if (found == nullptr || named == GetNamed().end()) {
        return found;
    }
    *named->second.place = reinterpret_cast<void*>(found);
    return reinterpret_cast<FARPROC>(named->second.caller);
}

} // namespace

NamedPlace::NamedPlace(const char* name, void* caller) {
    GetNamed()[name] = {caller, &m_function};
    StoreProtected(FindImport(L"NorvexDX.dll", "GetProcAddress"),
                   reinterpret_cast<void*>(&FindFunction));
}

void StoreProtected(void** place, void* value) {
    DWORD protection = 0;
    if (!VirtualProtect(static_cast<void*>(place), sizeof(void*), PAGE_READWRITE, &protection)) {
        throw std::runtime_error("the table cannot be written");
    }
    *place = value;
    VirtualProtect(static_cast<void*>(place), sizeof(void*), protection, &protection);
}

void** FindImport(const wchar_t* module, const char* name, const char* otherName) {
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
    if (otherName != nullptr) {
        return FindImport(module, otherName);
    }
    throw std::runtime_error(std::string("not imported: ") + name);
}

void* GetObjectOfPlaces() {
    static const auto* table = kPlaces.data(); // what an object begins with
    return static_cast<void*>(&table);
}

FakeObject::FakeObject() {
    m_table = m_methods.data();
    m_methods.fill(
        reinterpret_cast<void*>(FunctionOf([](FakeObject*) -> HRESULT { return E_NOTIMPL; })));
    Set(kQueryInterface, [](FakeObject*, REFIID, void** out) -> HRESULT {
        *out = nullptr;
        return E_NOINTERFACE;
    });
    Set(&IUnknown::AddRef,
        [](FakeObject* self) { return static_cast<ULONG>(++self->m_references); });
    Set(&IUnknown::Release,
        [](FakeObject* self) { return static_cast<ULONG>(--self->m_references); });
}

HRESULT FakeObject::GiveTo(void** out) {
    ++m_references;
    *out = this;
    return S_OK;
}

void FakeObject::Store(std::size_t slot, void* method) {
    m_methods.at(slot) = method;
}

} // namespace Norvex::Test
