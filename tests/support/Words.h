#pragma once

// Descriptions as texts to compare: their 32-bit words, without those at the end that are zero. For
// structures without padding. Pure function.

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <fmt/ranges.h>

namespace Norvex::Test {

template <class Value>
std::string WordsOf(const Value* values, std::size_t count = 1) {
    if (values == nullptr || count == 0) {
        return "none";
    }
    std::vector<std::int32_t> words(count * sizeof(Value) / sizeof(std::int32_t));
    std::memcpy(words.data(), values, count * sizeof(Value));
    while (!words.empty() && words.back() == 0) {
        words.pop_back();
    }
    return fmt::format("{}", fmt::join(words, " "));
}

} // namespace Norvex::Test
