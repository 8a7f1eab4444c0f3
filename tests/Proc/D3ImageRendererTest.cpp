// The part of image rendering that needs no device: the affine transform, and what the operations
// of the view state do. Where pictures lie and what the shaders compute is DrawTest's.

#include <cmath>
#include <optional>

#include <gtest/gtest.h>

#include "Proc/DirectX/Manager/D3ImageRenderer.h"

namespace {

using namespace Norvex;
using DX::AffineTransform;
using enum DX::RenderFitMode;

TEST(AffineTransformTest, TransformsBoxesAndInverts) {
    const auto shifted = AffineTransform::Scale(2, 3).Then(AffineTransform::Translation(10, 20));
    EXPECT_EQ(shifted.Transform({1, 2, 3, 4}), (DX::Rect2DT<float>{12, 26, 16, 32}));
    // A quarter turn counter-clockwise, y up: (x, y) goes to (-y, x).
    const auto turned = AffineTransform::Rotation(1.57079633F);
    EXPECT_NEAR(turned.Transform({1, 2, 4, 8}).left, -8, 1e-5);
    EXPECT_EQ(shifted.Then(shifted.Inverse()).Transform({1, 2, 4, 8}).bottom, 8);
    EXPECT_THROW(AffineTransform::Scale(0, 1).Inverse(), std::domain_error);
}

// A renderer without a drawer: remembers what it was handed.
class View : public DX::D3ImageRenderer {
public:
    using D3ImageRenderer::UpdateTransform;

    std::optional<AffineTransform> transform;

protected:
    void SetTransform(const std::optional<AffineTransform>& value) override { transform = value; }
};

TEST(D3ImageRendererTest, ViewStateFollowsTheSetters) {
    View view;
    EXPECT_EQ(view.GetEffectiveScale(), 1.0F) << "nothing drawn yet";
    view.UpdateTransform({100, 100}, {50, 80});
    view.SetScale(0.0F);
    view.ScaleByMult(std::nanf(""));
    EXPECT_EQ(view.GetEffectiveScale(), 0.5F) << "those are ignored";
    view.ScaleByMult(3.0F);
    EXPECT_EQ(view.GetEffectiveScale(), 1.5F) << "from the scale that the fit implied";
    view.ScaleByDelta(0.25F);
    view.ScaleByDelta(-0.25F);
    EXPECT_FLOAT_EQ(view.GetEffectiveScale(), 1.5F) << "steps in and out cancel";
    view.SetFitMode(Fill);
    EXPECT_FLOAT_EQ(view.GetEffectiveScale(), 0.8F);
    view.SetFitMode(Free);
    EXPECT_EQ(view.GetEffectiveScale(), 1.0F) << "a fitting mode resets the scale";
    EXPECT_FALSE(view.transform);
    view.UpdateTransform({0, 5}, {5, 0});
    EXPECT_EQ(view.transform.value(), AffineTransform()) << "nothing to fit";
    view.SetFitMode(Fit);
    for (long size = 1; size < 4000; size += 7) {
        view.UpdateTransform({size, size + 3}, {size, size + 3});
        EXPECT_EQ(view.transform.value(), AffineTransform()) << "exactly, at the same size";
    }
}

} // namespace
