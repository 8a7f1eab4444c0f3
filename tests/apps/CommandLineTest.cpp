// What the program makes of its command line before it touches a device.

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "apps/norvexdx/commands/ViewCommand.h"
#include "apps/norvexdx/console/CommandLine.h"
#include "tests/apps/Expectations.h"

namespace Norvex::Test {

namespace {

using namespace App;

// As far as the program gets without a device.
struct Prepare {
    void operator()(const ConvertOptions& options) const { MakeConvertPlan(options); }
    void operator()(const EncodeOptions& options) const { MakeEncodePlan(options); }
    void operator()(const ViewOptions& options) const { RunView(options); }
    void operator()(const auto&) const {}
};

TEST(CommandLineTest, TellsWrongUsageInItsOwnWords) {
    const TemporaryFolder folder;
    const auto expect = [&](const char* words, const std::string& beginning,
                            const std::vector<const char*>& ends = {""}) {
        for (const char* end : ends) {
            const auto prepare = [&] {
                std::visit(Prepare(), ParseCommandLine(folder.Split(beginning + end)).command);
            };
            EXPECT_THAT(FailureOf(prepare, ExitCode::WrongUsage), testing::HasSubstr(words)) << end;
        }
    };
    const std::string convert = "convert in.png out.png ";
    const std::string encode = "encode a.png -o out --format nv12 ";
    expect("belong together", convert, {"--from srgb", "--to rec2020-pq"});
    expect("\"sRGB\" is not a colour space (srgb, rec709", convert, {"--from sRGB --to srgb"});
    expect("rec709-linear cannot be converted from", convert, {"--from rec709-linear --to srgb"});
    expect("rec2020-linear cannot be converted to", convert, {"--from srgb --to rec2020-linear"});
    expect("cannot", convert, {"--from rec709-linear --to rec709-linear --linear-scale 2"});
    expect("(nothing)", convert, {"--from rec2020-linear --to rec2020-linear"});
    expect("needs --from and --to", convert, {"--mode hdr"});
    expect("is not a luminance", convert, {"--source-peak 0", "--target-peak 10001"});
    expect("greater than 0", convert, {"--linear-scale -1", "--linear-scale 1e60", "--scale 0"});
    expect("WIDTHxHEIGHT", convert + "--size ", {"0x10", "16385x1", "10x10x10", "10"});
    expect("--fit free only", convert, {"--fit fill --scale 2"});
    expect("LEFT,TOP,RIGHT,BOTTOM", convert, {"--rect 5,0,5,9", "--rect 0,0,9,40000"});
    expect("RRGGBBAA", convert, {"--background 12345", "--background +12345"});
    expect("translucent", convert, {"--background FF000080"});
    expect(".png", "convert in.png out.jpg");
    expect("several inputs", "convert a/photo.jpg b/PHOTO.tif @");
    expect("is not a frame rate", encode + "--fps ", {"0", "0/1", "25/", "-25", "25.", "24.0001"});
    expect("belong together", encode, {"--from srgb"});
    expect("goes alone", encode, {"-", "--input-format rgba b.png"});
    expect("is not for --converter two-pass", encode + "--converter two-pass ",
           {"--range full", "--siting left", "--dither ordered", "--scaler area",
            "--input-format nv12", "--input-matrix bt601"});
    expect("is not for --converter two-pass",
           "encode a.png -o out --format yuv422p --converter two-pass");
    expect("Y4M cannot say", "encode a.png -o out --format p010 --container y4m --siting centre");
    expect("is not for --converter two-pass", encode + "--converter two-pass ",
           {"--lut a.cube", "--gamut clip", "--tone-map rational"});
    expect("are for --tone-map bt2390", convert,
           {"--target-black 0.1", "--from srgb --to srgb --tone-map rational --source-black 0"});
    expect("is for input in PQ", convert + "--from srgb --to srgb --source-peak measured");
    expect("twice",
           "encode - -o a --format nv12 --from rec2020-pq --to srgb --source-peak measured");
    expect("need --from and --to", convert, {"--tone-map bt2390", "--gamut soft"});
    expect("from 0 to 10 cd/m2", convert, {"--target-black -1", "--source-black 11"});
    expect("linear light", encode, {"--from srgb --to rec709-linear"});
    expect("is not a format", encode, {"--input-format yuv411p", "--input-format p016be"});
    expect("--screenshot goes with --frames", "view in.png --screenshot out.png");
    expect("rec709-linear cannot be converted from", "view in.png --from rec709-linear");
    expect("--help", "", {"", "paint", "convert in.png", "info more", "view in.png --frames 0"});
}

TEST(CommandLineTest, ExpandsWildcardsAndFoldersAmongTheInputs) {
    const TemporaryFolder folder;
    for (const char* name : {"b.PNG", "a1.jpg", "a.tiff", "c.txt", "d.tiffx"}) {
        WriteBytes(folder.GetPath(name), std::string());
    }
    std::filesystem::create_directories(folder.GetPath("f.jpg/empty"));
    const std::pair<std::string, std::string> kCases[] = {
        {"@*.?p*g", "@a1.jpg"}, {"@*.tif?", "@a.tiff"},       {"@", "@a.tiff @a1.jpg @b.PNG"},
        {"@f.jpg", "@f.jpg"},   {"@no*/a.jpg", "@no*/a.jpg"},
    };
    const auto parse = [&](const std::string& commandLine) {
        return ParseCommandLine(folder.Split(commandLine)).command;
    };
    for (const auto& [input, names] : kCases) {
        const auto expected = folder.Split("- " + names);
        const auto encode = parse("encode - " + input + " -o x --format nv12");
        EXPECT_EQ(std::get<EncodeOptions>(encode).inputs, expected);
        EXPECT_EQ(std::get<ViewOptions>(parse("view - " + input)).files, expected);
        EXPECT_EQ(std::get<SheetOptions>(parse("sheet x - " + input)).inputs, expected);
        EXPECT_EQ(std::get<ConvertOptions>(parse(fmt::format("convert - {0} {0}", input))).files,
                  folder.Split(fmt::format("- {} {}", names, input)));
    }
}

} // namespace

} // namespace Norvex::Test
