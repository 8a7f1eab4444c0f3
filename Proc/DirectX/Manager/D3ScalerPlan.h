#pragma once

// What scalers of both generations have in common, internal: what one is asked for, the tables of
// weights that follow from it, the texts and constants of the shaders, and the plans kept for the
// next draw. Tables rather than the formulas in the shader: they are computed in double, where
// Direct3D lets a sine be off by 0.0008 and single precision a position by a thousandth of a pixel,
// and a tap costs a multiplication. Pure functions, any thread. E is the generation's exception.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <source_location>
#include <string>
#include <utility>
#include <vector>

#include "Proc/DirectX/Manager/D3Quad.h"
#include "Proc/DirectX/Manager/D3Scaler.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

struct FrameShaderKey;

// One draw: what of its arguments counts.
struct D3ScalerJob {
    ScaleKernel kernel = ScaleKernel::Lanczos3;
    Rect2DT<double> source;                   // pixels of the source
    Rect2DT<long> rect;                       // that it becomes, pixels of the target
    Rect2DT<long> visible;                    // the part of it inside the target
    DXGI_FORMAT format = DXGI_FORMAT_UNKNOWN; // of the intermediate texture
    std::uint32_t transfer = 0;               // its H.273 code point; 0: none
    std::uint32_t alphaType = 0;
    float antiRinging = 0.0F;

    friend bool operator==(const D3ScalerJob&, const D3ScalerJob&) = default;
};

// An edge-to-edge stretch of source pixels that becomes `length` pixels, of which some are drawn.
struct D3ScalerSpan {
    double from = 0.0;
    double to = 0.0;
    double length = 0.0;
    std::int64_t first = 0;
    long count = 0;
};

// The table of one pass. A row for each pixel drawn, quadCount + 1 quads of floats: first tap,
// first and last neighbour, 0; then the weights. Taps count from firstTexel on.
struct D3ScalerTable {
    long firstTexel = 0;
    long texelCount = 0; // that any pixel takes
    std::int32_t quadCount = 0;
    std::vector<float> rows;
};
D3ScalerTable MakeScalerTable(ScaleKernel kernel, const D3ScalerSpan& span);

// As it lies in the shader's constant buffer.
struct D3ScalerConstants {
    std::array<std::int32_t, 2> origin = {};
    std::array<std::int32_t, 2> firstTexel = {};
    std::int32_t lastTap = 0;
    std::int32_t quadCount = 0;
    std::uint32_t transfer = 0;
    std::uint32_t alphaType = 0;
    float antiRinging = 0.0F;
    std::array<float, 3> unused = {};
};

// All that a draw needs on any device.
struct D3ScalerPasses {
    explicit D3ScalerPasses(const D3ScalerJob& job);

    Size2DT<long> intermediate;          // pixels
    D3ScalerConstants rowConstants;      // of the first pass
    D3ScalerConstants columnConstants;   // of the second
    std::vector<std::uint8_t> weights;   // of both passes, one after the other
    std::array<std::uint32_t, 2> rows{}; // where they begin and end there, in quads
    std::array<std::uint32_t, 2> columns{};
};

enum class ScalerPass { Rows, Columns };

// Entry "PSMain". The vertex shader is the quad's. Parameters b0, a texture t0, its weights t1; of
// rows of a frame (MakeFrameSourceKey): also b1, planes t0 to t2, and the weights in t3.
std::string GetScalerPixelShader(ScalerPass pass, const FrameShaderKey* frame = nullptr);

// Sixteen bits a channel hold what targets of up to ten do, and of floats of sixteen.
DXGI_FORMAT GetScalerFormat(DXGI_FORMAT target);

bool IsScaleKernel(ScaleKernel kernel);
bool IsScaleTransfer(Conf::TransferCharacteristics transfer);
bool LiesInside(const Rect2DT<double>& rect, const Size2DT<long>& size);

// Nothing where nothing of the rectangle is visible.
template <class E>
std::optional<D3ScalerJob> MakeScalerJob(const ScaleParams& params, const Size2DT<long>& source,
                                         const Size2DT<long>& target, DXGI_FORMAT targetFormat,
                                         const std::source_location& location) {
    const Rect2DT<double> whole = {0.0, 0.0, static_cast<double>(source.width),
                                   static_cast<double>(source.height)};
    const Rect2DT<double> part = params.sourceRect.value_or(whole);
    ThrowUnless<E>(LiesInside(part, source), "The source rectangle does not lie in the texture",
                   location);
    const Rect2DT<long> rect =
        params.rect.value_or(Rect2DT<long>{0, 0, target.width, target.height});
    ThrowUnless<E>(rect.left < rect.right && rect.top < rect.bottom,
                   "The target rectangle is empty", location);
    ThrowUnless<E>(IsScaleKernel(params.kernel), "Unknown kernel", location);
    ThrowUnless<E>(!params.transfer || IsScaleTransfer(*params.transfer),
                   "Unsupported transfer function", location);
    const auto visible = GetVisiblePart(rect, target);
    if (!visible) {
        return std::nullopt;
    }
    const bool isLinear =
        !params.transfer || *params.transfer == Conf::TransferCharacteristics::Linear;
    return D3ScalerJob{.kernel = params.kernel,
                       .source = part,
                       .rect = rect,
                       .visible = *visible,
                       .format = GetScalerFormat(targetFormat),
                       .transfer = isLinear ? 0 : static_cast<std::uint32_t>(*params.transfer),
                       .alphaType = static_cast<std::uint32_t>(params.alphaType),
                       .antiRinging = std::clamp(params.antiRinging, 0.0F, 1.0F)};
}

// Of a frame that CheckFrame found right.
template <class E>
std::optional<D3ScalerJob> MakeScalerJob(ScaleParams params, const D3FrameDesc& source,
                                         const Size2DT<long>& target, DXGI_FORMAT targetFormat,
                                         const std::source_location& location) {
    params.alphaType = source.alpha;
    return MakeScalerJob<E>(params, source.size, target, targetFormat, location);
}

// The plans of the last few jobs, the latest first.
template <class Plan>
class D3ScalerPlans {
public:
    // make() answers a std::unique_ptr<Plan>. Valid until the next call.
    template <class Make>
    Plan& Get(const D3ScalerJob& job, const Make& make) {
        const auto found = std::ranges::find(m_entries, job, &Entry::job);
        if (found != m_entries.end()) {
            std::rotate(m_entries.begin(), found, found + 1);
        } else {
            auto plan = make();
            m_entries.insert(m_entries.begin(), Entry{job, std::move(plan)});
            m_entries.resize(std::min(m_entries.size(), kKept));
        }
        return *m_entries.front().plan;
    }
    // visit(plan) of each.
    template <class Visit>
    void ForEach(const Visit& visit) {
        for (Entry& entry : m_entries) {
            visit(*entry.plan);
        }
    }

private:
    static constexpr std::size_t kKept = 4;
    struct Entry {
        D3ScalerJob job;
        std::unique_ptr<Plan> plan;
    };
    std::vector<Entry> m_entries;
};

} // namespace Norvex::DX
