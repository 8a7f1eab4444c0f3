#pragma once

// The scaling of a picture in double precision, for tests and reports to judge pictures by. Each
// pixel follows from the formulas by themselves: every pixel of the source that the kernel reaches,
// those beyond an edge the same as the one at the edge, in one sum, first along rows, then along
// columns. Pure functions.

#include <functional>
#include <optional>
#include <vector>

#include "Host/Color.h"
#include "apps/norvexdx/reference/ColorReference.h"

namespace Norvex::Reference {

// Rows from the top, without gaps.
struct Picture {
    unsigned width = 0;
    unsigned height = 0;
    std::vector<Pixel> pixels;
};

// Bilinear: a triangle. Cubics: Mitchell and Netravali, "Reconstruction filters in computer
// graphics", 1988. Area: the mean of what a pixel covers.
enum class Kernel { Bilinear, CatmullRom, Mitchell, Lanczos3, Area };

struct Scaling {
    Kernel kernel = Kernel::Lanczos3;
    // Of the source that becomes all of the result, in pixels.
    double left = 0.0;
    double top = 0.0;
    double right = 0.0;
    double bottom = 0.0;
    // Of the result.
    unsigned width = 0;
    unsigned height = 0;
    // Filtered as light; without one as encoded.
    std::optional<Conf::TransferCharacteristics> transfer = std::nullopt;
    Proc::AlphaType alpha = Proc::AlphaType::NonPremultiplied;
    double antiRinging = 0.0;
};

Picture ReferenceScale(const Picture& source, const Scaling& scaling);

// A zone plate: cos(k r^2), from 0 to 1, whose waves grow shorter from the centre, to the Nyquist
// limit at the middle of each edge. Of a size divided by n waves of up to 1 / (2 n) of a cycle a
// pixel are left.
Picture MakeZonePlate(unsigned size);

} // namespace Norvex::Reference
