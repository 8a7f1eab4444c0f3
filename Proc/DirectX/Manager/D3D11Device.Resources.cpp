// What the device makes: buffers, textures, views, states.

#include "Proc/DirectX/Manager/D3D11Device.h"

#include <fmt/format.h>

#include "Proc/DirectX/Manager/Throw.h"
// Upwards by nature: an input layout is made for a shader's bytecode.
#include "Proc/DirectX/Manager/D3D11Query.h"
#include "Proc/DirectX/Manager/DirectXShader.h"

namespace Norvex::DX {

CComPtr<ID3D11Buffer> D11Device::CreateBuffer(const D3D11_BUFFER_DESC& desc,
                                              const D3D11_SUBRESOURCE_DATA* initialData) {
    CComPtr<ID3D11Buffer> buffer;
    const long result = m_device->CreateBuffer(&desc, initialData, &buffer);
    if (FAILED(result)) {
        ThrowResult<DirectX11Exception>(
            result, fmt::format("Failed to create ID3D11Buffer: byteWidth = {}", desc.ByteWidth),
            m_device);
    }
    return buffer;
}

CComPtr<ID3D11Texture2D> D11Device::CreateTexture2D(const D3D11_TEXTURE2D_DESC& desc,
                                                    const D3D11_SUBRESOURCE_DATA* initialData) {
    CComPtr<ID3D11Texture2D> texture;
    const long result = m_device->CreateTexture2D(&desc, initialData, &texture);
    if (FAILED(result)) {
        ThrowResult<DirectX11Exception>(
            result,
            fmt::format("Failed to create ID3D11Texture2D: width = {}, height = {}, format = {}",
                        desc.Width, desc.Height, static_cast<int>(desc.Format)),
            m_device);
    }
    return texture;
}

// A null resource is refused here as Windows refuses it; elsewhere the call would end the process.
CComPtr<ID3D11ShaderResourceView> D11Device::CreateShaderResourceView(ID3D11Resource* resource) {
    CComPtr<ID3D11ShaderResourceView> view;
    const long result = resource != nullptr
                            ? m_device->CreateShaderResourceView(resource, nullptr, &view)
                            : E_INVALIDARG;
    ThrowIfFailed<DirectX11Exception>(result, "Failed to create shader resource view", m_device);
    return view;
}

CComPtr<ID3D11ShaderResourceView>
D11Device::CreateShaderResourceView(ID3D11Resource* resource,
                                    const D3D11_SHADER_RESOURCE_VIEW_DESC& desc) {
    CComPtr<ID3D11ShaderResourceView> view;
    const long result = resource != nullptr
                            ? m_device->CreateShaderResourceView(resource, &desc, &view)
                            : E_INVALIDARG;
    ThrowIfFailed<DirectX11Exception>(result, "Failed to create shader resource view", m_device);
    return view;
}

CComPtr<ID3D11RenderTargetView>
D11Device::CreateRenderTargetView(ID3D11Resource* resource,
                                  const D3D11_RENDER_TARGET_VIEW_DESC& desc) {
    CComPtr<ID3D11RenderTargetView> view;
    const long result = resource != nullptr
                            ? m_device->CreateRenderTargetView(resource, &desc, &view)
                            : E_INVALIDARG;
    ThrowIfFailed<DirectX11Exception>(result, "Failed to create render target view", m_device);
    return view;
}

CComPtr<ID3D11DepthStencilView>
D11Device::CreateDepthStencilView(ID3D11Resource* resource,
                                  const D3D11_DEPTH_STENCIL_VIEW_DESC& desc) {
    CComPtr<ID3D11DepthStencilView> view;
    const long result = resource != nullptr
                            ? m_device->CreateDepthStencilView(resource, &desc, &view)
                            : E_INVALIDARG;
    ThrowIfFailed<DirectX11Exception>(result, "Failed to create depth stencil view", m_device);
    return view;
}

CComPtr<ID3D11RasterizerState> D11Device::CreateRasterizerState(const D3D11_RASTERIZER_DESC& desc) {
    CComPtr<ID3D11RasterizerState> state;
    ThrowIfFailed<DirectX11Exception>(m_device->CreateRasterizerState(&desc, &state),
                                      "Failed to create rasterizer state", m_device);
    return state;
}

CComPtr<ID3D11DepthStencilState>
D11Device::CreateDepthStencilState(const D3D11_DEPTH_STENCIL_DESC& desc) {
    CComPtr<ID3D11DepthStencilState> state;
    ThrowIfFailed<DirectX11Exception>(m_device->CreateDepthStencilState(&desc, &state),
                                      "Failed to create depth stencil state", m_device);
    return state;
}

CComPtr<ID3D11SamplerState> D11Device::CreateSamplerState(const D3D11_SAMPLER_DESC& desc) {
    CComPtr<ID3D11SamplerState> state;
    ThrowIfFailed<DirectX11Exception>(m_device->CreateSamplerState(&desc, &state),
                                      "Failed to create sampler state", m_device);
    return state;
}

CComPtr<ID3D11InputLayout>
D11Device::CreateInputLayout(const std::vector<D3D11_INPUT_ELEMENT_DESC>& elements,
                             const std::shared_ptr<D3ShaderBytecode>& bytecode) {
    ThrowUnless<DirectX11Exception>(bytecode != nullptr, "Shader bytecode is null");
    CComPtr<ID3D11InputLayout> layout;
    ID3D10Blob* const blob = bytecode->GetBuffer();
    ThrowIfFailed<DirectX11Exception>(
        m_device->CreateInputLayout(elements.data(), static_cast<UINT>(elements.size()),
                                    blob->GetBufferPointer(), blob->GetBufferSize(), &layout),
        "Failed to create input layout", m_device);
    return layout;
}

boost::intrusive_ptr<D11Query> D11Device::CreateQuery(D3D11_QUERY type) {
    return boost::intrusive_ptr<D11Query>(
        new D11Query(boost::intrusive_ptr<D11Device>(this), type));
}

CComPtr<ID3D11BlendState> D11Device::CreateBlendState(const D3D11_RENDER_TARGET_BLEND_DESC& desc) {
    D3D11_BLEND_DESC all = {};
    all.RenderTarget[0] = desc;
    CComPtr<ID3D11BlendState> state;
    ThrowIfFailed<DirectX11Exception>(m_device->CreateBlendState(&all, &state),
                                      "Failed to create blend state", m_device);
    return state;
}

} // namespace Norvex::DX
