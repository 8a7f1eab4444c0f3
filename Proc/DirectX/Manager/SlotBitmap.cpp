#include "Proc/DirectX/Manager/SlotBitmap.h"

#include <algorithm>
#include <bit>

namespace Norvex::DX {

namespace {

constexpr std::uint32_t kBitsPerWord = 64;
constexpr std::uint64_t kFullWord = ~std::uint64_t{0};

constexpr std::uint64_t BitOf(std::uint32_t index) {
    return std::uint64_t{1} << (index % kBitsPerWord);
}

// The bits of index's word from index on.
constexpr std::uint64_t BitsFrom(std::uint32_t index) {
    return kFullWord << (index % kBitsPerWord);
}

} // namespace

void SlotBitmap::Resize(std::uint32_t slotCount) {
    const std::scoped_lock lock(m_mutex);
    // First, since it may run out of memory: nothing has changed then.
    m_words.resize(slotCount / kBitsPerWord + (slotCount % kBitsPerWord != 0 ? 1 : 0));
    if (m_slotCount % kBitsPerWord != 0) {
        m_words[m_slotCount / kBitsPerWord] &= ~BitsFrom(m_slotCount);
    }
    if (slotCount % kBitsPerWord != 0) {
        m_words.back() |= BitsFrom(slotCount);
    }
    m_slotCount = slotCount;
}

std::optional<std::uint32_t> SlotBitmap::Allocate() {
    const std::scoped_lock lock(m_mutex);
    const auto word =
        std::ranges::find_if(m_words, [](std::uint64_t bits) { return bits != kFullWord; });
    if (word == m_words.end()) {
        return std::nullopt;
    }
    const auto bit = static_cast<std::uint32_t>(std::countr_zero(~*word));
    *word |= BitOf(bit);
    return static_cast<std::uint32_t>(word - m_words.begin()) * kBitsPerWord + bit;
}

void SlotBitmap::Free(std::uint32_t index) {
    const std::scoped_lock lock(m_mutex);
    m_words[index / kBitsPerWord] &= ~BitOf(index);
}

bool SlotBitmap::HasFree() const {
    const std::scoped_lock lock(m_mutex);
    return std::ranges::any_of(m_words, [](std::uint64_t bits) { return bits != kFullWord; });
}

} // namespace Norvex::DX
