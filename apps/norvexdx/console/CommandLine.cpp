#include "apps/norvexdx/console/CommandLine.h"

#include <algorithm>
#include <sstream>

#include <CLI/CLI.hpp>

#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/pictures/InputFile.h"
#include "apps/norvexdx/viewer/ViewerKeys.h"

namespace Norvex::App {

namespace {

constexpr const char* kConvertNotes = R"(
One input becomes the file OUT. Many inputs, or an OUT that is a folder, become OUT/<input's
name>.png; an input that fails is told, the others go on. An input with * or ? is all files that
match, a folder the pictures in it.

Without --from and --to colours stay as they are. The spaces: srgb, rec709, rec709-linear (target
only), rec2020, rec2020-pq, rec2020-hlg; rec2020-linear only to itself. Without --size the output
has the size of the input, and each pixel maps to its own. A picture with an ICC profile is first
converted to sRGB, unless --from says that it is something else. JPEG files are turned upright as the
camera noted. Pictures that shrink to less than half are first reduced by halves, so that fine
patterns do not alias.

Where the picture does not cover the output, it is transparent black, or the --background, which
is also seen through the picture's own transparency. A picture is premultiplied in its file only
with --target-alpha premultiplied; PNG viewers expect straight.

A frame of a clip, Y4M or raw with --input-format and --input-size, becomes R'G'B' of --from, without
it as it is; its matrix is that of --from, else of Rec. 709, unless --input-matrix says another.

Examples:
  norvexdx convert clip.y4m frame.png --frame 100 --scaler lanczos --size 960x540
  norvexdx convert photo.jpg hdr.png --from srgb --to rec2020-pq --depth 16
  norvexdx convert hdr.png photo.png --from rec2020-pq --to srgb --source-peak 203 --depth 8
  norvexdx convert hdr.png photo.png --from rec2020-pq --to srgb --tone-map bt2390 --gamut soft
  norvexdx convert photo.jpg turned.png --rotate 30 --size 1280x720 --background 202020FF
  norvexdx convert one.jpg two.jpg three.tif thumbnails --size 320x240 --json)";

constexpr const char* kEncodeNotes = R"(
IN is pictures, each one frame; a Y4M file, 4:2:0, 4:2:2, 4:4:4 or mono of 8 to 16 bits; a file of raw
frames, with --input-format and their size; or - for standard input, which is a Y4M stream or raw
frames of --size, RGBA without --input-format. All frames have one size, or are fitted into --size
over black; --input-size is that of raw frames where it is another. Transparency is over black. OUT
is a file, which appears whole or not at all, or - for standard output; then --stats and --json tell
on standard error.

Formats have ffmpeg's names: nv12, p010, p016, and yuv420p, yuv422p, yuv444p, which may end in 10, 12
or 16 and "le". Raw clips have their planes as the format says; Y4M has three planes and bare codes,
and its header tells range and siting. Frames with odd sides have their chroma rounded up.

One pass makes exact codes: white is 235 of 8 bits. Two passes make nv12, p010 and p016 of RGB and of
Y4M in C444 and Cmono, divide by 2^bits (white is 234), each chroma sample the mean of 2 x 2.

Examples:
  norvexdx encode a.png b.png c.png -o clip.y4m --format nv12 --fps 2 --size 1920x1080
  norvexdx encode hdr.png -o hdr.y4m --format p010 --from rec2020-pq --to rec2020-hlg
  ffmpeg -i hdr.mkv -f yuv4mpegpipe -strict -1 - | norvexdx encode - --from rec2020-pq --to rec709
    --format yuv420p --container y4m -o - | ffmpeg -i - -c:v libx264 sdr.mp4
  ffmpeg -i in.mp4 -f rawvideo -pix_fmt rgba - | norvexdx encode - --size 1920x1080 --format nv12
    -o - | ffmpeg -f rawvideo -pix_fmt nv12 -s 1920x1080 -r 25 -i - out.mp4)";

constexpr const char* kViewNotes = R"(

A clip plays at its rate: a frame that is late is passed over, and counted in the statistics. At the
end the last one stays. Standard input is a Y4M stream, or raw frames with --input-size; in a stream
there is no way back. A frame looks as `convert --frame` makes it with the same options.

Examples:
  norvexdx view photo.jpg hdr.png
  norvexdx view clip.y4m --at 250 --loop
  ffmpeg -i hdr.mkv -f yuv4mpegpipe -strict -1 - | norvexdx view - --from rec2020-pq)";

constexpr const char* kScalers = "bilinear, catmull-rom, mitchell, lanczos or area";

template <class Value>
using Parser = std::optional<Value> (*)(std::string_view);

// Adds an option whose text becomes a value; `expected` completes "... is not".
template <class Target, class Value>
CLI::Option* AddValue(CLI::App& app, const std::string& name, Target& target, Parser<Value> parse,
                      const std::string& expected, const std::string& type,
                      const std::string& help) {
    const auto set = [&target, name, parse, expected](const std::string& text) {
        const std::optional<Value> parsed = parse(text);
        if (!parsed) {
            throw CLI::ValidationError(name, "\"" + text + "\" is not " + expected);
        }
        const Value& value = *parsed;
        target = value;
    };
    return app.add_option_function<std::string>(name, set, help)->type_name(type);
}

std::optional<float> ParseDegrees(std::string_view text) {
    const auto value = ParseNumber(text);
    constexpr double kMaxDegrees = 360000.0; // beyond, single precision no longer holds the angle
    return value && std::abs(*value) <= kMaxDegrees ? std::optional(static_cast<float>(*value))
                                                    : std::nullopt;
}

// A count that stays small enough to compute with.
std::optional<unsigned> ParseCount(std::string_view text) {
    constexpr unsigned kMaxCount = 1024;
    const auto value = ParseIndex(text);
    return value && *value <= kMaxCount ? value : std::nullopt;
}

std::optional<unsigned> ParsePositiveCount(std::string_view text) {
    const auto value = ParseCount(text);
    return value && *value > 0 ? value : std::nullopt;
}

std::optional<unsigned> ParseSeconds(std::string_view text) {
    constexpr unsigned kMaxSeconds = 600;
    const auto value = ParseIndex(text);
    return value && *value <= kMaxSeconds ? value : std::nullopt;
}

std::optional<unsigned> ParseFrames(std::string_view text) {
    constexpr unsigned kMaxFrames = 1000000;
    const auto value = ParseIndex(text);
    return value && *value > 0 && *value <= kMaxFrames ? value : std::nullopt;
}

template <class Options>
void AddDeviceOptions(CLI::App& app, Options& options) {
    AddValue(app, "--api", options.graphics.api, &ParseApi, "auto, d3d11 or d3d12", "API",
             "what to draw with: d3d11, d3d12, or auto, the newest that there is (auto)");
    AddValue(app, "--adapter", options.graphics.adapter, &ParseIndex, "an adapter's number", "N",
             "the adapter to draw on, as numbered by `norvexdx info` (0)");
}

template <class Options>
void AddJsonFlag(CLI::App& app, Options& options) {
    app.add_flag("--json", options.json, "print a report as JSON");
}

CLI::Option* AddSourcePeak(CLI::App& app, std::optional<SourcePeak>& target,
                           const std::string& ofWhat) {
    return AddValue(app, "--source-peak", target, &ParseSourcePeak,
                    "a luminance from 1 to 10000 cd/m2, or measured", "NITS",
                    "peak of the display that a PQ input was mastered on, or measured: the "
                    "brightest channel " +
                        ofWhat + " (1000)");
}

void AddColorOptions(CLI::App& app, ConvertOptions& options) {
    constexpr const char* kGroup = "Colour";
    const std::string spaces = "a colour space (" + GetColorSpaceNames() + ")";
    const auto add = [&](CLI::Option* option) { option->group(kGroup); };
    add(AddValue(app, "--from", options.from, &ParseColorSpace, spaces, "SPACE",
                 "the colour space of the input"));
    add(AddValue(app, "--to", options.to, &ParseColorSpace, spaces, "SPACE",
                 "the colour space of the output"));
    add(AddValue(app, "--mode", options.mode, &ParseMode, "scene, hdr or display", "MODE",
                 "the light to convert in: scene, or that of an hdr or other display "
                 "(hdr for rec2020-pq and rec2020-hlg targets, else display)"));
    const std::string nits = "a luminance from 1 to 10000 cd/m2";
    add(AddSourcePeak(app, options.sourcePeak, "of each picture"));
    add(AddValue(app, "--target-peak", options.targetPeak, &ParseNits, nits, "NITS",
                 "peak of the display that the output, or an HLG input, is for (1000)"));
    add(AddValue(app, "--reference-white", options.referenceWhite, &ParseNits, nits, "NITS",
                 "luminance of SDR white in PQ and HLG (203)"));
    add(AddValue(app, "--linear-scale", options.linearScale, &ParsePositive,
                 "a number greater than 0", "F", "factor on linear light (1)"));
    add(AddValue(app, "--raw-params", options.raw, &ParseRawParams,
                 "five numbers TONEMAPA,TONEMAPB,PEAK,GAMMA,SCALE, peak and gamma greater than 0",
                 "A,B,PEAK,GAMMA,SCALE",
                 "what the shader gets instead of what follows from the options above"));
    const std::string alphas = "straight, one or premultiplied";
    add(AddValue(app, "--source-alpha", options.sourceAlpha, &ParseAlphaType, alphas, "ALPHA",
                 "the input's alpha: straight, one (ignored) or premultiplied (straight)"));
    add(AddValue(app, "--target-alpha", options.targetAlpha, &ParseAlphaType, alphas, "ALPHA",
                 "the output's alpha; one: over black, opaque (straight)"));
}

void AddGeometryOptions(CLI::App& app, ConvertOptions& options) {
    constexpr const char* kGroup = "Geometry";
    const auto add = [&](CLI::Option* option) { option->group(kGroup); };
    add(AddValue(app, "--size", options.size, &ParseSize, "WIDTHxHEIGHT from 1 to 16384", "WxH",
                 "size of the output (the input's)"));
    add(AddValue(app, "--fit", options.fit, &ParseFitMode, "free, fill or fit", "MODE",
                 "fit: the whole picture inside; fill: covers all; free: as --scale says (fit)"));
    add(AddValue(app, "--scale", options.scale, &ParsePositive, "a number greater than 0", "F",
                 "output pixels per input pixel; makes --fit free"));
    add(AddValue(app, "--rotate", options.rotationDegrees, &ParseDegrees, "an angle in degrees",
                 "DEGREES", "counter-clockwise, about the picture's centre"));
    add(AddValue(app, "--translate", options.translation, &ParsePoint, "X,Y in pixels", "X,Y",
                 "pixels to the right and down, after the rotation"));
    add(AddValue(app, "--rect", options.rect, &ParseRect,
                 "LEFT,TOP,RIGHT,BOTTOM in pixels, right and bottom beyond left and top", "L,T,R,B",
                 "the part of the output to draw into (all of it)"));
}

void AddColorStages(CLI::App& app, ColorStageOptions& options) {
    const auto add = [&](CLI::Option* option) { option->group("Colour"); };
    add(AddValue(app, "--tone-map", options.toneMap, &ParseToneCurve,
                 "rational, bt2390 or bt2390-per-channel", "CURVE",
                 "how PQ brighter than the output is made darker: rational, bt2390 (ITU-R BT.2390, "
                 "of the largest channel) or bt2390-per-channel (rational)"));
    add(AddValue(app, "--gamut", options.gamut, &ParseGamutReduction, "clip or soft", "KIND",
                 "what becomes of BT.2020's colours that BT.709 lacks: clip, or soft, which keeps "
                 "their hue (clip)"));
    const std::string nits = "a luminance from 0 to 10 cd/m2";
    add(AddValue(app, "--source-black", options.sourceBlack, &ParseBlack, nits, "NITS",
                 "black of the display that a PQ input was mastered on, for bt2390 (0)"));
    add(AddValue(app, "--target-black", options.targetBlack, &ParseBlack, nits, "NITS",
                 "black of the display that the output is for, for bt2390 (0)"));
    add(app.add_option("--lut", options.lut,
                       "a look-up table (.cube, 1D or 3D) that the output's colours go through")
            ->type_name("FILE"));
}

// What is said of clips that are read.
void AddClipInput(CLI::App& app, ClipInput& input) {
    AddValue(app, "--input-format", input.format, &ParseRawFormat,
             "a format of raw frames (rgba, rgba64le, " + GetVideoFormatNames() + ")", "FORMAT",
             "the input is raw frames of this format (rgba)");
    AddValue(app, "--input-size", input.size, &ParseSize, "WIDTHxHEIGHT from 1 to 16384", "WxH",
             "size of raw frames (in encode that of --size)");
    AddValue(app, "--input-matrix", input.matrix, &ParseMatrix, "bt601, bt709 or bt2020", "MATRIX",
             "of frames in Y'C'bC'r (that of --from, else --matrix)");
    AddValue(app, "--input-range", input.range, &ParseRange, "narrow or full", "RANGE",
             "of frames in Y'C'bC'r (what the input says, else narrow)");
    AddValue(app, "--input-siting", input.siting, &ParseSiting, "left, centre or top-left", "PLACE",
             "of chroma samples (what the input says, else left)");
}

void AddRate(CLI::App& app, std::optional<FrameRate>& rate, const std::string& use) {
    AddValue(app, "--fps", rate, &ParseFrameRate, "a frame rate such as 25, 30000/1001 or 29.97",
             "R", "frames per second, " + use);
}

void AddConvert(CLI::App& parent, ConvertOptions& options) {
    CLI::App& app = *parent.add_subcommand("convert", "convert pictures: colours, alpha, geometry");
    app.add_option("files", options.files,
                   "inputs (JPEG, PNG, TIFF, a frame of a clip), then the output (PNG) or a folder")
        ->required()
        ->expected(1, -1) // that it takes two is said in clearer words
        ->type_name("IN... OUT");
    AddColorOptions(app, options);
    AddColorStages(app, options.stages);
    AddGeometryOptions(app, options);
    AddValue(app, "--background", options.background, &ParseColor,
             "a colour RRGGBBAA or RRGGBB in hexadecimal", "RRGGBBAA",
             "what the picture is drawn over, in the output's colour space");
    AddValue(app, "--depth", options.depth, &ParseDepth, "8 or 16", "BITS",
             "bits a channel of the output (the input's)");
    AddValue(app, "--dither", options.dither, &ParseDither, "none, ordered or blue-noise", "KIND",
             "how 8 bits are rounded: none, ordered or blue-noise (none)");
    AddValue(app, "--scaler", options.scaler, &ParseScaler, kScalers, "KERNEL",
             "for pictures that change their size, before they are placed: " +
                 std::string(kScalers) + " (as the drawing does it, bilinear)");
    AddValue(app, "--frame", options.frame, &ParseFrames, "a number from 1 to 1000000", "N",
             "the frame of a clip, Y4M or raw, counted from 1 (1)");
    AddClipInput(app, options.input);
    AddDeviceOptions(app, options);
    AddJsonFlag(app, options);
    app.footer(kConvertNotes);
}

void AddFill(CLI::App& parent, FillOptions& options) {
    CLI::App& app = *parent.add_subcommand("fill", "draw a rectangle of one colour");
    app.add_option("output", options.output, "the picture to write")->required()->type_name("OUT");
    const std::string color = "a colour RRGGBBAA or RRGGBB in hexadecimal";
    AddValue(app, "--color", options.color, &ParseColor, color, "RRGGBBAA", "the colour")
        ->required();
    AddValue(app, "--size", options.size, &ParseSize, "WIDTHxHEIGHT from 1 to 16384", "WxH",
             "size of the output")
        ->required();
    AddValue(app, "--rect", options.rect, &ParseRect,
             "LEFT,TOP,RIGHT,BOTTOM in pixels, right and bottom beyond left and top", "L,T,R,B",
             "the part to fill (all of it)");
    AddValue(app, "--background", options.background, &ParseColor, color, "RRGGBBAA",
             "the colour of the rest (transparent black)");
    AddValue(app, "--depth", options.depth, &ParseDepth, "8 or 16", "BITS", "bits a channel (8)");
    AddDeviceOptions(app, options);
    AddJsonFlag(app, options);
    app.footer(
        "\nExample:\n  norvexdx fill box.png --size 640x480 --color FF8000FF --rect 20,20,200,100");
}

void AddSheet(CLI::App& parent, SheetOptions& options) {
    CLI::App& app =
        *parent.add_subcommand("sheet", "draw many pictures into one, as a contact sheet");
    app.add_option("output", options.output, "the picture to write")->required()->type_name("OUT");
    app.add_option("inputs", options.inputs, "the pictures, from left to right")
        ->required()
        ->type_name("IN...");
    AddValue(app, "--columns", options.columns, &ParsePositiveCount, "a number from 1 to 1024", "N",
             "pictures in a row (as square as possible)");
    AddValue(app, "--cell", options.cell, &ParseSize, "WIDTHxHEIGHT from 1 to 16384", "WxH",
             "mean place of a picture in a row that pictures of this shape fill (320x240)");
    AddValue(app, "--gap", options.gap, &ParseCount, "a number from 0 to 1024", "PIXELS",
             "space between and around the pictures (8)");
    AddValue(app, "--background", options.background, &ParseColor, "a colour RRGGBB in hexadecimal",
             "RRGGBB", "the colour between them (202020)");
    AddDeviceOptions(app, options);
    AddJsonFlag(app, options);
    app.footer(
        "\nEach row is as high as lets its pictures fill the width in their own shapes; below each"
        "\nstands its file's name. Pictures that say in their file that they are PQ or HLG, or that"
        "\nhave an ICC profile, are converted to sRGB."
        "\n\nExample:\n  norvexdx sheet sheet.png photo.jpg hdr.png hlg.png --columns 3");
}

void AddView(CLI::App& parent, ViewOptions& options) {
    CLI::App& app = *parent.add_subcommand("view", "show pictures and clips in a window");
    app.add_option("files", options.files,
                   "pictures and clips (Y4M, raw), in the order of the keys; - for standard input")
        ->required()
        ->type_name("FILE...");
    AddValue(app, "--from", options.from, &ParseColorSpace,
             "a colour space (" + GetColorSpaceNames() + ")", "SPACE",
             "the colour space of the pictures and clips (what each file says, else srgb)");
    AddClipInput(app, options.clips.input);
    AddRate(app, options.clips.rate, "of clips (what the file says, else 25)");
    AddValue(app, "--at", options.clips.first, &ParseFrames, "a number from 1 to 1000000", "N",
             "the frame that clips begin with, counted from 1 (1)");
    app.add_flag("--loop", options.clips.isLoop, "clips in files begin again after their end");
    AddValue(app, "--hdr", options.hdr, &ParseHDRChoice, "auto, on or off", "CHOICE",
             "auto: where the display is in HDR; on: and tell where it is not; off (auto)");
    app.add_flag("--fullscreen", options.isFullScreen, "begin in full screen");
    app.add_flag("--stats", options.showsStatistics, "begin with statistics shown");
    AddValue(app, "--size", options.size, &ParseSize, "WIDTHxHEIGHT from 1 to 16384", "WxH",
             "size of the window's inside (the first picture's, as far as it fits)");
    AddValue(app, "--frames", options.frames, &ParseFrames, "a number from 1 to 1000000", "N",
             "draw so many frames as fast as they can be shown, of a clip one after another, "
             "print statistics, and end");
    app.add_option("--screenshot", options.screenshot,
                   "with --frames: save the last one as PNG, 16 bits PQ when it is in HDR")
        ->type_name("FILE");
    AddDeviceOptions(app, options);
    app.add_flag("--json", options.json, "print the statistics as JSON in the end");
    app.footer("\nKeys and mouse:\n" + GetViewerHelp() + kViewNotes);
}

void AddEncode(CLI::App& parent, EncodeOptions& options) {
    CLI::App& app = *parent.add_subcommand("encode", "make a clip: frames in Y'CbCr");
    app.add_option("inputs", options.inputs, "pictures, a Y4M file, or - for standard input")
        ->required()
        ->type_name("IN");
    app.add_option("-o,--output", options.output, "the clip, or - for standard output")
        ->required()
        ->type_name("OUT");
    AddValue(app, "--format", options.format, &ParseVideoFormat,
             "a format of frames (" + GetVideoFormatNames() + ")", "FORMAT",
             "of the frames, a name as ffmpeg has it: nv12, p010, yuv420p, yuv422p10 ...")
        ->required();
    AddValue(app, "--matrix", options.matrix, &ParseMatrix, "bt601, bt709 or bt2020", "MATRIX",
             "from R'G'B' to Y'C'bC'r (bt2020 where --to, or without it the first picture, has "
             "BT.2020 primaries, else bt709)");
    const std::string spaces = "a colour space (" + GetColorSpaceNames() + ")";
    AddValue(app, "--from", options.from, &ParseColorSpace, spaces, "SPACE",
             "the colour space of the input");
    AddValue(app, "--to", options.to, &ParseColorSpace, spaces, "SPACE",
             "the colour space of the clip, converted to as by convert");
    const std::string nits = "a luminance from 1 to 10000 cd/m2";
    AddSourcePeak(app, options.sourcePeak, "of all frames, which are read twice");
    AddValue(app, "--target-peak", options.targetPeak, &ParseNits, nits, "NITS",
             "peak of the display that the clip, or an HLG input, is for (1000)");
    AddValue(app, "--reference-white", options.referenceWhite, &ParseNits, nits, "NITS",
             "luminance of SDR white in PQ and HLG (203)");
    AddColorStages(app, options.stages);
    AddValue(app, "--size", options.size, &ParseSize, "WIDTHxHEIGHT from 1 to 16384", "WxH",
             "size of the frames (the input's); of raw frames it must be said");
    AddValue(app, "--input-depth", options.inputDepth, &ParseDepth, "8 or 16", "BITS",
             "bits a channel of raw frames, 16 little endian (8)");
    AddClipInput(app, options.input);
    AddValue(app, "--converter", options.converter, &ParseConverter, "one-pass or two-pass", "KIND",
             "one-pass or two-pass (one-pass)");
    AddValue(app, "--range", options.range, &ParseRange, "narrow or full", "RANGE",
             "of codes: narrow (16 to 235) or full (narrow)");
    AddValue(app, "--siting", options.siting, &ParseSiting, "left, centre or top-left", "PLACE",
             "where chroma samples lie: left (H.264, H.265), centre or top-left (left)");
    AddValue(app, "--dither", options.dither, &ParseDither, "none, ordered or blue-noise", "KIND",
             "none, ordered or blue-noise (none)");
    AddValue(app, "--scaler", options.scaler, &ParseScaler, kScalers, "KERNEL",
             "for frames of another size: " + std::string(kScalers) + " (bilinear)");
    AddRate(app, options.rate, "for Y4M's header (the input's, else 25)");
    AddValue(app, "--container", options.container, &ParseContainer, "raw or y4m", "KIND",
             "raw or y4m (y4m when OUT ends in .y4m, else raw)");
    AddDeviceOptions(app, options);
    app.add_flag("--progress", options.progress, "show progress, also when not on a terminal");
    app.add_flag("--stats", options.stats, "print a line of totals in the end");
    AddJsonFlag(app, options);
    app.footer(kEncodeNotes);
}

void AddDoctor(CLI::App& parent, DoctorOptions& options) {
    CLI::App& app = *parent.add_subcommand("doctor", "examine this system, for a bug report");
    AddValue(app, "--stress", options.stressSeconds, &ParseSeconds, "a number from 0 to 600",
             "SECONDS", "how long to draw on several threads, with each generation (1)");
    app.add_flag("--details", options.details, "tell everything, not a screenful");
    AddDeviceOptions(app, options);
    AddJsonFlag(app, options);
    app.footer(
        "\nWith --api auto both generations are examined, as far as the adapter has them."
        "\nEach conversion of colours is compared with a computation in double precision."
        "\n\nExit code: 0 when all checks are right, whatever is missing; 1 when one is not.");
}

// What the parser answers to --help, --version and errors.
ShowText GetShownText(const CLI::App& app, const CLI::ParseError& error) {
    std::ostringstream out;
    std::ostringstream err;
    app.exit(error, out, err);
    return {out.str()};
}

std::string MakeUsageLine(const CLI::App& app, const std::string& problem) {
    std::string line = problem;
    std::replace(line.begin(), line.end(), '\n', ' ');
    const auto commands = app.get_subcommands();
    const std::string command = commands.empty() ? "" : " " + commands.front()->get_name();
    return line + " (see norvexdx" + command + " --help)";
}

// The parser itself would only miss a command.
void CheckCommand(const CLI::App& app, const std::vector<std::string>& arguments) {
    if (arguments.empty() || arguments.front().starts_with('-')) {
        return;
    }
    const auto isNamed = [&](const CLI::App* command) {
        return command->check_name(arguments.front());
    };
    if (app.get_subcommands(isNamed).empty()) {
        throw Failure("there is no command \"" + arguments.front() + "\" (see norvexdx --help)",
                      ExitCode::WrongUsage);
    }
}

} // namespace

CommandLine ParseCommandLine(std::vector<std::string> arguments) {
    CLI::App app(
        "Shows and converts pictures with Direct3D 12 or 11: colour spaces, alpha types, geometry.",
        "norvexdx");
    // Options begin with '-' only: a path may begin with '/'.
    app.allow_windows_style_options(false);
    app.require_subcommand(1);
    app.set_version_flag("--version", "norvexdx " NORVEXDX_VERSION);
    CommandLine result;
    app.add_flag("--verbose", result.isVerbose, "show the library's log");
    app.fallthrough(); // --verbose may stand behind the command
    app.footer("\nExamples:\n  norvexdx info\n"
               "  norvexdx convert photo.jpg hdr.png --from srgb --to rec2020-pq --depth 16\n"
               "  norvexdx convert --help");

    InfoOptions info;
    ConvertOptions convert;
    FillOptions fill;
    SheetOptions sheet;
    ViewOptions view;
    EncodeOptions encode;
    DoctorOptions doctor;
    CLI::App& infoApp = *app.add_subcommand("info", "tell adapters, outputs, devices and formats");
    AddJsonFlag(infoApp, info);
    AddConvert(app, convert);
    AddFill(app, fill);
    AddSheet(app, sheet);
    AddView(app, view);
    AddEncode(app, encode);
    AddDoctor(app, doctor);

    CheckCommand(app, arguments);
    try {
        std::reverse(arguments.begin(), arguments.end()); // as the parser wants them
        app.parse(std::move(arguments));
    } catch (const CLI::Success& success) {
        result.command = GetShownText(app, success);
        return result;
    } catch (const CLI::ParseError& error) {
        throw Failure(MakeUsageLine(app, error.what()), ExitCode::WrongUsage);
    }
    if (app.got_subcommand("convert")) {
        if (convert.files.size() < 2) {
            throw Failure(MakeUsageLine(app, "convert needs an input and an output"),
                          ExitCode::WrongUsage);
        }
        const std::string output = std::move(convert.files.back());
        convert.files.pop_back();
        convert.files = ExpandFileNames(convert.files);
        convert.files.push_back(output);
        result.command = std::move(convert);
    } else if (app.got_subcommand("fill")) {
        result.command = std::move(fill);
    } else if (app.got_subcommand("sheet")) {
        sheet.inputs = ExpandFileNames(sheet.inputs);
        result.command = std::move(sheet);
    } else if (app.got_subcommand("view")) {
        view.files = ExpandFileNames(view.files);
        result.command = std::move(view);
    } else if (app.got_subcommand("encode")) {
        encode.inputs = ExpandFileNames(encode.inputs);
        result.command = std::move(encode);
    } else if (app.got_subcommand("doctor")) {
        result.command = doctor;
    } else {
        result.command = info;
    }
    return result;
}

} // namespace Norvex::App
