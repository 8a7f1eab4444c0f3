// Draws into a texture of a host that has a Direct3D 11 device already, as video decoders make one:
// wraps the device, converts from sRGB to BT.709 into the texture, and shows what stays bound.
// The host links d3d11 beside the library.

#include <array>
#include <cstdio>
#include <optional>

#include "Proc/DirectX/Manager/D11ImageDraw.h"
#include "Proc/DirectX/Manager/Exceptions.h"

using namespace Norvex;

namespace {

constexpr UINT kWidth = 4;

D3D11_TEXTURE2D_DESC MakeDesc(UINT bindFlags) {
    D3D11_TEXTURE2D_DESC desc = {};
    desc.Width = kWidth;
    desc.Height = 1;
    desc.MipLevels = desc.ArraySize = desc.SampleDesc.Count = 1;
    desc.Format = DXGI_FORMAT_R8G8B8A8_UNORM;
    desc.BindFlags = bindFlags;
    return desc;
}

// What the host has before the library comes: a device, and a texture to be drawn on, bound.
struct Host {
    CComPtr<ID3D11Device> device;
    CComPtr<ID3D11DeviceContext> context;
    CComPtr<ID3D11Texture2D> texture;
    CComPtr<ID3D11RenderTargetView> view;

    bool Start() {
        const D3D11_TEXTURE2D_DESC desc = MakeDesc(D3D11_BIND_RENDER_TARGET);
        const bool isMade =
            SUCCEEDED(D3D11CreateDevice(nullptr, D3D_DRIVER_TYPE_HARDWARE, nullptr, 0, nullptr, 0,
                                        D3D11_SDK_VERSION, &device, nullptr, &context)) &&
            SUCCEEDED(device->CreateTexture2D(&desc, nullptr, &texture)) &&
            SUCCEEDED(device->CreateRenderTargetView(texture, nullptr, &view));
        if (isMade) {
            context->OMSetRenderTargets(1, &view.p, nullptr);
        }
        return isMade;
    }
};

void Draw(const Host& host) {
    const auto device = DX::D11Device::Attach(host.device);
    const std::array<unsigned char, 4 * std::size_t{kWidth}> greys = {
        0, 0, 0, 255, 64, 64, 64, 255, 128, 128, 128, 255, 255, 255, 255, 255};
    const D3D11_SUBRESOURCE_DATA data = {greys.data(), sizeof(greys), 0};
    const auto source = DX::D11ShaderTexture2D::Create(device, MakeDesc(0), &data);
    const boost::intrusive_ptr<DX::D11RenderTexture2D> target(
        new DX::D11RenderTexture2D(host.texture, std::nullopt));
    const boost::intrusive_ptr<DX::D11ImageDraw> draw(new DX::D11ImageDraw(device));

    Proc::ColorAlphaConversionInfo conversion; // from sRGB, straight alpha
    conversion.target = {Conf::ColorPrimaries::BT709, Conf::TransferCharacteristics::BT709};
    conversion.mode = Proc::LinearizationMode::DisplayReferred;
    D3D11_TEXTURE2D_DESC desc = MakeDesc(0);
    desc.Usage = D3D11_USAGE_STAGING;
    desc.CPUAccessFlags = D3D11_CPU_ACCESS_READ;
    const auto staging = device->CreateTexture2D(desc, nullptr);
    device->Encode([&](const boost::intrusive_ptr<DX::D11DeviceContext>& context) {
        draw->Encode(context, source, target, conversion, std::nullopt);
        context->CopyResource(staging, target->GetTexture());
        const auto mapped = context->Map(staging, 0, D3D11_MAP_READ, std::nullopt);
        for (std::size_t x = 0; x < kWidth; ++x) {
            std::printf("sRGB %3d is %3d in BT.709\n", greys[4 * x],
                        static_cast<const unsigned char*>(mapped.pData)[4 * x]);
        }
        context->Unmap(staging, 0);
    });
}

} // namespace

int main() {
    Host host;
    if (!host.Start()) {
        std::fprintf(stderr, "The host has no Direct3D 11 device.\n");
        return 1;
    }
    try {
        Draw(host);
    } catch (const DX::DirectXException& e) {
        std::fprintf(stderr, "%s. %s\n", e.GetErrorDescription().c_str(),
                     e.GetResultDescription().c_str());
        return 1;
    }
    CComPtr<ID3D11RenderTargetView> bound;
    host.context->OMGetRenderTargets(1, &bound, nullptr);
    std::printf("The host's target is %s: it binds it anew.\n", bound ? "bound" : "unbound");
    return 0;
}
