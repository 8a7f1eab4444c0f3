// Linked into a test program, proves at its end that nothing outlived the tests: a device that
// something still holds would be found again, with more than the one reference.

#include <gtest/gtest.h>

#include "Proc/DirectX/Manager/Exceptions.h"
#include "tests/support/DeviceTest.h"

namespace Norvex::Test {

namespace {

template <class Device>
void ExpectNoneLeft() {
    boost::intrusive_ptr<Device> device;
    try {
        device = Device::CreatePrimary();
    } catch (const DX::DirectXException&) {
        return; // where none can be made none is left
    }
    ReleaseLast(std::move(device));
}

class DevicesAtEnd : public testing::Environment {
    void TearDown() override {
        ExpectNoneLeft<DX::D12Device>();
        ExpectNoneLeft<DX::D11Device>();
    }
};

[[maybe_unused]] const testing::Environment* const kAdded =
    testing::AddGlobalTestEnvironment(std::make_unique<DevicesAtEnd>().release());

} // namespace

} // namespace Norvex::Test
