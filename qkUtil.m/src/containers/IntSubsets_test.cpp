// The subset generators against an independent enumeration: the k-subsets of
// n positions in co-lexicographic order are exactly the n-bit masks with k bits
// set, taken in increasing numeric order; the proper subsets are those of
// every size from 1 to n - 1 in turn.
#include <gtest/gtest.h>

#include <bit>

#include "ListTestSupport.h"

namespace {

TEST(IntSubsetsTest, EverySizeUpToNineMatchesTheMaskOrder) {
    Rng rnd{std::mt19937(5)};
    IntList set;
    for (int n = 0; n <= 9; ++n, set.append(rnd(-5, 5))) {  // repeats allowed
        IntListList out, proper;
        out.append(new IntList);  // output is appended to, never replaced
        std::vector<std::vector<int>> want(1);
        for (int k = -1; k <= n + 1; ++k) {
            createAllIntSubsetsOfSpecifiedSize(set, k, out);
            for (unsigned mask = 0; k >= 1 && k < n && mask < (1u << n); ++mask) {
                if (std::popcount(mask) != k) continue;
                auto& subset = want.emplace_back();
                for (int j = 0; j < n; ++j)
                    if (mask & (1u << j)) subset.push_back(set[j]);
            }
        }
        createAllIntListProperSubsets(set, proper);
        ASSERT_TRUE(out.count() == int(want.size()) && proper.count() + 1 == out.count()) << n;
        for (int i = 1; i < out.count(); ++i) {
            IntList const& s = out[i];
            ASSERT_TRUE(s.getCompareFunction() == compareInts && s.isSorted() == (s.count() == 1));
            ASSERT_TRUE(s.count() == int(want[i].size()) && proper[i - 1].count() == s.count());
            for (int j = 0; j < s.count(); ++j)
                ASSERT_TRUE(s[j] == want[i][size_t(j)] && proper[i - 1][j] == s[j]) << n << i;
        }
    }
}

}  // namespace
