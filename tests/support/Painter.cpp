#include "tests/support/Painter.h"

#include "Proc/DirectX/Manager/D11ImageDraw.h"
#include "tests/support/Canvas.h"
#include "tests/support/Canvas11.h"

namespace Norvex::Test {

namespace {

template <class Canvas, class ImageDraw, class ImageRenderer>
class PainterOn final : public Painter {
public:
    Pixels Draw(const Drawing& drawing) override {
        const auto [width, height] =
            drawing.size.value_or(DX::Size2DT{drawing.source.width, drawing.source.height});
        const auto source = m_canvas.MakeSource(drawing.source, drawing.sourceFormat);
        const auto target = m_canvas.MakeTarget(width, height, drawing.targetFormat);
        m_canvas.Record([&](const auto& recorder) {
            if (drawing.view) {
                drawing.view(*m_renderer);
                m_renderer->Encode(recorder, source, target, drawing.conversion, drawing.rect);
            } else {
                m_draw->Encode(recorder, source, target, drawing.transform, drawing.conversion,
                               drawing.rect);
            }
        });
        return m_canvas.Read(target);
    }

private:
    Canvas m_canvas;
    boost::intrusive_ptr<ImageDraw> m_draw{new ImageDraw(m_canvas.GetDevice())};
    boost::intrusive_ptr<ImageRenderer> m_renderer{new ImageRenderer(m_canvas.GetDevice())};
};

} // namespace

std::unique_ptr<Painter> MakePainter11() {
    return std::make_unique<PainterOn<Canvas11, DX::D11ImageDraw, DX::D11ImageRenderer>>();
}

std::unique_ptr<Painter> MakePainter12() {
    return std::make_unique<PainterOn<Canvas, DX::D12ImageDraw, DX::D12ImageRenderer>>();
}

} // namespace Norvex::Test
