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
    // Of the byte that is read next, from the beginning of the file or the pipe.
    std::uint64_t GetPosition() const { return m_fetched - m_ahead.size(); }
    // What is read next lies there. Only where the size is known.
    void Seek(std::uint64_t position);

    // So many bytes, however they come; less only at the end.
    std::size_t Read(std::uint8_t* data, std::size_t sizeInBytes);
    // The next bytes, which stay to be read; less than asked for only at the end.
    const std::string& Peek(std::size_t sizeInBytes);
    // Up to a line feed, which is taken and not given. Nothing at the end. Failure when the line is
    // longer.
    std::optional<std::string> ReadLine(std::size_t maxLength);

protected:
    explicit ByteStream(const std::string& name, std::uint64_t position = 0)
        : m_name(name),
          m_fetched(position) {}

    // At least one byte, unless at the end.
    virtual std::size_t ReadSome(std::uint8_t* data, std::size_t sizeInBytes) = 0;
    // Answers whether it can.
    virtual bool GoTo(std::uint64_t /*position*/) { return false; }

private:
    std::string m_name;
    std::uint64_t m_fetched = 0; // the position behind what ReadSome gave
    std::string m_ahead;         // read, but not asked for yet
};

} // namespace Norvex::App
