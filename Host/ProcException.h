#pragma once

// Base of the exceptions of processing modules. Knows how to find the sentence that a throw
// carried.

#include <string>

#include "Host/Exception.h"
#include "Platform/Export.h"

namespace Norvex::Proc {

class NORVEX_HOST_API ProcException : public Norvex::Exception {
public:
    ProcException() = default;
    ProcException(const ProcException&) = default;
    ProcException(ProcException&&) = default;
    ProcException& operator=(const ProcException&) = default;
    ProcException& operator=(ProcException&&) = default;
    ~ProcException() noexcept override;

    // The name of the class in words, the same for all its objects.
    const char* what() const noexcept override;

    // The sentence that the throw carried (ErrorDescription); empty when it carried none.
    std::string GetErrorDescription() const;
};

} // namespace Norvex::Proc
