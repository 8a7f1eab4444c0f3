#pragma once

// Descriptions as texts to compare: their 32-bit words, without those at the end that are zero. For
// structures without padding. Pure function.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <fmt/ranges.h>

#include "Platform/Direct3D.h"

namespace Norvex::Test {

template <class Value>
std::string WordsOf(const Value* values, std::size_t count = 1) {
    if (values == nullptr || count == 0) {
        return "none";
    }
    std::vector<std::int32_t> words(count * sizeof(Value) / sizeof(std::int32_t));
    std::copy_n(reinterpret_cast<const std::byte*>(values), count * sizeof(Value),
                reinterpret_cast<std::byte*>(words.data()));
    while (!words.empty() && words.back() == 0) {
        words.pop_back();
    }
    return fmt::format("{}", fmt::join(words, " "));
}

} // namespace Norvex::Test
