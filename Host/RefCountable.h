#pragma once

// Intrusive reference counting of every object that crosses the library's border. An object is born
// with count 0 and is owned by the boost::intrusive_ptr objects that hold it; the last one destroys
// it. All operations are thread-safe; the object's own operations are not made so by this.

#include <atomic>
#include <cstdint>

#include "Platform/Export.h"

namespace Norvex {

class NORVEX_HOST_API IRefCountable {
public:
    virtual ~IRefCountable() = default;

    // Adds a reference; returns the new count.
    virtual std::uint32_t AddRef() = 0;
    // The count at this moment; for diagnostics, since another thread may change it at once.
    virtual std::uint32_t GetRefCount() const = 0;
    // Drops a reference; returns the new count. At 0 the object is gone.
    virtual std::uint32_t Release() = 0;

protected:
    IRefCountable() = default;
    IRefCountable(const IRefCountable&) = default;
    IRefCountable& operator=(const IRefCountable&) = default;
};

// The usual implementation: an atomic count, destruction by the last Release. A copy is a new
// object and starts with its own count of 0; assignment leaves both counts alone.
class NORVEX_HOST_API RefCountImpl : public IRefCountable {
public:
    std::uint32_t AddRef() override;
    std::uint32_t GetRefCount() const override;
    std::uint32_t Release() override;

protected:
    RefCountImpl() = default;
    // A new object: its count is 0.
    RefCountImpl(const RefCountImpl&) : IRefCountable() {}
    // Leaves the count alone.
    RefCountImpl& operator=(const RefCountImpl&) { return *this; }

    // For classes whose Release does more: drops a reference without destroying; returns the new
    // count.
    std::uint32_t DecrementRefCount();
    // The same unless it is the last reference, which then stays: returns 0 for that one.
    std::uint32_t DecrementUnlessLast();

private:
    std::atomic<std::uint32_t> m_refCount{0};
};

// What boost::intrusive_ptr calls, found by argument-dependent look-up.
NORVEX_HOST_API void intrusive_ptr_add_ref(IRefCountable* object);
// Drops a reference.
NORVEX_HOST_API void intrusive_ptr_release(IRefCountable* object);

} // namespace Norvex
