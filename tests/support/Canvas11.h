#pragma once

// The same as Canvas.h on Direct3D 11: textures filled from pixels, and pixels read back; and both,
// for tests that are the same on each.

#include <string>

#include <gtest/gtest.h>

#include "Proc/DirectX/Manager/D11ImageDraw.h"
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D11DeviceContext.h"
#include "Proc/DirectX/Manager/D3D11Resource.h"
#include "tests/support/Canvas.h"

namespace Norvex::Test {

// One mip level, default usage, no flags.
inline D3D11_TEXTURE2D_DESC MakeTextureDesc11(unsigned width, unsigned height, DXGI_FORMAT format) {
    D3D11_TEXTURE2D_DESC desc = {};
    desc.Width = width;
    desc.Height = height;
    desc.MipLevels = 1;
    desc.ArraySize = 1;
    desc.Format = format;
    desc.SampleDesc.Count = 1;
    return desc;
}

class Canvas11 {
public:
    using FillDraw = DX::D11FillDraw;
    using ImageDraw = DX::D11ImageDraw;
    using ImageRenderer = DX::D11ImageRenderer;
    using Converter = DX::D11YUVConverter;
    using Frame = DX::D11Frame;
    using FrameDraw = DX::D11FrameDraw;
    using FramePeak = DX::D11FramePeak;
    using Texture = CComPtr<ID3D11Texture2D>;
    using View = boost::intrusive_ptr<DX::D11RenderTexture2D>;

    static constexpr auto kName = "D3D11";
    static constexpr auto kKind = "DirectX 11 exception"; // what() of the generation's failures

    const boost::intrusive_ptr<DX::D11Device>& GetDevice() const { return m_device; }

    static Texture TextureOf(const auto& view) { return view->GetTexture(); }
    template <class... Arguments>
    static void Convert(Converter& converter, const Arguments&... arguments) {
        converter.Encode(arguments...);
    }

    // Formats as in Pixels.h.
    boost::intrusive_ptr<DX::D11ShaderTexture2D> MakeSource(const Pixels& pixels,
                                                            DXGI_FORMAT format) {
        const std::vector<std::uint8_t> bytes = EncodePixels(pixels, format);
        const D3D11_SUBRESOURCE_DATA data = {bytes.data(), pixels.width * BytesPerPixel(format), 0};
        return DX::D11ShaderTexture2D::Create(
            m_device, MakeTextureDesc11(pixels.width, pixels.height, format), &data);
    }
    View MakeTarget(unsigned width, unsigned height, DXGI_FORMAT format,
                    const Proc::ColorF& color = {}) {
        auto target =
            DX::D11RenderTexture2D::Create(m_device, MakeTextureDesc11(width, height, format));
        Record([&](const auto& on) { on->ClearRenderTargetView(target->GetView(), color); });
        return target;
    }
    // Holds the device's Encode.
    Pixels Read(const View& target) {
        D3D11_TEXTURE2D_DESC desc = {};
        target->GetDesc(&desc);
        desc.Usage = D3D11_USAGE_STAGING;
        desc.BindFlags = 0;
        desc.CPUAccessFlags = D3D11_CPU_ACCESS_READ;
        const auto staging = m_device->CreateTexture2D(desc, nullptr);
        Pixels pixels;
        Record([&](const auto& context) {
            context->CopyResource(staging, target->GetTexture());
            const auto mapped = context->Map(staging, 0, D3D11_MAP_READ, {});
            pixels = DecodePixels(static_cast<const std::uint8_t*>(mapped.pData), mapped.RowPitch,
                                  desc.Width, desc.Height, desc.Format);
            context->Unmap(staging, 0);
        });
        return pixels;
    }

    // The call is given the device's context.
    template <class Call>
    void Record(const Call& call) {
        m_device->Encode(call);
    }

    float Measure(FramePeak& peak, const Frame& frame) {
        float luminance = 0.0F;
        Record([&](const auto& context) {
            peak.Encode(context, frame);
            luminance = peak.Read(context);
        });
        return luminance;
    }

private:
    boost::intrusive_ptr<DX::D11Device> m_device = DX::D11Device::CreatePrimary();
};

using BothCanvases = testing::Types<Canvas11, Canvas>;
struct CanvasName {
    template <class AnyCanvas>
    static std::string GetName(int) {
        return AnyCanvas::kName;
    }
};

} // namespace Norvex::Test
