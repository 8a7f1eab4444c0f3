#pragma once

// The same as Canvas.h on Direct3D 11: textures filled from pixels, and pixels read back. Any
// device; by default the system's first adapter's.

#include "Proc/DirectX/Manager/D11ImageDraw.h"
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D11DeviceContext.h"
#include "Proc/DirectX/Manager/D3D11Resource.h"
#include "tests/support/Pixels.h"

namespace Norvex::Test {

// One mip level, default usage, no flags.
D3D11_TEXTURE2D_DESC MakeTextureDesc11(unsigned width, unsigned height, DXGI_FORMAT format);

class Canvas11 {
public:
    using ImageDraw = DX::D11ImageDraw;
    using ImageRenderer = DX::D11ImageRenderer;

    explicit Canvas11(
        const boost::intrusive_ptr<DX::D11Device>& device = DX::D11Device::CreatePrimary());

    const boost::intrusive_ptr<DX::D11Device>& GetDevice() const { return m_device; }

    // Formats as in Pixels.h.
    boost::intrusive_ptr<DX::D11ShaderTexture2D> MakeSource(const Pixels& pixels,
                                                            DXGI_FORMAT format);
    boost::intrusive_ptr<DX::D11RenderTexture2D>
    MakeTarget(unsigned width, unsigned height, DXGI_FORMAT format, const Proc::ColorF& color = {});
    // Holds the device's Encode.
    Pixels Read(ID3D11Texture2D* texture);
    Pixels Read(const boost::intrusive_ptr<DX::D11RenderTexture2D>& target) {
        return Read(target->GetTexture());
    }

    // The call is given the device's context.
    template <class Call>
    void Record(const Call& call) {
        m_device->Encode(call);
    }

private:
    boost::intrusive_ptr<DX::D11Device> m_device;
};

} // namespace Norvex::Test
