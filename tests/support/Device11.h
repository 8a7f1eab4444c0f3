#pragma once

// Raw Direct3D 11 devices for tests, and fence interfaces where the system has none.

#include <functional>

#include <gtest/gtest.h>

#include "Platform/ComPtr.h"
#include "tests/support/FakeObject.h"

namespace Norvex::Test {

// A new device, none of the library's.
inline CComPtr<ID3D11Device> MakeRawDevice11(D3D_FEATURE_LEVEL level = D3D_FEATURE_LEVEL_11_1) {
    CComPtr<ID3D11Device> device;
    EXPECT_EQ(D3D11CreateDevice(nullptr, D3D_DRIVER_TYPE_HARDWARE, nullptr, 0, &level, 1,
                                D3D11_SDK_VERSION, &device, nullptr, nullptr),
              S_OK);
    return device;
}

inline CComPtr<ID3D11DeviceContext> GetImmediateContext(ID3D11Device* device) {
    CComPtr<ID3D11DeviceContext> context;
    device->GetImmediateContext(&context);
    return context;
}

// A QueryInterface that answers for some interfaces: with the fake, or, while that is null, that
// there is none.
template <class Object, class... Interfaces>
struct InterfacePatch : MethodPatch<kQueryInterface, HRESULT(Object*, REFIID, void**)> {
    InterfacePatch(Object* object, FakeObject* answer)
        : InterfacePatch::MethodPatch(object,
                                      [this](auto original, Object* self, REFIID riid, void** out) {
                                          if (!(IsEqualGUID(riid, __uuidof(Interfaces)) || ...)) {
                                              return original(self, riid, out);
                                          }
                                          *out = nullptr;
                                          return fake != nullptr ? fake->GiveTo(out)
                                                                 : E_NOINTERFACE;
                                      }),
          fake(answer) {}

    FakeObject* fake;
};

// Stands between the library and D3D11CreateDevice, which is asked for one level at a time. Where
// the function answers success, the system makes the device.
struct CreateDevice11Patch : MethodPatch<0, decltype(D3D11CreateDevice)> {
    explicit CreateDevice11Patch(std::function<HRESULT(D3D_FEATURE_LEVEL, UINT flags)> answer)
        : MethodPatch(FindImport(L"NorvexDX.dll", "D3D11CreateDevice"),
                      [answer](auto original, auto* adapter, auto type, auto module, UINT flags,
                               const auto* levels, auto... rest) {
                          const HRESULT result = answer(*levels, flags);
                          return FAILED(result)
                                     ? result
                                     : original(adapter, type, module, flags, levels, rest...);
                      }) {}
};

} // namespace Norvex::Test
