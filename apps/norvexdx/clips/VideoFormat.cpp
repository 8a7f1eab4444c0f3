#include "apps/norvexdx/clips/VideoFormat.h"

#include <algorithm>
#include <iterator>
#include <numeric>

#include "apps/norvexdx/clips/ClipFrame.h"
#include "apps/norvexdx/console/Arguments.h"

namespace Norvex::App {

namespace {

constexpr VideoFormat kFormats[] = {
    {"nv12", 8, DX::FrameLayout::NV12, DXGI_FORMAT_NV12, DXGI_FORMAT_R8_UNORM,
     DXGI_FORMAT_R8G8_UNORM, "R8_UNORM and R8G8_UNORM", "420jpeg"},
    {"p010", 10, DX::FrameLayout::P010, DXGI_FORMAT_P010, DXGI_FORMAT_R16_UNORM,
     DXGI_FORMAT_R16G16_UNORM, "R16_UNORM and R16G16_UNORM", "420p10"},
    {"p016", 16, DX::FrameLayout::P016, DXGI_FORMAT_P016, DXGI_FORMAT_R16_UNORM,
     DXGI_FORMAT_R16G16_UNORM, "R16_UNORM and R16G16_UNORM", "420p16"},
    {"yuv420p", 8, DX::FrameLayout::Planar420},
    {"yuv420p10", 10, DX::FrameLayout::Planar420},
    {"yuv420p12", 12, DX::FrameLayout::Planar420},
    {"yuv420p16", 16, DX::FrameLayout::Planar420},
    {"yuv422p", 8, DX::FrameLayout::Planar422},
    {"yuv422p10", 10, DX::FrameLayout::Planar422},
    {"yuv422p12", 12, DX::FrameLayout::Planar422},
    {"yuv422p16", 16, DX::FrameLayout::Planar422},
    {"yuv444p", 8, DX::FrameLayout::Planar444},
    {"yuv444p10", 10, DX::FrameLayout::Planar444},
    {"yuv444p12", 12, DX::FrameLayout::Planar444},
    {"yuv444p16", 16, DX::FrameLayout::Planar444},
};
constexpr std::size_t kPairFormats = 3; // the first ones

struct NamedMatrix {
    const char* name;
    Conf::YCbCrMatrix matrix;
};

constexpr NamedMatrix kMatrices[] = {
    {"bt601", Conf::YCbCrMatrix::BT601},
    {"bt709", Conf::YCbCrMatrix::BT709},
    {"bt2020", Conf::YCbCrMatrix::BT2020NonConstant},
};

struct NamedRate {
    const char* name;
    FrameRate rate;
};

constexpr NamedRate kBroadcastRates[] = {
    {"23.976", {24000, 1001}},
    {"29.97", {30000, 1001}},
    {"59.94", {60000, 1001}},
    {"119.88", {120000, 1001}},
};

// A whole number without sign.
std::optional<unsigned> ParseDigits(std::string_view text) {
    return text.find_first_not_of("0123456789") == std::string_view::npos ? ParseIndex(text)
                                                                          : std::nullopt;
}

std::optional<FrameRate> MakeRate(std::optional<unsigned> numerator,
                                  std::optional<unsigned> denominator) {
    constexpr unsigned kMax = 1000000;
    if (!numerator || !denominator || *numerator == 0 || *denominator == 0) {
        return std::nullopt;
    }
    const unsigned divisor = std::gcd(*numerator, *denominator);
    const FrameRate rate = {*numerator / divisor, *denominator / divisor};
    return rate.numerator <= kMax && rate.denominator <= kMax ? std::optional(rate) : std::nullopt;
}

std::optional<FrameRate> ParseDecimalRate(std::string_view whole, std::string_view decimals) {
    constexpr std::size_t kMaxDecimals = 3;
    constexpr unsigned kScales[] = {1, 10, 100, 1000};
    if (whole.empty() || decimals.empty() || decimals.size() > kMaxDecimals) {
        return std::nullopt;
    }
    return MakeRate(ParseDigits(std::string(whole) + std::string(decimals)),
                    kScales[decimals.size()]);
}

} // namespace

DX::D3FrameDesc VideoFormat::Describe(const DX::Size2DT<long>& size) const {
    DX::D3FrameDesc desc;
    desc.layout = layout;
    desc.bitDepth = bits;
    desc.size = size;
    return desc;
}

std::size_t VideoFormat::GetLumaBytes(const DX::Size2DT<long>& size) const {
    return GetPlaneBytes(Describe(size), 0);
}

std::size_t VideoFormat::GetChromaBytes(const DX::Size2DT<long>& size) const {
    return App::GetFrameBytes(Describe(size)) - GetLumaBytes(size);
}

DX::Size2DT<long> GetChromaSize(const DX::Size2DT<long>& size) {
    return {(size.width + 1) / 2, (size.height + 1) / 2};
}

std::span<const VideoFormat> GetPairFormats() {
    return std::span(kFormats).first(kPairFormats);
}

std::span<const VideoFormat> GetVideoFormats() {
    return kFormats;
}

std::string GetVideoFormatNames() {
    std::string names;
    for (const VideoFormat& format : kFormats) {
        names += (names.empty() ? "" : ", ") + std::string(format.name);
    }
    return names;
}

std::optional<VideoFormat> ParseVideoFormat(std::string_view name) {
    constexpr std::string_view kLittleEndian = "le";
    const auto* found =
        std::find_if(std::begin(kFormats), std::end(kFormats), [&](const VideoFormat& format) {
            return format.name == name ||
                   (format.bits > 8 && format.name + std::string(kLittleEndian) == name);
        });
    return found != std::end(kFormats) ? std::optional(*found) : std::nullopt;
}

std::optional<RawFormat> ParseRawFormat(std::string_view name) {
    if (name == "rgba") {
        return RawFormat{{}, 8};
    }
    if (name == "rgba64le" || name == "rgba64") {
        return RawFormat{{}, 16};
    }
    const auto video = ParseVideoFormat(name);
    return video ? std::optional(RawFormat{video, video->bits}) : std::nullopt;
}

std::optional<Conf::YCbCrMatrix> ParseMatrix(std::string_view name) {
    const auto* found = std::find_if(std::begin(kMatrices), std::end(kMatrices),
                                     [&](const NamedMatrix& entry) { return entry.name == name; });
    return found != std::end(kMatrices) ? std::optional(found->matrix) : std::nullopt;
}

std::string GetMatrixName(Conf::YCbCrMatrix matrix) {
    const auto* found =
        std::find_if(std::begin(kMatrices), std::end(kMatrices),
                     [&](const NamedMatrix& entry) { return entry.matrix == matrix; });
    return found != std::end(kMatrices) ? found->name : std::string();
}

std::optional<DX::FrameRange> ParseRange(std::string_view name) {
    if (name == "narrow") {
        return DX::FrameRange::Narrow;
    }
    return name == "full" ? std::optional(DX::FrameRange::Full) : std::nullopt;
}

std::optional<DX::ChromaLocation> ParseSiting(std::string_view name) {
    constexpr std::pair<const char*, DX::ChromaLocation> kSitings[] = {
        {"left", DX::ChromaLocation::Left},
        {"centre", DX::ChromaLocation::Centre},
        {"top-left", DX::ChromaLocation::TopLeft},
    };
    for (const auto& [known, siting] : kSitings) {
        if (known == name) {
            return siting;
        }
    }
    return std::nullopt;
}

std::optional<FrameRate> ParseFrameRate(std::string_view text) {
    for (const NamedRate& entry : kBroadcastRates) {
        if (entry.name == text) {
            return entry.rate;
        }
    }
    const std::size_t slash = text.find('/');
    if (slash != std::string_view::npos) {
        return MakeRate(ParseDigits(text.substr(0, slash)), ParseDigits(text.substr(slash + 1)));
    }
    const std::size_t point = text.find('.');
    return point != std::string_view::npos
               ? ParseDecimalRate(text.substr(0, point), text.substr(point + 1))
               : MakeRate(ParseDigits(text), 1);
}

} // namespace Norvex::App
