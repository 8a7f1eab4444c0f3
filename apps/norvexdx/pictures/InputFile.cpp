#include "apps/norvexdx/pictures/InputFile.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <iterator>
#include <limits>
#include <system_error>

#include "Host/Strings.h"
#include "apps/norvexdx/console/Failure.h"

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

bool Matches(std::wstring_view name, std::wstring_view pattern) {
    if (pattern.empty()) {
        return name.empty();
    }
    if (pattern.front() == L'*' && Matches(name, pattern.substr(1))) {
        return true;
    }
    const bool isAny = pattern.front() == L'*' || pattern.front() == L'?';
    if (name.empty() || (!isAny && pattern.front() != name.front())) {
        return false;
    }
    return Matches(name.substr(1), pattern.front() == L'*' ? pattern : pattern.substr(1));
}

// Files, not folders, by name. The system's own search also matches short names: *.tif? a TIFFX.
std::vector<fs::path> FindFiles(const fs::path& folder, std::wstring_view pattern) {
    const auto fold = [](const fs::path& path) { return Core::Utils::ToLower(path.wstring()); };
    std::vector<fs::path> found;
    std::error_code error;
    std::error_code ignored;
    for (fs::directory_iterator entry(folder.empty() ? L"." : folder, error), end;
         !error && entry != end; entry.increment(error)) {
        const fs::path name = entry->path().filename();
        if (!entry->is_directory(ignored) && Matches(fold(name), Core::Utils::ToLower(pattern))) {
            found.push_back(folder / name);
        }
    }
    std::ranges::sort(found, {}, fold);
    return found;
}

bool IsPictureName(const fs::path& path) {
    constexpr std::array kExtensions = {L".jpg", L".jpeg", L".png", L".tif", L".tiff"};
    const std::wstring extension = Core::Utils::ToLower(path.extension().wstring());
    return std::ranges::find(kExtensions, extension) != kExtensions.end();
}

std::vector<fs::path> ExpandFileName(const fs::path& path) {
    const std::wstring name = path.filename().wstring();
    if (name.find_first_of(L"*?") != std::wstring::npos) {
        return FindFiles(path.parent_path(), name);
    }
    std::error_code error;
    if (!fs::is_directory(path, error)) {
        return {};
    }
    std::vector<fs::path> files = FindFiles(path, L"*");
    std::erase_if(files, [](const fs::path& file) { return !IsPictureName(file); });
    return files;
}

} // namespace

fs::path PathFromUtf8(std::string_view text) {
    return {Core::WstringFromUtf8(text)};
}

std::string Utf8FromPath(const fs::path& path) {
    return Core::Utf8FromWstring(path.wstring());
}

std::vector<std::string> ExpandFileNames(const std::vector<std::string>& names) {
    std::vector<std::string> expanded;
    for (const std::string& name : names) {
        const std::vector<fs::path> files = ExpandFileName(PathFromUtf8(name));
        if (files.empty()) {
            expanded.push_back(name);
        }
        std::ranges::transform(files, std::back_inserter(expanded), &Utf8FromPath);
    }
    return expanded;
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
