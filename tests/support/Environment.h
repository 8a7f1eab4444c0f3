#pragma once

// What a longer run sets.

#include <cstdlib>

namespace Norvex::Test {

inline unsigned FromEnvironment(const char* name, unsigned otherwise) {
    const char* const text = std::getenv(name);
    return text != nullptr ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

} // namespace Norvex::Test
