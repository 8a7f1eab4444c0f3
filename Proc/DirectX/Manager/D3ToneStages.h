#pragma once

// Tone mapping as shaders of frames do it, internal: what is compiled into them, and the constants.
// Pure functions, any thread.

#include <cstdint>
#include <string>

#include "Host/ColorConversionInfo.h"
#include "Proc/DirectX/Manager/D3ToneMapping.h"

namespace Norvex::DX {

// Of ToneMapping.hlsl. In values of PQ; of them what lies between the source's black and peak
// counts from 0 to 1.
struct D3ToneParams {
    float black = 0.0F;
    float range = 1.0F;
    float inverseRange = 1.0F;
    float knee = 1.0F;
    float inverseRest = 0.0F; // 1 / (1 - knee)
    float peak = 1.0F;        // of the target
    float lift = 0.0F;        // of black
    float liftPower = 1.0F;
    float brightest = 0.0F; // light that a channel may have after colours were reduced
};

// What light of PQ goes through: TONE_CURVE.
enum class FrameTone : std::uint32_t { Rational = 0, MaxRGB = 1, PerChannel = 2 };

// What a shader is compiled with.
struct D3ToneStages {
    FrameTone curve = FrameTone::Rational;
    bool liftsBlack = false;
    bool reducesGamut = false;

    bool operator==(const D3ToneStages&) const = default;
};

// SMPTE ST 2084, equations 5.2 and 4.1; cd/m2, cut to what it can say.
double GetPQOfLuminance(double luminance);
double GetLuminanceOfPQ(double value);
// Whether the luminances are numbers, and black is darker than the peaks.
bool IsInRange(const D3ToneMapping& tones, const Proc::ColorConversionInfo& conversion);
// What of it the conversion needs; none of it if the source does not exceed the target.
D3ToneStages GetToneStages(const D3ToneMapping& tones, const Proc::ColorConversionInfo& conversion);
D3ToneParams MakeToneParams(const D3ToneMapping& tones,
                            const Proc::ColorConversionInfo& conversion);
// The macros before a shader.
std::string GetToneMacros(const D3ToneStages& stages);

} // namespace Norvex::DX
