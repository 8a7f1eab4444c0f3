#pragma once

// Puts a function of the test in the place of one COM method, for as long as the patch lives:
// MethodPatch<&ID3D12Device::CreateFence> patch(device, [](auto original, ID3D12Device* self,
// auto... args) { ... }). All objects of the class share the method table, so the others are
// patched too. Patches of one method do not nest. The function may run on any thread.

#include <cstddef>
#include <functional>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "tests/support/ImportPatch.h"
#include "tests/support/MethodSlot.h"

namespace Norvex::Test {

// A method as a plain function. One that returns a structure, where the toolchain has such, is told
// after the object where to put it.
template <class Result, class Object, class... Args>
auto MakeSignature(Result (WINAPI Object::*)(Args...)) {
    if constexpr (std::is_class_v<Result>) {
        return std::type_identity<Result*(Object*, Result*, Args...)>();
    } else {
        return std::type_identity<Result(Object*, Args...)>();
    }
}
template <auto method>
using SignatureOf = typename decltype(MakeSignature(method))::type;

// The signature is given where the method is inherited and objects of several classes are patched.
template <auto method, class Signature = SignatureOf<method>>
class MethodPatch;

template <auto method, class Result, class... Args>
class MethodPatch<method, Result(Args...)> {
public:
    using Original = Result(WINAPI*)(Args...);
    using Function = std::function<Result(Original, Args...)>;

    MethodPatch(IUnknown* object, Function function)
        : m_entry(*reinterpret_cast<void***>(object) + SlotOf(method)),
          m_function(std::move(function)),
          m_original(reinterpret_cast<Original>(*m_entry)) {
        if (s_current != nullptr) {
            throw std::logic_error("this method is already patched");
        }
        s_current = this;
        StoreProtected(m_entry, reinterpret_cast<void*>(&Call));
    }
    ~MethodPatch() {
        StoreProtected(m_entry, reinterpret_cast<void*>(m_original));
        s_current = nullptr;
    }
    MethodPatch(const MethodPatch&) = delete;
    MethodPatch& operator=(const MethodPatch&) = delete;

private:
    static Result WINAPI Call(Args... args) {
        return s_current->m_function(s_current->m_original, args...);
    }

    static inline MethodPatch* s_current = nullptr;

    void** m_entry;
    Function m_function;
    Original m_original;
};

// Makes a method answer a failure. It needs none of its other arguments, since on x64 it is the
// caller who takes them off the stack.
template <auto method>
class FailingMethod {
public:
    FailingMethod(IUnknown* object, HRESULT result)
        : m_patch(object, [result](auto, IUnknown*) { return result; }) {}

private:
    MethodPatch<method, HRESULT(IUnknown*)> m_patch;
};

} // namespace Norvex::Test
