// What the program makes of its command line before it touches a device.

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "apps/norvexdx/commands/ViewCommand.h"
#include "apps/norvexdx/console/CommandLine.h"
#include "tests/apps/Expectations.h"

namespace Norvex::Test {

namespace {

using namespace App;
using testing::HasSubstr;

class CommandLineTest : public testing::Test {
protected:
    template <class Options>
    Options Parse(const std::string& commandLine) const {
        return std::get<Options>(ParseCommandLine(m_folder.Split(commandLine)).command);
    }

    TemporaryFolder m_folder;
};

// As far as the program gets without a device.
struct Prepare {
    void operator()(const ConvertOptions& options) const { MakeConvertPlan(options); }
    void operator()(const EncodeOptions& options) const { MakeEncodePlan(options); }
    void operator()(const ViewOptions& options) const { RunView(options); }
    void operator()(const auto&) const {}
};

TEST_F(CommandLineTest, TellsWrongUsageInItsOwnWords) {
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
        {"straight, one or premultiplied", kConvert, {"--target-alpha none"}},
        {"WIDTHxHEIGHT", kConvert + "--size ", {"0x10", "16385x1", "10x10x10", "10"}},
        {"--fit free only", kConvert, {"--fit fill --scale 2"}},
        {"LEFT,TOP,RIGHT,BOTTOM", kConvert, {"--rect 5,0,5,9", "--rect 0,0,9,40000"}},
        {"RRGGBBAA", kConvert, {"--background 12345", "--background +12345"}},
        {"translucent", kConvert, {"--background FF000080"}},
        {"8 or 16", kConvert, {"--depth 10"}},
        {"an adapter's number", kConvert, {"--adapter -1"}},
        {"--nonsense", kConvert, {"--nonsense"}},
        {"--size", kConvert, {"--size 1x1 --size 2x2"}},
        {".png", "convert in.png out.jpg"},
        {"several inputs", "convert a/photo.jpg b/PHOTO.tif @"},
        {"\"yv12\" is not nv12, p010 or p016", "encode a.png -o out --format yv12"},
        {"--output is required", "encode a.png --format nv12"},
        {"bt601, bt709 or bt2020", kEncode, {"--matrix bt2100"}},
        {"is not a frame rate", kEncode + "--fps ", {"0", "0/1", "25/", "-25", "25.", "24.0001"}},
        {"belong together", kEncode, {"--from srgb"}},
        {"goes alone", kEncode, {"-"}},
        {"--screenshot goes with --frames", "view in.png --screenshot out.png"},
        {"rec709-linear cannot be converted from", "view in.png --from rec709-linear"},
        {"--help", "", {"", "paint", "convert", "convert in.png", "fill out.png --size 1x1"}},
        {"--help", "", {"sheet out.png", "view", "view in.png --hdr maybe", "info more"}},
        {"--help", "view in.png --frames 0"},
    };
    for (const auto& [words, beginning, ends] : kCases) {
        for (const char* end : ends) {
            const auto prepare = [&, &begin = beginning] {
                std::visit(Prepare(), ParseCommandLine(m_folder.Split(begin + end)).command);
            };
            EXPECT_THAT(FailureOf(prepare, ExitCode::WrongUsage), HasSubstr(words)) << end;
        }
    }
}

TEST_F(CommandLineTest, ExpandsWildcardsAndFoldersAmongTheInputs) {
    for (const char* name : {"b.PNG", "a1.jpg", "a.tiff", "c.txt", "d.tiffx"}) {
        WriteBytes(m_folder.GetPath(name), {});
    }
    std::filesystem::create_directories(m_folder.GetPath("f.jpg/empty"));
    const std::pair<std::string, std::string> kCases[] = {
        {"@*.?p*g", "@a1.jpg"},          {"@a*", "@a.tiff @a1.jpg"}, {"@*.tif?", "@a.tiff"},
        {"@", "@a.tiff @a1.jpg @b.PNG"}, {"@f.jpg", "@f.jpg"},       {"@*.gif", "@*.gif"},
        {"@no*/a.jpg", "@no*/a.jpg"},
    };
    for (const auto& [input, names] : kCases) {
        const std::string expected = "- " + names;
        EXPECT_EQ(Parse<EncodeOptions>("encode - " + input + " -o x --format nv12").inputs,
                  m_folder.Split(expected));
        EXPECT_EQ(Parse<ViewOptions>("view - " + input).files, m_folder.Split(expected));
        EXPECT_EQ(Parse<SheetOptions>("sheet x - " + input).inputs, m_folder.Split(expected));
        EXPECT_EQ(Parse<ConvertOptions>(fmt::format("convert - {0} {0}", input)).files,
                  m_folder.Split(fmt::format("{} {}", expected, input)));
    }
}

} // namespace

} // namespace Norvex::Test
