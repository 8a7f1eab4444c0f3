#include "apps/norvexdx/graphics/MovingPicture.h"

#include <utility>

namespace Norvex::App {

MovingPicture::MovingPicture(Graphics& graphics, const ClipFrame& like) {
    const std::vector<PlaneRows> rows = GetPlaneRows(like);
    if (!like.desc) {
        m_picture = graphics.MakePicture(rows.front().size, rows.front().format);
        return;
    }
    for (const PlaneRows& plane : rows) {
        m_planes.push_back(graphics.MakePicture(plane.size, plane.format));
    }
    m_painted = graphics.MakePaintedPicture(like.GetSize());
}

void MovingPicture::Show(Recorder& recorder, const ClipFrame& frame) {
    const std::vector<PlaneRows> rows = GetPlaneRows(frame);
    if (m_planes.empty()) {
        recorder.Update(*m_picture, rows.front());
        return;
    }
    for (std::size_t i = 0; i < m_planes.size(); ++i) {
        recorder.Update(*m_planes[i], rows[i]);
    }
    recorder.Paint(m_painted,
                   [&] { recorder.DrawFrame(m_planes, *frame.desc, *m_painted.canvas); });
}

std::unique_ptr<Picture> MovingPicture::Take() {
    return std::move(m_planes.empty() ? m_picture : m_painted.picture);
}

} // namespace Norvex::App
