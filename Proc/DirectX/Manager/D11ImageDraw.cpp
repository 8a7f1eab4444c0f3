#include "Proc/DirectX/Manager/D11ImageDraw.h"

#include <algorithm>
#include <source_location>
#include <string>

#include "Proc/DirectX/Manager/Annotation.h"
#include "Proc/DirectX/Manager/D3D11FilledBuffer.h"
#include "Proc/DirectX/Manager/D3QuadPipeline.h"
#include "Proc/DirectX/Manager/Throw.h"
#include "QuadShaders.h"

namespace Norvex::DX {

namespace {

void CheckTarget(const D11DeviceContext* context, const D11RenderTexture2D* target,
                 const std::source_location& location) {
    ThrowUnless<DirectX11Exception>(
        target != nullptr, "The texture is expected to be the render target view", location);
    ThrowUnless<DirectX11Exception>(context != nullptr, "There is no device context", location);
}

void CheckSource(const D11ShaderTexture2D* source, const std::source_location& location) {
    ThrowUnless<DirectX11Exception>(
        source != nullptr, "The texture is expected to be the shader resource view", location);
}

CComPtr<ID3D11BlendState> CreateBlend(D11Device& device, BlendPreset preset) {
    if (preset == BlendPreset::Replace) {
        return {};
    }
    auto state = device.CreateBlendState(MakeBlendDesc11(preset));
    SetName(state, "blend state");
    return state;
}

// Of one draw.
CComPtr<ID3D11Buffer> CreateConstants(const boost::intrusive_ptr<D11Device>& device,
                                      const char* name, const void* data, std::size_t size,
                                      const std::source_location& location) {
    auto constants = CreateFilledBuffer(device, D3D11_BIND_CONSTANT_BUFFER, data, size, location);
    if (IsToolPresent()) {
        SetName(constants, name);
    }
    return constants;
}

// Whether it multiplies the source's colour by its alpha.
bool BlendsStraight(ID3D11BlendState* state) {
    if (state == nullptr) {
        return false;
    }
    D3D11_BLEND_DESC desc = {};
    state->GetDesc(&desc);
    return desc.RenderTarget[0].BlendEnable != FALSE &&
           desc.RenderTarget[0].SrcBlend == D3D11_BLEND_SRC_ALPHA;
}

} // namespace

D11FillDraw::D11FillDraw(const boost::intrusive_ptr<D11Device>& device)
    : m_device(CheckDevice<DirectX11Exception>(device)),
      m_pipeline(std::make_unique<D11QuadPipeline>(device, std::string(Shaders::kQuadVertex))),
      m_pixelShader(
          std::make_shared<D11PixelShader>(device, "PSMain", std::string(Shaders::kFillPixel))) {}

D11FillDraw::~D11FillDraw() = default;

void D11FillDraw::Encode(const boost::intrusive_ptr<D11DeviceContext>& context,
                         const Proc::ColorF& color,
                         const boost::intrusive_ptr<D11RenderTexture2D>& target,
                         const Rect2DT<long>& rect) {
    CheckTarget(context.get(), target.get(), std::source_location::current());
    const auto viewport = GetVisiblePart(rect, target->GetSize());
    if (!viewport) {
        return;
    }
    const auto event = D11QuadPipeline::BeginEvent(*context, "fill draw");
    const auto constants = CreateConstants(m_device, "fill constants", &color, sizeof(color),
                                           std::source_location::current());
    ID3D11RenderTargetView* const view = target->GetView();
    m_pipeline->Draw(*context, {.targets = {&view, 1},
                                .viewport = *viewport,
                                .shader = m_pixelShader,
                                .constants = constants,
                                .blendState = m_blendState});
    D11QuadPipeline::Unbind(*context);
}

void D11FillDraw::SetBlend(BlendPreset preset) {
    m_blendState = CreateBlend(*m_device, preset);
}

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
    Encode(context, source, target, {.conversion = conversion, .rect = rect});
}

void D11ImageDraw::Encode(const boost::intrusive_ptr<D11DeviceContext>& context,
                          const boost::intrusive_ptr<D11ShaderTexture2D>& source,
                          const boost::intrusive_ptr<D11RenderTexture2D>& target,
                          const AffineTransform& transform,
                          const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                          const std::optional<Rect2DT<long>>& rect) {
    Encode(context, source, target,
           {.transform = transform, .conversion = conversion, .rect = rect});
}

void D11ImageDraw::Encode(const boost::intrusive_ptr<D11DeviceContext>& context,
                          const boost::intrusive_ptr<D11ShaderTexture2D>& source,
                          const boost::intrusive_ptr<D11RenderTexture2D>& target,
                          const ImageDrawParams& params) {
    CheckSource(source.get(), std::source_location::current());
    CheckTarget(context.get(), target.get(), std::source_location::current());
    const Size2DT<long> sourceSize = params.sourceRect ? source->GetSize() : Size2DT<long>();
    CheckSourceRect<DirectX11Exception>(params.sourceRect, sourceSize);
    const Rect2DT<long> area = params.rect.value_or(target->GetRect());
    const AffineTransform transform =
        params.transform    ? *params.transform
        : params.sourceRect ? MakePartTransform(SizeOf(*params.sourceRect), SizeOf(area))
                            : MakeTransform(source, SizeOf(area));
    const auto viewport = GetVisiblePart(area, target->GetSize());
    if (!viewport) {
        return;
    }
    const D3ImageParams shaderParams =
        D3ImageRenderer::MakeParams(ToClipUnits(transform, area, *viewport), params, sourceSize,
                                    params.opacity < 1.0F && BlendsStraight(m_blendState));
    const auto bytes = D3ImageRenderer::MakeParamsBytes(shaderParams);
    const auto event = D11QuadPipeline::BeginEvent(*context, "image draw");
    const auto constants = CreateConstants(m_device, "image constants", bytes.data(), bytes.size(),
                                           std::source_location::current());
    ID3D11RenderTargetView* const view = target->GetView();
    m_pipeline->Draw(*context, {.targets = {&view, 1},
                                .viewport = *viewport,
                                .shader = FindShader(D3ConversionKey(shaderParams)),
                                .texture = source->GetView(),
                                .constants = constants,
                                .blendState = m_blendState});
    D11QuadPipeline::Unbind(*context);
}

void D11ImageDraw::Specialize(const std::optional<Proc::ColorAlphaConversionInfo>& conversion) {
    const D3ConversionKey key(D3ImageRenderer::MakeParams({}, conversion));
    if (FindShader(key) == m_pixelShader) {
        m_specialized.emplace_back(
            key, std::make_shared<D11PixelShader>(m_device, "PSMain",
                                                  D3ImageRenderer::GetPixelShader(key)));
    }
}

const std::shared_ptr<D11PixelShader>& D11ImageDraw::FindShader(const D3ConversionKey& key) const {
    const auto found = std::ranges::find(
        m_specialized, key, [](const auto& entry) -> const auto& { return entry.first; });
    return found != m_specialized.end() ? found->second : m_pixelShader;
}

void D11ImageDraw::SetBlend(BlendPreset preset) {
    m_blendState = CreateBlend(*m_device, preset);
}

AffineTransform
D11ImageDraw::MakeTransform(const boost::intrusive_ptr<D11ShaderTexture2D>& /*source*/,
                            const Size2DT<long>& /*targetSize*/) {
    return m_transform.value_or(AffineTransform{});
}

AffineTransform D11ImageDraw::MakePartTransform(const Size2DT<long>& /*partSize*/,
                                                const Size2DT<long>& /*targetSize*/) {
    return m_transform.value_or(AffineTransform{});
}

D11ImageRenderer::D11ImageRenderer(const boost::intrusive_ptr<D11Device>& device)
    : D11ImageDraw(device) {}

D11ImageRenderer::~D11ImageRenderer() = default;

AffineTransform
D11ImageRenderer::MakeTransform(const boost::intrusive_ptr<D11ShaderTexture2D>& source,
                                const Size2DT<long>& targetSize) {
    return MakePartTransform(source->GetSize(), targetSize);
}

AffineTransform D11ImageRenderer::MakePartTransform(const Size2DT<long>& partSize,
                                                    const Size2DT<long>& targetSize) {
    const bool isCurrent =
        m_transform.has_value() && partSize == m_lastSourceSize && targetSize == m_lastTargetSize;
    if (!isCurrent) {
        m_lastSourceSize = partSize;
        m_lastTargetSize = targetSize;
        UpdateTransform(partSize, targetSize);
    }
    return m_transform.value_or(AffineTransform{});
}

void D11ImageRenderer::SetTransform(const std::optional<AffineTransform>& transform) {
    m_transform = transform;
}

} // namespace Norvex::DX
