#include "apps/norvexdx/doctor/SystemReport.h"

#include <array>
#include <cstddef>
#include <memory>
#include <thread>

#include <fmt/format.h>

#include "Host/Strings.h"
#include "Host/SystemInfo.h"
#include "Platform/Direct3D.h"

namespace Norvex::App {

namespace {

constexpr const wchar_t* kModules[] = {L"dxgi.dll", L"d3d11.dll", L"d3d12.dll", L"D3D12Core.dll",
                                       L"d3dcompiler_47.dll"};

template <class Function>
Function* FindInNtdll(const char* name) {
    const auto address = GetProcAddress(GetModuleHandleW(L"ntdll.dll"), name);
    return reinterpret_cast<Function*>(reinterpret_cast<void*>(address));
}

// Whatever version a manifest asks for.
std::string GetWindowsVersion() {
    OSVERSIONINFOW version = {};
    version.dwOSVersionInfoSize = sizeof(version);
    const auto get = FindInNtdll<long WINAPI(OSVERSIONINFOW*)>("RtlGetVersion");
    if (get == nullptr || get(&version) != 0) {
        return "of unknown version";
    }
    return fmt::format("{}.{}.{}", version.dwMajorVersion, version.dwMinorVersion,
                       version.dwBuildNumber);
}

Json GetWineVersion() {
    const auto get = FindInNtdll<const char*()>("wine_get_version");
    return get != nullptr ? Json(get()) : Json(nullptr);
}

// Null when it is not loaded, or does not say.
Json GetModuleVersion(const wchar_t* name) {
    std::array<wchar_t, 1024> path{};
    const HMODULE module = GetModuleHandleW(name);
    if (module == nullptr ||
        GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size())) == 0) {
        return nullptr;
    }
    const DWORD dataSize = GetFileVersionInfoSizeW(path.data(), nullptr);
    const auto data = std::make_unique<std::byte[]>(dataSize);
    void* found = nullptr;
    UINT size = 0;
    if (dataSize == 0 || GetFileVersionInfoW(path.data(), 0, dataSize, data.get()) == FALSE ||
        VerQueryValueW(data.get(), L"\\", &found, &size) == FALSE ||
        size < sizeof(VS_FIXEDFILEINFO)) {
        return nullptr;
    }
    const auto& info = *static_cast<const VS_FIXEDFILEINFO*>(found);
    return fmt::format("{}.{}.{}.{}", HIWORD(info.dwFileVersionMS), LOWORD(info.dwFileVersionMS),
                       HIWORD(info.dwFileVersionLS), LOWORD(info.dwFileVersionLS));
}

} // namespace

Json MakeSystemJson() {
    Core::Utils::MEMINFO memory;
    Core::Utils::GetMemoryInfo(memory);
    Json modules = Json::object();
    for (const wchar_t* name : kModules) {
        if (Json version = GetModuleVersion(name); !version.is_null()) {
            modules[Core::Utf8FromWstring(name)] = std::move(version);
        }
    }
    return {{"windows", GetWindowsVersion()},
            {"wine", GetWineVersion()},
            {"processors", std::thread::hardware_concurrency()},
            {"memory", memory.physicalTotal},
            {"memoryAvailable", memory.physicalAvailable},
            {"modules", std::move(modules)}};
}

std::string MakeSystemText(const Json& system) {
    constexpr double kGiB = 1 << 30;
    std::string text = "Windows " + system["windows"].get<std::string>();
    if (!system["wine"].is_null()) {
        text += " (Wine " + system["wine"].get<std::string>() + ")";
    }
    return text + fmt::format(", {} processors, {:.1f} of {:.1f} GiB memory free",
                              system["processors"].get<unsigned>(),
                              system["memoryAvailable"].get<double>() / kGiB,
                              system["memory"].get<double>() / kGiB);
}

} // namespace Norvex::App
