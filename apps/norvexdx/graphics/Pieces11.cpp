#include "apps/norvexdx/graphics/Pieces11.h"

#include <cstring>

#include <boost/throw_exception.hpp>

#include "Proc/DirectX/Manager/Exceptions.h"

namespace Norvex::App {

D3D11_TEXTURE2D_DESC MakeTextureDesc11(const DX::Size2DT<long>& size, DXGI_FORMAT format) {
    D3D11_TEXTURE2D_DESC desc = {};
    desc.Width = static_cast<UINT>(size.width);
    desc.Height = static_cast<UINT>(size.height);
    desc.MipLevels = 1;
    desc.ArraySize = 1;
    desc.Format = format;
    desc.SampleDesc.Count = 1;
    desc.Usage = D3D11_USAGE_DEFAULT;
    return desc;
}

D3D11_TEXTURE2D_DESC MakeStagingDesc11(const DX::Size2DT<long>& size, DXGI_FORMAT format,
                                       D3D11_CPU_ACCESS_FLAG access) {
    D3D11_TEXTURE2D_DESC desc = MakeTextureDesc11(size, format);
    desc.Usage = D3D11_USAGE_STAGING;
    desc.CPUAccessFlags = access;
    return desc;
}

CComPtr<ID3D11Query> MakeQuery11(DX::D11Device& device, D3D11_QUERY type) {
    const D3D11_QUERY_DESC desc = {type, 0};
    CComPtr<ID3D11Query> query;
    ThrowIfFailed11(device.Get()->CreateQuery(&desc, &query), "Failed to create query", device);
    return query;
}

void ThrowIfFailed11(HRESULT result, const char* sentence, DX::D11Device& device) {
    if (FAILED(result)) {
        DX::DirectX11Exception failure;
        failure << ErrorDescription(sentence) << HResult(result, device.Get());
        boost::throw_exception(failure);
    }
}

void CopyRows(std::uint8_t* target, std::size_t targetPitch, const std::uint8_t* source,
              std::size_t sourcePitch, std::size_t rowSize, std::size_t rows) {
    for (std::size_t row = 0; row < rows; ++row) {
        std::memcpy(target + row * targetPitch, source + row * sourcePitch, rowSize);
    }
}

} // namespace Norvex::App
