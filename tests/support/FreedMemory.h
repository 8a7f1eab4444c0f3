#pragma once

// From now on memory that the library's DLL frees is overwritten and kept for a while, so that who
// uses an object after its death ends the program. Any thread.

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <stdexcept>

#include "tests/support/MethodPatch.h"

namespace Norvex::Test {

// In the place of operator delete, or of free, of which it is made elsewhere.
inline void FreeLater(void* memory) {
    static std::atomic<std::size_t> count = 0;
    static std::array<std::atomic<void*>, 1 << 16> kept;
    if (memory != nullptr) {
        std::memset(memory, 0xdd, _msize(memory));
        std::free(kept[count++ % kept.size()].exchange(memory));
    }
}

inline void KeepFreedMemory() {
    for (const char* name : {"_ZdlPv", "_ZdlPvy", "free"}) {
        try {
            StoreProtected(FindImport(L"NorvexDX.dll", name), reinterpret_cast<void*>(&FreeLater));
        } catch (const std::runtime_error&) {
            continue; // not used
        }
    }
}

} // namespace Norvex::Test
