#pragma once

// GPU queries of Direct3D 11: occlusion, time stamps, statistics. Recorded and read on the context,
// inside D11Device::Encode: D11DeviceContext::BeginQuery, EndQuery, and the readers there, which do
// not wait. Time stamps count in ticks of a frequency that a query of the type
// D3D11_QUERY_TIMESTAMP_DISJOINT around them tells, together with whether they can be compared.
// Throws DirectX11Exception. On Direct3D 12: D3D12Query.h.

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/LiveObject.h"

namespace Norvex::DX {

class D11Device;

class NORVEX_DX_API D11Query : public LiveObject {
public:
    // "DirectX 11 device is null", "Failed to create query" (a type that the device has not, too).
    D11Query(const boost::intrusive_ptr<D11Device>& device, D3D11_QUERY type);
    ~D11Query() override;
    D11Query(const D11Query&) = delete;
    D11Query& operator=(const D11Query&) = delete;

    // Borrowed.
    ID3D11Query* Get() const { return m_query; }
    // What it counts or times.
    D3D11_QUERY GetType() const { return m_type; }

private:
    CComPtr<ID3D11Query> m_query;
    D3D11_QUERY m_type;
};

} // namespace Norvex::DX
