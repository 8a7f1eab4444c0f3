#pragma once

// What encode tells when it is done. Pure functions, any thread.

#include <string>

#include "apps/norvexdx/clips/EncodeMonitor.h"
#include "apps/norvexdx/commands/EncodePlan.h"

namespace Norvex::App {

struct EncodeReport {
    VideoFormat format;
    Conf::YCbCrMatrix matrix = Conf::YCbCrMatrix::BT709;
    std::optional<Conf::RGBColorSpace> colorSpace; // of the frames, where that is known
    std::optional<float> sourcePeak;               // cd/m2, where it was measured
    DX::Size2DT<long> size;
    bool isOnePass = false;
    bool isPlanar = false;
    EncodeTotals totals;
    std::uint64_t peakMemory = 0; // bytes of the process in physical memory; 0: not known
};

// Times a frame in milliseconds; a stage's is how long it was busy or, Readback, waited for the
// device.
std::string MakeEncodeJson(const Graphics& graphics, const EncodeReport& report);
// One line.
std::string MakeEncodeText(const Graphics& graphics, const EncodeReport& report);

} // namespace Norvex::App
