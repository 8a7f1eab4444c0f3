// Plain C++: built for Windows, and for the building machine under sanitizers.

#include <atomic>

#include <gtest/gtest.h>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/BitFlags.h"
#include "Host/RefCountable.h"
#include "tests/support/Threads.h"

namespace Norvex {
namespace {

struct Counted : RefCountImpl {
    Counted() { ++s_alive; }
    Counted(const Counted& other) : RefCountImpl(other) { ++s_alive; }
    Counted& operator=(const Counted&) = default;
    ~Counted() override { --s_alive; }

    static inline std::atomic<int> s_alive{0};
};

TEST(RefCountableTest, LastReleaseDestroysAndCopiesHaveTheirOwnCount) {
    boost::intrusive_ptr<Counted> held(new Counted);
    EXPECT_EQ(held->AddRef(), 2U);
    const boost::intrusive_ptr<Counted> copy(new Counted(*held));
    *copy = *held;
    EXPECT_EQ(copy->GetRefCount(), 1U);
    EXPECT_EQ(held->Release(), 1U);
    EXPECT_EQ(Counted::s_alive, 2);
    held.reset();
    EXPECT_EQ(Counted::s_alive, 1);
}

TEST(RefCountableTest, ThreadsNeitherLoseNorDoubleReferences) {
    boost::intrusive_ptr<Counted> shared(new Counted);
    Norvex::Test::RunThreads(8, [&](unsigned) {
        for (int round = 0; round < 20'000; ++round) {
            boost::intrusive_ptr<Counted> own = shared;
            own.reset();
        }
    });
    EXPECT_EQ(shared->GetRefCount(), 1U);
    shared.reset();
    EXPECT_EQ(Counted::s_alive, 0);
}

enum class Access : std::uint8_t { None = 0, Read = 1, Write = 2, Execute = 4 };

TEST(BitFlagsTest, CombinesAndTests) {
    using Flags = bitflags<Access>;
    const Flags both = Flags(Access::Read) | Access::Write;
    EXPECT_TRUE(both.has(Access::Read) && both.has(both) && both.has_any(Access::Write));
    EXPECT_FALSE(both.has(Flags(Access::Read) | Access::Execute) || both.has_any(Access::Execute));
    EXPECT_EQ((both ^ Access::Read), Flags(Access::Write));
    EXPECT_EQ((~Flags(Access::Read) & both).get(), Access::Write);
}

} // namespace
} // namespace Norvex
