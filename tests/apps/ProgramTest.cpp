// `norvexdx convert`, `fill`, `sheet` and `info` as processes, what every command says when it
// fails, and the examples.

#include <cmath>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "apps/norvexdx/pictures/ImageFile.h"
#include "apps/norvexdx/pictures/InputFile.h"
#include "tests/apps/Expectations.h"
#include "tests/apps/Process.h"
#include "tests/support/ColorReference.h"
#include "tests/support/TestWindow.h"
#include "tests/support/Thrown.h"

namespace Norvex::Test {

namespace {

using namespace App;
using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

using Samples4 = std::array<unsigned, 4>;

void ExpectPixel(const Image& image, std::size_t x, std::size_t y, const Samples4& rgba,
                 unsigned tolerance = 0) {
    for (std::size_t channel = 0; channel < 4; ++channel) {
        EXPECT_NEAR(rgba[channel], GetSample(image, x, y, channel), tolerance)
            << "pixel " << x << ", " << y << " channel " << channel;
    }
}

double GetLargestDifference(const Pixels& a, const Pixels& b) {
    double largest = a.colors.size() == b.colors.size() ? 0.0 : 1.0;
    for (std::size_t i = 0; i < std::min(a.colors.size(), b.colors.size()); ++i) {
        for (std::size_t channel = 0; channel < 4; ++channel) {
            largest = std::max(largest, std::abs(a.colors[i][channel] - b.colors[i][channel]));
        }
    }
    return largest;
}

class PictureTest : public ProgramTestOfBoth {
protected:
    Image Convert(const Image& image, const std::string& options) {
        Write("in.png", image);
        m_out = Run("convert @in.png @out.png " + options);
        return Read("out.png");
    }

    std::string m_out;
};

INSTANTIATE_TEST_SUITE_P(, PictureTest, BothGenerations(), &NameOf);

TEST_P(PictureTest, CopiesManyPicturesExactlyAndTellsTheBadOnes) {
    const Image shallow = MakeNoise(33, 17, 8, false);
    const Image deep = MakeNoise(17, 33, 16, false);
    const Image scan = MakeNoise(5, 300, 16, true);            // taller than one band of the reader
    const std::string name = "gem\xC3\xA4lde\xE2\x82\xAC.png"; // UTF-8
    Write("shallow.png", shallow);
    Write("deep.png", deep);
    Write(name, shallow);
    WriteTiff16(m_folder.GetPath("scan.tif"), scan);
    WriteJpeg(m_folder.GetPath("photo.jpg"), MakePlain(40, 40, {200, 100, 50, 255}));
    const Bytes photo = ReadInputFile(m_folder.GetPath("photo.jpg"));
    WriteBytes(m_folder.GetPath("cut.jpg"), std::span(photo).first(photo.size() / 2));
    WriteBytes(m_folder.GetPath("empty.png"), {});
    WriteBytes(m_folder.GetPath("text.jpg"), Bytes(100, 'a'));
    WriteBytes(m_folder.GetPath("large.png"), MakePng(20000, 1, 8, 0, {}));
    std::filesystem::create_directory(m_folder.GetPath("out"));

    ExpectFailure("convert @shallow.png @deep.png @empty.png @text.jpg @large.png @cut.jpg "
                  "@missing.png @scan.tif @photo.jpg @" +
                      name + " @out",
                  1,
                  {"empty.png is empty", "text.jpg: not a picture",
                   "large.png: a picture of 20000 x 1", "cut.jpg: the file is cut short",
                   "there is no file"});
    EXPECT_EQ(5U, m_folder.GetFiles("out").size()) << "something half-written is left";
    for (const auto& [file, image] : {std::pair<std::string, const Image&>("shallow.png", shallow),
                                      {"deep.png", deep},
                                      {"scan.png", scan},
                                      {name, shallow}}) {
        EXPECT_EQ(0.0, GetLargestDifference(GetPixels(image), GetPixels(Read("out/" + file))));
    }
    ExpectPixel(Read("out/photo.png"), 20, 20, {200, 100, 50, 255}, 3);
}

TEST_P(PictureTest, ConvertsColorsAsTheFormulasSay) {
    const Image noise = MakeNoise(64, 64, 16, true);
    Proc::ColorAlphaConversionInfo info;
    info.target = {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::HLG};
    info.mode = Proc::LinearizationMode::DisplayReferredHDR;
    const Image result = Convert(noise, "--from srgb --to rec2020-hlg");
    EXPECT_EQ(16U, result.bitsPerChannel);
    EXPECT_EQ(info.target, result.colorSpace);
    Pixels expected = GetPixels(noise);
    for (Color& color : expected.colors) {
        color = ReferenceConvert(color, info);
        for (double& value : color) {
            value = std::clamp(value, 0.0, 1.0);
        }
    }
    EXPECT_LT(GetLargestDifference(expected, GetPixels(result)) * 65535.0, 24.0);
}

TEST_P(PictureTest, TakesWhiteToPQAndBack) {
    const Image hdr =
        Convert(MakePlain(2, 2, {255, 255, 255, 255}), "--from srgb --to rec2020-pq --depth 16");
    // SMPTE ST 2084 of 203 cd/m2 is 0.580688881.
    ExpectPixel(hdr, 1, 1, {38055, 38055, 38055, 65535}, 8);
    const Image back = Convert(hdr, "--from rec2020-pq --to srgb --source-peak 203 --depth 8");
    ExpectPixel(back, 1, 1, {255, 255, 255, 255});
    // What is not converted stays what it is.
    EXPECT_EQ(hdr.colorSpace, Convert(hdr, "--source-alpha one").colorSpace);
    EXPECT_EQ(Conf::TransferCharacteristics::PQ, hdr.colorSpace->transfer);
}

TEST_P(PictureTest, PlacesPictures) {
    // Two pixels, red and green; blue where they do not reach.
    const Image pair = MakeImage({2, 1, {{1, 0, 0, 1}, {0, 1, 0, 1}}});
    constexpr Samples4 kRed = {255, 0, 0, 255};
    constexpr Samples4 kGreen = {0, 255, 0, 255};
    constexpr Samples4 kBlue = {0, 0, 255, 255};
    struct Probe {
        std::size_t x;
        std::size_t y;
        Samples4 rgba;
    };
    const auto expect = [&](const std::string& options, const std::vector<Probe>& probes) {
        const Image image = Convert(pair, "--background 0000FF " + options);
        for (const Probe& probe : probes) {
            ExpectPixel(image, probe.x, probe.y, probe.rgba, 1);
        }
    };
    // A quarter turn counter-clockwise: the right end goes up.
    expect("--rotate 90 --size 1x2", {{0, 0, kGreen}, {0, 1, kRed}});
    // Moved right and down, in a rectangle of its own.
    expect("--size 8x8 --rect 2,2,6,6 --fit free --translate 1,0.5",
           {{4, 4, kRed}, {5, 4, kGreen}, {3, 4, kBlue}, {4, 3, kBlue}});
    // The whole of it inside; then as large as covers all.
    expect("--size 8x8", {{0, 2, kRed}, {7, 5, kGreen}, {0, 1, kBlue}});
    // An eighth clockwise: the left end goes up. Its first pixel is 1/18 green.
    expect("--size 9x9 --fit fill --rotate -45",
           {{0, 0, {241, 14, 0, 255}}, {8, 8, {14, 241, 0, 255}}, {8, 0, {128, 128, 0, 255}}});
    // The picture is 16 x 8 there, cropped: its first pixel is 1/16 green.
    expect("--size 8x8 --fit fill", {{0, 0, {239, 16, 0, 255}}, {7, 7, {16, 239, 0, 255}}});
}

TEST_P(PictureTest, KeepsFinePatternsGreyWhenTheyShrink) {
    const Image halved = Convert(MakeStripes(512, 512), "--size 50x50");
    for (std::size_t x = 0; x < 50; ++x) {
        ExpectPixel(halved, x, 25, {128, 128, 128, 255}, 6);
    }
}

TEST_P(PictureTest, ConvertsAlpha) {
    const auto expect = [&](const std::array<int, 4>& rgba, const char* options,
                            const Samples4& expected, unsigned tolerance = 1) {
        ExpectPixel(Convert(MakePlain(2, 2, rgba), options), 0, 0, expected, tolerance);
    };
    constexpr std::array kHalf = {200, 100, 50, 128};
    expect(kHalf, "--target-alpha premultiplied", {100, 50, 25, 128});
    expect(kHalf, "--target-alpha one", {100, 50, 25, 255});
    expect(kHalf, "--source-alpha one", {200, 100, 50, 255}, 0);
    expect(kHalf, "--background 0000FF", {100, 50, 152, 255});
    expect(kHalf, "--background 0000FF80 --target-alpha premultiplied", {100, 50, 89, 192});
    expect(kHalf, "--background #0000FF80 --target-alpha one", {100, 50, 89, 255});
    expect(kHalf, "--background FF000000", {200, 100, 50, 128}, 0);
    expect(kHalf, "--background FF000000 --size 8x2", {255, 0, 0, 0}, 0); // beside the picture
    expect(kHalf, "--target-alpha one --size 8x2", {0, 0, 0, 255}, 0);
    expect({100, 50, 25, 128}, "--source-alpha premultiplied", {199, 100, 50, 128});
}

TEST_P(PictureTest, FillsRectangles) {
    Run("fill @a.png --size 6x4 --color FF804020 --rect -1,1,3,9 --background 01020304 --depth 16");
    const Image image = Read("a.png");
    EXPECT_EQ(16U, image.bitsPerChannel);
    constexpr unsigned kWide = 257; // 65535 / 255
    for (const auto& [x, y] : {std::pair(2U, 1U), {0U, 3U}}) {
        ExpectPixel(image, x, y, {255 * kWide, 128 * kWide, 64 * kWide, 32 * kWide}, 1);
    }
    for (const auto& [x, y] : {std::pair(3U, 1U), {2U, 0U}}) {
        ExpectPixel(image, x, y, {kWide, 2 * kWide, 3 * kWide, 4 * kWide}, 1);
    }
}

TEST_P(PictureTest, MakesContactSheets) {
    Write("red.png", MakePlain(400, 100, {255, 0, 0, 255}));
    Write("half.png", MakePlain(10, 10, {255, 255, 255, 128}));
    Run("sheet @sheet.png @red.png @half.png --cell 40x20 --gap 5 --background 000000");
    const Image sheet = Read("sheet.png");
    EXPECT_EQ(95U, sheet.width);
    EXPECT_EQ(30U, sheet.height);
    ExpectPixel(sheet, 4, 15, {0, 0, 0, 255});
    ExpectPixel(sheet, 5, 15, {255, 0, 0, 255});
    ExpectPixel(sheet, 25, 8, {0, 0, 0, 255}); // 40 x 10 in a cell of 40 x 20
    ExpectPixel(sheet, 70, 15, {128, 128, 128, 255}, 1);
}

TEST_P(PictureTest, ReportsAsJson) {
    Convert(MakeNoise(8, 4, 16, true),
            "--from rec2020-pq --to srgb --raw-params 0.5,0.25,600,1.1,2 "
            "--depth 8 --target-alpha premultiplied --json");
    const json report = json::parse(m_out);
    ExpectFields(report, R"({"parameters": {
        "sourceColorSpace": 2320, "targetColorSpace": 269, "sourceAlphaType": 0,
        "targetAlphaType": 2, "displayLinear": true, "linearScale": 2.0, "pqTonemapA": 0.5,
        "pqTonemapB": 0.25, "displayPeakLuminance": 600.0, "hlgOOTFGamma": 1.100000023841858}})");
    EXPECT_NE("", report.at("adapter").at("name"));
    EXPECT_EQ(GetApi(), report.at("device").at("api"));
    EXPECT_LE(0.0, report.at("timesMs").at("shaderCompilation"));
    const json& picture = report.at("pictures").at(0);
    ExpectFields(picture, R"({"sourceFormat": "R16G16B16A16_UNORM", "width": 8,
                              "targetFormat": "R8G8B8A8_UNORM"})");
    for (const char* step : {"decode", "upload", "draw", "readback", "encode"}) {
        EXPECT_LT(0.0, picture.at("timesMs").at(step)) << step;
    }

    m_options.clear();
    const json info = json::parse(Run("info --json"));
    ExpectFields(info, R"({"direct3D12": true, "hlslCompiler": true})");
    const json& adapter = info.at("adapters").at(0);
    EXPECT_EQ(report.at("adapter").at("luid"), adapter.at("luid"));
    EXPECT_TRUE(adapter.at("outputs").is_array());
    // In full, what the report says of its device.
    json device = adapter.at("devices").at(GetParam() == Generation::Direct3D12 ? 0 : 1);
    ExpectFields(device.at("formats").at("R8G8B8A8_UNORM"),
                 R"({"drawFrom": true, "drawTo": true, "blend": true})");
    device.erase("formats");
    EXPECT_EQ(report.at("device"), device);
}

TEST_F(ProgramTest, SaysInOneLineWhatFails) {
    Write("in.png", MakePlain(4, 4, {}));
    Write("wide.png", MakePlain(5, 4, {}));
    WriteBytes(m_folder.GetPath("text.y4m"), Bytes(100, 'x'));
    const std::string y4m = "YUV4MPEG2 W4 H4 C420\n";
    WriteBytes(m_folder.GetPath("y4m.clip"), Bytes(y4m.begin(), y4m.end()));
    std::filesystem::create_directory(m_folder.GetPath("empty"));
    const std::string encode = "encode -o @out --format nv12 ";
    const struct {
        std::string commandLine;
        unsigned exitCode;
        const char* words;
        Bytes input = {};
    } kCases[] = {
        {"convert @missing.png @out.png", 1, "there is no file"},
        {"convert @in.png @missing/out.png", 1, "there is no folder"},
        {"convert @in.png @in.png @missing", 1, "there is no folder"},
        {"convert @in.png @out.png --adapter 99", 1, "there is no adapter 99"},
        {"convert @in.png @out.png --adapter 99 --api d3d11", 1, "there is no adapter 99"},
        {"convert @empty @out.png", 1, "is a folder"},
        {"sheet @out.png @in.png --cell 16384x16384", 1, "larger than the device takes"},
        {"view @in.png --frames 1 --screenshot @missing/out.png", 1, "there is no folder"},
        {"", 2, "--help"},
        {encode + "-", 2, "need --size", {'r', 'a', 'w'}},
        {encode + "@in.png @text.y4m", 2, "goes alone"},
        {encode + "- --size 4x4", 1, "no frames"},
        {encode + "- --size 4x4", 1, "frame 2: 28 of its 64 bytes are missing", Bytes(100, 'x')},
        {encode + "@in.png @wide.png", 1, "--size fits them"},
        {encode + "@text.y4m", 1, "not a Y4M file"},
        {encode + "@y4m.clip", 1, "C420 is not taken"},
        {encode + "@none.png", 1, "there is no file"},
        {"encode @in.png --format nv12 -o @none/out", 1, "there is no folder"},
        {"encode @in.png --format nv12 -o @empty", 1, "is a folder"},
        {encode + "@in.png --adapter 99", 1, "there is no adapter 99"},
    };
    for (const auto& [commandLine, exitCode, words, input] : kCases) {
        EXPECT_EQ("", ExpectFailure(commandLine, exitCode, {words}, input)) << commandLine;
    }
    EXPECT_THAT(Run("convert --help"), HasSubstr("--rotate"));
    EXPECT_THAT(Run("--version"), StartsWith("norvexdx "));
}

// Whether the example's window has its gradient on the screen, right of the middle.
bool ShowsGradient(HWND window) {
    SetWindowPos(window, HWND_TOPMOST, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_NOACTIVATE);
    RECT client = {};
    GetClientRect(window, &client);
    const auto rgb =
        TestWindow::GetPixel(window, client.right / 2 + client.bottom / 4, client.bottom / 2);
    return std::abs(rgb[0] - 192) < 4 && std::abs(rgb[1] - 128) < 4 && std::abs(rgb[2] - 128) < 4;
}

TEST(ExamplesTest, SayAndShowWhatTheyDo) {
    CComPtr<ID3D11Device5> device5; // has the fences that sharing needs
    DX::D11Device::CreatePrimary()->Get()->QueryInterface(IID_PPV_ARGS(&device5));
    const bool shares = device5 != nullptr;
    const struct {
        const wchar_t* program;
        std::vector<std::string> arguments;
        const char* words; // empty: it shows a window, and ends when that is closed
        bool succeeds = true;
    } kCases[] = {
        {L"offscreen.exe", {}, "0.5807 0.5807 0.5807"},
        {L"attach.exe", {}, "sRGB  64 is  74 in BT.709"},
        {L"share.exe", {}, shares ? "Direct3D 11 reads 255 255 255" : "does not share", shares},
        {L"window.exe", {}, ""},
        {L"window.exe", {"d3d11"}, ""},
    };
    for (const auto& [name, arguments, words, succeeds] : kCases) {
        StartedProgram program(arguments, nullptr, name);
        for (int i = 0; *words == '\0' && i < 1000 && !program.HasEnded(20); ++i) {
            HWND window = FindWindowW(L"STATIC", L"NorvexDX");
            if (window != nullptr && ShowsGradient(window)) {
                PostMessageW(window, WM_CLOSE, 0, 0);
            }
        }
        const ProcessResult result = program.Wait();
        EXPECT_EQ(succeeds ? 0U : 1U, result.exitCode) << result.err;
        EXPECT_THAT(result.out + result.err, HasSubstr(words));
    }
}

// Run on their own, on a system without the part.
class MissingPart : public ProgramTest {
protected:
    MissingPart() { Write("in.png", MakePlain(2, 2, {255, 255, 255, 255})); }

    void ExpectMissing(const std::string& api, const std::string& words) {
        for (const char* commandLine : {"convert @in.png @in.png --adapter 0 --api ",
                                        "fill @a.png --size 1x1 --color FFFFFF --api "}) {
            ExpectFailure(commandLine + api, 1, {"norvexdx: " + words});
        }
    }

    // Each command says why it draws with Direct3D 11, and does; info says so too.
    void ExpectDirect3D11(const std::string& reason, bool hasDirect3D12, const std::string& error) {
        ExpectMissing("d3d12", reason);
        for (const char* commandLine : {"convert @in.png @out.png --from srgb --to rec2020-pq",
                                        "fill @out.png --size 2x2 --color 949494FF",
                                        "sheet @out.png @in.png --cell 2x2 --background 949494"}) {
            EXPECT_THAT(Run(commandLine, {}, "norvexdx: drawing with Direct3D 11: " + reason),
                        StartsWith("Direct3D 11 on "));
            // SMPTE ST 2084 of 203 cd/m2 is 0.580688881.
            ExpectPixel(Read("out.png"), 0, 0, {148, 148, 148, 255});
        }
        const json info = json::parse(Run("info --json"));
        EXPECT_EQ(hasDirect3D12, info.at("direct3D12"));
        const json& devices = info.at("adapters").at(0).at("devices");
        EXPECT_EQ("d3d12", devices.at(0).at("api"));
        EXPECT_THAT(devices.at(0).at("error"), StartsWith(error));
        EXPECT_EQ("d3d11", devices.at(1).at("api"));
        EXPECT_EQ(true, devices.at(1).at("formats").at("R16G16B16A16_UNORM").at("drawTo"));
        EXPECT_THAT(Run("info"), testing::AllOf(HasSubstr("Direct3D 12: " + error),
                                                HasSubstr("Direct3D 11: level ")));
    }
};

TEST_F(MissingPart, Direct3D12) {
    ExpectDirect3D11("this system has no Direct3D 12", false,
                     "DirectX 12 device interface is not supported on this system");
}

// The system has Direct3D 12, its driver has not: the program says what the library does.
TEST_F(MissingPart, Direct3D12Driver) {
    const std::string reason = SentenceOf([] { DX::D12Device::CreatePrimary(); });
    if (reason == "(nothing)") {
        GTEST_SKIP() << "This system's Direct3D 12 needs no Vulkan.";
    }
    ExpectDirect3D11(reason, DX::D12Device::IsAvailable(), reason);
}

TEST_F(MissingPart, Compiler) {
    for (const char* api : {"auto", "d3d11", "d3d12"}) {
        ExpectMissing(api, "this system has no HLSL compiler (d3dcompiler_47.dll)");
    }
}

} // namespace

} // namespace Norvex::Test
