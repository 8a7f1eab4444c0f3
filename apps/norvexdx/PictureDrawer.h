#pragma once

// Draws pictures through the library: geometry, conversion, background. One drawer serves all
// pictures of a command and all of its threads. Throws what the library throws, and Failure. Next:
// Texture.h, ConvertCommand.h.

#include <array>
#include <mutex>
#include <optional>

#include "Proc/DirectX/Manager/D3D12Renderer.h"
#include "apps/norvexdx/Texture.h"

namespace Norvex::App {

// How a picture lies on the rectangle it is drawn into.
struct View {
    DX::RenderFitMode fit = DX::RenderFitMode::Fit;
    std::optional<float> scale;            // of the free mode: target pixels per source pixel
    float rotationDegrees = 0.0F;          // counter-clockwise
    std::array<float, 2> translation = {}; // pixels, right and down
};

// The library's renderer, with the geometry for sizes rather than for descriptors: a reduced copy
// of a picture lies where the picture itself would.
class ViewRenderer : public DX::D12ImageRenderer {
public:
    ViewRenderer(const boost::intrusive_ptr<DX::D12Device>& device, const View& view);

    struct Placement {
        DX::AffineTransform transform;
        float scale = 1.0F; // target pixels per source pixel
    };
    Placement Place(const DX::Size2DT<long>& source, const DX::Size2DT<long>& target);

private:
    std::mutex m_viewMutex;
};

class PictureDrawer {
public:
    // Compiles the shaders. With `blends` pictures, which are premultiplied when drawn, are laid
    // over what the canvas holds.
    PictureDrawer(const GraphicsDevice& graphics, const View& view, bool blends);

    struct Result {
        DX::AffineTransform transform;
        double drawMs = 0.0; // from submission until the device has finished
    };
    // Draws into rect (all of the canvas without one), after filling the canvas with `background`
    // if there is one, and waits. A picture that gets smaller than half its size is first reduced
    // by halves, so that every source pixel counts.
    Result Draw(const boost::intrusive_ptr<DX::D12Descriptor>& source, const Canvas& canvas,
                const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                const std::optional<DX::Rect2DT<long>>& rect,
                const std::optional<Proc::ColorF>& background);

    double GetShaderCompilationMs() const { return m_shaderCompilationMs; }

private:
    boost::intrusive_ptr<DX::D12Descriptor>
    Halve(const boost::intrusive_ptr<DX::D12CommandAllocator>& allocator,
          const boost::intrusive_ptr<DX::D12Descriptor>& source);
    const boost::intrusive_ptr<DX::D12ImageDraw>& GetCopier();

    GraphicsDevice m_graphics;
    double m_shaderCompilationMs = 0.0;
    boost::intrusive_ptr<ViewRenderer> m_renderer;
    std::mutex m_copierMutex;
    boost::intrusive_ptr<DX::D12ImageDraw> m_copier; // made when a picture is reduced
};

} // namespace Norvex::App
