#pragma once

// A picture that shows one frame of a clip after another, in the same textures, drawn as
// Graphics::UploadFrame draws a frame. Goes before its Graphics. One thread. Throws what the
// library throws.

#include <memory>
#include <vector>

#include "apps/norvexdx/graphics/Graphics.h"

namespace Norvex::App {

class MovingPicture {
public:
    // For frames of this one's layout and size; its pixels are not looked at. Undefined contents.
    MovingPicture(Graphics& graphics, const ClipFrame& like);

    const Picture& Get() const { return m_planes.empty() ? *m_picture : *m_painted.picture; }
    // The frame is read before the call returns.
    void Show(Recorder& recorder, const ClipFrame& frame);
    // Ends it.
    std::unique_ptr<Picture> Take();

private:
    std::unique_ptr<Picture> m_picture; // of frames in RGBA
    std::vector<std::unique_ptr<Picture>> m_planes;
    PaintedPicture m_painted; // what the planes become
};

} // namespace Norvex::App
