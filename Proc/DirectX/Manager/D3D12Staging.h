#pragma once

// Staging of transfers, internal: which buffer, and how the subresources of a texture lie in it.
// Used while recording, on the recording thread. Throws DirectX12Exception.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <source_location>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Platform/D3D12Abi.h"
#include "Proc/DirectX/Manager/D3D12BufferPool.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX::Staging {

// From the caller's pool when it is of the right heap type, else from the device's.
inline boost::intrusive_ptr<D12Buffer>
GetUploadBuffer(D12Device& device, const boost::intrusive_ptr<D12BufferPool>& pool,
                std::uint64_t size) {
    const bool isUsable = pool != nullptr && pool->GetType() == D3D12_HEAP_TYPE_UPLOAD;
    return isUsable ? pool->CreateBuffer(size) : device.CreateUploadBuffer(size);
}

inline boost::intrusive_ptr<D12Buffer>
GetReadbackBuffer(D12Device& device, const boost::intrusive_ptr<D12BufferPool>& pool,
                  std::uint64_t size) {
    const bool isUsable = pool != nullptr && pool->GetType() == D3D12_HEAP_TYPE_READBACK;
    return isUsable ? pool->CreateBuffer(size) : device.CreateReadbackBuffer(size);
}

// Whose states a transfer changes.
struct Subresources {
    unsigned first = D3D12_RESOURCE_BARRIER_ALL_SUBRESOURCES;
    unsigned count = 1;
};

// The subresources of a transfer, or the same box of each, laid out in one linear buffer.
class Layout {
public:
    // Of D12UploadResourceParams or D12DownloadResourceParams. "Subresource index out of range",
    // `doesNotFit` for the box.
    template <class Params>
    Layout(const D12Device& device, ID3D12Resource* resource, const Params& params,
           const char* doesNotFit,
           const std::source_location& location = std::source_location::current())
        : m_first(params.firstSubresource.value_or(0)) {
        const D3D12_RESOURCE_DESC desc = Platform::GetDesc(resource);
        const auto count = static_cast<unsigned>(params.subresources.size());
        if (params.firstSubresource) {
            m_states = {m_first, count};
            const std::uint64_t end = std::uint64_t{m_first} + count;
            ThrowUnless<DirectX12Exception>(end <= CountSubresources(device, desc),
                                            "Subresource index out of range", location);
        }
        device.GetCopyableFootprints(desc, m_first, count, 0, m_footprints, m_size);
        if (params.box) {
            ThrowUnless<DirectX12Exception>(HasBox(*params.box), doesNotFit, location);
            LayOutBoxes(device, desc, *params.box);
        }
    }

    const Subresources& GetStates() const { return m_states; }
    D3D12_TEXTURE_COPY_LOCATION InTexture(ID3D12Resource* texture, unsigned index) const {
        return CD3DX12_TEXTURE_COPY_LOCATION(texture, m_first + index);
    }
    unsigned GetCount() const { return static_cast<unsigned>(m_footprints.size()); }
    std::uint64_t GetSize() const { return m_size; }

    D3D12_TEXTURE_COPY_LOCATION InBuffer(ID3D12Resource* buffer, unsigned index) const {
        return CD3DX12_TEXTURE_COPY_LOCATION(
            buffer, {m_footprints[index].Offset, m_footprints[index].Footprint});
    }

    // The caller's records have memory, and rows at least as long as the subresource's.
    template <class Record>
    void Check(const std::vector<Record>& records, const char* sentence,
               const std::source_location& location = std::source_location::current()) const {
        for (std::size_t i = 0; i < records.size(); ++i) {
            const bool isValid =
                records[i].data != nullptr && records[i].rowPitch >= m_footprints[i].RowSizeInBytes;
            ThrowUnless<DirectX12Exception>(isValid, sentence, location);
        }
    }

    // Between the mapped staging memory and the caller's, row by row.
    template <class Record>
    void CopyIn(std::uint8_t* staging, const std::vector<Record>& records) const {
        ForEachRow(records, [staging](std::uint64_t offset, auto* caller, std::uint64_t size) {
            std::memcpy(staging + offset, caller, size);
        });
    }
    template <class Record>
    void CopyOut(const std::uint8_t* staging, const std::vector<Record>& records) const {
        ForEachRow(records, [staging](std::uint64_t offset, auto* caller, std::uint64_t size) {
            std::memcpy(caller, staging + offset, size);
        });
    }

private:
    static std::uint64_t CountSubresources(const D12Device& device,
                                           const D3D12_RESOURCE_DESC& desc) {
        const bool isVolume = desc.Dimension == D3D12_RESOURCE_DIMENSION_TEXTURE3D;
        return std::uint64_t{desc.MipLevels} * (isVolume ? 1 : desc.DepthOrArraySize) *
               device.GetFormatPlaneCount(desc.Format).value_or(1);
    }

    // In all of them.
    bool HasBox(const D3D12_BOX& box) const {
        return std::ranges::all_of(m_footprints, [&box](const auto& place) {
            const D3D12_SUBRESOURCE_FOOTPRINT& whole = place.Footprint;
            return box.left < box.right && box.right <= whole.Width && box.top < box.bottom &&
                   box.bottom <= whole.Height && box.front < box.back && box.back <= whole.Depth;
        });
    }

    // As textures of the box's size and the subresource's format lie.
    void LayOutBoxes(const D12Device& device, D3D12_RESOURCE_DESC desc, const D3D12_BOX& box) {
        constexpr std::uint64_t kAlignment = D3D12_TEXTURE_DATA_PLACEMENT_ALIGNMENT;
        desc.Alignment = 0;
        desc.Width = box.right - box.left;
        desc.Height = box.bottom - box.top;
        desc.DepthOrArraySize = static_cast<UINT16>(box.back - box.front);
        desc.MipLevels = 1;
        desc.SampleDesc = {1, 0};
        desc.Flags = D3D12_RESOURCE_FLAG_NONE;
        m_size = 0;
        for (D12PlacedSubResourceFootprint& place : m_footprints) {
            const std::uint64_t offset = (m_size + kAlignment - 1) / kAlignment * kAlignment;
            desc.Format = place.Footprint.Format;
            std::vector<D12PlacedSubResourceFootprint> part;
            std::uint64_t size = 0;
            device.GetCopyableFootprints(desc, 0, 1, 0, part, size);
            place = part.front();
            place.Offset += offset;
            m_size = offset + size;
        }
    }

    template <class Record, class CopyRow>
    void ForEachRow(const std::vector<Record>& records, const CopyRow& copyRow) const {
        for (std::size_t i = 0; i < records.size(); ++i) {
            const auto& place = m_footprints[i];
            const std::uint64_t slice = std::uint64_t{place.Footprint.RowPitch} * place.NumRows;
            for (std::uint64_t z = 0; z < place.Footprint.Depth; ++z) {
                for (std::uint64_t y = 0; y < place.NumRows; ++y) {
                    copyRow(place.Offset + z * slice + y * place.Footprint.RowPitch,
                            records[i].data + z * records[i].slicePitch + y * records[i].rowPitch,
                            place.RowSizeInBytes);
                }
            }
        }
    }

    unsigned m_first;
    Subresources m_states;
    std::vector<D12PlacedSubResourceFootprint> m_footprints;
    std::uint64_t m_size = 0;
};

} // namespace Norvex::DX::Staging
