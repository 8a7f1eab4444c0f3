#pragma once

// What the program draws with: one device of one Direct3D generation, its shaders, and the pictures
// and canvases on it. What is the same for both generations (placing, reducing, formats) is here;
// the rest is in Graphics11.cpp and Graphics12.cpp, which read side by side. Graphics: any thread;
// a canvas: one thread at a time. Pictures and canvases go with the Graphics that made them. Throws
// Failure and what the library throws. Windows: Screen.h.

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

#include "Host/ColorConversionInfo.h"
#include "Proc/DirectX/Manager/D3Device.h"
#include "Proc/DirectX/Manager/D3FrameConverter.h"
#include "Proc/DirectX/Manager/D3Scaler.h"
#include "apps/norvexdx/clips/ClipFrame.h"
#include "apps/norvexdx/graphics/Surface.h"
#include "apps/norvexdx/viewer/View.h"

namespace Norvex::App {

class FrameEncoder;
class Screen;
struct ColorStages;
struct EncoderParams;
struct EncoderTextures;

enum class ApiChoice { Auto, Direct3D11, Direct3D12 };

// The device that the user asks for.
struct GraphicsChoice {
    ApiChoice api = ApiChoice::Auto;
    unsigned adapter = 0; // in DXGI's order
};

// Decides which shaders are compiled at once; others are when they are first needed.
enum class DrawKind {
    Replace, // pictures take the place of what the canvas holds
    Over,    // pictures, premultiplied when drawn, are laid over it
    Fill,    // rectangles of one colour
};

struct DrawParams {
    DX::AffineTransform transform;
    std::optional<Proc::ColorAlphaConversionInfo> conversion;
    std::optional<DX::Rect2DT<long>> rect; // all of the canvas without one
    bool blends = false;
    bool isRepeated = false; // for frame after frame: worth a shader of this conversion alone
};

// Records the work of one Graphics::Run, or of a frame of a Screen, in order.
class Recorder {
public:
    Recorder() = default;
    virtual ~Recorder() = default;
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    virtual void Clear(const Canvas& canvas, const Proc::ColorF& color) = 0;
    virtual void Fill(const Canvas& canvas, const Proc::ColorF& color,
                      const DX::Rect2DT<long>& rect) = 0;
    virtual void Draw(const Picture& source, const Canvas& canvas, const DrawParams& params) = 0;
    // What has been drawn, as a picture; the canvas is not drawn on any more.
    virtual std::unique_ptr<Picture> TakePicture(const Canvas& canvas) = 0;
    // What `draw` draws on its canvas, the picture shows from then on.
    virtual void Paint(const PaintedPicture& picture, const std::function<void()>& draw) = 0;
    // A picture of MakePicture gets these pixels, which are read before the call returns.
    virtual void Update(const Picture& picture, const PlaneRows& rows) = 0;
    // A frame, a picture for each plane, over all of the canvas: R'G'B' as its matrix gives it.
    virtual void DrawFrame(const std::vector<std::unique_ptr<Picture>>& planes,
                           const DX::D3FrameDesc& desc, const Canvas& canvas) = 0;
};

class Graphics {
public:
    // Failures: no Direct3D 12, no HLSL compiler, no such adapter. With ApiChoice::Auto it is
    // Direct3D 12 where system and adapter have it, else Direct3D 11, of which `tell` gets a line.
    static std::unique_ptr<Graphics> Open(const GraphicsChoice& choice, DrawKind kind,
                                          const std::function<void(std::string_view)>& tell);

    virtual ~Graphics() = default;
    Graphics(const Graphics&) = delete;
    Graphics& operator=(const Graphics&) = delete;

    virtual const char* GetApiName() const = 0; // "Direct3D 12"
    virtual const DX::D3Device& GetDevice() const = 0;
    unsigned GetAdapterIndex() const { return m_adapterIndex; }
    double GetCreationMs() const { return m_creationMs; }
    double GetShaderCompilationMs() const { return m_shaderCompilationMs; }
    // S_OK while the device works; else why it was lost. Then all of it is to be made anew.
    virtual long GetDeviceRemovedReason() const = 0;
    // Work on the device may outlive its Graphics on background threads: waits for that.
    static void WaitUntilReleased();

    // As R8G8B8A8_UNORM or R16G16B16A16_UNORM; the image may go afterwards.
    virtual std::unique_ptr<Picture> Upload(const Image& image) = 0;
    // A picture as above; planes are drawn as a picture of at least 16 bits a channel, R'G'B' as
    // the matrix gives it.
    std::unique_ptr<Picture> UploadFrame(const ClipFrame& frame);
    // Of undefined contents, for Recorder::Update.
    virtual std::unique_ptr<Picture> MakePicture(const DX::Size2DT<long>& size,
                                                 DXGI_FORMAT format) = 0;
    // Of undefined contents, with 16 bits a channel as of MakeCanvas.
    PaintedPicture MakePaintedPicture(const DX::Size2DT<long>& size);
    // In another size, by the library's scaler, of values as they are encoded; at least 16 bits a
    // channel. Compiles shaders.
    std::unique_ptr<Picture> Scale(const Picture& source, const DX::Size2DT<long>& size,
                                   DX::ScaleKernel kernel, Proc::AlphaType alpha);
    // In other colours, with at least 16 bits a channel. Compiles shaders.
    std::unique_ptr<Picture> ConvertColors(const Picture& source,
                                           const Proc::ColorAlphaConversionInfo& conversion,
                                           const ColorStages& stages);

    // The brightest channel of a picture in PQ, cd/m2, 0 to 10,000. Compiles shaders.
    float MeasurePeak(const Picture& source);

    // R8G8B8A8_UNORM for 8 bits; for 16 R16G16B16A16_UNORM where the device draws and blends on it,
    // else R16G16B16A16_FLOAT. Failure when the device has neither.
    std::unique_ptr<Canvas> MakeCanvas(const DX::Size2DT<long>& size, unsigned bitsPerChannel);

    // The same pixels with 8 bits a channel, rounded by that pattern. Compiles shaders.
    std::unique_ptr<Canvas> Dither(const Canvas& canvas, DX::FrameDither dither);

    // For the client area of a window, which has no other Screen.
    virtual std::unique_ptr<Screen> OpenScreen(HWND window) = 0;

    // Compiles its shaders; may outlive this object. Which textures it takes: FrameEncoder::Open.
    virtual std::unique_ptr<FrameEncoder> MakeEncoder(const EncoderParams& params,
                                                      const EncoderTextures& textures) const = 0;
    virtual FormatUses GetUses(DXGI_FORMAT format) const = 0;

    // How often a picture of this size is to be halved before it is drawn at this scale (target
    // pixels per source pixel), so that every source pixel counts.
    static unsigned CountHalvings(const DX::Size2DT<long>& size, float scale);
    // What a picture of this size is halved onto, so many times.
    std::vector<PaintedPicture> MakeHalves(DX::Size2DT<long> size, unsigned times);
    // The picture, or the last of its halves where there are any.
    static const Picture& Halve(Recorder& recorder, const Picture& source,
                                const std::vector<PaintedPicture>& halves);

    struct DrawOptions {
        View view;
        std::optional<Proc::ColorAlphaConversionInfo> conversion;
        std::optional<DX::Rect2DT<long>> rect;  // all of the canvas without one
        std::optional<Proc::ColorF> background; // what the canvas is filled with before
        bool blends = false;                    // as of DrawKind::Over
    };
    struct DrawResult {
        DX::AffineTransform transform;
        double drawMs = 0.0; // from submission until the device has finished
    };
    // Draws and waits. A picture that gets smaller than half its size is first reduced by halves.
    DrawResult Draw(const Picture& source, const Canvas& canvas, const DrawOptions& options);
    // Fills the canvas with the background, the rectangle with the colour, and waits. Milliseconds,
    // as DrawResult's. One thread at a time.
    double Fill(const Canvas& canvas, const Proc::ColorF& color, const DX::Rect2DT<long>& rect,
                const Proc::ColorF& background);

protected:
    Graphics() = default;

private:
    virtual PaintedPicture MakePainted(const DX::Size2DT<long>& size, DXGI_FORMAT format) = 0;
    virtual void RunScaler(const Picture& source, const Canvas& canvas,
                           const DX::ScaleParams& params) = 0;
    virtual void DrawColors(const Picture& source, const Canvas& canvas,
                            const Proc::ColorAlphaConversionInfo& conversion,
                            const ColorStages& stages) = 0;
    // Of one in BT.2100 PQ; one thread at a time.
    virtual float RunPeak(const Picture& source, const Conf::RGBColorSpace& colorSpace) = 0;
    virtual void DrawDithered(const Canvas& source, const Canvas& canvas,
                              DX::FrameDither dither) = 0;
    virtual void CompileShaders(DrawKind kind) = 0;
    virtual std::unique_ptr<Canvas> MakeCanvasOf(const DX::Size2DT<long>& size,
                                                 DXGI_FORMAT format) = 0;
    // Submits what the function records and waits for it. Milliseconds, as DrawResult's.
    virtual double Run(const std::function<void(Recorder&)>& record) = 0;

    DXGI_FORMAT ChooseTargetFormat(unsigned bitsPerChannel) const;

    std::mutex m_peakMutex; // guards RunPeak
    unsigned m_adapterIndex = 0;
    double m_creationMs = 0.0;
    double m_shaderCompilationMs = 0.0;
};

} // namespace Norvex::App
