#pragma once

// What a conversion is to do: the options as the user gives them, and the plan that follows from
// them, with every rule about their combinations. Plain values, any thread. MakeConvertPlan throws
// Failure: wrong usage, or a place that is not there.

#include <filesystem>
#include <string>
#include <vector>

#include "Proc/DirectX/Manager/D3FrameConverter.h"
#include "Proc/DirectX/Manager/D3Scaler.h"
#include "apps/norvexdx/clips/VideoFormat.h"
#include "apps/norvexdx/console/Arguments.h"
#include "apps/norvexdx/graphics/ColorStages.h"
#include "apps/norvexdx/graphics/Graphics.h"

namespace Norvex::App {

struct ConvertOptions {
    std::vector<std::string> files; // inputs, and last the output; at least 2
    GraphicsChoice graphics;
    std::optional<Conf::RGBColorSpace> from;
    std::optional<Conf::RGBColorSpace> to;
    // How colours are converted; only with `from` and `to`.
    std::optional<Proc::LinearizationMode> mode;
    std::optional<SourcePeak> sourcePeak;
    std::optional<float> targetPeak;
    std::optional<float> referenceWhite;
    std::optional<float> linearScale;
    std::optional<Proc::RawConversionParams> raw;
    Proc::AlphaType sourceAlpha = Proc::AlphaType::NonPremultiplied;
    Proc::AlphaType targetAlpha = Proc::AlphaType::NonPremultiplied;
    std::optional<DX::RenderFitMode> fit;
    std::optional<float> scale;
    float rotationDegrees = 0.0F;
    std::array<float, 2> translation = {};
    std::optional<DX::Size2DT<long>> size;
    std::optional<DX::Rect2DT<long>> rect;
    std::optional<Proc::ColorF> background;
    std::optional<unsigned> depth;
    std::optional<DX::ScaleKernel> scaler;          // empty: drawn in their size
    DX::FrameDither dither = DX::FrameDither::None; // of 8 bits
    ColorStageOptions stages;
    std::optional<unsigned> frame; // of clips, from 1
    ClipInput input;               // of clips
    bool json = false;
};

struct ConvertJob {
    std::filesystem::path input;
    std::filesystem::path output;
};

struct ConvertPlan {
    ConvertOptions options;
    std::vector<ConvertJob> jobs;
    std::optional<Proc::ColorAlphaConversionInfo> conversion; // empty: pixels are drawn as they are
    ColorStages stages = {};                                  // if any, there is a conversion
    View view;
    Proc::ColorF background; // as the canvas is filled
    bool blends = false;     // pictures go over the background instead of replacing it
};

// Whether the user wants the peak to be that of the input.
bool IsMeasured(const std::optional<SourcePeak>& peak);
// What a conversion is told of an input whose brightest channel is this, in cd/m2: not less than
// white, so that what is darker is not taken for highlights.
float GetPeakOfMeasured(float brightest, const Proc::ColorConversionInfo& conversion);

// From `from` to `to` (without them only alpha changes), as the other options of colour and alpha
// say.
Proc::ColorAlphaConversionInfo MakeConversion(const ConvertOptions& options);

// Reads the look-up table, and the file system for the output: inputs are looked at when their turn
// comes.
ConvertPlan MakeConvertPlan(const ConvertOptions& options);

} // namespace Norvex::App
