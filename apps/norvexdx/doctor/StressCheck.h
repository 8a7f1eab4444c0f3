#pragma once

// Drawing on several threads at once: whatever goes to the device comes back as it was. Called from
// one thread. Throws what drawing throws, the first that fails.

#include "apps/norvexdx/graphics/Graphics.h"

namespace Norvex::App {

struct StressResult {
    unsigned threads = 0;
    std::size_t pictures = 0;
    std::size_t wrong = 0; // of them
};

StressResult RunStress(Graphics& graphics, double seconds);

} // namespace Norvex::App
