#pragma once

// Hands out the slots of a heap, lowest free index first; internal. Thread-safe; every operation is
// atomic on its own.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "Platform/Mutex.h"

namespace Norvex::DX {

class SlotBitmap {
public:
    static constexpr std::uint32_t kBitsPerWord = 64;

    explicit SlotBitmap(std::uint32_t slotCount); // all free

    // The lowest free slot, now in use; empty when there is none.
    std::optional<std::uint32_t> Allocate();
    // What make() makes to live in an allocated slot, which is free again when that throws.
    template <class Make>
    auto Fill(std::uint32_t slot, const Make& make) {
        try {
            return make();
        } catch (...) {
            Free(slot);
            throw;
        }
    }
    // The slot was allocated; this is not checked.
    void Free(std::uint32_t index);
    bool HasFree() const;
    std::size_t CountFree() const;

private:
    mutable Platform::Mutex m_mutex;
    std::vector<std::uint64_t> m_words; // bit set: slot in use, or past the end
};

} // namespace Norvex::DX
