#pragma once

// Tells whether a Direct3D object is still alive: the object holds a reference on a token until it
// is destroyed. The probe does not keep the object alive, and either may go first. Any thread. Link
// ole32.

#include <stdexcept>

#include "Platform/ComPtr.h"

namespace Norvex::Test {

class LifeProbe {
public:
    // Of a device, or what a device made; a pointer of any kind.
    template <class Pointer>
    explicit LifeProbe(const Pointer& object) {
        // Any COM object serves as the token; a stream is the simplest to have.
        if (FAILED(CreateStreamOnHGlobal(nullptr, TRUE, &m_token)) ||
            FAILED(object->SetPrivateDataInterface(__uuidof(IStream), m_token))) {
            throw std::runtime_error("the object cannot be watched");
        }
    }

    bool IsAlive() const {
        m_token.p->AddRef();
        return m_token.p->Release() > 1;
    }

private:
    CComPtr<IStream> m_token;
};

} // namespace Norvex::Test
