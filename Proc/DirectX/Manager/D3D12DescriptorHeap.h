#pragma once

// Descriptor heaps and their pool. Ownership: descriptor -> heap -> pool -> device. A CPU heap
// hands out slots and makes views in them; a GPU (shader-visible) heap receives copies before
// drawing, at indices that its user chooses. The pool recycles the Direct3D heaps of dead wrappers
// and keeps one shared CPU heap a type for one-off views. Pool and CPU heaps: any thread. A GPU
// heap: one thread at a time. Throws DirectX12Exception.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <source_location>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/D3D12Resource.h"
#include "Proc/DirectX/Manager/LiveObject.h"
#include "Proc/DirectX/Manager/Statistics.h"

namespace Norvex::DX {

class D12DescriptorHeapPool;
template <class Raw, class Heap>
class D12PooledHeaps;
class SlotBitmap;

class NORVEX_DX_API D12DescriptorHeap : public LiveObject {
public:
    D12DescriptorHeap(const D12DescriptorHeap&) = delete;
    D12DescriptorHeap& operator=(const D12DescriptorHeap&) = delete;
    ~D12DescriptorHeap() override;

    // Called by a dying descriptor of this heap.
    virtual void ReuseDescriptor(D12Descriptor* descriptor);

    // The raw heap, borrowed.
    const CComPtr<ID3D12DescriptorHeap>& GetHeap() const { return m_heap; }
    // Of its descriptors.
    D3D12_DESCRIPTOR_HEAP_TYPE GetType() const { return m_desc.Type; }
    // The true capacity; a multiple of 64, at least what was asked for.
    unsigned NumDescriptors() const { return m_desc.NumDescriptors; }
    // "Descriptor index out of range".
    D3D12_CPU_DESCRIPTOR_HANDLE GetCPUHandle(unsigned index) const;

protected:
    // Over a heap of the pool's.
    D12DescriptorHeap(const CComPtr<ID3D12Device>& device, CComPtr<ID3D12DescriptorHeap> heap,
                      boost::intrusive_ptr<D12DescriptorHeapPool> pool);

    CComPtr<ID3D12Device> m_device;
    CComPtr<ID3D12DescriptorHeap> m_heap;
    D3D12_DESCRIPTOR_HEAP_DESC m_desc;
    std::uint32_t m_increment;
    D3D12_CPU_DESCRIPTOR_HANDLE m_cpuStart;
    // Null while the pool holds this as a shared heap.
    boost::intrusive_ptr<D12DescriptorHeapPool> m_pool;
};

class NORVEX_DX_API D12DescriptorCPUHeap : public D12DescriptorHeap {
public:
    ~D12DescriptorCPUHeap() override;

    void ReuseDescriptor(D12Descriptor* descriptor) override;
    // Whether a slot is free at this moment.
    bool HasFree() const;

    // Views by description; without one Direct3D derives it from the resource. Null resources with
    // a description are null descriptors, which read as zero and keep nothing alive. Each: "Invalid
    // heap type" when this heap is not of the view's type, "Unsupported resource" for null without
    // a description, "There is no free space in the heap to create a ..." when it is full. The size
    // must be a multiple of 256: "Constant Buffer View requires SizeInBytes be a multiple of 256".
    boost::intrusive_ptr<D12Descriptor>
    CreateConstantBufferView(const CComPtr<ID3D12Resource>& resource,
                             const D3D12_CONSTANT_BUFFER_VIEW_DESC& desc);
    // A view for shaders.
    boost::intrusive_ptr<D12Descriptor>
    CreateShaderResourceView(const CComPtr<ID3D12Resource>& resource,
                             const std::optional<D3D12_SHADER_RESOURCE_VIEW_DESC>& desc);
    // counter may be null, and is when the resource is: "Unsupported resource".
    boost::intrusive_ptr<D12Descriptor>
    CreateUnorderedAccessView(const CComPtr<ID3D12Resource>& resource,
                              const CComPtr<ID3D12Resource>& counter,
                              const std::optional<D3D12_UNORDERED_ACCESS_VIEW_DESC>& desc);
    // A sampler.
    boost::intrusive_ptr<D12Descriptor> CreateSampler(const D3D12_SAMPLER_DESC& desc);
    // A view to draw on.
    boost::intrusive_ptr<D12Descriptor>
    CreateRenderTargetView(const CComPtr<ID3D12Resource>& resource,
                           const std::optional<D3D12_RENDER_TARGET_VIEW_DESC>& desc);
    // A view to test depth and stencil with.
    boost::intrusive_ptr<D12Descriptor>
    CreateDepthStencilView(const CComPtr<ID3D12Resource>& resource,
                           const std::optional<D3D12_DEPTH_STENCIL_VIEW_DESC>& desc);

    // Views of the whole resource, described from the resource itself. "Unsupported resource" (null
    // too), "Unknown resource", "Resource created without support for SRV" (RTV, UAV), and what the
    // operations above throw. stride: bytes of one element, 0 counts bytes.
    boost::intrusive_ptr<D12Descriptor>
    CreateConstantBufferView(const CComPtr<ID3D12Resource>& resource);
    // All of a buffer, for shaders.
    boost::intrusive_ptr<D12Descriptor>
    CreateBufferShaderResourceView(const CComPtr<ID3D12Resource>& resource, unsigned stride);
    // All of a buffer, to be written; counter may be null.
    boost::intrusive_ptr<D12Descriptor>
    CreateBufferUnorderedAccessView(const CComPtr<ID3D12Resource>& resource, unsigned stride,
                                    D3D12_BUFFER_UAV_FLAGS flags, unsigned counterOffset,
                                    const CComPtr<ID3D12Resource>& counter);
    // cube: a 2-D array of six (or a multiple) is a cube (array of cubes).
    boost::intrusive_ptr<D12Descriptor>
    CreateTextureShaderResourceView(const CComPtr<ID3D12Resource>& resource, bool cube);
    // A view to draw on.
    boost::intrusive_ptr<D12Descriptor>
    CreateRenderTargetView(const CComPtr<ID3D12Resource>& resource, unsigned mipSlice);
    // One mip level of a texture, to be written.
    boost::intrusive_ptr<D12Descriptor>
    CreateTextureUnorderedAccessView(const CComPtr<ID3D12Resource>& resource, unsigned mipSlice);

private:
    friend class D12DescriptorHeapPool;
    template <class Raw, class Heap>
    friend class D12PooledHeaps;

    D12DescriptorCPUHeap(const CComPtr<ID3D12Device>& device, CComPtr<ID3D12DescriptorHeap> heap,
                         boost::intrusive_ptr<D12DescriptorHeapPool> pool);

    boost::intrusive_ptr<D12Descriptor>
    AllocateDescriptor(std::vector<CComPtr<ID3D12Resource>> resources,
                       D12Descriptor::DescriptorType type, DXGI_FORMAT format,
                       const char* noSpaceSentence,
                       const std::source_location& location = std::source_location::current());

    std::unique_ptr<SlotBitmap> m_slots;
};

class NORVEX_DX_API D12DescriptorGPUHeap : public D12DescriptorHeap {
public:
    // "Descriptor index out of range".
    D3D12_GPU_DESCRIPTOR_HANDLE GetGPUHandle(unsigned index) const;
    // Copies into slot `index`, replacing what is there; the result keeps the source's resources
    // alive, not its slot. "Descriptor heap types are different", "Descriptor index out of range",
    // "Invalid descriptor type" for null.
    boost::intrusive_ptr<D12Descriptor>
    CopyDescriptor(unsigned index, const boost::intrusive_ptr<D12Descriptor>& source);

private:
    friend class D12DescriptorHeapPool;
    friend class D12DescriptorTable; // which keeps the resources itself

    // "Descriptor heap types are different", "Descriptor index out of range".
    void Fill(unsigned index, const D12Descriptor& source);
    D12DescriptorGPUHeap(const CComPtr<ID3D12Device>& device, CComPtr<ID3D12DescriptorHeap> heap,
                         boost::intrusive_ptr<D12DescriptorHeapPool> pool);

    D3D12_GPU_DESCRIPTOR_HANDLE m_gpuStart;
};

class NORVEX_DX_API D12DescriptorHeapPool : public LiveObject {
public:
    // "DirectX 12 device is null".
    explicit D12DescriptorHeapPool(const CComPtr<ID3D12Device>& device);
    ~D12DescriptorHeapPool() override;
    D12DescriptorHeapPool(const D12DescriptorHeapPool&) = delete;
    D12DescriptorHeapPool& operator=(const D12DescriptorHeapPool&) = delete;

    // Heaps of at least `count` descriptors, recycled where a dead one is large enough. "Failed to
    // create descriptor heap".
    boost::intrusive_ptr<D12DescriptorCPUHeap> CreateCPUHeap(D3D12_DESCRIPTOR_HEAP_TYPE type,
                                                             unsigned count);
    // "Invalid heap type for GPU descriptor heap" unless views (CBV_SRV_UAV) or samplers.
    boost::intrusive_ptr<D12DescriptorGPUHeap> CreateGPUHeap(D3D12_DESCRIPTOR_HEAP_TYPE type,
                                                             unsigned count);

    // One-off views in the shared heaps, which are replaced when full. Errors as of
    // D12DescriptorCPUHeap.
    boost::intrusive_ptr<D12Descriptor>
    CreateRenderTargetView(const CComPtr<ID3D12Resource>& resource);
    // A view to draw on.
    boost::intrusive_ptr<D12Descriptor>
    CreateRenderTargetView(const CComPtr<ID3D12Resource>& resource,
                           const std::optional<D3D12_RENDER_TARGET_VIEW_DESC>& desc);
    // All of a texture, for shaders.
    boost::intrusive_ptr<D12Descriptor>
    CreateTextureShaderResourceView(const CComPtr<ID3D12Resource>& resource);
    // As described.
    boost::intrusive_ptr<D12Descriptor>
    CreateShaderResourceView(const CComPtr<ID3D12Resource>& resource,
                             const std::optional<D3D12_SHADER_RESOURCE_VIEW_DESC>& desc);

    // Heaps of dead wrappers that wait to be recycled, at this moment.
    std::size_t CountFreeHeaps() const;
    // In use and idle, at this moment.
    PoolStatistics GetStatistics() const;

private:
    friend class D12DescriptorHeap;

    CComPtr<ID3D12DescriptorHeap> CreateHeap(D3D12_DESCRIPTOR_HEAP_TYPE type,
                                             D3D12_DESCRIPTOR_HEAP_FLAGS flags, unsigned count);
    // create(D12DescriptorCPUHeap&) makes a view in the shared heap of the type.
    template <class Create>
    boost::intrusive_ptr<D12Descriptor> CreateShared(D3D12_DESCRIPTOR_HEAP_TYPE type,
                                                     const Create& create);
    void ReuseHeap(const D12DescriptorHeap& heap) noexcept;

    CComPtr<ID3D12Device> m_device;
    std::unique_ptr<D12PooledHeaps<ID3D12DescriptorHeap, D12DescriptorCPUHeap>> m_heaps;
};

} // namespace Norvex::DX
