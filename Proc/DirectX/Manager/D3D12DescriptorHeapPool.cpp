#include <algorithm>
#include <limits>
#include <utility>

#include "Platform/D3D12Abi.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

constexpr unsigned kCapacityUnit = 64; // one word of a slot bitmap
constexpr unsigned kSharedHeapCapacity = 64;

constexpr std::uint32_t KeyOf(D3D12_DESCRIPTOR_HEAP_TYPE type, D3D12_DESCRIPTOR_HEAP_FLAGS flags) {
    return (static_cast<std::uint32_t>(flags) << 16) | (static_cast<std::uint32_t>(type) & 0xFFFF);
}

// Up to whole units; near the largest count the device is left to refuse.
constexpr unsigned CapacityFor(unsigned count) {
    const auto rounded = (std::uint64_t{count} + kCapacityUnit - 1) & ~(kCapacityUnit - 1ull);
    return static_cast<unsigned>(
        std::min<std::uint64_t>(rounded, std::numeric_limits<unsigned>::max()));
}

} // namespace

D12DescriptorHeapPool::D12DescriptorHeapPool(const CComPtr<ID3D12Device>& device)
    : m_device(device) {}

D12DescriptorHeapPool::~D12DescriptorHeapPool() = default;

boost::intrusive_ptr<D12DescriptorCPUHeap>
D12DescriptorHeapPool::CreateCPUHeap(D3D12_DESCRIPTOR_HEAP_TYPE type, unsigned count) {
    auto heap = CreateHeap(type, D3D12_DESCRIPTOR_HEAP_FLAG_NONE, count);
    return boost::intrusive_ptr<D12DescriptorCPUHeap>(
        new D12DescriptorCPUHeap(m_device, std::move(heap), this));
}

boost::intrusive_ptr<D12DescriptorGPUHeap>
D12DescriptorHeapPool::CreateGPUHeap(D3D12_DESCRIPTOR_HEAP_TYPE type, unsigned count) {
    ThrowUnless<DirectX12Exception>(type == D3D12_DESCRIPTOR_HEAP_TYPE_CBV_SRV_UAV ||
                                        type == D3D12_DESCRIPTOR_HEAP_TYPE_SAMPLER,
                                    "Invalid heap type for GPU descriptor heap");
    auto heap = CreateHeap(type, D3D12_DESCRIPTOR_HEAP_FLAG_SHADER_VISIBLE, count);
    return boost::intrusive_ptr<D12DescriptorGPUHeap>(
        new D12DescriptorGPUHeap(m_device, std::move(heap), this));
}

boost::intrusive_ptr<D12Descriptor>
D12DescriptorHeapPool::CreateRenderTargetView(const CComPtr<ID3D12Resource>& resource) {
    const std::scoped_lock lock(m_sharedMutex);
    return GetSharedHeap(D3D12_DESCRIPTOR_HEAP_TYPE_RTV)->CreateRenderTargetView(resource, 0);
}

boost::intrusive_ptr<D12Descriptor> D12DescriptorHeapPool::CreateRenderTargetView(
    const CComPtr<ID3D12Resource>& resource,
    const std::optional<D3D12_RENDER_TARGET_VIEW_DESC>& desc) {
    const std::scoped_lock lock(m_sharedMutex);
    return GetSharedHeap(D3D12_DESCRIPTOR_HEAP_TYPE_RTV)->CreateRenderTargetView(resource, desc);
}

boost::intrusive_ptr<D12Descriptor>
D12DescriptorHeapPool::CreateTextureShaderResourceView(const CComPtr<ID3D12Resource>& resource) {
    const std::scoped_lock lock(m_sharedMutex);
    return GetSharedHeap(D3D12_DESCRIPTOR_HEAP_TYPE_CBV_SRV_UAV)
        ->CreateTextureShaderResourceView(resource, false);
}

CComPtr<ID3D12DescriptorHeap> D12DescriptorHeapPool::CreateHeap(D3D12_DESCRIPTOR_HEAP_TYPE type,
                                                                D3D12_DESCRIPTOR_HEAP_FLAGS flags,
                                                                unsigned count) {
    if (auto recycled = TakeFreeHeap(KeyOf(type, flags), count)) {
        return recycled;
    }
    const D3D12_DESCRIPTOR_HEAP_DESC desc = {type, CapacityFor(count), flags, 0};
    CComPtr<ID3D12DescriptorHeap> heap;
    ThrowIfFailed<DirectX12Exception>(m_device->CreateDescriptorHeap(&desc, IID_PPV_ARGS(&heap)),
                                      "Failed to create descriptor heap", m_device);
    return heap;
}

// The smallest sufficient heap; null when there is none.
CComPtr<ID3D12DescriptorHeap> D12DescriptorHeapPool::TakeFreeHeap(std::uint32_t key,
                                                                  unsigned count) {
    const std::scoped_lock lock(m_freeHeapsMutex);
    const auto heaps = m_freeHeaps.find(key);
    if (heaps == m_freeHeaps.end()) {
        return nullptr;
    }
    const auto entry = heaps->second.lower_bound(count);
    if (entry == heaps->second.end()) {
        return nullptr;
    }
    CComPtr<ID3D12DescriptorHeap> heap = std::move(entry->second);
    heaps->second.erase(entry);
    return heap;
}

const boost::intrusive_ptr<D12DescriptorCPUHeap>&
D12DescriptorHeapPool::GetSharedHeap(D3D12_DESCRIPTOR_HEAP_TYPE type) {
    auto& shared = m_sharedHeaps[type];
    if (shared && shared->HasFree()) {
        return shared;
    }
    // No owner while it is in the map: pool and heap would keep each other alive for ever.
    boost::intrusive_ptr<D12DescriptorCPUHeap> heap(new D12DescriptorCPUHeap(
        m_device, CreateHeap(type, D3D12_DESCRIPTOR_HEAP_FLAG_NONE, kSharedHeapCapacity), nullptr));
    if (shared) {
        shared->m_pool = this; // replaced, so its last descriptor may have it recycled
    }
    shared = std::move(heap);
    return shared;
}

void D12DescriptorHeapPool::ReuseHeap(D12DescriptorHeap* heap) {
    const D3D12_DESCRIPTOR_HEAP_DESC desc = Platform::GetDesc(heap->GetHeap());
    const std::scoped_lock lock(m_freeHeapsMutex);
    m_freeHeaps[KeyOf(desc.Type, desc.Flags)].emplace(desc.NumDescriptors, heap->GetHeap());
}

std::size_t D12DescriptorHeapPool::CountFreeHeaps() const {
    const std::scoped_lock lock(m_freeHeapsMutex);
    std::size_t count = 0;
    for (const auto& [key, heaps] : m_freeHeaps) {
        count += heaps.size();
    }
    return count;
}

} // namespace Norvex::DX
