// An include points level or down the floors of docs/architecture.md. In a source it may go up
// where the line above it says why ("Upwards ..."), since a device makes what records on it.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <string>

#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;

TEST(ArchitectureTest, IncludesPointLevelOrDown) {
    const fs::path root = NORVEX_SOURCE_DIR;
    std::string line;
    // The floor of every beginning of a path that the table names, later ones first in the alphabet
    // and so the longer of two that fit.
    std::map<std::string, int, std::greater<>> floors;
    const std::regex name("`([^`]+)`");
    for (std::ifstream document(root / "docs/architecture.md"); std::getline(document, line);) {
        if (line.size() > 4 && line.starts_with("| ") && line.substr(3, 3) == " | ") {
            for (std::sregex_iterator at(line.begin(), line.end(), name), end; at != end; ++at) {
                const std::string text = (*at)[1];
                floors[(text.ends_with('/') ? "" : "Proc/DirectX/Manager/") + text] = line[2] - '0';
            }
        }
    }
    const auto floorOf = [&](const std::string& path) {
        const auto fits = [&](const auto& entry) { return path.starts_with(entry.first); };
        const auto found = std::ranges::find_if(floors, fits);
        return found != floors.end() ? found->second : -1;
    };
    const std::regex form("#include \"(.*)\".*");
    int includes = 0;
    for (const char* folder : {"Platform", "Host", "Core", "Proc"}) {
        for (const auto& entry : fs::recursive_directory_iterator(root / folder)) {
            const std::string file = fs::relative(entry.path(), root).generic_string();
            const bool isSource = file.ends_with(".cpp");
            bool mayGoUp = false;
            std::ifstream in(isSource || file.ends_with(".h") ? entry.path() : fs::path());
            for (std::smatch include; std::getline(in, line);) {
                if (!std::regex_match(line, include, form)) {
                    mayGoUp = isSource && (line.starts_with("// Upwards") ||
                                           (mayGoUp && line.starts_with("//")));
                } else if (!mayGoUp) {
                    EXPECT_LE(floorOf(include[1]), floorOf(file)) << file << ": " << line;
                }
                includes += include.size() > 1 ? 1 : 0;
            }
        }
    }
    EXPECT_GT(includes, 200);
}

} // namespace
