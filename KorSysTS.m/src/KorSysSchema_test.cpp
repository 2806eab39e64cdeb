// The stand-in schema is self-consistent, its hooks answer for every id, and
// the random tables keep the same rules.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include "KorSysSchema.h"

namespace {

using KorSysSchema::table;
using KorSysSchema::tableIds;

// Every column of a key exists, and none appears twice.
void expectKeyValid(qkTable& t, IntList const& key, char const* what) {
    std::set<int> seen;
    for (int i = 0; i < key.count(); ++i) {
        SCOPED_TRACE(std::string(what) + " position " + std::to_string(i));
        EXPECT_NE(t.columnInfo(key[i], 1), nullptr);
        EXPECT_TRUE(seen.insert(key[i]).second);
    }
}

void expectColumnsValid(qkTable& t) {
    int n = t.columnCount(1);
    ASSERT_GE(n, 0);
    std::set<std::string> names;
    for (int c = 0; c < n; ++c) {
        SCOPED_TRACE("column " + std::to_string(c));
        qkColumnInfo const* info = t.columnInfo(c, 1);
        ASSERT_NE(info, nullptr);
        ASSERT_NE(info->name, nullptr);
        EXPECT_STRNE(info->name, "");
        EXPECT_TRUE(names.insert(info->name).second);
        EXPECT_GE(info->dataType, 0);  // Boolean
        EXPECT_LE(info->dataType, 5);  // Raw
    }
    EXPECT_EQ(t.columnInfo(-1, 1), nullptr);
    EXPECT_EQ(t.columnInfo(n, 1), nullptr);
}

// A name with a '%' is a variant format: one %s and no other conversion.
void expectNameValid(qkTable& t) {
    char const* name = t.name();
    ASSERT_NE(name, nullptr);
    EXPECT_STRNE(name, "");
    std::string s = name;
    if (s.find('%') == std::string::npos) return;
    size_t at = s.find("%s");
    ASSERT_NE(at, std::string::npos) << s;
    EXPECT_EQ(s.find('%', at + 1), std::string::npos) << s;
    EXPECT_EQ(s.find('%'), at) << s;
}

void expectConsistent(qkTable& t) {
    SCOPED_TRACE(t.name() ? t.name() : "(null name)");
    expectNameValid(t);
    expectColumnsValid(t);
    expectKeyValid(t, t.primaryColumns(), "primary");
    expectKeyValid(t, t.indexColumns(), "index");
    EXPECT_TRUE(t.selective == 0 || t.selective == 1);
    EXPECT_GE(t.group, 0);
}

bool sameKey(IntList const& a, IntList const& b) {
    if (a.count() != b.count()) return false;
    for (int i = 0; i < a.count(); ++i)
        if (a[i] != b[i]) return false;
    return true;
}

bool isVariant(qkTable& t) {
    return std::strchr(t.name(), '%') != nullptr;
}

TEST(Schema, FixedTablesAreConsistent) {
    for (int id : tableIds()) {
        SCOPED_TRACE("table " + std::to_string(id));
        expectConsistent(table(id));
        EXPECT_GT(table(id).columnCount(1), 0);
    }
}

TEST(Schema, IdsAreAscendingDistinctAndIncludeTheTreatedOnes) {
    std::vector<int> ids = tableIds();
    ASSERT_GE(ids.size(), 6u);
    for (size_t i = 1; i < ids.size(); ++i)
        EXPECT_LT(ids[i - 1], ids[i]);
    EXPECT_NE(std::find(ids.begin(), ids.end(), 46), ids.end());
    std::set<qkTable*> objects;
    for (int id : ids)
        objects.insert(&table(id));
    EXPECT_EQ(objects.size(), ids.size());
}

TEST(Schema, CoversTheShapesTheTestsNeed) {
    int oneColumnKey = 0, threeColumnKey = 0, ownIndex = 0, versioned = 0;
    int nonSelective = 0, variant = 0;
    for (int id : tableIds()) {
        qkTable& t = table(id);
        oneColumnKey += t.primaryColumns().count() == 1;
        threeColumnKey += t.primaryColumns().count() == 3;
        ownIndex += t.indexColumns().count() > 0 && !sameKey(t.indexColumns(), t.primaryColumns());
        versioned += t.versionIndex >= 0;
        nonSelective += t.selective == 0;
        variant += isVariant(t);
    }
    EXPECT_GT(oneColumnKey, 0);
    EXPECT_GT(threeColumnKey, 0);
    EXPECT_GT(ownIndex, 0);
    EXPECT_GT(versioned, 0);
    EXPECT_GT(nonSelective, 0);
    EXPECT_GT(variant, 0);
}

TEST(Schema, VariantNameFormatsFillIn) {
    for (int id : tableIds()) {
        qkTable& t = table(id);
        if (!isVariant(t)) continue;
        char out[128];
        std::snprintf(out, sizeof out, t.name(), "X2");
        std::string expected = t.name();
        expected.replace(expected.find("%s"), 2, "X2");
        EXPECT_EQ(out, expected);
    }
}

TEST(Schema, UnknownIdsGiveTheUnknownTable) {
    qkTable& unknown = table(-1);
    for (int id : {0, 7, 45, 128, 1 << 30})
        EXPECT_EQ(&table(id), &unknown) << id;
    EXPECT_STREQ(unknown.name(), "UNKNOWN");
    EXPECT_EQ(unknown.columnCount(1), 0);
    EXPECT_EQ(unknown.primaryColumns().count(), 0);
    EXPECT_EQ(unknown.indexColumns().count(), 0);
    EXPECT_EQ(unknown.columnInfo(0, 1), nullptr);
    for (int id : tableIds())
        EXPECT_NE(&table(id), &unknown);
}

TEST(Schema, InstalledHooksAnswerForEveryId) {
    KorSysSchema::install();
    for (int id : tableIds()) {
        EXPECT_EQ(&qkTableUtil::id2Table(id), &table(id)) << id;
        for (int p = 0; p < 3; ++p)
            EXPECT_EQ(qkTableUtil::groupVersion(id, p), KorSysSchema::groupVersion(id, p));
    }
    EXPECT_EQ(&qkTableUtil::id2Table(9999), &table(9999));
    KorSysSchema::uninstall();
    EXPECT_NE(&qkTableUtil::id2Table(1), &table(1));
    EXPECT_STREQ(qkTableUtil::id2Table(1).name(), "");
}

TEST(Schema, GroupVersionsAreDeterministicPerTableAndPartition) {
    for (int id : tableIds()) {
        SCOPED_TRACE("table " + std::to_string(id));
        std::set<int> versions;
        for (int p = -3; p < 10; ++p) {
            int v = KorSysSchema::groupVersion(id, p);
            EXPECT_EQ(v, KorSysSchema::groupVersion(id, p));
            if (table(id).versionIndex < 0) {
                EXPECT_EQ(v, 0);
            } else {
                EXPECT_GE(v, 1);
                EXPECT_LE(v, 50);
            }
            versions.insert(v);
        }
        if (table(id).versionIndex >= 0) {
            EXPECT_GT(versions.size(), 1u);
        }
    }
    EXPECT_EQ(KorSysSchema::groupVersion(9999, 0), 0);
}

TEST(Schema, RandomTablesAreConsistentAndVaried) {
    KorSysSchema::RandomLimits limits{.maxColumns = 6, .maxKeyColumns = 3};
    std::mt19937 rng(20240611);
    std::set<int> selectives, keyLengths;
    std::set<bool> variants;
    for (int i = 0; i < 200; ++i) {
        auto t = KorSysSchema::makeRandomTable(rng, limits);
        expectConsistent(*t);
        EXPECT_LE(t->columnCount(1), limits.maxColumns);
        EXPECT_LE(t->primaryColumns().count(), limits.maxKeyColumns);
        EXPECT_LE(t->indexColumns().count(), limits.maxKeyColumns);
        selectives.insert(t->selective);
        keyLengths.insert(t->primaryColumns().count());
        variants.insert(isVariant(*t));
    }
    EXPECT_EQ(selectives.size(), 2u);
    EXPECT_EQ(keyLengths.size(), 4u);  // 0 .. 3
    EXPECT_EQ(variants.size(), 2u);
}

TEST(Schema, RandomTablesRepeatForTheSameSeed) {
    std::mt19937 a(7), b(7);
    for (int i = 0; i < 20; ++i) {
        auto x = KorSysSchema::makeRandomTable(a);
        auto y = KorSysSchema::makeRandomTable(b);
        EXPECT_STREQ(x->name(), y->name());
        EXPECT_TRUE(sameKey(x->primaryColumns(), y->primaryColumns()));
        EXPECT_TRUE(sameKey(x->indexColumns(), y->indexColumns()));
        EXPECT_EQ(x->columnCount(1), y->columnCount(1));
    }
}

}  // namespace
