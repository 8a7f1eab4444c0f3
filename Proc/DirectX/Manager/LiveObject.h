#pragma once

// Base of the library's objects that are held by intrusive_ptr, internal. In debug mode each
// remembers where it was made, for DescribeLiveObjects (DirectXDebug.h); otherwise it costs a look
// at a flag. Any thread.

#include "Host/RefCountable.h"
#include "Platform/Export.h"

namespace Norvex::DX {

class NORVEX_DX_API LiveObject : public RefCountImpl {
public:
    ~LiveObject() override;

protected:
    LiveObject() noexcept;
    // A copy is an object of its own.
    LiveObject(const LiveObject& other) noexcept;
    LiveObject& operator=(const LiveObject&) = default;
};

// Objects made from now on are remembered, for good.
void RememberLiveObjects();

} // namespace Norvex::DX
