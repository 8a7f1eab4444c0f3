#pragma once

// What a piece of work has the library's DLL do on the thread that calls: memory taken from
// operator new, locks taken, and Direct3D objects made. Not nested; nothing else replaces these
// calls meanwhile.

#include <atomic>
#include <cstddef>
#include <initializer_list>
#include <stdexcept>
#include <utility>

#include "tests/support/MethodPatch.h"

namespace Norvex::Test {

struct CallCounts {
    unsigned allocations = 0;
    unsigned locks = 0;
    unsigned objects = 0;
};

// The place of the first of these functions that the library imports, since runtimes differ; null
// for none.
inline void** FindLibraryImport(std::initializer_list<const char*> names) {
    for (const char* const name : names) {
        try {
            return FindImport(L"NorvexDX.dll", name);
        } catch (const std::runtime_error&) {
            continue;
        }
    }
    return nullptr;
}

// Counts this thread's calls of an imported function, if there is one. What other threads may be
// inside of at the end stays usable.
template <int id, class Signature>
class ImportCount;

template <int id, class Result, class... Args>
class ImportCount<id, Result(Args...)> : boost::noncopyable {
public:
    ImportCount(void** entry, unsigned& count) : m_entry(entry), m_count(count) {
        s_thread = GetCurrentThreadId();
        if (m_entry != nullptr) {
            s_original = reinterpret_cast<Original>(*m_entry);
            StoreProtected(m_entry, reinterpret_cast<void*>(&Call));
        }
    }
    ~ImportCount() {
        if (m_entry != nullptr) {
            StoreProtected(m_entry, reinterpret_cast<void*>(s_original.load()));
        }
        m_count += std::exchange(s_calls, 0);
    }

private:
    using Original = Result (*)(Args...);

    static Result Call(Args... args) {
        if (s_thread == GetCurrentThreadId()) {
            ++s_calls;
        }
        return s_original.load()(args...);
    }

    static inline std::atomic<Original> s_original = nullptr;
    static inline std::atomic<DWORD> s_thread = 0;
    static inline unsigned s_calls = 0; // that thread's alone

    void** m_entry;
    unsigned& m_count;
};

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
    {
        const CountedObjects objects(device, counts.objects);
        const ImportCount<0, void*(std::size_t)> memory(FindLibraryImport({"_Znwy", "malloc"}),
                                                        counts.allocations);
        const ImportCount<1, void(void*)> locks(
            FindLibraryImport({"AcquireSRWLockExclusive", "_Mtx_lock"}), counts.locks);
        const ImportCount<2, void(void*)> recursive(FindLibraryImport({"EnterCriticalSection"}),
                                                    counts.locks);
        work();
    }
    return counts;
}

} // namespace Norvex::Test
