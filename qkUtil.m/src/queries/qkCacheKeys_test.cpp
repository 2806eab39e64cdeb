// The cache keys on the stand-in schema: known byte texts for every key
// kind; random tables, descriptors and rows against a key writer built on
// snprintf and std::string; the prefix property of row-set iterator keys;
// trim down to the root; and bad input (unknown tables, unkeyed types, rows
// too short).
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "KorSysSchema.h"
#include "qkCompositeValues.h"
#include "qkOID.h"
#include "qkPrimaryKey.h"
#include "qkScalarValues.h"
#include "qkSuperSetKey.h"

namespace {

std::string str(char const* s) {
    return s;
}

// ---- values ---------------------------------------------------------------------

qkValue* intValue(int column, int v, qkValue::qkOperator op = qkValue::Equal) {
    auto* x = new qkIntValue(column);
    x->set(v);
    x->oper(op);
    return x;
}

qkValue* stringValue(int column, char const* s) {
    auto* x = new qkStringValue(column);
    x->set(qkString(s));
    return x;
}

qkValue* dateValue(int column, qkTimebase const& t) {
    auto* x = new qkDateValue(column);
    x->set(t);
    return x;
}

std::string randomText(std::mt19937& rng, size_t maxLength) {
    std::string s(1 + rng() % maxLength, ' ');
    for (char& c : s)
        c = char(0x21 + rng() % 0x5e);
    return s;
}

// A value of the given type with random content.
qkValue* randomValue(std::mt19937& rng, int type, int column) {
    switch (type) {
        case qkValue::Boolean: {
            auto* b = new qkBooleanValue(column);
            b->set(static_cast<unsigned char>(rng() % 2));
            return b;
        }
        case qkValue::Int:
            return intValue(column, static_cast<int>(rng() >> (rng() % 32)));
        case qkValue::Double: {
            auto* d = new qkDoubleValue(column);
            d->set(static_cast<double>(static_cast<int>(rng() % 20001) - 10000) / 8);
            return d;
        }
        case qkValue::Date: {
            if (rng() % 5 == 0) return new qkDateValue(column);  // null
            return dateValue(column,
                             qkTimebase(uint16_t(1990 + rng() % 60), uint16_t(1 + rng() % 12),
                                        uint16_t(1 + rng() % 28), uint16_t(rng() % 24),
                                        uint16_t(rng() % 60), float(rng() % 60)));
        }
        case qkValue::String:
            return stringValue(column, randomText(rng, 20).c_str());
        case qkValue::Raw: {
            auto* r = new qkRawValue(column);
            r->set(qkString("0a1B2c"));
            return r;
        }
        case qkValue::List: {
            auto* l = new qkListValue(column);
            for (int i = rng() % 3; i >= 0; --i)
                l->getList().append(intValue(column, int(rng() % 99)));
            return l;
        }
        default: {
            auto* q = new qkQueryValue(column, int(rng() % 4));
            q->getOID() = qkOID(1, 1, 0);
            q->getOID().append(intValue(0, int(rng() % 50)));
            return q;
        }
    }
}

// ---- the key writer of the tests ---------------------------------------------------

std::string hex(int v) {
    char b[16];
    std::snprintf(b, sizeof b, "%x", static_cast<unsigned>(v));
    return b;
}

// The text a key gives a value.
std::string valueText(qkValue& v) {
    char b[64];
    switch (v.dataType()) {
        case qkValue::Int: {
            int i = 0;
            v.get(i);
            std::snprintf(b, sizeof b, "%08x", static_cast<unsigned>(i));
            return b;
        }
        case qkValue::Date: {
            qkTimebase t;
            v.get(t);
            if (t.is_null()) return "@";
            qkSQLtimestamp const& s = t;
            std::snprintf(b, sizeof b, "%04d.%02d.%02d.%02d.%02d.%02d", s.year, s.month, s.day,
                          s.hour, s.minute, s.second);
            return b;
        }
        default: {
            qkString s;
            v.get(s);
            return static_cast<char const*>(s);
        }
    }
}

// The host's group version for every table of these tests.
int testGroupVersion(int tableId, int partition) {
    return (tableId * 7919 + partition * 104729) % 1000000;
}

std::string groupField(qkTable& t, qkOID& o) {
    std::string g(1, char('@' + t.group));
    if (t.versionIndex >= 0 && o.distributed()) {
        int v = testGroupVersion(o.tableId(), o.partition());
        for (int i = 0; i < 3; ++i, v /= 100)
            g += char(' ' + v % 100);
    }
    return g.substr(0, g.find('\0'));
}

std::string header(qkTable& t, qkOID& o, char letter) {
    std::string h = groupField(t, o);
    if (letter) h += letter;
    if (letter) h += "\x01" + hex(o.tableId());
    return h + "\x01" + hex(o.modifier()) + "\x01" + hex(o.partition());
}

// ---- the schema: the fixed tables, plus random ones registered by id -----------

std::map<int, std::unique_ptr<KorSysSchema::SchemaTable>>& randomTables() {
    static std::map<int, std::unique_ptr<KorSysSchema::SchemaTable>> tables;
    return tables;
}

qkTable& lookup(int id) {
    auto it = randomTables().find(id);
    return it == randomTables().end() ? KorSysSchema::table(id) : *it->second;
}

class CacheKeys : public testing::Test {
  protected:
    void SetUp() override { KorSysSchema::install(); }
    void TearDown() override { KorSysSchema::uninstall(); }
};

// ---- known texts ----------------------------------------------------------------

TEST_F(CacheKeys, PrimaryAndIndexKeysOfKnownDescriptors) {
    // STOCK (4): primary key (0, 1), group 3 ('C'), versioned at column 0.
    qkOID stock(4, 1, 0);
    stock.partition(0);
    stock.append(intValue(0, 5));
    stock.append(stringValue(1, "x"));
    PrimaryKey pk;
    int count = -1;
    ASSERT_EQ(pk.set(stock, count, nullptr), 1);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(str(pk),
              "C\x01"
              "1\x01"
              "0\x01"
              "00000005");
    EXPECT_EQ(str(pk.getOffset()), "4\x01x");

    // Distributed: the group version 1 + (7 * 4 + 3 * 2) mod 50 = 35 of
    // partition 2 joins the group as ' ' + 35, ' ', ' '.
    stock.distributed(1);
    stock.partition(2);
    stock.setModifier(0x1f);
    ASSERT_EQ(pk.set(stock, count, nullptr), 1);
    EXPECT_EQ(str(pk),
              "CC  \x01"
              "1f\x01"
              "2\x01"
              "00000005");

    // Too few where values: 0, the header written, count untouched.
    qkOID one(4, 1, 0);
    one.partition(0);
    one.append(intValue(0, 5));
    count = 77;
    EXPECT_EQ(pk.set(one, count, nullptr), 0);
    EXPECT_EQ(count, 77);
    EXPECT_EQ(str(pk),
              "C\x01"
              "1\x01"
              "0");
    EXPECT_EQ(str(pk.getOffset()), "4");

    // ITEM (3): index (2, 1), group 2 ('B'), not versioned.
    qkOID item(3, 1, 1);
    item.partition(0);
    item.append(intValue(2, 7));
    item.append(stringValue(1, "bolt"));
    IndexKey ix;
    ASSERT_EQ(ix.set(item, count, nullptr), 1);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(str(ix),
              "BI\x01"
              "3\x01"
              "1\x01"
              "0\x01"
              "00000007\x01"
              "bolt");

    // The same keys from ITEM's row (id, code, category, price, picture).
    qkValueList row;
    row.append(intValue(0, 7));
    row.append(stringValue(1, "bolt"));
    row.append(intValue(2, 7));
    std::mt19937 rng(1);
    row.append(randomValue(rng, qkValue::Double, 3));
    row.append(randomValue(rng, qkValue::Raw, 4));
    IndexKey fromRow;
    fromRow.set(item, &row);
    EXPECT_EQ(str(fromRow), str(ix));
    PrimaryKey pkRow;
    pkRow.set(item, &row);
    EXPECT_EQ(str(pkRow),
              "B\x01"
              "1\x01"
              "0\x01"
              "00000007");
    EXPECT_EQ(str(pkRow.getOffset()), "3");

    // A table without index columns: empty from a row, the header from a
    // descriptor.
    qkOID customer(1, 1, 0);
    customer.partition(0);
    fromRow.set(customer, &row);
    EXPECT_FALSE(fromRow.hasKey());
    ASSERT_EQ(ix.set(customer, count, nullptr), 1);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(str(ix),
              "AI\x01"
              "1\x01"
              "1\x01"
              "0");
}

TEST_F(CacheKeys, SupersetKeysOfEveryValueTypeAndTrimToTheRoot) {
    qkOID o(4, 1, 0);
    o.partition(0);
    SuperSetKey root;
    root.set(o);
    EXPECT_EQ(str(root),
              "CO\x01"
              "4\x01"
              "1\x01"
              "0");

    o.append(intValue(12, 5));
    o.append(intValue(1, -1, qkValue::LessOrEqual));
    auto* b = new qkBooleanValue(2);
    b->set(static_cast<unsigned char>(1));
    o.append(b);
    auto* d = new qkDoubleValue(3);
    d->set(2.5);
    o.append(d);
    o.append(dateValue(4, qkTimebase(2024, 3, 5, 7, 8, 9.0f)));
    o.append(new qkDateValue(5));
    o.append(stringValue(6, "abc"));
    auto* raw = new qkRawValue(7);
    raw->set(qkString("0a0b"));
    o.append(raw);
    auto* list = new qkListValue(8);
    list->getList().append(intValue(8, 1));
    list->getList().append(intValue(8, 2));
    o.append(list);
    auto* sub = new qkQueryValue(9, 0);
    sub->getOID() = qkOID(1, 1, 0);
    o.append(sub);

    SuperSetKey k;
    k.set(o);
    std::string const conditions[] = {
        "\x01"
        "c12=00000005",
        "\x01"
        "c1<=ffffffff",
        "\x01"
        "c2=TRUE",
        "\x01"
        "c3=2.500000",
        "\x01"
        "c4=2024.03.05.07.08.09",
        "\x01"
        "c5=@",
        "\x01"
        "c6=abc",
        "\x01"
        "c7=0A0B",
        "\x01"
        "c8=(1,2)",
        "\x01"
        "c9=in(c0 of CUSTOMER)"};
    std::string expected = str(root);
    for (auto const& c : conditions)
        expected += c;
    ASSERT_EQ(str(k), expected);

    // Each trim cuts one condition, then the partition, the modifier and the
    // table id; the group and the letter O stay.
    for (int n = 9; n >= 0; --n) {
        ASSERT_TRUE(k.trim());
        expected = str(root);
        for (int i = 0; i < n; ++i)
            expected += conditions[i];
        ASSERT_EQ(str(k), expected);
    }
    for (char const* left : {"CO\x01"
                             "4\x01"
                             "1",
                             "CO\x01"
                             "4",
                             "CO"}) {
        ASSERT_TRUE(k.trim());
        EXPECT_EQ(str(k), left);
    }
    EXPECT_FALSE(k.trim());
    EXPECT_EQ(str(k), "CO");

    // After a trim the key takes appends at its new length.
    int pos = 2;
    k.addString(pos, FlashKey::kFieldTag, std::string(40, 'z').c_str());
    EXPECT_EQ(str(k), "CO\x01" + std::string(40, 'z'));
}

TEST_F(CacheKeys, RowSetEntryAndIteratorKeys) {
    qkOID o(4, 1, 0);
    o.partition(0);
    qkValueList row;
    for (int c = 0; c < 3; ++c)
        row.append(intValue(c, 100 + c));
    RowSetKey entry, iter;
    entry.setEntry(o, 7, 2, -1, &row, 5);
    EXPECT_EQ(str(entry),
              "CE\x01"
              "7\x01"
              "2\x01"
              "ffffffff\x01"
              "00000066\x01"
              "5");
    iter.setIterator(o, 7, 2, -1, &row[2]);
    EXPECT_EQ(str(iter),
              "CE\x01"
              "7\x01"
              "2\x01"
              "ffffffff\x01"
              "00000066\x01");
    iter.setIterator(o, 7, 2, -1, nullptr);
    EXPECT_EQ(str(iter),
              "CE\x01"
              "7\x01"
              "2\x01"
              "ffffffff\x01");

    // Distributed on a versioned table: the four-byte group opens them all.
    o.distributed(1);
    entry.setEntry(o, 7, -1, -1, nullptr, 0);
    EXPECT_EQ(str(entry),
              "C=  E\x01"
              "7\x01"
              "ffffffff\x01"
              "ffffffff\x01"
              "0");
}

// ---- random tables against the test's key writer ----------------------------------

struct RandomCase {
    int tableId;
    KorSysSchema::SchemaTable* table;
    std::unique_ptr<qkOID> oid;
    qkValueList row;  // one value per column, of the column's type
};

void makeCase(std::mt19937& rng, int tableId, RandomCase& c) {
    auto& slot = randomTables()[tableId];
    slot = KorSysSchema::makeRandomTable(rng, {6, 3});
    c.tableId = tableId;
    c.table = slot.get();
    int modifier = rng() % 4 == 0 ? int(rng()) : int(1 + rng() % 40);
    c.oid = std::make_unique<qkOID>(tableId, modifier, rng() % 2);
    c.oid->partition(rng() % 5 == 0 ? -int(rng() % 3) : int(rng() % 7));
    auto const& columns = c.table->layout().columns;
    for (size_t col = 0; col < columns.size(); ++col) {
        c.row.append(randomValue(rng, columns[col].dataType, int(col)));
    }
    int where = rng() % 6;
    for (int i = 0; i < where; ++i) {
        int type = int(rng() % 9);
        if (type == qkValue::SString_DEPRECATED) type = qkValue::Query;
        qkValue* v = randomValue(rng, type, int(rng() % 20));
        v->oper(static_cast<qkValue::qkOperator>(rng() % 18));
        c.oid->append(v);
    }
}

TEST_F(CacheKeys, RandomDescriptorsAndRowsMatchTheTestKeyWriter) {
    qkTableUtil::setId2table(lookup);
    qkTableUtil::setGroupversion(testGroupVersion);
    std::mt19937 rng(42);
    for (int round = 0; round < 400; ++round) {
        RandomCase c;
        makeCase(rng, 1000 + round, c);
        qkOID& o = *c.oid;
        qkTable& t = *c.table;
        qkValueList& where = o.where();
        IntList const& pkCols = t.primaryColumns();
        IntList const& ixCols = t.indexColumns();
        SCOPED_TRACE("round " + std::to_string(round));

        // From the descriptor.
        std::string main = header(t, o, 0), offset = hex(o.tableId());
        bool enough = where.count() >= pkCols.count();
        for (int i = 0; enough && i < pkCols.count(); ++i) {
            (i == 0 ? main : offset) += "\x01" + valueText(where[i]);
        }
        PrimaryKey pk;
        int count = -1;
        ASSERT_EQ(pk.set(o, count, nullptr), enough ? 1 : 0);
        ASSERT_EQ(count, enough ? pkCols.count() : -1);
        ASSERT_EQ(str(pk), main);
        ASSERT_EQ(str(pk.getOffset()), offset);

        std::string index = header(t, o, 'I');
        enough = where.count() >= ixCols.count();
        for (int i = 0; enough && i < ixCols.count(); ++i)
            index += "\x01" + valueText(where[i]);
        IndexKey ix;
        ASSERT_EQ(ix.set(o, count, nullptr), enough ? 1 : 0);
        ASSERT_EQ(str(ix), index);

        std::string superset = header(t, o, 'O');
        for (int i = 0; i < where.count(); ++i) {
            superset +=
                "\x01"
                "c" +
                std::to_string(where[i].column()) + where[i].opStr() + valueText(where[i]);
        }
        SuperSetKey sk;
        sk.set(o);
        ASSERT_EQ(str(sk), superset);

        // From the row; then a descriptor whose where list holds the row's
        // key values in key order gives the very same keys.
        PrimaryKey pkRow;
        pkRow.set(o, &c.row);
        qkOID byKey(o.tableId(), o.modifier(), o.distributed());
        byKey.partition(o.partition());
        for (int i = 0; i < pkCols.count(); ++i)
            byKey.appendCopy(c.row[pkCols[i]], 0);
        ASSERT_EQ(pk.set(byKey, count, nullptr), 1);
        ASSERT_EQ(str(pkRow), str(pk));
        ASSERT_EQ(str(pkRow.getOffset()), str(pk.getOffset()));

        IndexKey ixRow;
        ixRow.set(o, &c.row);
        if (ixCols.count() == 0) {
            ASSERT_FALSE(ixRow.hasKey());
        } else {
            qkOID byIndex(o.tableId(), o.modifier(), o.distributed());
            byIndex.partition(o.partition());
            for (int i = 0; i < ixCols.count(); ++i)
                byIndex.appendCopy(c.row[ixCols[i]], 0);
            ASSERT_EQ(ix.set(byIndex, count, nullptr), 1);
            ASSERT_EQ(str(ixRow), str(ix));
        }
    }
    randomTables().clear();
}

// An iterator key over a row's values at the two columns is a prefix of the
// row's entry keys, whatever the entry number, and of no other row's.
TEST_F(CacheKeys, IteratorKeysArePrefixesOfTheEntriesTheyCover) {
    qkTableUtil::setId2table(lookup);
    qkTableUtil::setGroupversion(testGroupVersion);
    std::mt19937 rng(9);
    for (int round = 0; round < 400; ++round) {
        RandomCase c, other;
        makeCase(rng, 2000 + round, c);
        qkOID& o = *c.oid;
        int n = c.row.count();
        int column = rng() % 3 == 0 ? -1 : int(rng() % n);
        int thenColumn = rng() % 3 == 0 ? -1 : int(rng() % n);
        int ident = int(rng() % 100), entryNumber = int(rng());

        RowSetKey entry, iter;
        entry.setEntry(o, ident, column, thenColumn, &c.row, entryNumber);
        qkListValue members(0);
        if (column >= 0) members.getList().append(qkValue::newValue(c.row[column], 0));
        if (thenColumn >= 0) members.getList().append(qkValue::newValue(c.row[thenColumn], 0));
        iter.setIterator(o, ident, column, thenColumn, &members);
        std::string e = str(entry), it = str(iter);
        ASSERT_EQ(e.compare(0, it.size(), it), 0) << "round " << round;
        ASSERT_EQ(e.substr(it.size()), hex(entryNumber));
        if (thenColumn < 0 && column >= 0) {
            // A single value gives the same iterator as a one-member list.
            iter.setIterator(o, ident, column, thenColumn, &c.row[column]);
            ASSERT_EQ(str(iter), it);
        }

        // Another row whose values differ at the columns is not covered.
        if (column >= 0) {
            qkValueList changed;
            for (int i = 0; i < n; ++i)
                changed.append(qkValue::newValue(c.row[i], 0));
            std::string before = valueText(changed[column]);
            changed.removeAndDelete(column);
            changed.insert(column, stringValue(column, (before + "~").c_str()));
            entry.setEntry(o, ident, column, thenColumn, &changed, entryNumber);
            ASSERT_NE(str(entry).compare(0, it.size(), it), 0) << "round " << round;
        }
    }
    randomTables().clear();
}

// ---- bad input ------------------------------------------------------------------

TEST_F(CacheKeys, UnknownTablesGiveHeaderOnlyKeysWithOrWithoutTheHook) {
    for (bool hook : {true, false}) {
        if (!hook) KorSysSchema::uninstall();
        qkOID o(999, 1, 1);
        o.partition(0);
        o.append(intValue(0, 1));
        PrimaryKey pk;
        int count = -1;
        ASSERT_EQ(pk.set(o, count, nullptr), 1);
        EXPECT_EQ(count, 0);
        EXPECT_EQ(str(pk),
                  "@\x01"
                  "1\x01"
                  "0");
        EXPECT_EQ(str(pk.getOffset()), "3e7");
        IndexKey ix;
        ix.set(o, static_cast<qkValueList*>(nullptr));
        EXPECT_FALSE(ix.hasKey());
        SuperSetKey sk;
        sk.set(o);
        EXPECT_EQ(str(sk),
                  "@O\x01"
                  "3e7\x01"
                  "1\x01"
                  "0\x01"
                  "c0=00000001");
    }
}

// A value of a type the keys have no rule of their own for: its text comes
// from get(qkString&), which it does not implement.
class UnkeyedValue : public qkValue {
  public:
    UnkeyedValue() { dataType_ = SString_DEPRECATED; }
};

std::vector<std::string> signalled;
int collectSignal(qkErrorLevel, qkError const& e, char const* context, va_list args) {
    char text[256];
    std::vsnprintf(text, sizeof text, e.format ? e.format : "", args);
    signalled.push_back(text);
    (void)context;
    return 0;
}

TEST_F(CacheKeys, UnkeyedTypesSignalAndWriteTheTagAlone) {
    qkValue::setQkSignalCallBack(collectSignal);
    signalled.clear();
    UnkeyedValue v;
    FlashKey k;
    int pos = 0;
    k.addValue(pos, FlashKey::kFieldTag, v);
    qkValue::setQkSignalCallBack(nullptr);
    EXPECT_EQ(str(k), "\x01");
    EXPECT_EQ(pos, 1);
    ASSERT_EQ(signalled.size(), 1u);
    EXPECT_NE(signalled[0].find("not implemented"), std::string::npos) << signalled[0];
}

#define EXPECT_RANGE_ERROR(statement, text)                                           \
    EXPECT_EXIT((std::fflush(stdout), dup2(STDERR_FILENO, STDOUT_FILENO), statement), \
                ::testing::KilledBySignal(SIGABRT), text)

TEST_F(CacheKeys, RowsTooShortEndInTheListRangeError) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    qkOID o(4, 1, 0);
    qkValueList row;
    row.append(intValue(0, 1));
    PrimaryKey pk;
    RowSetKey rk;
    EXPECT_RANGE_ERROR(pk.set(o, &row), "internal error: qkValueList index 1 out of range");
    EXPECT_RANGE_ERROR(pk.set(o, static_cast<qkValueList*>(nullptr)),
                       "internal error: qkValueList index 0 out of range");
    EXPECT_RANGE_ERROR(rk.setEntry(o, 1, 0, 3, &row, 0),
                       "internal error: qkValueList index 3 out of range");
}

}  // namespace
