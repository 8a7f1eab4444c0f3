#include "apps/norvexdx/viewer/ViewerScene.h"

#include <utility>

namespace Norvex::App {

namespace {

using Proc::AlphaType;

constexpr std::uint8_t kBackground = 0x20; // of each channel, sRGB
constexpr Conf::RGBColorSpace kSRGB = {};

Image MakeBackground() {
    return {.width = 1,
            .height = 1,
            .bitsPerChannel = 8,
            .pixels = {kBackground, kBackground, kBackground, 0xFF},
            .colorSpace = {}};
}

} // namespace

ViewerScene::ViewerScene(std::unique_ptr<Graphics> graphics, HWND window)
    : m_graphics(std::move(graphics)),
      m_screen(m_graphics->OpenScreen(window)),
      m_background(m_graphics->Upload(MakeBackground())) {}

void ViewerScene::SetPicture(const Image* image, const Conf::RGBColorSpace& space) {
    m_halves.clear();
    m_moving.reset();
    m_picture = image != nullptr ? m_graphics->Upload(*image) : nullptr;
    m_space = space;
}

void ViewerScene::SetFrame(const ClipFrame& frame, const Conf::RGBColorSpace& space) {
    if (m_moving == nullptr) {
        m_halves.clear();
        m_moving = std::make_unique<MovingPicture>(*m_graphics, frame);
    }
    m_frame = &frame;
    m_space = space;
}

void ViewerScene::SetOverlay(const Image* image) {
    m_overlay = image != nullptr ? m_graphics->Upload(*image) : nullptr;
}

std::optional<double> ViewerScene::Draw(const View& view, ScreenPixels* pixels) {
    const auto milliseconds = m_screen->Present(
        [&](Recorder& recorder, const Canvas& canvas) { Record(recorder, canvas, view); }, pixels);
    m_frame = nullptr;
    return milliseconds;
}

void ViewerScene::Record(Recorder& recorder, const Canvas& canvas, const View& view) {
    if (m_frame != nullptr) {
        m_moving->Show(recorder, *m_frame);
        m_isHalved = false;
    }
    DrawBackground(recorder, canvas);
    if (GetPicture() != nullptr) {
        DrawPicture(recorder, canvas, view);
    }
    if (m_overlay != nullptr) {
        DrawOverlay(recorder, canvas);
    }
}

// Only a draw converts its colour; where there is nothing to convert, clearing is cheaper.
void ViewerScene::DrawBackground(Recorder& recorder, const Canvas& canvas) const {
    if (!m_screen->IsHDR()) {
        constexpr float kLevel = kBackground / 255.0F;
        recorder.Clear(canvas, {kLevel, kLevel, kLevel, 1.0F});
        return;
    }
    recorder.Draw(*m_background, canvas,
                  {.transform = {},
                   .conversion = m_screen->GetConversionInfo(kSRGB, AlphaType::AlphaIsOne),
                   .rect = {},
                   .blends = true});
}

void ViewerScene::DrawPicture(Recorder& recorder, const Canvas& canvas, const View& view) {
    const Placement placement = PlacePicture(view, GetPicture()->GetSize(), canvas.GetSize());
    recorder.Draw(GetReduced(recorder, placement.scale), canvas,
                  {.transform = placement.transform,
                   .conversion = m_screen->GetConversionInfo(m_space, AlphaType::NonPremultiplied),
                   .rect = {},
                   .blends = true,
                   .isRepeated = true});
}

void ViewerScene::DrawOverlay(Recorder& recorder, const Canvas& canvas) const {
    const DX::Size2DT<long>& size = m_overlay->GetSize();
    recorder.Draw(*m_overlay, canvas,
                  {.transform = {},
                   .conversion = m_screen->GetConversionInfo(kSRGB, AlphaType::Premultiplied),
                   .rect = DX::Rect2DT<long>{0, 0, size.width, size.height},
                   .blends = true});
}

const Picture* ViewerScene::GetPicture() const {
    return m_moving != nullptr ? &m_moving->Get() : m_picture.get();
}

const Picture& ViewerScene::GetReduced(Recorder& recorder, float scale) {
    const Picture& picture = *GetPicture();
    const unsigned halvings = Graphics::CountHalvings(picture.GetSize(), scale);
    if (halvings != m_halves.size()) {
        m_halves = m_graphics->MakeHalves(picture.GetSize(), halvings);
        m_isHalved = false;
    }
    if (m_halves.empty()) {
        return picture;
    }
    return std::exchange(m_isHalved, true) ? *m_halves.back().picture
                                           : Graphics::Halve(recorder, picture, m_halves);
}

} // namespace Norvex::App
