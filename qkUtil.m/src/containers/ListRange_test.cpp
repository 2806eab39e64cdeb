// The fatal range error: the exact line on standard output and an abnormal
// end, for the range-checked entries of the lists. Each case runs in a forked
// child whose standard output is sent to the captured error stream.
#include <gtest/gtest.h>
#include <unistd.h>

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

}  // namespace
