#include "apps/norvexdx/InputFile.h"

#include <fstream>
#include <limits>
#include <system_error>

#include "Host/Strings.h"
#include "apps/norvexdx/Failure.h"

namespace Norvex::App {

namespace fs = std::filesystem;

namespace {

// WIC's memory streams count in 32 bits.
constexpr std::uintmax_t kMaxFileSize = std::numeric_limits<std::uint32_t>::max();

std::size_t GetSizeToRead(const fs::path& path, const std::string& name) {
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (status.type() == fs::file_type::not_found) {
        throw Failure("there is no file " + (name.empty() ? "\"\"" : name));
    }
    if (fs::is_directory(status)) {
        throw Failure(name + " is a folder, not a picture");
    }
    const std::uintmax_t size = fs::is_regular_file(status) ? fs::file_size(path, error) : 0;
    if (!fs::is_regular_file(status) || error) {
        throw Failure("cannot read " + name);
    }
    if (size == 0) {
        throw Failure(name + " is empty");
    }
    if (size > kMaxFileSize) {
        throw Failure(name + " is too large a file");
    }
    return static_cast<std::size_t>(size);
}

} // namespace

fs::path PathFromUtf8(std::string_view text) {
    return {Core::WstringFromUtf8(text)};
}

std::string Utf8FromPath(const fs::path& path) {
    return Core::Utf8FromWstring(path.wstring());
}

std::vector<std::uint8_t> ReadInputFile(const fs::path& path) {
    const std::string name = Utf8FromPath(path);
    std::vector<std::uint8_t> bytes(GetSizeToRead(path, name));
    std::ifstream file(path, std::ios::binary);
    if (!file.read(reinterpret_cast<char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()))) {
        throw Failure("cannot read " + name);
    }
    return bytes;
}

} // namespace Norvex::App
