#include "tests/support/FakeObject.h"

namespace Norvex::Test {

FakeObject::FakeObject() {
    m_table = m_methods.data();
    for (std::size_t slot = 0; slot < kMaxMethods; ++slot) {
        Set(slot, [](FakeObject*) -> HRESULT { return E_NOTIMPL; });
    }
    Set(0, [](FakeObject*, REFIID, void** out) -> HRESULT {
        *out = nullptr;
        return E_NOINTERFACE;
    });
    Set(1, [](FakeObject* self) { return static_cast<ULONG>(++self->m_references); });
    Set(2, [](FakeObject* self) { return static_cast<ULONG>(--self->m_references); });
}

HRESULT FakeObject::GiveTo(void** out) {
    ++m_references;
    *out = this;
    return S_OK;
}

void FakeObject::Store(std::size_t slot, void* method) {
    m_methods.at(slot) = method;
}

} // namespace Norvex::Test
