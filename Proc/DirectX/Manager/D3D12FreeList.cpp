#include "Proc/DirectX/Manager/D3D12FreeList.h"

#include <iterator>
#include <new>

namespace Norvex::DX {

namespace {

constexpr std::chrono::seconds kReusablePeriod{2};
constexpr std::chrono::milliseconds kLookPeriod{2000};

} // namespace

D12FreeList::D12FreeList() : m_timer([this] { FreeExpired(); }) {}

void D12FreeList::CountLent(std::uint64_t size) noexcept {
    m_lent.fetch_add(1, std::memory_order_relaxed);
    m_lentBytes.fetch_add(size, std::memory_order_relaxed);
}

void D12FreeList::Put(std::uint64_t size, const CComPtr<ID3D12Resource>& resource) noexcept {
    m_lent.fetch_sub(1, std::memory_order_relaxed);
    m_lentBytes.fetch_sub(size, std::memory_order_relaxed);
    try {
        Entries entry(1, {resource, {}});
        const std::scoped_lock lock(m_lock);
        Entries& entries = m_entries[size];
        entry.front().expiry = Clock::now() + kReusablePeriod;
        entries.splice(entries.end(), entry);
        if (!m_timer.IsRunning()) {
            m_timer.StartPeriodic(kLookPeriod);
        }
    } catch (const std::bad_alloc&) {
        return;
    }
}

CComPtr<ID3D12Resource> D12FreeList::Take(std::uint64_t size, End end) {
    const std::scoped_lock lock(m_lock);
    const auto found = m_entries.find(size);
    if (found == m_entries.end() || found->second.empty()) {
        return nullptr;
    }
    Entries& entries = found->second;
    const auto entry = end == End::Newest ? std::prev(entries.end()) : entries.begin();
    CComPtr<ID3D12Resource> resource = std::move(entry->resource);
    entries.erase(entry);
    return resource;
}

// In portions, each released after the lock: who wants a resource meanwhile waits for none of it.
void D12FreeList::FreeExpired() {
    const auto now = Clock::now();
    while (!TakeExpired(now).empty()) {
    }
}

D12FreeList::Entries D12FreeList::TakeExpired(Clock::time_point now) {
    constexpr std::size_t kMostAtOnce = 64;
    Entries expired;
    const std::scoped_lock lock(m_lock);
    bool isEmpty = true;
    for (auto& [size, entries] : m_entries) {
        while (expired.size() < kMostAtOnce && !entries.empty() && entries.front().expiry <= now) {
            expired.splice(expired.end(), entries, entries.begin());
        }
        isEmpty = isEmpty && entries.empty();
    }
    if (isEmpty) {
        m_timer.Stop();
    }
    return expired;
}

void D12FreeList::Clear() {
    std::map<std::uint64_t, Entries> released; // after the lock
    const std::scoped_lock lock(m_lock);
    m_timer.Stop();
    released.swap(m_entries);
}

PoolStatistics D12FreeList::GetStatistics() const {
    PoolStatistics statistics;
    statistics.inUse = m_lent;
    statistics.bytesInUse = m_lentBytes;
    const std::scoped_lock lock(m_lock);
    for (const auto& [size, entries] : m_entries) {
        statistics.idle += entries.size();
        statistics.bytesIdle += entries.size() * size;
    }
    return statistics;
}

} // namespace Norvex::DX
