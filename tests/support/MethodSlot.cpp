#include "tests/support/MethodSlot.h"

#include <array>
#include <utility>

namespace Norvex::Test {

namespace {

constexpr std::size_t kMaxSlots = 256;

std::size_t s_noted = 0;

// Answers its second argument: where a method that returns a structure is told to put it.
template <std::size_t slot>
void* WINAPI Note(void*, void* second) {
    s_noted = slot;
    return second;
}

template <std::size_t... slots>
constexpr auto MakeTable(std::index_sequence<slots...>) {
    return std::array{&Note<slots>...};
}

constexpr auto kTable = MakeTable(std::make_index_sequence<kMaxSlots>());

} // namespace

void* Detail::GetNotingObject() {
    static const auto* table = kTable.data(); // what an object begins with
    return static_cast<void*>(&table);
}

std::size_t Detail::GetNotedSlot() {
    return s_noted;
}

} // namespace Norvex::Test
