// LinkedList against a model: a set of rings held as vectors. Random links
// (behind heads or behind members of any ring), unlinks, re-inits and
// destructions; after every step each ring must match its model in both
// directions and every node must be where the model says.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <random>
#include <vector>

#include "LinkedList.h"

namespace {

struct Item {
    LinkedList node;
    int id;
};

std::unique_ptr<Item> makeItem(int id) {
    auto item = std::make_unique<Item>();
    item->id = id;
    return item;
}

class RingModel {
  public:
    RingModel(int heads, int items) : heads_(heads), rings_(heads) {
        for (int i = 0; i < items; ++i)
            items_.push_back(makeItem(i));
    }

    std::optional<std::pair<int, size_t>> find(int id) const {
        for (size_t r = 0; r < rings_.size(); ++r) {
            auto it = std::find(rings_[r].begin(), rings_[r].end(), id);
            if (it != rings_[r].end())
                return std::make_pair(int(r), size_t(it - rings_[r].begin()));
        }
        return std::nullopt;
    }

    void removeFromModel(int id) {
        if (auto at = find(id)) rings_[at->first].erase(rings_[at->first].begin() + at->second);
    }

    void linkBehindHead(int id, int ring) {
        Item* it = items_[id].get();
        removeFromModel(id);
        it->node.link(&heads_[ring], it);
        rings_[ring].insert(rings_[ring].begin(), id);
    }

    // Links `id` directly behind ring member `anchor` (another item).
    void linkBehindMember(int id, int anchor) {
        Item* it = items_[id].get();
        if (anchor == id || !find(anchor)) return;
        removeFromModel(id);
        auto at = find(anchor);
        it->node.link(&items_[anchor]->node, it);
        rings_[at->first].insert(rings_[at->first].begin() + at->second + 1, id);
    }

    void unlink(int id) {
        items_[id]->node.unlink();
        removeFromModel(id);
    }

    void destroyAndRecreate(int id) {
        removeFromModel(id);
        items_[id] = makeItem(id);  // the old node's destructor unlinks it
    }

    void verify() const {
        for (size_t r = 0; r < rings_.size(); ++r) {
            LinkedList const* head = &heads_[r];
            ASSERT_EQ(head->ref(), nullptr);
            ASSERT_EQ(head->linked() != 0, !rings_[r].empty());
            LinkedList const* n = head->next();
            for (int id : rings_[r]) {
                ASSERT_EQ(n, &items_[id]->node) << "ring " << r;
                ASSERT_EQ(n->ref(), items_[id].get());
                ASSERT_EQ(n->next()->prev(), n);
                ASSERT_EQ(n->prev()->next(), n);
                n = n->next();
            }
            ASSERT_EQ(n, head);
            // Walking backwards gives the reverse order.
            n = head->prev();
            for (auto it = rings_[r].rbegin(); it != rings_[r].rend(); ++it) {
                ASSERT_EQ(n, &items_[*it]->node);
                n = n->prev();
            }
            ASSERT_EQ(n, head);
        }
        for (auto const& item : items_) {
            if (!find(item->id)) {
                ASSERT_FALSE(item->node.linked());
                ASSERT_EQ(item->node.next(), &item->node);
                ASSERT_EQ(item->node.prev(), &item->node);
            }
        }
    }

    int items() const { return int(items_.size()); }
    int rings() const { return int(rings_.size()); }
    bool isLinked(int id) const { return find(id).has_value(); }
    void* refOf(int id) const { return items_[id]->node.ref(); }
    Item* item(int id) const { return items_[id].get(); }

  private:
    std::vector<LinkedList> heads_;
    std::vector<std::vector<int>> rings_;
    std::vector<std::unique_ptr<Item>> items_;
};

TEST(LinkedList, RandomOperationsKeepEveryRingConsistent) {
    for (unsigned seed = 1; seed <= 20; ++seed) {
        std::mt19937 rng(seed);
        RingModel model(4, 24);
        for (int step = 0; step < 3000; ++step) {
            int id = int(rng() % model.items());
            switch (rng() % 6) {
                case 0:
                case 1:
                    model.linkBehindHead(id, int(rng() % model.rings()));
                    break;
                case 2:
                case 3:
                    model.linkBehindMember(id, int(rng() % model.items()));
                    break;
                case 4: {
                    void* before = model.refOf(id);
                    model.unlink(id);
                    ASSERT_EQ(model.refOf(id), before) << "unlink must keep ref";
                    break;
                }
                case 5:
                    model.destroyAndRecreate(id);
                    break;
            }
            ASSERT_NO_FATAL_FAILURE(model.verify()) << "seed " << seed << " step " << step;
        }
    }
}

TEST(LinkedList, NewNodesGoDirectlyBehindTheAnchor) {
    LinkedList head;
    Item a, b;
    a.node.link(&head, &a);
    b.node.link(&head, &b);
    EXPECT_EQ(head.next(), &b.node);
    EXPECT_EQ(b.node.next(), &a.node);
    EXPECT_EQ(a.node.next(), &head);
    // Re-linking a linked node takes it out of its old place first.
    b.node.link(&a.node, &b);
    EXPECT_EQ(head.next(), &a.node);
    EXPECT_EQ(a.node.next(), &b.node);
    EXPECT_EQ(b.node.next(), &head);
    // init() forgets the ring without touching the neighbours; used only on
    // nodes that are not in a ring.
    LinkedList lone;
    lone.init();
    EXPECT_FALSE(lone.linked());
    EXPECT_EQ(lone.ref(), nullptr);
}

}  // namespace
