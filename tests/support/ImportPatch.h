#pragma once

// Puts a function of the test in the place of one that a loaded module imports, for as long as the
// patch lives. Calls of other modules are not touched. Throws std::runtime_error when the module
// does not import the function.

#include <functional>

#include <boost/core/noncopyable.hpp>

#include "Platform/Direct3D.h"

namespace Norvex::Test {

// Writes where the memory is write-protected. Throws std::runtime_error.
void StoreProtected(void** place, void* value);
// The place in the module's import table that holds the function's address.
void** FindImport(const wchar_t* module, const char* name);

// A function, or a lambda without captures, as a plain function. (A plus before the lambda is
// ambiguous to some of Microsoft's compilers, which offer a conversion for each calling
// convention.)
template <class Result, class... Parameters>
auto PlainFunction(const std::function<Result(Parameters...)>&) -> Result (*)(Parameters...);
template <class Function>
auto* FunctionOf(const Function& function) {
    return static_cast<decltype(PlainFunction(std::function(function)))>(function);
}

class ImportPatch : boost::noncopyable {
public:
    // ImportPatch(L"NorvexDX.dll", "GetProcAddress", &Replacement), or a lambda without captures
    template <class Function>
    ImportPatch(const wchar_t* module, const char* name, const Function& replacement)
        : m_place(FindImport(module, name)),
          m_original(*m_place) {
        StoreProtected(m_place, reinterpret_cast<void*>(FunctionOf(replacement)));
    }
    ~ImportPatch() { StoreProtected(m_place, m_original); }

private:
    void** m_place;
    void* m_original;
};

} // namespace Norvex::Test
