// Resources, footprints, shared handles, and what the device makes through its pools.

#include <cstring>

#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/Throw.h"
// Upwards by nature: the device makes and keeps the objects that record and submit on it.
#include "Proc/DirectX/Manager/D3D12BufferPool.h"
#include "Proc/DirectX/Manager/D3D12CommandQueue.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3D12GraphicsPipelineState.h"
#include "Proc/DirectX/Manager/D3D12Query.h"
#include "Proc/DirectX/Manager/D3D12ShaderParameters.h"

namespace Norvex::DX {

namespace {

bool IsInitialStateValid(const D12BufferDesc& desc) {
    return (desc.heapType != D3D12_HEAP_TYPE_UPLOAD ||
            desc.initialState == D3D12_RESOURCE_STATE_GENERIC_READ) &&
           (desc.heapType != D3D12_HEAP_TYPE_READBACK ||
            desc.initialState == D3D12_RESOURCE_STATE_COPY_DEST);
}

} // namespace

CComPtr<ID3D12Resource> D12Device::CreateBuffer(const D12BufferDesc& desc) {
    ThrowUnless<DirectX12Exception>(IsInitialStateValid(desc), "Invalid initial state");
    if (desc.size == 0) { // not every driver survives it
        ThrowResult<DirectX12Exception>(E_INVALIDARG, "Failed to create buffer", m_device);
    }
    const CD3DX12_HEAP_PROPERTIES heap(desc.heapType);
    const auto resourceDesc = CD3DX12_RESOURCE_DESC::Buffer(desc.size, desc.resourceFlags);
    CComPtr<ID3D12Resource> buffer;
    ThrowIfFailed<DirectX12Exception>(
        m_device->CreateCommittedResource(&heap, desc.heapFlags, &resourceDesc, desc.initialState,
                                          nullptr, IID_PPV_ARGS(&buffer)),
        "Failed to create buffer", m_device);
    if (desc.initialData == nullptr) {
        return buffer;
    }
    ThrowUnless<DirectX12Exception>(desc.heapType == D3D12_HEAP_TYPE_UPLOAD, "Invalid heap type");
    const D3D12_RANGE nothing = {0, 0};
    void* mapped = nullptr;
    ThrowIfFailed<DirectX12Exception>(buffer->Map(0, &nothing, &mapped), "Failed to map buffer",
                                      m_device);
    std::memcpy(mapped, desc.initialData, desc.size);
    buffer->Unmap(0, nullptr);
    return buffer;
}

CComPtr<ID3D12Resource> D12Device::CreateTexture2D(const D12Texture2DDesc& desc) {
    const CD3DX12_HEAP_PROPERTIES heap(D3D12_HEAP_TYPE_DEFAULT);
    const auto resourceDesc = CD3DX12_RESOURCE_DESC::Tex2D(
        desc.format, desc.width, desc.height, desc.arraySize, desc.mipLevels, desc.sampleDesc.Count,
        desc.sampleDesc.Quality, desc.resourceFlags);
    std::optional<CD3DX12_CLEAR_VALUE> clearValue;
    if (desc.clearColor) {
        clearValue.emplace(desc.format, desc.clearColor->data());
    }
    CComPtr<ID3D12Resource> texture;
    ThrowIfFailed<DirectX12Exception>(
        m_device->CreateCommittedResource(&heap, desc.heapFlags, &resourceDesc, desc.initialState,
                                          clearValue ? &*clearValue : nullptr,
                                          IID_PPV_ARGS(&texture)),
        "Failed to create 2D texture", m_device);
    return texture;
}

void D12Device::GetCopyableFootprints(const D3D12_RESOURCE_DESC& desc, unsigned firstSubresource,
                                      unsigned subresourceCount, std::uint64_t baseOffset,
                                      std::vector<D12PlacedSubResourceFootprint>& footprints,
                                      std::uint64_t& totalBytes) const {
    const std::uint64_t end = std::uint64_t{firstSubresource} + subresourceCount;
    ThrowUnless<DirectX12Exception>(firstSubresource < D3D12_REQ_SUBRESOURCES &&
                                        end <= D3D12_REQ_SUBRESOURCES,
                                    "Subresource index out of range");
    std::vector<D3D12_PLACED_SUBRESOURCE_FOOTPRINT> layouts(subresourceCount);
    std::vector<UINT> rowCounts(subresourceCount);
    std::vector<UINT64> rowSizes(subresourceCount);
    UINT64 total = 0;
    m_device->GetCopyableFootprints(&desc, firstSubresource, subresourceCount, baseOffset,
                                    layouts.data(), rowCounts.data(), rowSizes.data(), &total);
    footprints.resize(subresourceCount);
    for (unsigned i = 0; i < subresourceCount; ++i) {
        footprints[i] = {layouts[i].Offset, layouts[i].Footprint, rowCounts[i], rowSizes[i]};
    }
    totalBytes = total;
}

HANDLE D12Device::CreateSharedHandle(ID3D12DeviceChild* object) {
    HANDLE handle = nullptr;
    ThrowIfFailed<DirectX12Exception>(
        object == nullptr
            ? E_INVALIDARG
            : m_device->CreateSharedHandle(object, nullptr, GENERIC_ALL, nullptr, &handle),
        "Failed to create shared handle", m_device);
    return handle;
}

CComPtr<ID3D12Resource> D12Device::OpenSharedResource(HANDLE handle) {
    CComPtr<ID3D12Resource> resource;
    ThrowIfFailed<DirectX12Exception>(m_device->OpenSharedHandle(handle, IID_PPV_ARGS(&resource)),
                                      "Failed to create shared handle", m_device);
    return resource;
}

CComPtr<ID3D12PipelineState>
D12Device::CreateGraphicsPipelineState(const D12GraphicsPipelineDesc& desc) {
    const D3D12_GRAPHICS_PIPELINE_STATE_DESC converted = desc.ToDesc();
    CComPtr<ID3D12PipelineState> pipelineState;
    ThrowIfFailed<DirectX12Exception>(
        m_device->CreateGraphicsPipelineState(&converted, IID_PPV_ARGS(&pipelineState)),
        "Failed to create graphics pipeline state", m_device);
    return pipelineState;
}

boost::intrusive_ptr<D12CommandQueue>
D12Device::CreateCommandQueue(const D3D12_COMMAND_QUEUE_DESC& desc) {
    return boost::intrusive_ptr<D12CommandQueue>(
        new D12CommandQueue(boost::intrusive_ptr<D12Device>(this), desc));
}

boost::intrusive_ptr<D12CompletionEvent> D12Device::CreateCompletionEvent(D3D12_FENCE_FLAGS flags) {
    return boost::intrusive_ptr<D12CompletionEvent>(new D12CompletionEvent(m_device, flags));
}

boost::intrusive_ptr<D12BufferPool> D12Device::CreateBufferPool(D3D12_HEAP_TYPE heapType) {
    return boost::intrusive_ptr<D12BufferPool>(new D12BufferPool(m_device, heapType));
}

boost::intrusive_ptr<D12Buffer> D12Device::CreateUploadBuffer(std::uint64_t size) {
    return m_uploadBufferPool->CreateBuffer(size);
}

boost::intrusive_ptr<D12Buffer> D12Device::CreateReadbackBuffer(std::uint64_t size) {
    return m_readbackBufferPool->CreateBuffer(size);
}

boost::intrusive_ptr<D12ShaderParameters> D12Device::CreateShaderParameters() {
    return boost::intrusive_ptr<D12ShaderParameters>(
        new D12ShaderParameters(m_device, m_descriptorHeapPool, m_rootSignatureVersion));
}

boost::intrusive_ptr<D12Query> D12Device::CreateQuery(D3D12_QUERY_TYPE type) {
    return m_queryHeapPool->CreateQuery(type);
}

boost::intrusive_ptr<D12DescriptorGPUHeap> D12Device::CreateViewHeap(unsigned count) {
    return m_descriptorHeapPool->CreateGPUHeap(D3D12_DESCRIPTOR_HEAP_TYPE_CBV_SRV_UAV, count);
}

boost::intrusive_ptr<D12DescriptorCPUHeap> D12Device::CreateShaderViewHeap(unsigned count) {
    return m_descriptorHeapPool->CreateCPUHeap(D3D12_DESCRIPTOR_HEAP_TYPE_CBV_SRV_UAV, count);
}

boost::intrusive_ptr<D12DescriptorCPUHeap> D12Device::CreateSamplerHeap(unsigned count) {
    return m_descriptorHeapPool->CreateCPUHeap(D3D12_DESCRIPTOR_HEAP_TYPE_SAMPLER, count);
}

boost::intrusive_ptr<D12DescriptorCPUHeap> D12Device::CreateRenderTargetViewHeap(unsigned count) {
    return m_descriptorHeapPool->CreateCPUHeap(D3D12_DESCRIPTOR_HEAP_TYPE_RTV, count);
}

boost::intrusive_ptr<D12DescriptorCPUHeap> D12Device::CreateDepthStencilViewHeap(unsigned count) {
    return m_descriptorHeapPool->CreateCPUHeap(D3D12_DESCRIPTOR_HEAP_TYPE_DSV, count);
}

boost::intrusive_ptr<D12Descriptor>
D12Device::CreateRenderTargetView(const CComPtr<ID3D12Resource>& resource) {
    return m_descriptorHeapPool->CreateRenderTargetView(resource);
}

boost::intrusive_ptr<D12Descriptor>
D12Device::CreateRenderTargetView(const CComPtr<ID3D12Resource>& resource,
                                  const std::optional<D3D12_RENDER_TARGET_VIEW_DESC>& desc) {
    return m_descriptorHeapPool->CreateRenderTargetView(resource, desc);
}

boost::intrusive_ptr<D12Descriptor>
D12Device::CreateTextureShaderResourceView(const CComPtr<ID3D12Resource>& resource) {
    return m_descriptorHeapPool->CreateTextureShaderResourceView(resource);
}

boost::intrusive_ptr<D12Descriptor>
D12Device::CreateShaderResourceView(const CComPtr<ID3D12Resource>& resource,
                                    const std::optional<D3D12_SHADER_RESOURCE_VIEW_DESC>& desc) {
    return m_descriptorHeapPool->CreateShaderResourceView(resource, desc);
}

} // namespace Norvex::DX
