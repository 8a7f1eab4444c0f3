// The parts of encode by themselves, without a device.

#include <gmock/gmock.h>

#include "apps/norvexdx/clips/PlanePacking.h"
#include "apps/norvexdx/clips/Y4m.h"
#include "apps/norvexdx/graphics/FrameEncoder.h"
#include "tests/apps/Expectations.h"

namespace Norvex::Test {

namespace {

using namespace App;
using namespace std::string_literals;
using Conf::YCbCrMatrix;
using testing::HasSubstr;
using Size = DX::Size2DT<long>;

TEST(ClipTest, Y4mHeadersAreReadAsTheyAreWrittenAndOthersRefused) {
    const Y4mHeader read =
        ParseY4mHeader("YUV4MPEG2 W1920  H1080 F30000:1001 Ip A4:3 C444p10 XCOLORRANGE=LIMITED");
    EXPECT_EQ(MakeY4mHeader(read),
              "YUV4MPEG2 W1920 H1080 F30000:1001 Ip A4:3 C444p10 XCOLORRANGE=LIMITED\n");
    EXPECT_EQ(GetY4mFrameBytes(read), 1920U * 1080 * 6);
    EXPECT_EQ(ParseY4mHeader("YUV4MPEG2 W2 H1 F0:0").rate, std::nullopt);
    constexpr std::pair<const char*, const char*> kRates[] = {{"50/2", " F25:1 "},
                                                              {"30000/1001", " F30000:1001 "},
                                                              {"0.125", " F1:8 "},
                                                              {"29.97", " F30000:1001 "}};
    for (const auto& [text, rate] : kRates) {
        EXPECT_THAT(MakeY4mHeader({{2, 1}, ParseFrameRate(text), "0:0", "444"}), HasSubstr(rate));
    }
    constexpr std::pair<const char*, const char*> kRefused[] = {
        {"RIFF", "not a Y4M file"},
        {"YUV4MPEG2 W8 C444", "no pixels"},
        {"YUV4MPEG2 Wx H8", "tells no size"},
        {"YUV4MPEG2 W20000 H8 C444", "larger than"},
        {"YUV4MPEG2 W8 H8 It C444", "interlaced"},
        {"YUV4MPEG2 W8 H8 C444 XCOLORRANGE=FULL", "full"},
        {"YUV4MPEG2 W8 H8", "C420jpeg is not taken"},
        {"YUV4MPEG2 W8 H8 C422", "C422 is not taken"},
    };
    for (const auto& [header, words] : kRefused) {
        EXPECT_THAT(FailureOf([&] { GetY4mFrameBytes(ParseY4mHeader(header)); }), HasSubstr(words));
    }
}

TEST(ClipTest, Y4mDecodesPublishedCodes) {
    const auto expect = [](const char* colors, YCbCrMatrix matrix, const std::string& codes,
                           const Samples& rgb, unsigned bound = 0) {
        Image image;
        ConvertY4mFrame({{1, 1}, {}, "0:0", colors}, Bytes(codes.begin(), codes.end()), matrix,
                        image);
        ExpectPixel(image, 0, 0, {rgb[0] * 65535, rgb[1] * 65535, rgb[2] * 65535, 65535}, bound);
    };
    constexpr unsigned kHalfACode = 330; // of 8 bits, roughly
    expect("444", YCbCrMatrix::BT709, "\xEB\x80\x80", {1, 1, 1});
    expect("444", YCbCrMatrix::BT709, "\xFF\x80\x80", {1, 1, 1});
    expect("mono", YCbCrMatrix::BT709, "\xEB", {1, 1, 1});
    expect("444", YCbCrMatrix::BT601, "\x51\x5A\xF0", {1, 0, 0}, kHalfACode);
    expect("444p16", YCbCrMatrix::BT601, "\0\x29\0\xF0\0\x6E"s, {0, 0, 1}, kHalfACode);
    expect("444p10", YCbCrMatrix::BT2020NonConstant, "\x92\2\xBD\0\x64\0"s, {0, 1, 0}, 130);
}

TEST(ClipTest, PackingRoundsP010AndTakesChromaApart) {
    const auto pack = [](const char* name, const Size& size, Bytes planes) {
        const VideoFormat format = ParseVideoFormat(name).value();
        Bytes out;
        RoundToCodes(format, planes);
        Deinterleave(format, size, planes, out);
        return std::pair(planes, out);
    };
    // As a device rounds codes 0, 64, 939, 1023, what is beyond, and 940: code / 1024.
    const auto [rounded, codes] =
        pack("p010", {2, 2}, {0, 0, 0, 0x10, 0xBF, 0xEA, 0xBF, 0xFF, 0xFF, 0xFF, 0xFF, 0xEA});
    EXPECT_EQ(rounded, (Bytes{0, 0, 0, 0x10, 0xC0, 0xEA, 0xC0, 0xFF, 0xC0, 0xFF, 0, 0xEB}));
    EXPECT_EQ(codes, (Bytes{0, 0, 64, 0, 0xAB, 3, 0xFF, 3, 0xFF, 3, 0xAC, 3}));
    EXPECT_EQ(pack("nv12", {3, 1}, {1, 2, 3, 10, 20, 11, 21}).second,
              (Bytes{1, 2, 3, 10, 11, 20, 21}));
}

TEST(ClipTest, TexturesAreChosenFromWhatAnAdapterDraws) {
    const struct {
        const char* format;
        Size size;
        std::string drawn; // p, l, c: planar, luma, chroma; u, f: canvas of integers, of floats
        const char* failure;
        TextureChoice choice = {};
    } kCases[] = {
        {"nv12", {4, 4}, "plcf", "(nothing)", {true, true, DXGI_FORMAT_R16G16B16A16_FLOAT}},
        {"nv12", {4, 4}, "pluf", "(nothing)", {true, false}},
        {"p010", {4, 4}, "lu", "cannot draw P010: neither on such textures nor on R16_UNORM and R"},
        {"nv12", {5, 3}, "pu", "neither on such textures of odd size"},
        {"nv12", {8193, 2}, "", "8192 x 8192"},
        {"nv12", {4, 4}, "p", "16 bits a channel"},
    };
    for (const auto& c : kCases) {
        const VideoFormat format = ParseVideoFormat(c.format).value();
        const std::pair<DXGI_FORMAT, char> kLetters[] = {{format.planar, 'p'},
                                                         {format.luma, 'l'},
                                                         {format.chroma, 'c'},
                                                         {DXGI_FORMAT_R16G16B16A16_UNORM, 'u'},
                                                         {DXGI_FORMAT_R16G16B16A16_FLOAT, 'f'}};
        const auto usesOf = [&](DXGI_FORMAT texture) {
            const bool isDrawn = std::ranges::any_of(kLetters, [&](const auto& letter) {
                return letter.first == texture && c.drawn.find(letter.second) != std::string::npos;
            });
            return FormatUses{isDrawn, isDrawn, isDrawn};
        };
        const auto choose = [&] {
            const EncoderParams params = {format, YCbCrMatrix::BT601, c.size, {}};
            const TextureChoice choice = ChooseTextures(params, 8192, usesOf);
            EXPECT_TRUE(choice == c.choice) << c.drawn;
        };
        EXPECT_THAT(FailureOf(choose), HasSubstr(c.failure));
    }
}

} // namespace

} // namespace Norvex::Test
