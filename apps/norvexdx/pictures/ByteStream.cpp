#include "apps/norvexdx/pictures/ByteStream.h"

#include <algorithm>
#include <cstring>

#include "Platform/Direct3D.h"
#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/pictures/InputFile.h"

namespace Norvex::App {

namespace {

// Standard input may be a file that somebody has read from.
std::uint64_t GetPlace(HANDLE handle) {
    LARGE_INTEGER place = {};
    const bool isKnown = GetFileType(handle) == FILE_TYPE_DISK &&
                         SetFilePointerEx(handle, {}, &place, FILE_CURRENT) != FALSE;
    return isKnown ? static_cast<std::uint64_t>(place.QuadPart) : 0;
}

class HandleStream : public ByteStream {
public:
    HandleStream(const std::string& name, HANDLE handle, bool isOwned)
        : ByteStream(name, GetPlace(handle)),
          m_handle(handle),
          m_isOwned(isOwned) {}
    ~HandleStream() override {
        if (m_isOwned) {
            CloseHandle(m_handle);
        }
    }

    std::optional<std::uint64_t> GetSize() const override {
        LARGE_INTEGER size = {};
        const bool isKnown =
            GetFileType(m_handle) == FILE_TYPE_DISK && GetFileSizeEx(m_handle, &size);
        return isKnown ? std::optional(static_cast<std::uint64_t>(size.QuadPart)) : std::nullopt;
    }

protected:
    std::size_t ReadSome(std::uint8_t* data, std::size_t sizeInBytes) override {
        constexpr std::size_t kMaxPiece = 1 << 30;
        const auto piece = static_cast<DWORD>(std::min(sizeInBytes, kMaxPiece));
        DWORD count = 0;
        if (ReadFile(m_handle, data, piece, &count, nullptr)) {
            return count;
        }
        const DWORD error = GetLastError();
        // The other end of the pipe is closed: all has been said.
        if (error == ERROR_BROKEN_PIPE || error == ERROR_HANDLE_EOF) {
            return 0;
        }
        throw Failure("cannot read " + GetName());
    }

    bool GoTo(std::uint64_t position) override {
        LARGE_INTEGER place = {};
        place.QuadPart = static_cast<LONGLONG>(position);
        return SetFilePointerEx(m_handle, place, nullptr, FILE_BEGIN) != FALSE;
    }

private:
    HANDLE m_handle;
    bool m_isOwned;
};

} // namespace

std::unique_ptr<ByteStream> ByteStream::OpenFile(const std::filesystem::path& path) {
    const std::string name = Utf8FromPath(path);
    HANDLE handle = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        std::error_code error;
        throw Failure(std::filesystem::exists(path, error) ? "cannot read " + name
                                                           : "there is no file " + name);
    }
    return std::make_unique<HandleStream>(name, handle, true);
}

std::unique_ptr<ByteStream> ByteStream::OpenStandardInput() {
    return std::make_unique<HandleStream>("standard input", GetStdHandle(STD_INPUT_HANDLE), false);
}

std::size_t ByteStream::Read(std::uint8_t* data, std::size_t sizeInBytes) {
    std::size_t done = std::min(sizeInBytes, m_ahead.size());
    std::memcpy(data, m_ahead.data(), done);
    m_ahead.erase(0, done);
    while (done < sizeInBytes) {
        const std::size_t count = ReadSome(data + done, sizeInBytes - done);
        if (count == 0) {
            break;
        }
        done += count;
        m_fetched += count;
    }
    return done;
}

void ByteStream::Seek(std::uint64_t position) {
    if (!GoTo(position)) {
        throw Failure("cannot read " + m_name);
    }
    m_ahead.clear();
    m_fetched = position;
}

const std::string& ByteStream::Peek(std::size_t sizeInBytes) {
    std::string bytes(sizeInBytes, '\0');
    const std::size_t count = Read(reinterpret_cast<std::uint8_t*>(bytes.data()), sizeInBytes);
    m_ahead.insert(0, bytes, 0, count);
    return m_ahead;
}

std::optional<std::string> ByteStream::ReadLine(std::size_t maxLength) {
    std::string line;
    std::uint8_t byte = 0;
    while (Read(&byte, 1) == 1) {
        if (byte == '\n') {
            return line;
        }
        if (line.size() == maxLength) {
            throw Failure(m_name + ": a line is longer than a Y4M file's");
        }
        line += static_cast<char>(byte);
    }
    return line.empty() ? std::nullopt : std::optional(line);
}

} // namespace Norvex::App
