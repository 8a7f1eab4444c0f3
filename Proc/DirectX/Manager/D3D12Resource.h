#pragma once

// Descriptors and the input-assembler buffers. A D12Descriptor is one view or sampler in one slot
// of a heap; it keeps its resources and its heap alive and frees the slot when it dies. Made by the
// heaps of D3D12DescriptorHeap.h. Immutable after construction, any thread. Throws
// DirectX12Exception.

#include <cstdint>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/BitFlags.h"
#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "Proc/DirectX/Manager/LiveObject.h"

namespace Norvex::DX {

class D12DescriptorHeap;

class NORVEX_DX_API D12Descriptor : public LiveObject {
public:
    // What a descriptor describes.
    enum DescriptorType : std::uint32_t {
        ConstantBuffer = 0,
        ShaderResource = 1,
        UnorderedAccess = 2,
        Sampler = 3,
        RenderTarget = 4,
        DepthStencil = 5,
    };

    // Another handle on the same slot, which is freed when all handles are gone.
    D12Descriptor(const D12Descriptor& other);
    D12Descriptor& operator=(const D12Descriptor&) = delete;
    ~D12Descriptor() override;

    // None for a sampler and for a null descriptor; resource and counter for an unordered-access
    // view with a counter.
    const std::vector<CComPtr<ID3D12Resource>>& GetResources() const { return m_resources; }
    // "There are no resources available".
    const CComPtr<ID3D12Resource>& GetFirstResource() const;
    // What it describes.
    DescriptorType GetType() const { return m_type; }
    // Of the view; DXGI_FORMAT_UNKNOWN for a sampler.
    DXGI_FORMAT GetFormat() const { return m_format; }
    // Of the heap it lies in.
    D3D12_DESCRIPTOR_HEAP_TYPE GetHeapType() const;
    // Valid while this lives.
    D3D12_CPU_DESCRIPTOR_HANDLE GetCPUHandle() const { return m_cpuHandle; }
    // Its slot in the heap.
    std::uint32_t GetIndex() const { return m_index; }
    // The first resource's extent in pixels (mip 0); empty for a sampler.
    Rect2DT<long> GetRect() const;
    // Of GetRect.
    Size2DT<long> GetSize() const;

    // A transition of the first resource, which the barrier borrows. "There are no resources
    // available".
    D3D12_RESOURCE_BARRIER Transition(bitflags<D3D12_RESOURCE_STATES> before,
                                      bitflags<D3D12_RESOURCE_STATES> after, unsigned subresource,
                                      D3D12_RESOURCE_BARRIER_FLAGS flags) const;

private:
    friend class D12DescriptorCPUHeap;
    friend class D12DescriptorGPUHeap;

    D12Descriptor(std::vector<CComPtr<ID3D12Resource>> resources, DescriptorType type,
                  DXGI_FORMAT format, std::uint32_t index,
                  boost::intrusive_ptr<D12DescriptorHeap> heap);

    std::vector<CComPtr<ID3D12Resource>> m_resources;
    DescriptorType m_type;
    DXGI_FORMAT m_format;
    D3D12_RESOURCE_DESC m_resourceDesc = {};
    std::uint32_t m_index;
    boost::intrusive_ptr<D12DescriptorHeap> m_heap;
    D3D12_CPU_DESCRIPTOR_HANDLE m_cpuHandle = {};
    boost::intrusive_ptr<D12Descriptor> m_original; // in a copy: the handle that will free the slot
};

class NORVEX_DX_API D12VertexBuffer : public LiveObject {
public:
    // stride: bytes of one vertex; count: vertices in the buffer. "Unsupported resource" for null,
    // "Buffer size requested is too large" for 4 GiB and more.
    static boost::intrusive_ptr<D12VertexBuffer> Create(const CComPtr<ID3D12Resource>& resource,
                                                        unsigned stride, unsigned count);

    // The raw buffer, kept.
    const CComPtr<ID3D12Resource>& GetBuffer() const { return m_resource; }
    // Vertices, or indices.
    unsigned GetCount() const { return m_count; }
    // Bytes a vertex.
    unsigned GetStride() const { return m_view.StrideInBytes; }
    // What is bound.
    const D3D12_VERTEX_BUFFER_VIEW& GetView() const { return m_view; }

private:
    D12VertexBuffer(const CComPtr<ID3D12Resource>& resource, unsigned stride, unsigned count);

    CComPtr<ID3D12Resource> m_resource;
    unsigned m_count;
    D3D12_VERTEX_BUFFER_VIEW m_view;
};

class NORVEX_DX_API D12IndexBuffer : public LiveObject {
public:
    // format: DXGI_FORMAT_R16_UINT or DXGI_FORMAT_R32_UINT; count: indices in the buffer.
    // "Unsupported resource" for null.
    static boost::intrusive_ptr<D12IndexBuffer> Create(const CComPtr<ID3D12Resource>& resource,
                                                       DXGI_FORMAT format, unsigned count,
                                                       unsigned sizeInBytes);

    // The raw buffer, kept.
    const CComPtr<ID3D12Resource>& GetBuffer() const { return m_resource; }
    // Vertices, or indices.
    unsigned GetCount() const { return m_count; }
    // R16_UINT or R32_UINT.
    DXGI_FORMAT GetFormat() const { return m_view.Format; }
    // What is bound.
    const D3D12_INDEX_BUFFER_VIEW& GetView() const { return m_view; }

private:
    D12IndexBuffer(const CComPtr<ID3D12Resource>& resource, DXGI_FORMAT format, unsigned count,
                   unsigned sizeInBytes);

    CComPtr<ID3D12Resource> m_resource;
    unsigned m_count;
    D3D12_INDEX_BUFFER_VIEW m_view;
};

} // namespace Norvex::DX
