#pragma once

// Declares CComPtr as ATL does, with its documented members and no more, so that what ATL would
// refuse is refused here.

#include <objbase.h>

namespace ATL {

// What operator-> gives: the counting belongs to the pointer.
template <class T>
class _NoAddRefReleaseOnCComPtr : public T {
private:
    virtual ULONG STDMETHODCALLTYPE AddRef() = 0;
    virtual ULONG STDMETHODCALLTYPE Release() = 0;
};

template <class T>
class CComPtrBase {
public:
    ~CComPtrBase();
    operator T*() const;
    T& operator*() const;
    T** operator&();
    _NoAddRefReleaseOnCComPtr<T>* operator->() const;
    bool operator!() const;
    bool operator<(T* other) const;
    bool operator!=(T* other) const;
    bool operator==(T* other) const;
    HRESULT Advise(IUnknown* sink, const IID& iid, DWORD* cookie);
    void Attach(T* other);
    HRESULT CoCreateInstance(REFCLSID classId, IUnknown* outer = nullptr,
                             DWORD context = CLSCTX_ALL);
    HRESULT CoCreateInstance(LPCOLESTR programId, IUnknown* outer = nullptr,
                             DWORD context = CLSCTX_ALL);
    HRESULT CopyTo(T** out);
    T* Detach();
    bool IsEqualObject(IUnknown* other);
    template <class Q>
    HRESULT QueryInterface(Q** out) const;
    void Release();
    HRESULT SetSite(IUnknown* parent);

    T* p;

protected:
    CComPtrBase();
    CComPtrBase(T* other);
    void Swap(CComPtrBase& other);
};

template <class T>
class CComPtr : public CComPtrBase<T> {
public:
    CComPtr();
    CComPtr(T* other);
    CComPtr(const CComPtr& other);
    CComPtr(CComPtr&& other);
    T* operator=(T* other);
    T* operator=(const CComPtr& other);
    T* operator=(CComPtr&& other);
    template <class Q>
    T* operator=(const CComPtr<Q>& other); // asks for the interface
};

} // namespace ATL

using namespace ATL;
