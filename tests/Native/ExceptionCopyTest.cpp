// Copies of exceptions, also by several threads at once. Plain C++: built for Windows, and for the
// building machine under sanitizers.

#include <string>

#include <gtest/gtest.h>

#include "Host/CoreException.h"
#include "tests/support/Threads.h"

namespace {

using Norvex::ErrorDescription;
using Norvex::Core::CoreException;

std::string SentenceOf(const CoreException& exception) {
    return *boost::get_error_info<ErrorDescription>(exception);
}

// As thrown, through an exception_ptr, and through Boost's clone: each copy has its own facts.
TEST(ExceptionCopyTest, ThreadsCopyOneExceptionAtOnce) {
    std::exception_ptr thrown;
    boost::exception_ptr cloned;
    try {
        Norvex::Core::ThrowCoreException("Valve is stuck");
    } catch (...) {
        thrown = std::current_exception();
        cloned = boost::current_exception();
    }
    const auto expectCopies = [](const auto& rethrow) {
        try {
            rethrow();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const CoreException& exception) {
            CoreException copy;
            copy = CoreException(exception);
            copy << ErrorDescription("Pump is dry");
            EXPECT_EQ(SentenceOf(exception), "Valve is stuck");
            EXPECT_EQ(SentenceOf(CoreException(std::move(copy))), "Pump is dry");
        }
    };
    Norvex::Test::RunThreads(4, [&](unsigned) {
        for (int round = 0; round < 200; ++round) {
            expectCopies([&] { std::rethrow_exception(thrown); });
            expectCopies([&] { boost::rethrow_exception(cloned); });
        }
    });
}

} // namespace
