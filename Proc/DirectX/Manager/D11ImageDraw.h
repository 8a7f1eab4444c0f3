#pragma once

// Drawing on Direct3D 11: draw an image through a transform and a colour conversion, or fitted by
// view state. Encode records on the context inside D11Device::Encode. One thread at a time; nothing
// here is locked but by that Encode. Throws DirectX11Exception, for a null device "There is no
// device", for a null context "There is no device context". View state and shaders:
// D3ImageRenderer.h. The same on Direct3D 12: D3D12Renderer.h.

#include <memory>
#include <optional>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/ColorConversionInfo.h"
#include "Host/RefCountable.h"
#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/AffineTransform.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D11DeviceContext.h"
#include "Proc/DirectX/Manager/D3D11Resource.h"
#include "Proc/DirectX/Manager/D3ImageRenderer.h"
#include "Proc/DirectX/Manager/DirectXShader.h"

namespace Norvex::DX {

class D11QuadPipeline;

class NORVEX_DX_API D11ImageDraw : public virtual RefCountImpl {
public:
    // Compiles the shaders; makes the quad and the states.
    explicit D11ImageDraw(const boost::intrusive_ptr<D11Device>& device);
    ~D11ImageDraw() override;
    D11ImageDraw(const D11ImageDraw&) = delete;
    D11ImageDraw& operator=(const D11ImageDraw&) = delete;

    // Draws the source over rect (pixels; any, parts outside the target are cut off; default: the
    // whole target) with the stored transform. Without conversion the colours are sampled and
    // written as they are. "The texture is expected to be the shader resource view", "The texture
    // is expected to be the render target view" (null is neither). A rect of which nothing lies
    // inside the target changes nothing.
    //
    // Afterwards blend, depth-stencil and rasterizer state are Direct3D's defaults and no target is
    // bound, so that it can be drawn from. Viewport, topology, vertex buffer 0, input layout, both
    // shaders, constant buffer 0 of both stages, and pixel shader resource 0 (the source) and
    // sampler 0 stay bound. What the host had bound in these places is gone. Nothing else is
    // touched, so that no other shader stage, predicate or scissor of the host's may be in effect.
    void Encode(const boost::intrusive_ptr<D11DeviceContext>& context,
                const boost::intrusive_ptr<D11ShaderTexture2D>& source,
                const boost::intrusive_ptr<D11RenderTexture2D>& target,
                const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                const std::optional<Rect2DT<long>>& rect);
    // With this transform: it maps clip space (-1 to 1 over rect, y up) to clip space, its
    // translation is in pixels of rect. It may mirror.
    void Encode(const boost::intrusive_ptr<D11DeviceContext>& context,
                const boost::intrusive_ptr<D11ShaderTexture2D>& source,
                const boost::intrusive_ptr<D11RenderTexture2D>& target,
                const AffineTransform& transform,
                const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                const std::optional<Rect2DT<long>>& rect);

    // What it was made on.
    const boost::intrusive_ptr<D11Device>& GetDevice() const { return m_device; }
    // Null, the default: replace.
    const CComPtr<ID3D11BlendState>& GetBlendState() const { return m_blendState; }
    // Null: replace. Of the next Encode on.
    void SetBlendState(const CComPtr<ID3D11BlendState>& blendState) { m_blendState = blendState; }
    // Throws std::bad_optional_access while none is stored; drawing then takes the identity.
    AffineTransform GetTransform() const { return m_transform.value(); }
    // From the unit square, the picture, to clip space. Of the next Encode on.
    void SetTransform(const AffineTransform& transform) { m_transform = transform; }

protected:
    // The transform of a draw into a rectangle of targetSize.
    virtual AffineTransform MakeTransform(const boost::intrusive_ptr<D11ShaderTexture2D>& source,
                                          const Size2DT<long>& targetSize);

    std::optional<AffineTransform> m_transform;

private:
    boost::intrusive_ptr<D11Device> m_device;
    std::unique_ptr<D11QuadPipeline> m_pipeline;
    std::shared_ptr<D11PixelShader> m_pixelShader;
    CComPtr<ID3D11BlendState> m_blendState;
};

// An image draw whose transform follows from fit mode, scale, rotation and translation
// (D3ImageRenderer.h).
class NORVEX_DX_API D11ImageRenderer : public D11ImageDraw, public D3ImageRenderer {
public:
    // Compiles the shaders.
    explicit D11ImageRenderer(const boost::intrusive_ptr<D11Device>& device);
    ~D11ImageRenderer() override;

    using D11ImageDraw::SetTransform;

protected:
    AffineTransform MakeTransform(const boost::intrusive_ptr<D11ShaderTexture2D>& source,
                                  const Size2DT<long>& targetSize) override;
    void SetTransform(const std::optional<AffineTransform>& transform) override;

private:
    Size2DT<long> m_lastSourceSize;
    Size2DT<long> m_lastTargetSize;
};

} // namespace Norvex::DX
