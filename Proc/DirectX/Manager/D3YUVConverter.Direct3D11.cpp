#include "Proc/DirectX/Manager/D3YUVConverter.h"
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3Quad.h"
#include "Proc/DirectX/Manager/D3YUVFormat.h"
#include "QuadShaders.h"

namespace Norvex::DX {

namespace {

YUVPlane Describe(ID3D11Texture2D* texture) {
    D3D11_TEXTURE2D_DESC desc = {};
    if (texture != nullptr) {
        texture->GetDesc(&desc);
    }
    return {desc.Format, {static_cast<long>(desc.Width), static_cast<long>(desc.Height)}};
}

void CheckArguments(const D11DeviceContext* context, ID3D11Texture2D* source,
                    const std::source_location& location) {
    ThrowUnless<DirectX11Exception>(source != nullptr, "There is no source texture", location);
    ThrowUnless<DirectX11Exception>(context != nullptr, "There is no device context", location);
}

boost::intrusive_ptr<D11VertexBuffer> CreateQuad(const boost::intrusive_ptr<D11Device>& device,
                                                 const Size2DT<float>& extent) {
    const auto quad = MakeQuad(extent);
    return D11VertexBuffer::Create(device, quad.data(), sizeof(QuadVertex),
                                   static_cast<UINT>(quad.size()));
}

CComPtr<ID3D11Buffer> CreateConstants(D11Device& device, const std::vector<std::uint8_t>& bytes) {
    D3D11_BUFFER_DESC desc = {};
    desc.ByteWidth = static_cast<UINT>(bytes.size());
    desc.Usage = D3D11_USAGE_DEFAULT;
    desc.BindFlags = D3D11_BIND_CONSTANT_BUFFER;
    const D3D11_SUBRESOURCE_DATA initialData = {bytes.data(), 0, 0};
    return device.CreateBuffer(desc, &initialData);
}

CComPtr<ID3D11Texture2D> CreateIntermediate(D11Device& device, const Size2DT<long>& size,
                                            DXGI_FORMAT format) {
    D3D11_TEXTURE2D_DESC desc = {};
    desc.Width = static_cast<UINT>(size.width);
    desc.Height = static_cast<UINT>(size.height);
    desc.MipLevels = 1;
    desc.ArraySize = 1;
    desc.Format = format;
    desc.SampleDesc.Count = 1;
    desc.BindFlags = D3D11_BIND_RENDER_TARGET | D3D11_BIND_SHADER_RESOURCE;
    return device.CreateTexture2D(desc, nullptr);
}

void SetArea(D11DeviceContext& context, const Size2DT<long>& size) {
    context.RSSetViewports({Quad11::MakeViewport({0, 0, size.width, size.height})});
}

} // namespace

D11YUVConverter::D11YUVConverter(const boost::intrusive_ptr<D11Device>& device,
                                 Proc::AlphaType alphaType)
    : m_device(CheckDevice<DirectX11Exception>(device)),
      m_alphaType(alphaType),
      m_vertexShader(
          std::make_shared<D11VertexShader>(device, "VSMain", std::string(Shaders::kQuadVertex))),
      m_yCbCrShader(std::make_shared<D11PixelShader>(device, "PSMain", GetYUVPixelShader())),
      m_resizeShader(
          std::make_shared<D11PixelShader>(device, "PSMain", std::string(Shaders::kResizePixel))),
      m_inputLayout(device->CreateInputLayout(Quad11::MakeInputElements(), m_vertexShader)),
      m_sampler(device->CreateSamplerState(Quad11::MakeLinearSampler())),
      m_rasterizer(device->CreateRasterizerState(Quad11::MakeRasterizer())),
      m_depthStencil(device->CreateDepthStencilState(Quad11::MakeDepthStencil())),
      m_quad(CreateQuad(device, {1.0F, 1.0F})) {}

D11YUVConverter::~D11YUVConverter() = default;

void D11YUVConverter::Encode(const boost::intrusive_ptr<D11DeviceContext>& context,
                             const CComPtr<ID3D11Texture2D>& source,
                             const CComPtr<ID3D11Texture2D>& destination,
                             Conf::YCbCrMatrix matrix) {
    const auto location = std::source_location::current();
    const auto [pixelFormat, size] = Describe(destination);
    const auto format = GetYUVFormat<DirectX11Exception>(pixelFormat, location);
    CheckArguments(context.get(), source, location);
    ConfigForDestination({pixelFormat, size, {size.width >> 1, size.height >> 1}, matrix}, format);
    // The format of a view chooses the plane.
    Record(*context, D11ShaderTexture2D(source, std::nullopt),
           D11RenderTexture2D(destination, format.luma),
           D11RenderTexture2D(destination, format.chroma));
}

void D11YUVConverter::Encode(const boost::intrusive_ptr<D11DeviceContext>& context,
                             const CComPtr<ID3D11Texture2D>& source,
                             const CComPtr<ID3D11Texture2D>& luma,
                             const CComPtr<ID3D11Texture2D>& chroma, DXGI_FORMAT format,
                             Conf::YCbCrMatrix matrix) {
    const auto location = std::source_location::current();
    const auto planeFormat = GetYUVFormat<DirectX11Exception>(format, location);
    const YUVPlane lumaPlane = Describe(luma);
    const YUVPlane chromaPlane = Describe(chroma);
    CheckYUVPlanes<DirectX11Exception>(planeFormat, lumaPlane, chromaPlane, location);
    CheckArguments(context.get(), source, location);
    ConfigForDestination({format, lumaPlane.size, chromaPlane.size, matrix}, planeFormat);
    Record(*context, D11ShaderTexture2D(source, std::nullopt),
           D11RenderTexture2D(luma, planeFormat.luma),
           D11RenderTexture2D(chroma, planeFormat.chroma));
}

void D11YUVConverter::ConfigForDestination(const YUVDestination& destination,
                                           const YUVFormat& format) {
    if (m_destination == destination) {
        return;
    }
    m_destination.reset(); // should something below throw
    m_paramsBuffer =
        CreateConstants(*m_device, MakeYUVParams(m_alphaType, destination.matrix, format.bitDepth));
    const auto texture = CreateIntermediate(*m_device, destination.size, format.chroma);
    m_intermediateSource.reset(new D11ShaderTexture2D(texture, std::nullopt));
    m_intermediateTarget.reset(new D11RenderTexture2D(texture, std::nullopt));
    m_chromaQuad = CreateQuad(m_device, GetChromaExtent(destination.size, destination.chromaSize));
    m_destination = destination;
}

void D11YUVConverter::Record(D11DeviceContext& context, const D11ShaderTexture2D& source,
                             const D11RenderTexture2D& luma, const D11RenderTexture2D& chroma) {
    context.RSSetState(m_rasterizer);
    context.OMSetDepthStencilState(m_depthStencil, 0);
    context.OMSetBlendState(nullptr);
    context.IASetPrimitiveTopology(D3D11_PRIMITIVE_TOPOLOGY_TRIANGLESTRIP);
    context.IASetInputLayout(m_inputLayout);
    context.VSSetShader(m_vertexShader);
    context.PSSetConstantBuffers({m_paramsBuffer});
    context.PSSetSamplers({m_sampler});

    context.OMSetRenderTargets({luma.GetView(), m_intermediateTarget->GetView()}, nullptr);
    SetArea(context, m_destination->size);
    context.PSSetShaderResources({source.GetView()});
    context.PSSetShader(m_yCbCrShader);
    context.IASetVertexBuffer(m_quad);
    context.Draw(m_quad);

    context.OMSetRenderTargets({chroma.GetView()}, nullptr);
    SetArea(context, m_destination->chromaSize);
    context.PSSetShaderResources({m_intermediateSource->GetView()});
    context.PSSetShader(m_resizeShader);
    context.IASetVertexBuffer(m_chromaQuad);
    context.Draw(m_chromaQuad);

    // The next call draws to the intermediate texture.
    context.PSSetShaderResources({nullptr});
    context.OMSetRenderTargets({nullptr}, nullptr);
    context.OMSetDepthStencilState(nullptr, 0);
    context.RSSetState(nullptr);
}

} // namespace Norvex::DX
