#pragma once

// Where the frames of a clip go: a file, whole or not at all, or standard output. One thread at a
// time. Throws Failure.

#include <memory>
#include <span>
#include <vector>

#include "apps/norvexdx/clips/VideoFormat.h"
#include "apps/norvexdx/clips/Y4m.h"
#include "apps/norvexdx/commands/EncodePlan.h"

namespace Norvex::App {

class ByteSink {
public:
    virtual ~ByteSink() = default;
    ByteSink(const ByteSink&) = delete;
    ByteSink& operator=(const ByteSink&) = delete;

    virtual void Write(const void* data, std::size_t sizeInBytes) = 0;
    // All is written: the file gets its name.
    virtual void Commit() = 0;

protected:
    ByteSink() = default;
};

// kStandardStream, or a file's name. Failures: those of OutputFile; a terminal.
std::unique_ptr<ByteSink> OpenByteSink(const std::string& output);

class FrameSink {
public:
    // Writes the header, where the container has one.
    FrameSink(std::unique_ptr<ByteSink> sink, Container container, const VideoFormat& format,
              Y4mHeader header, bool hasExactCodes);

    // The planes of one frame, one behind the other; changed on the way. Samples are codes, or near
    // those.
    void Write(std::vector<std::uint8_t>& planes);
    void Commit() { m_sink->Commit(); }

private:
    std::unique_ptr<ByteSink> m_sink;
    Container m_container;
    VideoFormat m_format;
    Y4mHeader m_header;
    bool m_hasExactCodes;
    std::vector<std::uint8_t> m_planar;
};

} // namespace Norvex::App
