// `norvexdx convert`, `fill`, `sheet` and `info` as processes, what every command says when it
// fails, and the examples.

#include <set>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "tests/apps/Expectations.h"
#include "tests/apps/Process.h"
#include "tests/support/TestWindow.h"
#include "tests/support/Thrown.h"

#include <zlib.h>

namespace Norvex::Test {

namespace {

using namespace App;
using namespace std::string_literals;
using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

class PictureTest : public ProgramTestOfBoth {};

INSTANTIATE_TEST_SUITE_P(, PictureTest, BothGenerations(), &NameOf);

TEST_P(PictureTest, CopiesManyPicturesExactlyAndTellsTheBadOnes) {
    const std::string name = "gem\xC3\xA4lde\xE2\x82\xAC.png"; // UTF-8
    const std::pair<std::string, Image> kGood[] = {{"shallow.png", MakeNoise(33, 17, 8, false)},
                                                   {"deep.png", MakeNoise(17, 33, 16, false)},
                                                   {name, MakeNoise(3, 3, 8, true)}};
    for (const auto& [file, image] : kGood) {
        Write(file, image);
    }
    WriteBytes(m_folder.GetPath("empty.png"), std::string());
    // Takes longer to fail than those behind it.
    Write("cut.png", MakeNoise(1000, 1000, 8, true));
    const std::string cut = ReadText(m_folder.GetPath("cut.png"));
    WriteBytes(m_folder.GetPath("cut.png"), cut.substr(0, cut.size() - 20));
    std::filesystem::create_directory(m_folder.GetPath("out"));
    Run("convert @cut.png @shallow.png @deep.png @empty.png @missing.png @" + name + " @out",
        {"cut.png: the file is cut short", "empty.png is empty", "there is no file"}, 1);
    for (const auto& [file, image] : kGood) {
        EXPECT_TRUE(image.pixels == Read("out/" + file).pixels) << file;
    }
}

// By turns on the generations: what they draw is compared elsewhere.
TEST_F(ProgramTest, DrawsWhatTheOptionsSay) {
    Write("pair.png", MakeImage({2, 1, {{1, 0, 0, 1}, {0, 1, 0, 1}}}));
    Write("half.png", MakePlain(2, 2, {200, 100, 50, 128}));
    Write("premultiplied.png", MakePlain(2, 2, {100, 50, 25, 128}));
    Write("stripes.png", MakeStripes(512, 512));
    Write("wide.png", MakePlain(400, 100, {255, 0, 0, 255}));
    Write("glass.png", MakePlain(10, 10, {255, 255, 255, 128}));
    const std::string kPair = "convert @pair.png @out.png --background 0000FF ";
    const std::string kHalf = "convert @half.png @out.png ";
    constexpr Samples kRed = {255, 0, 0, 255};
    constexpr Samples kGreen = {0, 255, 0, 255};
    constexpr Samples kBlue = {0, 0, 255, 255};
    constexpr Samples kBlack = {0, 0, 0, 255};
    constexpr Samples kGrey = {128, 128, 128, 255};
    using Probe = std::tuple<std::size_t, std::size_t, Samples>;
    const auto expect = [&](const std::string& commandLine, const std::vector<Probe>& probes,
                            unsigned tolerance = 1) {
        SCOPED_TRACE(commandLine);
        m_options = m_options == " --api d3d12" ? " --api d3d11" : " --api d3d12";
        Run(commandLine);
        for (const auto& [x, y, rgba] : probes) {
            ExpectPixel(Read("out.png"), x, y, rgba, tolerance);
        }
    };
    // A quarter turn counter-clockwise: the right end goes up.
    expect(kPair + "--rotate 90 --size 1x2", {{0, 0, kGreen}, {0, 1, kRed}});
    // Moved right and down, in a rectangle of its own.
    expect(kPair + "--size 8x8 --rect 2,2,6,6 --fit free --translate 1,0.5",
           {{4, 4, kRed}, {5, 4, kGreen}, {3, 4, kBlue}, {4, 3, kBlue}});
    expect(kPair + "--size 4x4 --scale 2", {{0, 1, kRed}, {3, 2, kGreen}, {0, 0, kBlue}});
    // The whole of it inside; then as large as covers all: its first pixel is 1/16 green.
    expect(kPair + "--size 8x8", {{0, 2, kRed}, {7, 5, kGreen}, {0, 1, kBlue}});
    expect(kPair + "--size 8x8 --fit fill", {{0, 0, {239, 16, 0, 255}}, {7, 7, {16, 239, 0, 255}}});
    // Fine patterns are grey when they shrink.
    expect("convert @stripes.png @out.png --size 50x50",
           {{0, 25, kGrey}, {1, 25, kGrey}, {2, 25, kGrey}, {7, 25, kGrey}, {20, 25, kGrey}}, 6);
    expect(kHalf + "--target-alpha premultiplied", {{0, 0, {100, 50, 25, 128}}});
    expect(kHalf + "--target-alpha one --size 8x2", {{4, 0, {100, 50, 25, 255}}, {0, 0, kBlack}});
    expect(kHalf + "--source-alpha one", {{0, 0, {200, 100, 50, 255}}}, 0);
    expect(kHalf + "--background 0000FF", {{0, 0, {100, 50, 152, 255}}});
    expect(kHalf + "--background 0000FF80 --target-alpha premultiplied",
           {{0, 0, {100, 50, 89, 192}}});
    expect(kHalf + "--background FF000000 --size 8x2",
           {{4, 0, {200, 100, 50, 128}}, {0, 0, {255, 0, 0, 0}}}, 0);
    expect("convert @premultiplied.png @out.png --source-alpha premultiplied",
           {{0, 0, {199, 100, 50, 128}}});
    expect("fill @out.png --size 6x4 --color FF804020 --rect -1,1,3,9 --background 01020304 "
           "--depth 16",
           {{2, 1, {65535, 32896, 16448, 8224}}, {3, 1, {257, 514, 771, 1028}}});
    // 64 x 16 and 16 x 16 fill the width of two cells; below them stand their names.
    expect("sheet @out.png @wide.png @glass.png --cell 40x20 --gap 5 --background 000000",
           {{4, 15, kBlack}, {5, 5, kRed}, {68, 20, kRed}, {71, 15, kBlack}, {89, 20, kGrey}});
    const Bytes pixels = Read("out.png").pixels;
    const std::size_t afterPictures = 95 * 22 * 4;
    EXPECT_GT(*std::max_element(pixels.begin() + afterPictures, pixels.end()), 96);
    // SMPTE ST 2084 of 203 cd/m2 is 0.580688881; and back.
    Write("white.png", MakePlain(2, 2, {255, 255, 255, 255}));
    expect("convert @white.png @out.png --from srgb --to rec2020-pq --depth 16",
           {{1, 1, {38055, 38055, 38055, 65535}}}, 8);
    Run("convert @out.png @out.png --source-alpha one");
    EXPECT_EQ(Read("out.png").colorSpace.value().transfer, Conf::TransferCharacteristics::PQ)
        << "what is not converted stays what it is";
    expect("convert @out.png @out.png --from rec2020-pq --to srgb --source-peak 203 --depth 8",
           {{1, 1, {255, 255, 255, 255}}}, 0);
    // Of 49 cd/m2, which is below the knee.
    Write("dark.png", MakePlain(2, 2, {112, 112, 112, 255}));
    expect("convert @dark.png @out.png --from rec2020-pq --to srgb --tone-map bt2390 --gamut soft "
           "--depth 16",
           {{1, 1, {34779, 34779, 34779, 65535}}}, 40);
    // The brightest of a picture, or of a clip, becomes white. 173 of 255 are 509 cd/m2.
    Write("bright.png", MakePlain(2, 2, {173, 173, 173, 255}));
    const std::string kMeasured = " --from rec2020-pq --source-peak measured --json ";
    auto report = json::parse(Run("convert @bright.png @out.png --to srgb" + kMeasured));
    EXPECT_EQ(Read("out.png").pixels, Bytes(16, 255));
    EXPECT_NEAR(report.at("pictures").at(0).at("sourcePeak").get<double>(), 508.6, 1.0);
    report = json::parse(Run("encode @dark.png @bright.png @dark.png -o @clip --to rec709 --format "
                             "yuv444p" +
                             kMeasured));
    EXPECT_NEAR(report.at("sourcePeak").get<double>(), 508.6, 1.0);
    const std::string clip = ReadText(m_folder.GetPath("clip"));
    EXPECT_EQ(clip.substr(12, 4), std::string(4, '\xEB'));
    EXPECT_EQ(clip.substr(0, 12), clip.substr(24, 12));
    EXPECT_NE(clip[0], clip[12]);
    // A quarter of the way from 100 to 101 of 255.
    Image grey = Image::Make({64, 64}, 16);
    std::ranges::fill(std::span(reinterpret_cast<std::uint16_t*>(grey.pixels.data()), 64 * 64 * 4),
                      std::uint16_t{25764});
    Write("grey.png", grey);
    for (const char* pattern : {"ordered", "blue-noise"}) {
        Run(std::string("convert @grey.png @out.png --depth 8 --dither ") + pattern);
        std::map<unsigned, int> counts;
        const Image dithered = Read("out.png");
        for (std::size_t i = 0; i < dithered.pixels.size(); i += 4) {
            ++counts[dithered.pixels[i]];
        }
        EXPECT_EQ(counts[100] + counts[101], 64 * 64) << pattern;
        EXPECT_NEAR(counts[101], 1021, 8) << pattern;
    }
    WriteBytes(m_folder.GetPath("inverse.cube"), std::string("LUT_1D_SIZE 2\n1 1 1\n0 0 0\n"));
    expect(kHalf + "--lut @inverse.cube --size 4x4 --target-alpha premultiplied",
           {{1, 1, {28, 78, 103, 128}}});
    Run("encode @grey.png -o @clip --format yuv444p --lut @inverse.cube");
    EXPECT_EQ(ReadText(m_folder.GetPath("clip")).substr(0, 64 * 64), std::string(64 * 64, 'D'))
        << "over black, as transparent as it is bright";
}

TEST_P(PictureTest, ReportsAsJson) {
    Write("in.png", MakeNoise(8, 4, 16, true));
    const json report =
        json::parse(Run("convert @in.png @out.png --from rec2020-pq --to srgb --depth 8 --json "
                        "--raw-params 0.5,0.25,600,1.1,2 --target-alpha premultiplied"));
    EXPECT_EQ(report.at("parameters"), json::parse(R"({
        "sourceColorSpace": 2320, "targetColorSpace": 269, "sourceAlphaType": 0,
        "targetAlphaType": 2, "displayLinear": true, "linearScale": 2.0, "pqTonemapA": 0.5,
        "pqTonemapB": 0.25, "displayPeakLuminance": 600.0, "hlgOOTFGamma": 1.100000023841858})"));

    m_options.clear();
    const json adapter = json::parse(Run("info --json")).at("adapters").at(0);
    EXPECT_EQ(report.at("adapter").at("luid"), adapter.at("luid"));
    json device = adapter.at("devices").at(GetParam() == Generation::Direct3D12 ? 0 : 1);
    device.erase("formats");
    EXPECT_EQ(report.at("device"), device);
}

TEST_F(ProgramTest, TheDoctorExaminesAllThereIs) {
    const json report = json::parse(Run("doctor --json --stress 0"));
    EXPECT_EQ(report.at("healthy"), true);
    std::set<std::string> names;
    for (const json& check : report.at("checks")) {
        names.insert(check.at("name"));
        EXPECT_EQ(check.at("right"), true) << check;
        if (check.at("name").get<std::string>().ends_with("conversions")) {
            EXPECT_EQ(check.at("details").size(), 30U); // from five spaces to six
        } else if (check.at("name").get<std::string>().ends_with("Y'CbCr")) {
            EXPECT_EQ(check.at("details").size(), 27U); // formats, matrices, alpha types
        } else if (check.at("name").get<std::string>().ends_with("frames")) {
            EXPECT_EQ(check.at("details").size(), 59U); // layouts, and 7 pairs of spaces
        }
    }
    EXPECT_THAT(names, testing::IsSupersetOf({"adapters", "Direct3D 12, conversions",
                                              "Direct3D 11, conversions", "Direct3D 12, Y'CbCr",
                                              "Direct3D 11, Y'CbCr", "live objects"}));
    EXPECT_EQ(report.at("info").at("adapters").at(0).at("outputs").at(0).at("hdr"), false);
    // A failure is a line of the report; a screenful tells all.
    const std::string text = Run("doctor --adapter 99", {"not healthy: Direct3D 12: "}, 1);
    EXPECT_THAT(text, HasSubstr("WRONG Direct3D 11: there is no adapter 99"));
    EXPECT_THAT(text, testing::EndsWith("NOT healthy\n"));
    EXPECT_LT(std::ranges::count(text, '\n'), 40);
}

TEST_F(ProgramTest, SaysInOneLineWhatFails) {
    Write("in.png", MakePlain(4, 4, {}));
    Write("wide.png", MakePlain(5, 4, {}));
    std::filesystem::create_directory(m_folder.GetPath("empty"));
    const std::string encode = "encode -o @out --format nv12 ";
    const auto expect = [&](const std::string& commandLine, const char* words,
                            const std::string& input = {}, unsigned exitCode = 1) {
        EXPECT_EQ("", Run(commandLine, {words}, exitCode, input));
    };
    expect("convert @in.png @in.png @missing", "there is no folder");
    expect("convert @in.png @out.png --adapter 99", "there is no adapter 99");
    expect("convert @in.png @out.png --adapter 99 --api d3d11", "there is no adapter 99");
    expect("convert @empty @out.png", "is a folder");
    WriteBytes(m_folder.GetPath("bad.cube"), std::string("LUT_1D_SIZE 2\n1 2\n"));
    expect("convert @in.png @out.png --lut @bad.cube", "bad.cube: Wrong color LUT, line 2: three");
    expect("convert @in.png @out.png --lut @none.cube", "there is no file");
    expect("sheet @out.png @in.png --cell 16384x16384", "larger than the device takes");
    expect("view @in.png --frames 1 --screenshot @missing/out.png", "there is no folder");
    expect(encode + "-", "need --size", "raw", 2);
    expect(encode + "-", "does not begin with FRAME", "YUV4MPEG2 W2 H1 C444\nFRAM\n");
    expect(encode + "-", "3 of its 6 bytes are missing", "YUV4MPEG2 W2 H1 C444\nFRAME\nabc");
    expect(encode + "-", "65535 x 65535 pixels is larger", "YUV4MPEG2 W65535 H65535 C444\n");
    expect(encode + "-", "longer than a Y4M file's", "YUV4MPEG2 " + std::string(5000, 'X'));
    expect(encode + "- --size 4x4", "no frames");
    expect(encode + "- --size 4x4", "frame 2: 28 of its 64 bytes", std::string(100, 'x'));
    expect(encode + "@in.png @wide.png", "--size fits them");
    EXPECT_EQ("", Run("encode @in.png --format nv12 -o NUL"));
    EXPECT_THAT(Run("convert --help"), HasSubstr("--rotate"));
    EXPECT_THAT(Run("--version"), StartsWith("norvexdx "));
}

// Big-endian, as PNG and JPEG files are.
std::string Word(std::size_t value) {
    const auto byte = [value](int shift) { return static_cast<char>(value >> shift); };
    return {byte(24), byte(16), byte(8), byte(0)};
}

// The file's, with the profile where its format has it.
std::string AddToPng(std::string file, const std::string& profile) {
    const auto* bytes = reinterpret_cast<const Bytef*>(profile.data());
    Bytes chunk = {'i', 'C', 'C', 'P', 's', 'w', 'a', 'p', 0, 0};
    const std::size_t head = chunk.size();
    auto size = compressBound(static_cast<uLong>(profile.size()));
    chunk.resize(head + size);
    compress(&chunk[head], &size, bytes, static_cast<uLong>(profile.size()));
    chunk.resize(head + size);
    const auto checksum = crc32(0, chunk.data(), static_cast<uInt>(chunk.size()));
    constexpr std::size_t kBehindHeader = 33;
    return file.insert(kBehindHeader, Word(chunk.size() - 4) +
                                          std::string(chunk.begin(), chunk.end()) + Word(checksum));
}
std::string AddToJpeg(std::string file, const std::string& profile) {
    return file.insert(2, "\xFF\xE2"s + Word(profile.size() + 16).substr(2) + "ICC_PROFILE\0\1\1"s +
                              profile);
}

TEST_F(ProgramTest, ConvertsPicturesWithAProfile) {
    constexpr Samples kColor = {255, 0, 128, 255};
    constexpr Samples kTrue = {128, 0, 255, 255}; // as the profile sees it
    Write("in.png", MakePlain(16, 16, kColor));
    WriteJpeg(m_folder.GetPath("in.jpg"), MakePlain(16, 16, kColor));
    const std::string png = ReadText(m_folder.GetPath("in.png"));
    const std::string jpeg = ReadText(m_folder.GetPath("in.jpg"));
    const std::string sRGB = ReadSRGBProfile();
    std::string profile = sRGB; // red and blue exchanged
    profile.replace(sRGB.find("rXYZ"), 4, "bXYZ").replace(sRGB.find("bXYZ"), 4, "rXYZ");
    const std::string grey = std::string(sRGB).replace(16, 4, "GRAY");
    const auto expect = [&](const std::string& file, const Samples& color,
                            const std::string& options = {},
                            const std::vector<std::string>& messages = {}) {
        WriteBytes(m_folder.GetPath("picture"), file);
        const std::string out = Run("convert @picture @out.png " + options, messages);
        EXPECT_THAT(out, HasSubstr(color == kTrue ? "profile \"sRGB" : ""));
        ExpectPixel(Read("out.png"), 8, 8, color, 6);
    };
    expect(AddToPng(png, profile), kTrue);
    expect(AddToJpeg(jpeg, profile), kTrue);
    expect(AddToPng(png, profile), kColor, "--from rec2020-pq --to rec2020-pq"); // who knows better
    expect(AddToJpeg(jpeg, grey), kColor, "", {"is left aside: it is"});
    expect(AddToPng(png, "no profile at all"), kColor, "", {"is left aside: it is damaged"});
}

// Whether the window has the colour on the screen, right of the middle.
bool Shows(HWND window, const std::array<int, 3>& color) {
    SetWindowPos(window, HWND_TOPMOST, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_NOACTIVATE);
    RECT client = {};
    GetClientRect(window, &client);
    const auto rgb =
        TestWindow::GetPixel(window, client.right / 2 + client.bottom / 4, client.bottom / 2);
    return std::ranges::equal(rgb, color, [](int a, int b) { return std::abs(a - b) < 4; });
}

TEST(ExamplesTest, SayAndShowWhatTheyDo) {
    // A window shows its colour at first, and after it was minimised and made larger.
    const auto expect = [](const wchar_t* name, const char* words,
                           const std::vector<std::string>& arguments = {}, unsigned exitCode = 0,
                           const std::optional<std::array<int, 3>>& color = {}) {
        const StartedProgram program(arguments, {}, name);
        int shown = 0;
        for (int i = 0; color && i < 1000 && !program.HasEnded(20); ++i) {
            HWND window = FindWindowW(L"STATIC", L"NorvexDX");
            if (window == nullptr || !Shows(window, *color)) {
                continue;
            }
            if (++shown == 1) {
                ShowWindow(window, SW_MINIMIZE);
                ShowWindow(window, SW_RESTORE);
                MoveWindow(window, 80, 80, 800, 500, TRUE);
            } else {
                PostMessageW(window, WM_CLOSE, 0, 0);
            }
        }
        ProcessResult result = program.Wait();
        EXPECT_EQ(result.exitCode, exitCode) << result.err;
        EXPECT_TRUE(!color || shown > 1);
        EXPECT_THAT(result.out.substr(0, 1000) + result.err, HasSubstr(words));
        return std::move(result.out);
    };
    expect(L"offscreen.exe", "0.5807 0.5807 0.5807");
    expect(L"attach.exe", "sRGB  64 is  74 in BT.709");
    CComPtr<ID3D11Device5> device5; // has the fences that sharing needs
    if (SUCCEEDED(DX::D11Device::CreatePrimary()->Get()->QueryInterface(IID_PPV_ARGS(&device5)))) {
        expect(L"share.exe", "Direct3D 11 reads 255 255 255");
    } else {
        expect(L"share.exe", "not share", {}, 1);
    }
    expect(L"device_loss.exe", "\nFrame 10 is 255 128 0.", {"5"});
    expect(L"statistics.exe", "live objects, made at", {"debug"});
    expect(L"window.exe", "", {}, 0, std::array{192, 128, 128});
    expect(L"host.exe", "", {}, 0, std::array{128, 255, 128});
    const auto relay = StartedProgram::GetPath(L"relay.exe").string();
    const std::string video = expect(L"video.exe", "", {relay});
    constexpr std::size_t kPixels = std::size_t{640} * 360;
    ASSERT_EQ(video.size(), 50 * kPixels * 3 / 2);
    const std::string last = video.substr(49 * kPixels * 3 / 2);
    EXPECT_EQ(last[180 * 640 + 400], 125); // orange, moved to the right, in Rec. 709
    EXPECT_EQ(last[kPixels + 90 * 640 + 400], 68);
    EXPECT_EQ(last[180 * 640 + 300], 16);
}

// Run on their own, on a system without the part.
class MissingPart : public ProgramTest {
protected:
    MissingPart() { Write("in.png", MakePlain(2, 2, {255, 255, 255, 255})); }

    void ExpectMissing(const std::string& api, const std::string& words) const {
        Run("convert @in.png @in.png --adapter 0 --api " + api, {"norvexdx: " + words}, 1);
    }

    // The program says why it draws with Direct3D 11, and does; info says so too.
    void ExpectDirect3D11(const std::string& reason, const std::string& error) const {
        ExpectMissing("d3d12", reason);
        EXPECT_THAT(Run("convert @in.png @out.png --from srgb --to rec2020-pq",
                        {"norvexdx: drawing with Direct3D 11: " + reason}),
                    StartsWith("Direct3D 11 on "));
        // SMPTE ST 2084 of 203 cd/m2 is 0.580688881.
        ExpectPixel(Read("out.png"), 0, 0, {148, 148, 148, 255}, 0);
        EXPECT_THAT(Run("info"), testing::AllOf(HasSubstr("Direct3D 12: " + error),
                                                HasSubstr("Direct3D 11: level ")));
        EXPECT_THAT(Run("doctor --stress 0"), HasSubstr("missing: Direct3D 12"));
    }
};

TEST_F(MissingPart, Direct3D12) {
    ExpectDirect3D11("this system has no Direct3D 12",
                     "DirectX 12 device interface is not supported on this system");
}

// The system has Direct3D 12, its driver has not: the program says what the library does.
TEST_F(MissingPart, Direct3D12Driver) {
    const std::string reason = SentenceOf([] { DX::D12Device::CreatePrimary(); });
    if (reason == "(nothing)") {
        GTEST_SKIP() << "This system's Direct3D 12 needs no Vulkan.";
    }
    ExpectDirect3D11(reason, reason);
}

TEST_F(MissingPart, Compiler) {
    for (const char* api : {"auto", "d3d11", "d3d12"}) {
        ExpectMissing(api, "this system has no HLSL compiler (d3dcompiler_47.dll)");
    }
    EXPECT_THAT(Run("doctor", {"not healthy: "}, 1), HasSubstr("missing: the HLSL compiler"));
}

} // namespace

} // namespace Norvex::Test
