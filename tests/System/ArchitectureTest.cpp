// The floors of the library: an include points level or down. An include in a source may go up
// where the line above it says why ("Upwards ..."), since a device makes what records on it.

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;

// By the start of the file's name, the longest match first.
std::optional<int> FloorOf(const std::string& path) {
    static const std::map<std::string, int, std::greater<>> kFloors = {
        {"Platform/", 0},
        {"Host/", 0},
        {"Core/", 0},
        {"Proc/DirectX/Manager/CommonTypes", 1},
        {"Proc/DirectX/Manager/AffineTransform", 1},
        {"Proc/DirectX/Manager/Exceptions", 1},
        {"Proc/DirectX/Manager/Throw", 1},
        {"Proc/DirectX/Manager/API", 1},
        {"Proc/DirectX/Manager/DirectXDebug", 1},
        {"Proc/DirectX/Manager/DispatchThreads", 1},
        {"Proc/DirectX/Manager/SlotBitmap", 1},
        {"Proc/DirectX/Manager/Module", 1},
        {"Proc/DirectX/Manager/DXGI", 2},
        {"Proc/DirectX/Manager/D3Device", 3},
        {"Proc/DirectX/Manager/D3D11Device", 3},
        {"Proc/DirectX/Manager/D3D12Device", 3},
        {"Proc/DirectX/Manager/D3D12BufferPool", 4},
        {"Proc/DirectX/Manager/D3D12Resource", 4},
        {"Proc/DirectX/Manager/D3D12Query", 4},
        {"Proc/DirectX/Manager/D3D12TexturePool", 4},
        {"Proc/DirectX/Manager/D3D12DescriptorHeap", 4},
        {"Proc/DirectX/Manager/D3D12DescriptorTable", 6},
        {"Proc/DirectX/Manager/D3D12Staging", 5},
        {"Proc/DirectX/Manager/D3D12Command", 5},
        {"Proc/DirectX/Manager/D3D11DeviceContext", 5},
        {"Proc/DirectX/Manager/D3D11Resource", 5},
        {"Proc/DirectX/Manager/DirectXShader", 5},
        {"Proc/DirectX/Manager/D3D12RootParameter", 6},
        {"Proc/DirectX/Manager/D3D12ShaderParameters", 6},
        {"Proc/DirectX/Manager/D3D12GraphicsPipelineState", 6},
        {"Proc/DirectX/Manager/D3ImageRenderer", 7},
        {"Proc/DirectX/Manager/DXGISwapChain", 7},
        {"Proc/DirectX/Manager/D3Quad", 7},
        {"Proc/DirectX/Manager/D11ImageDraw", 7},
        {"Proc/DirectX/Manager/D3D12Renderer", 7},
        {"Proc/DirectX/Manager/D3YUV", 7},
    };
    for (const auto& [prefix, floor] : kFloors) {
        if (path.starts_with(prefix)) {
            return floor;
        }
    }
    return std::nullopt;
}

void CheckFile(const fs::path& root, const fs::path& file) {
    const std::string name = fs::relative(file, root).generic_string();
    const auto floor = FloorOf(name);
    ASSERT_TRUE(floor) << name << " has no floor: give it one here";
    std::ifstream in(file);
    bool mayGoUp = false;
    for (std::string line; std::getline(in, line);) {
        constexpr std::string_view kInclude = "#include \"";
        if (!line.starts_with(kInclude)) {
            mayGoUp = line.starts_with("// Upwards") || (mayGoUp && line.starts_with("//"));
            continue;
        }
        const std::string included =
            line.substr(kInclude.size(), line.rfind('"') - kInclude.size());
        const auto target = FloorOf(included);
        if (target && !(mayGoUp && file.extension() == ".cpp")) {
            EXPECT_LE(*target, *floor) << name << " includes " << included;
        }
    }
}

TEST(ArchitectureTest, IncludesPointLevelOrDown) {
    const fs::path root = NORVEX_SOURCE_DIR;
    int files = 0;
    for (const char* folder : {"Platform", "Host", "Core", "Proc"}) {
        for (const auto& entry : fs::recursive_directory_iterator(root / folder)) {
            const auto extension = entry.path().extension();
            if (extension == ".h" || extension == ".cpp") {
                CheckFile(root, entry.path());
                ++files;
            }
        }
    }
    EXPECT_GT(files, 50);
}

} // namespace
