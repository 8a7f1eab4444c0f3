// Linked into a test program, proves at its end that nothing outlived the tests: a device that
// something still holds would be found again, with more than the one reference.

#include <gtest/gtest.h>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/Exceptions.h"
#include "tests/support/DeviceTest.h"

namespace Norvex::Test {
namespace {

class DevicesAtEnd : public testing::Environment {
    void TearDown() override {
        ReleaseLast(DX::D11Device::CreatePrimary());
        try {
            ReleaseLast(DX::D12Device::CreatePrimary());
        } catch (const DX::DirectXException&) {
            // Where none can be made none is left.
        }
    }
};

[[maybe_unused]] const testing::Environment* const kAdded =
    testing::AddGlobalTestEnvironment(std::make_unique<DevicesAtEnd>().release());

} // namespace
} // namespace Norvex::Test
