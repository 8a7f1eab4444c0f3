#pragma once

// The base of tests that use a real device: one for all tests of a suite, and the proof at the
// suite's end that nothing outlived it.

#include <memory>
#include <utility>

#include <gtest/gtest.h>

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

// A device with a queue.
class DeviceTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_canvas = std::make_unique<Canvas>();
        s_device = s_canvas->GetDevice();
    }
    static void TearDownTestSuite() {
        s_canvas.reset();
        ReleaseLast(std::move(s_device));
    }

    static ID3D12Device* Raw() { return s_device->Get(); }
    static const boost::intrusive_ptr<DX::D12Device>& Device() { return s_device; }
    static const boost::intrusive_ptr<DX::D12CommandQueue>& Queue() { return s_canvas->GetQueue(); }

    static inline std::unique_ptr<Canvas> s_canvas;
    static inline boost::intrusive_ptr<DX::D12Device> s_device;
};
using CanvasTest = DeviceTest;

} // namespace Norvex::Test
