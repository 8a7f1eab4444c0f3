#pragma once

// Drawing on Direct3D 12: fill a rectangle, draw an image through a transform and a colour
// conversion, draw an image fitted by view state. The target is in the render-target state, the
// source readable by the pixel shader. D12FillDraw: one thread at a time; the others: any thread.
// Throws DirectX12Exception, for a null device "There is no device", for a null allocator "There is
// no command allocator", for a list "There is no command list" or "The command list is closed".
// Next: D3ImageRenderer.h (parameters of a draw, view state).

#include <memory>
#include <optional>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/Color.h"
#include "Host/ColorConversionInfo.h"
#include "Platform/Export.h"
#include "Platform/Mutex.h"
#include "Proc/DirectX/Manager/AffineTransform.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "Proc/DirectX/Manager/D3Blend.h"
#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12GraphicsPipelineState.h"
#include "Proc/DirectX/Manager/D3D12ShaderParameters.h"
#include "Proc/DirectX/Manager/D3ImageRenderer.h"
#include "Proc/DirectX/Manager/Exceptions.h"
#include "Proc/DirectX/Manager/LiveObject.h"

namespace Norvex::DX {

class D12QuadPipeline;

// Each Encode on an allocator records one closed command list, or throws and leaves the allocator
// as it was; the caller submits it.
//
// Each Encode on a list draws into that open list, or throws and draws nothing: the way for a frame
// of many draws, which share the list, its memory for constants and views, and the state that they
// have in common. It replaces the list's pipeline state, root signature and arguments, descriptor
// heaps, render targets, viewport, scissor rectangle, vertex buffer and topology; what the caller
// needs of these for draws of its own it sets again. One thread records a list at a time.

class NORVEX_DX_API D12FillDraw : public LiveObject {
public:
    // Compiles the shaders.
    explicit D12FillDraw(const boost::intrusive_ptr<D12Device>& device);
    ~D12FillDraw() override;
    D12FillDraw(const D12FillDraw&) = delete;
    D12FillDraw& operator=(const D12FillDraw&) = delete;

    // Fills rect (pixels; any, parts outside the target are cut off) with the colour in the
    // target's own encoding. "The texture is expected to be the render target view" (null is none).
    void Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                const Proc::ColorF& color, const boost::intrusive_ptr<D12Descriptor>& target,
                const Rect2DT<long>& rect);
    void Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list, const Proc::ColorF& color,
                const boost::intrusive_ptr<D12Descriptor>& target, const Rect2DT<long>& rect);

    // What it was made on.
    const boost::intrusive_ptr<D12Device>& GetDevice() const { return m_device; }
    // Default: replace (ONE, ZERO, all channels).
    const D12BlendState& GetBlendState() const;
    // Of the next Encode on.
    void SetBlendState(const D12BlendState& blendState);
    // A blend by its name.
    void SetBlend(BlendPreset preset) { SetBlendState(D12BlendState::Of(preset)); }

private:
    boost::intrusive_ptr<D12Device> m_device;
    std::unique_ptr<D12QuadPipeline> m_pipeline;
    boost::intrusive_ptr<D12RootConstants> m_color;
};

class NORVEX_DX_API D12ImageDraw : public virtual LiveObject {
public:
    // Compiles the shaders.
    explicit D12ImageDraw(const boost::intrusive_ptr<D12Device>& device);
    ~D12ImageDraw() override;
    D12ImageDraw(const D12ImageDraw&) = delete;
    D12ImageDraw& operator=(const D12ImageDraw&) = delete;

    // Draws the source over rect (pixels; any, parts outside the target are cut off; default: the
    // whole target) with the user transform. Without conversion the colours are sampled and written
    // as they are. "The texture is expected to be the shader resource view", "The texture is
    // expected to be the render target view" (null is neither).
    void Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                const boost::intrusive_ptr<D12Descriptor>& source,
                const boost::intrusive_ptr<D12Descriptor>& target,
                const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                const std::optional<Rect2DT<long>>& rect);
    void Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                const boost::intrusive_ptr<D12Descriptor>& source,
                const boost::intrusive_ptr<D12Descriptor>& target,
                const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                const std::optional<Rect2DT<long>>& rect);
    // With this transform: it maps clip space (-1 to 1 over rect, y up) to clip space, its
    // translation is in pixels of rect. It may mirror.
    void Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                const boost::intrusive_ptr<D12Descriptor>& source,
                const boost::intrusive_ptr<D12Descriptor>& target, const AffineTransform& transform,
                const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                const std::optional<Rect2DT<long>>& rect);
    void Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                const boost::intrusive_ptr<D12Descriptor>& source,
                const boost::intrusive_ptr<D12Descriptor>& target, const AffineTransform& transform,
                const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                const std::optional<Rect2DT<long>>& rect);
    // The same and more: a part of the source, opacity.
    void Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                const boost::intrusive_ptr<D12Descriptor>& source,
                const boost::intrusive_ptr<D12Descriptor>& target, const ImageDrawParams& params);
    void Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                const boost::intrusive_ptr<D12Descriptor>& source,
                const boost::intrusive_ptr<D12Descriptor>& target, const ImageDrawParams& params);

    // Compiles a pixel shader for this conversion (or none) alone: draws of it are made with that
    // from now on, the same pictures without the other conversions' branches. It takes some 10 ms,
    // so that the host says when; nothing happens the second time, whatever the luminances are. A
    // pipeline state is made for each. Other threads may draw meanwhile. "Failed to compile
    // shader"; then all is as before.
    void Specialize(const std::optional<Proc::ColorAlphaConversionInfo>& conversion);
    // How many conversions have a shader of their own.
    std::size_t GetSpecializationCount() const;

    // What it was made on.
    const boost::intrusive_ptr<D12Device>& GetDevice() const { return m_device; }
    // Default: replace (ONE, ZERO, all channels).
    D12BlendState GetBlendState() const;
    // Of the next Encode on.
    void SetBlendState(const D12BlendState& blendState);
    // A blend by its name.
    void SetBlend(BlendPreset preset) { SetBlendState(D12BlendState::Of(preset)); }
    // The user transform; identity when none is set.
    AffineTransform GetTransform() const;
    // From clip space to clip space, its translation in pixels of the rectangle. Of the next draw
    // on.
    void SetTransform(const AffineTransform& transform);

protected:
    // The transform of a draw into a rectangle of targetSize; called under the mutex.
    virtual AffineTransform MakeTransform(const boost::intrusive_ptr<D12Descriptor>& source,
                                          const Size2DT<long>& targetSize);
    // The same of a draw of a part of the source of partSize.
    virtual AffineTransform MakePartTransform(const Size2DT<long>& partSize,
                                              const Size2DT<long>& targetSize);

    mutable Platform::Mutex m_mutex; // guards everything below and one Encode
    std::optional<AffineTransform> m_userTransform;

private:
    // These expect the mutex to be held.
    AffineTransform MakeDrawTransform(const boost::intrusive_ptr<D12Descriptor>& source,
                                      const ImageDrawParams& params, const Rect2DT<long>& area);
    D3ImageParams MakeShaderParams(const AffineTransform& clipTransform,
                                   const D12Descriptor& source,
                                   const ImageDrawParams& params) const;
    void SetParameters(const D3ImageParams& params);

    boost::intrusive_ptr<D12Device> m_device;
    std::unique_ptr<D12QuadPipeline> m_pipeline;
    boost::intrusive_ptr<D12ConstantBufferView> m_paramsView;
    boost::intrusive_ptr<D12ViewTable> m_textureTable;
};

// An image draw whose transform follows from fit mode, scale, rotation and translation
// (D3ImageRenderer.h). Encode is for any thread, the view state for one thread at a time, and not
// during an Encode.
class NORVEX_DX_API D12ImageRenderer : public D12ImageDraw, public D3ImageRenderer {
public:
    // Compiles the shaders.
    explicit D12ImageRenderer(const boost::intrusive_ptr<D12Device>& device);
    ~D12ImageRenderer() override;

    using D12ImageDraw::SetTransform;

protected:
    AffineTransform MakeTransform(const boost::intrusive_ptr<D12Descriptor>& source,
                                  const Size2DT<long>& targetSize) override;
    AffineTransform MakePartTransform(const Size2DT<long>& partSize,
                                      const Size2DT<long>& targetSize) override;
    void SetTransform(const std::optional<AffineTransform>& transform) override;

private:
    Size2DT<long> m_lastSourceSize;
    Size2DT<long> m_lastTargetSize;
};

} // namespace Norvex::DX
