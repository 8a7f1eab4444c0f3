#pragma once

// Puts a function of the test in the place of one COM method, for as long as the patch lives:
// MethodPatch<&ID3D12Device::CreateFence> patch(device, [](auto original, ID3D12Device* self,
// auto... args) { ... }). All objects of the class share the method table, so the others are
// patched too. Patches of one method nest where their tags differ, the outer made last and gone
// first. The function may run on any thread. The same for an imported function:
// MethodPatch<0, decltype(D3D11CreateDevice)> patch(FindImport(...), ...).

#include <bit>
#include <cstddef>
#include <functional>
#include <utility>

#include <boost/core/noncopyable.hpp>

#include "Platform/Direct3D.h"

namespace Norvex::Test {

// Writes where the memory is write-protected. Throws std::runtime_error.
void StoreProtected(void** place, void* value);
// The place in the module's import table that holds the function's address; of the other one where
// that is not imported. Throws std::runtime_error.
void** FindImport(const wchar_t* module, const char* name, const char* otherName = nullptr);

// An object whose methods answer their places in the method table.
void* GetObjectOfPlaces();

// The place of a COM method in its interface's method table, found without a list of them and on
// any toolchain: nothing but the place is passed on to that object's method.
template <class Result, class Object, class... Args>
std::size_t SlotOf(Result (WINAPI Object::*method)(Args...)) {
    const auto place = std::bit_cast<std::size_t (WINAPI Object::*)()>(method);
    return (static_cast<Object*>(GetObjectOfPlaces())->*place)();
}

// Its name alone says too little, since it is overloaded.
inline constexpr HRESULT (WINAPI IUnknown::*kQueryInterface)(REFIID,
                                                             void**) = &IUnknown::QueryInterface;

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
// The signature is given where the method is inherited and objects of several classes are patched.
template <auto method, class Signature = typename decltype(MakeSignature(method))::type,
          class Tag = void>
class MethodPatch;

template <auto method, class Result, class... Args, class Tag>
class MethodPatch<method, Result(Args...), Tag> : boost::noncopyable {
public:
    using Original = Result(WINAPI*)(Args...);
    using Function = std::function<Result(Original, Args...)>;

    MethodPatch(IUnknown* object, Function function)
        : MethodPatch(*reinterpret_cast<void***>(object) + SlotOf(method), std::move(function)) {}
    MethodPatch(void** entry, Function function)
        : m_entry(entry),
          m_function(std::move(function)),
          m_original(reinterpret_cast<Original>(*entry)) {
        s_current = this;
        StoreProtected(m_entry, reinterpret_cast<void*>(&Call));
    }
    ~MethodPatch() {
        StoreProtected(m_entry, reinterpret_cast<void*>(m_original));
        s_current = nullptr;
    }

private:
    static Result WINAPI Call(Args... args) {
        return s_current->m_function(s_current->m_original, args...);
    }

    static inline MethodPatch* s_current = nullptr;

    void** m_entry;
    Function m_function;
    Original m_original;
};

// Makes methods answer a failure. They need none of their other arguments, since on x64 it is the
// caller who takes them off the stack.
template <auto... methods>
class FailingMethod : MethodPatch<methods, HRESULT(IUnknown*)>... {
public:
    FailingMethod(IUnknown* object, HRESULT result)
        : MethodPatch<methods, HRESULT(IUnknown*)>(
              object, [result](auto, IUnknown*) { return result; })... {}
};

} // namespace Norvex::Test
