#pragma once

// What drawing and encoding with Direct3D 11 have in common. Inside the device's Encode, but for
// the descriptions. Throws what the library throws.

#include <optional>

#include "Proc/DirectX/Manager/CommonTypes.h"
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D11DeviceContext.h"

namespace Norvex::App {

// Of the device's own memory, without uses.
D3D11_TEXTURE2D_DESC MakeTextureDesc11(const DX::Size2DT<long>& size, DXGI_FORMAT format);
// Of memory that the processor reads or writes.
D3D11_TEXTURE2D_DESC MakeStagingDesc11(const DX::Size2DT<long>& size, DXGI_FORMAT format,
                                       D3D11_CPU_ACCESS_FLAG access);

CComPtr<ID3D11Query> MakeQuery11(DX::D11Device& device, D3D11_QUERY type);
void ThrowIfFailed11(HRESULT result, const char* sentence, DX::D11Device& device);

// A staging texture's memory while this object lives.
class Mapping11 {
public:
    Mapping11(const boost::intrusive_ptr<DX::D11DeviceContext>& context,
              const CComPtr<ID3D11Texture2D>& texture, D3D11_MAP type)
        : m_context(context),
          m_texture(texture),
          m_mapped(context->Map(texture, 0, type, std::nullopt)) {}
    ~Mapping11() { m_context->Unmap(m_texture, 0); }
    Mapping11(const Mapping11&) = delete;
    Mapping11& operator=(const Mapping11&) = delete;

    std::uint8_t* GetData() const { return static_cast<std::uint8_t*>(m_mapped.pData); }
    std::size_t GetRowPitch() const { return m_mapped.RowPitch; }

private:
    boost::intrusive_ptr<DX::D11DeviceContext> m_context;
    CComPtr<ID3D11Texture2D> m_texture;
    D3D11_MAPPED_SUBRESOURCE m_mapped;
};

void CopyRows(std::uint8_t* target, std::size_t targetPitch, const std::uint8_t* source,
              std::size_t sourcePitch, std::size_t rowSize, std::size_t rows);

} // namespace Norvex::App
