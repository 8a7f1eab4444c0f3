#include "tests/support/Canvas11.h"

namespace Norvex::Test {

D3D11_TEXTURE2D_DESC MakeTextureDesc11(unsigned width, unsigned height, DXGI_FORMAT format) {
    D3D11_TEXTURE2D_DESC desc = {};
    desc.Width = width;
    desc.Height = height;
    desc.MipLevels = 1;
    desc.ArraySize = 1;
    desc.Format = format;
    desc.SampleDesc.Count = 1;
    return desc;
}

Canvas11::Canvas11(const boost::intrusive_ptr<DX::D11Device>& device) : m_device(device) {}

boost::intrusive_ptr<DX::D11ShaderTexture2D> Canvas11::MakeSource(const Pixels& pixels,
                                                                  DXGI_FORMAT format) {
    const std::vector<std::uint8_t> bytes = EncodePixels(pixels, format);
    const D3D11_SUBRESOURCE_DATA data = {bytes.data(), pixels.width * BytesPerPixel(format), 0};
    return DX::D11ShaderTexture2D::Create(
        m_device, MakeTextureDesc11(pixels.width, pixels.height, format), &data);
}

boost::intrusive_ptr<DX::D11RenderTexture2D> Canvas11::MakeTarget(unsigned width, unsigned height,
                                                                  DXGI_FORMAT format,
                                                                  const Proc::ColorF& color) {
    auto target =
        DX::D11RenderTexture2D::Create(m_device, MakeTextureDesc11(width, height, format));
    Record([&](const auto& context) { context->ClearRenderTargetView(target->GetView(), color); });
    return target;
}

Pixels Canvas11::Read(ID3D11Texture2D* texture) {
    D3D11_TEXTURE2D_DESC desc = {};
    texture->GetDesc(&desc);
    desc.Usage = D3D11_USAGE_STAGING;
    desc.BindFlags = 0;
    desc.CPUAccessFlags = D3D11_CPU_ACCESS_READ;
    const auto staging = m_device->CreateTexture2D(desc, nullptr);
    Pixels pixels;
    Record([&](const auto& context) {
        context->CopyResource(staging, texture);
        const auto mapped = context->Map(staging, 0, D3D11_MAP_READ, {});
        pixels = DecodePixels(static_cast<const std::uint8_t*>(mapped.pData), mapped.RowPitch,
                              desc.Width, desc.Height, desc.Format);
        context->Unmap(staging, 0);
    });
    return pixels;
}

} // namespace Norvex::Test
