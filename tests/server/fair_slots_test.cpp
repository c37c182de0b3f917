// How the server shares its workers and body slots between users: a user holds its share at
// most while another one wants a slot, takes more only when alone, and a freed slot goes to
// the waiting user holding fewest.
#include "fair_share.hpp"

#include <gtest/gtest.h>

namespace {

using korvalin_client::server::FairSlots;

TEST(FairSlots, AShareHoldsWhileOthersWantSlotsAndFreedSlotsGoToWhoHoldsFewest) {
  for (const bool lend : {false, true}) {
    SCOPED_TRACE(lend ? "lending" : "not lending");
    FairSlots slots(4, 2, lend);
    EXPECT_TRUE(slots.try_acquire("ana"));
    EXPECT_TRUE(slots.try_acquire("ana"));
    // Alone, Ana goes past her share only where slots are lent.
    EXPECT_EQ(slots.try_acquire("ana"), lend);
    if (lend) slots.release("ana");
    // Bob takes one; now Ana is held to her share even where slots are lent.
    EXPECT_TRUE(slots.try_acquire("bob"));
    EXPECT_FALSE(slots.try_acquire("ana"));
    EXPECT_TRUE(slots.try_acquire("bob"));
    // All four are held: Ana waits first, then Bob, then Cid; a freed slot goes to Cid, who
    // holds none, then, of Ana and Bob holding one each, to Ana, who waited longer.
    std::vector<std::string> granted;
    const auto wait = [&](const std::string& key) {
      return slots.acquire(key, [&granted, key] { granted.push_back(key); });
    };
    const std::uint64_t ana = wait("ana"), bob = wait("bob"), cid = wait("cid");
    ASSERT_NE(ana, 0u);
    ASSERT_NE(bob, 0u);
    ASSERT_NE(cid, 0u);
    slots.release("bob");
    EXPECT_EQ(granted, std::vector<std::string>{"cid"});
    slots.release("ana");
    EXPECT_EQ(granted, (std::vector<std::string>{"cid", "ana"}));
    EXPECT_TRUE(slots.withdraw(cid));
    EXPECT_TRUE(slots.withdraw(ana));
    // Bob stops waiting: he leaves the queue, no slot is his.
    EXPECT_FALSE(slots.withdraw(bob));
    slots.release("cid");
    EXPECT_EQ(granted.size(), 2u);
  }
}

}  // namespace
