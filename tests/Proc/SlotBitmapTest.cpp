#include <algorithm>
#include <numeric>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/SlotBitmap.h"
#include "tests/support/OutOfMemory.h"

namespace Norvex::DX {
namespace {

using testing::Optional;

std::vector<std::uint32_t> TakeAll(SlotBitmap& slots) {
    std::vector<std::uint32_t> taken;
    while (const auto slot = slots.Allocate()) {
        taken.push_back(*slot);
    }
    return taken;
}

std::vector<std::uint32_t> Ascending(std::uint32_t first, std::uint32_t end) {
    std::vector<std::uint32_t> slots(end - first);
    std::iota(slots.begin(), slots.end(), first);
    return slots;
}

class SlotCounts : public testing::TestWithParam<std::uint32_t> {};

TEST_P(SlotCounts, HandsOutEverySlotOnceInOrder) {
    SlotBitmap slots(GetParam());
    EXPECT_EQ(slots.HasFree(), GetParam() > 0);
    EXPECT_EQ(TakeAll(slots), Ascending(0, GetParam()));
    EXPECT_FALSE(slots.HasFree());
}

INSTANTIATE_TEST_SUITE_P(SlotBitmap, SlotCounts, testing::Values(0, 1, 63, 64, 65, 128, 130));

TEST(SlotBitmap, LowestFreeSlotWins) {
    SlotBitmap slots(130);
    TakeAll(slots);
    for (const std::uint32_t freed : {129u, 64u, 63u, 100u}) {
        slots.Free(freed);
    }
    EXPECT_TRUE(slots.HasFree());
    EXPECT_EQ(TakeAll(slots), (std::vector<std::uint32_t>{63, 64, 100, 129}));
}

TEST(SlotBitmap, GrowingKeepsWhatIsInUse) {
    SlotBitmap slots(10);
    TakeAll(slots);
    {
        const Norvex::Test::OutOfMemory outOfMemory;
        EXPECT_THROW(slots.Resize(70), std::bad_alloc);
    }
    EXPECT_FALSE(slots.HasFree()) << "as many as before";
    slots.Free(4);
    slots.Resize(70);
    EXPECT_THAT(slots.Allocate(), Optional(4u));
    EXPECT_EQ(TakeAll(slots), Ascending(10, 70));
}

TEST(SlotBitmap, ThreadsNeverShareASlot) {
    constexpr std::uint32_t kSlots = 512;
    constexpr int kRounds = 2000;
    SlotBitmap slots(kSlots);
    std::vector<std::vector<std::uint32_t>> kept(4);
    std::vector<std::thread> threads;
    threads.reserve(kept.size());
    for (auto& mine : kept) {
        threads.emplace_back([&slots, &mine] {
            for (int round = 0; round < kRounds; ++round) {
                if (const auto slot = slots.Allocate()) {
                    slots.Free(*slot);
                }
                if (round % (kRounds / 100) == 0) {
                    mine.push_back(slots.Allocate().value());
                }
            }
        });
    }
    std::vector<std::uint32_t> all;
    for (std::size_t i = 0; i < threads.size(); ++i) {
        threads[i].join();
        all.insert(all.end(), kept[i].begin(), kept[i].end());
    }
    std::ranges::sort(all);
    EXPECT_EQ(std::ranges::adjacent_find(all), all.end());
    EXPECT_EQ(TakeAll(slots).size(), kSlots - all.size());
}

} // namespace
} // namespace Norvex::DX
