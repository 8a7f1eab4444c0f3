// GetCallStack for programs built for another system than Windows: there is none to give.

#include "Host/Exception.h"

namespace Norvex {

std::string GetCallStack() {
    return {};
}

} // namespace Norvex
