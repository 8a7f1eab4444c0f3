#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"

#include <utility>

#include "Platform/D3D12Abi.h"
#include "Proc/DirectX/Manager/SlotBitmap.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

constexpr unsigned kConstantBufferAlignment = D3D12_CONSTANT_BUFFER_DATA_PLACEMENT_ALIGNMENT;

DXGI_FORMAT FormatOf(const CComPtr<ID3D12Resource>& resource) {
    return resource != nullptr ? Platform::GetDesc(resource).Format : DXGI_FORMAT_UNKNOWN;
}

// Without a description there has to be a resource that Direct3D can derive one from.
template <class Desc>
DXGI_FORMAT FormatOf(const CComPtr<ID3D12Resource>& resource, const std::optional<Desc>& desc,
                     const std::source_location& location = std::source_location::current()) {
    ThrowUnless<DirectX12Exception>(resource != nullptr || desc, "Unsupported resource", location);
    return desc ? desc->Format : FormatOf(resource);
}

template <class Desc>
const Desc* PointerTo(const std::optional<Desc>& desc) {
    return desc ? &*desc : nullptr;
}

} // namespace

D12DescriptorHeap::D12DescriptorHeap(const CComPtr<ID3D12Device>& device,
                                     CComPtr<ID3D12DescriptorHeap> heap,
                                     boost::intrusive_ptr<D12DescriptorHeapPool> pool)
    : m_device(device),
      m_heap(std::move(heap)),
      m_desc(Platform::GetDesc(m_heap)),
      m_increment(device->GetDescriptorHandleIncrementSize(m_desc.Type)),
      m_cpuStart(Platform::GetCPUStart(m_heap)),
      m_pool(std::move(pool)) {}

D12DescriptorHeap::~D12DescriptorHeap() {
    if (m_pool != nullptr) {
        m_pool->ReuseHeap(*this);
    }
}

// Indices in a heap without slots belong to its user.
void D12DescriptorHeap::ReuseDescriptor(D12Descriptor*) {}

D3D12_CPU_DESCRIPTOR_HANDLE D12DescriptorHeap::GetCPUHandle(unsigned index) const {
    ThrowUnless<DirectX12Exception>(index < m_desc.NumDescriptors, "Descriptor index out of range");
    return {m_cpuStart.ptr + SIZE_T{index} * m_increment};
}

D12DescriptorGPUHeap::D12DescriptorGPUHeap(const CComPtr<ID3D12Device>& device,
                                           CComPtr<ID3D12DescriptorHeap> heap,
                                           boost::intrusive_ptr<D12DescriptorHeapPool> pool)
    : D12DescriptorHeap(device, std::move(heap), std::move(pool)),
      m_gpuStart(Platform::GetGPUStart(m_heap)) {}

D3D12_GPU_DESCRIPTOR_HANDLE D12DescriptorGPUHeap::GetGPUHandle(unsigned index) const {
    ThrowUnless<DirectX12Exception>(index < m_desc.NumDescriptors, "Descriptor index out of range");
    return {m_gpuStart.ptr + UINT64{index} * m_increment};
}

void D12DescriptorGPUHeap::Fill(unsigned index, const D12Descriptor& source) {
    ThrowUnless<DirectX12Exception>(GetType() == source.GetHeapType(),
                                    "Descriptor heap types are different");
    m_device->CopyDescriptorsSimple(1, GetCPUHandle(index), source.GetCPUHandle(), GetType());
}

boost::intrusive_ptr<D12Descriptor>
D12DescriptorGPUHeap::CopyDescriptor(unsigned index,
                                     const boost::intrusive_ptr<D12Descriptor>& source) {
    ThrowUnless<DirectX12Exception>(source != nullptr, "Invalid descriptor type");
    ThrowUnless<DirectX12Exception>(GetType() == source->GetHeapType(),
                                    "Descriptor heap types are different");
    boost::intrusive_ptr<D12Descriptor> copy(new D12Descriptor(
        source->GetResources(), source->GetType(), source->GetFormat(), index, this));
    m_device->CopyDescriptorsSimple(1, copy->GetCPUHandle(), source->GetCPUHandle(), GetType());
    return copy;
}

D12DescriptorCPUHeap::D12DescriptorCPUHeap(const CComPtr<ID3D12Device>& device,
                                           CComPtr<ID3D12DescriptorHeap> heap,
                                           boost::intrusive_ptr<D12DescriptorHeapPool> pool)
    : D12DescriptorHeap(device, std::move(heap), std::move(pool)),
      m_slots(std::make_unique<SlotBitmap>(m_desc.NumDescriptors)) {}

D12DescriptorCPUHeap::~D12DescriptorCPUHeap() = default;

void D12DescriptorCPUHeap::ReuseDescriptor(D12Descriptor* descriptor) {
    m_slots->Free(descriptor->GetIndex());
}

bool D12DescriptorCPUHeap::HasFree() const {
    return m_slots->HasFree();
}

boost::intrusive_ptr<D12Descriptor> D12DescriptorCPUHeap::AllocateDescriptor(
    std::vector<CComPtr<ID3D12Resource>> resources, D12Descriptor::DescriptorType type,
    DXGI_FORMAT format, const char* noSpaceSentence, const std::source_location& location) {
    std::erase(resources, nullptr);
    const auto slot = m_slots->Allocate();
    ThrowUnless<DirectX12Exception>(slot.has_value(), noSpaceSentence, location);
    return m_slots->Fill(*slot, [&] {
        return boost::intrusive_ptr<D12Descriptor>(
            new D12Descriptor(std::move(resources), type, format, *slot, this));
    });
}

boost::intrusive_ptr<D12Descriptor>
D12DescriptorCPUHeap::CreateConstantBufferView(const CComPtr<ID3D12Resource>& resource,
                                               const D3D12_CONSTANT_BUFFER_VIEW_DESC& desc) {
    ThrowUnless<DirectX12Exception>(
        desc.SizeInBytes % kConstantBufferAlignment == 0,
        "Constant Buffer View requires SizeInBytes be a multiple of 256");
    ThrowUnless<DirectX12Exception>(GetType() == D3D12_DESCRIPTOR_HEAP_TYPE_CBV_SRV_UAV,
                                    "Invalid heap type");
    auto descriptor =
        AllocateDescriptor({resource}, D12Descriptor::ConstantBuffer, FormatOf(resource),
                           "There is no free space in the heap to create a constant buffer view");
    m_device->CreateConstantBufferView(&desc, descriptor->GetCPUHandle());
    return descriptor;
}

boost::intrusive_ptr<D12Descriptor> D12DescriptorCPUHeap::CreateShaderResourceView(
    const CComPtr<ID3D12Resource>& resource,
    const std::optional<D3D12_SHADER_RESOURCE_VIEW_DESC>& desc) {
    ThrowUnless<DirectX12Exception>(GetType() == D3D12_DESCRIPTOR_HEAP_TYPE_CBV_SRV_UAV,
                                    "Invalid heap type");
    auto descriptor =
        AllocateDescriptor({resource}, D12Descriptor::ShaderResource, FormatOf(resource, desc),
                           "There is no free space in the heap to create a shader resource view");
    m_device->CreateShaderResourceView(resource, PointerTo(desc), descriptor->GetCPUHandle());
    return descriptor;
}

boost::intrusive_ptr<D12Descriptor> D12DescriptorCPUHeap::CreateUnorderedAccessView(
    const CComPtr<ID3D12Resource>& resource, const CComPtr<ID3D12Resource>& counter,
    const std::optional<D3D12_UNORDERED_ACCESS_VIEW_DESC>& desc) {
    ThrowUnless<DirectX12Exception>(GetType() == D3D12_DESCRIPTOR_HEAP_TYPE_CBV_SRV_UAV,
                                    "Invalid heap type");
    ThrowUnless<DirectX12Exception>(resource != nullptr || counter == nullptr,
                                    "Unsupported resource");
    auto descriptor = AllocateDescriptor(
        {resource, counter}, D12Descriptor::UnorderedAccess, FormatOf(resource, desc),
        "There is no free space in the heap to create an unordered access view");
    m_device->CreateUnorderedAccessView(resource, counter, PointerTo(desc),
                                        descriptor->GetCPUHandle());
    return descriptor;
}

boost::intrusive_ptr<D12Descriptor>
D12DescriptorCPUHeap::CreateSampler(const D3D12_SAMPLER_DESC& desc) {
    ThrowUnless<DirectX12Exception>(GetType() == D3D12_DESCRIPTOR_HEAP_TYPE_SAMPLER,
                                    "Invalid heap type");
    auto descriptor = AllocateDescriptor({}, D12Descriptor::Sampler, DXGI_FORMAT_UNKNOWN,
                                         "There is no free space in the heap to create a sampler");
    m_device->CreateSampler(&desc, descriptor->GetCPUHandle());
    return descriptor;
}

boost::intrusive_ptr<D12Descriptor> D12DescriptorCPUHeap::CreateRenderTargetView(
    const CComPtr<ID3D12Resource>& resource,
    const std::optional<D3D12_RENDER_TARGET_VIEW_DESC>& desc) {
    ThrowUnless<DirectX12Exception>(GetType() == D3D12_DESCRIPTOR_HEAP_TYPE_RTV,
                                    "Invalid heap type");
    auto descriptor =
        AllocateDescriptor({resource}, D12Descriptor::RenderTarget, FormatOf(resource, desc),
                           "There is no free space in the heap to create a render target view");
    m_device->CreateRenderTargetView(resource, PointerTo(desc), descriptor->GetCPUHandle());
    return descriptor;
}

boost::intrusive_ptr<D12Descriptor> D12DescriptorCPUHeap::CreateDepthStencilView(
    const CComPtr<ID3D12Resource>& resource,
    const std::optional<D3D12_DEPTH_STENCIL_VIEW_DESC>& desc) {
    ThrowUnless<DirectX12Exception>(GetType() == D3D12_DESCRIPTOR_HEAP_TYPE_DSV,
                                    "Invalid heap type");
    auto descriptor =
        AllocateDescriptor({resource}, D12Descriptor::DepthStencil, FormatOf(resource, desc),
                           "There is no free space in the heap to create a depth stencil view");
    m_device->CreateDepthStencilView(resource, PointerTo(desc), descriptor->GetCPUHandle());
    return descriptor;
}

} // namespace Norvex::DX
