#pragma once

// Root of all exceptions of host and library. An exception carries its facts as boost::error_info:
// a fixed sentence, the call stack, and, thrown through boost::throw_exception, the throw site.
// Plain values: copy them freely. Next: Host/ProcException.h, Host/ThrowSite.h.

#include <exception>
#include <string>

#include <boost/exception/all.hpp>

#include "Platform/Export.h"

namespace Norvex {

struct TagDescription;
struct TagCallStack;

// The fixed English sentence that says what failed.
using ErrorDescription = boost::error_info<TagDescription, std::string>;
// The text of GetCallStack() at the throw.
using ErrorCallStack = boost::error_info<TagCallStack, std::string>;

class NORVEX_HOST_API Exception : public virtual std::exception, public virtual boost::exception {
public:
    Exception() = default;
    Exception(const Exception&) = default;
    Exception(Exception&&) = default;
    Exception& operator=(const Exception&) = default;
    Exception& operator=(Exception&&) = default;
    ~Exception() noexcept override;

    const char* what() const noexcept override;
};

// The calling thread's stack, innermost frame first, one line each: "#0 module.dll+0x1234
// symbol+0x12", the offsets being those of the return address. The symbol comes from the module's
// debug information, else it is the nearest export before; it is left out where neither is known.
// An address outside all modules stands alone. The function itself is not shown. Never throws;
// empty when the system gives none. Any thread.
NORVEX_HOST_API std::string GetCallStack();

} // namespace Norvex
