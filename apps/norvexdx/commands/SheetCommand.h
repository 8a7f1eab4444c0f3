#pragma once

// `norvexdx sheet`. Called once, from the main thread.

#include <optional>
#include <string>
#include <vector>

#include "apps/norvexdx/graphics/Graphics.h"

namespace Norvex::App {

struct SheetOptions {
    std::string output;
    std::vector<std::string> inputs; // at least one
    GraphicsChoice graphics;
    std::optional<unsigned> columns; // as square as possible without
    DX::Size2DT<long> cell = {320, 240};
    unsigned gap = 8; // pixels between pictures and around them
    Proc::ColorF background = {0.125F, 0.125F, 0.125F, 1.0F};
    bool json = false;
};

// Draws all pictures into one, in rows that their own shapes fill, each with its file's name below,
// in sRGB: pictures whose file tells another colour space are converted. Throws Failure at the
// first picture that cannot be read, and what the library throws.
void RunSheet(const SheetOptions& options);

} // namespace Norvex::App
