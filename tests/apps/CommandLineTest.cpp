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
    const std::string kConvert = "convert in.png out.png ";
    const std::string kEncode = "encode a.png -o out --format nv12 ";
    const struct {
        const char* words;
        std::string beginning;
        std::vector<const char*> ends = {""};
    } kCases[] = {
        {"belong together", kConvert, {"--from srgb", "--to rec2020-pq"}},
        {"\"sRGB\" is not a colour space (srgb, rec709", kConvert, {"--from sRGB --to srgb"}},
        {"rec709-linear cannot be converted from", kConvert, {"--from rec709-linear --to srgb"}},
        {"rec2020-linear cannot be converted to", kConvert, {"--from srgb --to rec2020-linear"}},
        {"cannot", kConvert, {"--from rec709-linear --to rec709-linear --linear-scale 2"}},
        {"(nothing)", kConvert, {"--from rec2020-linear --to rec2020-linear"}},
        {"needs --from and --to", kConvert, {"--mode hdr"}},
        {"is not a luminance", kConvert, {"--source-peak 0", "--target-peak 10001"}},
        {"greater than 0", kConvert, {"--linear-scale -1", "--linear-scale 1e60", "--scale 0"}},
        {"WIDTHxHEIGHT", kConvert + "--size ", {"0x10", "16385x1", "10x10x10", "10"}},
        {"--fit free only", kConvert, {"--fit fill --scale 2"}},
        {"LEFT,TOP,RIGHT,BOTTOM", kConvert, {"--rect 5,0,5,9", "--rect 0,0,9,40000"}},
        {"RRGGBBAA", kConvert, {"--background 12345", "--background +12345"}},
        {"translucent", kConvert, {"--background FF000080"}},
        {"8 or 16", kConvert, {"--depth 10"}},
        {"--size", kConvert, {"--size 1x1 --size 2x2"}},
        {".png", "convert in.png out.jpg"},
        {"several inputs", "convert a/photo.jpg b/PHOTO.tif @"},
        {"--output is required", "encode a.png --format nv12"},
        {"is not a frame rate", kEncode + "--fps ", {"0", "0/1", "25/", "-25", "25.", "24.0001"}},
        {"belong together", kEncode, {"--from srgb"}},
        {"goes alone", kEncode, {"-"}},
        {"--screenshot goes with --frames", "view in.png --screenshot out.png"},
        {"rec709-linear cannot be converted from", "view in.png --from rec709-linear"},
        {"--help", "", {"", "paint", "convert in.png", "info more", "view in.png --frames 0"}},
    };
    for (const auto& [words, beginning, ends] : kCases) {
        for (const char* end : ends) {
            const auto prepare = [&, &begin = beginning] {
                std::visit(Prepare(), ParseCommandLine(folder.Split(begin + end)).command);
            };
            EXPECT_THAT(FailureOf(prepare, ExitCode::WrongUsage), testing::HasSubstr(words)) << end;
        }
    }
}

TEST(CommandLineTest, ExpandsWildcardsAndFoldersAmongTheInputs) {
    const TemporaryFolder folder;
    for (const char* name : {"b.PNG", "a1.jpg", "a.tiff", "c.txt", "d.tiffx"}) {
        WriteBytes(folder.GetPath(name), std::string());
    }
    std::filesystem::create_directories(folder.GetPath("f.jpg/empty"));
    const std::pair<std::string, std::string> kCases[] = {
        {"@*.?p*g", "@a1.jpg"},          {"@a*", "@a.tiff @a1.jpg"}, {"@*.tif?", "@a.tiff"},
        {"@", "@a.tiff @a1.jpg @b.PNG"}, {"@f.jpg", "@f.jpg"},       {"@*.gif", "@*.gif"},
        {"@no*/a.jpg", "@no*/a.jpg"},
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
