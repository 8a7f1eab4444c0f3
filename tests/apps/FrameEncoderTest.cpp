// The encoders of both generations, in this process.

#include <gtest/gtest.h>

#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/Exceptions.h"
#include "apps/norvexdx/clips/PlanePacking.h"
#include "apps/norvexdx/graphics/FrameEncoder11.h"
#include "tests/apps/Pictures.h"
#include "tests/support/Generation.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/YCbCrReference.h"

namespace Norvex::Test {

namespace {

using namespace App;
using Conf::YCbCrMatrix;

std::unique_ptr<Graphics> OpenGraphics(Generation generation) {
    const bool is11 = generation == Generation::Direct3D11;
    return Graphics::Open({is11 ? ApiChoice::Direct3D11 : ApiChoice::Direct3D12, 0}, DrawKind::Fill,
                          [](auto) {});
}

EncoderParams MakeEncoderParams(const char* format, YCbCrMatrix matrix,
                                const DX::Size2DT<long>& size) {
    return {ParseVideoFormat(format).value(), matrix, size, {}};
}

class FrameEncoderTest : public testing::TestWithParam<Generation> {
protected:
    std::unique_ptr<Graphics> m_graphics = OpenGraphics(GetParam());
};

INSTANTIATE_TEST_SUITE_P(, FrameEncoderTest, BothGenerations(), &NameOf);

TEST_P(FrameEncoderTest, ConvertsManyFramesInFlight) {
    constexpr std::pair<const char*, YCbCrMatrix> kFormats[] = {
        {"nv12", YCbCrMatrix::BT601},
        {"p010", YCbCrMatrix::BT709},
        {"p016", YCbCrMatrix::BT2020NonConstant},
    };
    for (const auto& [name, matrix] : kFormats) {
        std::vector<DX::Size2DT<unsigned>> sizes = {{64, 36}, {5, 3}, {1, 1}};
        if (matrix == YCbCrMatrix::BT601) {
            sizes.insert(sizes.end(), {{3838, 6}, {6, 2158}}); // far from the first sample
        }
        for (const auto& [width, height] : sizes) {
            const EncoderParams params = MakeEncoderParams(
                name, matrix, {static_cast<long>(width), static_cast<long>(height)});
            const auto encoder = FrameEncoder::Open(*m_graphics, params);
            std::vector<Image> frames;
            for (unsigned i = 0; i < 8; ++i) { // depths change on the way
                frames.push_back(MakeNoise(width, height, i < 5 ? 8 : 16, false, i));
            }
            std::size_t collected = 0;
            Bytes planes;
            const auto collect = [&] {
                encoder->Collect(planes);
                RoundToCodes(params.format, planes);
                const auto expected = ReferenceFrame(GetPixels(frames[collected++]), matrix,
                                                     Proc::AlphaType::NonPremultiplied,
                                                     {(width + 1) / 2, (height + 1) / 2});
                EXPECT_EQ(DescribeDifference(planes, params.format.bits, expected), "")
                    << name << " frame " << collected;
            };
            for (const Image& frame : frames) {
                if (encoder->CountInFlight() == FrameEncoder::kSlots) {
                    EXPECT_THROW(encoder->Submit(frame), std::logic_error);
                    collect();
                }
                encoder->Submit(frame);
            }
            while (encoder->CountInFlight() != 0) {
                collect();
            }
            EXPECT_EQ(collected, frames.size());
            EXPECT_THROW(encoder->Collect(planes), std::logic_error);
        }
    }
}

TEST_P(FrameEncoderTest, FitsFramesOfAnySizeOverBlack) {
    const auto encoder =
        FrameEncoder::Open(*m_graphics, MakeEncoderParams("nv12", YCbCrMatrix::BT709, {32, 32}));
    encoder->Submit(MakePlain(4, 4, {255, 255, 255, 255}));
    encoder->Submit(MakeStripes(480, 240));
    encoder->Submit(MakePlain(32, 32, {255, 255, 255, 128}));
    // Luma in the middle of the left half, in the middle, at the upper edge. Stripes shrink to
    // grey, and not to the one in the middle of every fifteen.
    for (const auto& [half, middle, edge, bound] :
         {std::array{234, 234, 234, 0}, {125, 125, 16, 4}, {125, 125, 125, 1}}) {
        Bytes planes;
        encoder->Collect(planes);
        EXPECT_NEAR(planes[16 * 32 + 8], half, bound);
        EXPECT_NEAR(planes[16 * 32 + 16], middle, bound);
        EXPECT_NEAR(planes[16], edge, bound);
    }
}

// Only Direct3D 12 could take it for a finished frame: Direct3D 11 fails to map.
TEST(LostDeviceTest, IsNoFinishedFrame) {
    const auto graphics = OpenGraphics(Generation::Direct3D12);
    const auto& device = dynamic_cast<const DX::D12Device&>(graphics->GetDevice());
    const auto encoder =
        FrameEncoder::Open(*graphics, MakeEncoderParams("nv12", YCbCrMatrix::BT709, {4, 4}));
    encoder->Submit(MakePlain(4, 4, {}));
    const FailingMethod<&ID3D12Device::GetDeviceRemovedReason> removed(device.Get(),
                                                                       DXGI_ERROR_DEVICE_HUNG);
    Bytes planes;
    EXPECT_THROW(encoder->Collect(planes), DX::DirectX12Exception);
}

// Run on its own, on a Direct3D 11 that makes planar textures: one was seen that draws both planes
// into the first.
TEST(PlanarTest, IsUsedWhereItsPlanesAreTrue) {
    const auto graphics = OpenGraphics(Generation::Direct3D11);
    const auto& device = dynamic_cast<const DX::D11Device&>(graphics->GetDevice());
    const EncoderParams params = MakeEncoderParams("nv12", YCbCrMatrix::BT709, kTestSize);
    const auto planar =
        MakeFrameEncoder11(DX::D11Device::Find(device.Get()), params, {.isPlanar = true});
    EXPECT_EQ(FrameEncoder::Open(*graphics, params)->IsPlanar(), HasTruePlanes(*planar, params));
}

} // namespace

} // namespace Norvex::Test
