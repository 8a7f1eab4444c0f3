#include <gmock/gmock.h>

#include "apps/norvexdx/Failure.h"
#include "apps/norvexdx/ImageFile.h"
#include "apps/norvexdx/InputFile.h"
#include "apps/norvexdx/JpegStructure.h"
#include "apps/norvexdx/Orientation.h"
#include "apps/norvexdx/PngReader.h"
#include "apps/norvexdx/WicReader.h"
#include "tests/apps/Pictures.h"

namespace Norvex::Test {

namespace {

using namespace App;
using namespace std::string_literals;
using testing::HasSubstr;

using Bytes = std::vector<std::uint8_t>;

std::vector<unsigned> GetSamples(const Image& image) {
    std::vector<unsigned> samples(std::size_t{image.width} * image.height * 4);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        samples[i] = GetSample(image, i / 4 % image.width, i / 4 / image.width, i % 4);
    }
    return samples;
}

std::string GetFailure(const std::function<void()>& call) {
    try {
        call();
    } catch (const Failure& failure) {
        return failure.what();
    }
    return "(accepted)";
}

TEST(PictureFileTest, ReadsEveryKindOfPngAsItsSamples) {
    constexpr unsigned kGray = 0;
    constexpr unsigned kRGB = 2;
    constexpr unsigned kPalette = 3;
    constexpr unsigned kGrayAlpha = 4;
    constexpr unsigned kRGBA = 6;
    const struct {
        Bytes file;
        unsigned bits;
        std::vector<unsigned> samples;
    } kCases[] = {
        {MakePng(1, 1, 16, kRGBA, {"\x12\x34\x56\x78\x9a\xbc\xde\xf0"}),
         16,
         {0x1234, 0x5678, 0x9abc, 0xdef0}},
        {MakePng(1, 1, 16, kRGB, {"\x01\x02\x03\x04\x05\x06"}),
         16,
         {0x0102, 0x0304, 0x0506, 0xFFFF}},
        {MakePng(1, 1, 8, kRGBA, {"\x01\x02\x03\x04"}), 8, {1, 2, 3, 4}},
        {MakePng(2, 1, 1, kGray, {"\x80"}), 8, {255, 255, 255, 255, 0, 0, 0, 255}},
        {MakePng(1, 2, 8, kGrayAlpha, {"\x10\x20", "\x30\x40"}),
         8,
         {16, 16, 16, 32, 48, 48, 48, 64}},
        {MakePng(2, 1, 4, kPalette, {"\x01"}, "\x01\x02\x03\x04\x05\x06", "\x80"),
         8,
         {1, 2, 3, 128, 4, 5, 6, 255}},
    };
    for (const auto& [file, bits, samples] : kCases) {
        const Image image = ReadPng(file);
        EXPECT_EQ(bits, image.bitsPerChannel);
        EXPECT_EQ(samples, GetSamples(image));
    }
}

TEST(PictureFileTest, WritesPngThatReadsBackTheSame) {
    const TemporaryFolder folder;
    const auto path = folder.GetPath("a.png");
    for (const unsigned bits : {8U, 16U}) {
        for (const bool isOpaque : {false, true}) {
            Image image = MakeNoise(7, 5, bits, isOpaque);
            image.colorSpace = {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ};
            WriteImage(path, image);
            const Image again = ReadImage(path);
            EXPECT_EQ(bits, again.bitsPerChannel);
            EXPECT_EQ(image.pixels, again.pixels);
            EXPECT_EQ(image.colorSpace, again.colorSpace);
        }
    }
}

TEST(PictureFileTest, RefusesFilesThatAreCutShortOrDamaged) {
    const TemporaryFolder folder;
    const auto path = folder.GetPath("a");
    WriteImage(path, MakeNoise(20, 20, 8, true));
    const Bytes png = ReadInputFile(path);
    WriteJpeg(path, MakeNoise(40, 40, 8, true));
    const Bytes jpeg = ReadInputFile(path);
    WriteTiff16(path, MakeNoise(40, 40, 16, true));
    const Bytes tiff = ReadInputFile(path);
    for (const Bytes& whole : {png, jpeg, tiff}) {
        for (std::size_t part = 1; part < 16; ++part) {
            WriteBytes(path, std::span(whole).first(whole.size() * part / 16));
            EXPECT_NE("(accepted)", GetFailure([&] { ReadImage(path); })) << part << " of 16";
        }
        WriteBytes(path, std::span(whole).first(whole.size() - 1));
        EXPECT_NE("(accepted)", GetFailure([&] { ReadImage(path); })) << "all but one byte";
        WriteBytes(path, whole);
        EXPECT_EQ("(accepted)", GetFailure([&] { ReadImage(path); }));
    }
    Bytes damaged = png;
    damaged[damaged.size() / 2] ^= 1;
    WriteBytes(path, damaged);
    EXPECT_THAT(GetFailure([&] { ReadImage(path); }), HasSubstr("damaged"));
}

TEST(PictureFileTest, RefusesPicturesThatTheDeviceCannotHold) {
    const TemporaryFolder folder;
    const auto path = folder.GetPath("a.png");
    WriteBytes(path, MakePng(16384, 1, 1, 0, {std::string(2048, '\0')}));
    EXPECT_EQ(16384U, ReadImage(path).width);
    for (const auto& [width, height] : {std::pair(16385U, 1U), std::pair(1U, 2147483647U)}) {
        WriteBytes(path, MakePng(width, height, 1, 0, {}));
        EXPECT_THAT(GetFailure([&] { ReadImage(path); }), HasSubstr("larger than the device"));
    }
}

TEST(PictureFileTest, ReadsTiffAndJpegThroughTheSystem) {
    const TemporaryFolder folder;
    const auto path = folder.GetPath("a");
    const Image deep = MakeNoise(5, 300, 16, true); // taller than one band of the reader
    WriteTiff16(path, deep);
    EXPECT_EQ(deep.pixels, ReadImage(path).pixels);

    WriteJpeg(path, MakePlain(16, 16, {200, 100, 50, 255}));
    const Image photo = ReadImage(path);
    for (std::size_t channel = 0; channel < 4; ++channel) {
        EXPECT_NEAR((std::array{200, 100, 50, 255}[channel]), GetSample(photo, 8, 8, channel), 3);
    }
}

TEST(PictureFileTest, FindsTheOrientationOfJpegFiles) {
    const auto makeExif = [](const std::string& tiff) {
        const std::string body = "Exif\0\0"s + tiff;
        const std::string file = "\xFF\xD8\xFF\xE1\0"s + static_cast<char>(body.size() + 2) + body +
                                 "\xFF\xDA\0\2\x11\xFF\0\x22\xFF\xD0\x33\xFF\xD9"s;
        return Bytes(file.begin(), file.end());
    };
    const struct {
        std::string tiff;
        unsigned orientation;
    } kCases[] = {
        {"II*\0\10\0\0\0\1\0\x12\1\3\0\1\0\0\0\6\0\0\0"s, 6},
        {"MM\0*\0\0\0\10\0\1\1\x12\0\3\0\0\0\1\0\3\0\0"s, 3},
        {"II*\0\10\0\0\0\1\0\x12\1\3\0\1\0\0\0\11\0\0\0"s, 1}, // 9 is no orientation
        {"II*\0\10\0\0\0\xFF\xFF\0\0"s, 1},                    // entries beyond the end
        {"II*\0\xFF\xFF\xFF\xFF"s, 1},
        {"", 1},
    };
    for (const auto& [tiff, orientation] : kCases) {
        const Bytes file = makeExif(tiff);
        const JpegStructure structure = ReadJpegStructure(file);
        EXPECT_EQ(orientation, structure.orientation);
        EXPECT_TRUE(structure.isComplete);
        EXPECT_FALSE(ReadJpegStructure(std::span(file).first(file.size() - 1)).isComplete);
    }
}

TEST(PictureFileTest, TurnsPicturesUpright) {
    // Two columns, three rows; each pixel's red is its name.
    Image image = MakePlain(2, 3, {});
    for (std::size_t i = 0; i < 6; ++i) {
        image.pixels[4 * i] = static_cast<std::uint8_t>("abcdef"[i]);
    }
    // From the drawings of CIPA DC-008: where the stored first row and first column belong.
    constexpr const char* kUpright[] = {"abcdef", "badcfe", "fedcba", "efcdab",
                                        "acebdf", "ecafdb", "fdbeca", "bdface"};
    for (unsigned orientation = 1; orientation <= 8; ++orientation) {
        const Image upright = MakeUpright(image, orientation);
        EXPECT_EQ(orientation <= 4 ? 2U : 3U, upright.width);
        std::string names;
        for (std::size_t i = 0; i < 6; ++i) {
            names += static_cast<char>(upright.pixels[4 * i]);
        }
        EXPECT_EQ(kUpright[orientation - 1], names) << orientation;
    }
}

} // namespace

} // namespace Norvex::Test
