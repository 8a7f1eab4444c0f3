#include "Proc/DirectX/Manager/SlotBitmap.h"

#include <numeric>
#include <set>
#include <vector>

#include <gmock/gmock.h>

#include "tests/support/Threads.h"

namespace Norvex::DX {
namespace {

// Takes every free slot, and expects those of the list first and then from `first` on to the end.
void ExpectFree(SlotBitmap& slots, std::vector<std::uint32_t> expected, std::uint32_t first,
                std::uint32_t end) {
    std::vector<std::uint32_t> taken;
    EXPECT_EQ(slots.HasFree(), !expected.empty() || first < end);
    while (const auto slot = slots.Allocate()) {
        taken.push_back(*slot);
    }
    expected.resize(expected.size() + end - first);
    std::iota(expected.end() - (end - first), expected.end(), first);
    EXPECT_EQ(taken, expected);
    EXPECT_FALSE(slots.HasFree());
}

TEST(SlotBitmap, LowestFreeSlotFirst) {
    for (const std::uint32_t count : {0u, 1u, 10u, 63u, 64u, 65u, 128u, 130u}) {
        SlotBitmap slots(count);
        ExpectFree(slots, {}, 0, count);
        for (const std::uint32_t freed : {64u, 63u, 40u, 66u}) {
            if (count > 66) {
                slots.Free(freed);
            }
        }
        ExpectFree(slots, count > 66 ? std::vector{40u, 63u, 64u, 66u} : std::vector<unsigned>(), 0,
                   0);
    }
}

TEST(SlotBitmap, ThreadsNeverShareASlot) {
    SlotBitmap slots(128);
    std::vector<std::set<std::uint32_t>> kept(4);
    Norvex::Test::RunThreads(4, [&](unsigned thread) {
        for (int round = 0; round < 2000; ++round) {
            slots.Free(slots.Allocate().value());
            if (round % 100 == 0) {
                kept[thread].insert(slots.Allocate().value());
            }
        }
    });
    for (std::uint32_t slot = 0; slot < 80; ++slot) {
        EXPECT_EQ(std::ranges::count_if(kept, [&](auto& mine) { return mine.contains(slot); }), 1);
    }
    ExpectFree(slots, {}, 80, 128);
}

} // namespace
} // namespace Norvex::DX
