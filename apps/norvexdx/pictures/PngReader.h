#pragma once

// PNG into pixels through libpng. Any thread. Throws Failure, without the file's name.

#include <cstdint>
#include <span>

#include "apps/norvexdx/pictures/Image.h"

namespace Norvex::App {

bool IsPng(std::span<const std::uint8_t> file);

// Grey, palettes and fewer bits are expanded, samples are not changed: gamma, profiles and
// backgrounds are not applied.
Image ReadPng(std::span<const std::uint8_t> file);

} // namespace Norvex::App
