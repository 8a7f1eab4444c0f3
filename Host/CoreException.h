#pragma once

// Failures of the foundation libraries (threads, I/O), thrown with a description and a call stack.

#include <source_location>
#include <string>

#include "Host/Exception.h"
#include "Platform/Export.h"

namespace Norvex::Core {

class NORVEX_HOST_API CoreException : public Norvex::Exception {
public:
    CoreException() = default;
    CoreException(const CoreException&) = default;
    CoreException(CoreException&&) = default;
    CoreException& operator=(const CoreException&) = default;
    CoreException& operator=(CoreException&&) = default;
    ~CoreException() noexcept override;

    // The name of the class in words, the same for all its objects.
    const char* what() const noexcept override;
};

// Throws a CoreException with the sentence and the caller's place.
[[noreturn]] NORVEX_HOST_API void
ThrowCoreException(const std::string& sentence,
                   const std::source_location& location = std::source_location::current());

} // namespace Norvex::Core
