#include "Proc/DirectX/Manager/D3ImageRenderer.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <tuple>

#include <fmt/format.h>

#include "Host/Color.h"
#include "ImageShaders.h"

namespace Norvex::DX {

namespace {

using Conf::ColorPrimaries;
using Conf::RGBColorSpace;
using Conf::TransferCharacteristics;
using Proc::AlphaType;

struct ShaderConstant {
    const char* name;
    std::uint32_t value;
};

// The code by which the shader knows a colour space; never 0, which stands for no conversion.
constexpr std::uint32_t GetColorSpaceCode(ColorPrimaries primaries,
                                          TransferCharacteristics transfer) {
    return (static_cast<std::uint32_t>(primaries) << 8) | static_cast<std::uint32_t>(transfer);
}

constexpr std::uint32_t GetColorSpaceCode(const RGBColorSpace& space) {
    return GetColorSpaceCode(space.primaries, space.transfer);
}

constexpr ShaderConstant kShaderConstants[] = {
    {"sRGB", GetColorSpaceCode(ColorPrimaries::BT709, TransferCharacteristics::sRGB)},
    {"Rec709", GetColorSpaceCode(ColorPrimaries::BT709, TransferCharacteristics::BT709)},
    {"Rec709Linear", GetColorSpaceCode(ColorPrimaries::BT709, TransferCharacteristics::Linear)},
    {"Rec2020", GetColorSpaceCode(ColorPrimaries::BT2020, TransferCharacteristics::BT709)},
    {"Rec2020Linear", GetColorSpaceCode(ColorPrimaries::BT2020, TransferCharacteristics::Linear)},
    {"Rec2020PQ", GetColorSpaceCode(ColorPrimaries::BT2020, TransferCharacteristics::PQ)},
    {"Rec2020HLG", GetColorSpaceCode(ColorPrimaries::BT2020, TransferCharacteristics::HLG)},
    {"BT709", static_cast<std::uint32_t>(ColorPrimaries::BT709)},
    {"BT2020", static_cast<std::uint32_t>(ColorPrimaries::BT2020)},
    {"AlphaTypeNonPremultiplied", static_cast<std::uint32_t>(AlphaType::NonPremultiplied)},
    {"AlphaTypeAlphaIsOne", static_cast<std::uint32_t>(AlphaType::AlphaIsOne)},
    {"AlphaTypePremultiplied", static_cast<std::uint32_t>(AlphaType::Premultiplied)},
};

std::string MakeConstantDeclarations() {
    std::string text;
    for (const auto& [name, value] : kShaderConstants) {
        text += value == 0 ? fmt::format("static const uint {} = 0;\n", name)
                           : fmt::format("static const uint {} = {:#x};\n", name, value);
    }
    return text;
}

static_assert(sizeof(D3ImageParams) == 144 &&
              sizeof(D3ImageParams) <= D3ImageRenderer::kParamsSizeInBytes);

void SetConversion(D3ImageParams& params, const Proc::ColorAlphaConversionInfo& conversion) {
    params.sourceColorSpace = GetColorSpaceCode(conversion.source);
    params.targetColorSpace = GetColorSpaceCode(conversion.target);
    params.sourceAlphaType = static_cast<std::uint32_t>(conversion.sourceAlpha);
    params.targetAlphaType = static_cast<std::uint32_t>(conversion.targetAlpha);
    params.displayLinear = static_cast<std::uint32_t>(conversion.mode) >= 1 ? 1 : 0;
    params.linearScale = conversion.GetLinearScale();
    std::tie(params.pqTonemapA, params.pqTonemapB) = conversion.GetPQTonemapCoefs();
    params.displayPeakLuminance = conversion.GetHLGDisplayPeakLuminance();
    params.hlgOOTFGamma = conversion.GetHLGOOTFGamma();
}

void SetPart(D3ImageParams& params, const Rect2DT<long>& part, const Size2DT<long>& source) {
    const auto entry = [](double pixels, long size) {
        return static_cast<float>(pixels / static_cast<double>(size));
    };
    constexpr double kCentre = 0.5;
    const auto [left, top, right, bottom] = part;
    const auto [width, height] = source;
    params.partOrigin = {entry(left, width), entry(top, height)};
    params.partExtent = {entry(right - left, width), entry(bottom - top, height)};
    params.firstTexel = {entry(left + kCentre, width), entry(top + kCentre, height)};
    params.lastTexel = {entry(right - kCentre, width), entry(bottom - kCentre, height)};
}

bool IsEmpty(const Size2DT<long>& size) {
    return size.width <= 0 || size.height <= 0;
}

// Scale(from) * Rotation * Scale(1 / to), in double and with each ratio in one division: equal
// sizes give exactly 1. Maps the square from -0.5 to 0.5, as the one of the two, into the other's.
// Quad and clip space are both twice as large, so that the same matrix maps the quad.
AffineTransform MakeRatioTransform(const Size2DT<long>& from, const Size2DT<long>& to,
                                   double radians) {
    const double cosine = std::cos(radians);
    const double sine = std::sin(radians);
    const auto entry = [](double factor, long numerator, long denominator) {
        return static_cast<float>(factor * static_cast<double>(numerator) /
                                  static_cast<double>(denominator));
    };
    AffineTransform result;
    result.rows[0] = {entry(cosine, from.width, to.width), entry(sine, from.width, to.height), 0,
                      0};
    result.rows[1] = {entry(-sine, from.height, to.width), entry(cosine, from.height, to.height), 0,
                      0};
    return result;
}

// The larger side of the box around the transformed unit square.
float GetExtent(const AffineTransform& transform) {
    const Rect2DT<float> box = transform.Transform({-0.5F, -0.5F, 0.5F, 0.5F});
    return std::max(box.right - box.left, box.bottom - box.top);
}

} // namespace

D3ImageRenderer::~D3ImageRenderer() = default;

std::string D3ImageRenderer::GetVertexShader() {
    return std::string(Shaders::kImageVertex);
}

std::string D3ImageRenderer::GetPixelShader() {
    static const std::string declarations = MakeConstantDeclarations();
    std::string text = declarations;
    text += Shaders::kColorFunctions;
    text += Shaders::kImagePixel;
    return text;
}

std::string D3ImageRenderer::GetPixelShader(const D3ConversionKey& key) {
    return fmt::format("#define ONE_CONVERSION\n"
                       "#define ONE_SOURCE_COLOR_SPACE {}\n#define ONE_TARGET_COLOR_SPACE {}\n"
                       "#define ONE_SOURCE_ALPHA_TYPE {}\n#define ONE_TARGET_ALPHA_TYPE {}\n"
                       "#define ONE_DISPLAY_LINEAR {}\n{}",
                       key.sourceColorSpace, key.targetColorSpace, key.sourceAlphaType,
                       key.targetAlphaType, key.displayLinear != 0,
                       key.keepsColors ? "#define ONE_KEEPS_COLORS\n" : "") +
           GetPixelShader();
}

D3ImageParams
D3ImageRenderer::MakeParams(const AffineTransform& transform,
                            const std::optional<Proc::ColorAlphaConversionInfo>& conversion) {
    D3ImageParams params{.transposed = transform.Transposed()};
    if (conversion) {
        SetConversion(params, *conversion);
    }
    return params;
}

D3ImageParams D3ImageRenderer::MakeParams(const AffineTransform& transform,
                                          const ImageDrawParams& draw, const Size2DT<long>& source,
                                          bool hasStraightAlpha) {
    D3ImageParams params = MakeParams(transform, draw.conversion);
    if (draw.opacity < 1.0F) {
        params.transparency = 1.0F - std::max(draw.opacity, 0.0F);
        params.colorTransparency = hasStraightAlpha ? 0.0F : params.transparency;
    }
    if (draw.sourceRect) {
        SetPart(params, *draw.sourceRect, source);
    }
    return params;
}

std::array<std::uint8_t, D3ImageRenderer::kParamsSizeInBytes>
D3ImageRenderer::MakeParamsBytes(const AffineTransform& transform,
                                 const std::optional<Proc::ColorAlphaConversionInfo>& conversion) {
    return MakeParamsBytes(MakeParams(transform, conversion));
}

std::array<std::uint8_t, D3ImageRenderer::kParamsSizeInBytes>
D3ImageRenderer::MakeParamsBytes(const D3ImageParams& params) {
    std::array<std::uint8_t, kParamsSizeInBytes> bytes = {};
    std::memcpy(bytes.data(), &params, sizeof(params));
    return bytes;
}

std::vector<std::uint8_t>
D3ImageRenderer::MakeParamsBuffer(const AffineTransform& transform,
                                  const std::optional<Proc::ColorAlphaConversionInfo>& conversion) {
    const auto bytes = MakeParamsBytes(transform, conversion);
    return {bytes.begin(), bytes.end()};
}

void D3ImageRenderer::SetFitMode(RenderFitMode mode) {
    m_fitMode = mode;
    if (mode != RenderFitMode::Free) {
        m_scale = 1.0F;
    }
    SetTransform(std::nullopt);
}

void D3ImageRenderer::SetScale(float scale) {
    if (!(scale > 0.0F)) {
        return;
    }
    m_fitMode = RenderFitMode::Free;
    m_scale = scale;
    SetTransform(std::nullopt);
}

void D3ImageRenderer::ScaleByDelta(float delta) {
    ScaleByMult(delta > 0.0F ? 1.0F + delta : 1.0F / (1.0F - delta));
}

void D3ImageRenderer::ScaleByMult(float factor) {
    SetScale(GetEffectiveScale() * factor);
}

float D3ImageRenderer::GetEffectiveScale() const {
    if (m_fitMode == RenderFitMode::Free) {
        return m_scale;
    }
    if (IsEmpty(m_sourceSize) || IsEmpty(m_targetSize)) {
        return 1.0F;
    }
    if (m_fitMode == RenderFitMode::Fill) {
        return GetExtent(MakeRatioTransform(m_targetSize, m_sourceSize, -m_rotation));
    }
    return 1.0F / GetExtent(MakeRatioTransform(m_sourceSize, m_targetSize, m_rotation));
}

void D3ImageRenderer::SetRotation(float radians) {
    m_rotation = radians;
    SetTransform(std::nullopt);
}

void D3ImageRenderer::SetTranslation(float x, float y) {
    m_translationX = x;
    m_translationY = y;
    SetTransform(std::nullopt);
}

void D3ImageRenderer::TranslateBy(float dx, float dy) {
    SetTranslation(m_translationX + dx, m_translationY + dy);
}

void D3ImageRenderer::UpdateTransform(const Size2DT<long>& source, const Size2DT<long>& target) {
    m_sourceSize = source;
    m_targetSize = target;
    AffineTransform transform;
    if (!IsEmpty(source) && !IsEmpty(target)) {
        const float scale = GetEffectiveScale();
        transform = AffineTransform::Scale(scale, scale)
                        .Then(MakeRatioTransform(source, target, m_rotation));
    }
    transform.rows[3] = {m_translationX, -m_translationY, 0, 1};
    SetTransform(transform);
}

} // namespace Norvex::DX
