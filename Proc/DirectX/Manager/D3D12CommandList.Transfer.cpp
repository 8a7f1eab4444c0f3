// Uploads, recorded on a list.

#include "Proc/DirectX/Manager/D3D12CommandList.h"

#include <cstring>

#include "Platform/D3D12Abi.h"
#include "Proc/DirectX/Manager/D3D12BufferPool.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12Staging.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

void D12GraphicsCommandList::UploadRegion(const D12UploadRegionParams& params) {
    Begin();
    ThrowUnless<DirectX12Exception>(params.destination != nullptr, "Resource is null");
    const D3D12_RESOURCE_DESC desc = Platform::GetDesc(params.destination);
    ThrowUnless<DirectX12Exception>(desc.Dimension == D3D12_RESOURCE_DIMENSION_BUFFER,
                                    "Destination resource is not a buffer");
    ThrowUnless<DirectX12Exception>(params.size <= desc.Width &&
                                        params.destinationOffset <= desc.Width - params.size,
                                    "Uploading data does not fit in the destination");
    ThrowUnless<DirectX12Exception>(params.data != nullptr || params.size == 0,
                                    "Invalid upload data");
    const auto staging = Staging::GetUploadBuffer(*GetDevice(), params.pool, params.size);
    staging->Write(0, params.size,
                   [&params](std::uint8_t* data) { std::memcpy(data, params.data, params.size); });

    Keep(params.destination.p);
    Keep(staging.get());
    RecordTransition(params.destination, params.stateBefore, D3D12_RESOURCE_STATE_COPY_DEST);
    m_graphicsList->CopyBufferRegion(params.destination, params.destinationOffset,
                                     staging->GetResource(), 0, params.size);
    RecordTransition(params.destination, D3D12_RESOURCE_STATE_COPY_DEST, params.stateAfter);
}

void D12GraphicsCommandList::UploadResource(const D12UploadResourceParams& params) {
    Begin();
    ThrowUnless<DirectX12Exception>(params.destination != nullptr, "Resource is null");
    const Staging::Layout layout(*GetDevice(), params.destination, params,
                                 "Uploading data does not fit in the destination");
    layout.Check(params.subresources, "Invalid upload data");
    const auto staging = Staging::GetUploadBuffer(*GetDevice(), params.pool, layout.GetSize());
    staging->Write(0, layout.GetSize(),
                   [&](std::uint8_t* data) { layout.CopyIn(data, params.subresources); });

    Keep(params.destination.p);
    Keep(staging.get());
    RecordTransition(params.destination, layout.GetStates(), params.stateBefore,
                     D3D12_RESOURCE_STATE_COPY_DEST);
    const D3D12_BOX place = params.box.value_or(D3D12_BOX{});
    for (unsigned i = 0; i < layout.GetCount(); ++i) {
        const auto destination = layout.InTexture(params.destination, i);
        const auto source = layout.InBuffer(staging->GetResource(), i);
        m_graphicsList->CopyTextureRegion(&destination, place.left, place.top, place.front, &source,
                                          nullptr);
    }
    RecordTransition(params.destination, layout.GetStates(), D3D12_RESOURCE_STATE_COPY_DEST,
                     params.stateAfter);
}

void D12GraphicsCommandList::RecordTransition(const CComPtr<ID3D12Resource>& resource,
                                              D3D12_RESOURCE_STATES before,
                                              D3D12_RESOURCE_STATES after) {
    RecordTransition(resource, Staging::Subresources{}, before, after);
}

void D12GraphicsCommandList::RecordTransition(const CComPtr<ID3D12Resource>& resource,
                                              const Staging::Subresources& subresources,
                                              D3D12_RESOURCE_STATES before,
                                              D3D12_RESOURCE_STATES after) {
    for (unsigned i = 0; i < subresources.count && before != after; ++i) {
        const D3D12_RESOURCE_BARRIER barrier =
            CD3DX12_RESOURCE_BARRIER::Transition(resource, before, after, subresources.first + i);
        RecordBarriers({&barrier, 1});
    }
}

} // namespace Norvex::DX
