#pragma once

// Root parameters: what D12ShaderParameters hands out to be filled before each draw. Held by their D12ShaderParameters and by the
// caller. Not thread-safe: one recording thread at a time. Throws DirectX12Exception.

#include <cstdint>
#include <optional>
#include <vector>

#include "Proc/DirectX/Manager/D3D12CommandList.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"

namespace Norvex::DX {

class NORVEX_DX_API D12RootParameter : public RefCountImpl {
public:
    // The state of one bind, passed from parameter to parameter.
    struct CommitContext {
        boost::intrusive_ptr<D12GraphicsCommandList> commandList;
        std::uint32_t viewCount = 0; // totals of table entries
        std::uint32_t samplerCount = 0;
        std::uint32_t rootIndex = 0;  // of the parameter being bound
        std::uint32_t viewOffset = 0; // next free slot in each heap
        std::uint32_t samplerOffset = 0;
        boost::intrusive_ptr<D12DescriptorGPUHeap> viewHeap; // null when not needed
        boost::intrusive_ptr<D12DescriptorGPUHeap> samplerHeap;
    };

    ~D12RootParameter() override;

    // Whether Serialize would differ from its last answer.
    virtual bool NeedSerialize() const { return false; }
    // Points into this object; valid until the next call.
    virtual D3D12_ROOT_PARAMETER1 Serialize() = 0;
    // Adds what this parameter needs in the heaps.
    virtual void CountDescriptors(CommitContext&) {}
    virtual void SetToCommandList(CommitContext& context) = 0;
    // Throws when a bind is bound to fail; called for all parameters before anything is recorded.
    virtual void CheckBindable() const {}

protected:
    explicit D12RootParameter(D3D12_SHADER_VISIBILITY visibility) : m_visibility(visibility) {}

    D3D12_SHADER_VISIBILITY m_visibility;
};

class NORVEX_DX_API D12RootConstants : public D12RootParameter {
public:
    static constexpr unsigned s_32bitSize = 4; // bytes of one value

    static boost::intrusive_ptr<D12RootConstants> Init(unsigned num32BitValues, unsigned shaderRegister,
                                                       unsigned registerSpace, D3D12_SHADER_VISIBILITY visibility);

    // Padded with zeros to whole 32-bit values. The length is not compared with num32BitValues.
    void SetData(std::vector<unsigned char>&& data);
    void SetData(const void* data, std::uint64_t size);

    D3D12_ROOT_PARAMETER1 Serialize() override;
    void SetToCommandList(CommitContext& context) override;

private:
    D12RootConstants(unsigned num32BitValues, unsigned shaderRegister, unsigned registerSpace,
                     D3D12_SHADER_VISIBILITY visibility);

    std::uint32_t m_shaderRegister;
    std::uint32_t m_registerSpace;
    std::uint32_t m_num32BitValues;
    std::vector<unsigned char> m_data;
};

// A buffer bound by its address. Set the buffer before every bind, which consumes it and keeps it alive with the list.
class NORVEX_DX_API D12InlineDescriptor : public D12RootParameter {
public:
    void SetBuffer(const CComPtr<ID3D12Resource>& buffer) { m_buffer = buffer; }

    // "Inline descriptor has no buffer".
    void CheckBindable() const override;

protected:
    D12InlineDescriptor(unsigned shaderRegister, unsigned registerSpace, D3D12_ROOT_DESCRIPTOR_FLAGS flags,
                        D3D12_SHADER_VISIBILITY visibility);

    D3D12_ROOT_PARAMETER1 SerializeAs(D3D12_ROOT_PARAMETER_TYPE type) const;
    using RootSetter = void (D12GraphicsCommandList::*)(unsigned, D3D12_GPU_VIRTUAL_ADDRESS);
    void Bind(CommitContext& context, RootSetter setter);

private:
    std::uint32_t m_shaderRegister;
    std::uint32_t m_registerSpace;
    D3D12_ROOT_DESCRIPTOR_FLAGS m_flags;
    CComPtr<ID3D12Resource> m_buffer;
};

class NORVEX_DX_API D12ConstantBufferView : public D12InlineDescriptor {
public:
    static boost::intrusive_ptr<D12ConstantBufferView> Init(unsigned shaderRegister, unsigned registerSpace,
                                                            D3D12_ROOT_DESCRIPTOR_FLAGS flags,
                                                            D3D12_SHADER_VISIBILITY visibility);

    D3D12_ROOT_PARAMETER1 Serialize() override;
    void SetToCommandList(CommitContext& context) override;

private:
    using D12InlineDescriptor::D12InlineDescriptor;
};

class NORVEX_DX_API D12ShaderResourceView : public D12InlineDescriptor {
public:
    static boost::intrusive_ptr<D12ShaderResourceView> Init(unsigned shaderRegister, unsigned registerSpace,
                                                            D3D12_ROOT_DESCRIPTOR_FLAGS flags,
                                                            D3D12_SHADER_VISIBILITY visibility);

    D3D12_ROOT_PARAMETER1 Serialize() override;
    void SetToCommandList(CommitContext& context) override;

private:
    using D12InlineDescriptor::D12InlineDescriptor;
};

class NORVEX_DX_API D12UnorderedAccessView : public D12InlineDescriptor {
public:
    static boost::intrusive_ptr<D12UnorderedAccessView> Init(unsigned shaderRegister, unsigned registerSpace,
                                                             D3D12_ROOT_DESCRIPTOR_FLAGS flags,
                                                             D3D12_SHADER_VISIBILITY visibility);

    D3D12_ROOT_PARAMETER1 Serialize() override;
    void SetToCommandList(CommitContext& context) override;

private:
    using D12InlineDescriptor::D12InlineDescriptor;
};

// Descriptors copied into a shader-visible heap at each bind, which consumes them; registers and types stay.
class NORVEX_DX_API D12DescriptorTable : public D12RootParameter {
public:
    bool NeedSerialize() const override { return m_needSerialize; }
    // Neighbouring entries of one kind become one range. "Table not fully initialized" when an entry was never set.
    D3D12_ROOT_PARAMETER1 Serialize() override;
    // "Table not fully initialized" for a table of size 0.
    void CheckBindable() const override;

protected:
    D12DescriptorTable(const CComPtr<ID3D12Device>& device, unsigned size, D3D12_SHADER_VISIBILITY visibility);

    // "Table index out of range".
    void SetDescriptor(unsigned index, const D3D12_DESCRIPTOR_RANGE1& range,
                       const boost::intrusive_ptr<D12Descriptor>& descriptor);
    // Copies the entries to `offset` and on in the heap, advances it, sets the table. "Table not fully initialized".
    void Commit(CommitContext& context, const boost::intrusive_ptr<D12DescriptorGPUHeap>& heap,
                std::uint32_t& offset);

    CComPtr<ID3D12Device> m_device;
    std::uint32_t m_size;

private:
    std::vector<boost::intrusive_ptr<D12Descriptor>> m_descriptors; // null: not set since the last bind
    bool m_needSerialize = true;
    std::vector<std::optional<D3D12_DESCRIPTOR_RANGE1>> m_ranges;
    std::vector<D3D12_DESCRIPTOR_RANGE1> m_mergedRanges; // what the serialised parameter points to
};

class NORVEX_DX_API D12ViewTable : public D12DescriptorTable {
public:
    static boost::intrusive_ptr<D12ViewTable> Init(const CComPtr<ID3D12Device>& device, unsigned size,
                                                   D3D12_SHADER_VISIBILITY visibility);

    // A constant-buffer, shader-resource or unordered-access view. "Invalid descriptor type", "Table index out of range".
    void SetView(unsigned index, unsigned shaderRegister, const boost::intrusive_ptr<D12Descriptor>& descriptor,
                 unsigned registerSpace, D3D12_DESCRIPTOR_RANGE_FLAGS flags);

    void CountDescriptors(CommitContext& context) override;
    void SetToCommandList(CommitContext& context) override;

private:
    using D12DescriptorTable::D12DescriptorTable;
};

class NORVEX_DX_API D12SamplerTable : public D12DescriptorTable {
public:
    static boost::intrusive_ptr<D12SamplerTable> Init(const CComPtr<ID3D12Device>& device, unsigned size,
                                                      D3D12_SHADER_VISIBILITY visibility);

    // A sampler, in register space 0. "Invalid descriptor type", "Table index out of range".
    void SetSampler(unsigned index, unsigned shaderRegister, const boost::intrusive_ptr<D12Descriptor>& descriptor,
                    D3D12_DESCRIPTOR_RANGE_FLAGS flags);

    void CountDescriptors(CommitContext& context) override;
    void SetToCommandList(CommitContext& context) override;

private:
    using D12DescriptorTable::D12DescriptorTable;
};

} // namespace Norvex::DX
