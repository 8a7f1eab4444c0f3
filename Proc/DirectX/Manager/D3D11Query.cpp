#include "Proc/DirectX/Manager/D3D11Query.h"

#include "Proc/DirectX/Manager/Annotation.h"
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

D11Query::D11Query(const boost::intrusive_ptr<D11Device>& device, D3D11_QUERY type) : m_type(type) {
    ThrowUnless<DirectX11Exception>(device != nullptr, "DirectX 11 device is null");
    const D3D11_QUERY_DESC desc = {type, 0};
    ThrowIfFailed<DirectX11Exception>(device->Get()->CreateQuery(&desc, &m_query),
                                      "Failed to create query", device->Get());
    SetName(m_query, "query");
}

D11Query::~D11Query() = default;

} // namespace Norvex::DX
