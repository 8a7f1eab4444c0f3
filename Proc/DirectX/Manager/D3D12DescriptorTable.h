#pragma once

// Root parameters that are tables of views or of samplers. Fill every entry before each bind, which
// copies them into a shader-visible heap. Not thread-safe: one recording thread at a time. Throws
// DirectX12Exception.

#include <cstdint>
#include <optional>
#include <source_location>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/D3D12RootParameter.h"

namespace Norvex::DX {

// Descriptors copied into a shader-visible heap at each bind, which consumes them; registers and
// types stay. A table of size 0 binds nothing.
class NORVEX_DX_API D12DescriptorTable : public D12RootParameter {
public:
    bool NeedSerialize() const override { return m_serializedRevision != m_revision; }
    std::uint64_t GetRevision() const override { return m_revision; }
    // Forgets the descriptors, as a bind does.
    void Clear();
    // Neighbouring entries of one kind become one range. "Table not fully initialized" when an
    // entry was never set.
    D3D12_ROOT_PARAMETER1 Serialize() override;

protected:
    // For size descriptors.
    D12DescriptorTable(const CComPtr<ID3D12Device>& device, unsigned size,
                       D3D12_SHADER_VISIBILITY visibility);

    // "Table index out of range".
    void SetDescriptor(unsigned index, const D3D12_DESCRIPTOR_RANGE1& range,
                       const boost::intrusive_ptr<D12Descriptor>& descriptor);
    // Copies the entries to `offset` and on in the heap, advances it, sets the table. "Table not
    // fully initialized".
    void Commit(CommitContext& context, const boost::intrusive_ptr<D12DescriptorGPUHeap>& heap,
                std::uint32_t& offset,
                const std::source_location& location = std::source_location::current());

    CComPtr<ID3D12Device> m_device;
    std::uint32_t m_size;

private:
    std::vector<boost::intrusive_ptr<D12Descriptor>>
        m_descriptors; // null: not set since the last bind
    std::uint64_t m_revision = 1;
    std::uint64_t m_serializedRevision = 0;
    std::vector<std::optional<D3D12_DESCRIPTOR_RANGE1>> m_ranges;
    std::vector<D3D12_DESCRIPTOR_RANGE1> m_mergedRanges; // what the serialised parameter points to
};

class NORVEX_DX_API D12ViewTable : public D12DescriptorTable {
public:
    // A table of size empty places.
    static boost::intrusive_ptr<D12ViewTable>
    Init(const CComPtr<ID3D12Device>& device, unsigned size, D3D12_SHADER_VISIBILITY visibility);

    // A constant-buffer, shader-resource or unordered-access view. "Invalid descriptor type" (null
    // too), "Table index out of range".
    void SetView(unsigned index, unsigned shaderRegister,
                 const boost::intrusive_ptr<D12Descriptor>& descriptor, unsigned registerSpace,
                 D3D12_DESCRIPTOR_RANGE_FLAGS flags);

    void CountDescriptors(CommitContext& context) override;
    // Copies its descriptors into the context's heap and sets the root argument.
    void SetToCommandList(CommitContext& context) override;

private:
    using D12DescriptorTable::D12DescriptorTable;
};

class NORVEX_DX_API D12SamplerTable : public D12DescriptorTable {
public:
    // A table of size empty places.
    static boost::intrusive_ptr<D12SamplerTable>
    Init(const CComPtr<ID3D12Device>& device, unsigned size, D3D12_SHADER_VISIBILITY visibility);

    // A sampler, in register space 0. "Invalid descriptor type" (null too), "Table index out of
    // range".
    void SetSampler(unsigned index, unsigned shaderRegister,
                    const boost::intrusive_ptr<D12Descriptor>& descriptor,
                    D3D12_DESCRIPTOR_RANGE_FLAGS flags);

    void CountDescriptors(CommitContext& context) override;
    // Copies its descriptors into the context's heap and sets the root argument.
    void SetToCommandList(CommitContext& context) override;

private:
    using D12DescriptorTable::D12DescriptorTable;
};

} // namespace Norvex::DX
