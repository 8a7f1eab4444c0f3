#pragma once

// What the twins of both generations share: the geometry and sizes of what is drawn.

#include <array>
#include <cstdint>
#include <stdexcept>

#include "Platform/Direct3D.h"

namespace Norvex::Bench {

// Frames that the GPU may be behind, in every way of drawing.
inline constexpr unsigned kFramesInFlight = 3;
// Small: it is recording that is measured.
inline constexpr unsigned kPictureSize = 16;
inline constexpr std::uint32_t kBytesOfConstants = 256;

struct Vertex {
    float x, y, w, u, v;
};
inline constexpr std::array<Vertex, 4> kQuad = {
    {{-1, -1, 1, 0, 1}, {-1, 1, 1, 0, 0}, {1, -1, 1, 1, 1}, {1, 1, 1, 1, 0}}};

// Throws std::runtime_error.
inline void Check(HRESULT result) {
    if (FAILED(result)) {
        throw std::runtime_error("a call of a twin failed");
    }
}

} // namespace Norvex::Bench
