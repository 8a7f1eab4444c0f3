#pragma once

// Frames of video from textures and from other frames, in one pass a plane (C'b and C'r of three
// planes in one) and in single precision up to the code: colours, matrix, range, and the mean of
// pixels about the place where a chroma sample lies. Codes are exact: white is 235, P010 is code <<
// 6. How exact: docs/colour.md. One thread at a time; on Direct3D 11 inside D11Device::Encode.
// Throws DirectX11Exception, DirectX12Exception ("There is no device", and what Encode says) and
// has recorded nothing then. Next: D3Frame.h. As encoders of old expect it: D3YUVConverter.h.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <source_location>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/ColorConversionInfo.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/D3ColorLut.h"
#include "Proc/DirectX/Manager/D3D11DeviceContext.h"
#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3Frame.h"
#include "Proc/DirectX/Manager/D3FrameDraw.h"
#include "Proc/DirectX/Manager/D3ToneMapping.h"
#include "Proc/DirectX/Manager/D3YUVConverter.h"
#include "Proc/DirectX/Manager/DirectXShader.h"
#include "Proc/DirectX/Manager/LiveObject.h"

namespace Norvex::DX {

// How codes are rounded.
enum class FrameDither : std::uint32_t {
    None = 0, // to the nearest
    // By a pattern that stays in its place, up as often as they are between two. It is one of 8 x
    // 8, a regular texture,
    Ordered = 1,
    // or one of 64 x 64 without low frequencies, a fine grain: D3BlueNoise.h. The first Encode
    // makes it.
    BlueNoise = 2,
};

// One conversion. Members may be added: name those that are meant.
struct FrameConvertParams {
    // The light it works in, and luminances; the colours are the frames', whatever it says of them.
    Proc::ColorConversionInfo conversion = {};
    ChromaFilter chromaFilter = ChromaFilter::Bilinear; // of a source with less chroma than luma
    FrameDither dither = FrameDither::None;             // of the destination's codes
    D3ToneMapping toneMapping = {};                     // by default the conversion's own
};

class NORVEX_DX_API D12FrameConverter : public LiveObject {
public:
    // Shaders are compiled when a kind of conversion first needs them: GetShaderCount.
    explicit D12FrameConverter(const boost::intrusive_ptr<D12Device>& device);
    ~D12FrameConverter() override;
    D12FrameConverter(const D12FrameConverter&) = delete;
    D12FrameConverter& operator=(const D12FrameConverter&) = delete;

    // What it was made on.
    const boost::intrusive_ptr<D12Device>& GetDevice() const { return m_device; }
    // The shaders that it has, one or two a kind of conversion: layouts but for the size of their
    // codes, place and filter of the chroma, colour spaces, light, alpha, dither. At most 32, those
    // used last.
    std::size_t GetShaderCount() const;

    // Records one closed list, or throws and leaves the allocator as it was. Source and destination
    // are of one size; the destination's textures allow render targets. A destination in RGB has
    // normalised samples. Straight alpha is composed over black where the destination is Y'CbCr.
    // states: of every texture of the source, of the destination; barriers are recorded where they
    // differ from the reading and drawing states, of texture arrays for the slice alone. What is
    // wrong with a frame: as of D12FrameDraw; "The frames have different sizes", "The frame's
    // colors cannot be converted to these", "The luminances of the tone mapping are out of range",
    // "There is no command allocator".
    void Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator, const D12Frame& source,
                const D12Frame& destination, const std::array<D12ResourceStates, 2>& states,
                const FrameConvertParams& params = {});
    // Into an open list, or throws and draws nothing; what it replaces there: D3D12Renderer.h.
    // "There is no command list", "The command list is closed".
    void Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list, const D12Frame& source,
                const D12Frame& destination, const std::array<D12ResourceStates, 2>& states,
                const FrameConvertParams& params = {});

    // Null, the default: none. Of the next Encode on.
    const boost::intrusive_ptr<D12ColorLut>& GetColorLut() const { return m_colorLut; }
    // As said there.
    void SetColorLut(const boost::intrusive_ptr<D12ColorLut>& lut) { m_colorLut = lut; }

private:
    struct Passes;     // what draws the planes of one size
    struct Conversion; // views, constants and barriers of one Encode

    // Views of what is converted; the passes' constants and pipeline states fit it then.
    Conversion Prepare(const D12Frame& source, const D12Frame& destination,
                       const std::array<D12ResourceStates, 2>& states,
                       const FrameConvertParams& params, const std::source_location& location);

    boost::intrusive_ptr<D12Device> m_device;
    boost::intrusive_ptr<D12ColorLut> m_colorLut;
    std::unique_ptr<Passes> m_passes;
};

class NORVEX_DX_API D11FrameConverter : public LiveObject {
public:
    // Makes the states. Shaders are compiled when a kind of conversion first needs them:
    // GetShaderCount.
    explicit D11FrameConverter(const boost::intrusive_ptr<D11Device>& device);
    ~D11FrameConverter() override;
    D11FrameConverter(const D11FrameConverter&) = delete;
    D11FrameConverter& operator=(const D11FrameConverter&) = delete;

    // What it was made on.
    const boost::intrusive_ptr<D11Device>& GetDevice() const { return m_device; }
    // As of D12FrameConverter.
    std::size_t GetShaderCount() const;

    // Inside D11Device::Encode. The source's textures need D3D11_BIND_SHADER_RESOURCE, the
    // destination's D3D11_BIND_RENDER_TARGET. What of the context's state is replaced: as of
    // D11FrameDraw::Encode, and shader resource 4 of the pixel shader. What is wrong: as of
    // D12FrameConverter, and "There is no device context".
    void Encode(const boost::intrusive_ptr<D11DeviceContext>& context, const D11Frame& source,
                const D11Frame& destination, const FrameConvertParams& params = {});

    // Null, the default: none. Of the next Encode on.
    const boost::intrusive_ptr<D11ColorLut>& GetColorLut() const { return m_colorLut; }
    // As said there.
    void SetColorLut(const boost::intrusive_ptr<D11ColorLut>& lut) { m_colorLut = lut; }

private:
    struct Passes; // what draws the planes of one size

    boost::intrusive_ptr<D11Device> m_device;
    boost::intrusive_ptr<D11ColorLut> m_colorLut;
    std::unique_ptr<D11QuadPipeline> m_pipeline;
    std::unique_ptr<Passes> m_passes;
};

} // namespace Norvex::DX
