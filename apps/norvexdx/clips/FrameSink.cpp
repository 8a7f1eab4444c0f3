#include "apps/norvexdx/clips/FrameSink.h"

#include <algorithm>

#include "apps/norvexdx/clips/PlanePacking.h"
#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/pictures/InputFile.h"
#include "apps/norvexdx/pictures/OutputFile.h"

namespace Norvex::App {

namespace {

class FileSink : public ByteSink {
public:
    explicit FileSink(const std::string& output) : m_file(PathFromUtf8(output)) {}

    void Write(const void* data, std::size_t sizeInBytes) override {
        m_file.Write(data, sizeInBytes);
    }
    void Commit() override { m_file.Commit(); }

private:
    OutputFile m_file;
};

class StandardOutputSink : public ByteSink {
public:
    StandardOutputSink() {
        DWORD mode = 0;
        if (GetConsoleMode(m_handle, &mode)) {
            throw Failure("standard output is a terminal: a clip needs a file or a pipe",
                          ExitCode::WrongUsage);
        }
    }

    void Write(const void* data, std::size_t sizeInBytes) override {
        const auto* bytes = static_cast<const char*>(data);
        while (sizeInBytes != 0) {
            constexpr std::size_t kMaxPiece = 1 << 20;
            const auto piece = static_cast<DWORD>(std::min(sizeInBytes, kMaxPiece));
            DWORD written = 0;
            if (!WriteFile(m_handle, bytes, piece, &written, nullptr) || written == 0) {
                ThrowFailure(GetLastError());
            }
            bytes += written;
            sizeInBytes -= written;
        }
    }
    void Commit() override {}

private:
    [[noreturn]] static void ThrowFailure(DWORD error) {
        const bool isClosed = error == ERROR_BROKEN_PIPE || error == ERROR_NO_DATA ||
                              error == ERROR_PIPE_NOT_CONNECTED;
        throw Failure(isClosed ? "whoever reads standard output has closed it"
                               : "cannot write to standard output");
    }

    HANDLE m_handle = GetStdHandle(STD_OUTPUT_HANDLE);
};

} // namespace

std::unique_ptr<ByteSink> OpenByteSink(const std::string& output) {
    if (output == kStandardStream) {
        return std::make_unique<StandardOutputSink>();
    }
    return std::make_unique<FileSink>(output);
}

FrameSink::FrameSink(std::unique_ptr<ByteSink> sink, Container container, const VideoFormat& format,
                     Y4mHeader header, bool hasExactCodes)
    : m_sink(std::move(sink)),
      m_container(container),
      m_format(format),
      m_header(std::move(header)),
      m_hasExactCodes(hasExactCodes) {
    if (m_container == Container::Y4m) {
        const std::string line = MakeY4mHeader(m_header);
        m_sink->Write(line.data(), line.size());
    }
}

void FrameSink::Write(std::vector<std::uint8_t>& planes) {
    if (!m_hasExactCodes) {
        RoundToCodes(m_format, planes);
    }
    if (m_container == Container::Raw) {
        m_sink->Write(planes.data(), planes.size());
        return;
    }
    const std::string line = std::string(kY4mFrame) + "\n";
    m_sink->Write(line.data(), line.size());
    if (m_format.HasPairs()) {
        Deinterleave(m_format, m_header.size, planes, m_planar);
    }
    const auto& bare = m_format.HasPairs() ? m_planar : planes;
    m_sink->Write(bare.data(), bare.size());
}

} // namespace Norvex::App
