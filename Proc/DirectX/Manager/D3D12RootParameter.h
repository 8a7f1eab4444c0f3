#pragma once

// Root parameters: what D12ShaderParameters hands out to be filled before each draw. Held by their
// D12ShaderParameters and by the caller. Not thread-safe: one recording thread at a time. Throws
// DirectX12Exception.

#include <cstdint>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/D3D12CommandList.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/LiveObject.h"

namespace Norvex::DX {

class NORVEX_DX_API D12RootParameter : public LiveObject {
public:
    // The state of one bind, passed from parameter to parameter.
    struct CommitContext {
        boost::intrusive_ptr<D12GraphicsCommandList> commandList; // that is recorded
        std::uint32_t viewCount = 0;                              // totals of table entries
        std::uint32_t samplerCount = 0;                           // how many are needed
        std::uint32_t rootIndex = 0;                              // of the parameter being bound
        std::uint32_t viewOffset = 0;                             // next free slot in each heap
        std::uint32_t samplerOffset = 0;                          // next free slot
        boost::intrusive_ptr<D12DescriptorGPUHeap> viewHeap;      // null when not needed
        boost::intrusive_ptr<D12DescriptorGPUHeap> samplerHeap;   // null when not needed
    };

    ~D12RootParameter() override;
    D12RootParameter(const D12RootParameter&) = delete;
    D12RootParameter& operator=(const D12RootParameter&) = delete;

    // Whether Serialize would differ from its last answer, whoever asked for that.
    virtual bool NeedSerialize() const { return false; }
    // Grows when the answer of Serialize changes, so that several owners can each tell.
    virtual std::uint64_t GetRevision() const { return 0; }
    // Points into this object; valid until the next call.
    virtual D3D12_ROOT_PARAMETER1 Serialize() = 0;
    // Adds what this parameter needs in the heaps.
    virtual void CountDescriptors(CommitContext&) {}
    // Sets the root argument at context.rootIndex.
    virtual void SetToCommandList(CommitContext& context) = 0;
    // False when a bind is bound to fail; asked of all parameters before anything is recorded.
    virtual bool IsBindable() const { return true; }

protected:
    // For those shaders.
    explicit D12RootParameter(D3D12_SHADER_VISIBILITY visibility) : m_visibility(visibility) {}

    D3D12_SHADER_VISIBILITY m_visibility;
};

class NORVEX_DX_API D12RootConstants : public D12RootParameter {
public:
    // Bytes of one value.
    static constexpr unsigned s_32bitSize = 4; // NOLINT(readability-identifier-naming): API name

    // Of one register and those shaders, without contents.
    static boost::intrusive_ptr<D12RootConstants> Init(unsigned num32BitValues,
                                                       unsigned shaderRegister,
                                                       unsigned registerSpace,
                                                       D3D12_SHADER_VISIBILITY visibility);

    // Padded with zeros to whole 32-bit values. The length is not compared with num32BitValues.
    // size in bytes; data may be null when it is 0.
    void SetData(std::vector<unsigned char>&& data);
    void SetData(const void* data, std::uint64_t size);

    D3D12_ROOT_PARAMETER1 Serialize() override;
    // Sets the root argument at context.rootIndex.
    void SetToCommandList(CommitContext& context) override;

private:
    D12RootConstants(unsigned num32BitValues, unsigned shaderRegister, unsigned registerSpace,
                     D3D12_SHADER_VISIBILITY visibility);

    std::uint32_t m_shaderRegister;
    std::uint32_t m_registerSpace;
    std::uint32_t m_num32BitValues;
    std::vector<unsigned char> m_data;
};

// A buffer bound by its address. Set the buffer before every bind, which consumes it and keeps it
// alive with the list; without one nothing is bound.
class NORVEX_DX_API D12InlineDescriptor : public D12RootParameter {
public:
    // For the next binding, which takes it: to be set anew for each.
    void SetBuffer(const CComPtr<ID3D12Resource>& buffer) { m_buffer = buffer; }

    bool IsBindable() const override { return m_buffer != nullptr; }

protected:
    // Of one register.
    D12InlineDescriptor(unsigned shaderRegister, unsigned registerSpace,
                        D3D12_ROOT_DESCRIPTOR_FLAGS flags, D3D12_SHADER_VISIBILITY visibility);

    // As a parameter of that type.
    D3D12_ROOT_PARAMETER1 SerializeAs(D3D12_ROOT_PARAMETER_TYPE type) const;
    // Which call sets the argument.
    using RootSetter = void (D12GraphicsCommandList::*)(unsigned, D3D12_GPU_VIRTUAL_ADDRESS);
    // Sets the root argument by that call; the list keeps the buffer.
    void Bind(CommitContext& context, RootSetter setter);

private:
    std::uint32_t m_shaderRegister;
    std::uint32_t m_registerSpace;
    D3D12_ROOT_DESCRIPTOR_FLAGS m_flags;
    CComPtr<ID3D12Resource> m_buffer;
};

class NORVEX_DX_API D12ConstantBufferView : public D12InlineDescriptor {
public:
    // Of one register and those shaders, without contents.
    static boost::intrusive_ptr<D12ConstantBufferView> Init(unsigned shaderRegister,
                                                            unsigned registerSpace,
                                                            D3D12_ROOT_DESCRIPTOR_FLAGS flags,
                                                            D3D12_SHADER_VISIBILITY visibility);

    D3D12_ROOT_PARAMETER1 Serialize() override;
    // Sets the root argument at context.rootIndex.
    void SetToCommandList(CommitContext& context) override;

private:
    using D12InlineDescriptor::D12InlineDescriptor;
};

class NORVEX_DX_API D12ShaderResourceView : public D12InlineDescriptor {
public:
    // Of one register and those shaders, without contents.
    static boost::intrusive_ptr<D12ShaderResourceView> Init(unsigned shaderRegister,
                                                            unsigned registerSpace,
                                                            D3D12_ROOT_DESCRIPTOR_FLAGS flags,
                                                            D3D12_SHADER_VISIBILITY visibility);

    D3D12_ROOT_PARAMETER1 Serialize() override;
    // Sets the root argument at context.rootIndex.
    void SetToCommandList(CommitContext& context) override;

private:
    using D12InlineDescriptor::D12InlineDescriptor;
};

class NORVEX_DX_API D12UnorderedAccessView : public D12InlineDescriptor {
public:
    // Of one register and those shaders, without contents.
    static boost::intrusive_ptr<D12UnorderedAccessView> Init(unsigned shaderRegister,
                                                             unsigned registerSpace,
                                                             D3D12_ROOT_DESCRIPTOR_FLAGS flags,
                                                             D3D12_SHADER_VISIBILITY visibility);

    D3D12_ROOT_PARAMETER1 Serialize() override;
    // Sets the root argument at context.rootIndex.
    void SetToCommandList(CommitContext& context) override;

private:
    using D12InlineDescriptor::D12InlineDescriptor;
};

} // namespace Norvex::DX
