// `norvexdx encode` as a process.

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "apps/norvexdx/clips/VideoFormat.h"
#include "apps/norvexdx/reference/ColorReference.h"
#include "apps/norvexdx/reference/YCbCrReference.h"
#include "tests/apps/Process.h"

namespace Norvex::Test {

namespace {

using namespace Reference;
using namespace App;
using Conf::YCbCrMatrix;
using nlohmann::json;
using testing::HasSubstr;

class EncodeProgramTest : public ProgramTestOfBoth {
protected:
    // A frame of a file: samples are codes.
    static void ExpectFrame(std::span<const std::uint8_t> frame, unsigned bits,
                            const Pixels& pixels, YCbCrMatrix matrix) {
        const auto expected = ReferenceFrame(pixels.colors, {pixels.width, pixels.height}, matrix,
                                             Proc::AlphaType::NonPremultiplied,
                                             {(pixels.width + 1) / 2, (pixels.height + 1) / 2});
        EXPECT_EQ(DescribeDifference(frame, bits, expected), "");
        for (std::size_t i = 0; i < frame.size() && bits == 10; i += 2) {
            ASSERT_EQ(frame[i] % 64, 0) << "below the code";
        }
    }
};

INSTANTIATE_TEST_SUITE_P(, EncodeProgramTest, BothGenerations(), &NameOf);

TEST_P(EncodeProgramTest, TurnsPicturesIntoClips) {
    Proc::ColorAlphaConversionInfo toPQ;
    toPQ.target = {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ};
    toPQ.mode = Proc::LinearizationMode::DisplayReferredHDR;
    toPQ.targetAlpha = Proc::AlphaType::AlphaIsOne;
    const auto expect = [&](const char* name, YCbCrMatrix matrix, unsigned width, unsigned height,
                            const std::string& options = {}) {
        SCOPED_TRACE(name);
        constexpr std::size_t kFrames = 8; // more than are in flight
        std::vector<Pixels> pictures;
        for (unsigned i = 0; i < kFrames; ++i) { // depths change on the way
            const Image picture = MakeNoise(width, height, i < 5 ? 8 : 16, false, i);
            Write(std::to_string(i) + ".png", picture);
            pictures.push_back(GetPixels(picture));
        }
        Run(std::string("encode @?.png -o @clip --format ") + name + options);
        const Bytes clip = ReadInputFile(m_folder.GetPath("clip"));
        const std::size_t bytes = clip.size() / kFrames;
        const unsigned bits = ParseVideoFormat(name)->bits;
        for (std::size_t i = 0; i < kFrames; ++i) {
            for (Color& color : pictures[i].colors) {
                color = bits == 10 ? ReferenceConvert(color, toPQ) : color;
            }
            ExpectFrame(std::span(clip).subspan(i * bytes, bytes), bits, pictures[i], matrix);
        }
    };
    expect("nv12", YCbCrMatrix::BT601, 3838, 6, " --matrix bt601"); // far from the first sample
    expect("nv12", YCbCrMatrix::BT709, 1, 1);
    expect("p016", YCbCrMatrix::BT709, 5, 3);
    expect("p010", YCbCrMatrix::BT2020NonConstant, 32, 18, " --from srgb --to rec2020-pq");
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
    EXPECT_EQ(clip.substr(0, header.size()), header);
    // Luma in the middle of the left half, in the middle, at the upper edge. Stripes shrink to
    // grey, and not to the one in the middle of every fifteen.
    const auto* frame = reinterpret_cast<const std::uint8_t*>(clip.data()) + header.size();
    for (const auto& [half, middle, edge, bound] :
         {std::array{234, 234, 234, 0}, {125, 125, 16, 4}, {125, 125, 125, 1}}) {
        EXPECT_NEAR(frame[16 * 32 + 8], half, bound);
        EXPECT_NEAR(frame[16 * 32 + 16], middle, bound);
        EXPECT_NEAR(frame[16], edge, bound);
        frame += kFrame;
    }
}

TEST_P(EncodeProgramTest, TakesTheMatrixOfTheFirstPicture) {
    Image wide = MakeNoise(4, 2, 16, true);
    Write("plain.png", wide);
    wide.colorSpace = {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ};
    Write("wide.png", wide);
    const auto encode = [&](const std::string& options, const std::vector<std::string>& messages) {
        return Run("encode -o @clip --format p016 --stats " + options, messages);
    };
    EXPECT_THAT(encode("@wide.png @plain.png", {"plain.png is srgb"}),
                HasSubstr("p016 (bt2020 of rec2020-pq,"));
    EXPECT_THAT(encode("@wide.png --matrix bt601", {}), HasSubstr("p016 (bt601 of rec2020-pq,"));
    EXPECT_THAT(encode("@plain.png", {}), HasSubstr("p016 (bt709,"));
}

TEST_P(EncodeProgramTest, KeepsItsMemoryHoweverLongTheClip) {
    const auto encode = [&](std::size_t frames) {
        const std::string input(frames * 16 * 16 * 4, '\x80');
        return json::parse(
            Run("encode - --size 16x16 --format nv12 -o @clip --json", {}, 0, input));
    };
    const double few = encode(500).at("peakWorkingSet");
    const json many = encode(3000);
    EXPECT_LE(many.at("peakFramesInFlight"), 9);
    // The driver's caches; Direct3D 11's grow until some 50,000 frames.
    constexpr double kMiB = 1 << 20;
    EXPECT_LT(many.at("peakWorkingSet"),
              few + kMiB * (GetParam() == Generation::Direct3D11 ? 24.0 : 8.0));
}

TEST_P(EncodeProgramTest, WorksInPipes) {
    // Of a size at which line feeds and carriage returns are among the samples.
    const Image deep = MakeNoise(64, 36, 16, false);
    const std::string planes =
        Run("encode - --size 64x36 --input-depth 16 --format p016 -o - --stats",
            {"1 frames of 64 x 36 to p016"}, 0, {deep.pixels.begin(), deep.pixels.end()});
    ExpectFrame(Bytes(planes.begin(), planes.end()), 16, GetPixels(deep), YCbCrMatrix::BT709);

    const std::string clip = Run("encode - --format nv12 -o -", {}, 0,
                                 "YUV4MPEG2 W1 H1 Cmono\nFRAME\n\xEB"
                                 "FRAME Ip\n\x10");
    ASSERT_EQ(clip.size(), 6U);
    EXPECT_EQ(clip[0], '\xEA'); // 235 of 256 parts
    EXPECT_EQ(clip[3], '\x10');
}

} // namespace

} // namespace Norvex::Test
