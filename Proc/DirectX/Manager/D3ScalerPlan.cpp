#include "Proc/DirectX/Manager/D3ScalerPlan.h"

#include <cmath>
#include <cstring>
#include <iterator>
#include <numbers>

#include <fmt/format.h>

#include "FrameShaders.h"
#include "ImageShaders.h"
#include "Proc/DirectX/Manager/D3FrameShader.h"
#include "QuadShaders.h"

namespace Norvex::DX {

namespace {

using Conf::TransferCharacteristics;
using Proc::AlphaType;

constexpr std::size_t kQuad = 4; // floats

// Mitchell and Netravali, "Reconstruction filters in computer graphics", 1988, equation 8.
double Cubic(double x, double b, double c) {
    const double d = std::abs(x);
    if (d < 1.0) {
        return ((12 - 9 * b - 6 * c) * d * d * d + (-18 + 12 * b + 6 * c) * d * d + (6 - 2 * b)) /
               6;
    }
    return d < 2.0 ? ((-b - 6 * c) * d * d * d + (6 * b + 30 * c) * d * d + (-12 * b - 48 * c) * d +
                      (8 * b + 24 * c)) /
                         6
                   : 0.0;
}

double Sinc(double x) {
    const double angle = std::numbers::pi * x;
    return x == 0.0 ? 1.0 : std::sin(angle) / angle;
}

double GetRadius(ScaleKernel kernel) {
    switch (kernel) {
    case ScaleKernel::Area:
        return 0.5;
    case ScaleKernel::Bilinear:
        return 1.0;
    case ScaleKernel::Lanczos3:
        return 3.0;
    default:
        return 2.0;
    }
}

double Weigh(ScaleKernel kernel, double x) {
    switch (kernel) {
    case ScaleKernel::Bilinear:
        return std::max(1.0 - std::abs(x), 0.0);
    case ScaleKernel::CatmullRom:
        return Cubic(x, 0.0, 0.5);
    case ScaleKernel::Mitchell:
        return Cubic(x, 1.0 / 3.0, 1.0 / 3.0);
    default:
        return std::abs(x) < 3.0 ? Sinc(x) * Sinc(x / 3.0) : 0.0;
    }
}

// One pixel's taps, in texels of the source.
struct Taps {
    long first = 0;
    long firstNeighbour = 0;
    long lastNeighbour = 0;
    std::vector<double> weights;
};

// How much of a texel lies between two places.
double Overlap(long texel, double from, double to) {
    const auto left = static_cast<double>(texel);
    return std::max(std::min(left + 1.0, to) - std::max(left, from), 0.0);
}

class TapMaker {
public:
    TapMaker(ScaleKernel kernel, const D3ScalerSpan& span)
        : m_kernel(kernel),
          m_from(span.from),
          m_ratio((span.to - span.from) / span.length),
          m_scale(std::max(m_ratio, 1.0)),
          m_firstTexel(static_cast<long>(std::floor(span.from))),
          m_lastTexel(static_cast<long>(std::ceil(span.to)) - 1) {}

    // Texels beyond the edge lend their weights to the one at the edge.
    Taps Make(std::int64_t pixel) const {
        const double centre = m_from + (static_cast<double>(pixel) + 0.5) * m_ratio;
        const bool isArea = m_kernel == ScaleKernel::Area;
        const double radius = GetRadius(m_kernel) * (isArea ? m_ratio : m_scale);
        const double reach = isArea ? radius : radius - 0.5; // of texels' centres
        const auto first = static_cast<long>(isArea ? std::floor(centre - reach)
                                                    : std::ceil(centre - reach - 1.0));
        const auto last = static_cast<long>(isArea ? std::ceil(centre + reach) - 1.0
                                                   : std::floor(centre + reach));
        Taps taps;
        taps.first = Clamp(first);
        taps.weights.resize(static_cast<std::size_t>(Clamp(last) - taps.first) + 1);
        double sum = 0.0;
        for (long texel = first; texel <= last; ++texel) {
            const double weight =
                isArea ? Overlap(texel, centre - radius, centre + radius)
                       : Weigh(m_kernel, (static_cast<double>(texel) + 0.5 - centre) / m_scale);
            taps.weights[static_cast<std::size_t>(Clamp(texel) - taps.first)] += weight;
            sum += weight;
        }
        for (double& weight : taps.weights) {
            weight /= sum;
        }
        SetNeighbours(taps, centre);
        return taps;
    }

private:
    long Clamp(long texel) const { return std::clamp(texel, m_firstTexel, m_lastTexel); }

    // Those nearer than 1.
    void SetNeighbours(Taps& taps, double centre) const {
        const long end = taps.first + static_cast<long>(taps.weights.size()) - 1;
        const auto first = static_cast<long>(std::floor(centre - m_scale - 0.5)) + 1;
        const auto last = static_cast<long>(std::ceil(centre + m_scale - 0.5)) - 1;
        taps.firstNeighbour = std::clamp(first, taps.first, end);
        taps.lastNeighbour = std::clamp(last, taps.first, end);
    }

    ScaleKernel m_kernel;
    double m_from;
    double m_ratio; // texels a pixel
    double m_scale; // of the kernel, in texels
    long m_firstTexel;
    long m_lastTexel;
};

D3ScalerSpan MakeSpan(double from, double to, long begin, long end, long firstVisible,
                      long endVisible) {
    // In double, which holds the extent of any rectangle.
    return {from, to, static_cast<double>(end) - static_cast<double>(begin),
            std::int64_t{firstVisible} - begin, endVisible - firstVisible};
}

D3ScalerConstants MakeConstants(const D3ScalerJob& job, const D3ScalerTable& table) {
    D3ScalerConstants constants;
    constants.lastTap = static_cast<std::int32_t>(table.texelCount - 1);
    constants.quadCount = table.quadCount;
    constants.transfer = job.transfer;
    constants.alphaType = job.alphaType;
    constants.antiRinging = job.antiRinging;
    return constants;
}

} // namespace

D3ScalerTable MakeScalerTable(ScaleKernel kernel, const D3ScalerSpan& span) {
    const TapMaker maker(kernel, span);
    std::vector<Taps> pixels;
    pixels.reserve(static_cast<std::size_t>(span.count));
    for (long i = 0; i < span.count; ++i) {
        pixels.push_back(maker.Make(span.first + i));
    }
    // Both ends grow with the pixel.
    D3ScalerTable table;
    table.firstTexel = pixels.front().first;
    table.texelCount =
        pixels.back().first + static_cast<long>(pixels.back().weights.size()) - table.firstTexel;
    std::size_t tapCount = 0;
    for (const Taps& taps : pixels) {
        tapCount = std::max(tapCount, taps.weights.size());
    }
    const std::size_t quadCount = (tapCount + kQuad - 1) / kQuad;
    table.quadCount = static_cast<std::int32_t>(quadCount);
    table.rows.resize(pixels.size() * (quadCount + 1) * kQuad);
    auto row = table.rows.begin();
    const auto place = [&](long texel) { return static_cast<float>(texel - table.firstTexel); };
    for (const Taps& taps : pixels) {
        row[0] = place(taps.first);
        row[1] = place(taps.firstNeighbour);
        row[2] = place(taps.lastNeighbour);
        std::ranges::transform(taps.weights, row + kQuad,
                               [](double weight) { return static_cast<float>(weight); });
        row += static_cast<std::ptrdiff_t>((quadCount + 1) * kQuad);
    }
    return table;
}

D3ScalerPasses::D3ScalerPasses(const D3ScalerJob& job) {
    const auto& [left, top, right, bottom] = job.visible;
    const D3ScalerTable rowTable =
        MakeScalerTable(job.kernel, MakeSpan(job.source.left, job.source.right, job.rect.left,
                                             job.rect.right, left, right));
    const D3ScalerTable columnTable =
        MakeScalerTable(job.kernel, MakeSpan(job.source.top, job.source.bottom, job.rect.top,
                                             job.rect.bottom, top, bottom));
    intermediate = {right - left, columnTable.texelCount};
    rowConstants = MakeConstants(job, rowTable);
    rowConstants.firstTexel = {static_cast<std::int32_t>(rowTable.firstTexel),
                               static_cast<std::int32_t>(columnTable.firstTexel)};
    columnConstants = MakeConstants(job, columnTable);
    columnConstants.origin = {static_cast<std::int32_t>(left), static_cast<std::int32_t>(top)};
    const auto countQuads = [](const D3ScalerTable& table) {
        return static_cast<std::uint32_t>(table.rows.size() / kQuad);
    };
    rows = {0, countQuads(rowTable)};
    columns = {rows[1], rows[1] + countQuads(columnTable)};
    const std::size_t rowBytes = rowTable.rows.size() * sizeof(float);
    const std::size_t columnBytes = columnTable.rows.size() * sizeof(float);
    weights.resize(rowBytes + columnBytes);
    std::memcpy(weights.data(), rowTable.rows.data(), rowBytes);
    std::memcpy(weights.data() + rowBytes, columnTable.rows.data(), columnBytes);
}

std::string GetScalerPixelShader(ScalerPass pass, const FrameShaderKey* frame) {
    std::string text = pass == ScalerPass::Rows ? "#define FIRST_PASS\n" : "";
    if (frame != nullptr) {
        text += "#define FRAME_SOURCE\n" + GetFrameSourceMacros(*frame);
        text += Shaders::kFrameSource;
    }
    const auto declare = [&text](const char* name, auto value) {
        text += fmt::format("static const uint {} = {};\n", name, static_cast<unsigned>(value));
    };
    declare("TransferBT709", TransferCharacteristics::BT709);
    declare("TransferSRGB", TransferCharacteristics::sRGB);
    declare("TransferPQ", TransferCharacteristics::PQ);
    declare("TransferHLG", TransferCharacteristics::HLG);
    declare("AlphaTypeNonPremultiplied", AlphaType::NonPremultiplied);
    declare("AlphaTypeAlphaIsOne", AlphaType::AlphaIsOne);
    declare("AlphaTypePremultiplied", AlphaType::Premultiplied);
    text += Shaders::kColorFunctions;
    text += Shaders::kScalePixel;
    return text;
}

DXGI_FORMAT GetScalerFormat(DXGI_FORMAT target) {
    switch (target) {
    case DXGI_FORMAT_R8G8B8A8_UNORM:
    case DXGI_FORMAT_R8G8B8A8_UNORM_SRGB:
    case DXGI_FORMAT_B8G8R8A8_UNORM:
    case DXGI_FORMAT_B8G8R8A8_UNORM_SRGB:
    case DXGI_FORMAT_B8G8R8X8_UNORM:
    case DXGI_FORMAT_R8G8_UNORM:
    case DXGI_FORMAT_R8_UNORM:
    case DXGI_FORMAT_A8_UNORM:
    case DXGI_FORMAT_R10G10B10A2_UNORM:
    case DXGI_FORMAT_R11G11B10_FLOAT:
    case DXGI_FORMAT_R16G16B16A16_FLOAT:
    case DXGI_FORMAT_R16G16_FLOAT:
    case DXGI_FORMAT_R16_FLOAT:
        return DXGI_FORMAT_R16G16B16A16_FLOAT;
    default:
        return DXGI_FORMAT_R32G32B32A32_FLOAT;
    }
}

bool IsScaleKernel(ScaleKernel kernel) {
    return kernel <= ScaleKernel::Area;
}

bool IsScaleTransfer(TransferCharacteristics transfer) {
    constexpr std::array kKnown = {TransferCharacteristics::BT709, TransferCharacteristics::Linear,
                                   TransferCharacteristics::sRGB, TransferCharacteristics::PQ,
                                   TransferCharacteristics::HLG};
    return std::ranges::find(kKnown, transfer) != kKnown.end();
}

bool LiesInside(const Rect2DT<double>& rect, const Size2DT<long>& size) {
    return 0.0 <= rect.left && rect.left < rect.right &&
           rect.right <= static_cast<double>(size.width) && 0.0 <= rect.top &&
           rect.top < rect.bottom && rect.bottom <= static_cast<double>(size.height);
}

} // namespace Norvex::DX
