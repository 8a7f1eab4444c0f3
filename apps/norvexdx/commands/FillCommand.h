#pragma once

// `norvexdx fill`. Called once, from the main thread.

#include <optional>
#include <string>

#include "apps/norvexdx/graphics/Graphics.h"

namespace Norvex::App {

struct FillOptions {
    std::string output;
    GraphicsChoice graphics;
    Proc::ColorF color;
    DX::Size2DT<long> size;
    std::optional<DX::Rect2DT<long>> rect; // the whole picture without one
    Proc::ColorF background;               // transparent black
    unsigned depth = 8;
    bool json = false;
};

// Fills a rectangle of a new picture with a colour. Throws Failure and what the library throws.
void RunFill(const FillOptions& options);

} // namespace Norvex::App
