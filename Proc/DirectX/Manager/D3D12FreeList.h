#pragma once

// Resources that wait to be used again, internal to the pools of buffers and of textures. Each is
// kept for 2 s, then freed by a timer that looks every 2 s while there are any. Any thread;
// resources are released outside the lock.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <utility>

#include "Host/WaitableTimer.h"
#include "Platform/ComPtr.h"
#include "Platform/Mutex.h"
#include "Proc/DirectX/Manager/Statistics.h"

namespace Norvex::DX {

class D12FreeList {
public:
    enum class End : int { Oldest, Newest };

    D12FreeList();

    // Counts one of that size as in use, which Put will end.
    void CountLent(std::uint64_t size) noexcept;
    // As the newest of its size. Out of memory it is freed instead.
    void Put(std::uint64_t size, const CComPtr<ID3D12Resource>& resource) noexcept;
    // Null when there is none of that size.
    CComPtr<ID3D12Resource> Take(std::uint64_t size, End end);
    // Frees all of them and stops the timer.
    void Clear();
    PoolStatistics GetStatistics() const;

private:
    using Clock = std::chrono::steady_clock;

    struct Entry {
        CComPtr<ID3D12Resource> resource;
        Clock::time_point expiry;
    };
    using Entries = std::list<Entry>;

    void FreeExpired();
    // A few of those that expired before `now`; stops the timer when nothing is left at all.
    Entries TakeExpired(Clock::time_point now);

    std::atomic<std::size_t> m_lent{0};
    std::atomic<std::uint64_t> m_lentBytes{0};
    mutable Platform::Mutex m_lock;             // guards the lists, start and stop of the timer
    std::map<std::uint64_t, Entries> m_entries; // by size, oldest first
    Core::WaitableTimer m_timer;                // last: its callback uses all of the above
};

} // namespace Norvex::DX
