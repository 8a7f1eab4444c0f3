#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/BitFlags.h"
#include "Host/RefCountable.h"

namespace Norvex {
namespace {

class Counted : public RefCountImpl {
public:
    explicit Counted(std::atomic<int>& alive) : m_alive(alive) { ++m_alive; }
    Counted(const Counted& other) : RefCountImpl(other), m_alive(other.m_alive) { ++m_alive; }
    Counted& operator=(const Counted& other) {
        RefCountImpl::operator=(other);
        return *this;
    }
    ~Counted() override { --m_alive; }

private:
    std::atomic<int>& m_alive;
};

TEST(RefCountableTest, LastReleaseDestroysThroughTheInterface) {
    std::atomic<int> alive{0};
    auto* object = new Counted(alive);
    EXPECT_EQ(object->GetRefCount(), 0U);
    boost::intrusive_ptr<IRefCountable> held(object);
    EXPECT_EQ(object->AddRef(), 2U);
    EXPECT_EQ(object->Release(), 1U);
    EXPECT_EQ(alive, 1);
    held.reset();
    EXPECT_EQ(alive, 0);
}

TEST(RefCountableTest, CopiesHaveTheirOwnCount) {
    std::atomic<int> alive{0};
    const boost::intrusive_ptr<Counted> first(new Counted(alive));
    first->AddRef();
    const boost::intrusive_ptr<Counted> copy(new Counted(*first));
    EXPECT_EQ(copy->GetRefCount(), 1U);
    *copy = *first;
    EXPECT_EQ(copy->GetRefCount(), 1U);
    EXPECT_EQ(first->GetRefCount(), 2U);
    EXPECT_EQ(alive, 2);
    first->Release();
}

TEST(RefCountableTest, ThreadsNeitherLoseNorDoubleReferences) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 20'000;
    std::atomic<int> alive{0};
    boost::intrusive_ptr<Counted> shared(new Counted(alive));
    {
        std::vector<std::jthread> threads;
        threads.reserve(kThreads);
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([own = shared]() mutable {
                for (int round = 0; round < kRounds; ++round) {
                    intrusive_ptr_add_ref(own.get());
                    intrusive_ptr_release(own.get());
                }
                own.reset();
            });
        }
    }
    EXPECT_EQ(shared->GetRefCount(), 1U);
    EXPECT_EQ(alive, 1);
    shared.reset();
    EXPECT_EQ(alive, 0);
}

enum class Access : std::uint8_t { None = 0, Read = 1, Write = 2, Execute = 4 };

TEST(BitFlagsTest, CombinesAndTests) {
    using Flags = bitflags<Access>;
    const Flags both = Flags(Access::Read) | Access::Write;
    EXPECT_EQ(both.value(), 3);
    EXPECT_TRUE(both.has(Access::Read) && both.has(both) && both.has(Access::None));
    EXPECT_FALSE(both.has(Flags(Access::Read) | Access::Execute));
    EXPECT_TRUE(both.has_any(Flags(Access::Read) | Access::Execute));
    EXPECT_FALSE(both.has_any(Access::Execute) || both.has_any(Access::None));
    EXPECT_EQ((both ^ Access::Read), Flags(Access::Write));
    EXPECT_EQ((~Flags(Access::Read) & both).get(), Access::Write);
    EXPECT_TRUE(Flags().empty() && !Flags() && both);
}

} // namespace
} // namespace Norvex
