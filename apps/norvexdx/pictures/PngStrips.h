#pragma once

// The rows of a PNG file as one zlib stream (RFC 1950), compressed strip by strip on all
// processors. Any thread. Next: PngRows.h.

#include <cstdint>
#include <functional>
#include <span>

#include "apps/norvexdx/pictures/PngRows.h"

namespace Norvex::App {

// Calls back with one part of the stream after the other, on the caller's thread, which compresses
// as well; where the system has no other threads left, it does so alone. There is at least one row.
// A few MiB a processor are needed. Throws what `write` throws, Failure when zlib does not do what
// it should, and for lack of memory.
void CompressRows(const PngRows& rows,
                  const std::function<void(std::span<const std::uint8_t>)>& write);

} // namespace Norvex::App
