#include "Proc/DirectX/Manager/D3Frame.h"

#include <algorithm>
#include <charconv>
#include <optional>

#include <fmt/format.h>

#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

using Conf::ColorPrimaries;
using Conf::RGBColorSpace;
using Conf::TransferCharacteristics;
using Conf::YCbCrMatrix;

constexpr unsigned kBitsOfBytes = 8;

bool IsOneOf(auto value, std::initializer_list<decltype(value)> values) {
    return std::ranges::find(values, value) != values.end();
}

bool IsKnown(const RGBColorSpace& space) {
    return IsOneOf(space.primaries, {ColorPrimaries::BT709, ColorPrimaries::BT2020}) &&
           IsOneOf(space.transfer, {TransferCharacteristics::BT709, TransferCharacteristics::Linear,
                                    TransferCharacteristics::sRGB, TransferCharacteristics::PQ,
                                    TransferCharacteristics::HLG});
}

bool HasBitDepth(FrameLayout layout, unsigned bits) {
    switch (layout) {
    case FrameLayout::NV12:
        return bits == 8;
    case FrameLayout::P010:
        return bits == 10;
    case FrameLayout::P016:
        return bits == 16;
    case FrameLayout::RGB:
        return IsOneOf(bits, {8U, 10U, 16U});
    default:
        return IsOneOf(bits, {8U, 10U, 12U, 16U});
    }
}

struct DXGISpace {
    DXGI_COLOR_SPACE_TYPE type;
    bool isRGB;
    FrameRange range;
    RGBColorSpace colorSpace;
    YCbCrMatrix matrix = YCbCrMatrix::BT709;              // of Y'CbCr
    ChromaLocation chromaLocation = ChromaLocation::Left; // of Y'CbCr
};

constexpr auto k709 = RGBColorSpace{ColorPrimaries::BT709, TransferCharacteristics::BT709};
constexpr auto k2020 = RGBColorSpace{ColorPrimaries::BT2020, TransferCharacteristics::BT709};
constexpr auto kSRGB = RGBColorSpace{ColorPrimaries::BT709, TransferCharacteristics::sRGB};
constexpr auto kLinear = RGBColorSpace{ColorPrimaries::BT709, TransferCharacteristics::Linear};
constexpr auto kPQ = RGBColorSpace{ColorPrimaries::BT2020, TransferCharacteristics::PQ};
constexpr auto kHLG = RGBColorSpace{ColorPrimaries::BT2020, TransferCharacteristics::HLG};
constexpr auto kNarrow = FrameRange::Narrow;
constexpr auto kFull = FrameRange::Full;
constexpr auto kNCL = YCbCrMatrix::BT2020NonConstant;
constexpr auto kTopLeft = ChromaLocation::TopLeft;

// Of two that say the same the first is the answer.
constexpr DXGISpace kDXGISpaces[] = {
    {DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P709, true, kFull, kSRGB},
    {DXGI_COLOR_SPACE_RGB_FULL_G10_NONE_P709, true, kFull, kLinear},
    {DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P2020, true, kFull, k2020},
    {DXGI_COLOR_SPACE_RGB_FULL_G2084_NONE_P2020, true, kFull, kPQ},
    {DXGI_COLOR_SPACE_RGB_STUDIO_G22_NONE_P709, true, kNarrow, kSRGB},
    {DXGI_COLOR_SPACE_RGB_STUDIO_G24_NONE_P709, true, kNarrow, k709},
    {DXGI_COLOR_SPACE_RGB_STUDIO_G22_NONE_P2020, true, kNarrow, k2020},
    {DXGI_COLOR_SPACE_RGB_STUDIO_G24_NONE_P2020, true, kNarrow, k2020},
    {DXGI_COLOR_SPACE_RGB_STUDIO_G2084_NONE_P2020, true, kNarrow, kPQ},
    {DXGI_COLOR_SPACE_YCBCR_STUDIO_G22_LEFT_P601, false, kNarrow, k709, YCbCrMatrix::BT601},
    {DXGI_COLOR_SPACE_YCBCR_FULL_G22_LEFT_P601, false, kFull, k709, YCbCrMatrix::BT601},
    {DXGI_COLOR_SPACE_YCBCR_FULL_G22_NONE_P709_X601, false, kFull, kSRGB, YCbCrMatrix::BT601,
     ChromaLocation::Centre},
    {DXGI_COLOR_SPACE_YCBCR_STUDIO_G22_LEFT_P709, false, kNarrow, k709},
    {DXGI_COLOR_SPACE_YCBCR_STUDIO_G24_LEFT_P709, false, kNarrow, k709},
    {DXGI_COLOR_SPACE_YCBCR_FULL_G22_LEFT_P709, false, kFull, k709},
    {DXGI_COLOR_SPACE_YCBCR_STUDIO_G22_LEFT_P2020, false, kNarrow, k2020, kNCL},
    {DXGI_COLOR_SPACE_YCBCR_STUDIO_G24_LEFT_P2020, false, kNarrow, k2020, kNCL},
    {DXGI_COLOR_SPACE_YCBCR_FULL_G22_LEFT_P2020, false, kFull, k2020, kNCL},
    {DXGI_COLOR_SPACE_YCBCR_STUDIO_G22_TOPLEFT_P2020, false, kNarrow, k2020, kNCL, kTopLeft},
    {DXGI_COLOR_SPACE_YCBCR_STUDIO_G24_TOPLEFT_P2020, false, kNarrow, k2020, kNCL, kTopLeft},
    {DXGI_COLOR_SPACE_YCBCR_STUDIO_G2084_LEFT_P2020, false, kNarrow, kPQ, kNCL},
    {DXGI_COLOR_SPACE_YCBCR_STUDIO_G2084_TOPLEFT_P2020, false, kNarrow, kPQ, kNCL, kTopLeft},
    {DXGI_COLOR_SPACE_YCBCR_STUDIO_GHLG_TOPLEFT_P2020, false, kNarrow, kHLG, kNCL, kTopLeft},
    {DXGI_COLOR_SPACE_YCBCR_FULL_GHLG_TOPLEFT_P2020, false, kFull, kHLG, kNCL, kTopLeft},
};

struct Y4MSpace {
    std::string_view tag;
    FrameLayout layout;
    unsigned bits;
    ChromaLocation chromaLocation = ChromaLocation::Left;
};

constexpr Y4MSpace kY4MSpaces[] = {
    {"420jpeg", FrameLayout::Planar420, 8, ChromaLocation::Centre},
    {"420mpeg2", FrameLayout::Planar420, 8},
    {"420paldv", FrameLayout::Planar420, 8, ChromaLocation::TopLeft},
    {"420", FrameLayout::Planar420, 8, ChromaLocation::Centre},
    {"420p10", FrameLayout::Planar420, 10},
    {"420p12", FrameLayout::Planar420, 12},
    {"420p16", FrameLayout::Planar420, 16},
    {"422", FrameLayout::Planar422, 8},
    {"422p10", FrameLayout::Planar422, 10},
    {"422p12", FrameLayout::Planar422, 12},
    {"422p16", FrameLayout::Planar422, 16},
    {"444", FrameLayout::Planar444, 8},
    {"444p10", FrameLayout::Planar444, 10},
    {"444p12", FrameLayout::Planar444, 12},
    {"444p16", FrameLayout::Planar444, 16},
};

// The chroma of both lies alike, in layouts of that step.
bool LiesAlike(const D3FrameDesc& frame, ChromaLocation location) {
    D3FrameDesc other = frame;
    other.chromaLocation = location;
    return frame.GetChromaOrigin() == other.GetChromaOrigin();
}

long ParseY4MSize(std::string_view digits) {
    long size = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), size);
    if (error != std::errc() || end != digits.data() + digits.size() || size <= 0) {
        Throw<DirectXException>(fmt::format("Wrong Y4M size: {}", digits));
    }
    return size;
}

void SetY4MSpace(D3FrameDesc& frame, std::string_view tag) {
    const auto* const found = std::ranges::find(kY4MSpaces, tag, &Y4MSpace::tag);
    if (found == std::end(kY4MSpaces)) {
        Throw<DirectXException>(fmt::format("Unknown Y4M color space: {}", tag));
    }
    frame.layout = found->layout;
    frame.bitDepth = found->bits;
    frame.chromaLocation = found->chromaLocation;
}

void SetY4MRange(D3FrameDesc& frame, std::string_view range) {
    if (range != "FULL" && range != "LIMITED") {
        Throw<DirectXException>(fmt::format("Unknown Y4M color range: {}", range));
    }
    frame.range = range == "FULL" ? FrameRange::Full : FrameRange::Narrow;
}

} // namespace

D3FrameDesc D3FrameDesc::MakeRGB(const Size2DT<long>& size, Proc::AlphaType alpha) {
    D3FrameDesc frame;
    frame.layout = FrameLayout::RGB;
    frame.size = size;
    frame.range = FrameRange::Full;
    frame.colorSpace = kSRGB;
    frame.alpha = alpha;
    return frame;
}

const char* D3FrameDesc::FindContradiction() const {
    if (layout > FrameLayout::Planar444) {
        return "Unknown frame layout";
    }
    if (size.width <= 0 || size.height <= 0) {
        return "The frame has no pixels";
    }
    if (range > FrameRange::Full) {
        return "Unknown frame range";
    }
    if (chromaLocation > ChromaLocation::TopLeft) {
        return "Unknown chroma location";
    }
    if (!IsOneOf(matrix,
                 {YCbCrMatrix::BT601, YCbCrMatrix::BT709, YCbCrMatrix::BT2020NonConstant})) {
        return "Unknown YCbCr matrix";
    }
    if (!IsKnown(colorSpace)) {
        return "Unknown color space of a frame";
    }
    if (alpha > Proc::AlphaType::Premultiplied) {
        return "Unknown alpha type of a frame";
    }
    if (!HasBitDepth(layout, bitDepth)) {
        return "The bit depth is not one of the frame's layout";
    }
    if (!IsRGB() && alpha != Proc::AlphaType::AlphaIsOne) {
        return "A frame in YCbCr has no alpha";
    }
    if (!IsRGB() && colorSpace.transfer == TransferCharacteristics::Linear) {
        return "A frame in YCbCr has no linear colors";
    }
    return nullptr;
}

void D3FrameDesc::Validate() const {
    if (const char* const contradiction = FindContradiction()) {
        Throw<DirectXException>(contradiction);
    }
}

unsigned D3FrameDesc::GetPlaneCount() const {
    return IsRGB() ? 1 : layout >= FrameLayout::Planar420 ? 3 : 2;
}

FramePlane D3FrameDesc::GetPlane(unsigned index) const {
    ThrowUnless<DirectXException>(index < GetPlaneCount(), "Plane index out of range");
    if (IsRGB()) {
        return {DXGI_FORMAT_UNKNOWN, size};
    }
    const bool isByte = bitDepth == kBitsOfBytes;
    const DXGI_FORMAT pair = isByte ? DXGI_FORMAT_R8G8_UNORM : DXGI_FORMAT_R16G16_UNORM;
    const DXGI_FORMAT single = isByte ? DXGI_FORMAT_R8_UNORM : DXGI_FORMAT_R16_UNORM;
    const auto [across, down] = index == 0 ? Size2DT<long>{1, 1} : GetChromaStep();
    const auto divided = [](long full, long step) { return step == 2 ? full - full / 2 : full; };
    return {index == 1 && GetPlaneCount() == 2 ? pair : single,
            {divided(size.width, across), divided(size.height, down)}};
}

DXGI_FORMAT D3FrameDesc::GetPlanarFormat() const {
    switch (layout) {
    case FrameLayout::NV12:
        return DXGI_FORMAT_NV12;
    case FrameLayout::P010:
        return DXGI_FORMAT_P010;
    case FrameLayout::P016:
        return DXGI_FORMAT_P016;
    default:
        return DXGI_FORMAT_UNKNOWN;
    }
}

FrameCodes D3FrameDesc::GetCodes() const {
    const auto code = [this](unsigned ofEight) {
        return static_cast<double>(ofEight << (bitDepth - kBitsOfBytes));
    };
    FrameCodes codes;
    const double largest = code(256) - 1.0;
    if (range == FrameRange::Full) {
        codes = {0.0, largest, code(128), largest, 0.0, largest};
    } else {
        codes = {code(16), code(219), code(128), code(224), code(1), code(255) - 1.0};
    }
    const double largestSample = IsRGB() ? largest : bitDepth == kBitsOfBytes ? 255.0 : 65535.0;
    codes.unit = (layout == FrameLayout::P010 ? 64.0 : 1.0) / largestSample;
    return codes;
}

Size2DT<long> D3FrameDesc::GetChromaStep() const {
    const bool isFull = IsRGB() || layout == FrameLayout::Planar444;
    return {isFull ? 1 : 2, isFull || layout == FrameLayout::Planar422 ? 1 : 2};
}

Size2DT<double> D3FrameDesc::GetChromaOrigin() const {
    constexpr double kOnSample = 0.5;
    constexpr double kBetween = 1.0;
    const auto [across, down] = GetChromaStep();
    const bool isAcross = across == 2 && chromaLocation == ChromaLocation::Centre;
    const bool isDown = down == 2 && chromaLocation != ChromaLocation::TopLeft;
    return {isAcross ? kBetween : kOnSample, isDown ? kBetween : kOnSample};
}

void D3FrameDesc::SetDXGIColorSpace(DXGI_COLOR_SPACE_TYPE type) {
    const auto* const found = std::ranges::find(kDXGISpaces, type, &DXGISpace::type);
    ThrowUnless<DirectXException>(found != std::end(kDXGISpaces) && found->isRGB == IsRGB(),
                                  "Unknown DXGI color space");
    range = found->range;
    colorSpace = found->colorSpace;
    if (!IsRGB()) {
        matrix = found->matrix;
        chromaLocation = found->chromaLocation;
    }
}

DXGI_COLOR_SPACE_TYPE D3FrameDesc::GetDXGIColorSpace() const {
    const auto* const found = std::ranges::find_if(kDXGISpaces, [this](const DXGISpace& space) {
        return space.isRGB == IsRGB() && space.range == range && space.colorSpace == colorSpace &&
               (IsRGB() || (space.matrix == matrix && LiesAlike(*this, space.chromaLocation)));
    });
    ThrowUnless<DirectXException>(found != std::end(kDXGISpaces),
                                  "DXGI has no color space for the frame");
    return found->type;
}

D3FrameDesc D3FrameDesc::FromY4MTags(std::string_view tags) {
    constexpr std::string_view kRange = "XCOLORRANGE=";
    D3FrameDesc frame;
    SetY4MSpace(frame, "420jpeg");
    while (!tags.empty()) {
        const auto tag = tags.substr(0, tags.find(' '));
        tags.remove_prefix(std::min(tags.size(), tag.size() + 1));
        if (tag.starts_with('W')) {
            frame.size.width = ParseY4MSize(tag.substr(1));
        } else if (tag.starts_with('H')) {
            frame.size.height = ParseY4MSize(tag.substr(1));
        } else if (tag.starts_with('C')) {
            SetY4MSpace(frame, tag.substr(1));
        } else if (tag.starts_with(kRange)) {
            SetY4MRange(frame, tag.substr(kRange.size()));
        }
    }
    return frame;
}

std::string D3FrameDesc::GetY4MTags() const {
    const auto* const found = std::ranges::find_if(kY4MSpaces, [this](const Y4MSpace& space) {
        return space.layout == layout && space.bits == bitDepth &&
               LiesAlike(*this, space.chromaLocation);
    });
    ThrowUnless<DirectXException>(found != std::end(kY4MSpaces),
                                  "Y4M has no color space for the frame");
    return fmt::format("W{} H{} C{} XCOLORRANGE={}", size.width, size.height, found->tag,
                       range == FrameRange::Full ? "FULL" : "LIMITED");
}

} // namespace Norvex::DX
