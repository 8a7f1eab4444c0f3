// Pictures as files: what is read, and what is left of what is written.

#include <algorithm>
#include <cctype>
#include <random>
#include <span>
#include <utility>

#include <gmock/gmock.h>
#include <zlib.h>

#include "apps/norvexdx/clips/FrameSource.h"
#include "apps/norvexdx/pictures/ColorProfile.h"
#include "apps/norvexdx/pictures/ImageFile.h"
#include "apps/norvexdx/pictures/OutputFile.h"
#include "tests/apps/Expectations.h"
#include "tests/support/Environment.h"
#include "tests/support/MethodPatch.h"

namespace Norvex::Test {

namespace {

using namespace App;
using namespace std::string_literals;
using testing::HasSubstr;

class FileTest : public testing::Test {
protected:
    TemporaryFolder m_folder;
    const std::filesystem::path m_path = m_folder.GetPath("a.png");
};

TEST_F(FileTest, ReadsEveryKindOfSamples) {
    const GUID& kPng = GUID_ContainerFormatPng;
    const GUID& kTiff = GUID_ContainerFormatTiff;
    const auto expect = [&](const GUID& container, const GUID& format, const Bytes& pixel,
                            const Samples& samples) {
        WriteWithWic(m_path, container, format, 1, 1, pixel);
        EXPECT_EQ(GetPixel(ReadImage(m_path), 0, 0), samples);
    };
    expect(kPng, GUID_WICPixelFormat32bppBGRA, {3, 2, 1, 4}, {1, 2, 3, 4});
    expect(kPng, GUID_WICPixelFormatBlackWhite, {0x80}, {255, 255, 255, 255});
    expect(kTiff, GUID_WICPixelFormat64bppRGBA, {1, 2, 3, 4, 5, 6, 7, 8}, {513, 1027, 1541, 2055});
    expect(kTiff, GUID_WICPixelFormat48bppRGB, {1, 2, 3, 4, 5, 6}, {513, 1027, 1541, 65535});
    expect(kTiff, GUID_WICPixelFormat8bppGray, {7}, {7, 7, 7, 255});
    expect(kTiff, GUID_WICPixelFormatBlackWhite, {0x80}, {255, 255, 255, 255});
    // Not every encoder of the system has the bytes of 16 bits in PNG's order.
    WriteBytes(m_path, Bytes{137, 80,  78,  71,  13,  10,  26,  10, 0,  0,  0,   13,  73,  72, 68,
                             82,  0,   0,   0,   1,   0,   0,   0,  1,  16, 6,   0,   0,   0,  79,
                             133, 24,  202, 0,   0,   0,   17,  73, 68, 65, 84,  120, 218, 99, 16,
                             50,  9,   171, 152, 181, 231, 222, 7,  0,  13, 169, 4,   57,  46, 239,
                             86,  164, 0,   0,   0,   0,   73,  69, 78, 68, 174, 66,  96,  130});
    EXPECT_EQ(GetPixel(ReadImage(m_path), 0, 0), (Samples{0x1234, 0x5678, 0x9ABC, 0xDEF0}));
}

TEST_F(FileTest, ReadsFilesThatAreWholeAndThatTheDeviceCanHold) {
    const auto read = [&] { return FailureOf([&] { ReadImage(m_path); }); };
    const Image scan = MakeNoise(5, 300, 16, false); // taller than one band of the reader
    WriteWithWic(m_folder.GetPath("a.tif"), GUID_ContainerFormatTiff, GUID_WICPixelFormat64bppRGBA,
                 5, 300, scan.pixels);
    EXPECT_EQ(ReadImage(m_folder.GetPath("a.tif")).pixels, scan.pixels);
    WriteJpeg(m_folder.GetPath("a.jpg"), MakeNoise(40, 40, 8, true));
    WriteImage(m_folder.GetPath("b.png"), MakeNoise(20, 20, 8, true));
    // Some codecs read on without a word where a JPEG file ends, so that the reader looks itself.
    for (const auto& [name, words] :
         {std::pair("a.tif", ""), std::pair("a.jpg", "is cut short"), std::pair("b.png", "")}) {
        const Bytes file = ReadInputFile(m_folder.GetPath(name));
        for (std::size_t part = 1; part <= 16; ++part) {
            WriteBytes(m_path, std::span(file).first(file.size() * part / 16));
            EXPECT_EQ(read() == "(nothing)", part == 16) << part << " of 16";
        }
        WriteBytes(m_path, std::span(file).first(file.size() - 1));
        EXPECT_THAT(read(), testing::AllOf(testing::Ne("(nothing)"), HasSubstr(words)))
            << "but one byte";
    }
    WriteImage(m_path, MakePlain(16384, 1, {}));
    EXPECT_EQ(read(), "(nothing)");
    WriteImage(m_path, MakePlain(1, 1000001, {}));
    EXPECT_THAT(read(), HasSubstr("larger than the device"));
}

TEST_F(FileTest, TurnsJpegFilesUpright) {
    // Blocks of the codec's size in two columns and three rows: a to f, from dark to bright.
    WriteJpeg(m_path, MakeImage(MakePixels(16, 24, [](unsigned x, unsigned y) {
                  const unsigned block = y / 8 * 2 + x / 8;
                  const double level = block * 0.2;
                  return Color{level, level, level, 1.0};
              })));
    const std::string jpeg = ReadText(m_path);
    const auto read = [&](const std::string& tiff) {
        const std::string exif = "\xFF\xE1\0"s + static_cast<char>(tiff.size() + 8) + "Exif\0\0"s;
        WriteBytes(m_path, jpeg.substr(0, 2) + exif + tiff + jpeg.substr(2));
        const Image image = ReadImage(m_path);
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
    for (const std::string& damaged : {"II*\0\10\0\0\0\xFF\xFF\0\0"s, "II*\0\xFF\xFF\xFF\xFF"s}) {
        EXPECT_EQ(read(damaged), "abcdef");
    }
}

// A number of four bytes, the highest first.
std::size_t GetNumber(std::span<const std::uint8_t> bytes) {
    std::size_t number = 0;
    for (const std::uint8_t byte : bytes.first(4)) {
        number = number << 8 | byte;
    }
    return number;
}

TEST_F(FileTest, WritesLargePicturesAsOneStream) {
    for (const auto& [bits, channels] :
         {std::pair(8U, 3U), std::pair(8U, 4U), std::pair(16U, 3U), std::pair(16U, 4U)}) {
        constexpr unsigned kWidth = 250;
        constexpr unsigned kRepeated = 32000; // bytes in the file: just within what deflate sees
        const unsigned height = kRepeated / (kWidth * channels * bits / 8 + 1);
        const Image tile = MakeNoise(kWidth, height, bits, channels == 3);
        Image picture = tile;
        while (picture.pixels.size() < 6'000'000) {
            picture.height += tile.height;
            picture.pixels.insert(picture.pixels.end(), tile.pixels.begin(), tile.pixels.end());
        }
        WriteImage(m_path, picture);
        EXPECT_TRUE(ReadImage(m_path).pixels == picture.pixels);
        const Bytes file = ReadInputFile(m_path);
        EXPECT_LT(file.size(), 130'000) << "a part that does not know the one before costs 32 KB";
        // Not every reader looks at all of these.
        for (std::span rest = std::span(file).subspan(8); !rest.empty();) {
            const std::size_t size = GetNumber(rest) + 4; // with the chunk's type
            EXPECT_EQ(GetNumber(rest.subspan(4 + size)),
                      crc32(0, &rest[4], static_cast<uInt>(size)));
            rest = rest.subspan(4 + size + 4);
        }
    }
}

// Some bytes changed or taken out, most often near the beginning.
Bytes Damage(Bytes file, std::mt19937& random) {
    for (unsigned changes = 1 + random() % 4; changes > 0; --changes) {
        const std::size_t reach = random() % 2 == 0 ? 64 : file.size();
        const auto from = static_cast<std::ptrdiff_t>(random() % std::min(reach, file.size()));
        if (random() % 3 == 0) {
            file.erase(file.begin() + from);
        } else {
            file[static_cast<std::size_t>(from)] = static_cast<std::uint8_t>(random());
        }
    }
    return file;
}

// NORVEX_STEPS and NORVEX_SEED: how many of each kind, and which.
TEST_F(FileTest, DamagedFilesAreReadOrRefusedInOneLine) {
    const auto path = m_folder.GetPath("damaged.y4m"); // only of clips the name matters
    const unsigned count = FromEnvironment("NORVEX_STEPS", 100);
    const auto expect = [&](const char* name, const auto& read) {
        const Bytes whole = ReadInputFile(m_folder.GetPath(name));
        std::mt19937 random(FromEnvironment("NORVEX_SEED", 1));
        for (unsigned i = 0; i <= count; ++i) {
            SCOPED_TRACE(fmt::format("{}, {}", name, i));
            WriteBytes(path, i == 0 ? whole : Damage(whole, random));
            const std::string line = FailureOf(read);
            EXPECT_TRUE(i > 0 || line == "(nothing)") << line;
            EXPECT_TRUE(std::ranges::none_of(line, &::iscntrl)) << line;
        }
    };
    const Image noise = MakeNoise(20, 20, 8, true);
    WriteWithWic(m_folder.GetPath("a.tif"), GUID_ContainerFormatTiff, GUID_WICPixelFormat32bppBGRA,
                 20, 20, noise.pixels);
    WriteJpeg(m_folder.GetPath("a.jpg"), noise);
    WriteImage(m_folder.GetPath("a.png"), noise);
    for (const char* name : {"a.tif", "a.jpg", "a.png"}) {
        expect(name, [&] {
            const Image image = ReadImage(path);
            EXPECT_EQ(image.pixels.size(), image.GetRowSize() * image.height);
        });
    }
    WriteBytes(m_folder.GetPath("a.y4m"), "YUV4MPEG2 W2 H1 F25:1 Ip A1:1 C444\nFRAME\n123456"s);
    expect("a.y4m", [&] {
        EncodePlan plan;
        plan.options.inputs = {Utf8FromPath(path)};
        for (const auto converter : {ConverterChoice::OnePass, ConverterChoice::TwoPass}) {
            plan.options.converter = converter;
            ClipFrame frame;
            for (const auto source = OpenFrameSource(plan); source->Read(frame);) {
                EXPECT_EQ(frame.pixels.size(), frame.desc ? GetFrameBytes(*frame.desc)
                                                          : frame.GetRowSize() * frame.height);
            }
        }
    });
    WriteBytes(m_folder.GetPath("a.icm"), ReadSRGBProfile());
    expect("a.icm", [&] {
        Image image = noise;
        image.profile = {ReadInputFile(path), {}};
        ApplyProfile(image);
    });
}

TEST_F(FileTest, LeavesTheOldFileUntilTheNewOneIsWhole) {
    const auto write = [&](const std::string& text) {
        OutputFile file(m_path);
        file.Write(text.data(), text.size());
        file.Commit();
    };
    const auto expectFile = [&](const std::string& text) {
        EXPECT_EQ(ReadText(m_path), text);
        EXPECT_EQ(m_folder.CountFiles(), 1);
    };
    const auto expectFailure = [&](const char* words) {
        EXPECT_THAT(FailureOf([&] { write("new"); }), HasSubstr(words));
        expectFile("old");
    };
    constexpr const wchar_t* kThisProgram = L"ProgramPartsTest.exe";
    const auto expectFailureOf = [&](const char* function, DWORD error, const char* words,
                                     std::intptr_t answer = FALSE) {
        const auto fail = [=](auto) {
            SetLastError(error);
            return answer;
        };
        const MethodPatch<0, std::intptr_t()> patch(FindImport(kThisProgram, function), fail);
        expectFailure(words);
    };
    write("old");
    expectFailureOf("CreateFileW", ERROR_ACCESS_DENIED, "access is denied", -1);
    expectFailureOf("WriteFile", ERROR_DISK_FULL, "the disk is full");
    expectFailureOf("FlushFileBuffers", ERROR_HANDLE_DISK_FULL, "the disk is full");
    expectFailureOf("MoveFileExW", ERROR_ACCESS_DENIED, "access is denied");
    DWORD most = 0; // bytes that the system writes at once
    const auto writePart = [&](auto original, HANDLE file, const void* data, DWORD, auto... rest) {
        return original(file, data, most, rest...);
    };
    const MethodPatch<0, BOOL(HANDLE, const void*, DWORD, DWORD*, void*)> patch(
        FindImport(kThisProgram, "WriteFile"), writePart);
    expectFailure("the disk is full");
    most = 1;
    write("written on, byte by byte");
    expectFile("written on, byte by byte");
}

} // namespace

} // namespace Norvex::Test
