#include "tests/support/MethodPatch.h"

#include <array>

namespace Norvex::Test {

namespace {

template <std::size_t slot>
std::size_t WINAPI GetPlace(void*) {
    return slot;
}

template <std::size_t... slots>
constexpr auto MakeTable(std::index_sequence<slots...>) {
    return std::array{&GetPlace<slots>...};
}

constexpr auto kTable = MakeTable(std::make_index_sequence<256>());

} // namespace

void* GetObjectOfPlaces() {
    static const auto* table = kTable.data(); // what an object begins with
    return static_cast<void*>(&table);
}

} // namespace Norvex::Test
