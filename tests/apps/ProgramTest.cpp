#include <cmath>
#include <cstdlib>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "apps/norvexdx/ImageFile.h"
#include "apps/norvexdx/InputFile.h"
#include "tests/apps/Pictures.h"
#include "tests/apps/Process.h"
#include "tests/support/ColorReference.h"
#include "tests/support/Thrown.h"

namespace Norvex::Test {

namespace {

using namespace App;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

class ProgramTest : public testing::Test {
protected:
    // Runs the program with --api.
    void Run(std::vector<std::string> arguments) {
        arguments.insert(arguments.end(), {"--api", m_api});
        m_result = RunProgram(arguments);
    }

    // Runs `norvexdx convert` from in.png to out.png, with options.
    Image Convert(const Image& image, const std::vector<std::string>& options) {
        WriteImage(m_folder.GetPath("in.png"), image);
        std::vector<std::string> arguments = {"convert", m_folder.GetText("in.png"),
                                              m_folder.GetText("out.png")};
        arguments.insert(arguments.end(), options.begin(), options.end());
        Run(arguments);
        EXPECT_EQ(0U, m_result.exitCode) << m_result.err;
        EXPECT_EQ("", m_result.err);
        return ReadImage(m_folder.GetPath("out.png"));
    }

    TemporaryFolder m_folder;
    std::string m_api = "auto";
    ProcessResult m_result;
};

// With either generation.
class PictureTest : public ProgramTest, public testing::WithParamInterface<const char*> {
protected:
    PictureTest() { m_api = GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(Api, PictureTest, testing::Values("d3d11", "d3d12"),
                         [](const auto& api) { return std::string(api.param); });

std::vector<std::string> GetLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

void ExpectPixel(const Image& image, std::size_t x, std::size_t y, std::array<unsigned, 4> rgba,
                 unsigned tolerance = 0) {
    for (std::size_t channel = 0; channel < 4; ++channel) {
        EXPECT_NEAR(rgba[channel], GetSample(image, x, y, channel), tolerance)
            << "pixel " << x << ", " << y << " channel " << channel;
    }
}

TEST_P(PictureTest, CopiesManyPicturesExactlyAndTellsTheBadOnes) {
    const Image shallow = MakeNoise(33, 17, 8, false);
    const Image deep = MakeNoise(17, 33, 16, false);
    const Image scan = MakeNoise(9, 9, 16, true);
    WriteImage(m_folder.GetPath("shallow.png"), shallow);
    WriteImage(m_folder.GetPath("deep.png"), deep);
    WriteTiff16(m_folder.GetPath("scan.tif"), scan);
    WriteJpeg(m_folder.GetPath("photo.jpg"), MakeNoise(40, 40, 8, true));
    WriteBytes(m_folder.GetPath("empty.png"), {});
    WriteBytes(m_folder.GetPath("text.jpg"), std::vector<std::uint8_t>(100, 'a'));
    WriteBytes(m_folder.GetPath("large.png"), MakePng(20000, 1, 8, 0, {}));
    const auto photo = ReadInputFile(m_folder.GetPath("photo.jpg"));
    WriteBytes(m_folder.GetPath("cut.jpg"), std::span(photo).first(photo.size() / 2));
    const std::string name = "gem\xC3\xA4lde \xE2\x82\xAC.png"; // UTF-8
    WriteImage(m_folder.GetPath("") / PathFromUtf8(name), shallow);
    std::filesystem::create_directory(m_folder.GetPath("out"));

    std::vector<std::string> arguments = {"convert"};
    for (const char* input : {"shallow.png", "deep.png", "empty.png", "text.jpg", "large.png",
                              "cut.jpg", "missing.png", "scan.tif", "photo.jpg", name.c_str()}) {
        arguments.push_back(m_folder.GetText(input));
    }
    arguments.push_back(m_folder.GetText("out"));
    Run(arguments);

    EXPECT_EQ(1U, m_result.exitCode);
    const auto lines = GetLines(m_result.err);
    EXPECT_THAT(lines, testing::Each(StartsWith("norvexdx: ")));
    EXPECT_THAT(lines, testing::UnorderedElementsAre(HasSubstr("empty.png is empty"),
                                                     HasSubstr("text.jpg: not a picture"),
                                                     HasSubstr("large.png: a picture of 20000 x 1"),
                                                     HasSubstr("cut.jpg: the file is cut short"),
                                                     HasSubstr("there is no file")));
    const auto read = [&](const std::string& file) {
        return ReadImage(m_folder.GetPath("out") / PathFromUtf8(file));
    };
    EXPECT_EQ(shallow.pixels, read("shallow.png").pixels);
    EXPECT_EQ(deep.pixels, read("deep.png").pixels);
    EXPECT_EQ(scan.pixels, read("scan.png").pixels);
    EXPECT_EQ(ReadImage(m_folder.GetPath("photo.jpg")).pixels, read("photo.png").pixels);
    EXPECT_EQ(shallow.pixels, read(name).pixels);
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(m_folder.GetPath("out"))) {
        files += entry.exists() ? 1 : 0;
    }
    EXPECT_EQ(5U, files) << "something half-written is left";
}

TEST_P(PictureTest, ConvertsColorsAsTheFormulasSay) {
    const Image noise = MakeNoise(64, 64, 16, true);
    Proc::ColorAlphaConversionInfo info;
    info.target = {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::HLG};
    info.mode = Proc::LinearizationMode::DisplayReferredHDR;
    const Image result = Convert(noise, {"--from", "srgb", "--to", "rec2020-hlg"});
    EXPECT_EQ(16U, result.bitsPerChannel);
    EXPECT_EQ(info.target, result.colorSpace);
    double largest = 0.0;
    for (std::size_t i = 0; i < std::size_t{64} * 64; ++i) {
        Pixel pixel{};
        for (std::size_t channel = 0; channel < 4; ++channel) {
            pixel[channel] = GetSample(noise, i % 64, i / 64, channel) / 65535.0;
        }
        const Pixel expected = ReferenceConvert(pixel, info);
        for (std::size_t channel = 0; channel < 4; ++channel) {
            const double actual = GetSample(result, i % 64, i / 64, channel) / 65535.0;
            largest = std::max(largest, std::abs(actual - std::clamp(expected[channel], 0.0, 1.0)));
        }
    }
    EXPECT_LT(largest * 65535.0, 24.0);
}

TEST_F(ProgramTest, TakesWhiteToPQAndBack) {
    const Image hdr = Convert(MakePlain(2, 2, {255, 255, 255, 255}),
                              {"--from", "srgb", "--to", "rec2020-pq", "--depth", "16"});
    // SMPTE ST 2084 of 203 cd/m2 is 0.580688881.
    ExpectPixel(hdr, 1, 1, {38055, 38055, 38055, 65535}, 8);
    const Image back = Convert(
        hdr, {"--from", "rec2020-pq", "--to", "srgb", "--source-peak", "203", "--depth", "8"});
    ExpectPixel(back, 1, 1, {255, 255, 255, 255});
    // What is not converted stays what it is.
    EXPECT_EQ(hdr.colorSpace, Convert(hdr, {"--source-alpha", "one"}).colorSpace);
    EXPECT_EQ(Conf::TransferCharacteristics::PQ, hdr.colorSpace->transfer);
}

TEST_P(PictureTest, PlacesPictures) {
    // Two pixels, red and green; blue where they do not reach.
    Image pair = MakePlain(2, 1, {255, 0, 0, 255});
    pair.pixels[4] = 0;
    pair.pixels[5] = 255;
    const std::vector<std::string> blue = {"--background", "0000FF"};
    const auto convert = [&](std::vector<std::string> options) {
        options.insert(options.end(), blue.begin(), blue.end());
        return Convert(pair, options);
    };
    constexpr std::array kRed = {255U, 0U, 0U, 255U};
    constexpr std::array kGreen = {0U, 255U, 0U, 255U};
    constexpr std::array kBlue = {0U, 0U, 255U, 255U};

    // A quarter turn counter-clockwise: the right end goes up.
    const Image turned = convert({"--rotate", "90", "--size", "1x2"});
    ExpectPixel(turned, 0, 0, kGreen);
    ExpectPixel(turned, 0, 1, kRed);
    // Moved right and down, in a rectangle of its own.
    const Image moved =
        convert({"--size", "8x8", "--rect", "2,2,6,6", "--fit", "free", "--translate", "1,0.5"});
    ExpectPixel(moved, 4, 4, kRed);
    ExpectPixel(moved, 5, 4, kGreen);
    ExpectPixel(moved, 3, 4, kBlue);
    ExpectPixel(moved, 4, 3, kBlue);
    // The whole of it inside; then as large as covers all.
    const Image fitted = convert({"--size", "8x8"});
    ExpectPixel(fitted, 0, 2, kRed);
    ExpectPixel(fitted, 7, 5, kGreen);
    ExpectPixel(fitted, 0, 1, kBlue);
    // The picture is 16 x 8 there, cropped: its first pixel is 1/16 green.
    const Image filled = convert({"--size", "8x8", "--fit", "fill"});
    ExpectPixel(filled, 0, 0, {239, 16, 0, 255}, 1);
    ExpectPixel(filled, 7, 7, {16, 239, 0, 255}, 1);
}

TEST_P(PictureTest, KeepsFinePatternsGreyWhenTheyShrink) {
    Image stripes = MakePlain(512, 512, {0, 0, 0, 255});
    for (std::size_t x = 0; x < std::size_t{512} * 512; x += 2) {
        std::fill_n(stripes.pixels.begin() + static_cast<std::ptrdiff_t>(4 * x), 3,
                    std::uint8_t{255});
    }
    const Image halved = Convert(stripes, {"--size", "50x50"});
    for (std::size_t x = 0; x < 50; ++x) {
        ExpectPixel(halved, x, 25, {128, 128, 128, 255}, 6);
    }
}

TEST_P(PictureTest, ConvertsAlpha) {
    const Image half = MakePlain(2, 2, {200, 100, 50, 128});
    const std::vector<std::string> premultiplied = {"--target-alpha", "premultiplied"};
    ExpectPixel(Convert(half, premultiplied), 0, 0, {100, 50, 25, 128}, 1);
    ExpectPixel(Convert(half, {"--target-alpha", "one"}), 0, 0, {100, 50, 25, 255}, 1);
    ExpectPixel(Convert(half, {"--source-alpha", "one"}), 0, 0, {200, 100, 50, 255});
    ExpectPixel(Convert(half, {"--background", "0000FF"}), 0, 0, {100, 50, 152, 255}, 1);
    ExpectPixel(Convert(half, {"--background", "0000FF80", "--target-alpha", "premultiplied"}), 0,
                0, {100, 50, 89, 192}, 1);
    const Image dark = MakePlain(2, 2, {100, 50, 25, 128});
    ExpectPixel(Convert(dark, {"--source-alpha", "premultiplied"}), 0, 0, {199, 100, 50, 128}, 1);
}

TEST_P(PictureTest, FillsRectangles) {
    Run({"fill", m_folder.GetText("a.png"), "--size", "6x4", "--color", "FF804020", "--rect",
         "-1,1,3,9", "--background", "01020304", "--depth", "16"});
    EXPECT_EQ(0U, m_result.exitCode) << m_result.err;
    const Image image = ReadImage(m_folder.GetPath("a.png"));
    EXPECT_EQ(16U, image.bitsPerChannel);
    constexpr unsigned kWide = 257; // 65535 / 255
    ExpectPixel(image, 2, 1, {255 * kWide, 128 * kWide, 64 * kWide, 32 * kWide}, 1);
    ExpectPixel(image, 0, 3, {255 * kWide, 128 * kWide, 64 * kWide, 32 * kWide}, 1);
    ExpectPixel(image, 3, 1, {kWide, 2 * kWide, 3 * kWide, 4 * kWide}, 1);
    ExpectPixel(image, 2, 0, {kWide, 2 * kWide, 3 * kWide, 4 * kWide}, 1);
}

TEST_P(PictureTest, MakesContactSheets) {
    WriteImage(m_folder.GetPath("red.png"), MakePlain(400, 100, {255, 0, 0, 255}));
    WriteImage(m_folder.GetPath("half.png"), MakePlain(10, 10, {255, 255, 255, 128}));
    Run({"sheet", m_folder.GetText("sheet.png"), m_folder.GetText("red.png"),
         m_folder.GetText("half.png"), "--cell", "40x20", "--gap", "5", "--background", "000000"});
    EXPECT_EQ(0U, m_result.exitCode) << m_result.err;
    const Image sheet = ReadImage(m_folder.GetPath("sheet.png"));
    EXPECT_EQ(95U, sheet.width);
    EXPECT_EQ(30U, sheet.height);
    ExpectPixel(sheet, 4, 15, {0, 0, 0, 255});
    ExpectPixel(sheet, 5, 15, {255, 0, 0, 255});
    ExpectPixel(sheet, 25, 8, {0, 0, 0, 255}); // 40 x 10 in a cell of 40 x 20
    ExpectPixel(sheet, 70, 15, {128, 128, 128, 255}, 1);
}

TEST_P(PictureTest, ReportsAsJson) {
    Convert(MakeNoise(8, 4, 16, true),
            {"--from", "rec2020-pq", "--to", "srgb", "--raw-params", "0.5,0.25,600,1.1,2",
             "--depth", "8", "--target-alpha", "premultiplied", "--json"});
    const json report = json::parse(m_result.out);
    EXPECT_EQ(json({{"sourceColorSpace", 0x910},
                    {"targetColorSpace", 0x10d},
                    {"sourceAlphaType", 0},
                    {"targetAlphaType", 2},
                    {"displayLinear", true},
                    {"linearScale", 2.0},
                    {"pqTonemapA", 0.5},
                    {"pqTonemapB", 0.25},
                    {"displayPeakLuminance", 600.0},
                    {"hlgOOTFGamma", 1.1F}}),
              report.at("parameters"));
    EXPECT_NE("", report.at("adapter").at("name"));
    EXPECT_EQ(GetParam(), report.at("device").at("api"));
    EXPECT_LE(0.0, report.at("timesMs").at("shaderCompilation"));
    const json& picture = report.at("pictures").at(0);
    EXPECT_EQ("R16G16B16A16_UNORM", picture.at("sourceFormat"));
    EXPECT_EQ("R8G8B8A8_UNORM", picture.at("targetFormat"));
    EXPECT_EQ(8, picture.at("width"));
    for (const char* step : {"decode", "upload", "draw", "readback", "encode"}) {
        EXPECT_LT(0.0, picture.at("timesMs").at(step)) << step;
    }

    const json info = json::parse(RunProgram({"info", "--json"}).out);
    EXPECT_EQ(true, info.at("direct3D12"));
    EXPECT_EQ(true, info.at("hlslCompiler"));
    const json& adapter = info.at("adapters").at(0);
    EXPECT_EQ(report.at("adapter").at("luid"), adapter.at("luid"));
    EXPECT_TRUE(adapter.at("outputs").is_array());
    // In full, what the report says of its device.
    json device = adapter.at("devices").at(m_api == "d3d12" ? 0 : 1);
    EXPECT_EQ(json({{"drawFrom", true}, {"drawTo", true}, {"blend", true}}),
              device.at("formats").at("R8G8B8A8_UNORM"));
    device.erase("formats");
    EXPECT_EQ(report.at("device"), device);
}

TEST_F(ProgramTest, DrawsTheSameWithBothGenerations) {
    const Image noise = MakeNoise(64, 64, 8, false);
    for (const std::vector<std::string>& options :
         {std::vector<std::string>{"--from", "srgb", "--to", "rec2020-hlg"},
          {"--from", "rec2020-pq", "--to", "srgb", "--size", "100x60", "--fit", "fill"},
          {"--rotate", "30", "--fit", "fill"},
          {"--size", "20x15", "--background", "406080"}}) {
        SCOPED_TRACE(testing::PrintToString(options));
        m_api = "d3d11";
        const Image with11 = Convert(noise, options);
        m_api = "d3d12";
        const Image with12 = Convert(noise, options);
        ASSERT_EQ(with11.pixels.size(), with12.pixels.size());
        int largest = 0;
        for (std::size_t i = 0; i < with11.pixels.size(); ++i) {
            largest = std::max(largest, std::abs(with11.pixels[i] - with12.pixels[i]));
        }
        EXPECT_LE(largest, 1);
    }
}

TEST_F(ProgramTest, SaysInOneLineWhatFails) {
    WriteImage(m_folder.GetPath("in.png"), MakePlain(1, 1, {}));
    const std::string in = m_folder.GetText("in.png");
    const std::string out = m_folder.GetText("out.png");
    const TemporaryFolder empty;
    const struct {
        std::vector<std::string> arguments;
        unsigned exitCode;
        const char* words;
    } kCases[] = {
        {{"convert", m_folder.GetText("missing.png"), out}, 1, "there is no file"},
        {{"convert", in, m_folder.GetText("missing/out.png")}, 1, "there is no folder"},
        {{"convert", in, in, m_folder.GetText("missing")}, 1, "there is no folder"},
        {{"convert", in, out, "--adapter", "99"}, 1, "there is no adapter 99"},
        {{"convert", in, out, "--adapter", "99", "--api", "d3d11"}, 1, "there is no adapter 99"},
        {{"convert", empty.GetText("."), out}, 1, "is a folder"},
        {{"convert", in, out, "--from", "srgb"}, 2, "belong together"},
        {{"sheet", out, in, "--cell", "16384x16384"}, 1, "larger than the device takes"},
        {{"view", in, "--screenshot", out}, 2, "--screenshot goes with --frames"},
        {{"view", in, "--frames", "1", "--screenshot", m_folder.GetText("missing/out.png")},
         1,
         "there is no folder"},
        {{"view", in, "--from", "rec709-linear"}, 2, "cannot be converted from"},
        {{}, 2, "--help"},
    };
    for (const auto& [arguments, exitCode, words] : kCases) {
        const ProcessResult result = RunProgram(arguments);
        EXPECT_EQ(exitCode, result.exitCode) << words;
        EXPECT_EQ("", result.out);
        const auto lines = GetLines(result.err);
        EXPECT_THAT(lines, ElementsAre(testing::AllOf(StartsWith("norvexdx: "), HasSubstr(words))));
    }
    EXPECT_THAT(m_folder.GetFiles(), ElementsAre("in.png"));
    EXPECT_EQ(0U, RunProgram({"convert", "--help"}).exitCode);
    EXPECT_THAT(RunProgram({"--version"}).out, StartsWith("norvexdx "));
}

// Whether the example's window has its gradient on the screen, right of the middle.
bool ShowsGradient(HWND window) {
    SetWindowPos(window, HWND_TOPMOST, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_NOACTIVATE);
    RECT client = {};
    GetClientRect(window, &client);
    POINT point = {client.right / 2 + client.bottom / 4, client.bottom / 2};
    ClientToScreen(window, &point);
    HDC screen = GetDC(nullptr);
    const COLORREF color = GetPixel(screen, point.x, point.y);
    ReleaseDC(nullptr, screen);
    return std::abs(GetRValue(color) - 192) < 4 && std::abs(GetGValue(color) - 128) < 4 &&
           std::abs(GetBValue(color) - 128) < 4;
}

TEST(ExamplesTest, SayAndShowWhatTheyDo) {
    CComPtr<ID3D11Device5> device5; // has the fences that sharing needs
    DX::D11Device::CreatePrimary()->Get()->QueryInterface(IID_PPV_ARGS(&device5));
    const bool shares = device5 != nullptr;
    const struct {
        const wchar_t* program;
        std::vector<std::string> arguments;
        unsigned exitCode;
        const char* words; // empty: it shows a window, and ends when that is closed
    } kCases[] = {
        {L"offscreen.exe", {}, 0, "0.5807 0.5807 0.5807"},
        {L"attach.exe", {}, 0, "sRGB  64 is  74 in BT.709"},
        {L"share.exe",
         {},
         shares ? 0U : 1U,
         shares ? "Direct3D 11 reads 255 255 255" : "This system does not share between"},
        {L"window.exe", {}, 0, ""},
        {L"window.exe", {"d3d11"}, 0, ""},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(std::filesystem::path(c.program).string());
        StartedProgram program(c.arguments, nullptr, c.program);
        for (int i = 0; *c.words == '\0' && i < 1000 && !program.HasEnded(20); ++i) {
            HWND window = FindWindowW(L"STATIC", L"NorvexDX");
            if (window != nullptr && ShowsGradient(window)) {
                PostMessageW(window, WM_CLOSE, 0, 0);
            }
        }
        const ProcessResult result = program.Wait();
        EXPECT_EQ(c.exitCode, result.exitCode) << result.err;
        EXPECT_THAT(result.out + result.err, HasSubstr(c.words));
    }
}

// Run on their own, on a system without the part.
void ExpectMissing(const std::string& api, const std::string& words) {
    const TemporaryFolder folder;
    const std::string in = folder.GetText("in.png");
    WriteImage(folder.GetPath("in.png"), MakePlain(1, 1, {}));
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"convert", in, in, "--adapter", "0", "--api", api},
          {"fill", folder.GetText("a.png"), "--size", "1x1", "--color", "FFFFFF", "--api", api}}) {
        const ProcessResult result = RunProgram(arguments);
        EXPECT_EQ(1U, result.exitCode);
        const auto lines = GetLines(result.err);
        EXPECT_THAT(lines, ElementsAre(StartsWith("norvexdx: " + words)));
    }
    EXPECT_THAT(folder.GetFiles(), ElementsAre("in.png"));
}

// Each command says why it draws with Direct3D 11, and does.
void ExpectDirect3D11(const std::string& reason) {
    const TemporaryFolder folder;
    const std::string in = folder.GetText("in.png");
    WriteImage(folder.GetPath("in.png"), MakePlain(2, 2, {255, 255, 255, 255}));
    const std::string out = folder.GetText("out.png");
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"convert", in, out, "--from", "srgb", "--to", "rec2020-pq"},
          {"fill", out, "--size", "2x2", "--color", "949494FF"},
          {"sheet", out, in, "--cell", "2x2", "--background", "949494"}}) {
        const ProcessResult result = RunProgram(arguments);
        EXPECT_EQ(0U, result.exitCode) << result.err;
        const auto lines = GetLines(result.err);
        EXPECT_THAT(lines,
                    ElementsAre(StartsWith("norvexdx: drawing with Direct3D 11: " + reason)));
        EXPECT_THAT(result.out, StartsWith("Direct3D 11 on "));
        // SMPTE ST 2084 of 203 cd/m2 is 0.580688881.
        ExpectPixel(ReadImage(folder.GetPath("out.png")), 0, 0, {148, 148, 148, 255});
    }
}

void ExpectInfoOfDirect3D11(bool hasDirect3D12, const std::string& error) {
    const ProcessResult result = RunProgram({"info", "--json"});
    EXPECT_EQ(0U, result.exitCode);
    const json info = json::parse(result.out);
    EXPECT_EQ(hasDirect3D12, info.at("direct3D12"));
    const json& devices = info.at("adapters").at(0).at("devices");
    EXPECT_EQ("d3d12", devices.at(0).at("api"));
    EXPECT_THAT(devices.at(0).at("error"), StartsWith(error));
    EXPECT_EQ("d3d11", devices.at(1).at("api"));
    EXPECT_EQ(true, devices.at(1).at("formats").at("R16G16B16A16_UNORM").at("drawTo"));
    EXPECT_THAT(RunProgram({"info"}).out, testing::AllOf(HasSubstr("Direct3D 12: " + error),
                                                         HasSubstr("Direct3D 11: level ")));
}

TEST(MissingPart, Direct3D12) {
    constexpr const char* kReason = "this system has no Direct3D 12";
    ExpectMissing("d3d12", kReason);
    ExpectDirect3D11(kReason);
    ExpectInfoOfDirect3D11(false, "DirectX 12 device interface is not supported on this system");
}

// The system has Direct3D 12, its driver has not: the program says what the library does.
TEST(MissingPart, Direct3D12Driver) {
    const std::string reason = SentenceOf([] { DX::D12Device::CreatePrimary(); });
    if (reason == "(nothing)") {
        GTEST_SKIP() << "This system's Direct3D 12 needs no Vulkan.";
    }
    ExpectMissing("d3d12", reason);
    ExpectDirect3D11(reason);
    ExpectInfoOfDirect3D11(DX::D12Device::IsAvailable(), reason);
}

TEST(MissingPart, Compiler) {
    for (const char* api : {"auto", "d3d11", "d3d12"}) {
        ExpectMissing(api, "this system has no HLSL compiler (d3dcompiler_47.dll)");
    }
}

} // namespace

} // namespace Norvex::Test
