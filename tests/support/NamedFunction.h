#pragma once

// A function that the library finds by its name, once: from a test program's start on it finds this
// one, which calls the system's, or whatever a MethodPatch puts in its place. Of static storage.

#include "tests/support/MethodPatch.h"

namespace Norvex::Test {

class NamedPlace : boost::noncopyable {
public:
    void** Get() { return &m_function; }

protected:
    NamedPlace(const char* name, void* caller);

private:
    void* m_function = nullptr; // null until the library has asked for it
};

template <class Signature>
class NamedFunction;
template <class Result, class... Args>
class NamedFunction<Result(Args...)> : public NamedPlace {
public:
    explicit NamedFunction(const char* name) : NamedPlace(name, reinterpret_cast<void*>(&Call)) {
        s_current = this;
    }

private:
    static Result WINAPI Call(Args... args) {
        return reinterpret_cast<Result(WINAPI*)(Args...)>(*s_current->Get())(args...);
    }

    static inline NamedPlace* s_current = nullptr;
};

} // namespace Norvex::Test
