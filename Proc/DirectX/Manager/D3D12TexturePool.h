#pragma once

// Pooled 2-D textures of one description, for what is needed anew each frame. A texture whose last
// reference dies goes back to the pool. Ownership: texture -> pool -> device. The pool does not
// know the GPU: hold a texture, or have a command list track it, until its work has finished. Pool:
// any thread, release included. Throws DirectX12Exception.

#include <cstdint>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/BitFlags.h"
#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/LiveObject.h"

namespace Norvex::DX {

class D12Texture2D;

class NORVEX_DX_API D12Texture2DPool : public LiveObject {
public:
    // arraySize below 2: separate textures, made when needed, reused first in first out, and freed
    // when unused for 2 s (a timer looks every 2 s). Else the slices of one texture array, made at
    // once. What D12Device::CreateTexture2D throws, "Failed to create 2D texture" without a device
    // too.
    static boost::intrusive_ptr<D12Texture2DPool>
    Create(const boost::intrusive_ptr<D12Device>& device, const D12Texture2DDesc& desc);

    ~D12Texture2DPool() override;
    D12Texture2DPool(const D12Texture2DPool&) = delete;
    D12Texture2DPool& operator=(const D12Texture2DPool&) = delete;

    // In the state that its last user left it in; a new one in the description's initial state. The
    // contents are undefined. "There are no free textures in the array", and what
    // D12Device::CreateTexture2D throws.
    virtual boost::intrusive_ptr<D12Texture2D> ObtainTexture() = 0;
    // Called by a dying texture.
    virtual void ReuseTexture(D12Texture2D* texture) = 0;

    // Bytes as the device allocates them; an array's idle slices count with their part of it.
    virtual PoolStatistics GetStatistics() const = 0;

    // What it was made on.
    const boost::intrusive_ptr<D12Device>& GetDevice() const { return m_device; }
    // Of its textures.
    const D12Texture2DDesc& GetDesc() const { return m_desc; }
    // Pixels.
    std::uint32_t GetWidth() const { return static_cast<std::uint32_t>(m_desc.width); }
    // Pixels.
    std::uint32_t GetHeight() const { return m_desc.height; }
    // Whether its textures are slices of arrays.
    bool IsTextureArray() const { return m_desc.arraySize > 1; }

protected:
    // Makes nothing yet.
    D12Texture2DPool(const boost::intrusive_ptr<D12Device>& device, const D12Texture2DDesc& desc);

    // A handle on one subresource.
    boost::intrusive_ptr<D12Texture2D> CreateTexture(const CComPtr<ID3D12Resource>& resource,
                                                     std::uint32_t subresource);

private:
    boost::intrusive_ptr<D12Device> m_device;
    D12Texture2DDesc m_desc;
};

class NORVEX_DX_API D12Texture2D : public LiveObject {
public:
    // Another handle on the same texture, which returns to the pool when all handles are gone.
    D12Texture2D(const D12Texture2D& other);
    D12Texture2D& operator=(const D12Texture2D&) = delete;
    ~D12Texture2D() override;

    // All slices of an array.
    const CComPtr<ID3D12Resource>& GetResource() const { return m_resource; }
    // The slice; 0 for a separate texture.
    std::uint32_t GetSubresource() const { return m_subresource; }
    // Of its textures.
    const D3D12_RESOURCE_DESC& GetDesc() const { return m_desc; }
    // Whether its textures are slices of arrays.
    bool IsTextureArray() const { return m_desc.DepthOrArraySize > 1; }

    // A transition of the subresource that is named, not of this texture's own; it borrows the
    // resource.
    D3D12_RESOURCE_BARRIER Transition(bitflags<D3D12_RESOURCE_STATES> before,
                                      bitflags<D3D12_RESOURCE_STATES> after, unsigned subresource,
                                      D3D12_RESOURCE_BARRIER_FLAGS flags) const;

private:
    friend class D12Texture2DPool;

    D12Texture2D(const CComPtr<ID3D12Resource>& resource, std::uint32_t subresource,
                 boost::intrusive_ptr<D12Texture2DPool> pool);

    CComPtr<ID3D12Resource> m_resource;
    std::uint32_t m_subresource;
    D3D12_RESOURCE_DESC m_desc;
    boost::intrusive_ptr<D12Texture2DPool> m_pool;
    boost::intrusive_ptr<D12Texture2D>
        m_original; // in a copy: the handle that will return the texture
};

} // namespace Norvex::DX
