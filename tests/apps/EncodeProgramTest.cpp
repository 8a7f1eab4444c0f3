// `norvexdx encode` as a process.

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "apps/norvexdx/clips/VideoFormat.h"
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
    Bytes ReadClip() const { return ToBytes(ReadText(m_folder.GetPath("clip"))); }

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
        unsigned width;
        unsigned height;
    } kCases[] = {
        {"nv12", "--matrix bt601", YCbCrMatrix::BT601, 64, 36},
        {"nv12", "--matrix bt601", YCbCrMatrix::BT601, 3838, 6}, // far from the first sample
        {"nv12", "--matrix bt601", YCbCrMatrix::BT601, 6, 2158},
        {"nv12", "", YCbCrMatrix::BT709, 1, 1},
        {"p016", "", YCbCrMatrix::BT709, 5, 3},
        {"p010", "--from srgb --to rec2020-pq", YCbCrMatrix::BT2020NonConstant, 32, 18},
    };
    constexpr std::size_t kFrames = 8; // more than are in flight
    for (const auto& [name, options, matrix, width, height] : kCases) {
        SCOPED_TRACE(testing::Message() << name << " " << width << " x " << height);
        std::vector<Pixels> pictures;
        for (unsigned i = 0; i < kFrames; ++i) { // depths change on the way
            const Image picture = MakeNoise(width, height, i < 5 ? 8 : 16, false, i);
            Write(std::to_string(i) + ".png", picture);
            pictures.push_back(GetPixels(picture));
        }
        const json report = json::parse(
            Run(std::string("encode @?.png --json -o @clip --format ") + name + " " + options));
        EXPECT_EQ(report.at("matrix"), GetMatrixName(matrix));
        EXPECT_EQ(report.at("frames"), kFrames);
        EXPECT_GT(report.at("gpuMsPerFrame"), 0.0);
        const Bytes clip = ReadClip();
        const unsigned bits = ParseVideoFormat(name)->bits;
        for (std::size_t i = 0; i < kFrames; ++i) {
            Proc::ColorAlphaConversionInfo info;
            info.target = {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ};
            info.mode = Proc::LinearizationMode::DisplayReferredHDR;
            info.targetAlpha = Proc::AlphaType::AlphaIsOne;
            for (Color& color : pictures[i].colors) {
                color = bits == 10 ? ReferenceConvert(color, info) : color;
            }
            const std::size_t bytes = clip.size() / kFrames;
            ExpectFrame(std::span(clip).subspan(i * bytes, bytes), bits, pictures[i], matrix);
        }
    }
}

TEST_P(EncodeProgramTest, FitsFramesOfAnySizeOverBlack) {
    Write("1.png", MakePlain(4, 4, {255, 255, 255, 255}));
    Write("2.png", MakeStripes(480, 240));
    Write("3.png", MakePlain(32, 32, {255, 255, 255, 128}));
    Run("encode @?.png --size 32x32 --fps 29.97 --format nv12 -o @clip.y4m");
    const std::string clip = ReadText(m_folder.GetPath("clip.y4m"));
    const std::string header =
        "YUV4MPEG2 W32 H32 F30000:1001 Ip A0:0 C420jpeg XCOLORRANGE=LIMITED\nFRAME\n";
    constexpr std::size_t kFrame = 32 * 32 * 3 / 2 + 6;
    ASSERT_EQ(clip.size() + 6, header.size() + 3 * kFrame);
    EXPECT_TRUE(clip.starts_with(header)) << clip.substr(0, header.size());
    // Luma in the middle of the left half, in the middle, at the upper edge. Stripes shrink to
    // grey, and not to the one in the middle of every fifteen.
    std::size_t frame = header.size();
    for (const auto& [half, middle, edge, bound] :
         {std::array{234, 234, 234, 0}, {125, 125, 16, 4}, {125, 125, 125, 1}}) {
        const auto luma = [&](std::size_t i) { return static_cast<std::uint8_t>(clip[frame + i]); };
        EXPECT_NEAR(luma(16 * 32 + 8), half, bound);
        EXPECT_NEAR(luma(16 * 32 + 16), middle, bound);
        EXPECT_NEAR(luma(16), edge, bound);
        frame += kFrame;
    }
}

TEST_P(EncodeProgramTest, TakesTheMatrixOfTheFirstPicture) {
    Image wide = MakeNoise(4, 2, 16, true);
    wide.colorSpace = {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ};
    Write("wide.png", wide);
    Write("plain.png", MakeNoise(4, 2, 16, true));
    const struct {
        const char* options;
        YCbCrMatrix matrix;
        const char* stats;
        std::vector<std::string> messages = {};
    } kCases[] = {
        {"@wide.png", YCbCrMatrix::BT2020NonConstant, "p016 (bt2020 of rec2020-pq,"},
        {"@wide.png --matrix bt601", YCbCrMatrix::BT601, "p016 (bt601 of rec2020-pq,"},
        {"@wide.png @plain.png", YCbCrMatrix::BT2020NonConstant, "(bt2020", {"plain.png is srgb"}},
        {"@plain.png", YCbCrMatrix::BT709, "p016 (bt709,"},
    };
    for (const auto& [options, matrix, stats, messages] : kCases) {
        const std::string command = "encode -o @clip --format p016 --stats ";
        EXPECT_THAT(Run(command + options, messages), testing::HasSubstr(stats)) << options;
        if (options == std::string("@wide.png")) {
            ExpectFrame(ReadClip(), 16, GetPixels(wide), matrix);
        }
    }
}

TEST_P(EncodeProgramTest, KeepsItsMemoryHoweverLongTheClip) {
    const auto encode = [&](std::size_t frames) {
        Bytes input(frames * 16 * 16 * 4);
        for (std::size_t i = 0; i < input.size(); ++i) {
            input[i] = static_cast<std::uint8_t>(i % 4 == 3 ? 255 : i / 1024);
        }
        return json::parse(
            Run("encode - --size 16x16 --format nv12 -o @clip --json", {}, 0, input));
    };
    const double few = encode(1000).at("peakWorkingSet");
    const json many = encode(10000);
    EXPECT_LE(many.at("peakFramesInFlight"), 9);
    // The driver's caches; Direct3D 11's grow until some 50,000 frames.
    constexpr double kMiB = 1 << 20;
    EXPECT_LT(many.at("peakWorkingSet"),
              few + kMiB * (GetParam() == Generation::Direct3D11 ? 24.0 : 8.0));
    const Bytes clip = ReadClip();
    ASSERT_EQ(clip.size(), 10000U * 384);
    for (unsigned i = 0; i < 10000; ++i) {
        const double grey = i % 256 / 255.0 * 219.0 + 16.0;
        ASSERT_NEAR(clip[i * 384 + 100], grey * 255.0 / 256.0, 1.0) << "frame " << i;
    }
}

TEST_P(EncodeProgramTest, TakesDeepFramesAndY4mOnStandardInput) {
    const auto expect = [&](const std::string& options, const Bytes& input, const Pixels& pixels) {
        const std::string out = Run("encode - --format p016 -o - --stats " + options,
                                    {"1 frames of 6 x 4 to p016"}, 0, input); // on standard error
        ExpectFrame(ToBytes(out), 16, pixels, YCbCrMatrix::BT709);
    };
    const Image deep = MakeNoise(6, 4, 16, false);
    expect("--size 6x4 --input-depth 16", deep.pixels, GetPixels(deep));

    // Line feeds and carriage returns among the samples, which must stay what they are.
    Bytes clip = ToBytes("YUV4MPEG2 W6 H4 C444\nFRAME\n");
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
