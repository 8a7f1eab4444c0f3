#pragma once

// The place of a COM method in its interface's method table, found without a list of them and on
// any toolchain: the method is called on an object whose methods only note their own places. One
// thread.

#include <concepts>
#include <cstddef>
#include <type_traits>

#include "Platform/Direct3D.h"

namespace Norvex::Test {

namespace Detail {
void* GetNotingObject();
std::size_t GetNotedSlot();
} // namespace Detail

template <class Result, class Object, class... Args>
std::size_t SlotOf(Result (WINAPI Object::*method)(Args...)) {
    static_cast<void>(
        (static_cast<Object*>(Detail::GetNotingObject())->*method)(std::remove_cvref_t<Args>()...));
    return Detail::GetNotedSlot();
}
// A place that is known already.
template <std::integral Slot>
constexpr std::size_t SlotOf(Slot slot) {
    return static_cast<std::size_t>(slot);
}

// Its name alone says too little, since it is overloaded.
inline constexpr HRESULT (WINAPI IUnknown::*kQueryInterface)(REFIID,
                                                             void**) = &IUnknown::QueryInterface;

} // namespace Norvex::Test
