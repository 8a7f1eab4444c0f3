#pragma once

// Scales a picture or a frame of video, or a part that may begin and end between pixels, to another
// size: two passes, along rows into an intermediate texture, then along its columns into the
// target. A kernel widens as the picture shrinks, so that every pixel of the source counts and
// nothing aliases. What the results are, and how exact: docs/colour.md. Tables of weights are kept
// for the sizes of the last draws, so that drawing them again makes no Direct3D object; others take
// some 100 kB and a millisecond. Throws DirectX11Exception, DirectX12Exception, before anything is
// recorded.

#include <cstdint>
#include <memory>
#include <optional>
#include <source_location>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/Color.h"
#include "Host/ColorConversionInfo.h"
#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Platform/Mutex.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "Proc/DirectX/Manager/D3D11DeviceContext.h"
#include "Proc/DirectX/Manager/D3D11Resource.h"
#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3Frame.h"
#include "Proc/DirectX/Manager/DirectXShader.h"
#include "Proc/DirectX/Manager/LiveObject.h"

namespace Norvex::Core {
class WaitableTimer;
}

namespace Norvex::DX {

class D11QuadPipeline;
class D12DrawState;
struct D3ScalerJob;
template <class Plan>
class D3ScalerPlans;

// The weight of a pixel at a distance, in pixels of the larger of the two grids.
enum class ScaleKernel : std::uint32_t {
    Bilinear = 0,   // a triangle of radius 1
    CatmullRom = 1, // the cubic of B = 0, C = 1/2 (Mitchell and Netravali, 1988), radius 2; sharp
    Mitchell = 2,   // the cubic of B = C = 1/3, radius 2; neither sharp nor ringing
    Lanczos3 = 3,   // sinc(x) sinc(x / 3), radius 3; sharpest, rings most
    Area = 4,       // the mean of what a pixel covers; enlarged, pixels stay squares
};

// One scaling. Members may be added: name those that are meant, `{.kernel = kernel}`.
struct ScaleParams {
    // How pixels are weighed.
    ScaleKernel kernel = ScaleKernel::Lanczos3;
    // The part of the source that becomes the rectangle, in pixels (of a frame: luma samples) and
    // their fractions, at least something and inside the source. Pixels that it does not touch do
    // not count: those at its edges go on beyond them; chroma is as of the whole frame. Without:
    // all of it.
    std::optional<Rect2DT<double>> sourceRect = std::nullopt;
    // Where on the target, pixels, at least one; any, parts outside the target are cut off.
    // Without: all of it.
    std::optional<Rect2DT<long>> rect = std::nullopt;
    // Filters light, which this function encodes: BT709 and sRGB light of the display, PQ too, HLG
    // that of the scene, Linear what there is. Without: filters values as they are encoded.
    std::optional<Conf::TransferCharacteristics> transfer = std::nullopt;
    // Of the source, and of the target; a frame's own instead, whatever this is. Colours count by
    // their alpha whatever it is, so that what is transparent does not shine through.
    Proc::AlphaType alphaType = Proc::AlphaType::NonPremultiplied;
    // 0 to 1, what is beyond counts as these: how far a result is taken back into the range of the
    // pixels around it, those within 1 of the kernel's distances, in either pass.
    float antiRinging = 0.0F;
    // Of frames with less chroma than luma.
    ChromaFilter chromaFilter = ChromaFilter::Bilinear;
};

// Any thread. Each draw has an intermediate texture of its own, so that draws may run at the same
// time; textures are used again when no list needs them, so that drawing again takes no memory, and
// freed some seconds after their last use.
class NORVEX_DX_API D12Scaler : public LiveObject {
public:
    // Compiles the shaders; those for frames when a number of planes or a chroma filter first needs
    // them. "There is no device".
    explicit D12Scaler(const boost::intrusive_ptr<D12Device>& device);
    ~D12Scaler() override;
    D12Scaler(const D12Scaler&) = delete;
    D12Scaler& operator=(const D12Scaler&) = delete;

    // Records one closed list, or throws and leaves the allocator as it was. The source is a 2-D
    // texture of one sample, its first mip level counts, readable by the pixel shader; the target
    // is in the render-target state, and what the rectangle covers is replaced. "There is no
    // command allocator", "The texture is expected to be the shader resource view", "The texture is
    // expected to be the render target view" (null is neither), "The source is expected to be a 2-D
    // texture of one sample", "The source and the target are the same texture", "The source
    // rectangle does not lie in the texture", "The target rectangle is empty", "Unknown kernel",
    // "Unsupported transfer function".
    void Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                const boost::intrusive_ptr<D12Descriptor>& source,
                const boost::intrusive_ptr<D12Descriptor>& target, const ScaleParams& params);
    // Into an open list, or throws and draws nothing; what it replaces there: D3D12Renderer.h.
    // "There is no command list", "The command list is closed".
    void Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                const boost::intrusive_ptr<D12Descriptor>& source,
                const boost::intrusive_ptr<D12Descriptor>& target, const ScaleParams& params);

    // A frame as source, its textures readable by the pixel shader: as if D12FrameDraw drew it at
    // its size without a conversion, in single precision, and that picture were scaled. Makes no
    // Direct3D object again but views of the planes. What is wrong: of the frame as of
    // D12FrameDraw, else as above; no plane is the target's texture.
    void Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator, const D12Frame& source,
                const boost::intrusive_ptr<D12Descriptor>& target, const ScaleParams& params);
    void Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list, const D12Frame& source,
                const boost::intrusive_ptr<D12Descriptor>& target, const ScaleParams& params);

    // What it was made on.
    const boost::intrusive_ptr<D12Device>& GetDevice() const { return m_device; }

private:
    struct Intermediate;
    using Intermediates = std::vector<boost::intrusive_ptr<Intermediate>>;
    struct Plan;   // of one job
    struct Pass;   // what draws one
    struct Passes; // all
    struct Source; // what the first pass reads, and by which
    struct Draw;

    template <class AnySource>
    void EncodeAny(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                   const AnySource& source, const boost::intrusive_ptr<D12Descriptor>& target,
                   const ScaleParams& params, const std::source_location& location);
    template <class AnySource>
    void EncodeAny(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                   const AnySource& source, const boost::intrusive_ptr<D12Descriptor>& target,
                   const ScaleParams& params, const std::source_location& location);
    Source MakeSource(const boost::intrusive_ptr<D12Descriptor>& source, const ScaleParams& params);
    Source MakeSource(const D12Frame& source, const ScaleParams& params);
    std::unique_ptr<Plan> MakePlan(const D3ScalerJob& job) const;
    boost::intrusive_ptr<Intermediate> Take(Plan& plan);
    void FreeIntermediates();
    Draw Prepare(const Source& source, const boost::intrusive_ptr<D12Descriptor>& target,
                 const D3ScalerJob& job);
    void Record(D12DrawState& state, const Draw& draw);

    boost::intrusive_ptr<D12Device> m_device;
    Platform::Mutex m_mutex; // guards everything below and one Encode
    std::unique_ptr<Passes> m_passes;
    std::unique_ptr<D3ScalerPlans<Plan>> m_plans;
    std::unique_ptr<Core::WaitableTimer> m_timer; // last: its callback uses all of the above
};

// Inside D11Device::Encode, as D11ImageDraw; one thread at a time.
class NORVEX_DX_API D11Scaler : public LiveObject {
public:
    // Compiles the shaders, those for frames as D12Scaler; makes the states. "There is no device".
    explicit D11Scaler(const boost::intrusive_ptr<D11Device>& device);
    ~D11Scaler() override;
    D11Scaler(const D11Scaler&) = delete;
    D11Scaler& operator=(const D11Scaler&) = delete;

    // What of the context's state is replaced: as of D11ImageDraw::Encode, but no shader resource
    // stays bound, of two. "There is no device context", and of the textures and parameters as
    // D12Scaler.
    void Encode(const boost::intrusive_ptr<D11DeviceContext>& context,
                const boost::intrusive_ptr<D11ShaderTexture2D>& source,
                const boost::intrusive_ptr<D11RenderTexture2D>& target, const ScaleParams& params);
    // A frame as source, as of D12Scaler; its textures need D3D11_BIND_SHADER_RESOURCE. Replaced
    // besides: constant buffer 1 of the pixel shader; no shader resource stays bound, of four.
    void Encode(const boost::intrusive_ptr<D11DeviceContext>& context, const D11Frame& source,
                const boost::intrusive_ptr<D11RenderTexture2D>& target, const ScaleParams& params);

    // What it was made on.
    const boost::intrusive_ptr<D11Device>& GetDevice() const { return m_device; }

private:
    struct Plan;   // of one job
    struct Frames; // what draws the first pass of frames
    struct Source; // what the first pass reads, and by which shader

    Source MakeSource(const D11Frame& source, ChromaFilter filter);
    std::unique_ptr<Plan> MakePlan(const D3ScalerJob& job) const;
    void Draw(D11DeviceContext& context, const Source& source, const D11RenderTexture2D& target,
              const D3ScalerJob& job);

    boost::intrusive_ptr<D11Device> m_device;
    std::unique_ptr<D11QuadPipeline> m_pipeline;
    std::shared_ptr<D11PixelShader> m_rowShader;
    std::shared_ptr<D11PixelShader> m_columnShader;
    std::unique_ptr<Frames> m_frames;
    std::unique_ptr<D3ScalerPlans<Plan>> m_plans;
};

} // namespace Norvex::DX
