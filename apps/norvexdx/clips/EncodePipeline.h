#pragma once

// The way of the frames: read on one thread, converted on the caller's, written on a third, with a
// few frames between them, so that memory does not grow with the length of the clip.

#include <memory>

#include "apps/norvexdx/clips/EncodeMonitor.h"
#include "apps/norvexdx/clips/FrameSink.h"
#include "apps/norvexdx/clips/FrameSource.h"
#include "apps/norvexdx/console/Progress.h"
#include "apps/norvexdx/graphics/FrameEncoder.h"

namespace Norvex::App {

// Returns when all frames are written (the sink is not committed). Throws the first failure of any
// stage, after which the others have stopped; only the source may still be in a read, which is why
// it is shared.
EncodeTotals RunPipeline(const std::shared_ptr<FrameSource>& source, FrameEncoder& encoder,
                         FrameSink& sink, Progress& progress);

} // namespace Norvex::App
