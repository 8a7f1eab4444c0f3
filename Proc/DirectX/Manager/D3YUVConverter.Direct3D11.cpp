#include "Proc/DirectX/Manager/D3YUVConverter.h"

#include <array>
#include <optional>
#include <source_location>
#include <string>

#include "Proc/DirectX/Manager/Annotation.h"
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D11FilledBuffer.h"
#include "Proc/DirectX/Manager/D3QuadPipeline.h"
#include "Proc/DirectX/Manager/D3YUVFormat.h"
#include "Proc/DirectX/Manager/Throw.h"
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

} // namespace

D11YUVConverter::D11YUVConverter(const boost::intrusive_ptr<D11Device>& device,
                                 Proc::AlphaType alphaType)
    : m_device(CheckDevice<DirectX11Exception>(device)),
      m_alphaType(alphaType),
      m_pipeline(std::make_unique<D11QuadPipeline>(device, std::string(Shaders::kQuadVertex))),
      m_yCbCrShader(std::make_shared<D11PixelShader>(device, "PSMain", GetYUVPixelShader())),
      m_resizeShader(
          std::make_shared<D11PixelShader>(device, "PSMain", std::string(Shaders::kResizePixel))) {}

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
    if (m_destination != nullptr && *m_destination == destination) {
        return;
    }
    m_destination.reset(); // should something below throw
    const auto bytes = MakeYUVParams(m_alphaType, destination.matrix, format.bitDepth);
    m_paramsBuffer =
        CreateFilledBuffer(m_device, D3D11_BIND_CONSTANT_BUFFER, bytes.data(), bytes.size());
    SetName(m_paramsBuffer, "YCbCr params buffer");
    const auto texture =
        D11QuadPipeline::CreateIntermediate(*m_device, destination.size, format.chroma);
    SetName(texture, "chroma of full size");
    m_intermediateSource.reset(new D11ShaderTexture2D(texture, std::nullopt));
    m_intermediateTarget.reset(new D11RenderTexture2D(texture, std::nullopt));
    m_chromaQuad = D11QuadPipeline::CreateQuad(
        m_device, GetChromaExtent(destination.size, destination.chromaSize));
    m_destination = std::make_unique<YUVDestination>(destination);
}

void D11YUVConverter::Record(D11DeviceContext& context, const D11ShaderTexture2D& source,
                             const D11RenderTexture2D& luma, const D11RenderTexture2D& chroma) {
    const auto event = D11QuadPipeline::BeginEvent(context, "YCbCr conversion");
    const auto [width, height] = m_destination->size;
    const std::array<ID3D11RenderTargetView*, 2> planes = {luma.GetView(),
                                                           m_intermediateTarget->GetView()};
    m_pipeline->Draw(context, {.targets = planes,
                               .viewport = {0, 0, width, height},
                               .shader = m_yCbCrShader,
                               .texture = source.GetView(),
                               .constants = m_paramsBuffer});
    const auto [chromaWidth, chromaHeight] = m_destination->chromaSize;
    ID3D11RenderTargetView* const chromaView = chroma.GetView();
    m_pipeline->Draw(context,
                     {.targets = {&chromaView, 1},
                      .viewport = {0, 0, chromaWidth, chromaHeight},
                      .shader = m_resizeShader,
                      .texture = m_intermediateSource->GetView(),
                      .constants = m_paramsBuffer},
                     m_chromaQuad);
    context.PSSetShaderResources({nullptr}); // the next call draws to the intermediate texture
    D11QuadPipeline::Unbind(context);
}

} // namespace Norvex::DX
