#pragma once

// Staging of transfers, internal: which buffer, and how the subresources of a texture lie in it.
// Used while recording, on the recording thread. Throws DirectX12Exception.

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

// The first `count` subresources of a resource, laid out in one linear buffer.
class Layout {
public:
    Layout(const D12Device& device, ID3D12Resource* resource, std::size_t count) {
        device.GetCopyableFootprints(Platform::GetDesc(resource), 0, static_cast<unsigned>(count),
                                     0, m_footprints, m_size);
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

    std::vector<D12PlacedSubResourceFootprint> m_footprints;
    std::uint64_t m_size = 0;
};

} // namespace Norvex::DX::Staging
