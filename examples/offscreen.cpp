// Draws two sRGB pixels into a Rec. 2020 PQ texture and prints what comes out. SDR white is 203
// cd/m2 there, which PQ encodes as 0.5807.

#include <array>
#include <cstdio>
#include <iterator>
#include <optional>

#include "Proc/DirectX/Manager/D3D12Renderer.h"

using namespace Norvex;

namespace {

struct Pixel {
    std::uint16_t r, g, b, a;
};

void DrawTwoPixels() {
    const auto device = DX::D12Device::CreatePrimary();
    const boost::intrusive_ptr<DX::D12CommandQueue> queue(new DX::D12CommandQueue(device, {}));

    DX::D12Texture2DDesc desc;
    desc.width = 2;
    desc.height = 1;
    desc.format = DXGI_FORMAT_R16G16B16A16_UNORM;
    desc.initialState = D3D12_RESOURCE_STATE_COPY_DEST;
    const auto sourceTexture = device->CreateTexture2D(desc);
    const std::array<Pixel, 2> white = {
        {{65535, 65535, 65535, 65535}, {32768, 32768, 32768, 65535}}};
    DX::D12UploadResourceParams upload;
    upload.destination = sourceTexture;
    upload.stateAfter = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
    upload.subresources = {
        {reinterpret_cast<const std::uint8_t*>(white.data()), sizeof(white), sizeof(white)}};
    queue->UploadResource(upload); // submitted; the queue keeps the order

    desc.resourceFlags = D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET;
    desc.initialState = D3D12_RESOURCE_STATE_RENDER_TARGET;
    const auto target = device->CreateRenderTargetView(device->CreateTexture2D(desc));

    // [the draw]
    Proc::ColorAlphaConversionInfo conversion; // from sRGB, straight alpha
    conversion.target = {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ};
    const boost::intrusive_ptr<DX::D12ImageDraw> draw(new DX::D12ImageDraw(device));
    const auto frame = queue->CreateCommandAllocator();
    draw->Encode(frame, device->CreateTextureShaderResourceView(sourceTexture), target, conversion,
                 std::nullopt);
    frame->Execute(); // everything the frame uses lives until the GPU is done
    // [the draw]

    std::array<Pixel, 2> result = {};
    DX::D12DownloadResourceParams download;
    download.source = target->GetFirstResource();
    download.stateBefore = download.stateAfter = D3D12_RESOURCE_STATE_RENDER_TARGET;
    download.subresources = {
        {reinterpret_cast<std::uint8_t*>(result.data()), sizeof(result), sizeof(result)}};
    queue->DownloadResource(download); // waits
    for (const Pixel& pixel : result) {
        std::printf("%.4f %.4f %.4f\n", pixel.r / 65535.0, pixel.g / 65535.0, pixel.b / 65535.0);
    }
}

} // namespace

int main() {
    try {
        DrawTwoPixels();
    } catch (const DX::DirectXException& e) {
        std::fprintf(stderr, "%s. %s\n", e.GetErrorDescription().c_str(),
                     e.GetResultDescription().c_str());
        return 1;
    }
    return 0;
}
