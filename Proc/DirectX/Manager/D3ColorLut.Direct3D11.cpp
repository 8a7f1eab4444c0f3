#include "Proc/DirectX/Manager/D3ColorLut.h"
#include "Proc/DirectX/Manager/D3ColorLutEntries.h"
#include "Proc/DirectX/Manager/D3D11FilledBuffer.h"

namespace Norvex::DX {

D11ColorLut::D11ColorLut(const boost::intrusive_ptr<D11Device>& device, const D3ColorLut& lut)
    : m_dimensions(lut.dimensions) {
    const auto quads = MakeLutQuads(lut);
    const auto buffer = CreateFilledBuffer(device, D3D11_BIND_SHADER_RESOURCE, quads.data(),
                                           quads.size() * sizeof(LutQuad));
    D3D11_SHADER_RESOURCE_VIEW_DESC desc = {};
    desc.Format = DXGI_FORMAT_R32G32B32A32_FLOAT;
    desc.ViewDimension = D3D11_SRV_DIMENSION_BUFFER;
    desc.Buffer.NumElements = static_cast<UINT>(quads.size());
    m_view = device->CreateShaderResourceView(buffer, desc);
}

D11ColorLut::~D11ColorLut() = default;

} // namespace Norvex::DX
