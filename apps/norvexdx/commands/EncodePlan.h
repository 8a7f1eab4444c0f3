#pragma once

// What an encoding is to do: the options as the user gives them, and the plan that follows from
// them, with every rule about their combinations. Plain values, any thread. MakeEncodePlan throws
// Failure: wrong usage, or a place that is not there.

#include <optional>
#include <string>
#include <vector>

#include "apps/norvexdx/clips/VideoFormat.h"
#include "apps/norvexdx/commands/ConvertPlan.h"

namespace Norvex::App {

// Standard input or output instead of a file.
constexpr const char* kStandardStream = "-";

enum class Container { Raw, Y4m };

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
    std::optional<DX::Size2DT<long>> size;
    std::optional<unsigned> inputDepth; // bits a channel of raw frames
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

    // As the user says; else the one that belongs to the clip's colours, which are --to's or,
    // without, the input's where that says them.
    Conf::YCbCrMatrix GetMatrix(const std::optional<Conf::RGBColorSpace>& inputSpace) const;
    bool WritesToStandardOutput() const { return options.output == kStandardStream; }
};

// Inputs are looked at when they are opened (FrameSource.h).
EncodePlan MakeEncodePlan(const EncodeOptions& options);

} // namespace Norvex::App
