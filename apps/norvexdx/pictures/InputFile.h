#pragma once

// Files as the program takes them in. File names are paths in UTF-8. Any thread. Throws Failure
// with the file's name.

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace Norvex::App {

// A path of UTF-8 text, and the text of a path.
std::filesystem::path PathFromUtf8(std::string_view text);
std::string Utf8FromPath(const std::filesystem::path& path);

// File names as a user of Windows types them, whose shell leaves that to the program: a name with
// wildcards (* and ?, after the last separator) becomes the files that match, a folder the JPEG,
// PNG and TIFF files in it, both in the order of their names. What nothing matches stays.
std::vector<std::string> ExpandFileNames(const std::vector<std::string>& names);

// The whole file, which is not empty. Failures: no such file, a folder, not a regular file, empty,
// not readable, larger than 4 GiB.
std::vector<std::uint8_t> ReadInputFile(const std::filesystem::path& path);

} // namespace Norvex::App
