#include <utility>

#include "Platform/D3D12Abi.h"
#include "Proc/DirectX/Manager/Annotation.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3D12PooledHeaps.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

constexpr std::uint32_t KeyOf(D3D12_DESCRIPTOR_HEAP_TYPE type, D3D12_DESCRIPTOR_HEAP_FLAGS flags) {
    return (static_cast<std::uint32_t>(flags) << 16) | (static_cast<std::uint32_t>(type) & 0xFFFF);
}

const char* NameOf(D3D12_DESCRIPTOR_HEAP_TYPE type) {
    switch (type) {
    case D3D12_DESCRIPTOR_HEAP_TYPE_SAMPLER:
        return "sampler heap";
    case D3D12_DESCRIPTOR_HEAP_TYPE_RTV:
        return "render target heap";
    case D3D12_DESCRIPTOR_HEAP_TYPE_DSV:
        return "depth buffer heap";
    default:
        return "shader view heap";
    }
}

} // namespace

D12DescriptorHeapPool::D12DescriptorHeapPool(const CComPtr<ID3D12Device>& device)
    : m_device(device),
      m_heaps(std::make_unique<D12PooledHeaps<ID3D12DescriptorHeap, D12DescriptorCPUHeap>>()) {
    ThrowUnless<DirectX12Exception>(device != nullptr, "DirectX 12 device is null");
}

D12DescriptorHeapPool::~D12DescriptorHeapPool() = default;

boost::intrusive_ptr<D12DescriptorCPUHeap>
D12DescriptorHeapPool::CreateCPUHeap(D3D12_DESCRIPTOR_HEAP_TYPE type, unsigned count) {
    auto heap = CreateHeap(type, D3D12_DESCRIPTOR_HEAP_FLAG_NONE, count);
    return m_heaps->Lend(new D12DescriptorCPUHeap(m_device, std::move(heap), this));
}

boost::intrusive_ptr<D12DescriptorGPUHeap>
D12DescriptorHeapPool::CreateGPUHeap(D3D12_DESCRIPTOR_HEAP_TYPE type, unsigned count) {
    ThrowUnless<DirectX12Exception>(type == D3D12_DESCRIPTOR_HEAP_TYPE_CBV_SRV_UAV ||
                                        type == D3D12_DESCRIPTOR_HEAP_TYPE_SAMPLER,
                                    "Invalid heap type for GPU descriptor heap");
    auto heap = CreateHeap(type, D3D12_DESCRIPTOR_HEAP_FLAG_SHADER_VISIBLE, count);
    return m_heaps->Lend(new D12DescriptorGPUHeap(m_device, std::move(heap), this));
}

boost::intrusive_ptr<D12Descriptor>
D12DescriptorHeapPool::CreateRenderTargetView(const CComPtr<ID3D12Resource>& resource) {
    return CreateShared(D3D12_DESCRIPTOR_HEAP_TYPE_RTV, [&](D12DescriptorCPUHeap& heap) {
        return heap.CreateRenderTargetView(resource, 0);
    });
}

boost::intrusive_ptr<D12Descriptor> D12DescriptorHeapPool::CreateRenderTargetView(
    const CComPtr<ID3D12Resource>& resource,
    const std::optional<D3D12_RENDER_TARGET_VIEW_DESC>& desc) {
    return CreateShared(D3D12_DESCRIPTOR_HEAP_TYPE_RTV, [&](D12DescriptorCPUHeap& heap) {
        return heap.CreateRenderTargetView(resource, desc);
    });
}

boost::intrusive_ptr<D12Descriptor>
D12DescriptorHeapPool::CreateTextureShaderResourceView(const CComPtr<ID3D12Resource>& resource) {
    return CreateShared(D3D12_DESCRIPTOR_HEAP_TYPE_CBV_SRV_UAV, [&](D12DescriptorCPUHeap& heap) {
        return heap.CreateTextureShaderResourceView(resource, false);
    });
}

boost::intrusive_ptr<D12Descriptor> D12DescriptorHeapPool::CreateShaderResourceView(
    const CComPtr<ID3D12Resource>& resource,
    const std::optional<D3D12_SHADER_RESOURCE_VIEW_DESC>& desc) {
    return CreateShared(D3D12_DESCRIPTOR_HEAP_TYPE_CBV_SRV_UAV, [&](D12DescriptorCPUHeap& heap) {
        return heap.CreateShaderResourceView(resource, desc);
    });
}

template <class Create>
boost::intrusive_ptr<D12Descriptor>
D12DescriptorHeapPool::CreateShared(D3D12_DESCRIPTOR_HEAP_TYPE type, const Create& create) {
    const auto make = [&] {
        auto heap = CreateHeap(type, D3D12_DESCRIPTOR_HEAP_FLAG_NONE, m_heaps->kSharedCapacity);
        return m_heaps->Lend(new D12DescriptorCPUHeap(m_device, std::move(heap), nullptr));
    };
    return m_heaps->UseShared(type, this, make, create);
}

CComPtr<ID3D12DescriptorHeap> D12DescriptorHeapPool::CreateHeap(D3D12_DESCRIPTOR_HEAP_TYPE type,
                                                                D3D12_DESCRIPTOR_HEAP_FLAGS flags,
                                                                unsigned count) {
    return m_heaps->Take(KeyOf(type, flags), count, [&](unsigned capacity) {
        const D3D12_DESCRIPTOR_HEAP_DESC desc = {type, capacity, flags, 0};
        CComPtr<ID3D12DescriptorHeap> heap;
        ThrowIfFailed<DirectX12Exception>(
            m_device->CreateDescriptorHeap(&desc, IID_PPV_ARGS(&heap)),
            "Failed to create descriptor heap", m_device);
        const bool isForCPU = flags == D3D12_DESCRIPTOR_HEAP_FLAG_NONE;
        SetName(heap, isForCPU ? "CPU" : "GPU", NameOf(type));
        return heap;
    });
}

void D12DescriptorHeapPool::ReuseHeap(const D12DescriptorHeap& heap) noexcept {
    const D3D12_DESCRIPTOR_HEAP_DESC desc = Platform::GetDesc(heap.GetHeap());
    m_heaps->Put(KeyOf(desc.Type, desc.Flags), desc.NumDescriptors, heap.GetHeap());
}

std::size_t D12DescriptorHeapPool::CountFreeHeaps() const {
    return m_heaps->CountFree();
}

PoolStatistics D12DescriptorHeapPool::GetStatistics() const {
    return m_heaps->GetStatistics();
}

} // namespace Norvex::DX
