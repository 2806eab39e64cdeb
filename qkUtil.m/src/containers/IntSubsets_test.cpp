// The subset generators against an independent enumeration: the k-subsets of
// n positions in co-lexicographic order are exactly the n-bit masks with k bits
// set, taken in increasing numeric order.
#include <gtest/gtest.h>

#include <bit>
#include <string>
#include <vector>

#include "IntList.h"
#include "ListTestSupport.h"

namespace {

using Subsets = std::vector<std::vector<int>>;

void addByMasks(std::vector<int> const& set, int k, Subsets& all) {
    int n = int(set.size());
    for (unsigned mask = 0; k >= 1 && k < n && mask < (1u << n); ++mask) {
        if (std::popcount(mask) != k) continue;
        std::vector<int> subset;
        for (int j = 0; j < n; ++j)
            if (mask & (1u << j)) subset.push_back(set[size_t(j)]);
        all.push_back(subset);
    }
}

// The subsets in out after its first element, checking how each was made.
Subsets appended(IntListList& out) {
    Subsets all;
    for (int i = 1; i < out.count(); ++i) {
        IntList const& s = out[i];
        EXPECT_EQ(s.getCompareFunction(), compareInts);
        EXPECT_EQ(s.isSorted(), s.count() == 1);
        std::vector<int>& v = all.emplace_back();
        for (int j = 0; j < s.count(); ++j)
            v.push_back(s[j]);
    }
    return all;
}

TEST(IntSubsetsTest, EverySizeUpToNineMatchesTheMaskOrder) {
    Rng rnd{std::mt19937(5)};
    for (int n = 0; n <= 9; ++n) {
        std::vector<int> set;
        IntList list;
        for (int j = 0; j < n; ++j)
            list.append(set.emplace_back(rnd(-5, 5)));  // repeats allowed
        Subsets proper;
        for (int k = -1; k <= n + 1; ++k) {
            SCOPED_TRACE("n " + std::to_string(n) + " k " + std::to_string(k));
            IntListList out;
            out.append(new IntList);  // output is appended to, never replaced
            createAllIntSubsetsOfSpecifiedSize(list, k, out);
            size_t from = proper.size();
            addByMasks(set, k, proper);
            ASSERT_EQ(appended(out), Subsets(proper.begin() + from, proper.end()));
            ASSERT_EQ(out.isSorted(), out.count() < 2);
        }
        IntListList out;
        out.append(new IntList);
        createAllIntListProperSubsets(list, out);
        ASSERT_EQ(appended(out), proper) << n;
    }
}

}  // namespace
