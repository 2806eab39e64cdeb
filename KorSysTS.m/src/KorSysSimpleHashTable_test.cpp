// KorSysSimpleHashTable against std::unordered_map under random inserts,
// lookups and removals, with a hash that collides often; every element
// reached through Size() and Get(i).
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <set>
#include <unordered_map>
#include <vector>

#include "KorSysSimpleHashTable.h"

namespace {

struct Item {
    int key;
    int value;
};

// Few distinct hashes, so chains grow long.
unsigned int weakHash(void* p) {
    return unsigned(static_cast<Item*>(p)->key) % 7;
}
unsigned int goodHash(void* p) {
    return unsigned(static_cast<Item*>(p)->key) * 2654435761u;
}
int sameKey(void* a, void* b) {
    return static_cast<Item*>(a)->key == static_cast<Item*>(b)->key;
}

void randomRun(KorSysSimpleHashTable::HashFunction hash, uint32_t seed) {
    std::mt19937 rng(seed);
    KorSysSimpleHashTable table(int(rng() % 8), hash, sameKey);
    std::unordered_map<int, std::unique_ptr<Item>> model;
    for (int step = 0; step < 20000; ++step) {
        int key = int(rng() % 500);
        Item probe{key, 0};
        switch (rng() % 4) {
            case 0:
            case 1: {
                auto item = std::make_unique<Item>(Item{key, step});
                int stored = table.Insert(item.get());
                ASSERT_EQ(stored != 0, model.count(key) == 0) << "key " << key;
                if (stored) model[key] = std::move(item);
                break;
            }
            case 2: {
                void* found = table.Locate(&probe);
                auto it = model.find(key);
                ASSERT_EQ(found, it == model.end() ? nullptr : it->second.get());
                break;
            }
            default: {
                auto it = model.find(key);
                table.Remove(it == model.end() ? nullptr : it->second.get());
                if (it != model.end()) model.erase(it);
                ASSERT_EQ(table.Locate(&probe), nullptr);
                break;
            }
        }
        if (step % 997 == 0) {
            ASSERT_EQ(table.Size(), int(model.size()));
            std::set<void*> reached;
            for (int i = 0; i < table.Size(); ++i)
                reached.insert(table.Get(i));
            std::set<void*> expected;
            for (auto const& [k, item] : model)
                expected.insert(item.get());
            ASSERT_EQ(reached, expected);
            ASSERT_EQ(table.Get(table.Size()), nullptr);
            ASSERT_EQ(table.Get(-1), nullptr);
        }
    }
}

TEST(KorSysSimpleHashTable, RandomOperationsMatchAnUnorderedMap) {
    randomRun(goodHash, 1);
    randomRun(weakHash, 2);
}

TEST(KorSysSimpleHashTable, RemovingAnElementNotStoredChangesNothing) {
    KorSysSimpleHashTable table(4, goodHash, sameKey);
    Item a{1, 1}, twin{1, 2};
    ASSERT_EQ(table.Insert(&a), 1);
    EXPECT_EQ(table.Insert(&twin), 0);
    table.Remove(&twin);  // equal, but not the element stored
    table.Remove(nullptr);
    EXPECT_EQ(table.Locate(&twin), &a);
    EXPECT_EQ(table.Size(), 1);
}

}  // namespace
