#include "Proc/DirectX/Manager/D3D12ShaderParameters.h"

#include <algorithm>
#include <numeric>
#include <string>

#include "Proc/DirectX/Manager/API.h"
#include "Proc/DirectX/Manager/Annotation.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

// Without the terminating zero that the blob may hold.
std::string TextOf(ID3D10Blob* blob) {
    if (blob == nullptr) {
        return {};
    }
    const auto* begin = static_cast<const char*>(blob->GetBufferPointer());
    return {begin, std::find(begin, begin + blob->GetBufferSize(), '\0')};
}

} // namespace

D12ShaderParameters::D12ShaderParameters(const CComPtr<ID3D12Device>& device,
                                         const boost::intrusive_ptr<D12DescriptorHeapPool>& pool,
                                         D3D_ROOT_SIGNATURE_VERSION version)
    : m_device(device),
      m_pool(pool),
      m_version(version) {}

D12ShaderParameters::~D12ShaderParameters() = default;

template <class Parameter>
boost::intrusive_ptr<Parameter>
D12ShaderParameters::Append(boost::intrusive_ptr<Parameter> parameter) {
    m_parameters.push_back(parameter);
    m_dirty = true;
    return parameter;
}

boost::intrusive_ptr<D12RootConstants>
D12ShaderParameters::AddContants(unsigned num32BitValues, unsigned shaderRegister,
                                 unsigned registerSpace, D3D12_SHADER_VISIBILITY visibility) {
    return Append(
        D12RootConstants::Init(num32BitValues, shaderRegister, registerSpace, visibility));
}

boost::intrusive_ptr<D12ConstantBufferView>
D12ShaderParameters::AddConstantBufferView(unsigned shaderRegister, unsigned registerSpace,
                                           D3D12_ROOT_DESCRIPTOR_FLAGS flags,
                                           D3D12_SHADER_VISIBILITY visibility) {
    return Append(D12ConstantBufferView::Init(shaderRegister, registerSpace, flags, visibility));
}

boost::intrusive_ptr<D12ShaderResourceView>
D12ShaderParameters::AddShaderResourceView(unsigned shaderRegister, unsigned registerSpace,
                                           D3D12_ROOT_DESCRIPTOR_FLAGS flags,
                                           D3D12_SHADER_VISIBILITY visibility) {
    return Append(D12ShaderResourceView::Init(shaderRegister, registerSpace, flags, visibility));
}

boost::intrusive_ptr<D12UnorderedAccessView>
D12ShaderParameters::AddUnorderedAccessView(unsigned shaderRegister, unsigned registerSpace,
                                            D3D12_ROOT_DESCRIPTOR_FLAGS flags,
                                            D3D12_SHADER_VISIBILITY visibility) {
    return Append(D12UnorderedAccessView::Init(shaderRegister, registerSpace, flags, visibility));
}

boost::intrusive_ptr<D12ViewTable>
D12ShaderParameters::AddViewTable(unsigned size, D3D12_SHADER_VISIBILITY visibility) {
    return Append(D12ViewTable::Init(m_device, size, visibility));
}

boost::intrusive_ptr<D12SamplerTable>
D12ShaderParameters::AddSamplerTable(unsigned size, D3D12_SHADER_VISIBILITY visibility) {
    return Append(D12SamplerTable::Init(m_device, size, visibility));
}

void D12ShaderParameters::AddSampler(const D3D12_STATIC_SAMPLER_DESC& sampler) {
    m_staticSamplers.push_back(sampler);
    m_dirty = true;
}

void D12ShaderParameters::SetFlags(std::initializer_list<D3D12_ROOT_SIGNATURE_FLAGS> flags) {
    for (const auto flag : flags) {
        m_flags |= flag;
    }
    m_dirty = true;
}

// Of all together: none ever goes back.
std::uint64_t D12ShaderParameters::GetParametersRevision() const {
    return std::accumulate(
        m_parameters.begin(), m_parameters.end(), std::uint64_t{0},
        [](std::uint64_t sum, const auto& parameter) { return sum + parameter->GetRevision(); });
}

bool D12ShaderParameters::SerializeRootSignature() {
    const std::uint64_t revision = GetParametersRevision();
    if (!m_dirty && m_rootSignature && m_serializedRevision == revision) {
        return false;
    }
    std::vector<D3D12_ROOT_PARAMETER1> parameters;
    parameters.reserve(m_parameters.size());
    for (const auto& parameter : m_parameters) {
        parameters.push_back(parameter->Serialize());
    }
    D3D12_VERSIONED_ROOT_SIGNATURE_DESC desc = {};
    desc.Version = D3D_ROOT_SIGNATURE_VERSION_1_1;
    desc.Desc_1_1 = {static_cast<UINT>(parameters.size()), parameters.data(),
                     static_cast<UINT>(m_staticSamplers.size()), m_staticSamplers.data(), m_flags};
    m_rootSignature = CreateRootSignature(desc, std::source_location::current());
    m_serializedRevision = revision;
    m_dirty = false;
    return true;
}

CComPtr<ID3D12RootSignature>
D12ShaderParameters::CreateRootSignature(const D3D12_VERSIONED_ROOT_SIGNATURE_DESC& desc,
                                         const std::source_location& location) const {
    CComPtr<ID3D10Blob> blob;
    CComPtr<ID3D10Blob> errors;
    const long result = API::GetInstance().SerializeRootSignature(&desc, m_version, blob, errors);
    if (FAILED(result)) {
        ThrowResult<DirectX12Exception>(
            result, "Failed to serialize root signature: " + TextOf(errors), m_device, location);
    }
    CComPtr<ID3D12RootSignature> rootSignature;
    ThrowIfFailed<DirectX12Exception>(m_device->CreateRootSignature(0, blob->GetBufferPointer(),
                                                                    blob->GetBufferSize(),
                                                                    IID_PPV_ARGS(&rootSignature)),
                                      "Failed to create root signature", m_device, location);
    SetName(rootSignature, "root signature");
    return rootSignature;
}

void D12ShaderParameters::SetToCommandList(
    const boost::intrusive_ptr<D12GraphicsCommandList>& commandList) {
    ThrowUnless<DirectX12Exception>(commandList != nullptr, "Invalid command list");
    ThrowUnless<DirectX12Exception>(m_rootSignature != nullptr, "Root signature not serialized");
    for (const auto& parameter : m_parameters) {
        ThrowUnless<DirectX12Exception>(parameter->IsBindable(), "Inline descriptor has no buffer");
    }
    commandList->SetRootSignature(m_rootSignature);
    D12RootParameter::CommitContext context;
    context.commandList = commandList;
    for (const auto& parameter : m_parameters) {
        parameter->CountDescriptors(context);
    }
    if (context.viewCount > 0) {
        context.viewHeap =
            m_pool->CreateGPUHeap(D3D12_DESCRIPTOR_HEAP_TYPE_CBV_SRV_UAV, context.viewCount);
    }
    if (context.samplerCount > 0) {
        context.samplerHeap =
            m_pool->CreateGPUHeap(D3D12_DESCRIPTOR_HEAP_TYPE_SAMPLER, context.samplerCount);
    }
    commandList->SetDescriptorHeaps(context.viewHeap, context.samplerHeap);
    for (const auto& parameter : m_parameters) {
        parameter->SetToCommandList(context);
        ++context.rootIndex;
    }
}

} // namespace Norvex::DX
