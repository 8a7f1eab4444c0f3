#pragma once

// Puts a function of the test in the place of one COM method, for as long as the patch lives. All
// objects of the class share the method table, so the others are patched too. Patches of one method
// do not nest. The function gets the object as first argument, after `original`; it may run on any
// thread.

#include <cstddef>
#include <functional>
#include <stdexcept>
#include <utility>

#include "Platform/Direct3D.h"

namespace Norvex::Test {

// Positions in the method tables, as the interfaces' declarations order them.
namespace Slot {
constexpr std::size_t kQueryInterface = 0;
constexpr std::size_t kAdapterGetDesc1 = 10;
constexpr std::size_t kCommandAllocatorReset = 8;
constexpr std::size_t kContext11Map = 14;
constexpr std::size_t kContext11IASetVertexBuffers = 18;
constexpr std::size_t kContext11Flush = 111;
constexpr std::size_t kContext11Signal = 147;
constexpr std::size_t kContext11Wait = 148;
constexpr std::size_t kDevice11CreateBuffer = 3;
constexpr std::size_t kDevice11CreateTexture2D = 5;
constexpr std::size_t kDevice11CreateShaderResourceView = 7;
constexpr std::size_t kDevice11CreateRenderTargetView = 9;
constexpr std::size_t kDevice11CreateDepthStencilView = 10;
constexpr std::size_t kDevice11CreateInputLayout = 11;
constexpr std::size_t kDevice11CreateVertexShader = 12;
constexpr std::size_t kDevice11CreatePixelShader = 15;
constexpr std::size_t kDevice11CreateBlendState = 20;
constexpr std::size_t kDevice11CreateDepthStencilState = 21;
constexpr std::size_t kDevice11CreateRasterizerState = 22;
constexpr std::size_t kDevice11CreateSamplerState = 23;
constexpr std::size_t kDevice11CheckFormatSupport = 29;
constexpr std::size_t kDevice11GetCreationFlags = 38;
constexpr std::size_t kDevice11GetDeviceRemovedReason = 39;
constexpr std::size_t kDevice11OpenSharedFence = 67;
constexpr std::size_t kDeviceCreateCommandAllocator = 9;
constexpr std::size_t kDeviceCreateCommandList = 12;
constexpr std::size_t kDeviceCheckFeatureSupport = 13;
constexpr std::size_t kDeviceCreateDescriptorHeap = 14;
constexpr std::size_t kDeviceCreateRootSignature = 16;
constexpr std::size_t kDeviceCreateConstantBufferView = 17;
constexpr std::size_t kDeviceCreateShaderResourceView = 18;
constexpr std::size_t kDeviceCreateUnorderedAccessView = 19;
constexpr std::size_t kDeviceCreateRenderTargetView = 20;
constexpr std::size_t kDeviceCreateDepthStencilView = 21;
constexpr std::size_t kDeviceCreateSampler = 22;
constexpr std::size_t kDeviceCopyDescriptorsSimple = 24;
constexpr std::size_t kDeviceCreateCommittedResource = 27;
constexpr std::size_t kDeviceCreateSharedHandle = 31;
constexpr std::size_t kDeviceCreateFence = 36;
constexpr std::size_t kDeviceGetDeviceRemovedReason = 37;
constexpr std::size_t kDeviceCreateQueryHeap = 39;
constexpr std::size_t kDevice4CreateCommandList1 = 51;
constexpr std::size_t kDxgiDeviceGetAdapter = 7;
constexpr std::size_t kFactoryEnumAdapters1 = 12;
constexpr std::size_t kFenceSetEventOnCompletion = 9;
constexpr std::size_t kInfoQueueClearStoredMessages = 4; // of both generations, as the next two
constexpr std::size_t kInfoQueueGetMessage = 5;
constexpr std::size_t kInfoQueueGetNumStoredMessages = 9;
constexpr std::size_t kKeyedMutexAcquireSync = 8;
constexpr std::size_t kKeyedMutexReleaseSync = 9;
constexpr std::size_t kListClose = 9;
constexpr std::size_t kListCopyBufferRegion = 15;
constexpr std::size_t kListRSSetViewports = 21;
constexpr std::size_t kListRSSetScissorRects = 22;
constexpr std::size_t kListResourceBarrier = 26;
constexpr std::size_t kListSetDescriptorHeaps = 28;
constexpr std::size_t kListSetGraphicsRootSignature = 30;
constexpr std::size_t kListSetGraphicsRootDescriptorTable = 32;
constexpr std::size_t kListSetGraphicsRoot32BitConstants = 36;
constexpr std::size_t kListSetGraphicsRootConstantBufferView = 38;
constexpr std::size_t kListSetGraphicsRootShaderResourceView = 40;
constexpr std::size_t kListSetGraphicsRootUnorderedAccessView = 42;
constexpr std::size_t kQueueExecuteCommandLists = 10;
constexpr std::size_t kQueueSignal = 14;
constexpr std::size_t kQueueWait = 15;
constexpr std::size_t kResourceMap = 8;
constexpr std::size_t kResourceUnmap = 9;
constexpr std::size_t kResourceGetDesc = 10;
constexpr std::size_t kResource1CreateSharedHandle = 13;
} // namespace Slot

template <std::size_t slot, class Signature>
class MethodPatch;

template <std::size_t slot, class Result, class... Args>
class MethodPatch<slot, Result(Args...)> {
public:
    using Original = Result(WINAPI*)(Args...);
    using Function = std::function<Result(Original, Args...)>;

    MethodPatch(IUnknown* object, Function function)
        : m_entry(*reinterpret_cast<void***>(object) + slot),
          m_function(std::move(function)),
          m_original(reinterpret_cast<Original>(*m_entry)) {
        if (s_current != nullptr) {
            throw std::logic_error("this method is already patched");
        }
        s_current = this;
        Store(&Call);
    }
    ~MethodPatch() {
        Store(m_original);
        s_current = nullptr;
    }
    MethodPatch(const MethodPatch&) = delete;
    MethodPatch& operator=(const MethodPatch&) = delete;

private:
    static Result WINAPI Call(Args... args) {
        return s_current->m_function(s_current->m_original, args...);
    }

    void Store(Original method) {
        DWORD protection = 0;
        if (!VirtualProtect(static_cast<void*>(m_entry), sizeof(void*), PAGE_READWRITE,
                            &protection)) {
            throw std::runtime_error("the method table cannot be written");
        }
        *m_entry = reinterpret_cast<void*>(method);
        VirtualProtect(static_cast<void*>(m_entry), sizeof(void*), protection, &protection);
    }

    static inline MethodPatch* s_current = nullptr;

    void** m_entry;
    Function m_function;
    Original m_original;
};

// Makes a method answer a failure. It needs none of its other arguments, since on x64 it is the
// caller who takes them off the stack.
template <std::size_t slot>
class FailingMethod {
public:
    FailingMethod(IUnknown* object, HRESULT result)
        : m_patch(object, [result](auto, IUnknown*) { return result; }) {}

private:
    MethodPatch<slot, HRESULT(IUnknown*)> m_patch;
};

} // namespace Norvex::Test
