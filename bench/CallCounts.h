#pragma once

// What a piece of work has the library's DLL do on the thread that calls: memory taken from
// operator new, locks taken, and Direct3D objects made. Not nested; nothing else replaces these
// calls meanwhile.

#include <cstddef>
#include <initializer_list>
#include <stdexcept>

#include "tests/support/MethodPatch.h"

namespace Norvex::Test {

struct CallCounts {
    unsigned allocations = 0;
    unsigned locks = 0;
    unsigned objects = 0;
};

// The place of the first of these functions that the library imports: runtimes differ.
inline void** FindLibraryImport(std::initializer_list<const char*> names) {
    for (const char* const name : names) {
        try {
            return FindImport(L"NorvexDX.dll", name);
        } catch (const std::runtime_error&) {
            continue;
        }
    }
    throw std::runtime_error("the library imports none of these functions");
}

inline auto MakeCounting(unsigned& count) {
    return [&count, thread = GetCurrentThreadId()](auto original, auto... all) {
        count += thread == GetCurrentThreadId() ? 1 : 0;
        return original(all...);
    };
}

template <auto... methods>
struct CountedMethods : MethodPatch<methods>... {
    CountedMethods(IUnknown* object, unsigned& count)
        : MethodPatch<methods>(object, MakeCounting(count))... {}
};

using CountedObjects12 =
    CountedMethods<&ID3D12Device::CreateCommandAllocator, &ID3D12Device::CreateCommandList,
                   &ID3D12Device::CreateCommandQueue, &ID3D12Device::CreateCommittedResource,
                   &ID3D12Device::CreateDescriptorHeap, &ID3D12Device::CreateFence,
                   &ID3D12Device::CreateGraphicsPipelineState, &ID3D12Device::CreateQueryHeap,
                   &ID3D12Device::CreateRootSignature>;
using CountedObjects11 =
    CountedMethods<&ID3D11Device::CreateBuffer, &ID3D11Device::CreateTexture2D,
                   &ID3D11Device::CreateShaderResourceView, &ID3D11Device::CreateRenderTargetView,
                   &ID3D11Device::CreateBlendState, &ID3D11Device::CreateRasterizerState,
                   &ID3D11Device::CreateDepthStencilState, &ID3D11Device::CreateSamplerState>;

template <class CountedObjects, class Work>
CallCounts CountCalls(IUnknown* device, const Work& work) {
    CallCounts counts;
    const CountedObjects objects(device, counts.objects);
    const MethodPatch<0, void*(std::size_t)> memory(FindLibraryImport({"_Znwy", "malloc"}),
                                                    MakeCounting(counts.allocations));
    const MethodPatch<0, int(void*)> locks(FindLibraryImport({"pthread_mutex_lock", "_Mtx_lock"}),
                                           MakeCounting(counts.locks));
    work();
    return counts;
}

} // namespace Norvex::Test
