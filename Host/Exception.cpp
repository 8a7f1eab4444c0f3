#include "Host/Exception.h"

namespace Norvex {

// Only Boost itself can copy facts of every kind; its own clones are made by the same function.
using boost::exception_detail::copy_boost_exception;

// NOLINTNEXTLINE(bugprone-copy-constructor-init): the base's own copy would share the facts
ExceptionFacts::ExceptionFacts(const ExceptionFacts& other) noexcept : boost::exception() {
    try {
        copy_boost_exception(this, &other);
    } catch (...) {
        // Nothing was copied: Boost copies all or nothing.
    }
}

ExceptionFacts& ExceptionFacts::operator=(const ExceptionFacts& other) {
    copy_boost_exception(this, &other);
    return *this;
}

ExceptionFacts::~ExceptionFacts() noexcept = default;

Exception::~Exception() noexcept = default;

const char* Exception::what() const noexcept {
    return "Norvex exception";
}

} // namespace Norvex
