#include "Proc/DirectX/Manager/D3FrameDraw.h"

#include "Proc/DirectX/Manager/D3Quad.h"

namespace Norvex::DX {

D3FrameDraw::D3FrameDraw() = default;

D3FrameDraw::~D3FrameDraw() = default;

D3FrameDraw::Drawing D3FrameDraw::Prepare(const D3FrameDesc& source, const ImageDrawParams& params,
                                          const Size2DT<long>& target, bool hasStraightAlpha,
                                          bool hasLut) {
    ImageDrawParams drawn = params;
    if (hasLut && !drawn.conversion) {
        drawn.conversion.emplace();
        drawn.conversion->target = source.colorSpace;
        drawn.conversion->targetAlpha = source.alpha;
    }
    if (drawn.conversion) {
        drawn.conversion->source = source.colorSpace;
        drawn.conversion->sourceAlpha = source.alpha;
    }
    Drawing drawing;
    drawing.area = params.rect.value_or(Rect2DT<long>{0, 0, target.width, target.height});
    drawing.viewport = GetVisiblePart(drawing.area, target);
    drawing.transform =
        params.transform
            ? *params.transform
            : MakeViewTransform(params.sourceRect ? SizeOf(*params.sourceRect) : source.size,
                                SizeOf(drawing.area));
    drawing.image = MakeParams(
        ToClipUnits(drawing.transform, drawing.area, drawing.viewport.value_or(drawing.area)),
        drawn, source.size, params.opacity < 1.0F && hasStraightAlpha);
    if (params.conversion) {
        drawing.conversion = drawn.conversion;
    }
    return drawing;
}

AffineTransform D3FrameDraw::MakeViewTransform(const Size2DT<long>& source,
                                               const Size2DT<long>& target) {
    if (!m_transform || source != m_lastSourceSize || target != m_lastTargetSize) {
        m_lastSourceSize = source;
        m_lastTargetSize = target;
        UpdateTransform(source, target);
    }
    return m_transform.value_or(AffineTransform{});
}

void D3FrameDraw::SetTransform(const std::optional<AffineTransform>& transform) {
    m_transform = transform;
}

} // namespace Norvex::DX
