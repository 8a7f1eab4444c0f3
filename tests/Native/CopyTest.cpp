// What several threads hold and copy at once: counted objects and exceptions. Plain C++: built for
// Windows, and for the building machine under sanitizers.

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/CoreException.h"
#include "Host/RefCountable.h"
#include "tests/support/Threads.h"

namespace {

using Norvex::ErrorDescription;
using Norvex::Core::CoreException;
using Norvex::Test::RunThreads;

struct Counted : Norvex::RefCountImpl {
    std::shared_ptr<int> token = std::make_shared<int>();
};

TEST(RefCountableTest, ThreadsNeitherLoseNorDoubleReferencesAndCopiesHaveTheirOwnCount) {
    boost::intrusive_ptr<Counted> shared(new Counted);
    RunThreads(8, [&](unsigned) {
        for (int round = 0; round < 20'000; ++round) {
            boost::intrusive_ptr<Counted> own = shared;
            own.reset();
        }
    });
    EXPECT_EQ(shared->GetRefCount(), 1U);
    const boost::intrusive_ptr<Counted> copy(new Counted(*shared));
    *copy = *shared;
    EXPECT_EQ(copy->GetRefCount(), 1U);
    shared.reset();
    EXPECT_EQ(copy->token.use_count(), 1);
}

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
    RunThreads(4, [&](unsigned) {
        for (int round = 0; round < 200; ++round) {
            expectCopies([&] { std::rethrow_exception(thrown); });
            expectCopies([&] { boost::rethrow_exception(cloned); });
        }
    });
}

} // namespace
