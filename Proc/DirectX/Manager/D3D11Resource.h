#pragma once

// Direct3D 11 resources with the one view, mutex or count that drawing needs: textures to draw on,
// from and to share; vertex and index buffers; the Direct3D 11 side of a Direct3D 12 fence. Owned
// by intrusive_ptr, immutable: any thread. Throws DirectX11Exception, for a null argument "DirectX
// 11 device is null", "Texture is null", "Completion event is null"; and what D11Device throws.
// Next: D3D11DeviceContext.h, D11ImageDraw.h.

#include <cstdint>
#include <optional>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "Proc/DirectX/Manager/LiveObject.h"

namespace Norvex::DX {

class D11Device;
class D11DeviceContext;
class D12CompletionEvent;

// A texture to draw on.
class NORVEX_DX_API D11RenderTexture2D : public LiveObject {
public:
    // Over an existing texture, its first mip level; view format: the texture's own when empty.
    // "Failed to create render rarget view".
    D11RenderTexture2D(const CComPtr<ID3D11Texture2D>& texture,
                       const std::optional<DXGI_FORMAT>& viewFormat);
    ~D11RenderTexture2D() override;
    D11RenderTexture2D(const D11RenderTexture2D&) = delete;
    D11RenderTexture2D& operator=(const D11RenderTexture2D&) = delete;

    // A new texture, with D3D11_BIND_RENDER_TARGET added to the description.
    static boost::intrusive_ptr<D11RenderTexture2D>
    Create(const boost::intrusive_ptr<D11Device>& device, const D3D11_TEXTURE2D_DESC& desc);

    // The raw texture, kept.
    const CComPtr<ID3D11Texture2D>& GetTexture() const { return m_texture; }
    // The texture's.
    void GetDesc(D3D11_TEXTURE2D_DESC* desc) const { m_texture->GetDesc(desc); }
    Size2DT<long> GetSize() const; // pixels
    Rect2DT<long> GetRect() const; // all of it, from (0, 0)
    // The one view, kept.
    const CComPtr<ID3D11RenderTargetView>& GetView() const { return m_view; }
    // The view's.
    void GetViewDesc(D3D11_RENDER_TARGET_VIEW_DESC* desc) const { m_view->GetDesc(desc); }

private:
    CComPtr<ID3D11Texture2D> m_texture;
    CComPtr<ID3D11RenderTargetView> m_view;
};

// A texture to draw from, in pixel shaders.
class NORVEX_DX_API D11ShaderTexture2D : public LiveObject {
public:
    // As for D11RenderTexture2D. "Failed to create shader resource view".
    D11ShaderTexture2D(const CComPtr<ID3D11Texture2D>& texture,
                       const std::optional<DXGI_FORMAT>& viewFormat);
    ~D11ShaderTexture2D() override;
    D11ShaderTexture2D(const D11ShaderTexture2D&) = delete;
    D11ShaderTexture2D& operator=(const D11ShaderTexture2D&) = delete;

    // A new texture, with D3D11_BIND_SHADER_RESOURCE added. initialData: null, or one record for
    // each subresource.
    static boost::intrusive_ptr<D11ShaderTexture2D>
    Create(const boost::intrusive_ptr<D11Device>& device, const D3D11_TEXTURE2D_DESC& desc,
           const D3D11_SUBRESOURCE_DATA* initialData);

    // The raw texture, kept.
    const CComPtr<ID3D11Texture2D>& GetTexture() const { return m_texture; }
    // The texture's.
    void GetDesc(D3D11_TEXTURE2D_DESC* desc) const { m_texture->GetDesc(desc); }
    Size2DT<long> GetSize() const; // pixels
    // The one view, kept.
    const CComPtr<ID3D11ShaderResourceView>& GetView() const { return m_view; }

private:
    CComPtr<ID3D11Texture2D> m_texture;
    CComPtr<ID3D11ShaderResourceView> m_view;
};

// A texture that another device or process opens by an NT handle. Each user acquires it with the
// key that the one before released it with; a new texture is released with key 0.
class NORVEX_DX_API D11SharedTexture2D : public LiveObject {
public:
    // Over a texture that has a keyed mutex. "Failed to get texture key mutex".
    explicit D11SharedTexture2D(const CComPtr<ID3D11Texture2D>& texture);
    ~D11SharedTexture2D() override;
    D11SharedTexture2D(const D11SharedTexture2D&) = delete;
    D11SharedTexture2D& operator=(const D11SharedTexture2D&) = delete;

    // A new texture, with the flags for a keyed mutex and an NT handle added. "Shared texture not
    // supported" below feature level 11_1.
    static boost::intrusive_ptr<D11SharedTexture2D>
    Create(const boost::intrusive_ptr<D11Device>& device, const D3D11_TEXTURE2D_DESC& desc);

    // The raw texture, kept.
    const CComPtr<ID3D11Texture2D>& GetTexture() const { return m_texture; }
    // The texture's.
    void GetDesc(D3D11_TEXTURE2D_DESC* desc) const { m_texture->GetDesc(desc); }
    Size2DT<long> GetSize() const; // pixels

    // Waits at most `milliseconds` (INFINITE: for ever). A time-out and an abandoned mutex return
    // as success does: wait without limit, or know otherwise that the key is there. Outside Encode
    // others may encode meanwhile. "Failed to acquire texture key mutex".
    void AcquireSync(UINT64 key, DWORD milliseconds);
    // Submits what was recorded and unbinds the texture, for which it waits for its turn as Encode
    // does. "Failed to release texture key mutex".
    void ReleaseSync(UINT64 key);
    // Access: DXGI_SHARED_RESOURCE_READ, DXGI_SHARED_RESOURCE_WRITE. The caller closes the handle.
    // "Failed to query interface", "Failed to create shared handle".
    HANDLE CreateSharedHandle(DWORD access);

private:
    CComPtr<ID3D11Texture2D> m_texture;
    CComPtr<IDXGIKeyedMutex> m_keyedMutex;
};

class NORVEX_DX_API D11VertexBuffer : public LiveObject {
public:
    ~D11VertexBuffer() override;
    D11VertexBuffer(const D11VertexBuffer&) = delete;
    D11VertexBuffer& operator=(const D11VertexBuffer&) = delete;

    // data: count vertices of stride bytes, copied; at least one byte, and less than 4 GiB.
    static boost::intrusive_ptr<D11VertexBuffer>
    Create(const boost::intrusive_ptr<D11Device>& device, const void* data, UINT stride,
           UINT count);

    // The raw buffer, kept.
    const CComPtr<ID3D11Buffer>& GetBuffer() const { return m_buffer; }
    UINT GetStride() const { return m_stride; } // bytes a vertex
    UINT GetCount() const { return m_count; }   // vertices

private:
    D11VertexBuffer(const CComPtr<ID3D11Buffer>& buffer, UINT stride, UINT count);

    CComPtr<ID3D11Buffer> m_buffer;
    UINT m_stride;
    UINT m_count;
};

class NORVEX_DX_API D11IndexBuffer : public LiveObject {
public:
    ~D11IndexBuffer() override;
    D11IndexBuffer(const D11IndexBuffer&) = delete;
    D11IndexBuffer& operator=(const D11IndexBuffer&) = delete;

    // The indices, at least one and less than 4 GiB, are copied.
    static boost::intrusive_ptr<D11IndexBuffer>
    Create(const boost::intrusive_ptr<D11Device>& device,
           const std::vector<std::uint16_t>& indices);
    static boost::intrusive_ptr<D11IndexBuffer>
    Create(const boost::intrusive_ptr<D11Device>& device,
           const std::vector<std::uint32_t>& indices);

    // The raw buffer, kept.
    const CComPtr<ID3D11Buffer>& GetBuffer() const { return m_buffer; }
    DXGI_FORMAT GetFormat() const { return m_format; } // R16_UINT or R32_UINT
    UINT GetCount() const { return m_count; }          // indices

private:
    D11IndexBuffer(const CComPtr<ID3D11Buffer>& buffer, DXGI_FORMAT format, UINT count);

    CComPtr<ID3D11Buffer> m_buffer;
    DXGI_FORMAT m_format;
    UINT m_count;
};

// A Direct3D 12 event as Direct3D 11 sees it: one fence and one target, so that signals of both
// generations draw from one increasing sequence. Any thread.
class NORVEX_DX_API D11CompletionEvent : public LiveObject {
public:
    // The fence must be the event's.
    D11CompletionEvent(const CComPtr<ID3D11Fence>& fence,
                       const boost::intrusive_ptr<D12CompletionEvent>& event);
    ~D11CompletionEvent() override;
    D11CompletionEvent(const D11CompletionEvent&) = delete;
    D11CompletionEvent& operator=(const D11CompletionEvent&) = delete;

    // Opens an event made with D3D12_FENCE_FLAG_SHARED and keeps it. "Shared fence not supported"
    // where D11Device::IsFencesSupported is false, "D12 completion event not shared", "Failed to
    // create fence".
    static boost::intrusive_ptr<D11CompletionEvent>
    OpenShared(const boost::intrusive_ptr<D11Device>& device,
               const boost::intrusive_ptr<D12CompletionEvent>& event);

    // The raw fence, kept.
    const CComPtr<ID3D11Fence>& GetFence() const { return m_fence; }
    // The present target of the Direct3D 12 event.
    UINT64 GetValue() const;
    // Raises that target by one; returns the new target, which the caller has some queue or context
    // signal.
    UINT64 PreIncrementValue() const;

private:
    friend class D11DeviceContext;

    // Raises the target and signals it; the target stays when that fails. Answers the result.
    long SignalOn(ID3D11DeviceContext4& context) const;

    CComPtr<ID3D11Fence> m_fence;
    boost::intrusive_ptr<D12CompletionEvent> m_event;
};

} // namespace Norvex::DX
