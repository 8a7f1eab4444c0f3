#include "tests/support/Canvas.h"

#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"

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
    auto texture = m_device->CreateTexture2D(desc);

    const std::vector<std::uint8_t> bytes = EncodePixels(pixels, format);
    DX::D12UploadResourceParams params;
    params.destination = texture;
    params.stateAfter = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
    params.subresources = {
        {bytes.data(), std::uint64_t{pixels.width} * BytesPerPixel(format), bytes.size()}};
    m_queue->UploadResource(params);
    return texture;
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
    const auto target = m_device->CreateRenderTargetView(m_device->CreateTexture2D(desc));
    const auto allocator = m_queue->CreateCommandAllocator();
    allocator->ClearRenderTargetView(target, color, {});
    allocator->Execute();
    return target;
}

Pixels Canvas::Read(const boost::intrusive_ptr<DX::D12Descriptor>& target) {
    const DX::Size2DT<long> size = target->GetSize();
    const auto width = static_cast<unsigned>(size.width);
    const auto height = static_cast<unsigned>(size.height);
    const std::uint64_t pitch = std::uint64_t{width} * BytesPerPixel(target->GetFormat());
    std::vector<std::uint8_t> bytes(pitch * height);
    DX::D12DownloadResourceParams params;
    params.source = target->GetFirstResource();
    params.stateBefore = D3D12_RESOURCE_STATE_RENDER_TARGET;
    params.stateAfter = D3D12_RESOURCE_STATE_RENDER_TARGET;
    params.subresources = {{bytes.data(), pitch, bytes.size()}};
    m_queue->DownloadResource(params);
    return DecodePixels(bytes.data(), pitch, width, height, target->GetFormat());
}

} // namespace Norvex::Test
