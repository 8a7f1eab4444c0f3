#pragma once

// Frames of clips to Y'CbCr planes on the device, several at a time: while one is converted, the
// next is uploaded and the one before read back. What is the same for both generations (slots,
// choice of textures, self-test) is here, the rest in FrameEncoder11.cpp and FrameEncoder12.cpp,
// which read side by side. Goes before its Graphics. One thread at a time. Throws Failure and what
// the library throws.

#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "Proc/DirectX/Manager/D3FrameConverter.h"
#include "Proc/DirectX/Manager/D3Scaler.h"
#include "apps/norvexdx/clips/ClipFrame.h"
#include "apps/norvexdx/clips/VideoFormat.h"
#include "apps/norvexdx/graphics/ColorStages.h"
#include "apps/norvexdx/graphics/Graphics.h"

namespace Norvex::App {

// Of a conversion with exact codes.
struct OnePassParams {
    DX::D3FrameDesc target; // all but its colour space
    DX::FrameDither dither = DX::FrameDither::None;
    DX::ScaleKernel kernel = DX::ScaleKernel::Bilinear; // for frames of another size
    ColorStages stages = {};
};

// What the frames become.
struct EncoderParams {
    VideoFormat format;
    Conf::YCbCrMatrix matrix = Conf::YCbCrMatrix::BT709;
    DX::Size2DT<long> size; // frames of another are fitted into it, over black
    std::optional<Proc::ColorAlphaConversionInfo> conversion;  // empty: colours stay
    Proc::AlphaType alpha = Proc::AlphaType::NonPremultiplied; // of pictures as they are converted
    std::optional<OnePassParams> onePass = {}; // empty: two passes, which take pictures alone
};

// The textures that planes are drawn on.
struct EncoderTextures {
    bool isPlanar = false; // one of both planes; else one each
    // Of pictures that are drawn before they are converted; at least 16 bits a channel.
    DXGI_FORMAT canvasFormat = DXGI_FORMAT_R16G16B16A16_UNORM;
};

class FrameEncoder {
public:
    // Frames between Submit and Collect, at most.
    static constexpr std::size_t kSlots = 3;
    // Around a fitted frame.
    static constexpr Proc::ColorF kBlack = {0.0F, 0.0F, 0.0F, 1.0F};

    // Planar textures where the adapter has them and its planes are what they should be (drivers
    // have been seen that draw both planes into the first), else luma and chroma apart. Failure:
    // the adapter can do neither.
    static std::unique_ptr<FrameEncoder> Open(const Graphics& graphics,
                                              const EncoderParams& params);

    virtual ~FrameEncoder() = default;
    FrameEncoder(const FrameEncoder&) = delete;
    FrameEncoder& operator=(const FrameEncoder&) = delete;

    bool IsPlanar() const { return m_textures.isPlanar; }
    std::size_t CountInFlight() const { return m_count; }

    // Has the device begin with a frame, which is read before the call returns.
    // While kSlots are in flight: std::logic_error. Answers the bytes that the frame holds on the
    // device and for transfers until it is collected.
    std::size_t Submit(const ClipFrame& frame);

    struct Collected {
        std::optional<double> gpuMs; // empty: the device could not tell
        std::size_t bytes = 0;       // as Submit answered
    };
    // Waits for the oldest frame. Planes: luma, then chroma pairs, rows without padding. With
    // nothing in flight: std::logic_error.
    Collected Collect(std::vector<std::uint8_t>& planes);

protected:
    FrameEncoder(const EncoderParams& params, const EncoderTextures& textures)
        : m_params(params),
          m_textures(textures) {}

    const EncoderParams& GetParams() const { return m_params; }
    const EncoderTextures& GetTextures() const { return m_textures; }
    // Whether a frame is drawn before it is converted: its size changes, or in two passes its
    // colours.
    bool IsDrawn(const ClipFrame& frame) const;
    // In one pass: what the frame is, what it becomes, where on that it lies when it is scaled, the
    // picture that scaling makes, and how all is converted.
    DX::D3FrameDesc DescribeSource(const ClipFrame& frame) const;
    DX::D3FrameDesc DescribeTarget() const;
    DX::ScaleParams GetScaling(const ClipFrame& frame) const;
    DX::D3FrameDesc DescribeScaled(const ClipFrame& frame) const;
    DX::FrameConvertParams GetConversion() const;

private:
    virtual void Begin(std::size_t slot, const ClipFrame& frame) = 0;
    virtual std::optional<double> End(std::size_t slot, std::uint8_t* planes) = 0;

    EncoderParams m_params;
    EncoderTextures m_textures;
    std::array<std::size_t, kSlots> m_bytes = {}; // by slot
    std::size_t m_oldest = 0;
    std::size_t m_count = 0;
};

// Which textures an adapter may have for this: planar ones still need their test.
struct TextureChoice {
    bool mayBePlanar = false;
    bool hasPair = false;
    DXGI_FORMAT canvasFormat = DXGI_FORMAT_R16G16B16A16_UNORM;

    bool operator==(const TextureChoice&) const = default;
};
// largestSide: pixels of a texture. Failure, saying what the adapter lacks.
TextureChoice ChooseTextures(const EncoderParams& params, long largestSide,
                             const std::function<FormatUses(DXGI_FORMAT)>& usesOf);

} // namespace Norvex::App
