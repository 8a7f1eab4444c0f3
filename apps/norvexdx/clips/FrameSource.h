#pragma once

// Where the frames of a clip come from: raw frames, a Y4M stream, or pictures. One thread at a
// time. Throws Failure.

#include <memory>
#include <optional>

#include "apps/norvexdx/clips/ClipFrame.h"
#include "apps/norvexdx/commands/EncodePlan.h"
#include "apps/norvexdx/pictures/ByteStream.h"

namespace Norvex::App {

class FrameSource {
public:
    virtual ~FrameSource() = default;
    FrameSource(const FrameSource&) = delete;
    FrameSource& operator=(const FrameSource&) = delete;

    // The next frame, into memory that is used again; false at the end. Failure when the input ends
    // in the middle of a frame.
    virtual bool Read(ClipFrame& frame) = 0;

    // Whether Seek works: with files, not with pipes.
    virtual bool CanSeek() const { return false; }
    // The next Read gives this frame, counted from 0, or the last whole one where there are fewer.
    // Answers which. Failure when there is none.
    virtual std::uint64_t Seek(std::uint64_t frame);

    // Of the first frame.
    const DX::Size2DT<long>& GetSize() const { return m_size; }
    // How many frames there will be, where that is known.
    const std::optional<std::uint64_t>& GetCount() const { return m_count; }
    // What the input says of itself.
    const std::optional<FrameRate>& GetRate() const { return m_rate; }
    const std::string& GetPixelAspect() const { return m_pixelAspect; }
    const std::optional<Conf::RGBColorSpace>& GetColorSpace() const { return m_colorSpace; }

protected:
    FrameSource() = default;

    DX::Size2DT<long> m_size;
    std::optional<std::uint64_t> m_count;
    std::optional<FrameRate> m_rate;
    std::string m_pixelAspect = "0:0"; // as in Y4mHeader
    std::optional<Conf::RGBColorSpace> m_colorSpace;
};

// As the plan says. Failures: no such file, not a picture, not a Y4M stream that is taken, raw
// frames of unknown size.
std::unique_ptr<FrameSource> OpenFrameSource(const EncodePlan& plan);
// Whether the file is one in Y4M, by its name or its beginning.
bool IsY4m(const std::string& file);
// A clip whose frames are looked at: a Y4M file, raw frames, or kStandardStream, as the user says
// it is. Failures: as OpenFrameSource's.
bool IsClip(const std::string& file, const ClipInput& input);
std::unique_ptr<FrameSource> OpenClip(const std::string& file, const ClipInput& input,
                                      const std::optional<Conf::RGBColorSpace>& from);
// Raw frames, or the Y4M stream that it turns out to be.
std::unique_ptr<FrameSource> MakeStreamSource(std::unique_ptr<ByteStream> stream,
                                              const EncodePlan& plan);

} // namespace Norvex::App
