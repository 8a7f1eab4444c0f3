#pragma once

// Reads a clip a few frames ahead, on a thread of its own, so that who shows it never waits for a
// disk or a pipe. Called on one thread. Throws only for lack of memory or threads: what fails ends
// the clip, and is told by TakeFailure.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "apps/norvexdx/clips/FrameSource.h"

namespace Norvex::App {

class ClipReader {
public:
    // Frames in memory that were not taken, at most.
    static constexpr std::size_t kAhead = 3;

    // Begins with the frame that the source gives next, which is number `first`. onChange: called
    // on the thread that reads, when a frame is there after none was, and at the end.
    ClipReader(std::unique_ptr<FrameSource> source, std::uint64_t first,
               std::function<void()> onChange);
    // A thread that waits for a pipe cannot be called off, and is left alone; others are waited
    // for.
    ~ClipReader();
    ClipReader(const ClipReader&) = delete;
    ClipReader& operator=(const ClipReader&) = delete;

    bool CanSeek() const { return m_canSeek; }
    // The number of the frame that is taken next; nothing while it is being read, and at the end.
    std::optional<std::uint64_t> GetNext() const;
    // Takes it, and its number, once it is there. The frame's memory is used again.
    std::uint64_t Take(ClipFrame& frame);
    // All frames were taken.
    bool IsAtEnd() const;
    // Returns when GetNext answers a frame, or at the end.
    void Wait() const;
    // What is taken next is this frame, or the last one before it. Only where CanSeek says so.
    void Seek(std::uint64_t frame);
    // Frames before this one are of no use any more: where it can, it passes over them.
    void SkipTo(std::uint64_t frame);
    // Why the clip ends before its end, once; empty: nothing failed.
    std::string TakeFailure();

private:
    struct Shared;

    static void Read(Shared& shared);

    bool m_canSeek;
    std::shared_ptr<Shared> m_shared; // with the thread
    std::thread m_thread;
};

} // namespace Norvex::App
