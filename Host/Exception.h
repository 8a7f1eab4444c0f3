#pragma once

// Root of all exceptions of host and library. An exception carries its facts as boost::error_info:
// a fixed sentence, the call stack, and, thrown through boost::throw_exception, the throw site.
// Plain values: copies are independent and may travel to other threads; several threads may read
// and copy one exception. Next: Host/ProcException.h, Host/ThrowSite.h.

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

// A boost::exception whose copies have facts of their own. Boost's copies share them, and count who
// shares without regard to threads; so does boost::throw_exception with the exception that it is
// given: throw a kept one anew by `throw kept`.
class NORVEX_HOST_API ExceptionFacts : public boost::exception {
public:
    ExceptionFacts() = default;
    // Without facts where there is no memory for them: an exception on its way must not be
    // replaced.
    ExceptionFacts(const ExceptionFacts& other) noexcept;
    // Throws std::bad_alloc, and nothing is changed.
    ExceptionFacts& operator=(const ExceptionFacts& other);
    ~ExceptionFacts() noexcept override;
};

class NORVEX_HOST_API Exception : public virtual std::exception, public virtual ExceptionFacts {
public:
    Exception() = default;
    Exception(const Exception&) = default;
    Exception(Exception&&) = default;
    Exception& operator=(const Exception&) = default;
    Exception& operator=(Exception&&) = default;
    ~Exception() noexcept override;

    // The name of the class in words, the same for all its objects.
    const char* what() const noexcept override;
};

// The calling thread's stack, innermost frame first, one line each: "#0 module.dll+0x1234
// symbol+0x12", the offsets being those of the return address. The symbol comes from the module's
// debug information or its exports; it is left out where neither names the function that holds the
// address. An address outside all modules stands alone. GetCallStack itself is not shown. Never
// throws; empty when the system gives none. Any thread.
NORVEX_HOST_API std::string GetCallStack();

} // namespace Norvex
