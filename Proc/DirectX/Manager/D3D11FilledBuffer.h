#pragma once

// A buffer with its contents, internal: for vertices, indices and constants.

#include <source_location>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Platform/ComPtr.h"

namespace Norvex::DX {

class D11Device;

// Refuses what would not fit the description's 32 bits, and no data, as the system refuses it.
// "DirectX 11 device is null", and what D11Device::CreateBuffer throws.
CComPtr<ID3D11Buffer>
CreateFilledBuffer(const boost::intrusive_ptr<D11Device>& device, D3D11_BIND_FLAG bind,
                   const void* data, UINT64 sizeInBytes,
                   const std::source_location& location = std::source_location::current());

} // namespace Norvex::DX
