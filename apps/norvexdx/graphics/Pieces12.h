#pragma once

// What drawing and encoding with Direct3D 12 have in common. Any thread. Throws what the library
// throws.

#include "Proc/DirectX/Manager/D3D12CommandQueue.h"
#include "Proc/DirectX/Manager/D3D12Device.h"

namespace Norvex::App {

inline DX::D12Texture2DDesc MakeTextureDesc12(const DX::Size2DT<long>& size, DXGI_FORMAT format,
                                              D3D12_RESOURCE_STATES state, bool isTarget) {
    DX::D12Texture2DDesc desc;
    desc.width = static_cast<std::uint64_t>(size.width);
    desc.height = static_cast<std::uint32_t>(size.height);
    desc.format = format;
    desc.initialState = state;
    if (isTarget) {
        desc.resourceFlags = D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET;
    }
    return desc;
}

inline boost::intrusive_ptr<DX::D12CommandQueue>
MakeQueue12(const boost::intrusive_ptr<DX::D12Device>& device) {
    return boost::intrusive_ptr<DX::D12CommandQueue>(
        new DX::D12CommandQueue(device, {.Type = D3D12_COMMAND_LIST_TYPE_DIRECT,
                                         .Priority = D3D12_COMMAND_QUEUE_PRIORITY_NORMAL,
                                         .Flags = D3D12_COMMAND_QUEUE_FLAG_NONE,
                                         .NodeMask = 0}));
}

} // namespace Norvex::App
