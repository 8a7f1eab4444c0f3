#pragma once

// While it lives, the library's DLL gets no memory from operator new on the thread that made it,
// or only so many times more, or is refused so many times only. Not nested.

#include <cstdlib>
#include <limits>
#include <new>
#include <stdexcept>

#include "tests/support/MethodPatch.h"

namespace Norvex::Test {

class OutOfMemory {
public:
    explicit OutOfMemory(int allocationsLeft = 0, int refusals = kAlways) {
        [[maybe_unused]] static const bool isInterposed = Interpose();
        s_allocations = 0;
        s_allocationsLeft = allocationsLeft;
        s_refusals = refusals;
        s_thread = GetCurrentThreadId();
    }
    ~OutOfMemory() { s_thread = 0; }

    // Of the last one, whether refused or not.
    static int CountAllocations() { return s_allocations; }

private:
    static constexpr int kAlways = std::numeric_limits<int>::max();

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
    static bool IsRefused() {
        const int left = s_thread == GetCurrentThreadId() ? s_allocationsLeft - s_allocations++ : 1;
        return left <= 0 && left > -s_refusals;
    }
    static void* New(std::size_t size) {
        return IsRefused() ? throw std::bad_alloc() : ::operator new(size);
    }
    static void* Malloc(std::size_t size) { return IsRefused() ? nullptr : std::malloc(size); }

    static inline DWORD s_thread = 0;
    static inline int s_allocations = 0;
    static inline int s_allocationsLeft = 0;
    static inline int s_refusals = kAlways;
};

} // namespace Norvex::Test
