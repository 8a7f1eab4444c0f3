#include <gmock/gmock.h>

#include "apps/norvexdx/CommandLine.h"
#include "apps/norvexdx/Failure.h"
#include "apps/norvexdx/InputFile.h"
#include "tests/apps/Pictures.h"

namespace Norvex::Test {

namespace {

using namespace App;
using testing::HasSubstr;

// Parses, and plans what is to be converted, as the program does before it touches the device.
ConvertPlan Plan(std::vector<std::string> options) {
    std::vector<std::string> arguments = {"convert", "in.png", "out.png"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return MakeConvertPlan(std::get<ConvertOptions>(ParseCommandLine(arguments).command));
}

std::string GetUsageLine(const std::function<void()>& call) {
    try {
        call();
    } catch (const Failure& failure) {
        EXPECT_EQ(ExitCode::WrongUsage, failure.GetExitCode()) << failure.what();
        return failure.what();
    }
    return "(accepted)";
}

TEST(CommandLineTest, TellsWrongUsageInItsOwnWords) {
    const struct {
        std::vector<std::string> options;
        const char* words;
    } kCases[] = {
        {{"--from", "srgb"}, "belong together"},
        {{"--to", "rec2020-pq"}, "belong together"},
        {{"--from", "sRGB", "--to", "srgb"}, "\"sRGB\" is not a colour space (srgb, rec709"},
        {{"--from", "rec709-linear", "--to", "srgb"}, "rec709-linear cannot be converted from"},
        {{"--from", "srgb", "--to", "rec2020-linear"}, "rec2020-linear cannot be converted to"},
        {{"--from", "rec709-linear", "--to", "rec709-linear", "--linear-scale", "2"}, "cannot"},
        {{"--mode", "hdr"}, "needs --from and --to"},
        {{"--source-peak", "0"}, "is not a luminance"},
        {{"--target-peak", "10001"}, "is not a luminance"},
        {{"--linear-scale", "-1"}, "is not a number greater than 0"},
        {{"--linear-scale", "1e60"}, "is not a number greater than 0"},
        {{"--raw-params", "0,0,1000,1.2"}, "five numbers"},
        {{"--raw-params", "0,0,1000,1.2,1,1"}, "five numbers"},
        {{"--raw-params", "0,0,1000,nan,1"}, "five numbers"},
        {{"--target-alpha", "none"}, "straight, one or premultiplied"},
        {{"--size", "0x10"}, "WIDTHxHEIGHT"},
        {{"--size", "16385x1"}, "WIDTHxHEIGHT"},
        {{"--size", "10x10x10"}, "WIDTHxHEIGHT"},
        {{"--size", "10"}, "WIDTHxHEIGHT"},
        {{"--fit", "fill", "--scale", "2"}, "--fit free only"},
        {{"--scale", "0"}, "greater than 0"},
        {{"--rotate", "north"}, "an angle"},
        {{"--translate", "1;2"}, "X,Y"},
        {{"--rect", "5,0,5,9"}, "LEFT,TOP,RIGHT,BOTTOM"},
        {{"--rect", "0,0,9,40000"}, "LEFT,TOP,RIGHT,BOTTOM"},
        {{"--background", "12345"}, "RRGGBBAA"},
        {{"--background", "+12345"}, "RRGGBBAA"},
        {{"--background", "FF000080"}, "translucent"},
        {{"--depth", "10"}, "8 or 16"},
        {{"--adapter", "-1"}, "an adapter's number"},
        {{"--api", "d3d9"}, "auto, d3d11 or d3d12"},
        {{"--nonsense"}, "--nonsense"},
        {{"--size", "1x1", "--size", "2x2"}, "--size"},
    };
    for (const auto& [options, words] : kCases) {
        EXPECT_THAT(GetUsageLine([&] { Plan(options); }), HasSubstr(words));
    }
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{},
                                                      {"paint"},
                                                      {"convert"},
                                                      {"convert", "in.png"},
                                                      {"fill", "out.png", "--size", "1x1"},
                                                      {"sheet", "out.png"},
                                                      {"view"},
                                                      {"view", "in.png", "--frames", "0"},
                                                      {"view", "in.png", "--hdr", "maybe"},
                                                      {"info", "more"}}) {
        EXPECT_THAT(GetUsageLine([&] { ParseCommandLine(arguments); }), HasSubstr("--help"));
    }
    EXPECT_THAT(GetUsageLine([] {
                    MakeConvertPlan(std::get<ConvertOptions>(
                        ParseCommandLine({"convert", "in.png", "out.jpg"}).command));
                }),
                HasSubstr(".png"));
}

TEST(CommandLineTest, PlansWhatTheOptionsMeanTogether) {
    EXPECT_FALSE(Plan({}).conversion);
    EXPECT_EQ(ApiChoice::Auto, Plan({}).graphics.api);
    EXPECT_EQ(ApiChoice::Direct3D11, Plan({"--api", "d3d11"}).graphics.api);
    EXPECT_EQ(DX::RenderFitMode::Free, Plan({"--scale", "2"}).view.fit);
    EXPECT_EQ(DX::RenderFitMode::Fit, Plan({"--size", "4x4"}).view.fit);
    EXPECT_EQ(-30.0F, Plan({"--rotate", "-30"}).view.rotationDegrees);
    EXPECT_EQ((std::array{-5.5F, 3.0F}), Plan({"--translate", "-5.5,3"}).view.translation);
    EXPECT_EQ((DX::Rect2DT<long>{-2, -1, 3, 4}), Plan({"--rect", "-2,-1,3,4"}).rect);

    const auto toHDR = Plan({"--from", "srgb", "--to", "rec2020-pq"});
    EXPECT_EQ(Proc::LinearizationMode::DisplayReferredHDR, toHDR.conversion->mode);
    EXPECT_EQ(2.03F, toHDR.conversion->GetLinearScale());
    EXPECT_FALSE(toHDR.blends);
    const auto raw = Plan({"--from", "rec2020-pq", "--to", "srgb", "--raw-params", "1,2,3,4,5"});
    EXPECT_EQ(Proc::LinearizationMode::DisplayReferred, raw.conversion->mode);
    EXPECT_EQ(std::pair(1.0F, 2.0F), raw.conversion->GetPQTonemapCoefs());
    EXPECT_EQ(3.0F, raw.conversion->GetHLGDisplayPeakLuminance());
    EXPECT_EQ(4.0F, raw.conversion->GetHLGOOTFGamma());
    EXPECT_EQ(5.0F, raw.conversion->GetLinearScale());
    // The linear spaces to themselves: only alpha changes.
    EXPECT_TRUE(Plan({"--from", "rec2020-linear", "--to", "rec2020-linear"}).conversion);
}

TEST(CommandLineTest, LaysPicturesOverTheBackground) {
    const struct {
        std::vector<std::string> options;
        bool blends;
        Proc::ColorF background;
    } kCases[] = {
        {{}, false, {0, 0, 0, 0}},
        {{"--background", "#FF0000"}, true, {1, 0, 0, 1}},
        {{"--background", "FF000000"}, false, {1, 0, 0, 0}},
        {{"--target-alpha", "one"}, false, {0, 0, 0, 1}},
        {{"--background", "FF000033", "--target-alpha", "premultiplied"}, true, {0.2F, 0, 0, 0.2F}},
        {{"--background", "FF000033", "--target-alpha", "one"}, true, {0.2F, 0, 0, 1}},
    };
    for (const auto& [options, blends, background] : kCases) {
        const ConvertPlan plan = Plan(options);
        SCOPED_TRACE(testing::PrintToString(options));
        EXPECT_EQ(blends, plan.blends);
        EXPECT_EQ(background, plan.background);
        if (blends) {
            EXPECT_EQ(Proc::AlphaType::Premultiplied, plan.conversion->targetAlpha);
        }
    }
}

TEST(CommandLineTest, NamesTheOutputsOfManyInputs) {
    const TemporaryFolder folder;
    const auto plan = [&](std::vector<std::string> files) {
        files.push_back(folder.GetText(""));
        ConvertOptions options;
        options.files = std::move(files);
        return MakeConvertPlan(options).jobs;
    };
    const auto jobs = plan({"x/photo.jpg", "scan.tif"});
    EXPECT_EQ(folder.GetPath("photo.png"), jobs.at(0).output);
    EXPECT_EQ(folder.GetPath("scan.png"), jobs.at(1).output);
    EXPECT_THAT(GetUsageLine([&] { plan({"a/photo.jpg", "b/PHOTO.tif"}); }),
                HasSubstr("several inputs"));
}

TEST(CommandLineTest, ExpandsWildcardsAndFoldersAmongTheInputs) {
    const TemporaryFolder folder;
    for (const char* name : {"b.PNG", "a1.jpg", "a.tiff", "c.txt", "d.tiffx"}) {
        WriteBytes(folder.GetPath(name), {});
    }
    std::filesystem::create_directories(folder.GetPath("f.jpg/empty"));
    const auto expect = [&](const char* input, const std::vector<const char*>& names) {
        std::vector<std::string> expected = {"-"};
        for (const char* name : names) {
            expected.push_back(Utf8FromPath(folder.GetPath("") / name));
        }
        const std::string text = Utf8FromPath(folder.GetPath("") / input);
        const auto encode = ParseCommandLine({"encode", "-", text, "-o", text, "--format", "nv12"});
        EXPECT_EQ(expected, std::get<EncodeOptions>(encode.command).inputs) << input;
        const auto convert = ParseCommandLine({"convert", "-", text, text});
        expected.push_back(text);
        EXPECT_EQ(expected, std::get<ConvertOptions>(convert.command).files) << input;
    };
    expect("*.?p*g", {"a1.jpg"});
    expect("a*", {"a.tiff", "a1.jpg"});
    expect("*.tif?", {"a.tiff"});
    expect("", {"a.tiff", "a1.jpg", "b.PNG"});
    expect("f.jpg", {"f.jpg"});
    expect("*.gif", {"*.gif"});
    expect("no*/a.jpg", {"no*/a.jpg"});
}

} // namespace

} // namespace Norvex::Test
