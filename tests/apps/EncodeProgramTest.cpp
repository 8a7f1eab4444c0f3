// `norvexdx encode` as a process.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "apps/norvexdx/clips/PlanePacking.h"
#include "apps/norvexdx/clips/Y4m.h"
#include "apps/norvexdx/console/Arguments.h"
#include "apps/norvexdx/graphics/FrameEncoder.h"
#include "tests/apps/Process.h"
#include "tests/support/ColorReference.h"
#include "tests/support/YCbCrReference.h"

namespace Norvex::Test {

namespace {

using namespace App;
using Conf::YCbCrMatrix;
using nlohmann::json;

class EncodeProgramTest : public ProgramTestOfBoth {
protected:
    Bytes ReadClip(const char* name) const {
        const std::string text = ReadText(m_folder.GetPath(name));
        return {text.begin(), text.end()};
    }

    // A frame of a file: samples are codes.
    static void ExpectFrame(std::span<const std::uint8_t> frame, unsigned bits,
                            const Pixels& pixels, YCbCrMatrix matrix) {
        const auto expected = ReferenceFrame(pixels, matrix, Proc::AlphaType::NonPremultiplied,
                                             {(pixels.width + 1) / 2, (pixels.height + 1) / 2});
        EXPECT_EQ(DescribeDifference(frame, bits, expected), "");
        for (std::size_t i = 0; i < frame.size() && bits == 10; i += 2) {
            ASSERT_EQ(frame[i] % 64, 0) << "below the code";
        }
    }
};

INSTANTIATE_TEST_SUITE_P(, EncodeProgramTest, BothGenerations(), &NameOf);

TEST_P(EncodeProgramTest, TurnsPicturesIntoClips) {
    const struct {
        const char* format;
        const char* options;
        YCbCrMatrix matrix;
        DX::Size2DT<unsigned> size;
    } kCases[] = {
        {"nv12", " --matrix bt601", YCbCrMatrix::BT601, {64, 36}},
        {"p016", "", YCbCrMatrix::BT709, {5, 3}},
        {"p010", " --from srgb --to rec2020-pq", YCbCrMatrix::BT2020NonConstant, {32, 18}},
    };
    const auto graphics =
        Graphics::Open({ParseApi(GetApi()).value(), 0}, DrawKind::Fill, [](auto) {});
    for (const auto& [name, options, matrix, size] : kCases) {
        SCOPED_TRACE(name);
        const VideoFormat format = ParseVideoFormat(name).value();
        const DX::Size2DT<long> frameSize = {static_cast<long>(size.width),
                                             static_cast<long>(size.height)};
        // Planar textures where this system has them and draws them right.
        const bool isPlanar =
            FrameEncoder::Open(*graphics, {format, matrix, frameSize, {}})->IsPlanar();
        const std::array pictures = {MakeNoise(size.width, size.height, 8, false, 1),
                                     MakeNoise(size.width, size.height, 16, true, 2)};
        Write("0.png", pictures[0]);
        Write("1.png", pictures[1]);
        for (const char* clip : {"clip.raw", "clip.y4m"}) {
            const json report = json::parse(Run(std::string("encode @0.png @1.png --json -o @") +
                                                clip + " --fps 29.97 --format " + name + options));
            EXPECT_EQ(report.at("api"), GetApi());
            EXPECT_EQ(report.at("format"), name);
            EXPECT_EQ(report.at("matrix"), GetMatrixName(matrix));
            EXPECT_EQ(report.at("frames"), 2);
            EXPECT_EQ(report.at("planes"), isPlanar ? "planar" : "pair");
            EXPECT_GT(report.at("gpuMsPerFrame"), 0.0);
        }
        const std::size_t bytes = format.GetFrameBytes(frameSize);
        const Bytes raw = ReadClip("clip.raw");
        ASSERT_EQ(raw.size(), 2 * bytes);
        std::string expected =
            MakeY4mHeader({frameSize, FrameRate{30000, 1001}, "0:0", format.y4mColors});
        for (std::size_t i = 0; i < 2; ++i) {
            const auto frame = std::span(raw).subspan(i * bytes, bytes);
            Pixels pixels = GetPixels(pictures[i]);
            Proc::ColorAlphaConversionInfo info;
            info.target = {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ};
            info.mode = Proc::LinearizationMode::DisplayReferredHDR;
            info.targetAlpha = Proc::AlphaType::AlphaIsOne;
            for (Color& color : pixels.colors) {
                color = format.bits == 10 ? ReferenceConvert(color, info) : color;
            }
            ExpectFrame(frame, format.bits, pixels, matrix);
            Bytes planes;
            Deinterleave(format, frameSize, frame, planes);
            expected += "FRAME\n" + std::string(planes.begin(), planes.end());
        }
        EXPECT_TRUE(ReadText(m_folder.GetPath("clip.y4m")) == expected);
    }
}

TEST_P(EncodeProgramTest, KeepsItsMemoryHoweverLongTheClip) {
    const auto encode = [&](std::size_t frames) {
        Bytes input(frames * 16 * 16 * 4);
        for (std::size_t i = 0; i < input.size(); ++i) {
            input[i] = static_cast<std::uint8_t>(i % 4 == 3 ? 255 : i / 1024);
        }
        return json::parse(Run("encode - --size 16x16 --format nv12 -o @clip --json", input));
    };
    const json few = encode(1000);
    const json many = encode(10000);
    EXPECT_EQ(many.at("frames"), 10000);
    EXPECT_LE(many.at("peakFramesInFlight"), 9);
    const double growth = many.value("peakWorkingSet", 1e12) - few.value("peakWorkingSet", 0.0);
    // The driver's caches; Direct3D 11's grow until some 50,000 frames.
    constexpr double kMiB = 1 << 20;
    EXPECT_LT(growth / kMiB, GetParam() == Generation::Direct3D11 ? 24.0 : 8.0);
    const Bytes clip = ReadClip("clip");
    ASSERT_EQ(clip.size(), 10000U * 384);
    for (unsigned i = 0; i < 10000; ++i) {
        const double grey = i % 256 / 255.0 * 219.0 + 16.0;
        ASSERT_NEAR(clip[i * 384 + 100], grey * 255.0 / 256.0, 1.0) << "frame " << i;
    }
}

TEST_P(EncodeProgramTest, TakesDeepFramesAndY4mOnStandardInput) {
    const auto expect = [&](const std::string& options, const Bytes& input, const Pixels& pixels) {
        const std::string out = Run("encode - --format p016 -o - --stats " + options, input,
                                    "1 frames of 6 x 4 to p016"); // on standard error
        ExpectFrame(Bytes(out.begin(), out.end()), 16, pixels, YCbCrMatrix::BT709);
    };
    const Image deep = MakeNoise(6, 4, 16, false);
    expect("--size 6x4 --input-depth 16", deep.pixels, GetPixels(deep));

    // Line feeds and carriage returns among the samples, which must stay what they are.
    const std::string header = "YUV4MPEG2 W6 H4 C444\nFRAME\n";
    Bytes clip(header.begin(), header.end());
    const Pixels greys = MakePixels(6, 4, [&](unsigned x, unsigned y) {
        clip.push_back(static_cast<std::uint8_t>(x % 3 == 0 ? 13 : x % 3 == 1 ? 26 : 200 + x + y));
        const double grey = std::max(0.0, (clip.back() - 16) / 219.0);
        return Color{grey, grey, grey, 1.0};
    });
    clip.insert(clip.end(), 48, 128);
    expect("", clip, greys);
}

} // namespace

} // namespace Norvex::Test
