#include "Proc/DirectX/Manager/Throw.h"

#include <exception>

#include <glog/logging.h>

#include "Host/ThrowSite.h"

namespace Norvex::DX {

namespace {

HResult MakeHResult(long result, FailedDevice device) {
    if (device.d12 != nullptr) {
        return HResult(result, device.d12);
    }
    if (device.d11 != nullptr) {
        return HResult(result, device.d11);
    }
    return HResult(result);
}

template <class E>
[[noreturn]] void ThrowException(E& exception, const std::source_location& location) {
    exception << ErrorCallStack(GetCallStack());
    boost::throw_exception(exception, MakeThrowSite(location));
}

} // namespace

template <class E>
void Throw(const std::string& sentence, const std::source_location& location) {
    E exception;
    exception << ErrorDescription(sentence);
    ThrowException(exception, location);
}

template <class E>
void ThrowResult(long result, const std::string& sentence, FailedDevice device,
                 const std::source_location& location) {
    E exception;
    exception << ErrorDescription(sentence) << MakeHResult(result, device);
    ThrowException(exception, location);
}

void LogCurrentException(const char* what) noexcept {
    try {
        try {
            throw;
        } catch (const DirectXException& e) {
            LOG(ERROR) << what << ": " << e.GetErrorDescription() << ". "
                       << e.GetResultDescription();
        } catch (const std::exception& e) {
            LOG(ERROR) << what << ": " << e.what();
        }
    } catch (...) {
        return; // not even memory for the log
    }
}

template void Throw<DirectXException>(const std::string&, const std::source_location&);
template void Throw<DirectX11Exception>(const std::string&, const std::source_location&);
template void Throw<DirectX12Exception>(const std::string&, const std::source_location&);
template void ThrowResult<DirectXException>(long, const std::string&, FailedDevice,
                                            const std::source_location&);
template void ThrowResult<DirectX11Exception>(long, const std::string&, FailedDevice,
                                              const std::source_location&);
template void ThrowResult<DirectX12Exception>(long, const std::string&, FailedDevice,
                                              const std::source_location&);

} // namespace Norvex::DX
