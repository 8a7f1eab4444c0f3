#pragma once

// Bases of tests that use a real device: one device for all tests of a suite, and the proof at the
// suite's end that nothing outlived it.

#include <memory>
#include <utility>

#include <gtest/gtest.h>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "tests/support/Canvas.h"

namespace Norvex::Test {

// Drops the test's reference on the device, once the background threads have dropped theirs, and
// expects it to be the last, and the test to be the last that holds the Direct3D device.
template <class Device>
void ReleaseLast(boost::intrusive_ptr<Device> device) {
    ASSERT_NE(device, nullptr);
    DX::D12CommandAllocator::WaitAllComplete();
    EXPECT_EQ(device->GetRefCount(), 1u) << "a library object holds the device";
    const CComPtr raw(device->Get());
    device.reset();
    EXPECT_EQ((raw.p->AddRef(), raw.p->Release()), 1u) << "a Direct3D object holds the device";
}

template <class Device>
class DeviceTestOf : public testing::Test {
protected:
    static void SetUpTestSuite() { s_device = Device::CreatePrimary(); }
    static void TearDownTestSuite() { ReleaseLast(std::move(s_device)); }

    static auto* Raw() { return s_device->Get(); }

    static inline boost::intrusive_ptr<Device> s_device;
};

using DeviceTest = DeviceTestOf<DX::D12Device>;
using Device11Test = DeviceTestOf<DX::D11Device>;

// For tests that record: a device with a queue.
class CanvasTest : public DeviceTest {
protected:
    static void SetUpTestSuite() {
        DeviceTest::SetUpTestSuite();
        s_canvas = std::make_unique<Canvas>();
    }
    static void TearDownTestSuite() {
        s_canvas.reset();
        DeviceTest::TearDownTestSuite();
    }

    static const boost::intrusive_ptr<DX::D12Device>& Device() { return s_device; }
    static const boost::intrusive_ptr<DX::D12CommandQueue>& Queue() { return s_canvas->GetQueue(); }

    static inline std::unique_ptr<Canvas> s_canvas;
};

} // namespace Norvex::Test
