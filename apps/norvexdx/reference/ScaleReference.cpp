#include "apps/norvexdx/reference/ScaleReference.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

namespace Norvex::Reference {

namespace {

using Proc::AlphaType;

// Pieces of a cubic with parameters B and C, each from the highest power down.
double CubicAt(double d, double b, double c) {
    const auto polynomial = [d](double p3, double p2, double p1, double p0) {
        return (((p3 * d + p2) * d + p1) * d + p0) / 6.0;
    };
    return d < 1.0   ? polynomial(12 - 9 * b - 6 * c, -18 + 12 * b + 6 * c, 0, 6 - 2 * b)
           : d < 2.0 ? polynomial(-b - 6 * c, 6 * b + 30 * c, -12 * b - 48 * c, 8 * b + 24 * c)
                     : 0.0;
}

double KernelAt(Kernel kernel, double x) {
    const double d = std::abs(x);
    const double angle = std::numbers::pi * d;
    switch (kernel) {
    case Kernel::Bilinear:
        return d < 1.0 ? 1.0 - d : 0.0;
    case Kernel::CatmullRom:
        return CubicAt(d, 0.0, 0.5);
    case Kernel::Mitchell:
        return CubicAt(d, 1.0 / 3.0, 1.0 / 3.0);
    default:
        return d == 0.0  ? 1.0
               : d < 3.0 ? 3.0 * std::sin(angle) * std::sin(angle / 3.0) / (angle * angle)
                         : 0.0;
    }
}

// One result from the pixels of a line: pixelAt(i) for any i, clamped to first and last.
template <class PixelAt>
Pixel FilterAt(const Scaling& scaling, double centre, double ratio, long first, long last,
               const PixelAt& pixelAt) {
    const bool isArea = scaling.kernel == Kernel::Area;
    const double scale = isArea ? ratio : std::max(ratio, 1.0);
    const double reach = 3.0 * scale + 2.0;
    Pixel sum = {};
    double weights = 0.0;
    Pixel low;
    Pixel high;
    low.fill(std::numeric_limits<double>::infinity());
    high.fill(-std::numeric_limits<double>::infinity());
    for (auto i = static_cast<long>(centre - reach) - 1; i <= centre + reach; ++i) {
        const auto place = static_cast<double>(i);
        const double weight = isArea ? std::max(std::min(place + 1.0, centre + ratio / 2.0) -
                                                    std::max(place, centre - ratio / 2.0),
                                                0.0)
                                     : KernelAt(scaling.kernel, (place + 0.5 - centre) / scale);
        const bool isNeighbour = isArea ? weight > 0.0 : std::abs(place + 0.5 - centre) < scale;
        const Pixel pixel = pixelAt(std::clamp(i, first, last));
        weights += weight;
        for (std::size_t k = 0; k < sum.size(); ++k) {
            sum[k] += weight * pixel[k];
            low[k] = isNeighbour ? std::min(low[k], pixel[k]) : low[k];
            high[k] = isNeighbour ? std::max(high[k], pixel[k]) : high[k];
        }
    }
    for (std::size_t k = 0; k < sum.size(); ++k) {
        const double value = sum[k] / weights;
        sum[k] = std::lerp(value, std::clamp(value, low[k], high[k]), scaling.antiRinging);
    }
    return sum;
}

template <class Function>
Pixel WithColor(const Pixel& pixel, const Function& function) {
    return {function(pixel[0]), function(pixel[1]), function(pixel[2]), pixel[3]};
}

Pixel Times(const Pixel& pixel, double factor) {
    return WithColor(pixel, [factor](double c) { return c * factor; });
}

bool FiltersLight(const Scaling& scaling) {
    return scaling.transfer && *scaling.transfer != Conf::TransferCharacteristics::Linear;
}

// Premultiplied, of light where that is filtered.
Pixel ToFiltered(Pixel pixel, const Scaling& scaling) {
    if (scaling.alpha == AlphaType::AlphaIsOne) {
        pixel[3] = 1.0;
    }
    const bool isPremultiplied = scaling.alpha == AlphaType::Premultiplied;
    if (!FiltersLight(scaling)) {
        return isPremultiplied ? pixel : Times(pixel, pixel[3]);
    }
    const Pixel straight = isPremultiplied && pixel[3] > 0.0 ? Times(pixel, 1.0 / pixel[3]) : pixel;
    return Times(
        WithColor(straight, [&](double c) { return LightFromValue(c, *scaling.transfer); }),
        pixel[3]);
}

Pixel FromFiltered(const Pixel& pixel, const Scaling& scaling) {
    const bool isPremultiplied = scaling.alpha == AlphaType::Premultiplied;
    const bool isOpaque = scaling.alpha == AlphaType::AlphaIsOne;
    const double alpha = isOpaque ? 1.0 : std::clamp(pixel[3], 0.0, 1.0);
    Pixel result = pixel;
    if (!isOpaque && (!isPremultiplied || FiltersLight(scaling))) {
        result = Times(pixel, pixel[3] > 0.0 ? 1.0 / pixel[3] : 0.0);
    }
    if (FiltersLight(scaling)) {
        result = WithColor(result, [&](double c) { return ValueFromLight(c, *scaling.transfer); });
        result = isPremultiplied ? Times(result, alpha) : result;
    }
    result[3] = alpha;
    return result;
}

} // namespace

Picture ReferenceScale(const Picture& source, const Scaling& scaling) {
    const double across = (scaling.right - scaling.left) / scaling.width;
    const double down = (scaling.bottom - scaling.top) / scaling.height;
    const auto firstColumn = static_cast<long>(std::floor(scaling.left));
    const auto lastColumn = static_cast<long>(std::ceil(scaling.right)) - 1;
    const auto firstRow = static_cast<long>(std::floor(scaling.top));
    const auto lastRow = static_cast<long>(std::ceil(scaling.bottom)) - 1;
    std::vector<Pixel> filtered;
    filtered.reserve(source.pixels.size());
    for (const Pixel& pixel : source.pixels) {
        filtered.push_back(ToFiltered(pixel, scaling));
    }
    std::vector<Pixel> rows; // the source's rows in the result's width
    for (unsigned y = 0; y < source.height; ++y) {
        for (unsigned x = 0; x < scaling.width; ++x) {
            rows.push_back(FilterAt(
                scaling, scaling.left + (x + 0.5) * across, across, firstColumn, lastColumn,
                [&](long i) {
                    return filtered[std::size_t{y} * source.width + static_cast<std::size_t>(i)];
                }));
        }
    }
    Picture result = {scaling.width, scaling.height, {}};
    for (unsigned y = 0; y < scaling.height; ++y) {
        for (unsigned x = 0; x < scaling.width; ++x) {
            const Pixel pixel = FilterAt(
                scaling, scaling.top + (y + 0.5) * down, down, firstRow, lastRow,
                [&](long i) { return rows[static_cast<std::size_t>(i) * scaling.width + x]; });
            result.pixels.push_back(FromFiltered(pixel, scaling));
        }
    }
    return result;
}

Picture MakeZonePlate(unsigned size) {
    Picture plate = {size, size, {}};
    const double middle = size / 2.0;
    for (unsigned y = 0; y < size; ++y) {
        for (unsigned x = 0; x < size; ++x) {
            // The wave's frequency, k r / pi cycles a pixel, is 1 / 2 at the edge.
            const double squared =
                std::pow(x + 0.5 - middle, 2.0) + std::pow(y + 0.5 - middle, 2.0);
            const double value = 0.5 + 0.5 * std::cos(std::numbers::pi / size * squared);
            plate.pixels.push_back({value, value, value, 1.0});
        }
    }
    return plate;
}

} // namespace Norvex::Reference
