// The fatal range error: the exact line on standard output and an abnormal
// end, for every range-checked entry of the lists. Each case runs in a
// forked child whose standard output is sent to the captured error stream.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <string>

#include "IntList.h"
#include "ListTestSupport.h"

namespace {

void withStdoutCaptured(std::function<void()> const& f) {
    std::fflush(stdout);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    f();
}

#define EXPECT_RANGE_ERROR(statement, text)                                                 \
    EXPECT_EXIT(withStdoutCaptured([&] { statement; }), ::testing::KilledBySignal(SIGABRT), \
                ::testing::Eq(std::string(text)))

IntListList* listOf(int n) {
    auto* l = new IntListList;
    for (int j = 0; j < n; ++j)
        l->append(new IntList);
    return l;
}

TEST(ListRangeDeathTest, ExactLines) {
    IntList three;
    three << 1 << 2 << 3;
    EXPECT_RANGE_ERROR(three[5], "internal error: list index 5 out of range \n");

    IntListList empty;
    EXPECT_RANGE_ERROR(empty[0],
                       "internal error: IntListList index 0 out of range (list is empty)\n");

    IntListList* four = listOf(4);
    EXPECT_RANGE_ERROR((*four)[7],
                       "internal error: IntListList index 7 out of range (range: 0 - 3)\n\n");
    delete four;
}

TEST(ListRangeDeathTest, EveryCheckedEntryOfIntList) {
    IntList l;
    l << 1 << 2;
    IntList const& c = l;
    EXPECT_RANGE_ERROR(l[-1], "internal error: list index -1 out of range \n");
    EXPECT_RANGE_ERROR(c[2], "internal error: list index 2 out of range \n");
    EXPECT_RANGE_ERROR(l.constItem(2), "internal error: list index 2 out of range \n");
    EXPECT_RANGE_ERROR(l.item(3), "internal error: list index 3 out of range \n");
    EXPECT_RANGE_ERROR(l.remove(2), "internal error: list index 2 out of range \n");
    EXPECT_RANGE_ERROR(l.setItem(-1, 4), "internal error: list index -1 out of range \n");
}

TEST(ListRangeDeathTest, EveryCheckedEntryOfThePointerLists) {
    IntListList* two = listOf(2);
    char const* past = "internal error: IntListList index 2 out of range (range: 0 - 1)\n\n";
    EXPECT_RANGE_ERROR(two->item(2), past);
    EXPECT_RANGE_ERROR(two->remove(2), past);
    EXPECT_RANGE_ERROR(two->removeAndDelete(2), past);
    EXPECT_RANGE_ERROR(two->swap(0, 2), past);
    EXPECT_RANGE_ERROR(two->replaceItem(2, nullptr), past);
    EXPECT_RANGE_ERROR(two->clear(-1),
                       "internal error: IntListList index -1 out of range (range: 0 - 1)\n\n");
    EXPECT_RANGE_ERROR(two->setItem(-3, nullptr),
                       "internal error: IntListList index -3 out of range (range: 0 - 1)\n\n");
    IntListList_Iterator it(*two);
    EXPECT_RANGE_ERROR(*it, "internal error: IntListList index -1 out of range (range: 0 - 1)\n\n");
    EXPECT_RANGE_ERROR(it.removeCur(),
                       "internal error: IntListList index -1 out of range (range: 0 - 1)\n\n");
    IntListList_Iterator idle;
    EXPECT_RANGE_ERROR(idle.curRef(),
                       "internal error: IntListList index -1 out of range (list is empty)\n");
    delete two;

    // The list name is the instance's own.
    ProbeList probes;
    EXPECT_RANGE_ERROR(probes[0],
                       "internal error: ProbeList index 0 out of range (list is empty)\n");
}

}  // namespace
