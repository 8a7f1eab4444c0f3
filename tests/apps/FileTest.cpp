// Pictures as files: what is read, and what is left of what is written.

#include <gmock/gmock.h>

#include "apps/norvexdx/pictures/ImageFile.h"
#include "apps/norvexdx/pictures/InputFile.h"
#include "apps/norvexdx/pictures/OutputFile.h"
#include "tests/apps/Expectations.h"
#include "tests/support/ImportPatch.h"

namespace Norvex::Test {

namespace {

using namespace App;
using namespace std::string_literals;
using testing::HasSubstr;

TEST(PictureFileTest, ReadsEveryKindOfSamples) {
    const TemporaryFolder folder;
    const auto path = folder.GetPath("a");
    const GUID& kPng = GUID_ContainerFormatPng;
    const GUID& kTiff = GUID_ContainerFormatTiff;
    const struct {
        const GUID& container;
        const GUID& format;
        Bytes pixel;
        Samples samples;
        std::vector<WICColor> palette = {};
    } kCases[] = {
        {kPng, GUID_WICPixelFormat32bppBGRA, {3, 2, 1, 4}, {1, 2, 3, 4}},
        {kPng, GUID_WICPixelFormat8bppIndexed, {1}, {1, 2, 3, 128}, {0xFF000000, 0x80010203}},
        {kTiff, GUID_WICPixelFormat64bppRGBA, {1, 2, 3, 4, 5, 6, 7, 8}, {513, 1027, 1541, 2055}},
        {kTiff, GUID_WICPixelFormat48bppRGB, {1, 2, 3, 4, 5, 6}, {513, 1027, 1541, 65535}},
        {kTiff, GUID_WICPixelFormat8bppGray, {7}, {7, 7, 7, 255}},
        {kTiff, GUID_WICPixelFormatBlackWhite, {0x80}, {255, 255, 255, 255}},
    };
    for (const auto& [container, format, pixel, samples, palette] : kCases) {
        WriteWithWic(path, container, format, 1, 1, pixel, palette);
        const Image image = ReadImage(path);
        EXPECT_EQ(image.bitsPerChannel, samples[0] > 255 ? 16U : 8U);
        EXPECT_EQ(GetPixel(image, 0, 0), samples);
    }
    // Not every encoder of the system has the bytes of 16 bits in PNG's order.
    WriteBytes(path, Bytes{137, 80,  78,  71,  13,  10,  26,  10, 0,  0,  0,   13,  73,  72, 68,
                           82,  0,   0,   0,   1,   0,   0,   0,  1,  16, 6,   0,   0,   0,  79,
                           133, 24,  202, 0,   0,   0,   17,  73, 68, 65, 84,  120, 218, 99, 16,
                           50,  9,   171, 152, 181, 231, 222, 7,  0,  13, 169, 4,   57,  46, 239,
                           86,  164, 0,   0,   0,   0,   73,  69, 78, 68, 174, 66,  96,  130});
    EXPECT_EQ(GetPixel(ReadImage(path), 0, 0), (Samples{0x1234, 0x5678, 0x9ABC, 0xDEF0}));
}

TEST(PictureFileTest, ReadsFilesThatAreWholeAndThatTheDeviceCanHold) {
    const TemporaryFolder folder;
    const auto path = folder.GetPath("a");
    const auto read = [&](std::span<const std::uint8_t> file) {
        WriteBytes(path, file);
        return FailureOf([&] { ReadImage(path); });
    };
    const Image scan = MakeNoise(5, 300, 16, false); // taller than one band of the reader
    WriteWithWic(path, GUID_ContainerFormatTiff, GUID_WICPixelFormat64bppRGBA, 5, 300, scan.pixels);
    EXPECT_EQ(scan.pixels, ReadImage(path).pixels);
    std::vector<Bytes> files = {ReadInputFile(path)};
    WriteJpeg(path, MakeNoise(40, 40, 8, true));
    files.push_back(ReadInputFile(path));
    WriteImage(path, MakeNoise(20, 20, 8, true));
    files.push_back(ReadInputFile(path));
    for (const Bytes& file : files) {
        for (std::size_t part = 1; part <= 16; ++part) {
            const auto beginning = std::span(file).first(file.size() * part / 16);
            EXPECT_EQ(read(beginning) == "(nothing)", part == 16) << part << " of 16";
        }
        EXPECT_NE(read(std::span(file).first(file.size() - 1)), "(nothing)") << "but one byte";
    }
    files.back()[files.back().size() / 2] ^= 1;
    EXPECT_THAT(read(files.back()), HasSubstr("damaged"));

    for (const auto& [width, height] : {std::pair(16384U, 1U), {16385U, 1U}, {1U, 1000001U}}) {
        WriteImage(path, MakePlain(width, height, {}));
        EXPECT_THAT(FailureOf([&] { ReadImage(path); }),
                    HasSubstr(width * height == 16384 ? "(nothing)" : "larger than the device"));
    }
}

TEST(PictureFileTest, TurnsJpegFilesUpright) {
    const TemporaryFolder folder;
    const auto path = folder.GetPath("a");
    // Blocks of the codec's size in two columns and three rows: a to f, from dark to bright.
    WriteJpeg(path, MakeImage(MakePixels(16, 24, [](unsigned x, unsigned y) {
                  const unsigned block = y / 8 * 2 + x / 8;
                  const double level = block * 0.2;
                  return Color{level, level, level, 1.0};
              })));
    const std::string jpeg = ReadText(path);
    const auto read = [&](const std::string& tiff) {
        const std::string exif = "\xFF\xE1\0"s + static_cast<char>(tiff.size() + 8) + "Exif\0\0"s;
        const std::string file = jpeg.substr(0, 2) + exif + tiff + jpeg.substr(2);
        WriteBytes(path, Bytes(file.begin(), file.end()));
        const Image image = ReadImage(path);
        std::string names;
        for (std::size_t y = 4; y < image.height; y += 8) {
            for (std::size_t x = 4; x < image.width; x += 8) {
                names += static_cast<char>('a' + (GetPixel(image, x, y)[0] + 25) / 51);
            }
        }
        return names;
    };
    // From the drawings of CIPA DC-008: where the stored first row and first column belong.
    constexpr const char* kUpright[] = {"abcdef", "badcfe", "fedcba", "efcdab", "acebdf",
                                        "ecafdb", "fdbeca", "bdface", "abcdef"};
    for (unsigned i = 0; i < 9; ++i) { // 9 is no orientation
        const std::string value = {0, static_cast<char>(i + 1), 0};
        EXPECT_EQ(read("II*\0\10\0\0\0\1\0\x12\1\3\0\1\0\0"s + value + "\0\0"s), kUpright[i]);
        EXPECT_EQ(read("MM\0*\0\0\0\10\0\1\1\x12\0\3\0\0\0\1"s + value + "\0"s), kUpright[i]);
    }
    for (const std::string& damaged :
         {"II*\0\10\0\0\0\xFF\xFF\0\0"s, "II*\0\xFF\xFF\xFF\xFF"s, ""s}) {
        EXPECT_EQ(read(damaged), "abcdef");
    }
}

DWORD g_error = 0;           // what the failing functions report
bool g_isByteByByte = false; // or nothing is written, without an error
decltype(&WriteFile) g_writeFile = nullptr;

// In the place of any function: on x64 it is the caller who takes the arguments off the stack.
BOOL WINAPI Fail() {
    SetLastError(g_error);
    return FALSE;
}

BOOL WINAPI WritePart(HANDLE file, LPCVOID data, DWORD, LPDWORD written, LPOVERLAPPED) {
    return g_writeFile(file, data, g_isByteByByte ? 1 : 0, written, nullptr);
}

TEST(OutputFileTest, LeavesTheOldFileUntilTheNewOneIsWhole) {
    const TemporaryFolder folder;
    const auto write = [&](const std::string& text) {
        OutputFile file(folder.GetPath("a.png"));
        file.Write(text.data(), text.size());
        file.Commit();
    };
    const auto expectFile = [&](const std::string& text) {
        EXPECT_EQ(text, ReadText(folder.GetPath("a.png")));
        EXPECT_THAT(folder.GetFiles(), testing::ElementsAre("a.png"));
    };
    constexpr const wchar_t* kThisProgram = L"ProgramPartsTest.exe";
    const auto expectFailure = [&](const char* function, auto* replacement, DWORD error,
                                   const char* words) {
        g_error = error;
        const ImportPatch patch(kThisProgram, function, replacement);
        EXPECT_THAT(FailureOf([&] { write("new"); }), HasSubstr(words));
        expectFile("old");
    };
    g_writeFile = &WriteFile; // read from the import table before it is patched
    write("older");
    write("old");
    expectFile("old");
    expectFailure("WriteFile", &WritePart, 0, "the disk is full");
    expectFailure("WriteFile", &Fail, ERROR_DISK_FULL, "the disk is full");
    expectFailure("FlushFileBuffers", &Fail, ERROR_HANDLE_DISK_FULL, "the disk is full");
    expectFailure("MoveFileExW", &Fail, ERROR_ACCESS_DENIED, "access is denied");
    g_isByteByByte = true;
    const ImportPatch patch(kThisProgram, "WriteFile", &WritePart);
    write("written on, byte by byte");
    expectFile("written on, byte by byte");
}

} // namespace

} // namespace Norvex::Test
