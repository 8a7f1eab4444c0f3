#include "apps/norvexdx/Texture.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>

#include "Proc/DirectX/Manager/D3D12BufferPool.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "apps/norvexdx/Failure.h"

namespace Norvex::App {

namespace {

DX::D12Texture2DDesc MakeDesc(const DX::Size2DT<long>& size, DXGI_FORMAT format) {
    DX::D12Texture2DDesc desc;
    desc.width = static_cast<std::uint64_t>(size.width);
    desc.height = static_cast<std::uint32_t>(size.height);
    desc.format = format;
    return desc;
}

bool IsDrawable(const DX::D12Device& device, DXGI_FORMAT format) {
    const auto needed = D3D12_FORMAT_SUPPORT1_RENDER_TARGET | D3D12_FORMAT_SUPPORT1_BLENDABLE |
                        D3D12_FORMAT_SUPPORT1_TEXTURE2D;
    const auto support = device.CheckFormatSupport(format).first;
    return (support & needed) == needed;
}

// IEEE 754 binary16.
float FloatFromHalf(std::uint16_t half) {
    const int exponent = half >> 10 & 0x1F;
    const int mantissa = half & 0x3FF;
    const float magnitude = exponent == 0
                                ? std::ldexp(static_cast<float>(mantissa), -24)
                                : std::ldexp(static_cast<float>(mantissa | 0x400), exponent - 25);
    return (half & 0x8000) != 0 ? -magnitude : magnitude;
}

// Half-precision samples to 16-bit ones, in place.
void ConvertFromHalf(std::vector<std::uint8_t>& pixels) {
    for (std::size_t i = 0; i + 1 < pixels.size(); i += 2) {
        std::uint16_t sample = 0;
        std::memcpy(&sample, &pixels[i], sizeof(sample));
        const float value = std::clamp(FloatFromHalf(sample), 0.0F, 1.0F);
        sample = static_cast<std::uint16_t>(std::lround(value * 65535.0F));
        std::memcpy(&pixels[i], &sample, sizeof(sample));
    }
}

} // namespace

boost::intrusive_ptr<DX::D12Descriptor> UploadImage(const GraphicsDevice& graphics,
                                                    const Image& image) {
    const DXGI_FORMAT format =
        image.bitsPerChannel == 16 ? DXGI_FORMAT_R16G16B16A16_UNORM : DXGI_FORMAT_R8G8B8A8_UNORM;
    auto desc = MakeDesc({static_cast<long>(image.width), static_cast<long>(image.height)}, format);
    desc.initialState = D3D12_RESOURCE_STATE_COPY_DEST;
    DX::D12UploadResourceParams params;
    params.destination = graphics.device->CreateTexture2D(desc);
    params.stateBefore = D3D12_RESOURCE_STATE_COPY_DEST;
    params.stateAfter = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
    params.subresources = {{image.pixels.data(), image.GetRowSize(), image.pixels.size()}};
    const auto allocator = graphics.queue->UploadResource(params);
    allocator->WaitComplete();
    return graphics.device->CreateTextureShaderResourceView(params.destination);
}

DXGI_FORMAT ChooseTargetFormat(const DX::D12Device& device, unsigned bitsPerChannel) {
    if (bitsPerChannel == 8 && IsDrawable(device, DXGI_FORMAT_R8G8B8A8_UNORM)) {
        return DXGI_FORMAT_R8G8B8A8_UNORM;
    }
    for (const DXGI_FORMAT format :
         {DXGI_FORMAT_R16G16B16A16_UNORM, DXGI_FORMAT_R16G16B16A16_FLOAT}) {
        if (bitsPerChannel == 16 && IsDrawable(device, format)) {
            return format;
        }
    }
    throw Failure("the adapter cannot draw pictures of " + std::to_string(bitsPerChannel) +
                  " bits a channel");
}

const char* GetFormatName(DXGI_FORMAT format) {
    switch (format) {
    case DXGI_FORMAT_R8G8B8A8_UNORM:
        return "R8G8B8A8_UNORM";
    case DXGI_FORMAT_B8G8R8A8_UNORM:
        return "B8G8R8A8_UNORM";
    case DXGI_FORMAT_R10G10B10A2_UNORM:
        return "R10G10B10A2_UNORM";
    case DXGI_FORMAT_R16G16B16A16_UNORM:
        return "R16G16B16A16_UNORM";
    case DXGI_FORMAT_R16G16B16A16_FLOAT:
        return "R16G16B16A16_FLOAT";
    case DXGI_FORMAT_R32G32B32A32_FLOAT:
        return "R32G32B32A32_FLOAT";
    default:
        return "another format";
    }
}

Canvas::Canvas(const GraphicsDevice& graphics, const DX::Size2DT<long>& size,
               unsigned bitsPerChannel)
    : m_graphics(graphics),
      m_bitsPerChannel(bitsPerChannel) {
    auto desc = MakeDesc(size, ChooseTargetFormat(*graphics.device, bitsPerChannel));
    desc.resourceFlags = D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET;
    desc.initialState = D3D12_RESOURCE_STATE_RENDER_TARGET;
    desc.clearColor = std::array{0.0F, 0.0F, 0.0F, 0.0F};
    m_target = graphics.device->CreateRenderTargetView(graphics.device->CreateTexture2D(desc));
}

Image Canvas::Download() {
    const DX::Size2DT<long> size = GetSize();
    Image image{.width = static_cast<std::uint32_t>(size.width),
                .height = static_cast<std::uint32_t>(size.height),
                .bitsPerChannel = m_bitsPerChannel,
                .pixels = {},
                .colorSpace = {}};
    image.Allocate();
    DX::D12DownloadResourceParams params;
    params.source = m_target->GetFirstResource();
    params.stateBefore = D3D12_RESOURCE_STATE_RENDER_TARGET;
    params.stateAfter = D3D12_RESOURCE_STATE_COPY_SOURCE;
    params.subresources = {{image.pixels.data(), image.GetRowSize(), image.pixels.size()}};
    m_graphics.queue->DownloadResource(params);
    if (GetFormat() == DXGI_FORMAT_R16G16B16A16_FLOAT) {
        ConvertFromHalf(image.pixels);
    }
    return image;
}

} // namespace Norvex::App
