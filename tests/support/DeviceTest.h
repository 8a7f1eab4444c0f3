#pragma once

// Base of tests that use a real Direct3D 12 device: one device for all tests of a suite.

#include <gtest/gtest.h>

#include "Proc/DirectX/Manager/D3D12Device.h"

namespace Norvex::Test {

class DeviceTest : public testing::Test {
protected:
    static void SetUpTestSuite() { s_device = DX::D12Device::CreatePrimary(); }
    static void TearDownTestSuite() { s_device.reset(); }

    static ID3D12Device* Raw() { return s_device->Get(); }
    static CComPtr<ID3D12Device> RawPtr() { return s_device->Get(); }

    static inline boost::intrusive_ptr<DX::D12Device> s_device;
};

} // namespace Norvex::Test
