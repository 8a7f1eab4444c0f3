#pragma once

// How a picture lies on the rectangle it is drawn into, by the library's rules. Plain values and a
// pure function, any thread.

#include <array>
#include <optional>

#include "Proc/DirectX/Manager/CommonTypes.h"
#include "Proc/DirectX/Manager/D3ImageRenderer.h"

namespace Norvex::App {

struct View {
    DX::RenderFitMode fit = DX::RenderFitMode::Fit;
    std::optional<float> scale;            // of the free mode: target pixels per source pixel
    float rotationDegrees = 0.0F;          // counter-clockwise
    std::array<float, 2> translation = {}; // pixels, right and down
};

struct Placement {
    DX::AffineTransform transform; // as the library's image draws take it
    float scale = 1.0F;            // target pixels per source pixel
};

// Sizes in pixels.
Placement PlacePicture(const View& view, const DX::Size2DT<long>& source,
                       const DX::Size2DT<long>& target);

} // namespace Norvex::App
