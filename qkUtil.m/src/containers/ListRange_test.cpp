// The fatal range error: the exact line on standard output and an abnormal
// end, for the range-checked entries of the lists. Each case runs in a forked
// child whose standard output is sent to the captured error stream.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdio>
#include <string>

#include "ListTestSupport.h"

namespace {

#define EXPECT_RANGE_ERROR(statement, text)                                           \
    EXPECT_EXIT((std::fflush(stdout), dup2(STDERR_FILENO, STDOUT_FILENO), statement), \
                ::testing::KilledBySignal(SIGABRT), ::testing::Eq(std::string(text)))

TEST(ListRangeDeathTest, EveryCheckedEntryPrintsItsExactLine) {
    IntList l;
    l << 1 << 2 << 3;
    EXPECT_RANGE_ERROR(l[5], "internal error: list index 5 out of range \n");
    EXPECT_RANGE_ERROR(l.remove(-1), "internal error: list index -1 out of range \n");
    IntListList empty, four;
    for (int j = 0; j < 4; ++j)
        four.append(new IntList);
    IntListList_Iterator it(four), idle;
    char const* past = "internal error: IntListList index 7 out of range (range: 0 - 3)\n\n";
    char const* minus = "internal error: IntListList index -1 out of range (range: 0 - 3)\n\n";
    EXPECT_RANGE_ERROR(empty[0],
                       "internal error: IntListList index 0 out of range (list is empty)\n");
    EXPECT_RANGE_ERROR(four.remove(7), past);
    EXPECT_RANGE_ERROR(four.removeAndDelete(7), past);
    EXPECT_RANGE_ERROR(four.swap(0, 7), past);
    EXPECT_RANGE_ERROR(four.replaceItem(7, nullptr), past);
    EXPECT_RANGE_ERROR(four.clear(-1), minus);
    EXPECT_RANGE_ERROR(*it, minus);  // before the first next()
    EXPECT_RANGE_ERROR(idle.curRef(),
                       "internal error: IntListList index -1 out of range (list is empty)\n");
    ProbeList probes;  // the list name is the instance's own
    EXPECT_RANGE_ERROR(probes[0],
                       "internal error: ProbeList index 0 out of range (list is empty)\n");
}

// Positions beyond the largest capacity (2^31 - 4) are range errors for
// setItem, not a size that wraps around to a small array written far out of
// bounds; removeAfter below -1 walks into the range error of remove.
TEST(ListRangeDeathTest, PositionsNoCapacityHoldsAndRemovalBelowTheFront) {
    IntList l;
    l << 1 << 2 << 3;
    IntListList four;
    for (int j = 0; j < 4; ++j)
        four.append(new IntList);
    EXPECT_RANGE_ERROR(l.setItem(INT_MAX, 7),
                       "internal error: list index 2147483647 out of range \n");
    EXPECT_RANGE_ERROR(l.setItem(BaseList::kMaxCapacity, 7),
                       "internal error: list index 2147483644 out of range \n");
    EXPECT_RANGE_ERROR(
        four.setItem(INT_MAX, nullptr),
        "internal error: IntListList index 2147483647 out of range (range: 0 - 3)\n\n");
    EXPECT_RANGE_ERROR(l.removeAfter(-2), "internal error: list index -1 out of range \n");
    EXPECT_RANGE_ERROR(l.removeAfter(INT_MIN), "internal error: list index -1 out of range \n");
    l.removeAfter(-1);
    EXPECT_EQ(l.count(), 0);
}

// With `after` at or past the end there is nothing to search: x goes to the
// end and the position reported is after + 1, as for a range with nothing
// below x.
TEST(ListSorted, InsertSortedUniqueAfterTheEndReportsAfterPlusOne) {
    ProbeList list;
    list.setCompareFunction(
        [](Probe const& a, Probe const& b) { return (a.key > b.key) - (a.key < b.key); }, true);
    for (int k : {10, 20, 30})
        list.append(new Probe(k));
    list.sorted();
    bool found = true;
    EXPECT_EQ(list.insertSortedUniqueAfter(*new Probe(40), found, 5), 6);
    EXPECT_FALSE(found);
    EXPECT_EQ(list.insertSortedUniqueAfter(*new Probe(50), found, 4), 5);
    EXPECT_EQ(list.insertSortedUniqueAfter(*new Probe(5), found, 1), 2);  // nothing below 5 after 1
    ASSERT_EQ(list.count(), 6);
    int const keys[] = {10, 20, 5, 30, 40, 50};
    for (int j = 0; j < 6; ++j)
        EXPECT_EQ(list[j].key, keys[j]) << j;
    EXPECT_EQ(list.findSortedAfter(Probe(60), found, 9, false), 9);
}

}  // namespace
