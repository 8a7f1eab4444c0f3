// `norvexdx encode` as a process.

#include <cmath>
#include <random>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "apps/norvexdx/console/CommandLine.h"
#include "apps/norvexdx/reference/ColorReference.h"
#include "apps/norvexdx/reference/FrameReference.h"
#include "apps/norvexdx/reference/YCbCrReference.h"
#include "tests/apps/Expectations.h"
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
        Run(std::string("encode @?.png -o @clip --converter two-pass --format ") + name + options);
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

TEST_P(EncodeProgramTest, ConvertsFramesOfVideoInEveryLayout) {
    struct Row {
        const char* source; // a format, or a Y4M header's tags
        const char* target;
        std::string options = {};
    };
    const Row rows[] = {
        {"C420jpeg XCOLORRANGE=FULL", "p010", "--siting top-left"},
        {"C422p10", "yuv444p12le", "--range full"},
        {"C444p12", "nv12", "--matrix bt601 --input-matrix bt2020"},
        {"C420paldv", "yuv420p16", "--siting centre"},
        {"p010le", "yuv422p", "--input-range full --input-siting top-left"},
        {"nv12", "yuv422p10", "--from rec709 --to rec2020-pq"},
        {"C420p10", "yuv420p",
         "--from rec2020-pq --to rec709 --source-peak 4000 --tone-map bt2390-per-channel "
         "--gamut soft --source-black 0.01 --target-black 0.1"},
    };
    constexpr DX::Size2DT<long> kSize = {7, 5};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.source);
        const bool isY4m = row.source[0] == 'C';
        const std::string arguments =
            "encode - -o @clip --format " + std::string(row.target) + " " + row.options +
            (isY4m ? "" : " --size 7x5 --input-format ") + (isY4m ? "" : row.source);
        const auto options =
            std::get<EncodeOptions>(ParseCommandLine(m_folder.Split(arguments)).command);
        const EncodePlan plan = MakeEncodePlan(options);
        auto source = isY4m ? DX::D3FrameDesc::FromY4MTags(row.source)
                            : ParseVideoFormat(row.source)->Describe(kSize);
        source.size = kSize;
        source.colorSpace = options.from.value_or(source.colorSpace);
        plan.SetInput(source);
        auto target = plan.DescribeOutput(kSize, plan.GetMatrix({}));
        target.colorSpace = options.to.value_or(source.colorSpace);
        std::mt19937 random(2020);
        const auto frame = Reference::MakeFrame(source, [&](unsigned, long, long) {
            return static_cast<double>(random() % (1U << source.bitDepth));
        });
        const Bytes codes = PackFrame(frame);
        const std::string header = "YUV4MPEG2 W7 H5 " + std::string(row.source) + "\nFRAME\n";
        Run(arguments, {}, 0, (isY4m ? header : "") + std::string(codes.begin(), codes.end()));
        const auto expected = Reference::ConvertFrame(
            frame, target, plan.conversion.value_or(Proc::ColorAlphaConversionInfo()), false,
            plan.stages.tones);
        const Bytes best = PackFrame(expected);
        const Bytes clip = ReadInputFile(m_folder.GetPath("clip"));
        ASSERT_EQ(clip.size(), best.size());
        // Half a code and a little: the nearest, or where two are almost as near the other.
        const unsigned step = target.layout == DX::FrameLayout::P010 ? 64 : 1;
        std::size_t others = 0;
        for (std::size_t i = 0; i < clip.size();) {
            const std::size_t size = target.bitDepth > 8 ? 2 : 1;
            const auto sample = [&](const Bytes& bytes) {
                return bytes[i] + (size == 2 ? bytes[i + 1] << 8 : 0);
            };
            const auto difference = static_cast<unsigned>(std::abs(sample(clip) - sample(best)));
            EXPECT_LE(difference, step) << "byte " << i;
            others += difference != 0 ? 1 : 0;
            i += size;
        }
        EXPECT_LE(others, target.bitDepth == 16 ? 8U : 2U);
    }
}

TEST_P(EncodeProgramTest, FitsFramesOfAnySizeOverBlack) {
    Write("1.png", MakePlain(4, 4, {255, 255, 255, 255}));
    Write("2.png", MakeStripes(480, 240));
    Write("3.png", MakePlain(32, 32, {255, 255, 255, 128}));
    Run("encode @?.png --size 32x32 --fps 29.97 --format nv12 -o @clip.y4m");
    const std::string clip = ReadText(m_folder.GetPath("clip.y4m"));
    const std::string header =
        "YUV4MPEG2 W32 H32 F30000:1001 Ip A0:0 C420mpeg2 XCOLORRANGE=LIMITED\nFRAME\n";
    constexpr std::size_t kFrame = 32 * 32 * 3 / 2 + 6;
    ASSERT_EQ(clip.size() + 6, header.size() + 3 * kFrame);
    EXPECT_EQ(clip.substr(0, header.size()), header);
    // Luma in the middle of the left half, in the middle, at the upper edge. Stripes shrink to
    // grey, and not to the one in the middle of every fifteen.
    const auto* frame = reinterpret_cast<const std::uint8_t*>(clip.data()) + header.size();
    for (const auto& [half, middle, edge, bound] :
         {std::array{235, 235, 235, 0}, {126, 126, 16, 4}, {126, 126, 126, 1}}) {
        EXPECT_NEAR(frame[16 * 32 + 8], half, bound);
        EXPECT_NEAR(frame[16 * 32 + 16], middle, bound);
        EXPECT_NEAR(frame[16], edge, bound);
        frame += kFrame;
    }
}

TEST_P(EncodeProgramTest, AFrameOfAClipBecomesAPicture) {
    const auto frame =
        [](char code) { // 7 x 3, a white column at the left edge of 4:2:0 in C420jpeg
            std::string luma(21, code);
            luma[0] = luma[7] = luma[14] = '\xEB';
            return "FRAME\n" + luma + std::string(16, '\x80');
        };
    WriteBytes(m_folder.GetPath("a.y4m"), "YUV4MPEG2 W7 H3\n" + frame('\x10') + frame('\x7D'));
    const auto expect = [&](const std::string& options, unsigned x, unsigned y, unsigned grey) {
        SCOPED_TRACE(options);
        Run("convert @a.y4m @a.png --depth 16 " + options);
        const unsigned sample = grey * 65535 / 219;
        ExpectPixel(ReadImage(m_folder.GetPath("a.png")), x, y, {sample, sample, sample, 65535},
                    40);
    };
    expect("", 3, 1, 0);
    expect("--frame 2", 3, 1, 125 - 16);
    expect("--frame 2", 0, 2, 219);
    // Pixels stay squares, and lie where they should.
    expect("--frame 2 --size 21x11 --scaler area", 2, 9, 219);
    expect("--frame 2 --size 21x11 --scaler area", 3, 1, 125 - 16);
    Run("convert @a.y4m @b.png --frame 3", {"has 2 frames, not 3"}, 1);
    Run("convert @a.y4m @b.png --input-format p010 --input-size 7x3 --frame 2",
        {"ends in the middle of frame 2"}, 1);
    Run("convert @a.y4m @b.png --input-format p010", {"raw frames need --input-size"}, 1);
    Run("convert @a.png @b.png --frame 1", {"is no clip"}, 1);
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
    const std::string planes = Run(
        "encode - --size 64x36 --input-depth 16 --format p016 --converter two-pass -o - --stats",
        {"1 frames of 64 x 36 to p016"}, 0, {deep.pixels.begin(), deep.pixels.end()});
    ExpectFrame(Bytes(planes.begin(), planes.end()), 16, GetPixels(deep), YCbCrMatrix::BT709);

    const std::string clip = Run("encode - --format nv12 -o -", {}, 0,
                                 "YUV4MPEG2 W1 H1 Cmono\nFRAME\n\xEB"
                                 "FRAME Ip\n\x10");
    ASSERT_EQ(clip.size(), 6U);
    EXPECT_EQ(clip[0], '\xEB');
    EXPECT_EQ(clip[3], '\x10');
}

} // namespace

} // namespace Norvex::Test
