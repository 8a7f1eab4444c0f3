#pragma once

// Puts a function of the test in the place of one that a loaded module imports, for as long as the
// patch lives. Calls of other modules are not touched. Throws std::runtime_error when the module
// does not import the function.

#include <boost/core/noncopyable.hpp>

#include "Platform/Direct3D.h"
#include "tests/support/FunctionOf.h"

namespace Norvex::Test {

// Writes where the memory is write-protected. Throws std::runtime_error.
void StoreProtected(void** place, void* value);
// The place in the module's import table that holds the function's address.
void** FindImport(const wchar_t* module, const char* name);

class ImportPatch : boost::noncopyable {
public:
    // ImportPatch(L"NorvexDX.dll", "GetProcAddress", &Replacement)
    template <class Function>
    ImportPatch(const wchar_t* module, const char* name, Function* replacement)
        : m_place(FindImport(module, name)),
          m_original(*m_place) {
        StoreProtected(m_place, reinterpret_cast<void*>(replacement));
    }
    // The same with a lambda without captures.
    template <class Lambda>
    ImportPatch(const wchar_t* module, const char* name, const Lambda& replacement)
        : ImportPatch(module, name, FunctionOf(replacement)) {}
    ~ImportPatch() { StoreProtected(m_place, m_original); }

private:
    void** m_place;
    void* m_original;
};

} // namespace Norvex::Test
