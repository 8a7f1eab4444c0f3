#pragma once

// COM methods that return a structure by value. The C++ calling conventions of the toolchains
// differ for them: under MSVC the method returns the structure, under MinGW the headers declare a
// pointer to the result instead. Every such call goes through one of these functions, never to the
// method itself.

#include "Platform/Direct3D.h"

namespace Norvex::Platform {

#if defined(_MSC_VER) || !defined(_WIN32)
#define NORVEX_RETURN_STRUCT(Type, call, object) return (object)->call()
#else
#define NORVEX_RETURN_STRUCT(Type, call, object)                                                   \
    Type result = {};                                                                              \
    return *(object)->call(&result)
#endif

inline D3D12_RESOURCE_DESC GetDesc(ID3D12Resource* resource) {
    NORVEX_RETURN_STRUCT(D3D12_RESOURCE_DESC, GetDesc, resource);
}

inline D3D12_DESCRIPTOR_HEAP_DESC GetDesc(ID3D12DescriptorHeap* heap) {
    NORVEX_RETURN_STRUCT(D3D12_DESCRIPTOR_HEAP_DESC, GetDesc, heap);
}

inline D3D12_COMMAND_QUEUE_DESC GetDesc(ID3D12CommandQueue* queue) {
    NORVEX_RETURN_STRUCT(D3D12_COMMAND_QUEUE_DESC, GetDesc, queue);
}

inline D3D12_CPU_DESCRIPTOR_HANDLE GetCPUStart(ID3D12DescriptorHeap* heap) {
    NORVEX_RETURN_STRUCT(D3D12_CPU_DESCRIPTOR_HANDLE, GetCPUDescriptorHandleForHeapStart, heap);
}

inline D3D12_GPU_DESCRIPTOR_HANDLE GetGPUStart(ID3D12DescriptorHeap* heap) {
    NORVEX_RETURN_STRUCT(D3D12_GPU_DESCRIPTOR_HANDLE, GetGPUDescriptorHandleForHeapStart, heap);
}

inline LUID GetAdapterLuid(ID3D12Device* device) {
    NORVEX_RETURN_STRUCT(LUID, GetAdapterLuid, device);
}

#undef NORVEX_RETURN_STRUCT

// What a resource of that description takes of a heap.
inline D3D12_RESOURCE_ALLOCATION_INFO GetAllocationInfo(ID3D12Device* device,
                                                        const D3D12_RESOURCE_DESC& desc) {
#if defined(_MSC_VER) || !defined(_WIN32)
    return device->GetResourceAllocationInfo(0, 1, &desc);
#else
    D3D12_RESOURCE_ALLOCATION_INFO result = {};
    return *device->GetResourceAllocationInfo(&result, 0, 1, &desc);
#endif
}

} // namespace Norvex::Platform
