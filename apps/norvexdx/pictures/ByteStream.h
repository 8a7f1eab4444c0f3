#pragma once

// Bytes as they come in, from a file or from standard input, which may be a pipe. One thread at a
// time. Throws Failure with the name.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace Norvex::App {

class ByteStream {
public:
    // Failures: no such file, not readable.
    static std::unique_ptr<ByteStream> OpenFile(const std::filesystem::path& path);
    static std::unique_ptr<ByteStream> OpenStandardInput();

    virtual ~ByteStream() = default;
    ByteStream(const ByteStream&) = delete;
    ByteStream& operator=(const ByteStream&) = delete;

    // For messages.
    const std::string& GetName() const { return m_name; }
    // Of a regular file, from its beginning; a pipe's is not known.
    virtual std::optional<std::uint64_t> GetSize() const { return std::nullopt; }

    // So many bytes, however they come; less only at the end.
    std::size_t Read(std::uint8_t* data, std::size_t sizeInBytes);
    // The next bytes, which stay to be read; less than asked for only at the end.
    const std::string& Peek(std::size_t sizeInBytes);
    // Up to a line feed, which is taken and not given. Nothing at the end. Failure when the line is
    // longer.
    std::optional<std::string> ReadLine(std::size_t maxLength);

protected:
    explicit ByteStream(const std::string& name) : m_name(name) {}

    // At least one byte, unless at the end.
    virtual std::size_t ReadSome(std::uint8_t* data, std::size_t sizeInBytes) = 0;

private:
    std::string m_name;
    std::string m_ahead; // read, but not asked for yet
};

} // namespace Norvex::App
