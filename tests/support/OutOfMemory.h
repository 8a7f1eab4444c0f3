#pragma once

// While it lives, the library's DLL gets no memory from operator new on the thread that made it,
// or only so many times more. Not nested.

#include <cstdlib>
#include <new>
#include <optional>
#include <stdexcept>

#include "tests/support/ImportPatch.h"

namespace Norvex::Test {

class OutOfMemory {
public:
    // The C++ runtime's operator new is imported, or is part of the DLL and imports malloc.
    explicit OutOfMemory(int allocationsLeft = 0) {
        try {
            m_patch.emplace(L"NorvexDX.dll", "_Znwy", [](std::size_t size) {
                return IsRefused() ? throw std::bad_alloc() : ::operator new(size);
            });
        } catch (const std::runtime_error&) {
            m_patch.emplace(L"NorvexDX.dll", "malloc", [](std::size_t size) {
                return IsRefused() ? nullptr : std::malloc(size);
            });
        }
        s_allocationsLeft = allocationsLeft;
        s_thread = GetCurrentThreadId();
    }
    ~OutOfMemory() { s_thread = 0; }

private:
    static bool IsRefused() { return s_thread == GetCurrentThreadId() && s_allocationsLeft-- <= 0; }
    static inline DWORD s_thread = 0;
    static inline int s_allocationsLeft = 0;
    std::optional<ImportPatch> m_patch;
};

} // namespace Norvex::Test
