#include "Proc/DirectX/Manager/SlotBitmap.h"

#include <algorithm>
#include <bit>

namespace Norvex::DX {

namespace {

constexpr auto kBitsPerWord = SlotBitmap::kBitsPerWord;
constexpr std::uint64_t kFullWord = ~std::uint64_t{0};

constexpr std::uint64_t BitOf(std::uint32_t index) {
    return std::uint64_t{1} << (index % kBitsPerWord);
}

} // namespace

SlotBitmap::SlotBitmap(std::uint32_t slotCount) : m_words(slotCount / kBitsPerWord) {
    if (slotCount % kBitsPerWord != 0) {
        m_words.push_back(kFullWord << (slotCount % kBitsPerWord));
    }
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

std::size_t SlotBitmap::CountFree() const {
    const std::scoped_lock lock(m_mutex);
    std::size_t count = 0;
    for (const std::uint64_t bits : m_words) {
        count += static_cast<std::size_t>(std::popcount(~bits));
    }
    return count;
}

} // namespace Norvex::DX
