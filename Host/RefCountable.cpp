#include "Host/RefCountable.h"

namespace Norvex {

std::uint32_t RefCountImpl::AddRef() {
    return m_refCount.fetch_add(1, std::memory_order_relaxed) + 1;
}

std::uint32_t RefCountImpl::GetRefCount() const {
    return m_refCount.load(std::memory_order_relaxed);
}

std::uint32_t RefCountImpl::Release() {
    const std::uint32_t count = DecrementRefCount();
    if (count == 0) {
        // An object that counts its own references has no other owner that could destroy it.
        delete this;
    }
    return count;
}

std::uint32_t RefCountImpl::DecrementRefCount() {
    // Release: what this thread wrote to the object is done before another thread destroys it.
    // Acquire: the destroying thread sees what all the others wrote.
    return m_refCount.fetch_sub(1, std::memory_order_acq_rel) - 1;
}

std::uint32_t RefCountImpl::DecrementUnlessLast() {
    std::uint32_t count = m_refCount.load(std::memory_order_relaxed);
    while (count > 1 &&
           !m_refCount.compare_exchange_weak(count, count - 1, std::memory_order_release,
                                             std::memory_order_relaxed)) {
    }
    return count > 1 ? count - 1 : 0;
}

void intrusive_ptr_add_ref(IRefCountable* object) {
    object->AddRef();
}

void intrusive_ptr_release(IRefCountable* object) {
    object->Release();
}

} // namespace Norvex
