#include "Host/CoreException.h"

#include <boost/throw_exception.hpp>

#include "Host/ThrowSite.h"

namespace Norvex::Core {

CoreException::~CoreException() noexcept = default;

const char* CoreException::what() const noexcept {
    return "Core exception";
}

void ThrowCoreException(const std::string& sentence, const std::source_location& location) {
    boost::throw_exception(CoreException()
                               << ErrorDescription(sentence) << ErrorCallStack(GetCallStack()),
                           MakeThrowSite(location));
}

} // namespace Norvex::Core
