#include "Proc/DirectX/Manager/D3D12RootParameter.h"

#include <utility>

namespace Norvex::DX {

D12RootParameter::~D12RootParameter() = default;

D12RootConstants::D12RootConstants(unsigned num32BitValues, unsigned shaderRegister,
                                   unsigned registerSpace, D3D12_SHADER_VISIBILITY visibility)
    : D12RootParameter(visibility),
      m_shaderRegister(shaderRegister),
      m_registerSpace(registerSpace),
      m_num32BitValues(num32BitValues) {}

boost::intrusive_ptr<D12RootConstants> D12RootConstants::Init(unsigned num32BitValues,
                                                              unsigned shaderRegister,
                                                              unsigned registerSpace,
                                                              D3D12_SHADER_VISIBILITY visibility) {
    return boost::intrusive_ptr<D12RootConstants>(
        new D12RootConstants(num32BitValues, shaderRegister, registerSpace, visibility));
}

void D12RootConstants::SetData(std::vector<unsigned char>&& data) {
    m_data = std::move(data);
    m_data.resize((m_data.size() + s_32bitSize - 1) / s_32bitSize * s_32bitSize);
}

void D12RootConstants::SetData(const void* data, std::uint64_t size) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    SetData(std::vector<unsigned char>(bytes, bytes + size));
}

D3D12_ROOT_PARAMETER1 D12RootConstants::Serialize() {
    D3D12_ROOT_PARAMETER1 parameter = {};
    parameter.ParameterType = D3D12_ROOT_PARAMETER_TYPE_32BIT_CONSTANTS;
    parameter.Constants = {m_shaderRegister, m_registerSpace, m_num32BitValues};
    parameter.ShaderVisibility = m_visibility;
    return parameter;
}

void D12RootConstants::SetToCommandList(CommitContext& context) {
    context.commandList->SetRoot32BitConstants(
        context.rootIndex, static_cast<unsigned>(m_data.size() / s_32bitSize), m_data.data());
}

D12InlineDescriptor::D12InlineDescriptor(unsigned shaderRegister, unsigned registerSpace,
                                         D3D12_ROOT_DESCRIPTOR_FLAGS flags,
                                         D3D12_SHADER_VISIBILITY visibility)
    : D12RootParameter(visibility),
      m_shaderRegister(shaderRegister),
      m_registerSpace(registerSpace),
      m_flags(flags) {}

D3D12_ROOT_PARAMETER1 D12InlineDescriptor::SerializeAs(D3D12_ROOT_PARAMETER_TYPE type) const {
    D3D12_ROOT_PARAMETER1 parameter = {};
    parameter.ParameterType = type;
    parameter.Descriptor = {m_shaderRegister, m_registerSpace, m_flags};
    parameter.ShaderVisibility = m_visibility;
    return parameter;
}

void D12InlineDescriptor::Bind(CommitContext& context, RootSetter setter) {
    D12GraphicsCommandList& list = *context.commandList;
    (list.*setter)(context.rootIndex, m_buffer->GetGPUVirtualAddress());
    list.TrackObject(m_buffer);
    m_buffer.Release();
}

boost::intrusive_ptr<D12ConstantBufferView>
D12ConstantBufferView::Init(unsigned shaderRegister, unsigned registerSpace,
                            D3D12_ROOT_DESCRIPTOR_FLAGS flags, D3D12_SHADER_VISIBILITY visibility) {
    return boost::intrusive_ptr<D12ConstantBufferView>(
        new D12ConstantBufferView(shaderRegister, registerSpace, flags, visibility));
}

D3D12_ROOT_PARAMETER1 D12ConstantBufferView::Serialize() {
    return SerializeAs(D3D12_ROOT_PARAMETER_TYPE_CBV);
}

void D12ConstantBufferView::SetToCommandList(CommitContext& context) {
    Bind(context, &D12GraphicsCommandList::SetRootConstantBufferView);
}

boost::intrusive_ptr<D12ShaderResourceView>
D12ShaderResourceView::Init(unsigned shaderRegister, unsigned registerSpace,
                            D3D12_ROOT_DESCRIPTOR_FLAGS flags, D3D12_SHADER_VISIBILITY visibility) {
    return boost::intrusive_ptr<D12ShaderResourceView>(
        new D12ShaderResourceView(shaderRegister, registerSpace, flags, visibility));
}

D3D12_ROOT_PARAMETER1 D12ShaderResourceView::Serialize() {
    return SerializeAs(D3D12_ROOT_PARAMETER_TYPE_SRV);
}

void D12ShaderResourceView::SetToCommandList(CommitContext& context) {
    Bind(context, &D12GraphicsCommandList::SetRootShaderResourceView);
}

boost::intrusive_ptr<D12UnorderedAccessView>
D12UnorderedAccessView::Init(unsigned shaderRegister, unsigned registerSpace,
                             D3D12_ROOT_DESCRIPTOR_FLAGS flags,
                             D3D12_SHADER_VISIBILITY visibility) {
    return boost::intrusive_ptr<D12UnorderedAccessView>(
        new D12UnorderedAccessView(shaderRegister, registerSpace, flags, visibility));
}

D3D12_ROOT_PARAMETER1 D12UnorderedAccessView::Serialize() {
    return SerializeAs(D3D12_ROOT_PARAMETER_TYPE_UAV);
}

void D12UnorderedAccessView::SetToCommandList(CommitContext& context) {
    Bind(context, &D12GraphicsCommandList::SetRootUnorderedAccessView);
}

} // namespace Norvex::DX
