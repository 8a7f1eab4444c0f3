#include "Proc/DirectX/Manager/Version.h"

#include <atomic>

#include <fmt/format.h>

#include "Proc/DirectX/Manager/Throw.h"

namespace {

// Of the headers that do not fit, as told last; 0: there are none.
std::atomic<std::uint32_t> unfitHeaders{0};

} // namespace

extern "C" bool NORVEX_DX_BUILT_AS(std::uint32_t headers) noexcept {
    constexpr std::uint32_t kPatches = NORVEX_DX_MAKE_VERSION(0, 1, 0);
    const bool fits = headers / kPatches == NORVEX_DX_VERSION / kPatches;
    if (!fits) {
        unfitHeaders = headers;
    }
    return fits;
}

namespace Norvex::DX {

std::uint32_t GetVersion() noexcept {
    return NORVEX_DX_VERSION;
}

const char* GetVersionString() noexcept {
    return NORVEX_DX_VERSION_STRING;
}

void ThrowUnlessVersionFits() {
    const std::uint32_t headers = unfitHeaders;
    if (headers != 0) [[unlikely]] {
        Throw<DirectXException>(
            fmt::format("The host was compiled with headers of NorvexDX {}.{}.{}, this is "
                        "NorvexDX " NORVEX_DX_VERSION_STRING,
                        headers / 10000, headers / 100 % 100, headers % 100));
    }
}

} // namespace Norvex::DX
