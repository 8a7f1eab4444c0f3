// A host executable that declares a Direct3D 12 SDK version: 614 is what the library wants, any
// other ends the process.

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/API.h"
#include "tests/support/LogCapture.h"

// The name is the system's. NOLINTNEXTLINE(readability-identifier-naming)
extern "C" __declspec(dllexport) const unsigned D3D12SDKVersion = NORVEX_DECLARED_SDK_VERSION;

namespace Norvex::DX {
namespace {

TEST(HostDeclarationTest, OnlyTheRequiredVersionIsAccepted) {
    if constexpr (NORVEX_DECLARED_SDK_VERSION == API::kRequiredSDKVersion) {
        const Norvex::Test::LogCapture log;
        API& api = API::GetInstance();
        EXPECT_EQ(log.Count(google::GLOG_INFO, "Required DirectX 12 library version: 614"), 1);
        // No redistributable runtime is mapped here, which counts as an older one.
        EXPECT_EQ(api.D3D12SDKVersion(), std::nullopt);
        EXPECT_EQ(api.D3D12SDKVersion(), std::nullopt);
        EXPECT_EQ(log.Count(google::GLOG_INFO, "Current DirectX 12 library version: 0"), 1)
            << "read once";
        EXPECT_EQ(
            log.Count(google::GLOG_ERROR, "An older version of the DirectX 12 library was loaded"),
            1);
    } else {
        EXPECT_DEATH(API::GetInstance(), "The application is using the wrong DirectX 12 version");
    }
}

} // namespace
} // namespace Norvex::DX
