// Plain C++: built for Windows, and for the building machine under sanitizers.

#include <memory>

#include <gtest/gtest.h>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/RefCountable.h"
#include "tests/support/Threads.h"

namespace Norvex {
namespace {

struct Counted : RefCountImpl {
    explicit Counted(std::shared_ptr<int> held) : token(std::move(held)) {}

    std::shared_ptr<int> token;
};

TEST(RefCountableTest, ThreadsNeitherLoseNorDoubleReferencesAndCopiesHaveTheirOwnCount) {
    const auto token = std::make_shared<int>();
    boost::intrusive_ptr<Counted> shared(new Counted(token));
    Norvex::Test::RunThreads(8, [&](unsigned) {
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
    EXPECT_EQ(token.use_count(), 2);
}

} // namespace
} // namespace Norvex
