#include "Proc/DirectX/Manager/D3D12TexturePool.h"

#include <atomic>
#include <utility>

#include "Platform/D3D12Abi.h"
#include "Proc/DirectX/Manager/Annotation.h"
#include "Proc/DirectX/Manager/D3D12FreeList.h"
#include "Proc/DirectX/Manager/SlotBitmap.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

std::uint64_t SizeOf(const D12Device& device, ID3D12Resource* texture) {
    return Platform::GetAllocationInfo(device.Get(), Platform::GetDesc(texture)).SizeInBytes;
}

class D12TexturePool : public D12Texture2DPool {
public:
    using D12Texture2DPool::D12Texture2DPool;

    boost::intrusive_ptr<D12Texture2D> ObtainTexture() override {
        CComPtr<ID3D12Resource> resource = m_free.Take(kSize, D12FreeList::End::Oldest);
        if (resource == nullptr) {
            resource = GetDevice()->CreateTexture2D(GetDesc());
            SetName(resource, "pooled texture");
            m_bytes = SizeOf(*GetDevice(), resource);
        }
        auto texture = CreateTexture(resource, 0);
        m_free.CountLent(kSize);
        return texture;
    }

    void ReuseTexture(D12Texture2D* texture) override { m_free.Put(kSize, texture->GetResource()); }

    PoolStatistics GetStatistics() const override {
        PoolStatistics statistics = m_free.GetStatistics();
        statistics.bytesInUse = statistics.inUse * m_bytes;
        statistics.bytesIdle = statistics.idle * m_bytes;
        return statistics;
    }

private:
    static constexpr std::uint64_t kSize = 0; // the same for all

    std::atomic<std::uint64_t> m_bytes{0}; // of each; 0 before the first
    D12FreeList m_free;
};

class D12TextureArray : public D12Texture2DPool {
public:
    D12TextureArray(const boost::intrusive_ptr<D12Device>& device, const D12Texture2DDesc& desc)
        : D12Texture2DPool(device, desc),
          m_resource(device->CreateTexture2D(desc)),
          m_slots(desc.arraySize) {
        SetName(m_resource, "pooled texture array");
    }

    boost::intrusive_ptr<D12Texture2D> ObtainTexture() override {
        const auto slot = m_slots.Allocate();
        ThrowUnless<DirectX12Exception>(slot.has_value(),
                                        "There are no free textures in the array");
        return m_slots.Fill(*slot, [&] { return CreateTexture(m_resource, *slot); });
    }

    void ReuseTexture(D12Texture2D* texture) override { m_slots.Free(texture->GetSubresource()); }

    PoolStatistics GetStatistics() const override {
        PoolStatistics statistics;
        statistics.idle = m_slots.CountFree();
        statistics.inUse = GetDesc().arraySize - statistics.idle;
        const std::uint64_t bytes = SizeOf(*GetDevice(), m_resource) / GetDesc().arraySize;
        statistics.bytesInUse = statistics.inUse * bytes;
        statistics.bytesIdle = statistics.idle * bytes;
        return statistics;
    }

private:
    CComPtr<ID3D12Resource> m_resource;
    SlotBitmap m_slots;
};

} // namespace

D12Texture2DPool::D12Texture2DPool(const boost::intrusive_ptr<D12Device>& device,
                                   const D12Texture2DDesc& desc)
    : m_device(device),
      m_desc(desc) {}

D12Texture2DPool::~D12Texture2DPool() = default;

boost::intrusive_ptr<D12Texture2DPool>
D12Texture2DPool::Create(const boost::intrusive_ptr<D12Device>& device,
                         const D12Texture2DDesc& desc) {
    ThrowUnless<DirectX12Exception>(device != nullptr, "Failed to create 2D texture");
    if (desc.arraySize < 2) {
        return boost::intrusive_ptr<D12Texture2DPool>(new D12TexturePool(device, desc));
    }
    return boost::intrusive_ptr<D12Texture2DPool>(new D12TextureArray(device, desc));
}

boost::intrusive_ptr<D12Texture2D>
D12Texture2DPool::CreateTexture(const CComPtr<ID3D12Resource>& resource,
                                std::uint32_t subresource) {
    return boost::intrusive_ptr<D12Texture2D>(new D12Texture2D(resource, subresource, this));
}

D12Texture2D::D12Texture2D(const CComPtr<ID3D12Resource>& resource, std::uint32_t subresource,
                           boost::intrusive_ptr<D12Texture2DPool> pool)
    : m_resource(resource),
      m_subresource(subresource),
      m_desc(Platform::GetDesc(resource)),
      m_pool(std::move(pool)) {}

D12Texture2D::D12Texture2D(const D12Texture2D& other)
    : LiveObject(other),
      m_resource(other.m_resource),
      m_subresource(other.m_subresource),
      m_desc(other.m_desc),
      m_pool(other.m_pool),
      m_original(other.m_original ? other.m_original.get() : const_cast<D12Texture2D*>(&other)) {}

D12Texture2D::~D12Texture2D() {
    if (m_original == nullptr) {
        m_pool->ReuseTexture(this);
    }
}

D3D12_RESOURCE_BARRIER D12Texture2D::Transition(bitflags<D3D12_RESOURCE_STATES> before,
                                                bitflags<D3D12_RESOURCE_STATES> after,
                                                unsigned subresource,
                                                D3D12_RESOURCE_BARRIER_FLAGS flags) const {
    return CD3DX12_RESOURCE_BARRIER::Transition(m_resource, before.get(), after.get(), subresource,
                                                flags);
}

} // namespace Norvex::DX
