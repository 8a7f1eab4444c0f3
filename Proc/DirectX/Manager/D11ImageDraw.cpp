#include "Proc/DirectX/Manager/D11ImageDraw.h"

#include "Proc/DirectX/Manager/D3Quad.h"

namespace Norvex::DX {

namespace {

boost::intrusive_ptr<D11VertexBuffer>
MakeQuadBuffer(const boost::intrusive_ptr<D11Device>& device) {
    const auto quad = MakeQuad();
    return D11VertexBuffer::Create(device, quad.data(), sizeof(QuadVertex),
                                   static_cast<UINT>(quad.size()));
}

void CheckArguments(const D11DeviceContext* context, const D11ShaderTexture2D* source,
                    const D11RenderTexture2D* target, const std::source_location& location) {
    ThrowUnless<DirectX11Exception>(
        source != nullptr, "The texture is expected to be the shader resource view", location);
    ThrowUnless<DirectX11Exception>(
        target != nullptr, "The texture is expected to be the render target view", location);
    ThrowUnless<DirectX11Exception>(context != nullptr, "There is no device context", location);
}

} // namespace

D11ImageDraw::D11ImageDraw(const boost::intrusive_ptr<D11Device>& device)
    : m_device(CheckDevice<DirectX11Exception>(device)),
      m_vertexShader(
          std::make_shared<D11VertexShader>(device, "VSMain", D3ImageRenderer::GetVertexShader())),
      m_pixelShader(
          std::make_shared<D11PixelShader>(device, "PSMain", D3ImageRenderer::GetPixelShader())),
      m_vertexBuffer(MakeQuadBuffer(device)),
      m_inputLayout(device->CreateInputLayout(Quad11::MakeInputElements(), m_vertexShader)),
      m_sampler(device->CreateSamplerState(Quad11::MakeLinearSampler())),
      m_rasterizer(device->CreateRasterizerState(Quad11::MakeRasterizer())),
      m_depthStencil(device->CreateDepthStencilState(Quad11::MakeDepthStencil())) {}

D11ImageDraw::~D11ImageDraw() = default;

void D11ImageDraw::Encode(const boost::intrusive_ptr<D11DeviceContext>& context,
                          const boost::intrusive_ptr<D11ShaderTexture2D>& source,
                          const boost::intrusive_ptr<D11RenderTexture2D>& target,
                          const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                          const std::optional<Rect2DT<long>>& rect) {
    CheckArguments(context.get(), source.get(), target.get(), std::source_location::current());
    const Rect2DT<long> area = rect.value_or(target->GetRect());
    const AffineTransform transform = MakeTransform(source, SizeOf(area));
    Encode(context, source, target, transform, conversion, rect);
}

void D11ImageDraw::Encode(const boost::intrusive_ptr<D11DeviceContext>& context,
                          const boost::intrusive_ptr<D11ShaderTexture2D>& source,
                          const boost::intrusive_ptr<D11RenderTexture2D>& target,
                          const AffineTransform& transform,
                          const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                          const std::optional<Rect2DT<long>>& rect) {
    CheckArguments(context.get(), source.get(), target.get(), std::source_location::current());
    const Rect2DT<long> area = rect.value_or(target->GetRect());
    const auto viewport = GetVisiblePart(area, target->GetSize());
    if (!viewport) {
        return;
    }
    const auto parameters = CreateParamsBuffer(ToClipUnits(transform, area, *viewport), conversion);
    BindOutput(*context, *target, *viewport);
    BindInput(*context, *source, parameters);
    context->Draw(m_vertexBuffer);

    context->OMSetBlendState(nullptr);
    context->OMSetRenderTargets({nullptr}, nullptr);
    context->OMSetDepthStencilState(nullptr, 0);
    context->RSSetState(nullptr);
}

CComPtr<ID3D11Buffer> D11ImageDraw::CreateParamsBuffer(
    const AffineTransform& clipTransform,
    const std::optional<Proc::ColorAlphaConversionInfo>& conversion) const {
    const std::vector<std::uint8_t> bytes =
        D3ImageRenderer::MakeParamsBuffer(clipTransform, conversion);
    D3D11_BUFFER_DESC desc = {};
    desc.ByteWidth = static_cast<UINT>(bytes.size());
    desc.Usage = D3D11_USAGE_DEFAULT;
    desc.BindFlags = D3D11_BIND_CONSTANT_BUFFER;
    const D3D11_SUBRESOURCE_DATA initialData = {bytes.data(), 0, 0};
    return m_device->CreateBuffer(desc, &initialData);
}

void D11ImageDraw::BindOutput(D11DeviceContext& context, const D11RenderTexture2D& target,
                              const Rect2DT<long>& viewport) const {
    context.RSSetState(m_rasterizer);
    context.OMSetDepthStencilState(m_depthStencil, 0);
    context.OMSetRenderTargets({target.GetView()}, nullptr);
    context.OMSetBlendState(m_blendState);
    context.RSSetViewports({Quad11::MakeViewport(viewport)});
}

void D11ImageDraw::BindInput(D11DeviceContext& context, const D11ShaderTexture2D& source,
                             ID3D11Buffer* parameters) const {
    context.IASetVertexBuffer(m_vertexBuffer);
    context.IASetPrimitiveTopology(D3D11_PRIMITIVE_TOPOLOGY_TRIANGLESTRIP);
    context.VSSetConstantBuffers({parameters});
    context.PSSetConstantBuffers({parameters});
    context.PSSetShaderResources({source.GetView()});
    context.IASetInputLayout(m_inputLayout);
    context.VSSetShader(m_vertexShader);
    context.PSSetShader(m_pixelShader);
    context.PSSetSamplers({m_sampler});
}

AffineTransform
D11ImageDraw::MakeTransform(const boost::intrusive_ptr<D11ShaderTexture2D>& /*source*/,
                            const Size2DT<long>& /*targetSize*/) {
    return m_transform.value_or(AffineTransform{});
}

D11ImageRenderer::D11ImageRenderer(const boost::intrusive_ptr<D11Device>& device)
    : D11ImageDraw(device) {}

D11ImageRenderer::~D11ImageRenderer() = default;

AffineTransform
D11ImageRenderer::MakeTransform(const boost::intrusive_ptr<D11ShaderTexture2D>& source,
                                const Size2DT<long>& targetSize) {
    const Size2DT<long> sourceSize = source->GetSize();
    const bool isCurrent =
        m_transform.has_value() && sourceSize == m_lastSourceSize && targetSize == m_lastTargetSize;
    if (!isCurrent) {
        m_lastSourceSize = sourceSize;
        m_lastTargetSize = targetSize;
        UpdateTransform(sourceSize, targetSize);
    }
    return m_transform.value_or(AffineTransform{});
}

void D11ImageRenderer::SetTransform(const std::optional<AffineTransform>& transform) {
    m_transform = transform;
}

} // namespace Norvex::DX
