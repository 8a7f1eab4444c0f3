// `norvexdx encode` as a process, on both generations.

#include <cstring>
#include <fstream>
#include <sstream>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "apps/norvexdx/Arguments.h"
#include "apps/norvexdx/EncodePlan.h"
#include "apps/norvexdx/FrameEncoder.h"
#include "apps/norvexdx/ImageFile.h"
#include "apps/norvexdx/InputFile.h"
#include "apps/norvexdx/Y4m.h"
#include "tests/apps/Process.h"
#include "tests/apps/YUVReference.h"

namespace Norvex::Test {

namespace {

using namespace App;
using nlohmann::json;
using testing::HasSubstr;
using Bytes = std::vector<std::uint8_t>;

// Runs the program with bytes on its standard input, through a pipe: `count` pieces.
ProcessResult RunFed(const std::vector<std::string>& arguments, unsigned count,
                     const std::function<const Bytes&(unsigned)>& getPiece) {
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;
    SECURITY_ATTRIBUTES attributes = {sizeof(attributes), nullptr, TRUE};
    if (!CreatePipe(&readEnd, &writeEnd, &attributes, 0)) {
        throw std::runtime_error("there is no pipe");
    }
    SetHandleInformation(writeEnd, HANDLE_FLAG_INHERIT, 0);
    StartedProgram program(arguments, readEnd);
    CloseHandle(readEnd);
    bool isRead = true;
    for (unsigned i = 0; i < count && isRead; ++i) {
        const Bytes& piece = getPiece(i);
        DWORD written = 0;
        isRead =
            WriteFile(writeEnd, piece.data(), static_cast<DWORD>(piece.size()), &written, nullptr);
    }
    CloseHandle(writeEnd);
    return program.Wait();
}

class EncodeTest : public testing::TestWithParam<const char*> {
protected:
    std::vector<std::string> MakeArguments(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), "encode");
        arguments.insert(arguments.end(), {"--api", GetParam()});
        return arguments;
    }

    // The report of --json on standard output, of a run that must succeed.
    static json ReadReport(const ProcessResult& result) {
        EXPECT_EQ(0U, result.exitCode) << result.err;
        EXPECT_EQ("", result.err);
        return json::parse(result.out, nullptr, false);
    }

    Bytes ReadClip(const char* name) const { return ReadInputFile(m_folder.GetPath(name)); }

    TemporaryFolder m_folder;
};

INSTANTIATE_TEST_SUITE_P(Api, EncodeTest, testing::Values("d3d11", "d3d12"),
                         [](const auto& api) { return std::string(api.param); });

// The three planes of a Y4M frame as the raw frame that they were.
Bytes Interleave(const VideoFormat& format, const DX::Size2DT<long>& size, const Bytes& planar) {
    Bytes raw(planar.size());
    const std::size_t step = format.GetSampleSize();
    const std::size_t luma = format.GetLumaBytes(size) / step;
    const std::size_t chroma = format.GetChromaBytes(size) / step / 2;
    for (std::size_t i = 0; i < planar.size() / step; ++i) {
        const std::size_t pair = (i - luma) % chroma;
        const std::size_t target = i < luma ? i : luma + 2 * pair + (i < luma + chroma ? 0 : 1);
        unsigned sample = planar[i * step] + (step == 2 ? 256U * planar[i * step + 1] : 0U);
        sample <<= step == 2 ? 16 - format.bits : 0;
        std::memcpy(&raw[target * step], &sample, step);
    }
    return raw;
}

TEST_P(EncodeTest, TurnsPicturesIntoClips) {
    const std::vector<std::string> plain = {};
    const std::vector<std::string> toPQ = {"--from", "srgb", "--to", "rec2020-pq"};
    const struct {
        const char* format;
        Conf::YCbCrMatrix matrix;
        DX::Size2DT<long> size;
        const std::vector<std::string>& options;
    } kCases[] = {
        {"nv12", Conf::YCbCrMatrix::BT601, {64, 36}, plain},
        {"p010", Conf::YCbCrMatrix::BT709, {64, 36}, plain},
        {"p016", Conf::YCbCrMatrix::BT2020NonConstant, {5, 3}, plain},
        {"nv12", Conf::YCbCrMatrix::BT709, {5, 3}, plain},
        {"p010", Conf::YCbCrMatrix::BT2020NonConstant, {32, 18}, toPQ},
    };
    const ApiChoice api = ParseApi(GetParam()).value();
    const auto graphics = Graphics::Open({api, 0}, DrawKind::Fill, [](auto) {});
    for (const auto& c : kCases) {
        SCOPED_TRACE(testing::Message() << c.format << " " << c.size.width);
        const VideoFormat format = ParseVideoFormat(c.format).value();
        // Planar textures where this system has them and draws them right.
        const auto encoder = FrameEncoder::Open(*graphics, {format, c.matrix, c.size, {}});
        const char* planes = encoder->IsPlanar() ? "planar" : "pair";
        const auto width = static_cast<std::uint32_t>(c.size.width);
        const auto height = static_cast<std::uint32_t>(c.size.height);
        const std::array pictures = {MakeNoise(width, height, 8, false, 1),
                                     MakeNoise(width, height, 16, true, 2)};
        WriteImage(m_folder.GetPath("0.png"), pictures[0]);
        WriteImage(m_folder.GetPath("1.png"), pictures[1]);
        for (const char* name : {"clip.raw", "clip.y4m"}) {
            auto arguments =
                MakeArguments({m_folder.GetText("0.png"), m_folder.GetText("1.png"), "-o",
                               m_folder.GetText(name), "--format", c.format, "--matrix",
                               GetMatrixName(c.matrix), "--json", "--fps", "29.97"});
            arguments.insert(arguments.end(), c.options.begin(), c.options.end());
            const json report = ReadReport(RunProgram(arguments));
            EXPECT_EQ(report.value("api", ""), GetParam());
            EXPECT_EQ(report.value("format", ""), c.format);
            EXPECT_EQ(report.value("frames", 0), 2);
            EXPECT_EQ(report.value("planes", ""), planes);
            EXPECT_GT(report.at("gpuMsPerFrame").get<double>(), 0.0);
        }
        const std::size_t size = format.GetFrameBytes(c.size);
        const Bytes raw = ReadClip("clip.raw");
        const Bytes y4m = ReadClip("clip.y4m");
        const std::string header =
            MakeY4mHeader({c.size, FrameRate{30000, 1001}, "0:0", format.y4mColors});
        ASSERT_EQ(raw.size(), 2 * size);
        ASSERT_EQ(y4m.size(), header.size() + 2 * (6 + size));
        EXPECT_EQ(std::string(y4m.data(), y4m.data() + header.size() + 6), header + "FRAME\n");
        for (std::size_t i = 0; i < 2; ++i) {
            auto pixels = GetPixels(pictures[i]);
            if (!c.options.empty()) {
                Proc::ColorAlphaConversionInfo info;
                info.target = {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ};
                info.mode = Proc::LinearizationMode::DisplayReferredHDR;
                info.targetAlpha = Proc::AlphaType::AlphaIsOne;
                for (Pixel& pixel : pixels) {
                    pixel = ReferenceConvert(pixel, info);
                }
            }
            const std::uint8_t* frame = raw.data() + i * size;
            EXPECT_EQ(DescribeDifference(format, GetSamples(format, frame, size),
                                         ReferenceFrame(pixels, c.size, format, c.matrix)),
                      "");
            const auto* begin = y4m.data() + header.size() + (i + 1) * 6 + i * size;
            EXPECT_EQ(Interleave(format, c.size, Bytes(begin, begin + size)),
                      Bytes(frame, frame + size));
        }
    }
}

TEST_P(EncodeTest, KeepsItsMemoryHoweverLongTheClip) {
    const auto encode = [&](unsigned frames) {
        Bytes frame(16 * 16 * 4);
        return ReadReport(RunFed(MakeArguments({"-", "--size", "16x16", "--format", "nv12", "-o",
                                                m_folder.GetText("clip"), "--json"}),
                                 frames, [&](unsigned i) -> const Bytes& {
                                     for (std::size_t k = 0; k < frame.size(); ++k) {
                                         frame[k] = static_cast<std::uint8_t>(k % 4 == 3 ? 255 : i);
                                     }
                                     return frame;
                                 }));
    };
    const json few = encode(1000);
    const json many = encode(10000);
    EXPECT_EQ(many.value("frames", 0), 10000);
    EXPECT_LE(many.value("peakFramesInFlight", 99), 9);
    const double growth = many.value("peakWorkingSet", 1e12) - few.value("peakWorkingSet", 0.0);
    // The driver's caches; Direct3D 11's grow until some 50,000 frames.
    constexpr double kMiB = 1 << 20;
    EXPECT_LT(growth / kMiB, std::string_view("d3d11") == GetParam() ? 24.0 : 8.0);
    const Bytes clip = ReadClip("clip");
    ASSERT_EQ(clip.size(), 10000U * 384);
    for (unsigned i = 0; i < 10000; ++i) {
        const double grey = i % 256 / 255.0 * 219.0 + 16.0;
        ASSERT_NEAR(clip[i * 384 + 100], grey * 255.0 / 256.0, 1.0) << "frame " << i;
    }
}

TEST_P(EncodeTest, EncodesLargeFrames) {
    const Image noise = MakeNoise(3840, 2160, 8, true);
    const json report =
        ReadReport(RunFed(MakeArguments({"-", "--size", "3840x2160", "--format", "nv12", "-o",
                                         m_folder.GetText("clip"), "--json"}),
                          10, [&](unsigned) -> const Bytes& { return noise.pixels; }));
    EXPECT_EQ(report.value("frames", 0), 10);
    const VideoFormat format = ParseVideoFormat("nv12").value();
    const std::size_t size = format.GetFrameBytes({3840, 2160});
    const Bytes clip = ReadClip("clip");
    ASSERT_EQ(clip.size(), 10 * size);
    EXPECT_EQ(DescribeDifference(
                  format, GetSamples(format, clip.data(), size),
                  ReferenceFrame(GetPixels(noise), {3840, 2160}, format, Conf::YCbCrMatrix::BT709)),
              "");
    for (std::size_t i = 1; i < 10; ++i) {
        EXPECT_EQ(std::memcmp(clip.data(), clip.data() + i * size, size), 0) << "frame " << i;
    }
}

TEST_P(EncodeTest, TakesDeepFramesAndY4mOnStandardInput) {
    const Image deep = MakeNoise(6, 4, 16, false);
    const VideoFormat format = ParseVideoFormat("p016").value();
    const auto expectFrame = [&](const ProcessResult& result, const std::vector<Pixel>& pixels) {
        EXPECT_EQ(0U, result.exitCode) << result.err;
        EXPECT_THAT(result.err, HasSubstr("1 frames of 6 x 4 to p016")) << "on standard error";
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(result.out.data());
        EXPECT_EQ(
            DescribeDifference(format, GetSamples(format, bytes, result.out.size()),
                               ReferenceFrame(pixels, {6, 4}, format, Conf::YCbCrMatrix::BT709)),
            "");
    };
    const std::vector<std::string> toOutput = {"--format", "p016", "-o", "-", "--stats"};
    std::vector<std::string> arguments = {"-", "--size", "6x4", "--input-depth", "16"};
    arguments.insert(arguments.end(), toOutput.begin(), toOutput.end());
    expectFrame(
        RunFed(MakeArguments(arguments), 1, [&](unsigned) -> const Bytes& { return deep.pixels; }),
        GetPixels(deep));

    // Line feeds and carriage returns among the samples, which must stay what they are.
    const std::string header = "YUV4MPEG2 W6 H4 C444\nFRAME\n";
    Bytes clip(header.begin(), header.end());
    std::vector<Pixel> greys;
    for (int i = 0; i < 24; ++i) {
        clip.push_back(static_cast<std::uint8_t>(i % 3 == 0 ? 13 : i % 3 == 1 ? 26 : 200 + i));
        greys.push_back({});
        greys.back().fill(std::max(0.0, (clip.back() - 16) / 219.0));
        greys.back()[3] = 1.0;
    }
    clip.insert(clip.end(), 48, 128);
    arguments = toOutput;
    arguments.insert(arguments.begin(), "-");
    expectFrame(RunFed(MakeArguments(arguments), 1, [&](unsigned) -> const Bytes& { return clip; }),
                greys);
}

TEST(EncodeFailureTest, IsOneLine) {
    const TemporaryFolder folder;
    WriteImage(folder.GetPath("a.png"), MakePlain(4, 4, {}));
    WriteImage(folder.GetPath("b.png"), MakePlain(5, 4, {}));
    WriteBytes(folder.GetPath("c.y4m"), Bytes(100, 'x'));
    const std::string y4m = "YUV4MPEG2 W4 H4 C420\n";
    WriteBytes(folder.GetPath("d.clip"), Bytes(y4m.begin(), y4m.end()));
    const std::string a = folder.GetText("a.png");
    const std::string out = folder.GetText("out.y4m");
    using Arguments = std::vector<std::string>;
    const struct {
        Arguments arguments;
        std::string input;
        unsigned exitCode;
        const char* words;
    } kCases[] = {
        {{a, "-o", out, "--format", "yv12"}, "", 2, "\"yv12\" is not nv12, p010 or p016"},
        {{a, "-o", out}, "", 2, "--format is required"},
        {{a, "--format", "nv12"}, "", 2, "--output is required"},
        {{a, "-o", out, "--format", "nv12", "--matrix", "bt2100"}, "", 2, "bt601, bt709 or bt2020"},
        {{a, "-o", out, "--format", "nv12", "--fps", "fast"}, "", 2, "is not a frame rate"},
        {{a, "-o", out, "--format", "nv12", "--container", "mp4"}, "", 2, "raw or y4m"},
        {{a, "-o", out, "--format", "nv12", "--from", "srgb"}, "", 2, "belong together"},
        {{a, "-o", out, "--format", "nv12", "--input-depth", "16"}, "", 2, "standard input"},
        {{"-", a, "-o", out, "--format", "nv12"}, "", 2, "goes alone"},
        {{"-", "-o", out, "--format", "nv12"}, "raw", 2, "need --size"},
        {{a, folder.GetText("c.y4m"), "-o", out, "--format", "nv12"}, "", 2, "goes alone"},
        {{"-", "-o", out, "--format", "nv12", "--size", "4x4"}, "", 1, "no frames"},
        {{"-", "-o", out, "--format", "nv12", "--size", "4x4"},
         std::string(100, 'x'),
         1,
         "in the middle of frame 2: 28 of its 64 bytes are missing"},
        {{a, folder.GetText("b.png"), "-o", out, "--format", "nv12"}, "", 1, "--size fits them"},
        {{folder.GetText("c.y4m"), "-o", out, "--format", "nv12"}, "", 1, "not a Y4M file"},
        {{folder.GetText("d.clip"), "-o", out, "--format", "nv12"}, "", 1, "C420 is not taken"},
        {{folder.GetText("none.png"), "-o", out, "--format", "nv12"}, "", 1, "there is no file"},
        {{a, "-o", folder.GetText("none/out"), "--format", "nv12"}, "", 1, "there is no folder"},
        {{a, "-o", folder.GetText("."), "--format", "nv12"}, "", 1, "is a folder"},
        {{a, "-o", out, "--format", "nv12", "--adapter", "99"}, "", 1, "there is no adapter 99"},
    };
    for (const auto& c : kCases) {
        Arguments arguments = c.arguments;
        arguments.insert(arguments.begin(), "encode");
        const Bytes input(c.input.begin(), c.input.end());
        const ProcessResult result =
            RunFed(arguments, 1, [&](unsigned) -> const Bytes& { return input; });
        EXPECT_EQ(c.exitCode, result.exitCode) << c.words;
        EXPECT_EQ("", result.out);
        EXPECT_THAT(result.err, testing::StartsWith("norvexdx: "));
        EXPECT_THAT(result.err, HasSubstr(c.words));
        EXPECT_EQ(1, std::count(result.err.begin(), result.err.end(), '\n')) << result.err;
    }
    EXPECT_THAT(folder.GetFiles(), testing::ElementsAre("a.png", "b.png", "c.y4m", "d.clip"));
}

} // namespace

} // namespace Norvex::Test
