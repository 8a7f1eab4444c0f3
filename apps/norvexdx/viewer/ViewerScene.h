#pragma once

// What the viewer draws into its window, with the device that it is drawn with: a picture over a
// dark background, and a text over that. Made anew as a whole when the device is lost. One thread;
// goes before the window. Throws what the library throws. Next: Screen.h.

#include <memory>
#include <optional>
#include <vector>

#include "apps/norvexdx/graphics/MovingPicture.h"
#include "apps/norvexdx/graphics/Screen.h"

namespace Norvex::App {

class ViewerScene {
public:
    ViewerScene(std::unique_ptr<Graphics> graphics, HWND window);

    Graphics& GetGraphics() const { return *m_graphics; }
    Screen& GetScreen() const { return *m_screen; }

    // Null: none. The image may go afterwards.
    void SetPicture(const Image* image, const Conf::RGBColorSpace& space);
    // In place of the picture; those that follow until the next SetPicture are of the same layout
    // and size. Read by the next Draw.
    void SetFrame(const ClipFrame& frame, const Conf::RGBColorSpace& space);
    // Drawn pixel by pixel in the corner. Premultiplied, sRGB.
    void SetOverlay(const Image* image);

    // As Screen::Present. What is drawn much smaller than it is, is reduced before, once for as
    // long as picture and scale stay.
    std::optional<double> Draw(const View& view, ScreenPixels* pixels);

private:
    void Record(Recorder& recorder, const Canvas& canvas, const View& view);
    void DrawBackground(Recorder& recorder, const Canvas& canvas) const;
    void DrawPicture(Recorder& recorder, const Canvas& canvas, const View& view);
    void DrawOverlay(Recorder& recorder, const Canvas& canvas) const;
    const Picture* GetPicture() const;
    const Picture& GetReduced(Recorder& recorder, float scale);

    std::unique_ptr<Graphics> m_graphics;
    std::unique_ptr<Screen> m_screen;
    std::unique_ptr<Picture> m_background; // one pixel
    std::unique_ptr<Picture> m_picture;
    std::unique_ptr<MovingPicture> m_moving; // in place of it
    const ClipFrame* m_frame = nullptr;      // that the next Draw shows
    Conf::RGBColorSpace m_space;
    std::vector<PaintedPicture> m_halves; // of the picture
    bool m_isHalved = false;              // they are of what it shows
    std::unique_ptr<Picture> m_overlay;
};

} // namespace Norvex::App
