#pragma once

// What devices and pools tell of themselves, at a moment: GetStatistics(). Plain values. Taking
// them costs microseconds and disturbs nobody; any thread.

#include <cstddef>
#include <cstdint>
#include <optional>

namespace Norvex::DX {

// Of a part of an adapter's memory, in bytes, as IDXGIAdapter3::QueryVideoMemoryInfo tells.
struct VideoMemory {
    std::uint64_t budget = 0; // that the process should keep within
    std::uint64_t usage = 0;  // of the process, by whomever in it
    // What may still be reserved.
    std::uint64_t availableForReservation = 0;
    // What the process has reserved.
    std::uint64_t reservation = 0;
};

struct DeviceStatistics {
    // References on the device: the caller's, and at least one for each library object on it.
    std::uint32_t references = 0;
    // Of the adapter, and of the system as far as the adapter uses it; empty before Windows 10.
    std::optional<VideoMemory> localMemory;
    // What the adapter uses of the system.
    std::optional<VideoMemory> systemMemory;
};

struct PoolStatistics {
    // Handed out.
    std::size_t inUse = 0;
    std::size_t idle = 0; // kept for reuse
    // Of buffers and textures; 0 for what has no memory of its own.
    std::uint64_t bytesInUse = 0;
    // Of what is idle.
    std::uint64_t bytesIdle = 0;
};

struct D12DeviceStatistics : DeviceStatistics {
    PoolStatistics uploadBuffers; // of the device's own pools
    // Of the device's own pools.
    PoolStatistics readbackBuffers;
    PoolStatistics descriptorHeaps; // with those that one-off views share
    // With those that single queries share.
    PoolStatistics queryHeaps;
    // With those whose work the GPU still does.
    PoolStatistics commandAllocators;
    // The same of lists.
    PoolStatistics commandLists;
};

// What the device's pools hold for reuse.
struct D12PoolSizes {
    // Idle.
    std::size_t commandAllocators = 0;
    // Idle.
    std::size_t commandLists = 0;
    // Free.
    std::size_t descriptorHeaps = 0;
    std::size_t buffers = 0; // for uploading and reading back
    // Of all of them.
    std::uint64_t bufferBytes = 0;
    // Free.
    std::size_t queryHeaps = 0;
};

} // namespace Norvex::DX
