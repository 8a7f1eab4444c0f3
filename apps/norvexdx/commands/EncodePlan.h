#pragma once

// What an encoding is to do: the options as the user gives them, and the plan that follows from
// them, with every rule about their combinations. Plain values, any thread. MakeEncodePlan throws
// Failure: wrong usage, or a place that is not there.

#include <optional>
#include <string>
#include <vector>

#include "Proc/DirectX/Manager/D3FrameConverter.h"
#include "Proc/DirectX/Manager/D3Scaler.h"
#include "apps/norvexdx/clips/VideoFormat.h"
#include "apps/norvexdx/commands/ConvertPlan.h"

namespace Norvex::App {

// Standard input or output instead of a file.
constexpr const char* kStandardStream = "-";

enum class Container { Raw, Y4m };

// How frames become Y'CbCr.
enum class ConverterChoice {
    OnePass, // with exact codes, in every layout: D3FrameConverter.h
    TwoPass, // pairs alone, divided by 2^bits: D3YUVConverter.h
};

// one-pass, two-pass.
std::optional<ConverterChoice> ParseConverter(std::string_view name);
// none, ordered, blue-noise.
std::optional<DX::FrameDither> ParseDither(std::string_view name);
// bilinear, catmull-rom, mitchell, lanczos, area.
std::optional<DX::ScaleKernel> ParseScaler(std::string_view name);
// raw, y4m.
std::optional<Container> ParseContainer(std::string_view name);

struct EncodeOptions {
    std::vector<std::string> inputs; // pictures, a Y4M file, or kStandardStream; at least one
    std::string output;              // or kStandardStream
    GraphicsChoice graphics;
    VideoFormat format;
    std::optional<Conf::YCbCrMatrix> matrix;
    std::optional<Conf::RGBColorSpace> from;
    std::optional<Conf::RGBColorSpace> to;
    std::optional<SourcePeak> sourcePeak; // these three as ConvertOptions has them
    std::optional<float> targetPeak;
    std::optional<float> referenceWhite;
    std::optional<DX::Size2DT<long>> size;
    std::optional<unsigned> inputDepth; // bits a channel of raw RGBA
    ClipInput input;
    ConverterChoice converter = ConverterChoice::OnePass;
    std::optional<DX::FrameRange> range;
    std::optional<DX::ChromaLocation> siting;
    std::optional<DX::FrameDither> dither;
    std::optional<DX::ScaleKernel> scaler;
    ColorStageOptions stages;
    std::optional<FrameRate> rate;
    std::optional<Container> container;
    bool json = false;
    bool stats = false;
    bool progress = false;
};

struct EncodePlan {
    EncodeOptions options;
    std::optional<Proc::ColorAlphaConversionInfo> conversion; // empty: colours stay
    Container container = Container::Raw;
    ColorStages stages = {};

    // As the user says; else the one that belongs to the clip's colours, which are --to's or,
    // without, the input's where that says them.
    Conf::YCbCrMatrix GetMatrix(const std::optional<Conf::RGBColorSpace>& inputSpace) const;
    // What the input's frames in Y'CbCr are, beside what it says of them itself.
    void SetInput(DX::D3FrameDesc& desc) const;
    // Of the clip's frames; the colours are the encoder's.
    DX::D3FrameDesc DescribeOutput(const DX::Size2DT<long>& size, Conf::YCbCrMatrix matrix) const;
    // Of a Y4M file's header, after the C.
    std::string GetY4mColors() const;
    bool WritesToStandardOutput() const { return options.output == kStandardStream; }
};

// Inputs are looked at when they are opened (FrameSource.h).
EncodePlan MakeEncodePlan(const EncodeOptions& options);

} // namespace Norvex::App
