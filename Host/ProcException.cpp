#include "Host/ProcException.h"

namespace Norvex::Proc {

ProcException::~ProcException() noexcept = default;

const char* ProcException::what() const noexcept {
    return "Processing exception";
}

std::string ProcException::GetErrorDescription() const {
    const std::string* description = boost::get_error_info<ErrorDescription>(*this);
    return description != nullptr ? *description : std::string();
}

} // namespace Norvex::Proc
