#include "apps/norvexdx/clips/Y4m.h"

#include <algorithm>
#include <array>
#include <cstring>

#include <fmt/format.h>

#include "Proc/DirectX/Manager/Exceptions.h"
#include "apps/norvexdx/console/Arguments.h"
#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/pictures/ImageFile.h"

namespace Norvex::App {

namespace {

std::uint32_t ParseSide(std::string_view text) {
    const auto side = ParseIndex(text);
    if (!side) {
        throw Failure("the Y4M header tells no size");
    }
    return *side;
}

// NUMERATOR:DENOMINATOR; "0:0" is that the file does not say.
std::optional<FrameRate> ParseY4mRate(std::string_view text) {
    std::string fraction(text);
    std::replace(fraction.begin(), fraction.end(), ':', '/');
    return ParseFrameRate(fraction);
}

void TakeExtension(std::string_view value, Y4mHeader& header) {
    constexpr std::string_view kRange = "COLORRANGE=";
    if (!value.starts_with(kRange)) {
        return; // others say nothing that matters here
    }
    const std::string_view range = value.substr(kRange.size());
    if (range != "FULL" && range != "LIMITED") {
        throw Failure("Y4M with the colour range " + std::string(range) + " is not taken");
    }
    header.range = range == "FULL" ? DX::FrameRange::Full : DX::FrameRange::Narrow;
}

void TakeParameter(char tag, std::string_view value, Y4mHeader& header) {
    switch (tag) {
    case 'W':
        header.size.width = static_cast<long>(ParseSide(value));
        break;
    case 'H':
        header.size.height = static_cast<long>(ParseSide(value));
        break;
    case 'F':
        header.rate = ParseY4mRate(value);
        break;
    case 'A':
        header.aspect = value;
        break;
    case 'C':
        header.colors = value;
        break;
    case 'I':
        if (value != "p" && value != "?") {
            throw Failure("interlaced Y4M is not taken");
        }
        break;
    case 'X':
        TakeExtension(value, header);
        break;
    default:
        break; // later versions may say more
    }
}

// Signal from 0 to 1, and from -0.5 to 0.5, for a code in narrow range.
struct Decoder {
    explicit Decoder(unsigned bits)
        : offset(static_cast<float>(16U << (bits - 8))),
          zero(static_cast<float>(128U << (bits - 8))),
          lumaScale(1.0F / static_cast<float>(219U << (bits - 8))),
          chromaScale(1.0F / static_cast<float>(224U << (bits - 8))) {}

    float GetLuma(unsigned code) const { return (static_cast<float>(code) - offset) * lumaScale; }
    float GetChroma(unsigned code) const { return (static_cast<float>(code) - zero) * chromaScale; }

    float offset;
    float zero;
    float lumaScale;
    float chromaScale;
};

std::uint16_t GetSample(float signal) {
    constexpr float kMax = 65535.0F;
    const double sample = std::clamp(signal, 0.0F, 1.0F) * kMax;
    constexpr double kHalf = 0.5; // exact in double precision: std::lround's answer, sooner
    return static_cast<std::uint16_t>(sample + kHalf);
}

template <class Sample>
void ConvertSamples(const std::uint8_t* samples, std::size_t count, const Y4mSamples& layout,
                    Conf::YCbCrMatrix matrix, std::uint8_t* rgba) {
    const auto load = [samples, count](std::size_t plane, std::size_t index) {
        Sample sample{};
        std::memcpy(&sample, samples + (plane * count + index) * sizeof(Sample), sizeof(Sample));
        return static_cast<unsigned>(sample);
    };
    const auto lumaRow = Conf::GetRGBToYpPbPrMatrix(matrix)[0]; // Kr, Kg, Kb
    const auto kr = static_cast<float>(lumaRow[0]);
    const auto kg = static_cast<float>(lumaRow[1]);
    const auto kb = static_cast<float>(lumaRow[2]);
    const Decoder decoder(layout.bits);
    const bool hasChroma = layout.planes == 3;
    for (std::size_t i = 0; i < count; ++i) {
        const float y = decoder.GetLuma(load(0, i));
        const float cb = hasChroma ? decoder.GetChroma(load(1, i)) : 0.0F;
        const float cr = hasChroma ? decoder.GetChroma(load(2, i)) : 0.0F;
        const float r = y + 2.0F * (1.0F - kr) * cr;
        const float b = y + 2.0F * (1.0F - kb) * cb;
        const float g = (y - kr * r - kb * b) / kg;
        const std::array<std::uint16_t, 4> pixel = {GetSample(r), GetSample(g), GetSample(b),
                                                    0xFFFF};
        std::memcpy(rgba + i * sizeof(pixel), pixel.data(), sizeof(pixel));
    }
}

std::size_t CountPixels(const Y4mHeader& header) {
    return static_cast<std::size_t>(header.size.width) *
           static_cast<std::size_t>(header.size.height);
}

} // namespace

Y4mHeader ParseY4mHeader(std::string_view line) {
    if (!line.starts_with(kY4mMagic)) {
        throw Failure("not a Y4M file");
    }
    Y4mHeader header;
    line.remove_prefix(kY4mMagic.size());
    while (!line.empty()) {
        const std::string_view parameter = line.substr(0, line.find(' '));
        line.remove_prefix(std::min(line.size(), parameter.size() + 1));
        if (!parameter.empty()) {
            TakeParameter(parameter.front(), parameter.substr(1), header);
        }
    }
    CheckDimensions(static_cast<std::uint32_t>(header.size.width),
                    static_cast<std::uint32_t>(header.size.height));
    return header;
}

std::string MakeY4mHeader(const Y4mHeader& header) {
    const FrameRate rate = header.rate.value_or(FrameRate());
    return fmt::format("{}W{} H{} F{}:{} Ip A{} C{} XCOLORRANGE={}\n", kY4mMagic, header.size.width,
                       header.size.height, rate.numerator, rate.denominator, header.aspect,
                       header.colors, header.range == DX::FrameRange::Full ? "FULL" : "LIMITED");
}

Y4mSamples GetY4mSamples(const std::string& colors) {
    constexpr std::pair<const char*, Y4mSamples> kKnown[] = {
        {"444", {8, 3}},     {"444p10", {10, 3}}, {"444p12", {12, 3}},
        {"444p14", {14, 3}}, {"444p16", {16, 3}}, {"mono", {8, 1}},
        {"mono10", {10, 1}}, {"mono12", {12, 1}}, {"mono16", {16, 1}},
    };
    for (const auto& [name, samples] : kKnown) {
        if (name == colors) {
            return samples;
        }
    }
    throw Failure("Y4M with C" + colors +
                  " is not taken with --converter two-pass: only C444 and Cmono, whose every pixel "
                  "has its own colour");
}

std::size_t GetY4mFrameBytes(const Y4mHeader& header) {
    if (header.range == DX::FrameRange::Full) {
        throw Failure("Y4M in full range is not taken with --converter two-pass");
    }
    const Y4mSamples samples = GetY4mSamples(header.colors);
    return CountPixels(header) * samples.planes * samples.GetSampleSize();
}

void ConvertY4mFrame(const Y4mHeader& header, std::span<const std::uint8_t> samples,
                     Conf::YCbCrMatrix matrix, Image& image) {
    const Y4mSamples layout = GetY4mSamples(header.colors);
    image.SetSize(header.size, 16);
    if (layout.GetSampleSize() == 1) {
        ConvertSamples<std::uint8_t>(samples.data(), CountPixels(header), layout, matrix,
                                     image.pixels.data());
    } else {
        ConvertSamples<std::uint16_t>(samples.data(), CountPixels(header), layout, matrix,
                                      image.pixels.data());
    }
}

namespace {

// Codes with fewer bits than the library has a format for.
struct OddDepth {
    std::string_view suffix;
    std::string_view taken; // in its place
    unsigned shift;
};
constexpr OddDepth kOddDepths[] = {{"p9", "p10", 1}, {"p14", "p16", 2}};

bool IsMono(const Y4mHeader& header) {
    return header.colors.starts_with("mono");
}

// "mono10" as "420p10".
std::string GetPlanarColors(const Y4mHeader& header) {
    if (!IsMono(header)) {
        return header.colors;
    }
    const std::string bits = header.colors.substr(std::string_view("mono").size());
    return bits.empty() ? "420mpeg2" : "420p" + bits;
}

template <class Sample>
void Fill(std::span<std::uint8_t> samples, Sample value) {
    for (std::size_t i = 0; i + sizeof(Sample) <= samples.size(); i += sizeof(Sample)) {
        std::memcpy(&samples[i], &value, sizeof(value));
    }
}

} // namespace

Y4mPlanes DescribeY4mPlanes(const Y4mHeader& header) {
    Y4mPlanes planes;
    std::string colors = GetPlanarColors(header);
    for (const OddDepth& odd : kOddDepths) {
        if (colors.ends_with(odd.suffix)) {
            colors.replace(colors.size() - odd.suffix.size(), odd.suffix.size(), odd.taken);
            planes.shift = odd.shift;
        }
    }
    if (planes.shift != 0 && header.range == DX::FrameRange::Full) {
        throw Failure("Y4M with C" + header.colors + " in full range is not taken");
    }
    try {
        planes.desc = DX::D3FrameDesc::FromY4MTags("C" + colors);
    } catch (const DX::DirectXException&) {
        throw Failure("Y4M with C" + header.colors + " is not taken");
    }
    planes.desc.size = header.size;
    planes.desc.range = header.range;
    planes.fileBytes = IsMono(header) ? GetPlaneBytes(planes.desc, 0) : GetFrameBytes(planes.desc);
    return planes;
}

void FinishY4mPlanes(const Y4mPlanes& planes, std::span<std::uint8_t> samples) {
    for (std::size_t i = 0; planes.shift != 0 && i + 1 < planes.fileBytes; i += 2) {
        std::uint16_t sample = 0;
        std::memcpy(&sample, &samples[i], sizeof(sample));
        sample = static_cast<std::uint16_t>(sample << planes.shift);
        std::memcpy(&samples[i], &sample, sizeof(sample));
    }
    const auto zero = static_cast<unsigned>(planes.desc.GetCodes().chromaZero);
    const auto chroma = samples.subspan(planes.fileBytes);
    if (planes.desc.bitDepth == 8) {
        Fill(chroma, static_cast<std::uint8_t>(zero));
    } else {
        Fill(chroma, static_cast<std::uint16_t>(zero));
    }
}

} // namespace Norvex::App
