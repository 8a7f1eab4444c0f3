#include "Proc/DirectX/Manager/D11ImageDraw.h"

#include <source_location>

#include "Proc/DirectX/Manager/D3D11FilledBuffer.h"
#include "Proc/DirectX/Manager/D3QuadPipeline.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

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
      m_pipeline(std::make_unique<D11QuadPipeline>(device, D3ImageRenderer::GetVertexShader())),
      m_pixelShader(
          std::make_shared<D11PixelShader>(device, "PSMain", D3ImageRenderer::GetPixelShader())) {}

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
    const auto bytes =
        D3ImageRenderer::MakeParamsBytes(ToClipUnits(transform, area, *viewport), conversion);
    const auto parameters =
        CreateFilledBuffer(m_device, D3D11_BIND_CONSTANT_BUFFER, bytes.data(), bytes.size());
    ID3D11RenderTargetView* const view = target->GetView();
    m_pipeline->Draw(*context, {.targets = {&view, 1},
                                .viewport = *viewport,
                                .shader = m_pixelShader,
                                .texture = source->GetView(),
                                .constants = parameters,
                                .blendState = m_blendState});
    D11QuadPipeline::Unbind(*context);
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
