#include "Proc/DirectX/Manager/D3D12DescriptorTable.h"

#include <algorithm>

#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

bool IsSameRange(const D3D12_DESCRIPTOR_RANGE1& a, const D3D12_DESCRIPTOR_RANGE1& b) {
    return a.RangeType == b.RangeType && a.NumDescriptors == b.NumDescriptors &&
           a.BaseShaderRegister == b.BaseShaderRegister && a.RegisterSpace == b.RegisterSpace &&
           a.Flags == b.Flags &&
           a.OffsetInDescriptorsFromTableStart == b.OffsetInDescriptorsFromTableStart;
}

// Whether `entry` continues `last`. The register space is not compared, and the register only with
// the first one of `last`, so a merged range has at most two descriptors; both are what existing
// root signatures rely on.
bool IsMergeable(const D3D12_DESCRIPTOR_RANGE1& last, const D3D12_DESCRIPTOR_RANGE1& entry) {
    return last.RangeType == entry.RangeType && last.Flags == entry.Flags &&
           last.OffsetInDescriptorsFromTableStart == entry.OffsetInDescriptorsFromTableStart &&
           last.BaseShaderRegister + 1 == entry.BaseShaderRegister;
}

D3D12_DESCRIPTOR_RANGE1 SingleRange(D3D12_DESCRIPTOR_RANGE_TYPE type, unsigned shaderRegister,
                                    unsigned registerSpace, D3D12_DESCRIPTOR_RANGE_FLAGS flags) {
    return {type, 1, shaderRegister, registerSpace, flags, D3D12_DESCRIPTOR_RANGE_OFFSET_APPEND};
}

D3D12_DESCRIPTOR_RANGE_TYPE
ViewRangeTypeOf(const boost::intrusive_ptr<D12Descriptor>& descriptor,
                const std::source_location& location = std::source_location::current()) {
    // No view is as little a view as a sampler.
    switch (descriptor != nullptr ? descriptor->GetType() : D12Descriptor::Sampler) {
    case D12Descriptor::ConstantBuffer:
        return D3D12_DESCRIPTOR_RANGE_TYPE_CBV;
    case D12Descriptor::ShaderResource:
        return D3D12_DESCRIPTOR_RANGE_TYPE_SRV;
    case D12Descriptor::UnorderedAccess:
        return D3D12_DESCRIPTOR_RANGE_TYPE_UAV;
    default:
        Throw<DirectX12Exception>("Invalid descriptor type", location);
    }
}

} // namespace

D12DescriptorTable::D12DescriptorTable(const CComPtr<ID3D12Device>& device, unsigned size,
                                       D3D12_SHADER_VISIBILITY visibility)
    : D12RootParameter(visibility),
      m_device(device),
      m_size(size),
      m_descriptors(size),
      m_ranges(size) {}

D3D12_ROOT_PARAMETER1 D12DescriptorTable::Serialize() {
    m_mergedRanges.clear();
    for (const auto& range : m_ranges) {
        ThrowUnless<DirectX12Exception>(range.has_value(), "Table not fully initialized");
        if (!m_mergedRanges.empty() && IsMergeable(m_mergedRanges.back(), *range)) {
            ++m_mergedRanges.back().NumDescriptors;
        } else {
            m_mergedRanges.push_back(*range);
        }
    }
    m_serializedRevision = m_revision;
    D3D12_ROOT_PARAMETER1 parameter = {};
    parameter.ParameterType = D3D12_ROOT_PARAMETER_TYPE_DESCRIPTOR_TABLE;
    parameter.DescriptorTable = {static_cast<UINT>(m_mergedRanges.size()), m_mergedRanges.data()};
    parameter.ShaderVisibility = m_visibility;
    return parameter;
}

void D12DescriptorTable::Clear() {
    std::ranges::fill(m_descriptors, nullptr);
}

void D12DescriptorTable::SetDescriptor(unsigned index, const D3D12_DESCRIPTOR_RANGE1& range,
                                       const boost::intrusive_ptr<D12Descriptor>& descriptor) {
    ThrowUnless<DirectX12Exception>(index < m_size, "Table index out of range");
    auto& stored = m_ranges[index];
    if (!stored || !IsSameRange(*stored, range)) {
        ++m_revision;
    }
    stored = range;
    m_descriptors[index] = descriptor;
}

void D12DescriptorTable::Commit(CommitContext& context,
                                const boost::intrusive_ptr<D12DescriptorGPUHeap>& heap,
                                std::uint32_t& offset, const std::source_location& location) {
    if (m_size == 0) {
        return;
    }
    const D3D12_GPU_DESCRIPTOR_HANDLE table = heap->GetGPUHandle(offset);
    for (auto& descriptor : m_descriptors) {
        ThrowUnless<DirectX12Exception>(descriptor != nullptr, "Table not fully initialized",
                                        location);
        heap->Fill(offset, *descriptor);
        ++offset;
        for (const auto& resource : descriptor->GetResources()) {
            context.commandList->TrackObject(resource.p);
        }
        descriptor.reset();
    }
    context.commandList->SetRootDescriptorTable(context.rootIndex, table);
}

boost::intrusive_ptr<D12ViewTable> D12ViewTable::Init(const CComPtr<ID3D12Device>& device,
                                                      unsigned size,
                                                      D3D12_SHADER_VISIBILITY visibility) {
    return boost::intrusive_ptr<D12ViewTable>(new D12ViewTable(device, size, visibility));
}

void D12ViewTable::SetView(unsigned index, unsigned shaderRegister,
                           const boost::intrusive_ptr<D12Descriptor>& descriptor,
                           unsigned registerSpace, D3D12_DESCRIPTOR_RANGE_FLAGS flags) {
    const auto type = ViewRangeTypeOf(descriptor);
    SetDescriptor(index, SingleRange(type, shaderRegister, registerSpace, flags), descriptor);
}

void D12ViewTable::CountDescriptors(CommitContext& context) {
    context.viewCount += m_size;
}

void D12ViewTable::SetToCommandList(CommitContext& context) {
    Commit(context, context.viewHeap, context.viewOffset);
}

boost::intrusive_ptr<D12SamplerTable> D12SamplerTable::Init(const CComPtr<ID3D12Device>& device,
                                                            unsigned size,
                                                            D3D12_SHADER_VISIBILITY visibility) {
    return boost::intrusive_ptr<D12SamplerTable>(new D12SamplerTable(device, size, visibility));
}

void D12SamplerTable::SetSampler(unsigned index, unsigned shaderRegister,
                                 const boost::intrusive_ptr<D12Descriptor>& descriptor,
                                 D3D12_DESCRIPTOR_RANGE_FLAGS flags) {
    ThrowUnless<DirectX12Exception>(descriptor != nullptr &&
                                        descriptor->GetType() == D12Descriptor::Sampler,
                                    "Invalid descriptor type");
    SetDescriptor(index, SingleRange(D3D12_DESCRIPTOR_RANGE_TYPE_SAMPLER, shaderRegister, 0, flags),
                  descriptor);
}

void D12SamplerTable::CountDescriptors(CommitContext& context) {
    context.samplerCount += m_size;
}

void D12SamplerTable::SetToCommandList(CommitContext& context) {
    Commit(context, context.samplerHeap, context.samplerOffset);
}

} // namespace Norvex::DX
