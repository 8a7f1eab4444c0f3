#include "Proc/DirectX/Manager/D3D12Resource.h"

#include <limits>
#include <utility>

#include "Platform/D3D12Abi.h"
// A descriptor owns its heap, and the heap's header names the descriptor.
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

D12Descriptor::D12Descriptor(std::vector<CComPtr<ID3D12Resource>> resources, DescriptorType type,
                             DXGI_FORMAT format, std::uint32_t index,
                             boost::intrusive_ptr<D12DescriptorHeap> heap)
    : m_resources(std::move(resources)),
      m_type(type),
      m_format(format),
      m_index(index),
      m_heap(std::move(heap)),
      m_cpuHandle(m_heap->GetCPUHandle(index)) {
    if (!m_resources.empty()) {
        m_resourceDesc = Platform::GetDesc(m_resources[0]);
    }
}

D12Descriptor::D12Descriptor(const D12Descriptor& other)
    : LiveObject(other),
      m_resources(other.m_resources),
      m_type(other.m_type),
      m_format(other.m_format),
      m_resourceDesc(other.m_resourceDesc),
      m_index(other.m_index),
      m_heap(other.m_heap),
      m_cpuHandle(other.m_cpuHandle),
      m_original(other.m_original ? other.m_original.get() : const_cast<D12Descriptor*>(&other)) {}

D12Descriptor::~D12Descriptor() {
    if (!m_original) {
        m_heap->ReuseDescriptor(this);
    }
}

const CComPtr<ID3D12Resource>& D12Descriptor::GetFirstResource() const {
    ThrowUnless<DirectX12Exception>(!m_resources.empty(), "There are no resources available");
    return m_resources[0];
}

D3D12_DESCRIPTOR_HEAP_TYPE D12Descriptor::GetHeapType() const {
    return m_heap->GetType();
}

Rect2DT<long> D12Descriptor::GetRect() const {
    const Size2DT<long> size = GetSize();
    return {0, 0, size.width, size.height};
}

Size2DT<long> D12Descriptor::GetSize() const {
    return {static_cast<long>(m_resourceDesc.Width), static_cast<long>(m_resourceDesc.Height)};
}

D3D12_RESOURCE_BARRIER D12Descriptor::Transition(bitflags<D3D12_RESOURCE_STATES> before,
                                                 bitflags<D3D12_RESOURCE_STATES> after,
                                                 unsigned subresource,
                                                 D3D12_RESOURCE_BARRIER_FLAGS flags) const {
    ThrowUnless<DirectX12Exception>(!m_resources.empty(), "There are no resources available");
    return CD3DX12_RESOURCE_BARRIER::Transition(m_resources[0], before.get(), after.get(),
                                                subresource, flags);
}

D12VertexBuffer::D12VertexBuffer(const CComPtr<ID3D12Resource>& resource, unsigned stride,
                                 unsigned count)
    : m_resource(resource),
      m_count(count),
      m_view{resource->GetGPUVirtualAddress(), stride * count, stride} {}

boost::intrusive_ptr<D12VertexBuffer>
D12VertexBuffer::Create(const CComPtr<ID3D12Resource>& resource, unsigned stride, unsigned count) {
    ThrowUnless<DirectX12Exception>(resource != nullptr, "Unsupported resource");
    ThrowUnless<DirectX12Exception>(std::uint64_t{stride} * count <=
                                        std::numeric_limits<UINT>::max(),
                                    "Buffer size requested is too large");
    return boost::intrusive_ptr<D12VertexBuffer>(new D12VertexBuffer(resource, stride, count));
}

D12IndexBuffer::D12IndexBuffer(const CComPtr<ID3D12Resource>& resource, DXGI_FORMAT format,
                               unsigned count, unsigned sizeInBytes)
    : m_resource(resource),
      m_count(count),
      m_view{resource->GetGPUVirtualAddress(), sizeInBytes, format} {}

boost::intrusive_ptr<D12IndexBuffer> D12IndexBuffer::Create(const CComPtr<ID3D12Resource>& resource,
                                                            DXGI_FORMAT format, unsigned count,
                                                            unsigned sizeInBytes) {
    ThrowUnless<DirectX12Exception>(resource != nullptr, "Unsupported resource");
    return boost::intrusive_ptr<D12IndexBuffer>(
        new D12IndexBuffer(resource, format, count, sizeInBytes));
}

} // namespace Norvex::DX
