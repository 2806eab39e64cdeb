// The subset generators over an IntList.
//
// The k-element subsets are enumerated as index combinations c[0] < ... <
// c[k-1] of the set's positions, in co-lexicographic order, with an explicit
// stack instead of recursion. From a combination c and a position p the next
// combination d is c with d[p] raised by one. Position p stays open for further
// raises unless d[p] has reached its ceiling (n-1 for the last position, one
// below its right neighbour otherwise); an open (d, p) is pushed for later.
// Then the walk descends to p-1 with d, or, at p = 0, resumes from the most
// recently pushed pair. Every combination is reached exactly once.
#include <cstddef>
#include <numeric>
#include <vector>

#include "IntList.h"

namespace {

// Appends a new IntList with the set's elements at the positions in c.
void appendSubset(IntList const& set, std::vector<int> const& c, IntListList& out) {
    IntList* subset = new IntList;
    for (int position : c)
        subset->append(set.constItem(position));
    out.insertItem(out.count(), subset, true);
}

// The pending (combination, position) pairs, combinations laid end to end.
class PendingStack {
  public:
    explicit PendingStack(int k) : k_(k) {}
    bool empty() const { return positions_.empty(); }
    void push(std::vector<int> const& c, int p) {
        combinations_.insert(combinations_.end(), c.begin(), c.end());
        positions_.push_back(p);
    }
    int pop(std::vector<int>& c) {
        auto top = combinations_.end() - k_;
        c.assign(top, combinations_.end());
        combinations_.erase(top, combinations_.end());
        int p = positions_.back();
        positions_.pop_back();
        return p;
    }

  private:
    int k_;
    std::vector<int> combinations_;
    std::vector<int> positions_;
};

}  // namespace

void createAllIntSubsetsOfSpecifiedSize(IntList const& set, int k, IntListList& out) {
    int n = set.count();
    if (k < 1 || k >= n) return;
    std::vector<int> c(static_cast<size_t>(k));
    std::iota(c.begin(), c.end(), 0);
    appendSubset(set, c, out);

    PendingStack pending(k);
    std::vector<int> d;
    int p = k - 1;
    for (;;) {
        d = c;
        ++d[size_t(p)];
        appendSubset(set, d, out);
        int ceiling = p == k - 1 ? n - 1 : d[size_t(p) + 1] - 1;
        if (d[size_t(p)] != ceiling) pending.push(d, p);
        if (p >= 1) {
            c.swap(d);
            --p;
        } else if (!pending.empty()) {
            p = pending.pop(c);
        } else {
            break;
        }
    }
}

void createAllIntListProperSubsets(IntList const& set, IntListList& out) {
    for (int k = 1; k < set.count(); ++k)
        createAllIntSubsetsOfSpecifiedSize(set, k, out);
}
