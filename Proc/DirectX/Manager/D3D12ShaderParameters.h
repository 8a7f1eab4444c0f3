#pragma once

// The inputs of one pipeline: root parameters in the order they were added, static samplers, flags.
// Builds the root signature when something changed and binds everything to a command list. Add
// once; then per draw set the data, SerializeRootSignature (rebuild the pipeline state when it
// answers true), SetToCommandList. Table entries and inline buffers are consumed by each bind. Not
// thread-safe: one recording thread at a time. Throws DirectX12Exception. The parameters:
// D3D12RootParameter.h, D3D12DescriptorTable.h.

#include <cstdint>
#include <initializer_list>
#include <source_location>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/D3D12DescriptorTable.h"
#include "Proc/DirectX/Manager/LiveObject.h"

namespace Norvex::DX {

class NORVEX_DX_API D12ShaderParameters : public LiveObject {
public:
    // `version`: the highest that the device accepts. `pool`: where the heaps of the tables come
    // from; may be null when none is bound.
    D12ShaderParameters(const CComPtr<ID3D12Device>& device,
                        const boost::intrusive_ptr<D12DescriptorHeapPool>& pool,
                        D3D_ROOT_SIGNATURE_VERSION version);
    // A copy shares the parameter objects, and each copy has its root signature follow them.
    D12ShaderParameters(const D12ShaderParameters&) = default;
    D12ShaderParameters& operator=(const D12ShaderParameters&) = default;
    ~D12ShaderParameters() override;

    // The name is spelled so.
    boost::intrusive_ptr<D12RootConstants> AddContants(unsigned num32BitValues,
                                                       unsigned shaderRegister,
                                                       unsigned registerSpace,
                                                       D3D12_SHADER_VISIBILITY visibility);
    // A buffer set by its address, b registers.
    boost::intrusive_ptr<D12ConstantBufferView>
    AddConstantBufferView(unsigned shaderRegister, unsigned registerSpace,
                          D3D12_ROOT_DESCRIPTOR_FLAGS flags, D3D12_SHADER_VISIBILITY visibility);
    // A buffer set by its address, t registers.
    boost::intrusive_ptr<D12ShaderResourceView>
    AddShaderResourceView(unsigned shaderRegister, unsigned registerSpace,
                          D3D12_ROOT_DESCRIPTOR_FLAGS flags, D3D12_SHADER_VISIBILITY visibility);
    // A buffer set by its address, u registers.
    boost::intrusive_ptr<D12UnorderedAccessView>
    AddUnorderedAccessView(unsigned shaderRegister, unsigned registerSpace,
                           D3D12_ROOT_DESCRIPTOR_FLAGS flags, D3D12_SHADER_VISIBILITY visibility);
    // Of size views.
    boost::intrusive_ptr<D12ViewTable> AddViewTable(unsigned size,
                                                    D3D12_SHADER_VISIBILITY visibility);
    // Of size samplers.
    boost::intrusive_ptr<D12SamplerTable> AddSamplerTable(unsigned size,
                                                          D3D12_SHADER_VISIBILITY visibility);
    // Part of the root signature itself.
    void AddSampler(const D3D12_STATIC_SAMPLER_DESC& sampler);
    // Adds the flags; never clears one.
    void SetFlags(std::initializer_list<D3D12_ROOT_SIGNATURE_FLAGS> flags);

    // True when a new root signature was built, false when the present one still fits. "Table not
    // fully initialized", "Failed to serialize root signature: " and the system's text, "Failed to
    // create root signature".
    bool SerializeRootSignature();
    // Null until first serialised.
    const CComPtr<ID3D12RootSignature>& GetRootSignature() const { return m_rootSignature; }
    // Binds root signature, heaps and arguments; serialise first, after the last change. Before
    // anything is recorded: "Invalid command list" for null, "Root signature not serialized",
    // "Inline descriptor has no buffer". "Table not fully initialized" leaves the entries bound so
    // far cleared.
    void SetToCommandList(const boost::intrusive_ptr<D12GraphicsCommandList>& commandList);

private:
    template <class Parameter>
    boost::intrusive_ptr<Parameter> Append(boost::intrusive_ptr<Parameter> parameter);
    std::uint64_t GetParametersRevision() const;
    CComPtr<ID3D12RootSignature>
    CreateRootSignature(const D3D12_VERSIONED_ROOT_SIGNATURE_DESC& desc,
                        const std::source_location& location) const;

    CComPtr<ID3D12Device> m_device;
    boost::intrusive_ptr<D12DescriptorHeapPool> m_pool;
    D3D_ROOT_SIGNATURE_VERSION m_version;
    bool m_dirty = true;
    std::vector<boost::intrusive_ptr<D12RootParameter>>
        m_parameters; // the position is the root index
    std::vector<D3D12_STATIC_SAMPLER_DESC> m_staticSamplers;
    D3D12_ROOT_SIGNATURE_FLAGS m_flags = D3D12_ROOT_SIGNATURE_FLAG_NONE;
    CComPtr<ID3D12RootSignature> m_rootSignature;
    std::uint64_t m_serializedRevision = 0; // of the parameters, when it was made
};

} // namespace Norvex::DX
