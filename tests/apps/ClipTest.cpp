// The parts of encode by themselves, without a device.

#include <algorithm>

#include <gmock/gmock.h>

#include "apps/norvexdx/clips/FrameSource.h"
#include "apps/norvexdx/clips/PlanePacking.h"
#include "apps/norvexdx/clips/Y4m.h"
#include "apps/norvexdx/graphics/FrameEncoder.h"
#include "tests/apps/Expectations.h"
#include "tests/apps/Pictures.h"

namespace Norvex::Test {

namespace {

using namespace App;
using namespace std::string_literals;
using Conf::YCbCrMatrix;
using testing::HasSubstr;

TEST(ClipTest, Y4mHeadersAreReadAsTheyAreWrittenAndOthersRefused) {
    const Y4mHeader read =
        ParseY4mHeader("YUV4MPEG2 W1920  H1080 F30000:1001 Ip A4:3 C444p10 XCOLORRANGE=LIMITED");
    EXPECT_EQ(MakeY4mHeader(read),
              "YUV4MPEG2 W1920 H1080 F30000:1001 Ip A4:3 C444p10 XCOLORRANGE=LIMITED\n");
    EXPECT_EQ(GetY4mFrameBytes(read), 1920U * 1080 * 6);
    EXPECT_EQ(ParseY4mHeader("YUV4MPEG2 W2 H1 F0:0").rate, std::nullopt);
    EXPECT_EQ(ParseFrameRate("50/2"), (FrameRate{25, 1}));
    EXPECT_EQ(ParseFrameRate("0.125"), (FrameRate{1, 8}));
    constexpr std::pair<const char*, const char*> kRefused[] = {
        {"RIFF", "not a Y4M file"},
        {"YUV4MPEG2 W8 C444", "no pixels"},
        {"YUV4MPEG2 Wx H8", "tells no size"},
        {"YUV4MPEG2 W20000 H8 C444", "larger than"},
        {"YUV4MPEG2 W8 H8 It C444", "interlaced"},
        {"YUV4MPEG2 W8 H8 C444 XCOLORRANGE=FULL", "full"},
        {"YUV4MPEG2 W8 H8", "C420jpeg is not taken"},
    };
    for (const auto& [header, words] : kRefused) {
        EXPECT_THAT(FailureOf([&] { GetY4mFrameBytes(ParseY4mHeader(header)); }), HasSubstr(words));
    }
}

TEST(ClipTest, Y4mPlanesAreThoseOfTheDescription) {
    const auto describe = [](const std::string& tags) {
        return DescribeY4mPlanes(ParseY4mHeader("YUV4MPEG2 W5 H3 " + tags));
    };
    EXPECT_EQ(describe("C422p14").fileBytes, (15u + 2 * 9) * 2);
    EXPECT_EQ(describe("XCOLORRANGE=FULL").desc.range, DX::FrameRange::Full);
    const auto finish = [](const Y4mPlanes& planes, Bytes samples) {
        samples.resize(GetFrameBytes(planes.desc));
        FinishY4mPlanes(planes, samples);
        return samples;
    };
    // Codes of 9 bits double; what mono lacks is no colour.
    const Bytes nine = finish(describe("C420p9"), Bytes(54, 1));
    EXPECT_EQ(nine, Bytes(54, 2));
    const Bytes grey = finish(describe("Cmono"), Bytes(15, 7));
    EXPECT_EQ(grey[14], 7);
    EXPECT_EQ(Bytes(grey.begin() + 15, grey.end()), Bytes(12, 128));
    constexpr std::pair<const char*, const char*> kRefused[] = {
        {"C411", "C411 is not taken"},
        {"C444alpha", "C444alpha is not taken"},
        {"C420p14 XCOLORRANGE=FULL", "in full range is not taken"},
        {"XCOLORRANGE=HALF", "colour range HALF"},
    };
    for (const auto& [tags, words] : kRefused) {
        EXPECT_THAT(FailureOf([&] { describe(tags); }), HasSubstr(words));
    }
}

TEST(ClipTest, Y4mDecodesPublishedCodes) {
    const auto expect = [](const char* colors, YCbCrMatrix matrix, const std::string& codes,
                           const Samples& rgb) {
        Image image;
        ConvertY4mFrame({{1, 1}, {}, "0:0", colors}, Bytes(codes.begin(), codes.end()), matrix,
                        image);
        constexpr unsigned kHalfACode = 330; // of 8 bits, roughly
        ExpectPixel(image, 0, 0, rgb, kHalfACode);
    };
    constexpr unsigned kFull = 65535;
    expect("444", YCbCrMatrix::BT709, "\xFF\x80\x80", {kFull, kFull, kFull, kFull});
    expect("mono", YCbCrMatrix::BT709, "\xEB", {kFull, kFull, kFull, kFull});
    expect("444", YCbCrMatrix::BT601, "\x51\x5A\xF0", {kFull, 0, 0, kFull});
    expect("444p16", YCbCrMatrix::BT601, "\0\x29\0\xF0\0\x6E"s, {0, 0, kFull, kFull});
    expect("444p10", YCbCrMatrix::BT2020NonConstant, "\x92\2\xBD\0\x64\0"s, {0, kFull, 0, kFull});
}

TEST(ClipTest, PackingRoundsP010AndTakesChromaApart) {
    const auto pack = [](const char* name, const DX::Size2DT<long>& size, Bytes planes) {
        const VideoFormat format = ParseVideoFormat(name).value();
        Bytes out;
        RoundToCodes(format, planes);
        Deinterleave(format, size, planes, out);
        return out;
    };
    // As a device rounds codes 0, 64, 939, 1023, what is beyond, and 940: code / 1024.
    EXPECT_EQ(pack("p010", {2, 2}, {0, 0, 0, 16, 0xBF, 0xEA, 0xBF, 0xFF, 0xFF, 0xFF, 0xFF, 0xEA}),
              (Bytes{0, 0, 64, 0, 0xAB, 3, 0xFF, 3, 0xFF, 3, 0xAC, 3}));
    EXPECT_EQ(pack("nv12", {3, 1}, {1, 2, 3, 10, 20, 11, 21}), (Bytes{1, 2, 3, 10, 11, 20, 21}));
}

TEST(ClipTest, TexturesAreChosenFromWhatAnAdapterDraws) {
    const auto choose = [](const DX::Size2DT<long>& size, const std::vector<DXGI_FORMAT>& drawn) {
        const EncoderParams params = {*ParseVideoFormat("nv12"), YCbCrMatrix::BT601, size, {}};
        return ChooseTextures(params, 8192, [&](DXGI_FORMAT format) {
            const bool isDrawn = std::ranges::count(drawn, format) != 0;
            return FormatUses{isDrawn, isDrawn, isDrawn};
        });
    };
    constexpr auto kFloats = DXGI_FORMAT_R16G16B16A16_FLOAT;
    const TextureChoice all =
        choose({4, 4}, {DXGI_FORMAT_NV12, DXGI_FORMAT_R8_UNORM, DXGI_FORMAT_R8G8_UNORM, kFloats});
    EXPECT_TRUE(all == (TextureChoice{true, true, kFloats}));
    EXPECT_FALSE(choose({4, 4}, {DXGI_FORMAT_NV12, kFloats}).hasPair);
    const auto expectFailure = [&](const DX::Size2DT<long>& size, DXGI_FORMAT drawn,
                                   const char* words) {
        EXPECT_THAT(FailureOf([&] { choose(size, {drawn}); }), HasSubstr(words));
    };
    expectFailure({4, 4}, DXGI_FORMAT_R8_UNORM, "NV12: neither on such textures nor on R8_UNORM");
    expectFailure({5, 3}, DXGI_FORMAT_NV12, "neither on such textures of odd size");
    expectFailure({8193, 2}, DXGI_FORMAT_NV12, "8192 x 8192");
}

TEST(ClipTest, FramesAreFoundWhereTheyLie) {
    const TemporaryFolder folder;
    // Frames of one colour each; `line` is what stands behind FRAME.
    const auto find = [&](const char* header, std::vector<std::string> lines, std::size_t missing,
                          const std::vector<std::uint64_t>& wanted) {
        std::string clip = header;
        for (std::size_t i = 0; i < lines.size(); ++i) {
            clip += lines[i] + std::string(12, static_cast<char>('0' + i));
        }
        clip.resize(clip.size() - missing);
        WriteBytes(folder.GetPath("clip"), clip);
        ClipInput input;
        if (*header == '\0') {
            input.format = ParseRawFormat("yuv444p");
            input.size = {2, 2};
        }
        const auto source = OpenClip(folder.Split("@clip").front(), input, {});
        std::string found;
        ClipFrame frame;
        for (const std::uint64_t number : wanted) {
            const std::uint64_t place = source->Seek(number);
            EXPECT_TRUE(source->Read(frame));
            EXPECT_EQ(frame.pixels[0], '0' + place);
            found += static_cast<char>(frame.pixels[11]);
        }
        return found + (FailureOf([&] { source->Read(frame); }) == "(nothing)" ? "" : "!");
    };
    constexpr const char* kY4m = "YUV4MPEG2 W2 H2 F25:1 C444\n";
    const std::string bare = "FRAME\n";
    const std::string marked = "FRAME Ip XNOTE=FRAME\n";
    const auto raw = std::vector<std::string>(5);
    EXPECT_EQ(find("", raw, 0, {4, 0, 3, 99}), "4034");
    EXPECT_EQ(find("", raw, 1, {4, 2, 99}), "323!");
    const std::vector equal(5, bare);
    EXPECT_EQ(find(kY4m, equal, 0, {4, 0, 3, 99, 1}), "40341");
    EXPECT_EQ(find(kY4m, equal, 1, {99}), "3!"); // the next one is cut short
    const std::vector mixed = {bare, marked, bare, marked, bare};
    EXPECT_EQ(find(kY4m, mixed, 0, {4, 1, 99, 0, 3}), "41403");
    EXPECT_EQ(find(kY4m, mixed, 1, {99, 2}), "32");
    EXPECT_THAT(FailureOf([&] { find(kY4m, {bare}, 1, {0}); }), HasSubstr("has no whole frame"));
}

} // namespace

} // namespace Norvex::Test
