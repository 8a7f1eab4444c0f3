#pragma once

// What the image drawers of both Direct3D generations share: the shader texts, the bytes of their
// constant buffer, and the view state of an image renderer (how the picture lies on the target).
// Drawers derive from it and draw with the transform that it delivers. The texts and
// MakeParamsBuffer are for any thread, the view state for one thread at a time. Throws nothing of
// its own. Next: CommonTypes.h (AffineTransform), Host/ColorConversionInfo.h, Shaders/.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Host/ColorConversionInfo.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/AffineTransform.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "Proc/DirectX/Manager/LiveObject.h"

namespace Norvex::DX {

// How the size of the picture follows from the target's.
enum class RenderFitMode : std::uint32_t {
    Free = 0, // as the scale says: at 1.0 one source pixel covers one target pixel
    Fill = 1, // as small as covers the whole target; what hangs over is cut off
    Fit = 2,  // as large as lies wholly inside the target
};

// What both shaders are told, as it lies in their constant buffer; HLSL's bool has four bytes.
struct D3ImageParams {
    AffineTransform transposed;           // as HLSL reads matrices
    std::uint32_t sourceColorSpace = 0;   // 0: nothing is converted
    std::uint32_t targetColorSpace = 0;   // as the source's
    std::uint32_t sourceAlphaType = 0;    // AlphaType
    std::uint32_t targetAlphaType = 0;    // AlphaType
    std::uint32_t displayLinear = 0;      // 1: light of a display
    float linearScale = 1.0F;             // factor on linear light
    float pqTonemapA = 0.0F;              // 0: none
    float pqTonemapB = 0.0F;              // 0: none
    float displayPeakLuminance = 1000.0F; // cd/m2
    float hlgOOTFGamma = 1.0F;            // system gamma
    float transparency = 0.0F;            // 1 - opacity
    float colorTransparency = 0.0F;       // the same for the colour, where nothing is converted
    // In texture coordinates, of the part that is drawn; an extent of 0: the whole source.
    std::array<float, 2> partOrigin = {};
    // Its size.
    std::array<float, 2> partExtent = {};
    // The centres of the part's first and last texel, between which it is sampled.
    std::array<float, 2> firstTexel = {};
    // Of the last.
    std::array<float, 2> lastTexel = {};
};

// One draw of an image, for the Encode of either generation that takes it. Members may be added:
// name those that are meant, `{.conversion = conversion, .opacity = 0.5F}`.
struct ImageDrawParams {
    // Clip space (-1 to 1 over rect, y up) to clip space, the translation in pixels of rect; it may
    // mirror. Without: the drawer's own, or the one that its view state gives.
    std::optional<AffineTransform> transform = std::nullopt;
    // Without: the colours are sampled and written as they are.
    std::optional<Proc::ColorAlphaConversionInfo> conversion = std::nullopt;
    // Where on the target, pixels; any, parts outside the target are cut off. Without: all of it.
    std::optional<Rect2DT<long>> rect = std::nullopt;
    // The part of the source that is drawn as if it were all of it, pixels, at least one and inside
    // the source ("The source rectangle does not lie in the texture"): it is what a fit mode fits,
    // and what lies around it does not show, also where the picture is enlarged or turned (but it
    // is in the smaller mip levels, where a source has them). Without: the whole source.
    std::optional<Rect2DT<long>> sourceRect = std::nullopt;
    // 0 to 1, what is beyond counts as these. Multiplies the picture's alpha before it becomes the
    // target's: straight alpha, premultiplied colours and alpha, and with "alpha is one" the
    // colours, which then fade to black. Without a conversion the blend says which alpha the source
    // has: where it multiplies the source's colour by its alpha, straight, else premultiplied.
    float opacity = 1.0F;
};

// What of them decides the way through the pixel shader.
struct D3ConversionKey {
    // As D3ImageParams has it.
    std::uint32_t sourceColorSpace = 0;
    // As D3ImageParams has it.
    std::uint32_t targetColorSpace = 0;
    // As D3ImageParams has it.
    std::uint32_t sourceAlphaType = 0;
    // As D3ImageParams has it.
    std::uint32_t targetAlphaType = 0;
    // As D3ImageParams has it.
    std::uint32_t displayLinear = 0;
    // Equal spaces and a factor of 1: alpha alone is converted.
    bool keepsColors = false;

    // Of these parameters.
    explicit D3ConversionKey(const D3ImageParams& params)
        : sourceColorSpace(params.sourceColorSpace),
          targetColorSpace(params.targetColorSpace),
          sourceAlphaType(params.sourceAlphaType),
          targetAlphaType(params.targetAlphaType),
          displayLinear(params.displayLinear),
          keepsColors(params.sourceColorSpace == params.targetColorSpace &&
                      params.linearScale == 1.0F) {}
    // Member by member.
    bool operator==(const D3ConversionKey&) const = default;
};

// Geometry. The picture's centre lies on the target's centre; the picture is scaled, then rotated,
// then translated. Rotation is in radians, counter-clockwise as seen on the screen; translation in
// target pixels, right and down positive. Rotation happens in pixels, so the aspect ratio holds at
// every angle. Both fitting modes regard the rotated picture before translation, so a translated
// picture may leave the target.
//
// In numbers, for a source of w x h and a target of W x H pixels, scale s, angle r, clip space with
// y up:
//     clip = (x, y) * Scale(s w / 2, s h / 2) * Rotation(r) * Scale(2 / W, 2 / H)
// for the quad corners (x, y) = (-1 or 1, -1 or 1), and the fourth row holds (translation x,
// -translation y) in pixels, which the drawers multiply by (2 / W, 2 / H). With a size of zero
// there is nothing to fit: the scale is 1, the picture's edges lie on the target's.
class NORVEX_DX_API D3ImageRenderer : public virtual LiveObject {
public:
    D3ImageRenderer() = default;
    ~D3ImageRenderer() override;
    D3ImageRenderer(const D3ImageRenderer&) = delete;
    D3ImageRenderer& operator=(const D3ImageRenderer&) = delete;

    // HLSL, entry "VSMain", shader model 4.0. Reads the transform, the first 64 bytes of the
    // parameters (b0).
    static std::string GetVertexShader();
    // HLSL, entry "PSMain", shader model 4.0. Parameters b0, texture t0, sampler s0. Finite samples
    // give no NaN, and no infinity as long as the values of the formulas are in the range of float.
    static std::string GetPixelShader();
    // The same for conversions of one key alone: what it draws of others is undefined.
    static std::string GetPixelShader(const D3ConversionKey& key);
    // The transform's translation is in clip units. Without conversion the sample is drawn as it
    // is.
    static D3ImageParams
    MakeParams(const AffineTransform& transform,
               const std::optional<Proc::ColorAlphaConversionInfo>& conversion);
    // Of a draw of a source of this size. hasStraightAlpha: what it draws without a conversion.
    static D3ImageParams MakeParams(const AffineTransform& transform, const ImageDrawParams& draw,
                                    const Size2DT<long>& source, bool hasStraightAlpha);
    // The constant buffer of both shaders, which begins with these.
    static constexpr std::size_t kParamsSizeInBytes = 256;
    // MakeParams, and zeros.
    static std::array<std::uint8_t, kParamsSizeInBytes>
    MakeParamsBytes(const AffineTransform& transform,
                    const std::optional<Proc::ColorAlphaConversionInfo>& conversion);
    static std::array<std::uint8_t, kParamsSizeInBytes>
    MakeParamsBytes(const D3ImageParams& params);
    // The same, as a vector.
    static std::vector<std::uint8_t>
    MakeParamsBuffer(const AffineTransform& transform,
                     const std::optional<Proc::ColorAlphaConversionInfo>& conversion);

    // A fitting mode resets the stored scale to 1.0.
    void SetFitMode(RenderFitMode mode);
    // Fit by default.
    RenderFitMode GetFitMode() const { return m_fitMode; }

    // Target pixels per source pixel, > 0 (else ignored). Changes to RenderFitMode::Free.
    void SetScale(float scale);
    // Zooms in by the factor 1 + delta, or out by 1 / (1 - delta) for a negative delta: equal steps
    // cancel.
    void ScaleByDelta(float delta);
    // Zooms by a factor > 0 (else ignored) from the effective scale.
    void ScaleByMult(float factor);
    // Target pixels per source pixel: the stored scale in the free mode; in the fitting modes the
    // scale that fits the sizes of the last draw at the present angle, 1.0 before the first.
    // Fit: 1 / the larger side of the box around the unit square taken through
    // Scale(w, h) * Rotation(r) * Scale(1 / W, 1 / H): the box around the picture fits the target.
    // Fill: the larger side of the box around the unit square taken the other way, through
    // Scale(W, H) * Rotation(-r) * Scale(1 / w, 1 / h): the box that the target fills, seen from
    // the picture, fits the picture.
    float GetEffectiveScale() const;

    // Counter-clockwise; any number.
    void SetRotation(float radians);
    // Radians, counter-clockwise.
    float GetRotation() const { return m_rotation; }

    // Pixels of the target, right and down positive.
    void SetTranslation(float x, float y);
    // Pixels of the target, right and down positive.
    void TranslateBy(float dx, float dy);
    // Pixels of the target, right and down positive.
    std::array<float, 2> GetTranslation() const { return {m_translationX, m_translationY}; }

protected:
    // Computes the transform for these sizes (pixels), hands it to SetTransform and remembers the
    // sizes.
    void UpdateTransform(const Size2DT<long>& source, const Size2DT<long>& target);

    // The drawer stores the transform; empty: the view has changed, so call UpdateTransform before
    // the next draw.
    virtual void SetTransform(const std::optional<AffineTransform>& transform) = 0;

private:
    RenderFitMode m_fitMode = RenderFitMode::Fit;
    float m_translationX = 0.0F;
    float m_translationY = 0.0F;
    float m_scale = 1.0F;
    float m_rotation = 0.0F;
    Size2DT<long> m_sourceSize;
    Size2DT<long> m_targetSize;
};

} // namespace Norvex::DX
