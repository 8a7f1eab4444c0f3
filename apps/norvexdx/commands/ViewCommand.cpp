#include "apps/norvexdx/commands/ViewCommand.h"

#include <algorithm>

#include "apps/norvexdx/commands/EncodePlan.h"
#include "apps/norvexdx/console/Arguments.h"
#include "apps/norvexdx/console/Console.h"
#include "apps/norvexdx/pictures/ImageFile.h"
#include "apps/norvexdx/pictures/InputFile.h"
#include "apps/norvexdx/pictures/OutputFile.h"
#include "apps/norvexdx/viewer/Screenshot.h"
#include "apps/norvexdx/viewer/ViewSession.h"

namespace Norvex::App {

namespace {

void Check(const ViewOptions& options) {
    const bool readsStandardInput = std::ranges::count(options.files, kStandardStream) != 0;
    if (readsStandardInput && options.files.size() > 1) {
        throw Failure("standard input (-) goes alone", ExitCode::WrongUsage);
    }
    if (options.clips.input.format && !options.clips.input.size) {
        throw Failure("raw frames need --input-size", ExitCode::WrongUsage);
    }
    if (options.from && options.from->transfer == Conf::TransferCharacteristics::Linear) {
        throw Failure(GetColorSpaceName(*options.from) + " cannot be converted from",
                      ExitCode::WrongUsage);
    }
    if (!options.screenshot.empty()) {
        if (!options.frames) {
            throw Failure("--screenshot goes with --frames", ExitCode::WrongUsage);
        }
        CheckOutputPlace(PathFromUtf8(options.screenshot));
    }
}

void SaveScreenshot(const ScreenPixels& pixels, const std::string& file) {
    if (pixels.bytes.empty()) {
        throw Failure("the window was closed or minimised before its last frame");
    }
    WriteImage(PathFromUtf8(file), MakeScreenshot(pixels));
}

void RunUnattended(ViewSession& session, const ViewOptions& options) {
    const bool isSaved = !options.screenshot.empty();
    ScreenPixels pixels;
    session.RunFrames(*options.frames, isSaved ? &pixels : nullptr);
    if (isSaved) {
        SaveScreenshot(pixels, options.screenshot);
    }
}

} // namespace

ExitCode RunView(const ViewOptions& options) {
    Check(options);
    ViewSession session(options);
    if (!session.Open()) {
        return ExitCode::Failure;
    }
    if (options.frames) {
        RunUnattended(session, options);
    } else {
        session.Run();
    }
    if (options.json) {
        Console::Print(session.MakeJson());
    } else if (options.frames) {
        Console::Print(session.MakeText());
    }
    return ExitCode::Success;
}

} // namespace Norvex::App
