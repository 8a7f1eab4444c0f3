#include "apps/norvexdx/clips/FrameSource.h"

#include <cstring>

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

class RawSource : public FrameSource {
public:
    RawSource(std::unique_ptr<ByteStream> stream, const DX::Size2DT<long>& size, unsigned depth)
        : m_stream(std::move(stream)),
          m_depth(depth) {
        m_size = size;
        if (const auto total = m_stream->GetSize()) {
            m_count = *total / GetFrameBytes();
        }
    }

    bool Read(Image& frame) override {
        frame.SetSize(m_size, m_depth);
        const std::size_t count = m_stream->Read(frame.pixels.data(), frame.pixels.size());
        ++m_number;
        if (count != 0 && count != frame.pixels.size()) {
            ThrowCutShort(*m_stream, m_number, frame.pixels.size() - count, frame.pixels.size());
        }
        return count != 0;
    }

private:
    std::size_t GetFrameBytes() const {
        return static_cast<std::size_t>(m_size.width) * static_cast<std::size_t>(m_size.height) *
               Image::kChannels * m_depth / 8;
    }

    std::unique_ptr<ByteStream> m_stream;
    unsigned m_depth;
    std::uint64_t m_number = 0; // of frames begun
};

class Y4mSource : public FrameSource {
public:
    Y4mSource(std::unique_ptr<ByteStream> stream, Conf::YCbCrMatrix matrix)
        : m_stream(std::move(stream)),
          m_matrix(matrix) {
        const std::string line = m_stream->ReadLine(kMaxY4mLine).value_or("");
        try {
            m_header = ParseY4mHeader(line);
            m_samples.resize(GetY4mFrameBytes(m_header));
        } catch (const Failure& failure) {
            throw Failure(m_stream->GetName() + ": " + failure.what());
        }
        m_size = m_header.size;
        m_rate = m_header.rate;
        m_pixelAspect = m_header.aspect;
        if (const auto total = m_stream->GetSize()) {
            m_count = (*total - line.size()) / (m_samples.size() + kY4mFrame.size() + 1);
        }
    }

    bool Read(Image& frame) override {
        const auto line = m_stream->ReadLine(kMaxY4mLine);
        if (!line) {
            return false;
        }
        ++m_number;
        if (!line->starts_with(kY4mFrame)) {
            throw Failure(fmt::format("{}: frame {} does not begin with {}", m_stream->GetName(),
                                      m_number, kY4mFrame));
        }
        const std::size_t count = m_stream->Read(m_samples.data(), m_samples.size());
        if (count != m_samples.size()) {
            ThrowCutShort(*m_stream, m_number, m_samples.size() - count, m_samples.size());
        }
        ConvertY4mFrame(m_header, m_samples, m_matrix, frame);
        return true;
    }

private:
    std::unique_ptr<ByteStream> m_stream;
    Conf::YCbCrMatrix m_matrix;
    Y4mHeader m_header;
    std::vector<std::uint8_t> m_samples;
    std::uint64_t m_number = 0; // of frames begun
};

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

    bool Read(Image& frame) override {
        if (m_next == m_options.inputs.size()) {
            return false;
        }
        const std::string& file = m_options.inputs[m_next++];
        frame = m_first ? std::move(*m_first) : ReadPicture(file);
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

bool IsY4m(const std::string& file) {
    const auto path = PathFromUtf8(file);
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) {
        return false; // reading it as a picture tells why
    }
    return Core::Utils::ToLower(path.extension().wstring()) == L".y4m" ||
           ByteStream::OpenFile(path)->Peek(kY4mMagic.size()).starts_with(kY4mMagic);
}

} // namespace

std::unique_ptr<FrameSource> MakeStreamSource(std::unique_ptr<ByteStream> stream,
                                              const EncodePlan& plan) {
    if (stream->Peek(kY4mMagic.size()).starts_with(kY4mMagic)) {
        return std::make_unique<Y4mSource>(std::move(stream), plan.GetMatrix({}));
    }
    const EncodeOptions& options = plan.options;
    if (!options.size) {
        throw Failure("raw frames on standard input need --size", ExitCode::WrongUsage);
    }
    return std::make_unique<RawSource>(std::move(stream), *options.size,
                                       options.inputDepth.value_or(8));
}

std::unique_ptr<FrameSource> OpenFrameSource(const EncodePlan& plan) {
    const auto& inputs = plan.options.inputs;
    const std::string& first = inputs.front();
    if (first == kStandardStream) {
        return MakeStreamSource(ByteStream::OpenStandardInput(), plan);
    }
    for (const std::string& file : inputs) {
        if (IsY4m(file) && inputs.size() > 1) {
            throw Failure("a Y4M file goes alone: " + file, ExitCode::WrongUsage);
        }
    }
    if (IsY4m(first)) {
        return std::make_unique<Y4mSource>(ByteStream::OpenFile(PathFromUtf8(first)),
                                           plan.GetMatrix({}));
    }
    return std::make_unique<PictureSource>(plan.options);
}

} // namespace Norvex::App
