#pragma once

// The colour conversion of one pixel in double precision, for tests and the doctor to judge
// pictures by. Written from the
// standards, not from the shader: ITU-R BT.709-6, BT.1886, BT.2020-2, BT.2100-2, IEC 61966-2-1,
// SMPTE ST 2084, ITU-T H.273, ITU-R BT.2390-11. What the library lays down beyond them (the order
// of the steps, the six-digit primaries matrices) is followed. Pure functions.

#include <array>

#include "Host/ColorConversionInfo.h"
#include "Proc/DirectX/Manager/D3ToneMapping.h"

namespace Norvex::Reference {

using Pixel = std::array<double, 4>; // red, green, blue, alpha; encoded as its colour space says

// Between the spaces that the library converts, with the numbers that the description gives.
Pixel ReferenceConvert(const Pixel& color, const Proc::ColorAlphaConversionInfo& info,
                       const DX::D3ToneMapping& tones = {});

// Transfer functions by themselves. PQ: light 1.0 is 100 cd/m2.
double PQFromLight(double light);
double LightFromSRGB(double value);

// One channel as BT709, sRGB and PQ show it on a display, as HLG has it in the scene (from 0 to
// 12), linear as it is; and back.
double LightFromValue(double value, Conf::TransferCharacteristics transfer);
double ValueFromLight(double light, Conf::TransferCharacteristics transfer);

} // namespace Norvex::Reference
