#include "apps/norvexdx/viewer/View.h"

#include <numbers>

namespace Norvex::App {

namespace {

// The library's view state by itself. It works on sizes, so that a reduced copy of a picture lies
// where the picture itself would.
class ViewState : public DX::D3ImageRenderer {
public:
    explicit ViewState(const View& view) {
        SetFitMode(view.fit);
        if (view.scale) {
            SetScale(*view.scale);
        }
        SetRotation(view.rotationDegrees * std::numbers::pi_v<float> / 180.0F);
        SetTranslation(view.translation[0], view.translation[1]);
    }

    Placement Place(const DX::Size2DT<long>& source, const DX::Size2DT<long>& target) {
        UpdateTransform(source, target);
        return {m_transform.value(), GetEffectiveScale()};
    }

protected:
    void SetTransform(const std::optional<DX::AffineTransform>& transform) override {
        m_transform = transform;
    }

private:
    std::optional<DX::AffineTransform> m_transform;
};

} // namespace

Placement PlacePicture(const View& view, const DX::Size2DT<long>& source,
                       const DX::Size2DT<long>& target) {
    return ViewState(view).Place(source, target);
}

} // namespace Norvex::App
