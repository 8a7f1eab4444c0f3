#pragma once

// Drawing on Direct3D 11: fill a rectangle, draw an image through a transform and a colour
// conversion, or fitted by view state. Encode records on the context inside D11Device::Encode. One
// thread at a time; nothing here is locked but by that Encode. Throws DirectX11Exception, for a
// null device "There is no device", for a null context "There is no device context". Parameters of
// a draw, view state and shaders: D3ImageRenderer.h. The same on Direct3D 12: D3D12Renderer.h.

#include <cstddef>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/Color.h"
#include "Host/ColorConversionInfo.h"
#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/AffineTransform.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "Proc/DirectX/Manager/D3Blend.h"
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D11DeviceContext.h"
#include "Proc/DirectX/Manager/D3D11Resource.h"
#include "Proc/DirectX/Manager/D3ImageRenderer.h"
#include "Proc/DirectX/Manager/DirectXShader.h"
#include "Proc/DirectX/Manager/LiveObject.h"

namespace Norvex::DX {

class D11QuadPipeline;

// Afterwards blend, depth-stencil and rasterizer state are Direct3D's defaults and no target is
// bound, so that it can be drawn from. Viewport, topology, vertex buffer 0, input layout, both
// shaders, constant buffer 0 of both stages, and pixel shader resource 0 (the source; of a fill
// none) and sampler 0 stay bound. What the host had bound in these places is gone. Nothing else is
// touched, so that no other shader stage, predicate or scissor of the host's may be in effect.

class NORVEX_DX_API D11FillDraw : public LiveObject {
public:
    // Compiles the shaders; makes the quad and the states.
    explicit D11FillDraw(const boost::intrusive_ptr<D11Device>& device);
    ~D11FillDraw() override;
    D11FillDraw(const D11FillDraw&) = delete;
    D11FillDraw& operator=(const D11FillDraw&) = delete;

    // Fills rect (pixels; any, parts outside the target are cut off) with the colour in the
    // target's own encoding. "The texture is expected to be the render target view" (null is none).
    void Encode(const boost::intrusive_ptr<D11DeviceContext>& context, const Proc::ColorF& color,
                const boost::intrusive_ptr<D11RenderTexture2D>& target, const Rect2DT<long>& rect);

    // What it was made on.
    const boost::intrusive_ptr<D11Device>& GetDevice() const { return m_device; }
    // Null, the default: replace.
    const CComPtr<ID3D11BlendState>& GetBlendState() const { return m_blendState; }
    // Null: replace.
    void SetBlendState(const CComPtr<ID3D11BlendState>& blendState) { m_blendState = blendState; }
    void SetBlend(BlendPreset preset); // "Failed to create blend state"

private:
    boost::intrusive_ptr<D11Device> m_device;
    std::unique_ptr<D11QuadPipeline> m_pipeline;
    std::shared_ptr<D11PixelShader> m_pixelShader;
    CComPtr<ID3D11BlendState> m_blendState;
};

class NORVEX_DX_API D11ImageDraw : public virtual LiveObject {
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
    // The same and more: a part of the source, opacity.
    void Encode(const boost::intrusive_ptr<D11DeviceContext>& context,
                const boost::intrusive_ptr<D11ShaderTexture2D>& source,
                const boost::intrusive_ptr<D11RenderTexture2D>& target,
                const ImageDrawParams& params);

    // What it was made on.
    const boost::intrusive_ptr<D11Device>& GetDevice() const { return m_device; }
    // Compiles a pixel shader for this conversion (or none) alone: draws of it are made with that
    // from now on, the same pictures without the other conversions' branches. It takes some 10 ms,
    // so that the host says when; nothing happens the second time, whatever the luminances are.
    // "Failed to compile shader", "Failed to create pixel shader"; then all is as before.
    void Specialize(const std::optional<Proc::ColorAlphaConversionInfo>& conversion);
    // How many conversions have a shader of their own.
    std::size_t GetSpecializationCount() const { return m_specialized.size(); }

    // Null, the default: replace.
    const CComPtr<ID3D11BlendState>& GetBlendState() const { return m_blendState; }
    // Null: replace. Of the next Encode on.
    void SetBlendState(const CComPtr<ID3D11BlendState>& blendState) { m_blendState = blendState; }
    void SetBlend(BlendPreset preset); // "Failed to create blend state"
    // Throws std::bad_optional_access while none is stored; drawing then takes the identity.
    AffineTransform GetTransform() const { return m_transform.value(); }
    // From clip space to clip space, its translation in pixels of the rectangle. Of the next draw
    // on.
    void SetTransform(const AffineTransform& transform) { m_transform = transform; }

protected:
    // The transform of a draw into a rectangle of targetSize.
    virtual AffineTransform MakeTransform(const boost::intrusive_ptr<D11ShaderTexture2D>& source,
                                          const Size2DT<long>& targetSize);
    // Of a draw of a part of the source of partSize.
    virtual AffineTransform MakePartTransform(const Size2DT<long>& partSize,
                                              const Size2DT<long>& targetSize);

    std::optional<AffineTransform> m_transform;

private:
    const std::shared_ptr<D11PixelShader>& FindShader(const D3ConversionKey& key) const;

    boost::intrusive_ptr<D11Device> m_device;
    std::unique_ptr<D11QuadPipeline> m_pipeline;
    std::shared_ptr<D11PixelShader> m_pixelShader; // of all conversions
    std::vector<std::pair<D3ConversionKey, std::shared_ptr<D11PixelShader>>> m_specialized;
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
    AffineTransform MakePartTransform(const Size2DT<long>& partSize,
                                      const Size2DT<long>& targetSize) override;
    void SetTransform(const std::optional<AffineTransform>& transform) override;

private:
    Size2DT<long> m_lastSourceSize;
    Size2DT<long> m_lastTargetSize;
};

} // namespace Norvex::DX
