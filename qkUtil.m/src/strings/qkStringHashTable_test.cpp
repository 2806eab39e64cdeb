// qkStringHashTable against std::unordered_map under random inserts,
// lookups and removals; the hash function's sampling of long keys.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <unordered_map>

#include "qkStringHashTable.h"

namespace {

unsigned hashOf(std::string const& s) {
    qkString k(s.c_str());
    return qkStringHashTable::hashString(&k);
}

TEST(StringHashTable, HashValuesAndSampling) {
    EXPECT_EQ(hashOf(""), 0u);
    EXPECT_EQ(hashOf("A"), 65u);
    EXPECT_EQ(hashOf("AB"), 65u * 37 + 66);
    EXPECT_EQ(hashOf("\xff"), 0x7fffffffu);  // -1, bit 31 cleared
    EXPECT_EQ(qkStringHashTable::hashString(nullptr), 0u);

    // A 1000-byte key: every 15th byte from the first counts, no other.
    std::string key(1000, 'k');
    unsigned h = 0;
    for (size_t i = 0; i < key.size(); i += 15)
        h = h * 37 + unsigned('k');
    EXPECT_EQ(hashOf(key), h & 0x7fffffffu);
    std::string skipped = key, sampled = key;
    skipped[16] = 'z';
    sampled[15] = 'z';
    EXPECT_EQ(hashOf(skipped), hashOf(key));
    EXPECT_NE(hashOf(sampled), hashOf(key));

    qkString a("x"), b("x"), c("y");
    EXPECT_EQ(qkStringHashTable::cmpString(&a, &b), 1);
    EXPECT_EQ(qkStringHashTable::cmpString(&a, &c), 0);
    EXPECT_EQ(qkStringHashTable::cmpString(nullptr, nullptr), 1);
    EXPECT_EQ(qkStringHashTable::cmpString(&a, nullptr), 0);
}

TEST(StringHashTable, RandomOperationsMatchAnUnorderedMap) {
    std::mt19937 rng(31);
    for (int round = 0; round < 5; ++round) {
        qkStringHashTable table(int(1 + rng() % 16));
        std::unordered_map<std::string, std::string> model;
        for (int step = 0; step < 5000; ++step) {
            // Long keys that differ only between sampled bytes collide.
            std::string key = rng() % 8 ? "key" + std::to_string(rng() % 300)
                                        : std::string(500, 'L') + char('a' + rng() % 5);
            qkString k(key.c_str());
            switch (rng() % 3) {
                case 0: {
                    std::string value = std::to_string(step);
                    qkStringHashTable::Entry* e = table.Insert(k, qkString(value.c_str()));
                    ASSERT_EQ(e, table.Locate(k));
                    model[key] = value;
                    break;
                }
                case 1: {
                    qkStringHashTable::Entry* e = table.Locate(k);
                    auto it = model.find(key);
                    ASSERT_EQ(e != nullptr, it != model.end()) << key;
                    if (e) {
                        ASSERT_STREQ(e->value, it->second.c_str());
                        ASSERT_STREQ(e->key, key.c_str());
                    }
                    break;
                }
                default:
                    table.Remove(k);
                    model.erase(key);
                    ASSERT_EQ(table.Locate(k), nullptr);
                    break;
            }
        }
        ASSERT_EQ(table.Size(), int(model.size()));
        for (int i = 0; i < table.Size(); ++i) {
            auto* e = static_cast<qkStringHashTable::Entry*>(table.Get(i));
            ASSERT_EQ(model.at(std::string(e->key)), std::string(e->value));
        }
    }
}

TEST(StringHashTable, InsertingAPresentKeyReplacesItsValue) {
    qkStringHashTable table;
    auto* first = table.Insert(qkString("k"), qkString("1"));
    auto* second = table.Insert(qkString("k"), qkString("2"));
    EXPECT_EQ(first, second);
    EXPECT_STREQ(second->value, "2");
    EXPECT_EQ(table.Size(), 1);
    table.Remove(qkString("absent"));
    EXPECT_EQ(table.Size(), 1);
}

}  // namespace
