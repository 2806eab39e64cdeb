// The value model's base: names, flags, the not-implemented path through
// the three channels (handler, callback, standard output), operator==, and
// the debugger lines parsed back against the compiler's offsets.
#include <gtest/gtest.h>

#include <unistd.h>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "qkCompositeValues.h"
#include "qkScalarValues.h"
#include "qkValueList.h"

#pragma GCC diagnostic ignored "-Winvalid-offsetof"  // polymorphic classes, no virtual bases

namespace {

// A bare base value (every slot the base's) with a chosen data type.
struct PlainValue : qkValue {
    explicit PlainValue(qkDataType t, int column = 0) : qkValue(column) { dataType_ = t; }
};

// Restores the hooks whatever a test installed.
struct HookGuard {
    ~HookGuard() {
        qkValue::setNotimplemented(nullptr);
        qkValue::setQkSignalCallBack(nullptr);
    }
};

TEST(qkValueBase, NamesFlagsAndFields) {
    PlainValue v(qkValue::Int, 4);
    EXPECT_EQ(std::make_tuple(v.column(), v.flags(), v.oper(), v.getTableId()),
              std::make_tuple(4, uint8_t{0}, qkValue::Equal, -1));
    std::map<int, std::string> types = {{0, "boolean"}, {3, "date"}, {6, "SString_DEPRECATED"},
                                        {9, "join"},    {10, "??"},  {255, "??"}};
    for (auto const& [t, name] : types)
        EXPECT_STREQ(PlainValue(static_cast<qkValue::qkDataType>(t)).getDataType(), name.c_str());
    std::map<int, std::string> ops = {{8, "="},    {16, "="},   {9, "!="}, {17, "!="},
                                      {13, "%2="}, {12, "<~>"}, {18, "?"}, {200, "?"}};
    for (auto const& [op, text] : ops) {
        v.oper(static_cast<qkValue::qkOperator>(op));
        EXPECT_STREQ(v.opStr(), text.c_str()) << op;
    }
    // Testers give the bit itself; setters touch only their own.
    v.constant(true), v.literal(true), v.nullvalue(true);
    EXPECT_EQ(v.isConstant(), 2);
    EXPECT_EQ(v.isLiteral(), 16);
    EXPECT_TRUE(v.isNull());
    v.setFlag(qkValue::Constant | qkValue::NullValue, false);
    EXPECT_EQ(v.flags(), qkValue::Literal);
    v.setTableId(7);
    v.init(9);
    EXPECT_EQ(std::make_tuple(v.column(), v.flags(), v.oper(), v.getTableId(), v.dataType()),
              std::make_tuple(9, uint8_t{0}, qkValue::Equal, -1, qkValue::Int));
}

TEST(qkValueBase, NotImplementedGoesToTheHandlerTheCallbackOrStandardOutput) {
    HookGuard guard;
    qkIntValue v(3);
    v.setTableId(12);
    testing::internal::CaptureStdout();
    EXPECT_EQ(v.set(3.5), 0);
    EXPECT_EQ(qkIntValue().set(static_cast<unsigned char>(1)), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "not implemented: table 12 column 3 datatype int (not double)\n"
              "not implemented: table -1 column 0 datatype int (not boolean)\n");
    EXPECT_EQ(v.flags(), 0);  // a failed set marks nothing

    static std::string seen;
    qkValue::setQkSignalCallBack(
        [](qkErrorLevel level, qkError const& e, char const* context, va_list ap) {
            char text[256];
            std::vsnprintf(text, sizeof text, e.format, ap);
            seen = std::to_string(level) + " " + std::to_string(e.number) + " " +
                   (context ? "context" : "null") + " " + text;
            return 42;
        });
    PlainValue base(qkValue::Raw, 5);
    EXPECT_EQ(base.pointer(), nullptr);
    EXPECT_EQ(seen, "13 700003 null not implemented: table -1 column 5 datatype raw (not pointer)");
    qkTimebase t;
    EXPECT_EQ(base.get(t), 42);  // the callback's result comes back
    EXPECT_EQ(qkIntValue().set(qkString("99999999999")), 42);
    EXPECT_EQ(seen, "3 700002 null Value out of range 99999999999");

    qkValue::setNotimplemented([] { return 7; });  // the handler comes first
    seen.clear();
    EXPECT_EQ(base.set(t), 7);
    EXPECT_EQ(base.prepare(10), nullptr);
    EXPECT_EQ(seen, "");
}

// Flags and table ids never take part; column, type and operator do.
TEST(qkValueBase, EqualityAndTheSharedComparisonSteps) {
    qkIntValue a(1, 5), b(1, 5);
    b.constant(true), b.setTableId(99);
    EXPECT_TRUE(a == b);
    b.oper(qkValue::LessThan);
    EXPECT_FALSE(a == b);
    EXPECT_EQ(a.compare(b, false), 0);
    EXPECT_EQ(a.compareWithOperator(b), -1);  // Equal (0) below LessThan (2)
    EXPECT_EQ(b.compareWithOperator(a), 1);
    EXPECT_FALSE(a == qkIntValue(2, 5));
    // Every scalar class sorts below a list value and above a query value,
    // whatever the operators.
    PlainValue list(qkValue::List), query(qkValue::Query);
    list.oper(qkValue::NColEqual);
    qkBooleanValue boolean;
    qkStringValue text;
    qkRawValue raw;
    qkDateValue date;
    qkDoubleValue number;
    for (qkValue* v : std::initializer_list<qkValue*>{&a, &boolean, &text, &raw, &date, &number}) {
        for (bool withOp : {false, true}) {
            EXPECT_EQ(v->compare(list, withOp), 1) << v->getDataType();
            EXPECT_EQ(v->compare(query, withOp), -1) << v->getDataType();
        }
    }
    // A row's value at this value's column, the row's value first.
    qkValueList row;
    row.append(new qkIntValue(0, 1));
    row.append(new qkIntValue(1, 9));
    EXPECT_EQ(qkIntValue(1, 4).compare(row), 1);
    EXPECT_EQ(qkIntValue(1, 9).compare(row), 0);
    row.freeAll();
}

TEST(qkValueBase, StreamOutputIsTheText) {
    std::ostringstream os;
    qkIntValue n(0, -17);
    qkRawValue r;
    r.set(qkString("0aFf"));
    os << n << "|" << r;
    EXPECT_EQ(os.str(), "-17|0AFF");
}

// Every line parsed back: the base fields and each class's fields at the
// compiler's offsets, each enumerator with its value, in the written order.
TEST(qkValueBase, DebuggerLinesMatchTheLayout) {
    char path[] = "/tmp/qkvalue-offsetsXXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    qkValue::printOffsets(path);
    std::ifstream in(path);
    std::vector<std::pair<std::string, unsigned>> lines;
    for (std::string line; std::getline(in, line);) {
        char name[128];
        unsigned value = 0;
        ASSERT_EQ(std::sscanf(line.c_str(), "set $%127s = 0x%x", name, &value), 2) << line;
        lines.emplace_back(name, value);
    }
    unlink(path);
    std::map<std::string, unsigned> byName(lines.begin(), lines.end());
    EXPECT_EQ(byName["qkValue_size"], sizeof(qkValue));
    EXPECT_EQ(byName["qkValue_column"], 8u);  // after the virtual table pointer
    EXPECT_EQ(byName["qkIntValue_value"], offsetof(qkIntValue, value));
    EXPECT_EQ(byName["qkDoubleValue_string"], offsetof(qkDoubleValue, string));
    EXPECT_EQ(byName["qkDateValue_tie"], offsetof(qkDateValue, tie));
    EXPECT_EQ(byName["qkRawValue_size"], sizeof(qkRawValue));
    EXPECT_EQ(byName["qkOperator_NColEqual"], 0x11u);
    EXPECT_EQ(byName["qkJoinColumn_ConstColumn"], 2u);
    EXPECT_EQ(byName["qkFlags_RemovedEscapes"], 32u);
    ASSERT_EQ(lines.size(), 5u + 10 + 18 + 6 + 7 + 2 + 2 + 4 + 3 + 2 + 2 + 8 + 9 + 4);
    EXPECT_EQ(byName["qkQueryValue_skipSimplify"], offsetof(qkQueryValue, skipSimplify_));
    EXPECT_EQ(byName["qkJoinValue_forceFullProjection"],
              offsetof(qkJoinValue, forceFullProjection));
    EXPECT_EQ(byName["qkListValue_size"], sizeof(qkListValue));
    EXPECT_EQ(lines[0].first, "qkValue_column");
    EXPECT_EQ(lines[4].first, "qkValue_size");
    EXPECT_EQ(lines[5].first, "qkDataType_Boolean");
    EXPECT_EQ(lines[15].first, "qkOperator_Equal");
    EXPECT_EQ(lines[33].first, "qkFlags_Updated");
    EXPECT_EQ(lines[39].first, "qkJoinColumn_DefaultColumn");
    EXPECT_EQ(lines[46].first, "qkIntValue_value");
    EXPECT_EQ(lines[48].first, "qkBooleanValue_value");
    EXPECT_EQ(lines[lines.size() - 22].first, "qkRawValue_size");
    EXPECT_EQ(lines[lines.size() - 21].first, "qkQueryValue_value");
    EXPECT_EQ(lines[lines.size() - 13].first, "qkJoinValue_type");
    EXPECT_EQ(lines.back().first, "qkListValue_size");
    // An unwritable path: one line on standard output, nothing written.
    testing::internal::CaptureStdout();
    qkValue::printOffsets("/nonexistent-dir/offsets");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "error opening /nonexistent-dir/offsets for append\n");
}

}  // namespace
