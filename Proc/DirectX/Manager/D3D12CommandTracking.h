#pragma once

// What recorded work keeps alive, each object once: found by a linear search while there are few,
// through a hash index when there are many. Owned by a command list, then by the allocator that
// submitted it. One thread at a time. Throws std::bad_alloc, with nothing changed.

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

#include <boost/container/small_vector.hpp>
#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/RefCountable.h"
#include "Platform/ComPtr.h"

namespace Norvex::DX {

class D12TrackedObjects {
public:
    // Null, and an object already kept, are ignored.
    void Add(ID3D12DeviceChild* object) { AddTo(m_comObjects, object); }
    void Add(IRefCountable* object) { AddTo(m_objects, object); }

    // Never releases the objects: nothing tells when the GPU has finished with them.
    void Abandon() noexcept {
        for (auto& object : m_objects) {
            object.detach();
        }
        for (auto& object : m_comObjects) {
            object.Detach();
        }
    }

private:
    static constexpr std::size_t kFew = 16;    // up to here a linear search is the faster one
    static constexpr std::size_t kInPlace = 8; // without memory of their own: what a draw uses

    template <class Pointer>
    using Kept = boost::container::small_vector<Pointer, kInPlace>;
    using Index = std::vector<const void*>;

    static const void* AddressOf(const CComPtr<ID3D12DeviceChild>& object) { return object.p; }
    static const void* AddressOf(const boost::intrusive_ptr<IRefCountable>& object) {
        return object.get();
    }

    // Where the address is, or the empty slot where it belongs.
    static std::size_t FindSlot(const Index& index, const void* address) {
        // Fibonacci hashing: the low bits of addresses are all the same.
        constexpr std::uint64_t kGoldenRatio = 0x9E3779B97F4A7C15;
        const auto hash = std::uint64_t{reinterpret_cast<std::uintptr_t>(address)} * kGoldenRatio;
        const std::size_t mask = index.size() - 1;
        std::size_t slot = static_cast<std::size_t>(hash >> 32) & mask;
        while (index[slot] != nullptr && index[slot] != address) {
            slot = (slot + 1) & mask;
        }
        return slot;
    }

    template <class Pointer, class Object>
    void AddTo(Kept<Pointer>& kept, Object* object) {
        if (object == nullptr || IsKept(kept, object)) {
            return;
        }
        const std::size_t count = m_comObjects.size() + m_objects.size() + 1;
        if (count > kFew && count * 2 > m_index.size()) {
            MakeIndex(std::bit_ceil(count * 4));
        }
        kept.emplace_back(object);
        if (!m_index.empty()) {
            m_index[FindSlot(m_index, object)] = object;
        }
    }

    template <class Pointer>
    bool IsKept(const Kept<Pointer>& kept, const void* object) const {
        return m_index.empty()
                   ? std::ranges::any_of(
                         kept, [object](const auto& other) { return AddressOf(other) == object; })
                   : m_index[FindSlot(m_index, object)] != nullptr;
    }

    void MakeIndex(std::size_t slots) {
        Index index(slots);
        const auto insert = [&index](const auto& object) {
            index[FindSlot(index, AddressOf(object))] = AddressOf(object);
        };
        std::ranges::for_each(m_comObjects, insert);
        std::ranges::for_each(m_objects, insert);
        m_index.swap(index);
    }

    Kept<CComPtr<ID3D12DeviceChild>> m_comObjects;
    Kept<boost::intrusive_ptr<IRefCountable>> m_objects; // released before the others
    // Addresses of all of them by open addressing, at most half full; empty while there are few.
    Index m_index;
};

} // namespace Norvex::DX
