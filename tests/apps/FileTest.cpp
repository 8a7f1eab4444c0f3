// Pictures as files: what is read, and what is left of what is written.

#include <gmock/gmock.h>

#include "apps/norvexdx/pictures/ImageFile.h"
#include "apps/norvexdx/pictures/InputFile.h"
#include "apps/norvexdx/pictures/JpegStructure.h"
#include "apps/norvexdx/pictures/Orientation.h"
#include "apps/norvexdx/pictures/OutputFile.h"
#include "apps/norvexdx/pictures/PngReader.h"
#include "tests/apps/Expectations.h"
#include "tests/apps/Pictures.h"
#include "tests/support/ImportPatch.h"

namespace Norvex::Test {

namespace {

using namespace App;
using namespace std::string_literals;
using testing::ElementsAre;
using testing::HasSubstr;

TEST(PictureFileTest, ReadsEveryKindOfPngAsItsSamples) {
    constexpr unsigned kGray = 0;
    constexpr unsigned kRGB = 2;
    constexpr unsigned kPalette = 3;
    constexpr unsigned kGrayAlpha = 4;
    constexpr unsigned kRGBA = 6;
    const auto expect = [](const Bytes& file, unsigned bits, std::vector<unsigned> samples) {
        const Image image = ReadPng(file);
        EXPECT_EQ(bits, image.bitsPerChannel);
        ASSERT_EQ(samples.size(), std::size_t{4} * image.width * image.height);
        for (std::size_t i = 0; i < samples.size(); ++i) {
            const std::size_t pixel = i / 4;
            EXPECT_EQ(samples[i],
                      GetSample(image, pixel % image.width, pixel / image.width, i % 4));
        }
    };
    expect(MakePng(1, 1, 16, kRGBA, {"\x12\x34\x56\x78\x9a\xbc\xde\xf0"}), 16,
           {0x1234, 0x5678, 0x9abc, 0xdef0});
    expect(MakePng(1, 1, 16, kRGB, {"\x01\x02\x03\x04\x05\x06"}), 16,
           {0x0102, 0x0304, 0x0506, 0xFFFF});
    expect(MakePng(1, 1, 8, kRGBA, {"\x01\x02\x03\x04"}), 8, {1, 2, 3, 4});
    expect(MakePng(2, 1, 1, kGray, {"\x80"}), 8, {255, 255, 255, 255, 0, 0, 0, 255});
    expect(MakePng(1, 2, 8, kGrayAlpha, {"\x10\x20", "\x30\x40"}), 8,
           {16, 16, 16, 32, 48, 48, 48, 64});
    expect(MakePng(2, 1, 4, kPalette, {"\x01"}, "\x01\x02\x03\x04\x05\x06", "\x80"), 8,
           {1, 2, 3, 128, 4, 5, 6, 255});
}

TEST(PictureFileTest, ReadsFilesThatAreWholeOnly) {
    const TemporaryFolder folder;
    const auto path = folder.GetPath("a");
    const auto read = [&](const Bytes& file, std::size_t size) {
        WriteBytes(path, std::span(file).first(size));
        return FailureOf([&] { ReadImage(path); });
    };
    const Image scan = MakeNoise(5, 300, 16, true); // taller than one band of the reader
    WriteTiff16(path, scan);
    EXPECT_EQ(scan.pixels, ReadImage(path).pixels);
    const Bytes tiff = ReadInputFile(path);
    WriteJpeg(path, MakeNoise(40, 40, 8, true));
    const Bytes jpeg = ReadInputFile(path);
    WriteImage(path, MakeNoise(20, 20, 8, true));
    Bytes png = ReadInputFile(path);
    for (const Bytes& whole : {tiff, jpeg, png}) {
        for (std::size_t part = 1; part < 16; ++part) {
            EXPECT_NE("(nothing)", read(whole, whole.size() * part / 16)) << part << " of 16";
        }
        EXPECT_NE("(nothing)", read(whole, whole.size() - 1)) << "all but one byte";
        EXPECT_EQ("(nothing)", read(whole, whole.size()));
    }
    png[png.size() / 2] ^= 1;
    EXPECT_THAT(read(png, png.size()), HasSubstr("damaged"));
}

TEST(PictureFileTest, RefusesPicturesThatTheDeviceCannotHold) {
    EXPECT_EQ(16384U, ReadPng(MakePng(16384, 1, 1, 0, {std::string(2048, '\0')})).width);
    for (const auto& [width, height] : {std::pair(16385U, 1U), std::pair(1U, 2147483647U)}) {
        EXPECT_THAT(FailureOf([&] { ReadPng(MakePng(width, height, 1, 0, {})); }),
                    HasSubstr("larger than the device"));
    }
}

TEST(PictureFileTest, FindsTheOrientationOfJpegFiles) {
    const std::pair<std::string, unsigned> kCases[] = {
        {"II*\0\10\0\0\0\1\0\x12\1\3\0\1\0\0\0\6\0\0\0"s, 6},
        {"MM\0*\0\0\0\10\0\1\1\x12\0\3\0\0\0\1\0\3\0\0"s, 3},
        {"II*\0\10\0\0\0\1\0\x12\1\3\0\1\0\0\0\11\0\0\0"s, 1}, // 9 is no orientation
        {"II*\0\10\0\0\0\xFF\xFF\0\0"s, 1},                    // entries beyond the end
        {"II*\0\xFF\xFF\xFF\xFF"s, 1},
        {"", 1},
    };
    for (const auto& [tiff, orientation] : kCases) {
        const std::string body = "Exif\0\0"s + tiff;
        const std::string text = "\xFF\xD8\xFF\xE1\0"s + static_cast<char>(body.size() + 2) + body +
                                 "\xFF\xDA\0\2\x11\xFF\0\x22\xFF\xD0\x33\xFF\xD9"s;
        const Bytes file(text.begin(), text.end());
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

DWORD g_error = 0; // what the failing functions report
DWORD g_most = 0;  // bytes that are written at a time

// In the place of any function: on x64 it is the caller who takes the arguments off the stack.
BOOL WINAPI Fail() {
    SetLastError(g_error);
    return FALSE;
}

decltype(&WriteFile) g_writeFile = nullptr;

BOOL WINAPI WritePart(HANDLE file, LPCVOID data, DWORD, LPDWORD written, LPOVERLAPPED) {
    return g_writeFile(file, data, g_most, written, nullptr);
}

template <class Function>
std::unique_ptr<ImportPatch> Patch(const char* name, Function* replacement) {
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    return std::make_unique<ImportPatch>(std::filesystem::path(self).filename().c_str(), name,
                                         replacement);
}

class OutputFileTest : public testing::Test {
protected:
    std::string WriteAndCommit(const std::string& text, const char* name = "a.png") const {
        return FailureOf([&] {
            OutputFile file(m_folder.GetPath(name));
            file.Write(text.data(), text.size());
            file.Commit();
        });
    }
    void ExpectFile(const char* text) const {
        EXPECT_EQ(text, ReadText(m_folder.GetPath("a.png")));
        EXPECT_THAT(m_folder.GetFiles(), ElementsAre("a.png"));
    }

    TemporaryFolder m_folder;
};

TEST_F(OutputFileTest, ReplacesTheOldFileOnlyWhenCommitted) {
    EXPECT_EQ("(nothing)", WriteAndCommit("old"));
    {
        OutputFile abandoned(m_folder.GetPath("a.png"));
        abandoned.Write("half", 4);
        EXPECT_EQ(2U, m_folder.GetFiles().size());
    }
    ExpectFile("old");
    EXPECT_EQ("(nothing)", WriteAndCommit("new"));
    ExpectFile("new");
}

TEST_F(OutputFileTest, LeavesTheOldFileWhenTheDiskFails) {
    g_writeFile = &WriteFile; // read from the import table before it is patched
    ASSERT_EQ("(nothing)", WriteAndCommit("old"));
    const auto expectFailure = [&](auto patch, DWORD error, const char* words) {
        g_error = error;
        EXPECT_THAT(WriteAndCommit("new"), HasSubstr(words));
        patch.reset();
        ExpectFile("old");
    };
    g_most = 0;
    expectFailure(Patch("WriteFile", &WritePart), 0, "the disk is full");
    expectFailure(Patch("WriteFile", &Fail), ERROR_DISK_FULL, "the disk is full");
    expectFailure(Patch("FlushFileBuffers", &Fail), ERROR_HANDLE_DISK_FULL, "the disk is full");
    expectFailure(Patch("MoveFileExW", &Fail), ERROR_ACCESS_DENIED, "access is denied");
    const auto patch = Patch("WriteFile", &WritePart);
    g_most = 1;
    EXPECT_EQ("(nothing)", WriteAndCommit("written on, byte by byte"));
    ExpectFile("written on, byte by byte");
}

TEST_F(OutputFileTest, WantsAFolderAndAName) {
    EXPECT_THAT(WriteAndCommit("x", "missing/a.png"), HasSubstr("there is no folder"));
    EXPECT_THAT(WriteAndCommit("x", "."), HasSubstr("is a folder"));
    EXPECT_THAT(m_folder.GetFiles(), testing::IsEmpty());
}

} // namespace

} // namespace Norvex::Test
