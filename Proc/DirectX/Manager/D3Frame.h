#pragma once

// A frame of video: what its samples are and mean, and the textures that hold them. Plain values,
// any thread. What contradicts itself, and what another system of description cannot say, is a
// DirectXException with one sentence. Who draws frames: D3FrameDraw.h; who makes them:
// D3FrameConverter.h. The formulas: docs/colour.md.

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "Host/Color.h"
#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/CommonTypes.h"

namespace Norvex::DX {

// How the samples lie in textures.
enum class FrameLayout : std::uint32_t {
    RGB = 0,       // one texture of red, green, blue and alpha
    NV12 = 1,      // 4:2:0, 8 bits: luma, and pairs of C'b and C'r
    P010 = 2,      // the same of 10 bits, in the high ones of 16
    P016 = 3,      // the same of 16 bits
    Planar420 = 4, // luma, C'b, C'r; these half as wide and high
    Planar422 = 5, // these half as wide
    Planar444 = 6, // these as large
};

// Which codes stand for black and white: ITU-T H.273, VideoFullRangeFlag.
enum class FrameRange : std::uint32_t {
    Narrow = 0, // 16 to 235 of 8 bits, chroma 16 to 240
    Full = 1,   // all
};

// Where chroma samples of 4:2:0 lie: ITU-T H.273, Chroma420SampleLocType. In 4:2:2 the horizontal
// place alone counts, in 4:4:4 none.
enum class ChromaLocation : std::uint32_t {
    Left = 0,    // on every other luma column, between two rows; MPEG-2, H.264, H.265
    Centre = 1,  // between four luma samples; JPEG
    TopLeft = 2, // on every other luma column and row; BT.2020, BT.2100
};

// How chroma of fewer samples than luma is interpolated. Luma, and RGB, always bilinearly.
enum class ChromaFilter : std::uint32_t {
    Bilinear = 0,
    CatmullRom = 1, // 4 x 4 samples: sharper, overshoots a little
};

// One plane. A format of DXGI_FORMAT_UNKNOWN: any that holds red, green and blue.
struct FramePlane {
    DXGI_FORMAT format = DXGI_FORMAT_UNKNOWN; // of its texture, or of its view
    Size2DT<long> size;                       // samples

    friend bool operator==(const FramePlane&, const FramePlane&) = default;
};

// What codes stand for, ITU-T H.273, 8.3: a code is black + lumaScale * Y' (R', G', B' alike) or
// chromaZero + chromaScale * P'b, rounded, and the texture's sample is code * unit.
struct FrameCodes {
    double black = 0.0;       // the code of 0
    double lumaScale = 0.0;   // codes from black to white
    double chromaZero = 0.0;  // the code of no colour
    double chromaScale = 0.0; // codes from a P'b of -0.5 to one of 0.5
    double smallest = 0.0;    // that a frame may hold
    double largest = 0.0;     // narrow range keeps the ends for synchronisation: 1 to 254 of 8 bits
    double unit = 0.0;        // of a normalised sample: 1 / 255, 1 / 65535, of P010 64 / 65535
};

struct NORVEX_DX_API D3FrameDesc {
    FrameLayout layout = FrameLayout::NV12;               // of the samples in textures
    unsigned bitDepth = 8;                                // of a code
    Size2DT<long> size;                                   // pixels
    Conf::YCbCrMatrix matrix = Conf::YCbCrMatrix::BT709;  // not of RGB
    FrameRange range = FrameRange::Narrow;                // of the codes
    ChromaLocation chromaLocation = ChromaLocation::Left; // of 4:2:0 and 4:2:2
    // Of R'G'B'.
    Conf::RGBColorSpace colorSpace = {Conf::ColorPrimaries::BT709,
                                      Conf::TransferCharacteristics::BT709};
    Proc::AlphaType alpha = Proc::AlphaType::AlphaIsOne; // of RGB; Y'CbCr has none

    // Of a texture as pictures have them: sRGB, full range, 8 bits.
    static D3FrameDesc MakeRGB(const Size2DT<long>& size,
                               Proc::AlphaType alpha = Proc::AlphaType::AlphaIsOne);

    // Throws what is wrong in itself: "The frame has no pixels", "Unknown frame layout", "Unknown
    // frame range", "Unknown chroma location", "Unknown YCbCr matrix", "Unknown color space of a
    // frame", "Unknown alpha type of a frame", "The bit depth is not one of the frame's layout"
    // (RGB and three planes: 8, 10, 16; planes also 12), "A frame in YCbCr has no alpha", "A frame
    // in YCbCr has no linear colors".
    void Validate() const;
    // That sentence, or null.
    const char* FindContradiction() const;

    // Whether it is one texture of R, G and B.
    bool IsRGB() const { return layout == FrameLayout::RGB; }
    // 1, 2 or 3. Of a valid frame, as all below.
    unsigned GetPlaneCount() const;
    // Plane 0 is luma or RGB, 1 C'b or pairs, 2 C'r; sizes round up. "Plane index out of range".
    FramePlane GetPlane(unsigned index) const;
    // The format of one texture that holds all planes: NV12, P010, P016, for others
    // DXGI_FORMAT_UNKNOWN.
    DXGI_FORMAT GetPlanarFormat() const;
    // What a sample means.
    FrameCodes GetCodes() const;
    // Luma samples for one of chroma, 1 or 2.
    Size2DT<long> GetChromaStep() const;
    // Where chroma sample 0 lies, in luma samples: 0.5 is on the first, 1 between two.
    Size2DT<double> GetChromaOrigin() const;

    // DXGI's colour space, which says range, matrix, chroma location and colour space; these stay
    // the same when it is set and got again, but G24 becomes G22. BT.601's primaries, which the
    // library does not know, count as BT.709's. "Unknown DXGI color space" (also of one for RGB
    // where the frame is Y'CbCr, and the other way).
    void SetDXGIColorSpace(DXGI_COLOR_SPACE_TYPE type);
    // "DXGI has no color space for the frame".
    DXGI_COLOR_SPACE_TYPE GetDXGIColorSpace() const;

    // The tags of a Y4M header, "W720 H576 F25:1 C420jpeg XCOLORRANGE=FULL" and such: size, layout
    // of three planes, bit depth, chroma location, range; other tags are passed over, and what Y4M
    // does not say stays the default. Without C: 420jpeg; of more than 8 bits: left. "Unknown Y4M
    // color space: " and the tag, "Unknown Y4M color range: ", "Wrong Y4M size: ".
    static D3FrameDesc FromY4MTags(std::string_view tags);
    // Size, layout and range: "W720 H576 C420jpeg XCOLORRANGE=LIMITED". "Y4M has no color space for
    // the frame": planes in pairs, RGB, a chroma location that the tag does not say.
    std::string GetY4MTags() const;

    // Member by member.
    bool operator==(const D3FrameDesc&) const = default;
};

// The textures of a frame on Direct3D 12. Either the first alone, with all planes
// (GetPlanarFormat); or one a plane, of the plane's format or its typeless family. Each at least as
// large as its plane: what lies beyond, as in a decoder's textures, is not touched.
struct D12Frame {
    D3FrameDesc desc;                                // what they hold
    std::array<CComPtr<ID3D12Resource>, 3> textures; // null behind the last
    unsigned slice = 0;                              // of texture arrays
};

// The same on Direct3D 11.
struct D11Frame {
    D3FrameDesc desc;                                 // what they hold
    std::array<CComPtr<ID3D11Texture2D>, 3> textures; // null behind the last
    unsigned slice = 0;                               // of texture arrays
};

} // namespace Norvex::DX
