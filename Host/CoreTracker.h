#pragma once

// The host's crash and telemetry tracker, to which DirectXException::TrackException reports. The
// default tracker writes each event to the log; a host puts its own in with SetTracker. All static
// operations are thread-safe.

#include <map>
#include <string>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/RefCountable.h"
#include "Platform/Export.h"

namespace Norvex::Proc {

class NORVEX_HOST_API ICoreTracker : public RefCountImpl {
public:
    // NOLINTBEGIN(readability-identifier-naming): hosts know the keys by these names
    // Event keys.
    static const std::string CORE_GPU_EXCEPTION;
    // Attribute keys.
    static const std::string CORE_EXCEPTION_WHAT;
    static const std::string CORE_EXCEPTION_DESCRIPTION; // the sentence
    static const std::string CORE_EXCEPTION_HRESULT;     // in hexadecimal
    static const std::string CORE_EXCEPTION_MEMINFO;     // after E_OUTOFMEMORY
    static const std::string CORE_GPU_VENDOR;            // the preferred name
    static const std::string CORE_GPU_DRIVER_VERSION;    // of the user-mode driver
    static const std::string CORE_GPU_BRAND_STR;         // the name of the adapter
    static const std::string CORE_GPU_VIDEO_MEMORY;      // dedicated, MiB
    // NOLINTEND(readability-identifier-naming)

    // Takes one event. May be called by several threads at once; must not throw.
    virtual void OnEvent(const std::string& key,
                         const std::map<std::string, std::string>& attributes) = 0;

    // The tracker in use, never null.
    static boost::intrusive_ptr<ICoreTracker> GetTracker();
    // Replaces the tracker; null brings the default one back. Returns the one that was in use.
    static boost::intrusive_ptr<ICoreTracker>
    SetTracker(boost::intrusive_ptr<ICoreTracker> tracker);
};

} // namespace Norvex::Proc
