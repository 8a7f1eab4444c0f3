#pragma once

// While it lives, the library's DLL gets no memory from operator new on the thread that made it,
// or only so many times more. Not nested.

#include <cstdlib>
#include <new>
#include <stdexcept>

#include "tests/support/MethodPatch.h"

namespace Norvex::Test {

class OutOfMemory {
public:
    explicit OutOfMemory(int allocationsLeft = 0) {
        [[maybe_unused]] static const bool isInterposed = Interpose();
        s_allocationsLeft = allocationsLeft;
        s_thread = GetCurrentThreadId();
    }
    ~OutOfMemory() { s_thread = 0; }

private:
    // For good. The C++ runtime's operator new is imported, or is part of the DLL and imports
    // malloc.
    static bool Interpose() {
        try {
            StoreProtected(FindImport(L"NorvexDX.dll", "_Znwy"), reinterpret_cast<void*>(&New));
        } catch (const std::runtime_error&) {
            StoreProtected(FindImport(L"NorvexDX.dll", "malloc"), reinterpret_cast<void*>(&Malloc));
        }
        return true;
    }
    static bool IsRefused() { return s_thread == GetCurrentThreadId() && s_allocationsLeft-- <= 0; }
    static void* New(std::size_t size) {
        return IsRefused() ? throw std::bad_alloc() : ::operator new(size);
    }
    static void* Malloc(std::size_t size) { return IsRefused() ? nullptr : std::malloc(size); }

    static inline DWORD s_thread = 0;
    static inline int s_allocationsLeft = 0;
};

} // namespace Norvex::Test
