#pragma once

// Raw Direct3D 11 devices for tests, and fence interfaces where the system has none.

#include <functional>
#include <stdexcept>
#include <vector>

#include "Platform/ComPtr.h"
#include "tests/support/FakeObject.h"
#include "tests/support/ImportPatch.h"
#include "tests/support/MethodPatch.h"

namespace Norvex::Test {

// A new device, none of the library's.
inline CComPtr<ID3D11Device> MakeRawDevice11(D3D_FEATURE_LEVEL level = D3D_FEATURE_LEVEL_11_1) {
    CComPtr<ID3D11Device> device;
    if (FAILED(D3D11CreateDevice(nullptr, D3D_DRIVER_TYPE_HARDWARE, nullptr, 0, &level, 1,
                                 D3D11_SDK_VERSION, &device, nullptr, nullptr))) {
        throw std::runtime_error("no Direct3D 11 device");
    }
    return device;
}

inline CComPtr<ID3D11DeviceContext> GetImmediateContext(ID3D11Device* device) {
    CComPtr<ID3D11DeviceContext> context;
    device->GetImmediateContext(&context);
    return context;
}

// A QueryInterface that answers for one interface: with the fake, or, where that is null, that
// there is none.
template <class Object, class Interface>
class InterfacePatch {
public:
    InterfacePatch(Object* object, FakeObject* fake)
        : m_patch(object, [fake](auto original, Object* self, REFIID riid, void** out) {
              if (!IsEqualGUID(riid, __uuidof(Interface))) {
                  return original(self, riid, out);
              }
              *out = nullptr;
              return fake != nullptr ? fake->GiveTo(out) : E_NOINTERFACE;
          }) {}

private:
    MethodPatch<kQueryInterface, HRESULT(Object*, REFIID, void**)> m_patch;
};

// The fence interfaces of devices and immediate contexts.
class FencePatch {
public:
    FencePatch(ID3D11Device* device, FakeObject* device5, FakeObject* context4)
        : m_device(device, device5),
          m_context(GetImmediateContext(device), context4) {}

private:
    InterfacePatch<ID3D11Device, ID3D11Device5> m_device;
    InterfacePatch<ID3D11DeviceContext, ID3D11DeviceContext4> m_context;
};

// Stands between the library and D3D11CreateDevice. Where the function answers success, the system
// makes the device, without its debug layer.
class CreateDevice11Patch {
public:
    struct Attempt {
        D3D_FEATURE_LEVEL level;
        UINT levelCount;
        UINT flags;

        friend bool operator==(const Attempt&, const Attempt&) = default;
    };

    explicit CreateDevice11Patch(std::function<HRESULT(const Attempt&)> answer)
        : m_answer(std::move(answer)) {
        s_current = this;
    }
    ~CreateDevice11Patch() { s_current = nullptr; }
    CreateDevice11Patch(const CreateDevice11Patch&) = delete;
    CreateDevice11Patch& operator=(const CreateDevice11Patch&) = delete;

    std::vector<Attempt> attempts;

private:
    static HRESULT WINAPI Call(IDXGIAdapter* adapter, D3D_DRIVER_TYPE type, HMODULE module,
                               UINT flags, const D3D_FEATURE_LEVEL* levels, UINT levelCount,
                               UINT version, ID3D11Device** device, D3D_FEATURE_LEVEL* level,
                               ID3D11DeviceContext** context) {
        s_current->attempts.push_back({*levels, levelCount, flags});
        const HRESULT answer = s_current->m_answer(s_current->attempts.back());
        return FAILED(answer) ? answer
                              : D3D11CreateDevice(adapter, type, module,
                                                  flags & ~UINT{D3D11_CREATE_DEVICE_DEBUG}, levels,
                                                  levelCount, version, device, level, context);
    }

    static inline CreateDevice11Patch* s_current = nullptr;

    std::function<HRESULT(const Attempt&)> m_answer;
    ImportPatch m_patch{L"NorvexDX.dll", "D3D11CreateDevice", &Call};
};

} // namespace Norvex::Test
