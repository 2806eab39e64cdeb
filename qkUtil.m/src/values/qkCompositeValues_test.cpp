// Composite values: thread-bound sharing of value lists, list values as
// compound keys, the ordering between kinds of value, row sort and lookup
// against a linear scan, and both factories.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>
#include <vector>

#include "qkCompositeValues.h"
#include "qkOID.h"
#include "qkScalarValues.h"
#include "qkThread.h"

namespace {

std::string textOf(qkValue const& v) {
    qkString s;
    v.get(s);
    return s.sanitize();
}

qkListValue* listOf(std::initializer_list<int> ints, int column = 0) {
    auto* l = new qkListValue(column);
    int c = 0;
    for (int n : ints)
        l->getList().append(new qkIntValue(c++, n));
    return l;
}

TEST(qkValueListRef, SharedOnItsThreadClonedElsewhere) {
    auto* list = new qkValueListRef;
    list->append(new qkIntValue(0, 1));
    list->append(new qkStringValue(1));
    (*list)[1].set(qkString("x"));
    (*list)[1].constant(true), (*list)[1].setTableId(12);
    EXPECT_EQ(list->dup(), list);
    EXPECT_EQ(list->refCount, 2);
    qkValueListRef* clone = nullptr;
    std::thread([&] {
        clone = list->dup();
        EXPECT_EQ(clone->ownerThread, qkThread::id());
    }).join();
    ASSERT_NE(clone, list);
    EXPECT_EQ(clone->refCount, 1);
    EXPECT_NE(clone->ownerThread, list->ownerThread);
    ASSERT_EQ(clone->count(), 2);
    EXPECT_EQ(textOf((*clone)[1]), "x");
    EXPECT_EQ((*clone)[1].flags(), 0);  // copies carry no flags
    EXPECT_EQ((*clone)[1].getTableId(), -1);
    EXPECT_FALSE(clone->isSorted());
    qkValueListRef::release(list);
    EXPECT_EQ(list->refCount, 1);  // the first release leaves it intact
    EXPECT_EQ(list->count(), 2);
    qkValueListRef::release(list);
    qkValueListRef::release(clone);
    qkValueListRef::release(nullptr);
}

TEST(qkListValue, TextComparisonAndCompoundKeys) {
    std::unique_ptr<qkListValue> named(listOf({5})), pair(listOf({1, 2})), empty(listOf({}));
    named->ident(7);
    EXPECT_EQ(textOf(*named), "LIST7");
    EXPECT_EQ(textOf(*pair), "(1,2)");
    EXPECT_EQ(textOf(*empty), "()");
    std::unique_ptr<qkListValue> other(listOf({9, 9, 9}));
    other->ident(7);
    EXPECT_EQ(named->compare(*other, false), 0);  // the same named list
    std::unique_ptr<qkListValue> three(listOf({0, 0, 0})), lower(listOf({1, 1}));
    EXPECT_EQ(pair->compare(*three, false), -1);
    EXPECT_EQ(pair->compare(*lower, false), 1);
    qkListValue bare;  // no list yet: an empty one is made on the way
    EXPECT_EQ(bare.compare(*empty, false), 0);
    EXPECT_NE(bare.pointer(), nullptr);
    // Lists before scalars, scalars before queries, queries after anything else.
    qkIntValue n(0, 1);
    qkQueryValue q(0, 0);
    qkJoinValue j(0, 0, "f", "c");
    EXPECT_EQ(pair->compare(n, false), -1);
    EXPECT_EQ(n.compare(*pair, false), 1);
    EXPECT_EQ(n.compare(q, false), -1);
    EXPECT_EQ(q.compare(n, false), 1);
    EXPECT_EQ(q.compare(*pair, false), 1);
    EXPECT_EQ(q.compare(j, false), 1);
    EXPECT_EQ(j.compare(q, false), 1);
    // A compound key over columns 0 and 1 of a row.
    qkValueList row;
    row.append(new qkIntValue(0, 1));
    row.append(new qkIntValue(1, 3));
    EXPECT_EQ(pair->compare(row), 1);  // the row's (1, 3) against (1, 2)
    row[1].set(2);
    EXPECT_EQ(pair->compare(row), 0);
    row.freeAll();
}

TEST(qkQueryValue, FieldsJoinsAndText) {
    qkQueryValue q(3, 4);
    q.getColumns() << 8;
    q.column(5);
    EXPECT_EQ(q.getColumns().count(), 1);
    EXPECT_EQ(q.getColumns()[0], 5);
    EXPECT_EQ(q.getSelect(), 4);
    EXPECT_EQ(q.oper(), qkValue::Member);
    EXPECT_FALSE(q.hasALT());
    q.setALT(new qkOID(3, 1, 1));
    EXPECT_EQ(q.getALT().tableId(), 3);
    qkJoinValue plain(1, 2, qkValue::WhereColumn, true, false, true, 4);
    EXPECT_FALSE(plain.appendColumnAndTable({7, 8}));
    EXPECT_EQ(plain.getColumns().count(), 1);
    qkJoinValue mapped(qkJoinValue::ColumnTableID{6, 60}, 2, qkValue::ExistsColumn, true, true,
                       false, 1);
    EXPECT_TRUE(mapped.appendColumnAndTable({7, 70}));
    EXPECT_EQ(mapped.getColumns()[1], 7);
    EXPECT_EQ(mapped.getColumnTables()[1], 70);
    EXPECT_EQ(std::make_tuple(mapped.column(), mapped.getColumnTables()[0],
                              mapped.getSecondaryTableNumber()),
              std::make_tuple(6, 60, -1));
    // Selects decide before the descriptors.
    qkQueryValue a(0, 1), b(0, 2);
    EXPECT_EQ(a.compare(b, false), -1);
    b.getSelects().clear();
    b.getSelects() << 1 << 0;
    EXPECT_EQ(a.compare(b, false), -1);  // fewer selects
    qkQueryValue c(0, 1);
    c.getOID().partition(5);
    EXPECT_EQ(a.compare(c, false), a.getOID().compare(c.getOID(), 0));
}

// lookup against a linear scan on random rows sorted by one column, with
// runs of equal cells; sort orders by a second column within equal firsts.
TEST(qkValueRows, SortAndLookupAgainstALinearScan) {
    std::mt19937 rng(8);
    for (int round = 0; round < 200; ++round) {
        int n = static_cast<int>(rng() % 40);
        std::vector<qkValueList*> rows;
        for (int i = 0; i < n; ++i) {
            auto* row = new qkValueList;
            row->append(new qkStringValue(0));
            (*row)[0].set(qkString(std::to_string(rng() % 4).c_str()));
            row->append(new qkIntValue(1, static_cast<int>(rng() % 10)));
            row->append(new qkIntValue(2, static_cast<int>(rng() % 3)));
            rows.push_back(row);
        }
        qkValue::sort(rows.data(), n, 1, round % 2 ? 2 : -1);
        for (int i = 1; i < n; ++i) {
            int a = static_cast<qkIntValue&>((*rows[i - 1])[1]).value;
            int b = static_cast<qkIntValue&>((*rows[i])[1]).value;
            ASSERT_LE(a, b);
            if (round % 2 && a == b) {
                ASSERT_LE(static_cast<qkIntValue&>((*rows[i - 1])[2]).value,
                          static_cast<qkIntValue&>((*rows[i])[2]).value);
            }
        }
        for (int k = -1; k <= 10; ++k) {
            qkIntValue key(1, k);
            int at = qkValue::lookup(rows.data(), n, key);
            bool present = std::any_of(rows.begin(), rows.end(), [&](qkValueList* r) {
                return static_cast<qkIntValue&>((*r)[1]).value == k;
            });
            if (present) {
                ASSERT_GE(at, 0);
                ASSERT_EQ(static_cast<qkIntValue&>((*rows[at])[1]).value, k);
            } else {
                ASSERT_EQ(at, -1);
            }
        }
        for (qkValueList* r : rows) {
            r->freeAll();
            delete r;
        }
    }
    qkIntValue key(0, 1);
    EXPECT_EQ(qkValue::lookup(nullptr, 0, key), -1);
    qkValue::sort(nullptr, 5, 0, -1);  // nothing to do
    qkIntValue *x = new qkIntValue(0, 3), *y = new qkIntValue(0, 1);
    qkValue* pointers[] = {x, y};
    std::qsort(pointers, 2, sizeof(qkValue*), qkValue::qsortCompare);
    EXPECT_EQ(pointers[0], y);
    delete x, delete y;
}

TEST(qkValueFactory, CopiesAndValuesFromData) {
    std::vector<std::unique_ptr<qkValue>> sources;
    sources.emplace_back(new qkIntValue(2, 9));
    sources.emplace_back(listOf({1, 2}, 3));
    auto* q = new qkQueryValue(4, 5);
    q->getOID().setModifier(2);
    q->getOID().appendCopy(*sources[0], 0);
    q->getKinds() << 7;
    q->skipSimplify();
    sources.emplace_back(q);
    auto* j = new qkJoinValue(qkJoinValue::ColumnTableID{6, 60}, 1, qkValue::WhereColumn, true,
                              true, false, 3);
    j->function = "max", j->condition = "a=b";
    j->setSecondaryTableNumber(4), j->setForceFullProjection(true);
    sources.emplace_back(j);
    for (auto& src : sources) {
        src->setTableId(12), src->literal(true), src->oper(qkValue::NMember);
        for (bool withFlags : {false, true}) {
            std::unique_ptr<qkValue> copy(qkValue::newValue(*src, withFlags));
            ASSERT_TRUE(copy) << src->getDataType();
            EXPECT_EQ(copy->dataType(), src->dataType());
            EXPECT_EQ(copy->column(), src->column());
            EXPECT_EQ(copy->getTableId(), -1);
            EXPECT_EQ(copy->flags(), withFlags ? src->flags() : 0);
            EXPECT_EQ(copy->compare(*src, true), 0) << src->getDataType();
            EXPECT_EQ(textOf(*copy), textOf(*src));
        }
    }
    auto* jc = static_cast<qkJoinValue*>(qkValue::newValue(*j, false));
    EXPECT_EQ(std::make_tuple(std::string(jc->getFunction()), jc->getSecondaryTableNumber(),
                              jc->getForceFullProjection(), jc->getColumnsAndTablesMapped(),
                              jc->getOrderby()),
              std::make_tuple(std::string("max"), 4, true, true, 3));
    delete jc;
    // From data.
    int32_t n = 41;
    double d = 2.5;
    unsigned char b = 1;
    qkSQLnull_timestamp ts{};
    ts.timestamp.year = 2020;
    std::unique_ptr<qkValue> fromInt(qkValue::newValue(1, qkValue::Int, &n)),
        fromDouble(qkValue::newValue(1, qkValue::Double, &d)),
        fromBool(qkValue::newValue(1, qkValue::Boolean, &b)),
        fromDate(qkValue::newValue(1, qkValue::Date, &ts)),
        fromText(qkValue::newValue(1, qkValue::String, "hi")),
        fromHex(qkValue::newValue(1, qkValue::Raw, "0aff")),
        emptyHex(qkValue::newValue(1, qkValue::Raw, "")),
        fromQuery(qkValue::newValue(1, qkValue::Query, &q->getOID())),
        fromJoin(qkValue::newValue(1, qkValue::Join, &q->getOID()));
    EXPECT_EQ(textOf(*fromInt) + textOf(*fromDouble) + textOf(*fromBool) + textOf(*fromText) +
                  textOf(*fromHex),
              "412.500000TRUEhi0AFF");
    EXPECT_EQ(fromHex->flags(), 0);  // Updated cleared again
    EXPECT_TRUE(emptyHex->isNull());
    EXPECT_EQ(static_cast<qkDateValue&>(*fromDate).value.year(), 2020);
    EXPECT_EQ(static_cast<qkQueryValue&>(*fromQuery).getOID().modifier(), 2);
    EXPECT_EQ(static_cast<qkJoinValue&>(*fromJoin).getJoinType(), qkValue::ConstColumnLeft);
    auto& listSource = static_cast<qkListValue&>(*sources[1]).getList();
    int before = listSource.refCount;
    std::unique_ptr<qkValue> fromList(qkValue::newValue(1, qkValue::List, &listSource));
    EXPECT_EQ(listSource.refCount, before + 1);
    EXPECT_EQ(qkValue::newValue(1, qkValue::SString_DEPRECATED, &n), nullptr);
    EXPECT_EQ(qkValue::newValue(1, static_cast<qkValue::qkDataType>(77), nullptr), nullptr);
}

}  // namespace
