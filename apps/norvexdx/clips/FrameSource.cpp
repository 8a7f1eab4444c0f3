#include "apps/norvexdx/clips/FrameSource.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include <fmt/format.h>

#include "Host/Strings.h"
#include "apps/norvexdx/clips/Y4m.h"
#include "apps/norvexdx/console/Arguments.h"
#include "apps/norvexdx/console/Console.h"
#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/pictures/ImageFile.h"
#include "apps/norvexdx/pictures/InputFile.h"

namespace Norvex::App {

namespace {

constexpr std::size_t kMaxY4mLine = 1024; // bytes

[[noreturn]] void ThrowCutShort(const ByteStream& stream, std::uint64_t frame, std::size_t missing,
                                std::size_t size) {
    throw Failure(fmt::format("{} ends in the middle of frame {}: {} of its {} bytes are missing",
                              stream.GetName(), frame, missing, size));
}

[[noreturn]] void ThrowNoFrames(const ByteStream& stream) {
    throw Failure(stream.GetName() + " has no whole frame");
}

class RawSource : public FrameSource {
public:
    // Without a description the frames are RGBA of so many bits a channel.
    RawSource(std::unique_ptr<ByteStream> stream, const DX::Size2DT<long>& size, unsigned depth,
              const std::optional<DX::D3FrameDesc>& desc)
        : m_stream(std::move(stream)),
          m_depth(depth),
          m_desc(desc) {
        m_size = size;
        if (const auto total = m_stream->GetSize()) {
            m_count = *total / CountFrameBytes();
        }
    }

    bool Read(ClipFrame& frame) override {
        if (m_desc) {
            frame.SetPlanes(*m_desc);
        } else {
            frame.SetSize(m_size, m_depth);
        }
        const std::size_t size = frame.pixels.size();
        const std::size_t count = m_stream->Read(frame.pixels.data(), size);
        ++m_number;
        if (count != 0 && count != size) {
            ThrowCutShort(*m_stream, m_number, size - count, size);
        }
        return count != 0;
    }

    bool CanSeek() const override { return m_stream->GetSize().has_value(); }

    std::uint64_t Seek(std::uint64_t frame) override {
        const std::uint64_t count = m_stream->GetSize().value_or(0) / CountFrameBytes();
        if (count == 0) {
            ThrowNoFrames(*m_stream);
        }
        m_number = std::min(frame, count - 1);
        m_stream->Seek(m_number * CountFrameBytes());
        return m_number;
    }

private:
    std::size_t CountFrameBytes() const {
        return m_desc
                   ? GetFrameBytes(*m_desc)
                   : static_cast<std::size_t>(m_size.width) *
                         static_cast<std::size_t>(m_size.height) * Image::kChannels * m_depth / 8;
    }

    std::unique_ptr<ByteStream> m_stream;
    unsigned m_depth;
    std::optional<DX::D3FrameDesc> m_desc;
    std::uint64_t m_number = 0; // of frames begun
};

// What both kinds have in common: the header, and the line before each frame.
class Y4mSource : public FrameSource {
public:
    bool Read(ClipFrame& frame) override {
        if (m_number == m_begins.size() && CanSeek()) {
            m_begins.push_back(m_stream->GetPosition());
        }
        const auto line = m_stream->ReadLine(kMaxY4mLine);
        if (!line) {
            return false;
        }
        ++m_number;
        if (!line->starts_with(kY4mFrame)) {
            throw Failure(fmt::format("{}: frame {} does not begin with {}", m_stream->GetName(),
                                      m_number, kY4mFrame));
        }
        ReadSamples(frame);
        return true;
    }

    bool CanSeek() const override { return m_stream->GetSize().has_value(); }

    // The lines before frames may have parameters. Where a frame begins is known once those before
    // it were passed; else it is tried where it would be without.
    std::uint64_t Seek(std::uint64_t frame) override {
        frame = std::min(frame, std::max<std::uint64_t>(m_count.value_or(0), 1) - 1);
        const std::uint64_t last = m_begins.size() - 1;
        if (frame > last) {
            const std::uint64_t begin = m_begins.back() + (frame - last) * CountLeastBytes();
            if (FindEnd(begin)) {
                return GoTo(frame, begin);
            }
        }
        frame = Pass(std::min(frame, last), frame);
        return GoTo(frame, m_begins[frame]);
    }

protected:
    explicit Y4mSource(std::unique_ptr<ByteStream> stream) : m_stream(std::move(stream)) {
        const std::string line = m_stream->ReadLine(kMaxY4mLine).value_or("");
        Examine([&] { m_header = ParseY4mHeader(line); });
        m_headerBytes = line.size();
        m_begins = {m_stream->GetPosition()};
        m_size = m_header.size;
        m_rate = m_header.rate;
        m_pixelAspect = m_header.aspect;
    }

    const Y4mHeader& GetHeader() const { return m_header; }

    // Gives failures the file's name.
    template <class Function>
    void Examine(const Function& function) const {
        try {
            function();
        } catch (const Failure& failure) {
            throw Failure(m_stream->GetName() + ": " + failure.what());
        }
    }

    void Count(std::size_t frameBytes) {
        m_frameBytes = frameBytes;
        if (const auto total = m_stream->GetSize()) {
            m_count = (*total - m_headerBytes) / CountLeastBytes();
        }
    }

    void Fill(std::uint8_t* samples, std::size_t size) {
        const std::size_t count = m_stream->Read(samples, size);
        if (count != size) {
            ThrowCutShort(*m_stream, m_number, size - count, size);
        }
    }

private:
    virtual void ReadSamples(ClipFrame& frame) = 0;

    // Of a frame with its line.
    std::size_t CountLeastBytes() const { return m_frameBytes + kY4mFrame.size() + 1; }

    std::uint64_t GoTo(std::uint64_t frame, std::uint64_t begin) {
        m_stream->Seek(begin);
        m_number = frame;
        return frame;
    }

    // Where the frame that begins there ends; nothing when none does, or not all of it is there.
    std::optional<std::uint64_t> FindEnd(std::uint64_t begin) const {
        m_stream->Seek(begin);
        if (!m_stream->Peek(kY4mFrame.size()).starts_with(kY4mFrame)) {
            return std::nullopt;
        }
        m_stream->ReadLine(kMaxY4mLine);
        const std::uint64_t end = m_stream->GetPosition() + m_frameBytes;
        return end <= m_stream->GetSize().value_or(0) ? std::optional(end) : std::nullopt;
    }

    // From a frame whose beginning is known to the wanted one, or the last whole one before it.
    std::uint64_t Pass(std::uint64_t frame, std::uint64_t wanted) {
        auto end = FindEnd(m_begins[frame]);
        for (; end && frame < wanted; end = FindEnd(m_begins[frame])) {
            if (++frame == m_begins.size()) {
                m_begins.push_back(*end);
            }
        }
        if (!end && frame == 0) {
            ThrowNoFrames(*m_stream);
        }
        return end ? frame : frame - 1;
    }

    std::unique_ptr<ByteStream> m_stream;
    Y4mHeader m_header;
    std::size_t m_headerBytes = 0;
    std::size_t m_frameBytes = 0;        // without the line
    std::vector<std::uint64_t> m_begins; // of the first frames, as far as they were passed
    std::uint64_t m_number = 0;          // of frames begun
};

// Frames as RGBA, for conversion in two passes.
class Y4mPictureSource : public Y4mSource {
public:
    Y4mPictureSource(std::unique_ptr<ByteStream> stream, Conf::YCbCrMatrix matrix)
        : Y4mSource(std::move(stream)),
          m_matrix(matrix) {
        Examine([this] { m_samples.resize(GetY4mFrameBytes(GetHeader())); });
        Count(m_samples.size());
    }

private:
    void ReadSamples(ClipFrame& frame) override {
        Fill(m_samples.data(), m_samples.size());
        ConvertY4mFrame(GetHeader(), m_samples, m_matrix, frame);
    }

    Conf::YCbCrMatrix m_matrix;
    std::vector<std::uint8_t> m_samples;
};

class Y4mPlaneSource : public Y4mSource {
public:
    Y4mPlaneSource(std::unique_ptr<ByteStream> stream, const EncodePlan& plan)
        : Y4mSource(std::move(stream)) {
        Examine([this] { m_planes = DescribeY4mPlanes(GetHeader()); });
        plan.SetInput(m_planes.desc);
        Count(m_planes.fileBytes);
    }

private:
    void ReadSamples(ClipFrame& frame) override {
        frame.SetPlanes(m_planes.desc);
        Fill(frame.pixels.data(), m_planes.fileBytes);
        FinishY4mPlanes(m_planes, frame.pixels);
    }

    Y4mPlanes m_planes;
};

std::unique_ptr<FrameSource> MakeY4mSource(std::unique_ptr<ByteStream> stream,
                                           const EncodePlan& plan) {
    if (plan.options.converter == ConverterChoice::TwoPass) {
        return std::make_unique<Y4mPictureSource>(std::move(stream), plan.GetMatrix({}));
    }
    return std::make_unique<Y4mPlaneSource>(std::move(stream), plan);
}

std::unique_ptr<FrameSource> MakeRawSource(std::unique_ptr<ByteStream> stream,
                                           const EncodePlan& plan) {
    const EncodeOptions& options = plan.options;
    const auto size = options.input.size ? options.input.size : options.size;
    if (!size) {
        throw Failure(options.inputs.front() == kStandardStream
                          ? "raw frames on standard input need --size"
                          : "raw frames need --size",
                      ExitCode::WrongUsage);
    }
    std::optional<DX::D3FrameDesc> desc;
    if (options.input.format && options.input.format->video) {
        desc = options.input.format->video->Describe(*size);
        plan.SetInput(*desc);
    }
    const unsigned depth =
        options.input.format ? options.input.format->bits : options.inputDepth.value_or(8);
    return std::make_unique<RawSource>(std::move(stream), *size, depth, desc);
}

// All with 16 bits a channel, so that one clip may have pictures of both depths.
void Widen(Image& image) {
    if (image.bitsPerChannel == 16) {
        return;
    }
    constexpr std::uint16_t kWide = 257; // 65535 / 255
    std::vector<std::uint8_t> wide(image.pixels.size() * 2);
    for (std::size_t i = 0; i < image.pixels.size(); ++i) {
        const auto sample = static_cast<std::uint16_t>(image.pixels[i] * kWide);
        std::memcpy(&wide[2 * i], &sample, sizeof(sample));
    }
    image.pixels = std::move(wide);
    image.bitsPerChannel = 16;
}

class PictureSource : public FrameSource {
public:
    explicit PictureSource(const EncodeOptions& options)
        : m_options(options),
          m_first(ReadPicture(options.inputs.front())) {
        m_size = m_first->GetSize();
        m_count = options.inputs.size();
        m_colorSpace = m_first->colorSpace;
    }

    bool Read(ClipFrame& frame) override {
        if (m_next == m_options.inputs.size()) {
            return false;
        }
        const std::string& file = m_options.inputs[m_next++];
        static_cast<Image&>(frame) = m_first ? std::move(*m_first) : ReadPicture(file);
        m_first.reset();
        if (!m_options.size && frame.GetSize() != m_size) {
            throw Failure(fmt::format("{} is {} x {} pixels, the picture before it {} x {}: --size "
                                      "fits them into frames of one size",
                                      file, frame.width, frame.height, m_size.width,
                                      m_size.height));
        }
        TellOtherColors(file, frame);
        Widen(frame);
        return true;
    }

private:
    Image ReadPicture(const std::string& file) const {
        return ReadImage(PathFromUtf8(file), m_options.from);
    }

    // Unless the user says what all of them are.
    void TellOtherColors(const std::string& file, const Image& frame) const {
        const auto space = frame.colorSpace.value_or(Conf::RGBColorSpace());
        const auto clip = m_colorSpace.value_or(Conf::RGBColorSpace());
        if (!m_options.from && space != clip) {
            Console::PrintMessage(fmt::format("{} is {}, and becomes a frame of {} as it is", file,
                                              GetColorSpaceName(space), GetColorSpaceName(clip)));
        }
    }

    EncodeOptions m_options;
    std::optional<Image> m_first; // until it is asked for
    std::size_t m_next = 0;
};

} // namespace

std::uint64_t FrameSource::Seek(std::uint64_t /*frame*/) {
    throw std::logic_error("there is no way back");
}

bool IsY4m(const std::string& file) {
    const auto path = PathFromUtf8(file);
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) {
        return false; // reading it as a picture tells why
    }
    return Core::Utils::ToLower(path.extension().wstring()) == L".y4m" ||
           ByteStream::OpenFile(path)->Peek(kY4mMagic.size()).starts_with(kY4mMagic);
}

std::unique_ptr<FrameSource> MakeStreamSource(std::unique_ptr<ByteStream> stream,
                                              const EncodePlan& plan) {
    if (!plan.options.input.format && stream->Peek(kY4mMagic.size()).starts_with(kY4mMagic)) {
        return MakeY4mSource(std::move(stream), plan);
    }
    return MakeRawSource(std::move(stream), plan);
}

std::unique_ptr<FrameSource> OpenFrameSource(const EncodePlan& plan) {
    const auto& inputs = plan.options.inputs;
    const std::string& first = inputs.front();
    if (first == kStandardStream) {
        return MakeStreamSource(ByteStream::OpenStandardInput(), plan);
    }
    if (plan.options.input.format) {
        return MakeRawSource(ByteStream::OpenFile(PathFromUtf8(first)), plan);
    }
    for (const std::string& file : inputs) {
        if (IsY4m(file) && inputs.size() > 1) {
            throw Failure("a Y4M file goes alone: " + file, ExitCode::WrongUsage);
        }
    }
    if (IsY4m(first)) {
        return MakeY4mSource(ByteStream::OpenFile(PathFromUtf8(first)), plan);
    }
    return std::make_unique<PictureSource>(plan.options);
}

bool IsClip(const std::string& file, const ClipInput& input) {
    return input.format || file == kStandardStream || IsY4m(file);
}

std::unique_ptr<FrameSource> OpenClip(const std::string& file, const ClipInput& input,
                                      const std::optional<Conf::RGBColorSpace>& from) {
    EncodePlan plan;
    plan.options.inputs = {file};
    plan.options.from = from;
    plan.options.input = input;
    if (input.format && !input.size) {
        throw Failure("raw frames need --input-size", ExitCode::WrongUsage);
    }
    if (file != kStandardStream) {
        return OpenFrameSource(plan);
    }
    auto stream = ByteStream::OpenStandardInput();
    if (!input.size && !stream->Peek(kY4mMagic.size()).starts_with(kY4mMagic)) {
        throw Failure("raw frames on standard input need --input-size", ExitCode::WrongUsage);
    }
    return MakeStreamSource(std::move(stream), plan);
}

} // namespace Norvex::App
