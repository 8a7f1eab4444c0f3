#pragma once

// What the tests of the Direct3D 12 objects share: short names, a device with a queue, the counting
// and failing of Direct3D's calls, and a model of what hands out slots.

#include <algorithm>
#include <atomic>
#include <concepts>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D12BufferPool.h"
#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12GraphicsPipelineState.h"
#include "Proc/DirectX/Manager/D3D12Query.h"
#include "Proc/DirectX/Manager/D3D12ShaderParameters.h"
#include "Proc/DirectX/Manager/D3D12TexturePool.h"
#include "tests/support/DeviceTest.h"
#include "tests/support/Environment.h"
#include "tests/support/LifeProbe.h"
#include "tests/support/OutOfMemory.h"
#include "tests/support/Thrown.h"
#include "tests/support/Words.h"

namespace Norvex::Test {

using testing::ElementsAre;
template <class Object>
using Ptr = boost::intrusive_ptr<Object>;
using ViewPtr = Ptr<DX::D12Descriptor>;
using ListPtr = Ptr<DX::D12GraphicsCommandList>;
using ResourcePtr = CComPtr<ID3D12Resource>;

inline constexpr auto kDirect = D3D12_COMMAND_LIST_TYPE_DIRECT;
inline constexpr auto kUpload = D3D12_HEAP_TYPE_UPLOAD;
inline constexpr auto kReadback = D3D12_HEAP_TYPE_READBACK;
inline constexpr auto kColor = DXGI_FORMAT_R8G8B8A8_UNORM; // 28
inline constexpr auto kCopyFrom = D3D12_RESOURCE_STATE_COPY_SOURCE;
inline constexpr auto kCopyTo = D3D12_RESOURCE_STATE_COPY_DEST;
inline constexpr auto kUnordered = D3D12_RESOURCE_FLAG_ALLOW_UNORDERED_ACCESS;

class Direct3D12Test : public CanvasTest {
protected:
    static ID3D12Device* Raw() { return Device()->Get(); }
    static ResourcePtr MakeBuffer(std::uint64_t size, D3D12_RESOURCE_STATES state = {},
                                  D3D12_RESOURCE_FLAGS flags = {}) {
        return Device()->CreateBuffer(
            {.size = size, .resourceFlags = flags, .initialState = state});
    }
    // Records one list, submits it and waits.
    template <class Record>
    static void Run(const Record& record, const CComPtr<ID3D12PipelineState>& pipeline = {}) {
        const auto allocator = Queue()->CreateCommandAllocator();
        allocator->RecordList(pipeline, record);
        allocator->Execute();
        allocator->WaitComplete();
    }
};

template <auto method>
class CallCount {
public:
    explicit CallCount(IUnknown* object)
        : m_patch(object, [this](auto original, auto... arguments) {
              ++m_calls;
              return original(arguments...);
          }) {}
    int Get() const { return m_calls; }

private:
    std::atomic<int> m_calls{0};
    MethodPatch<method> m_patch;
};

// Expects the call, which comes last, to be refused by the function that it names.
#define NORVEX_REFUSED(sentence, ...) NORVEX_EXPECT_REFUSED12(sentence, __VA_ARGS__)

// A further handle, where there can be one.
template <class Object>
Ptr<Object> CopyOf(const Ptr<Object>& object) {
    if constexpr (std::copy_constructible<Object>) {
        return Ptr<Object>(new Object(*object));
    } else {
        return object;
    }
}

// Takes, copies and gives back at random, at times without memory, and expects the lowest free slot
// each time. Returns what fills all slots.
template <class Take, class IndexOf>
auto ExpectLowestFirst(std::size_t count, const Take& take, const IndexOf& indexOf) {
    std::vector<decltype(take())> held(count);
    std::mt19937 random(1);
    for (std::size_t round = 0; round < 6 * count; ++round) {
        const auto free = std::ranges::find(held, nullptr);
        auto& any = held[random() % count];
        // In the end more are taken than given back.
        if (free != held.end() && (round > 4 * count || random() % 8 < 5)) {
            if (round % 4 == 0) {
                const OutOfMemory outOfMemory;
                EXPECT_THROW(take(), std::bad_alloc);
            }
            *free = take();
            EXPECT_EQ(indexOf(*free), free - held.begin());
        } else if (any != nullptr && random() % 2 == 0) {
            any = CopyOf(any);
        } else {
            any.reset();
        }
    }
    for (auto& object : held) {
        object = object != nullptr ? object : take();
    }
    return held;
}

} // namespace Norvex::Test
