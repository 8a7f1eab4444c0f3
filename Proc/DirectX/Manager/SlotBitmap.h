#pragma once

// Hands out the slots of a heap, lowest free index first. Thread-safe; every operation is atomic on
// its own.

#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "Platform/Export.h"

namespace Norvex::DX {

class NORVEX_DX_API SlotBitmap {
public:
    SlotBitmap() = default;
    explicit SlotBitmap(std::uint32_t slotCount) { Resize(slotCount); }

    // Sizes to n slots; new ones are free, those in use stay so. Never to fewer than before. Out of
    // memory nothing changes.
    void Resize(std::uint32_t slotCount);
    // The lowest free slot, now in use; empty when there is none.
    std::optional<std::uint32_t> Allocate();
    // The slot was allocated; this is not checked.
    void Free(std::uint32_t index);
    bool HasFree() const;

private:
    mutable std::mutex m_mutex;
    std::vector<std::uint64_t> m_words; // bit set: slot in use, or past the end
    std::uint32_t m_slotCount = 0;
};

} // namespace Norvex::DX
