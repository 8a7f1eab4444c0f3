// An include points level or down the floors of docs/architecture.md. In a source it may go up
// where the line above it says why ("Upwards ..."), since a device makes what records on it.

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <string>

#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;

// The floor of every beginning of a path that the table names, later ones first in the alphabet and
// so the longer of two that fit.
using Floors = std::map<std::string, int, std::greater<>>;

template <class Function>
void ForEachLine(const fs::path& file, const Function& function) {
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        function(line);
    }
}

Floors ReadFloors(const fs::path& document) {
    static const std::regex kRow(R"(^\| (\d) \|)");
    static const std::regex kName("`([^`]+)`");
    Floors floors;
    ForEachLine(document, [&](const std::string& line) {
        std::smatch row;
        if (std::regex_search(line, row, kRow)) {
            for (std::sregex_iterator at(line.begin(), line.end(), kName), end; at != end; ++at) {
                const std::string text = (*at)[1];
                floors[(text.ends_with('/') ? "" : "Proc/DirectX/Manager/") + text] =
                    std::stoi(row[1]);
            }
        }
    });
    return floors;
}

int FloorOf(const Floors& floors, const std::string& path) {
    for (const auto& [prefix, floor] : floors) {
        if (path.starts_with(prefix)) {
            return floor;
        }
    }
    return -1;
}

TEST(ArchitectureTest, IncludesPointLevelOrDown) {
    const fs::path root = NORVEX_SOURCE_DIR;
    const Floors floors = ReadFloors(root / "docs/architecture.md");
    const std::regex form("#include \"(.*)\".*");
    int includes = 0;
    for (const char* folder : {"Platform", "Host", "Core", "Proc"}) {
        for (const auto& entry : fs::recursive_directory_iterator(root / folder)) {
            const std::string file = fs::relative(entry.path(), root).generic_string();
            if (!file.ends_with(".h") && !file.ends_with(".cpp")) {
                continue;
            }
            const int floor = FloorOf(floors, file);
            EXPECT_GE(floor, 0) << file << " has no floor";
            bool mayGoUp = false;
            ForEachLine(entry.path(), [&](const std::string& line) {
                std::smatch include;
                if (!std::regex_match(line, include, form)) {
                    mayGoUp = (mayGoUp && line.starts_with("//")) || line.starts_with("// Upwards");
                } else if (!mayGoUp || file.ends_with(".h")) {
                    EXPECT_LE(FloorOf(floors, include[1]), floor) << file << ": " << line;
                }
                includes += include.size() > 1 ? 1 : 0;
            });
        }
    }
    EXPECT_GT(includes, 200);
}

} // namespace
