// The query descriptor: copy and assignment rules, copy on write of the
// shared where list against a model (with copies on other threads),
// comparison as a total order, the key and index rules against a
// declarative re-derivation, the query text, depth and bad input.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "KorSysSchema.h"
#include "qkCompositeValues.h"
#include "qkOID.h"
#include "qkScalarValues.h"

namespace {

// A table description for the tests: given keys, columns c0, c1, ...
// (named "C<n>" unless named otherwise), a name and a selectivity.
class TestTable : public qkTable {
  public:
    TestTable(char const* name, IntList pk, IntList ix, int columns)
        : name_(name), pk_(std::move(pk)), ix_(std::move(ix)) {
        for (int c = 0; c < columns; ++c)
            names_.push_back("C" + std::to_string(c));
    }
    IntList const& primaryColumns() override { return pk_; }
    IntList const& indexColumns() override { return ix_; }
    char const* name() override { return name_.c_str(); }
    int columnCount(int) override { return static_cast<int>(names_.size()); }
    qkColumnInfo const* columnInfo(int column, int) override {
        if (column < 0 || column >= static_cast<int>(names_.size())) return nullptr;
        info_ = {names_[static_cast<size_t>(column)].c_str(), qkValue::Int};
        return &info_;
    }
    std::string name_;
    IntList pk_, ix_;
    std::vector<std::string> names_;
    qkColumnInfo info_{};
};

IntList ints(std::initializer_list<int> l) {
    IntList out;
    for (int n : l)
        out << n;
    return out;
}

std::map<int, qkTable*>& tables() {
    static std::map<int, qkTable*> t;
    return t;
}

qkTable& lookupTable(int id) {
    auto it = tables().find(id);
    static TestTable unknown("UNKNOWN", IntList(), IntList(), 0);
    return it == tables().end() ? unknown : *it->second;
}

class Descriptor : public testing::Test {
  protected:
    void SetUp() override {
        static TestTable item("ITEM", ints({3, 5}), ints({1}), 10),
            variant("T_%s", ints({0}), IntList(), 4);
        item.names_[1] = "NAME", item.names_[2] = "REV";
        static TestTable sub("SUB", ints({0}), IntList(), 6), lazy("LAZY", ints({0}), IntList(), 3);
        lazy.selective = 0;
        tables() = {{1, &item}, {2, &variant}, {3, &sub}, {4, &lazy}, {46, &sub}};
        qkTableUtil::setId2table(lookupTable);
    }
    void TearDown() override { qkTableUtil::setId2table(nullptr); }
};

std::string key(qkOID& o, unsigned char expand = 0) {
    qkString s;
    o.makeKey(s, expand);
    return s.sanitize();
}

TEST_F(Descriptor, ConstructionCopyAndAssignment) {
    qkOID::setGetpartition([] { return 9; });
    qkOID plain, odd(7, 0, 5);
    qkOID::setGetpartition(nullptr);
    EXPECT_EQ(
        std::make_tuple(plain.tableId(), plain.modifier(), plain.distributed(), plain.partition()),
        std::make_tuple(0, 1, 1, 9));
    EXPECT_EQ(std::make_tuple(odd.modifier(), odd.distributed()), std::make_tuple(1, 1));
    EXPECT_EQ(qkOID().partition(), 0);
    EXPECT_EQ(plain.where().count(), 0);
    qkOID remove(1, 1, 0);
    remove.setRemoveOperation(1);
    remove.append(new qkIntValue(3, 4));
    qkOID copied(remove), assigned;
    assigned = remove;
    EXPECT_FALSE(copied.isRemove());
    EXPECT_TRUE(assigned.isRemove());
    EXPECT_EQ(&copied.where(), &remove.where());
    EXPECT_EQ(remove.where().refCount, 3);
    assigned = assigned;  // self-assignment changes nothing
    EXPECT_EQ(remove.where().refCount, 3);
    qkOID base(2, 26, 1);
    base.setBase(remove);  // table and flags only; its own list stays
    EXPECT_EQ(std::make_tuple(base.tableId(), base.isRemove(), base.where().count()),
              std::make_tuple(1, 1, 0));
    // After the append b differs from a; before, they were the same list.
    qkOID a(1, 1, 1), b;
    a.append(new qkIntValue(3, 1));
    b = a;
    EXPECT_TRUE(a == b);
    qkIntValue five(5, 2);
    b.appendCopy(five, 0);
    EXPECT_EQ(a.where().count(), 1);
    EXPECT_FALSE(a == b);
}

// Random copies, assignments, appends, resets and off-thread copies over
// six descriptors against a model of their where lists. After every step
// each list holds exactly its model, and each shared list's count equals
// the number of descriptors that hold it.
TEST_F(Descriptor, CopyOnWriteAgainstAModel) {
    std::mt19937 rng(10);
    std::vector<std::unique_ptr<qkOID>> slots;
    std::vector<std::vector<int>> model(6);
    for (int i = 0; i < 6; ++i)
        slots.push_back(std::make_unique<qkOID>(1, 1, 1));
    auto contents = [](qkOID& o) {
        std::vector<int> out;
        for (int i = 0; i < o.where().count(); ++i)
            out.push_back(static_cast<qkIntValue&>(o.where()[i]).value);
        return out;
    };
    for (int step = 0; step < 3000 && !HasFailure(); ++step) {
        size_t i = rng() % 6, j = rng() % 6;
        switch (rng() % 5) {
            case 0:
                slots[i] = std::make_unique<qkOID>(*slots[j]);
                model[i] = model[j];
                break;
            case 1:
                *slots[i] = *slots[j];
                model[i] = model[j];
                break;
            case 2: {
                int n = static_cast<int>(rng() % 100);
                qkIntValue v(static_cast<int>(rng() % 4), n);
                slots[i]->appendCopy(v, 1);
                model[i].push_back(n);
                break;
            }
            case 3:
                *slots[i] = qkOID(1, 1, 1);
                model[i].clear();
                break;
            case 4:  // a copy made on another thread is a clone of its own
                std::thread([&] {
                    qkOID there(*slots[j]);
                    EXPECT_NE(&there.where(), &slots[j]->where());
                    EXPECT_EQ(there.where().refCount, 1);
                    EXPECT_EQ(contents(there), model[j]);
                    there.append(new qkIntValue(0, -1));
                }).join();
                break;
        }
        std::map<qkValueListRef*, int> holders;
        for (size_t k = 0; k < 6; ++k) {
            ASSERT_EQ(contents(*slots[k]), model[k]) << "slot " << k << " step " << step;
            holders[&slots[k]->where()]++;
        }
        for (auto const& [list, n] : holders)
            ASSERT_EQ(list->refCount, n);
    }
}

// Few tables, columns and operands, so that ties reach every step.
qkOID* randomDescriptor(std::mt19937& rng, int depth = 0) {
    auto* o = new qkOID(1 + static_cast<int>(rng() % 2), 1, 1);
    if (rng() % 4 == 0) o->partition(1);
    for (int n = static_cast<int>(rng() % 3); n > 0; --n) {
        int column = static_cast<int>(rng() % 2), kind = static_cast<int>(rng() % 6);
        qkValue* v;
        if (kind == 4 && depth < 2) {
            auto* q = new qkQueryValue(column, static_cast<int>(rng() % 2));
            std::unique_ptr<qkOID> nested(randomDescriptor(rng, depth + 1));
            q->getOID() = *nested;
            v = q;
        } else if (kind == 5) {
            auto* l = new qkListValue(column);
            for (int k = static_cast<int>(rng() % 3); k > 0; --k)
                l->getList().append(new qkIntValue(k, static_cast<int>(rng() % 2)));
            v = l;
        } else {
            v = new qkIntValue(column, static_cast<int>(rng() % 2));
        }
        v->oper(rng() % 3 ? qkValue::Equal : qkValue::LessThan);
        o->append(v);
    }
    return o;
}

TEST_F(Descriptor, CompareIsATotalOrderAndRemoveSkipsOperands) {
    std::mt19937 rng(11);
    for (int i = 0; i < 3000; ++i) {
        std::unique_ptr<qkOID> a(randomDescriptor(rng)), b(randomDescriptor(rng)),
            c(randomDescriptor(rng));
        for (unsigned char withOp : {0, 1}) {
            int ab = a->compare(*b, withOp), bc = b->compare(*c, withOp),
                ac = a->compare(*c, withOp);
            ASSERT_EQ(b->compare(*a, withOp), -ab);
            if (ab <= 0 && bc <= 0) {
                ASSERT_LE(ac, 0);
            }
            ASSERT_EQ(a->compare(*a, withOp), 0);
        }
        ASSERT_EQ(*a == *b, a->compare(*b, 0) == 0);
        if (a->compareTable(*b) != 0) {
            ASSERT_EQ(a->compare(*b, 1), a->compareTable(*b));  // the table decides first
        }
    }
    qkOID x(1, 1, 1), y(1, 1, 1);
    x.append(new qkIntValue(3, 1));
    y.append(new qkIntValue(3, 2));
    EXPECT_EQ(x.compare(y, 0), -1);
    y.setRemoveOperation(1);
    EXPECT_EQ(x.compare(y, 0), 0);  // the argument is a remove: operands skipped
    EXPECT_EQ(y.compare(x, 0), 1);  // but not the other way round
}

// The rules re-derived declaratively: the full primary key (or index) in
// order at the front, every condition an Equal on a plain value.
TEST_F(Descriptor, KeyRulesAgainstARederivation) {
    std::mt19937 rng(12);
    for (int round = 0; round < 4000; ++round) {
        // A random table of the stand-in schema: keys of 0 to 3 columns.
        std::unique_ptr<KorSysSchema::SchemaTable> t = KorSysSchema::makeRandomTable(rng, {5, 3});
        tables()[9] = t.get();
        IntList const& pk = t->primaryColumns();
        IntList const& ix = t->indexColumns();
        qkOID o(9, 1, 1);
        std::vector<std::tuple<int, int, int>> w;  // column, operator, type
        for (int n = static_cast<int>(rng() % 6); n > 0; --n) {
            int column = static_cast<int>(rng() % 5);
            int op = rng() % 6 ? qkValue::Equal : qkValue::MoreThan;
            int type = rng() % 7 == 0   ? qkValue::List
                       : rng() % 9 == 0 ? qkValue::Join
                       : rng() % 5 == 0 ? qkValue::String
                                        : qkValue::Int;
            qkValue* v = type == qkValue::List   ? static_cast<qkValue*>(new qkListValue(column))
                         : type == qkValue::Join ? new qkJoinValue(column, 0, "", "")
                         : type == qkValue::String
                             ? static_cast<qkValue*>(new qkStringValue(column))
                             : new qkIntValue(column, 1);
            v->oper(static_cast<qkValue::qkOperator>(op));
            o.append(v);
            w.emplace_back(column, op, type);
        }
        auto fullKeyInFront = [&](IntList const& key) {
            if (key.count() == 0 || static_cast<int>(w.size()) < key.count()) return false;
            for (auto const& [column, op, type] : w)
                if (op != qkValue::Equal || type == qkValue::List || type == qkValue::Join)
                    return false;
            for (int i = 0; i < key.count(); ++i)
                if (std::get<0>(w[static_cast<size_t>(i)]) != key[i]) return false;
            return true;
        };
        unsigned char byPrimary = 9, byIndex = 9;
        IntList const& returned = o.byPrimaryOrIndex(byPrimary, byIndex);
        ASSERT_EQ(&returned, &pk);
        ASSERT_EQ(byPrimary, fullKeyInFront(pk));
        ASSERT_EQ(byIndex, fullKeyInFront(ix));
        int constrained = 0;  // (value, key column) pairs that an Equal integer fixes
        for (auto const& [column, op, type] : w)
            for (int k = 0; k < pk.count(); ++k)
                constrained += type == qkValue::Int && op == qkValue::Equal && column == pk[k];
        ASSERT_EQ(o.isPrimaryKeyInQuery(), constrained == pk.count());
        int n = static_cast<int>(std::count_if(
            w.begin(), w.end(), [](auto const& e) { return std::get<2>(e) != qkValue::Join; }));
        int c = t->columnCount(1);
        bool all = !t->selective || n == 0 || n >= c || (2 * n < c && n + 3 < c);
        ASSERT_EQ(o.allColumns(), all) << "n " << n << " c " << c;
    }
    tables().erase(9);
}

TEST_F(Descriptor, QueryTextForEveryOperatorAndKind) {
    qkOID item(1, 1, 1);
    auto* name = new qkStringValue(1);
    name->set(qkString("a"));
    auto* rev = new qkIntValue(2, 3);
    rev->oper(qkValue::LessThan);
    item.append(name);
    item.append(rev);
    EXPECT_EQ(key(item), "ITEM where NAME=a and REV<3");
    qkOID variant(2, 26, 1);
    qkString text;
    variant.tableName(text, nullptr);
    EXPECT_STREQ(text.sanitize(), "T_0000001a");
    variant.tableName(text, "[%s]");
    EXPECT_STREQ(text.sanitize(), "[T_0000001a]");
    item.tableName(text, "<%s>");
    EXPECT_STREQ(text.sanitize(), "<ITEM>");
    EXPECT_EQ(key(variant), "T_0000001a");  // no conditions: the name alone
    // Every operator's text between the column and the value.
    char const* ops[] = {"=",  "~",  "<",   "<=",  ">",   ">=", "!=",  "!~", "=",
                         "!=", "~~", "!~~", "<~>", "%2=", "&~", "!&~", "=",  "!="};
    for (int op = 0; op < 18; ++op) {
        qkOID o(1, 1, 1);
        auto* v = new qkIntValue(0, -2);
        v->oper(static_cast<qkValue::qkOperator>(op));
        o.append(v);
        EXPECT_EQ(key(o), std::string("ITEM where C0") + ops[op] + "-2");
    }
    // Sub-queries nest their own text; lists print members when expanded.
    qkOID outer(1, 1, 1);
    auto* sub = new qkQueryValue(4, 2);
    sub->getOID() = item;
    auto* inner = new qkQueryValue(0, 1);
    inner->getOID() = qkOID(3, 1, 1);
    sub->getOID().append(inner);
    outer.append(sub);
    auto* list = new qkListValue(6);
    list->getList().append(new qkIntValue(0, 1));
    list->getList().append(new qkIntValue(0, 2));
    list->ident(7);
    outer.append(list);
    auto* join = new qkJoinValue(7, 0, "f", "c");
    join->getOID() = qkOID(3, 1, 1);
    outer.append(join);
    EXPECT_EQ(key(outer),
              "ITEM where C4=in(c2 of ITEM where NAME=a and REV<3 and C0=in(c1 of SUB)) and "
              "C6=LIST7 and C7=in(c0 of SUB)");
    EXPECT_EQ(key(outer, 1).find("C6=(1,2)") != std::string::npos, true);
    EXPECT_EQ(list->getIdent(), 7);      // restored
    EXPECT_EQ(item.where().count(), 2);  // the sub-query's copy changed, not item
}

TEST_F(Descriptor, DepthBreadthAndBadInput) {
    qkOID top(1, 1, 1);
    auto nest = [](qkOID& into, int table) {
        auto* q = new qkQueryValue(0, 0);
        q->getOID() = qkOID(table, 1, 1);
        into.append(q);
        return &q->getOID();
    };
    qkOID* a = nest(top, 3);
    nest(*a, 3);
    nest(top, 46);
    qkOID* lazy = nest(top, 4);
    nest(*nest(*lazy, 3), 3);
    EXPECT_EQ(top.breadth(), 3);
    EXPECT_EQ(top.depth(0, 0), 3);
    EXPECT_EQ(top.depth(0, 1), 2);  // the non-selective branch is skipped
    qkOID only46(1, 1, 1);
    nest(only46, 46);
    EXPECT_EQ(only46.depth(0, 1), 0);
    // Deep nesting: a defined answer and a clean teardown.
    qkOID deep(3, 1, 1);
    qkOID* at = &deep;
    for (int i = 0; i < 300; ++i)
        at = nest(*at, 3);
    EXPECT_EQ(deep.depth(0, 0), 300);
    EXPECT_NE(key(deep).find("in(c0 of SUB where C0=in(c0 of SUB"), std::string::npos);
    // No hook at all, and a table the schema does not know.
    qkTableUtil::setId2table(nullptr);
    qkOID nowhere(99, 3, 1);
    nowhere.append(new qkIntValue(2, 1));
    unsigned char p = 1, x = 1;
    EXPECT_EQ(nowhere.byPrimaryOrIndex(p, x).count(), 0);
    EXPECT_EQ(p + x, 0);
    EXPECT_EQ(nowhere.isPrimaryKeyInQuery(), 1);  // a key of no columns is always given
    EXPECT_TRUE(nowhere.allColumns());
    EXPECT_EQ(key(nowhere), " where =1");
    qkTableUtil::setId2table(lookupTable);
    EXPECT_EQ(key(nowhere), "UNKNOWN where =1");
    qkOID empty(1, 1, 1);
    p = x = 1;
    empty.byPrimaryOrIndex(p, x);
    EXPECT_EQ(p + x, 0);
    EXPECT_EQ(empty.findWhereColumn(0), nullptr);
    EXPECT_EQ(empty.specifies(0), -1);
}

TEST_F(Descriptor, WhereLookupsAndDebuggerLines) {
    qkOID o(1, 1, 1);
    auto* j = new qkJoinValue(2, 0, "", "");
    j->oper(qkValue::Equal);
    o.append(j);
    auto* less = new qkIntValue(2, 1);
    less->oper(qkValue::LessThan);
    o.append(less);
    o.append(new qkIntValue(2, 5));
    EXPECT_EQ(o.findWhereColumn(2), j);
    EXPECT_EQ(o.specifies(2), 2);  // neither the join nor the LessThan
    char path[] = "/tmp/qkoid-offsetsXXXXXX";
    close(mkstemp(path));
    qkOID::printOffsets(path);
    std::ifstream in(path);
    std::vector<std::string> names;
    for (std::string line; std::getline(in, line);) {
        char name[64];
        unsigned value = 0;
        ASSERT_EQ(std::sscanf(line.c_str(), "set $qkOID_%63s = 0x%x", name, &value), 2);
        names.push_back(name);
        if (names.back() == "size") {
            EXPECT_EQ(value, sizeof(qkOID));
        }
        if (names.back() == "where") {
            EXPECT_EQ(value, 8u);  // after the virtual table pointer
        }
    }
    unlink(path);
    EXPECT_EQ(names,
              (std::vector<std::string>{"where", "tableId", "modifier", "partition",
                                        "dontUseCachedList", "distributed", "removeFlag", "size"}));
}

}  // namespace
