#pragma once

// CComPtr, the owning reference to a COM interface. ATL's own where the toolchain has ATL;
// elsewhere this stand-in with the same name, layout, members and semantics, as far as the library
// and its hosts use them. As with ATL's there is no conversion from a CComPtr of another interface:
// pass its raw pointer. Not thread-safe, like ATL's: one CComPtr object is used by one thread at a
// time.

#include "Platform/Abi.h"
#include "Platform/Direct3D.h"

#if NORVEX_HAS_ATL

#include <atlbase.h>

#else

#include <cassert>
#include <utility>

#include <combaseapi.h>

namespace ATL { // the exported functions then have the names that they have with ATL

template <class T>
class CComPtr {
public:
    CComPtr() noexcept = default;
    CComPtr(T* other) noexcept : p(other) { AddRefIfSet(); }
    CComPtr(const CComPtr& other) noexcept : CComPtr(other.p) {}
    CComPtr(CComPtr&& other) noexcept : p(std::exchange(other.p, nullptr)) {}
    ~CComPtr() { Release(); }

    CComPtr& operator=(T* other) noexcept {
        CComPtr(other).Swap(*this);
        return *this;
    }
    // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): copy and swap handles it
    CComPtr& operator=(const CComPtr& other) noexcept {
        CComPtr(other).Swap(*this);
        return *this;
    }
    CComPtr& operator=(CComPtr&& other) noexcept {
        CComPtr(std::move(other)).Swap(*this);
        return *this;
    }

    operator T*() const noexcept { return p; }
    T& operator*() const noexcept { return *p; }
    T* operator->() const noexcept { return p; }
    bool operator!() const noexcept { return p == nullptr; }

    // The address to receive an interface through; the pointer must be empty, or its reference
    // would leak.
    T** operator&() noexcept {
        assert(p == nullptr);
        return &p;
    }

    void Release() noexcept {
        if (T* held = std::exchange(p, nullptr)) {
            held->Release();
        }
    }
    void Attach(T* other) noexcept {
        Release();
        p = other;
    }
    T* Detach() noexcept { return std::exchange(p, nullptr); }

    HRESULT CopyTo(T** out) const noexcept {
        if (out == nullptr) {
            return E_POINTER;
        }
        AddRefIfSet();
        *out = p;
        return S_OK;
    }
    template <class Q>
    HRESULT QueryInterface(Q** out) const noexcept {
        return p->QueryInterface(__uuidof(Q), reinterpret_cast<void**>(out));
    }
    bool IsEqualObject(IUnknown* other) const noexcept {
        if (p == nullptr || other == nullptr) {
            return p == nullptr && other == nullptr;
        }
        CComPtr<IUnknown> mine;
        CComPtr<IUnknown> theirs;
        p->QueryInterface(__uuidof(IUnknown), reinterpret_cast<void**>(&mine));
        other->QueryInterface(__uuidof(IUnknown), reinterpret_cast<void**>(&theirs));
        return mine.p == theirs.p;
    }
    HRESULT CoCreateInstance(REFCLSID classId, IUnknown* outer = nullptr,
                             DWORD context = CLSCTX_ALL) noexcept {
        return ::CoCreateInstance(classId, outer, context, __uuidof(T),
                                  reinterpret_cast<void**>(&p));
    }
    void Swap(CComPtr& other) noexcept { std::swap(p, other.p); }

    T* p = nullptr;

private:
    void AddRefIfSet() const noexcept {
        if (p != nullptr) {
            p->AddRef();
        }
    }
};

} // namespace ATL

using ATL::CComPtr;

#endif

namespace Norvex::Platform {

// Another interface of the object; null where it has none, and for null.
template <class To>
CComPtr<To> Query(IUnknown* from) {
    CComPtr<To> to;
    if (from != nullptr) {
        from->QueryInterface(__uuidof(To), reinterpret_cast<void**>(&to));
    }
    return to;
}

} // namespace Norvex::Platform
