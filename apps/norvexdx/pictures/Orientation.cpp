#include "apps/norvexdx/pictures/Orientation.h"

#include <cstring>
#include <utility>

namespace Norvex::App {

namespace {

// What EXIF's values mean: from the upright picture's pixel to the stored one, first the axes are
// exchanged, then mirrored.
struct Turn {
    bool exchangesAxes;
    bool mirrorsX;
    bool mirrorsY;
};

constexpr Turn kTurns[] = {
    {false, false, false}, // 1: upright
    {false, true, false},  // 2
    {false, true, true},   // 3: half a turn
    {false, false, true},  // 4
    {true, false, false},  // 5
    {true, false, true},   // 6: the camera was turned counter-clockwise
    {true, true, true},    // 7
    {true, true, false},   // 8: the camera was turned clockwise
};

} // namespace

Image MakeUpright(Image image, unsigned orientation) {
    if (orientation <= 1 || orientation > std::size(kTurns)) {
        return image;
    }
    const Turn turn = kTurns[orientation - 1];
    DX::Size2DT<long> size = image.GetSize();
    if (turn.exchangesAxes) {
        std::swap(size.width, size.height);
    }
    Image upright = Image::Make(size, image.bitsPerChannel);
    upright.colorSpace = image.colorSpace;
    upright.profile = std::move(image.profile);
    const std::size_t pixelSize = image.GetPixelSize();
    std::uint8_t* out = upright.pixels.data();
    for (std::size_t y = 0; y < upright.height; ++y) {
        for (std::size_t x = 0; x < upright.width; ++x, out += pixelSize) {
            std::size_t sourceX = turn.exchangesAxes ? y : x;
            std::size_t sourceY = turn.exchangesAxes ? x : y;
            sourceX = turn.mirrorsX ? image.width - 1 - sourceX : sourceX;
            sourceY = turn.mirrorsY ? image.height - 1 - sourceY : sourceY;
            std::memcpy(out, &image.pixels[(sourceY * image.width + sourceX) * pixelSize],
                        pixelSize);
        }
    }
    return upright;
}

} // namespace Norvex::App
