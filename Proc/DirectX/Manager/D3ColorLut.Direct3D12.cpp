#include "Proc/DirectX/Manager/D3ColorLut.h"
#include "Proc/DirectX/Manager/D3ColorLutEntries.h"
#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

D12ColorLut::D12ColorLut(const boost::intrusive_ptr<D12CommandQueue>& queue, const D3ColorLut& lut)
    : m_dimensions(lut.dimensions) {
    ThrowUnless<DirectX12Exception>(queue != nullptr, "Command queue is null");
    const auto quads = MakeLutQuads(lut);
    const auto& device = queue->GetDevice();
    D12UploadRegionParams upload;
    upload.size = quads.size() * sizeof(LutQuad);
    upload.data = reinterpret_cast<const std::uint8_t*>(quads.data());
    D12BufferDesc buffer;
    buffer.size = upload.size;
    upload.destination = device->CreateBuffer(buffer);
    upload.destination->SetName(L"Color LUT");

    D3D12_SHADER_RESOURCE_VIEW_DESC desc = {};
    desc.Format = DXGI_FORMAT_R32G32B32A32_FLOAT;
    desc.ViewDimension = D3D12_SRV_DIMENSION_BUFFER;
    desc.Shader4ComponentMapping = D3D12_DEFAULT_SHADER_4_COMPONENT_MAPPING;
    desc.Buffer.NumElements = static_cast<UINT>(quads.size());
    m_view = device->CreateShaderResourceView(upload.destination, desc);
    // In between it is in the common state, as after every submission: whoever reads may begin.
    queue->UploadRegion(upload)->WaitComplete();
}

D12ColorLut::~D12ColorLut() = default;

} // namespace Norvex::DX
