#pragma once

// A COM object with only the methods that a test gives it, for interfaces that the system lacks: a
// test derives from it, sets methods by their places in the method table, and has the library call
// them. Any other method answers E_NOTIMPL. It lives as long as the test says, whatever its
// references. Any thread, as far as the methods given are.

#include <array>
#include <atomic>
#include <functional>

#include "tests/support/MethodPatch.h"

namespace Norvex::Test {

// A lambda without captures, or a function, as a plain function. (A plus before the lambda is
// ambiguous to some of Microsoft's compilers, which offer a conversion for each calling
// convention.)
template <class Result, class... Parameters>
auto PlainFunction(const std::function<Result(Parameters...)>&) -> Result (*)(Parameters...);
template <class Function>
auto* FunctionOf(const Function& function) {
    return static_cast<decltype(PlainFunction(std::function(function)))>(function);
}

class FakeObject : boost::noncopyable {
public:
    FakeObject();

    template <class Interface>
    Interface* As() {
        return reinterpret_cast<Interface*>(this);
    }
    // Hands out a reference, as methods with such a parameter do.
    HRESULT GiveTo(void** out);
    // The references that others hold.
    int GetReferences() const { return m_references; }

protected:
    // In the place of a method that interfaces have there: a lambda without captures, whose first
    // parameter is the object itself, as a pointer to the deriving class, which has no virtual
    // functions.
    template <class Place, class Method>
    void Set(const Place& place, const Method& method) {
        Store(SlotOf(place), reinterpret_cast<void*>(FunctionOf(method)));
    }

private:
    // Out of sight of the compiler, which may take the method table for constant.
    void Store(std::size_t slot, void* method);

    void** m_table = nullptr;           // first: what an interface pointer points to
    std::array<void*, 160> m_methods{}; // more than any interface has
    std::atomic<int> m_references{0};
};

} // namespace Norvex::Test
