// The subset generators against an independent enumeration: the k-subsets of
// n positions in co-lexicographic order are exactly the n-bit masks with k bits
// set, taken in increasing numeric order.
#include <gtest/gtest.h>

#include <bit>
#include <random>
#include <vector>

#include "IntList.h"

namespace {

using Subsets = std::vector<std::vector<int>>;

Subsets byMasks(std::vector<int> const& set, int k) {
    Subsets all;
    int n = int(set.size());
    if (k < 1 || k >= n) return all;
    for (unsigned mask = 0; mask < (1u << n); ++mask) {
        if (std::popcount(mask) != k) continue;
        std::vector<int> subset;
        for (int j = 0; j < n; ++j)
            if (mask & (1u << j)) subset.push_back(set[size_t(j)]);
        all.push_back(subset);
    }
    return all;
}

// The subsets appended to out from position `from` on, checking how each was made.
Subsets appended(IntListList& out, int from) {
    Subsets all;
    for (int i = from; i < out.count(); ++i) {
        IntList const& s = out[i];
        EXPECT_EQ(s.getCompareFunction(), compareInts);
        EXPECT_EQ(s.isSorted(), s.count() == 1);
        std::vector<int> v;
        for (int j = 0; j < s.count(); ++j)
            v.push_back(s[j]);
        all.push_back(v);
    }
    return all;
}

std::vector<int> randomSet(std::mt19937& rng, int n) {
    std::vector<int> set;
    for (int j = 0; j < n; ++j)
        set.push_back(std::uniform_int_distribution<int>(-5, 5)(rng));  // repeats allowed
    return set;
}

IntList toIntList(std::vector<int> const& v) {
    IntList l;
    for (int x : v)
        l.append(x);
    return l;
}

TEST(IntSubsetsTest, EverySizeUpToEightMatchesTheMaskOrder) {
    std::mt19937 rng(5);
    for (int n = 0; n <= 8; ++n) {
        std::vector<int> set = randomSet(rng, n);
        IntList list = toIntList(set);
        for (int k = -1; k <= n + 1; ++k) {
            SCOPED_TRACE("n " + std::to_string(n) + " k " + std::to_string(k));
            IntListList out;
            out.append(new IntList);  // output is appended to, never replaced
            createAllIntSubsetsOfSpecifiedSize(list, k, out);
            ASSERT_EQ(appended(out, 1), byMasks(set, k));
            ASSERT_EQ(out.isSorted(), out.count() < 2);
        }
        // The input is left as it was.
        ASSERT_EQ(list.count(), n);
        for (int j = 0; j < n; ++j)
            ASSERT_EQ(list[j], set[size_t(j)]);
    }
}

TEST(IntSubsetsTest, ProperSubsetsAreEverySizeInTurn) {
    std::mt19937 rng(9);
    for (int n = 0; n <= 8; ++n) {
        std::vector<int> set = randomSet(rng, n);
        Subsets expected;
        for (int k = 1; k < n; ++k)
            for (auto& s : byMasks(set, k))
                expected.push_back(s);
        IntListList out;
        createAllIntListProperSubsets(toIntList(set), out);
        ASSERT_EQ(appended(out, 0), expected) << n;
    }
}

// Positions as the documentation lists them for 5 elements and k = 3.
TEST(IntSubsetsTest, CoLexicographicOrderOfPositions) {
    IntListList out;
    createAllIntSubsetsOfSpecifiedSize(toIntList({0, 1, 2, 3, 4}), 3, out);
    Subsets expected = {{0, 1, 2}, {0, 1, 3}, {0, 2, 3}, {1, 2, 3}, {0, 1, 4},
                        {0, 2, 4}, {1, 2, 4}, {0, 3, 4}, {1, 3, 4}, {2, 3, 4}};
    EXPECT_EQ(appended(out, 0), expected);
}

}  // namespace
