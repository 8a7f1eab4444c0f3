#include "Host/Exception.h"

namespace Norvex {

Exception::~Exception() noexcept = default;

const char* Exception::what() const noexcept {
    return "Norvex exception";
}

} // namespace Norvex
