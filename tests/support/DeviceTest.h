#pragma once

// Bases of tests that use a real device: one device for all tests of a suite.

#include <gtest/gtest.h>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D12Device.h"

namespace Norvex::Test {

template <class Device>
class DeviceTestOf : public testing::Test {
protected:
    static void SetUpTestSuite() { s_device = Device::CreatePrimary(); }
    static void TearDownTestSuite() { s_device.reset(); }

    static auto* Raw() { return s_device->Get(); }
    static auto RawPtr() { return CComPtr(s_device->Get()); }

    static inline boost::intrusive_ptr<Device> s_device;
};

using DeviceTest = DeviceTestOf<DX::D12Device>;
using Device11Test = DeviceTestOf<DX::D11Device>;

} // namespace Norvex::Test
