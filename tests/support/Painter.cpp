#include "tests/support/Painter.h"

#include "Proc/DirectX/Manager/D11ImageDraw.h"
#include "tests/support/Canvas.h"
#include "tests/support/Canvas11.h"

namespace Norvex::Test {

namespace {

DX::Size2DT<unsigned> SizeOf(const Drawing& drawing) {
    return drawing.size.width != 0
               ? drawing.size
               : DX::Size2DT<unsigned>{drawing.source.width, drawing.source.height};
}

// The drawers of one generation. Recorder: what its Encode records on.
template <class Draw, class Renderer>
class Drawers {
public:
    template <class Device>
    explicit Drawers(const Device& device)
        : m_draw(new Draw(device)),
          m_renderer(new Renderer(device)) {}

    template <class Recorder, class Source, class Target>
    void Record(const Drawing& drawing, const Recorder& recorder, const Source& source,
                const Target& target) {
        if (drawing.view) {
            m_renderer->SetFitMode(DX::RenderFitMode::Fit);
            m_renderer->SetRotation(0.0F);
            m_renderer->SetTranslation(0.0F, 0.0F);
            drawing.view(*m_renderer);
            m_renderer->Encode(recorder, source, target, drawing.conversion, drawing.rect);
        } else if (drawing.transform) {
            m_draw->Encode(recorder, source, target, *drawing.transform, drawing.conversion,
                           drawing.rect);
        } else {
            m_draw->Encode(recorder, source, target, drawing.conversion, drawing.rect);
        }
    }

private:
    boost::intrusive_ptr<Draw> m_draw;
    boost::intrusive_ptr<Renderer> m_renderer;
};

class Painter11 final : public Painter {
public:
    Pixels Draw(const Drawing& drawing) override {
        const auto size = SizeOf(drawing);
        const auto source = m_canvas.MakeSource(drawing.source, drawing.sourceFormat);
        const auto target = m_canvas.MakeTarget(size.width, size.height, drawing.targetFormat);
        m_canvas.GetDevice()->Encode(
            [&](const auto& context) { m_drawers.Record(drawing, context, source, target); });
        return m_canvas.Read(target->GetTexture());
    }

private:
    Canvas11 m_canvas;
    Drawers<DX::D11ImageDraw, DX::D11ImageRenderer> m_drawers{m_canvas.GetDevice()};
};

class Painter12 final : public Painter {
public:
    Pixels Draw(const Drawing& drawing) override {
        const auto size = SizeOf(drawing);
        const auto source = m_canvas.MakeSource(drawing.source, drawing.sourceFormat);
        const auto target = m_canvas.MakeTarget(size.width, size.height, drawing.targetFormat);
        const auto allocator = m_canvas.GetQueue()->CreateCommandAllocator();
        m_drawers.Record(drawing, allocator, source, target);
        allocator->Execute();
        return m_canvas.Read(target);
    }

private:
    Canvas m_canvas;
    Drawers<DX::D12ImageDraw, DX::D12ImageRenderer> m_drawers{m_canvas.GetDevice()};
};

} // namespace

std::unique_ptr<Painter> MakePainter11() {
    return std::make_unique<Painter11>();
}

std::unique_ptr<Painter> MakePainter12() {
    return std::make_unique<Painter12>();
}

} // namespace Norvex::Test
