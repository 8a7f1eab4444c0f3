// A host executable that declares a Direct3D 12 SDK version: 614 is what the library wants, any
// other ends the process.

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/API.h"
#include "tests/support/LogCapture.h"

extern "C" {
// The name is the system's. NOLINTNEXTLINE(readability-identifier-naming)
__declspec(dllexport) unsigned D3D12SDKVersion = 615;
}

namespace Norvex::DX {
namespace {

TEST(HostDeclarationTest, OnlyTheRequiredVersionIsAccepted) {
    EXPECT_DEATH(API::GetInstance(), "The application is using the wrong DirectX 12 version");
    D3D12SDKVersion = 614;
    const Norvex::Test::LogCapture log;
    // No redistributable runtime is mapped here, which counts as an older one.
    EXPECT_EQ(API::GetInstance().D3D12SDKVersion(), std::nullopt);
    EXPECT_THAT(log.GetEntries(),
                testing::Contains("ERROR: An older version of the DirectX 12 library was loaded"));
}

} // namespace
} // namespace Norvex::DX
