#include "tests/support/Canvas.h"

#include "Platform/D3D12Abi.h"

namespace Norvex::Test {

Canvas::Canvas()
    : m_device(DX::D12Device::CreatePrimary()),
      m_queue(new DX::D12CommandQueue(m_device, D3D12_COMMAND_QUEUE_DESC{})) {}

CComPtr<ID3D12Resource> Canvas::MakeTexture(const Pixels& pixels, DXGI_FORMAT format) {
    DX::D12Texture2DDesc desc;
    desc.width = pixels.width;
    desc.height = pixels.height;
    desc.format = format;
    desc.initialState = D3D12_RESOURCE_STATE_COPY_DEST;
    const std::vector<std::uint8_t> bytes = EncodePixels(pixels, format);
    DX::D12UploadResourceParams params;
    params.destination = m_device->CreateTexture2D(desc);
    params.stateAfter = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
    params.subresources = {{bytes.data(), bytes.size() / pixels.height, bytes.size()}};
    m_queue->UploadResource(params);
    return params.destination;
}

boost::intrusive_ptr<DX::D12Descriptor> Canvas::MakeSource(const Pixels& pixels,
                                                           DXGI_FORMAT format) {
    return m_device->CreateTextureShaderResourceView(MakeTexture(pixels, format));
}

boost::intrusive_ptr<DX::D12Descriptor>
Canvas::MakeTarget(unsigned width, unsigned height, DXGI_FORMAT format, const Proc::ColorF& color) {
    DX::D12Texture2DDesc desc;
    desc.width = width;
    desc.height = height;
    desc.format = format;
    desc.resourceFlags = D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET;
    desc.initialState = D3D12_RESOURCE_STATE_RENDER_TARGET;
    auto target = m_device->CreateRenderTargetView(m_device->CreateTexture2D(desc));
    Record([&](const auto& allocator) { allocator->ClearRenderTargetView(target, color, {}); });
    return target;
}

Pixels Canvas::Read(const CComPtr<ID3D12Resource>& texture) {
    const D3D12_RESOURCE_DESC desc = Platform::GetDesc(texture);
    const auto width = static_cast<unsigned>(desc.Width);
    const std::uint64_t pitch = std::uint64_t{width} * BytesPerPixel(desc.Format);
    std::vector<std::uint8_t> bytes(pitch * desc.Height);
    DX::D12DownloadResourceParams params;
    params.source = texture;
    params.stateBefore = D3D12_RESOURCE_STATE_RENDER_TARGET;
    params.stateAfter = D3D12_RESOURCE_STATE_RENDER_TARGET;
    params.subresources = {{bytes.data(), pitch, bytes.size()}};
    m_queue->DownloadResource(params);
    return DecodePixels(bytes.data(), pitch, width, desc.Height, desc.Format);
}

} // namespace Norvex::Test
