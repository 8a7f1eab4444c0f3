#include "apps/norvexdx/console/Arguments.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <utility>

#include "apps/norvexdx/pictures/ImageFile.h"

namespace Norvex::App {

namespace {

using Conf::ColorPrimaries;
using Conf::RGBColorSpace;
using Conf::TransferCharacteristics;

template <class T>
struct Named {
    const char* name;
    T value;
};

constexpr Named<RGBColorSpace> kColorSpaces[] = {
    {"srgb", {ColorPrimaries::BT709, TransferCharacteristics::sRGB}},
    {"rec709", {ColorPrimaries::BT709, TransferCharacteristics::BT709}},
    {"rec709-linear", {ColorPrimaries::BT709, TransferCharacteristics::Linear}},
    {"rec2020", {ColorPrimaries::BT2020, TransferCharacteristics::BT709}},
    {"rec2020-linear", {ColorPrimaries::BT2020, TransferCharacteristics::Linear}},
    {"rec2020-pq", {ColorPrimaries::BT2020, TransferCharacteristics::PQ}},
    {"rec2020-hlg", {ColorPrimaries::BT2020, TransferCharacteristics::HLG}},
};

constexpr Named<Proc::AlphaType> kAlphaTypes[] = {
    {"straight", Proc::AlphaType::NonPremultiplied},
    {"one", Proc::AlphaType::AlphaIsOne},
    {"premultiplied", Proc::AlphaType::Premultiplied},
};

constexpr Named<Proc::LinearizationMode> kModes[] = {
    {"scene", Proc::LinearizationMode::SceneReferred},
    {"hdr", Proc::LinearizationMode::DisplayReferredHDR},
    {"display", Proc::LinearizationMode::DisplayReferred},
};

constexpr Named<DX::RenderFitMode> kFitModes[] = {
    {"free", DX::RenderFitMode::Free},
    {"fill", DX::RenderFitMode::Fill},
    {"fit", DX::RenderFitMode::Fit},
};

constexpr Named<ApiChoice> kApis[] = {
    {"auto", ApiChoice::Auto},
    {"d3d11", ApiChoice::Direct3D11},
    {"d3d12", ApiChoice::Direct3D12},
};

constexpr Named<HDRChoice> kHDRChoices[] = {
    {"auto", HDRChoice::Auto},
    {"on", HDRChoice::On},
    {"off", HDRChoice::Off},
};

template <class T, std::size_t N>
std::optional<T> FindByName(const Named<T> (&table)[N], std::string_view name) {
    const auto* found = std::find_if(std::begin(table), std::end(table),
                                     [&](const Named<T>& entry) { return entry.name == name; });
    return found != std::end(table) ? std::optional(found->value) : std::nullopt;
}

template <class T, class... Format>
std::optional<T> ParseWhole(std::string_view text, Format... format) {
    T value{};
    const char* end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, value, format...);
    return error == std::errc() && last == end ? std::optional(value) : std::nullopt;
}

// Exactly N values between separators.
template <std::size_t N, class Parser>
auto ParseList(std::string_view text, char separator, Parser parse)
    -> std::optional<std::array<typename decltype(parse(text))::value_type, N>> {
    std::array<typename decltype(parse(text))::value_type, N> values{};
    for (std::size_t i = 0; i < N; ++i) {
        const std::size_t end = text.find(separator);
        const auto value = parse(text.substr(0, end));
        if (!value || (end == std::string_view::npos) != (i + 1 == N)) {
            return std::nullopt;
        }
        values[i] = *value;
        text.remove_prefix(i + 1 == N ? text.size() : end + 1);
    }
    return values;
}

// As the single-precision number that the library takes; refuses what that cannot hold.
std::optional<float> ParseFloat(std::string_view text) {
    const auto value = ParseNumber(text);
    if (!value || !std::isfinite(static_cast<float>(*value))) {
        return std::nullopt;
    }
    return static_cast<float>(*value);
}

} // namespace

std::optional<double> ParseNumber(std::string_view text) {
    const auto value = ParseWhole<double>(text, std::chars_format::general);
    return value && std::isfinite(*value) ? value : std::nullopt;
}

std::optional<float> ParsePositive(std::string_view text) {
    const auto value = ParseFloat(text);
    return value && *value > 0.0F ? value : std::nullopt;
}

std::optional<float> ParseNits(std::string_view text) {
    constexpr float kMinNits = 1.0F;
    constexpr float kMaxNits = 10000.0F; // SMPTE ST 2084
    const auto value = ParseFloat(text);
    return value && *value >= kMinNits && *value <= kMaxNits ? value : std::nullopt;
}

std::optional<SourcePeak> ParseSourcePeak(std::string_view text) {
    if (text == "measured") {
        return SourcePeak{};
    }
    const auto nits = ParseNits(text);
    return nits ? std::optional(SourcePeak{nits}) : std::nullopt;
}

std::optional<float> ParseBlack(std::string_view text) {
    constexpr float kMaxBlack = 10.0F;
    const auto value = ParseFloat(text);
    return value && *value >= 0.0F && *value <= kMaxBlack ? value : std::nullopt;
}

std::optional<Proc::ColorF> ParseColor(std::string_view text) {
    if (text.starts_with('#')) {
        text.remove_prefix(1);
    }
    const bool hasAlpha = text.size() == 8;
    const auto code = ParseWhole<std::uint32_t>(text, 16);
    if (!code || (!hasAlpha && text.size() != 6)) {
        return std::nullopt;
    }
    const std::uint32_t rgba = hasAlpha ? *code : *code << 8 | 0xFF;
    const auto channel = [&](unsigned shift) {
        return static_cast<float>(rgba >> shift & 0xFF) / 255.0F;
    };
    return Proc::ColorF{channel(24), channel(16), channel(8), channel(0)};
}

std::optional<DX::Size2DT<long>> ParseSize(std::string_view text) {
    const auto sides = ParseList<2>(text, 'x', [](auto part) { return ParseWhole<long>(part); });
    const auto isGood = [](long side) {
        return side >= 1 && side <= static_cast<long>(kMaxDimension);
    };
    if (!sides || !std::all_of(sides->begin(), sides->end(), isGood)) {
        return std::nullopt;
    }
    return DX::Size2DT<long>{(*sides)[0], (*sides)[1]};
}

std::optional<std::array<float, 2>> ParsePoint(std::string_view text) {
    return ParseList<2>(text, ',', &ParseFloat);
}

std::optional<DX::Rect2DT<long>> ParseRect(std::string_view text) {
    const auto edges = ParseList<4>(text, ',', [](auto part) { return ParseWhole<long>(part); });
    const auto isGood = [](long edge) {
        return edge >= D3D12_VIEWPORT_BOUNDS_MIN && edge <= D3D12_VIEWPORT_BOUNDS_MAX;
    };
    if (!edges || !std::all_of(edges->begin(), edges->end(), isGood)) {
        return std::nullopt;
    }
    const auto [left, top, right, bottom] = *edges;
    return left < right && top < bottom ? std::optional(DX::Rect2DT<long>{left, top, right, bottom})
                                        : std::nullopt;
}

std::optional<Proc::RawConversionParams> ParseRawParams(std::string_view text) {
    const auto values = ParseList<5>(text, ',', &ParseFloat);
    if (!values) {
        return std::nullopt;
    }
    const auto [tonemapA, tonemapB, peak, gamma, scale] = *values;
    if (!(peak > 0.0F && gamma > 0.0F)) {
        return std::nullopt;
    }
    return Proc::RawConversionParams{.pqTonemapA = tonemapA,
                                     .pqTonemapB = tonemapB,
                                     .displayPeakLuminance = peak,
                                     .hlgOOTFGamma = gamma,
                                     .linearScale = scale};
}

std::optional<unsigned> ParseDepth(std::string_view text) {
    const auto depth = ParseIndex(text);
    return depth == 8U || depth == 16U ? depth : std::nullopt;
}

std::optional<unsigned> ParseIndex(std::string_view text) {
    return ParseWhole<unsigned>(text);
}

std::optional<RGBColorSpace> ParseColorSpace(std::string_view name) {
    return FindByName(kColorSpaces, name);
}

std::optional<Proc::AlphaType> ParseAlphaType(std::string_view name) {
    return FindByName(kAlphaTypes, name);
}

std::optional<Proc::LinearizationMode> ParseMode(std::string_view name) {
    return FindByName(kModes, name);
}

std::optional<DX::RenderFitMode> ParseFitMode(std::string_view name) {
    return FindByName(kFitModes, name);
}

std::optional<ApiChoice> ParseApi(std::string_view name) {
    return FindByName(kApis, name);
}

std::optional<HDRChoice> ParseHDRChoice(std::string_view name) {
    return FindByName(kHDRChoices, name);
}

std::string GetColorSpaceNames() {
    std::string names;
    for (const auto& [name, space] : kColorSpaces) {
        names += names.empty() ? name : std::string(", ") + name;
    }
    return names;
}

std::string GetColorSpaceName(const RGBColorSpace& space) {
    const auto* found = std::find_if(std::begin(kColorSpaces), std::end(kColorSpaces),
                                     [&](const auto& entry) { return entry.value == space; });
    return found != std::end(kColorSpaces) ? found->name : std::string();
}

std::optional<RGBColorSpace> FindColorSpace(unsigned primaries, unsigned transfer) {
    const RGBColorSpace space = {static_cast<ColorPrimaries>(primaries),
                                 static_cast<TransferCharacteristics>(transfer)};
    return GetColorSpaceName(space).empty() ? std::nullopt : std::optional(space);
}

} // namespace Norvex::App
