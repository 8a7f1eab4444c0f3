#pragma once

// Drawing frames of video: any layout of D3Frame.h, as image renderers draw images, by their view
// state or a transform. Chroma is interpolated where it lies, and codes are expanded exactly. One
// thread at a time; on Direct3D 11 inside D11Device::Encode. Throws DirectX11Exception,
// DirectX12Exception, and has recorded nothing then. Next: D3ImageRenderer.h, D3FrameConverter.h.

#include <memory>
#include <optional>
#include <source_location>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "Proc/DirectX/Manager/D3Blend.h"
#include "Proc/DirectX/Manager/D3ColorLut.h"
#include "Proc/DirectX/Manager/D3D11DeviceContext.h"
#include "Proc/DirectX/Manager/D3D11Resource.h"
#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3D12GraphicsPipelineState.h"
#include "Proc/DirectX/Manager/D3D12ShaderParameters.h"
#include "Proc/DirectX/Manager/D3Frame.h"
#include "Proc/DirectX/Manager/D3ImageRenderer.h"
#include "Proc/DirectX/Manager/D3ToneMapping.h"
#include "Proc/DirectX/Manager/DirectXShader.h"

namespace Norvex::DX {

class D11QuadPipeline;
struct D12FramePass;
struct FrameShaderKey;

// What the drawers of both generations share. The picture that the view state places is the frame,
// or the part of it that is drawn.
class NORVEX_DX_API D3FrameDraw : public D3ImageRenderer {
public:
    ~D3FrameDraw() override;

    // Bilinear by default.
    ChromaFilter GetChromaFilter() const { return m_chromaFilter; }
    // Of the next Encode on.
    void SetChromaFilter(ChromaFilter filter) { m_chromaFilter = filter; }

    // Of draws with a conversion; by default the conversion's own.
    const D3ToneMapping& GetToneMapping() const { return m_toneMapping; }
    // Of the next Encode on.
    void SetToneMapping(const D3ToneMapping& toneMapping) { m_toneMapping = toneMapping; }

protected:
    D3FrameDraw();

    // One draw.
    struct Drawing {
        Rect2DT<long> area;                    // that is drawn over
        std::optional<Rect2DT<long>> viewport; // of that what lies inside the target
        AffineTransform transform;             // in clip units of the area
        D3ImageParams image;                   // for the shaders
        std::optional<Proc::ColorAlphaConversionInfo> conversion; // that was asked for
    };
    // hasStraightAlpha: what it draws without a conversion. With a LUT there always is one.
    Drawing Prepare(const D3FrameDesc& source, const ImageDrawParams& params,
                    const Size2DT<long>& target, bool hasStraightAlpha, bool hasLut);
    void SetTransform(const std::optional<AffineTransform>& transform) override;

private:
    AffineTransform MakeViewTransform(const Size2DT<long>& source, const Size2DT<long>& target);

    ChromaFilter m_chromaFilter = ChromaFilter::Bilinear;
    D3ToneMapping m_toneMapping;
    std::optional<AffineTransform> m_transform;
    Size2DT<long> m_lastSourceSize;
    Size2DT<long> m_lastTargetSize;
};

class NORVEX_DX_API D12FrameDraw : public D3FrameDraw {
public:
    // Shaders are compiled when a number of planes, a filter or a conversion's colours first need
    // them; those of 32 stay. "There is no device".
    explicit D12FrameDraw(const boost::intrusive_ptr<D12Device>& device);
    ~D12FrameDraw() override;

    // What it was made on.
    const boost::intrusive_ptr<D12Device>& GetDevice() const { return m_device; }

    // Records one closed list. The frame's textures are readable by the pixel shader, the target is
    // in the render-target state. params: as of D12ImageDraw, the source rectangle in pixels of the
    // frame; a conversion's source colours and alpha are the frame's, whatever it says of them;
    // without one, R'G'B' is drawn as the matrix gives it. What a part is sampled from: luma and
    // RGB inside alone, chroma as of the whole frame. D3FrameDesc::Validate's sentences, "A texture
    // of the frame is missing", "The frame has too many textures", "A texture is not of the frame's
    // layout", "A texture is smaller than the frame's plane", "A texture of the frame has no such
    // slice", "The frame's colors cannot be converted to these" (linear light as source or with
    // BT.2020's primaries), "The luminances of the tone mapping are out of range", "The texture is
    // expected to be the render target view", "There is no command allocator", "The source
    // rectangle does not lie in the texture".
    void Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator, const D12Frame& source,
                const boost::intrusive_ptr<D12Descriptor>& target,
                const ImageDrawParams& params = {});
    // Into an open list; what it replaces there: D3D12Renderer.h. "There is no command list", "The
    // command list is closed".
    void Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list, const D12Frame& source,
                const boost::intrusive_ptr<D12Descriptor>& target,
                const ImageDrawParams& params = {});

    // Default: replace (ONE, ZERO, all channels).
    const D12BlendState& GetBlendState() const;
    // Of the next Encode on.
    void SetBlendState(const D12BlendState& blendState);
    // A blend by its name.
    void SetBlend(BlendPreset preset) { SetBlendState(D12BlendState::Of(preset)); }

    // Null, the default: none. Of the next Encode on. Without a conversion it is applied to the
    // frame's own colours.
    const boost::intrusive_ptr<D12ColorLut>& GetColorLut() const { return m_colorLut; }
    // As said there.
    void SetColorLut(const boost::intrusive_ptr<D12ColorLut>& lut) { m_colorLut = lut; }

private:
    Drawing Check(const D12Frame& source, const D12Descriptor* target,
                  const ImageDrawParams& params, const std::source_location& location);

    struct Passes; // what draws with one shader
    D12FramePass& GetPass(const FrameShaderKey& key);

    boost::intrusive_ptr<D12Device> m_device;
    boost::intrusive_ptr<D12ColorLut> m_colorLut;
    D12BlendState m_blendState;
    std::unique_ptr<Passes> m_passes;
};

class NORVEX_DX_API D11FrameDraw : public D3FrameDraw {
public:
    // Shaders are compiled when a number of planes, a filter or a conversion's colours first need
    // them; those of 32 stay. "There is no device".
    explicit D11FrameDraw(const boost::intrusive_ptr<D11Device>& device);
    ~D11FrameDraw() override;

    // What it was made on.
    const boost::intrusive_ptr<D11Device>& GetDevice() const { return m_device; }

    // Inside D11Device::Encode. The frame's textures need D3D11_BIND_SHADER_RESOURCE. params and
    // what is wrong: as of D12FrameDraw, and "There is no device context". What of the context's
    // state is replaced: as of D11ImageDraw, and constant buffer 1 of the pixel shader; no shader
    // resource stays bound in 0 to 3.
    void Encode(const boost::intrusive_ptr<D11DeviceContext>& context, const D11Frame& source,
                const boost::intrusive_ptr<D11RenderTexture2D>& target,
                const ImageDrawParams& params = {});

    // Null, the default: replace.
    const CComPtr<ID3D11BlendState>& GetBlendState() const { return m_blendState; }
    // Null: replace. Of the next Encode on.
    void SetBlendState(const CComPtr<ID3D11BlendState>& blendState) { m_blendState = blendState; }
    void SetBlend(BlendPreset preset); // "Failed to create blend state"

    // Null, the default: none. Of the next Encode on. Without a conversion it is applied to the
    // frame's own colours.
    const boost::intrusive_ptr<D11ColorLut>& GetColorLut() const { return m_colorLut; }
    // As said there.
    void SetColorLut(const boost::intrusive_ptr<D11ColorLut>& lut) { m_colorLut = lut; }

private:
    struct Passes; // what draws with one shader

    boost::intrusive_ptr<D11Device> m_device;
    boost::intrusive_ptr<D11ColorLut> m_colorLut;
    std::unique_ptr<D11QuadPipeline> m_pipeline;
    CComPtr<ID3D11BlendState> m_blendState;
    std::unique_ptr<Passes> m_passes;
};

} // namespace Norvex::DX
