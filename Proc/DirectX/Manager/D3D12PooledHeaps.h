#pragma once

// What the pools of descriptor heaps and of query heaps have in common, internal: the Direct3D
// heaps of dead wrappers, kept for reuse, and one heap a type that single slots are taken from. Raw
// is the Direct3D heap, Heap the wrapper with slots. Any thread. The lock of the shared heaps is
// held over the whole making of what lives in a slot; the other two (free heaps, slots) are taken
// inside it.

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <mutex>
#include <new>
#include <unordered_map>
#include <utility>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Platform/ComPtr.h"
#include "Platform/Mutex.h"
#include "Proc/DirectX/Manager/SlotBitmap.h"
#include "Proc/DirectX/Manager/Statistics.h"

namespace Norvex::DX {

template <class Raw, class Heap>
class D12PooledHeaps {
public:
    static constexpr unsigned kSharedCapacity = 64;

    // The smallest sufficient one of those that were put under the key, else what make(capacity)
    // makes, which is called without a lock.
    template <class Make>
    CComPtr<Raw> Take(std::uint32_t key, unsigned count, const Make& make) {
        {
            const std::scoped_lock lock(m_freeMutex);
            auto found = m_free.lower_bound({key, count});
            for (; found != m_free.end() && found->first.first == key; ++found) {
                auto& heaps = found->second;
                if (!heaps.empty()) {
                    CComPtr<Raw> heap = std::move(heaps.back());
                    heaps.pop_back();
                    return heap;
                }
            }
        }
        return make(CapacityFor(count));
    }

    // Counts the heap of a wrapper that has been made as in use, which Put will end.
    template <class Wrapper>
    boost::intrusive_ptr<Wrapper> Lend(Wrapper* wrapper) {
        m_lent.fetch_add(1, std::memory_order_relaxed);
        return boost::intrusive_ptr<Wrapper>(wrapper);
    }

    // Out of memory it is freed instead.
    void Put(std::uint32_t key, unsigned capacity, const CComPtr<Raw>& heap) noexcept {
        m_lent.fetch_sub(1, std::memory_order_relaxed);
        try {
            const std::scoped_lock lock(m_freeMutex);
            m_free[std::pair(key, capacity)].push_back(heap);
        } catch (const std::bad_alloc&) {
            return;
        }
    }

    std::size_t CountFree() const {
        const std::scoped_lock lock(m_freeMutex);
        std::size_t count = 0;
        for (const auto& [kind, heaps] : m_free) {
            count += heaps.size();
        }
        return count;
    }

    PoolStatistics GetStatistics() const {
        PoolStatistics statistics;
        statistics.inUse = m_lent;
        statistics.idle = CountFree();
        return statistics;
    }

    // Calls use(Heap&) with the shared heap of the key.
    template <class Pool, class Make, class Use>
    auto UseShared(std::uint32_t key, Pool* pool, const Make& make, const Use& use) {
        const std::scoped_lock lock(m_sharedMutex);
        return use(GetSharedHeap(key, pool, make));
    }

private:
    // make() replaces one that is full; the lock is held. It has no pool while it is here, since
    // pool and heap would keep each other alive for ever; when it is replaced it gets it, so that
    // its last slot may have it recycled.
    template <class Pool, class Make>
    Heap& GetSharedHeap(std::uint32_t key, Pool* pool, const Make& make) {
        boost::intrusive_ptr<Heap>& shared = m_shared[key];
        if (shared == nullptr || !shared->m_slots->HasFree()) {
            boost::intrusive_ptr<Heap> heap = make();
            if (shared != nullptr) {
                shared->m_pool = pool;
            }
            shared = std::move(heap);
        }
        return *shared;
    }

    // Up to whole words of a slot bitmap; near the largest count the device is left to refuse.
    static constexpr unsigned CapacityFor(unsigned count) {
        constexpr unsigned kUnit = SlotBitmap::kBitsPerWord;
        const std::uint64_t units = (std::uint64_t{count} + kUnit - 1) / kUnit;
        return static_cast<unsigned>(
            std::min<std::uint64_t>(units * kUnit, std::numeric_limits<unsigned>::max()));
    }

    std::atomic<std::size_t> m_lent{0}; // with the shared ones
    mutable Platform::Mutex m_freeMutex;
    // By key and capacity; sizes that are used again and again need no memory of their own.
    std::map<std::pair<std::uint32_t, unsigned>, std::vector<CComPtr<Raw>>> m_free;
    Platform::Mutex m_sharedMutex;
    std::unordered_map<std::uint32_t, boost::intrusive_ptr<Heap>> m_shared;
};

} // namespace Norvex::DX
