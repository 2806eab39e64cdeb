// The debugger-script lines of the value model: the base fields, every
// enumerator, then each value class's fields.
#include <cstddef>
#include <cstdio>
#include <initializer_list>
#include <utility>

#include "qkCompositeValues.h"
#include "qkScalarValues.h"

// The value classes are polymorphic, which makes offsetof conditionally
// supported; the compiler supports it for classes without virtual bases,
// and the debugger needs exactly these offsets.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

// Reaches the protected base fields for offsetof.
struct qkValueOffsets {
    static void base(FILE* f) {
        struct Probe : qkValue {
            static size_t column() { return offsetof(Probe, column_); }
            static size_t flags() { return offsetof(Probe, flags_); }
            static size_t dataType() { return offsetof(Probe, dataType_); }
            static size_t oper() { return offsetof(Probe, operator_); }
        };
        line(f, "qkValue", "column", Probe::column());
        line(f, "qkValue", "flags", Probe::flags());
        line(f, "qkValue", "dataType", Probe::dataType());
        line(f, "qkValue", "operator", Probe::oper());
        line(f, "qkValue", "size", sizeof(qkValue));
    }
    static void line(FILE* f, char const* prefix, char const* name, size_t value) {
        std::fprintf(f, "set $%s_%s = 0x%x\n", prefix, name, static_cast<unsigned>(value));
    }
};

namespace {

struct Enumerator {
    char const* name;
    int value;
};

constexpr Enumerator kDataTypes[] = {{"Boolean", qkValue::Boolean},
                                     {"Int", qkValue::Int},
                                     {"Double", qkValue::Double},
                                     {"Date", qkValue::Date},
                                     {"String", qkValue::String},
                                     {"Raw", qkValue::Raw},
                                     {"SString_DEPRECATED", qkValue::SString_DEPRECATED},
                                     {"Query", qkValue::Query},
                                     {"List", qkValue::List},
                                     {"Join", qkValue::Join}};
constexpr Enumerator kOperators[] = {
    {"Equal", qkValue::Equal},       {"Match", qkValue::Match},
    {"LessThan", qkValue::LessThan}, {"LessOrEqual", qkValue::LessOrEqual},
    {"MoreThan", qkValue::MoreThan}, {"MoreOrEqual", qkValue::MoreOrEqual},
    {"NEqual", qkValue::NEqual},     {"NMatch", qkValue::NMatch},
    {"Member", qkValue::Member},     {"NMember", qkValue::NMember},
    {"SMatch", qkValue::SMatch},     {"NSMatch", qkValue::NSMatch},
    {"RMatch", qkValue::RMatch},     {"Odd", qkValue::Odd},
    {"BitMatch", qkValue::BitMatch}, {"NBitMatch", qkValue::NBitMatch},
    {"ColEqual", qkValue::ColEqual}, {"NColEqual", qkValue::NColEqual}};
constexpr Enumerator kFlags[] = {
    {"Updated", qkValue::Updated},   {"Constant", qkValue::Constant},
    {"Federate", qkValue::Federate}, {"NullValue", qkValue::NullValue},
    {"Literal", qkValue::Literal},   {"RemovedEscapes", qkValue::RemovedEscapes}};
constexpr Enumerator kJoinTypes[] = {
    {"DefaultColumn", qkValue::DefaultColumn},       {"ConstColumnLeft", qkValue::ConstColumnLeft},
    {"ConstColumnRight", qkValue::ConstColumnRight}, {"ConstColumn", qkValue::ConstColumn},
    {"ExistsColumn", qkValue::ExistsColumn},         {"WhereColumn", qkValue::WhereColumn},
    {"NotExistsColumn", qkValue::NotExistsColumn}};

template <size_t N>
void enumerators(FILE* f, char const* prefix, Enumerator const (&list)[N]) {
    for (Enumerator const& e : list)
        qkValueOffsets::line(f, prefix, e.name, static_cast<size_t>(e.value));
}

// Opens path for appending, or says why not on standard output.
FILE* openForAppend(char const* path) {
    FILE* f = std::fopen(path, "a");
    if (!f) std::printf("error opening %s for append\n", path);
    return f;
}

// The lines of one class: its fields, then its size.
template <class V>
void classLines(char const* path, char const* name,
                std::initializer_list<std::pair<char const*, size_t>> fields) {
    FILE* f = openForAppend(path);
    if (!f) return;
    for (auto const& [field, offset] : fields)
        qkValueOffsets::line(f, name, field, offset);
    qkValueOffsets::line(f, name, "size", sizeof(V));
    std::fclose(f);
}

}  // namespace

// No proxy value exists in this library, so its lines are left out.
void qkValue::printOffsets(char const* path) {
    FILE* f = openForAppend(path);
    if (!f) return;
    qkValueOffsets::base(f);
    enumerators(f, "qkDataType", kDataTypes);
    enumerators(f, "qkOperator", kOperators);
    enumerators(f, "qkFlags", kFlags);
    enumerators(f, "qkJoinColumn", kJoinTypes);
    std::fclose(f);
    qkIntValue::printOffsets(path);
    qkBooleanValue::printOffsets(path);
    qkDoubleValue::printOffsets(path);
    qkDateValue::printOffsets(path);
    qkStringValue::printOffsets(path);
    qkRawValue::printOffsets(path);
    qkQueryValue::printOffsets(path);
    qkJoinValue::printOffsets(path);
    qkListValue::printOffsets(path);
}

void qkBooleanValue::printOffsets(char const* path) {
    classLines<qkBooleanValue>(path, "qkBooleanValue",
                               {{"value", offsetof(qkBooleanValue, value)}});
}

void qkIntValue::printOffsets(char const* path) {
    classLines<qkIntValue>(path, "qkIntValue", {{"value", offsetof(qkIntValue, value)}});
}

void qkDoubleValue::printOffsets(char const* path) {
    classLines<qkDoubleValue>(path, "qkDoubleValue",
                              {{"value", offsetof(qkDoubleValue, value)},
                               {"haveString", offsetof(qkDoubleValue, haveString)},
                               {"string", offsetof(qkDoubleValue, string)}});
}

void qkDateValue::printOffsets(char const* path) {
    classLines<qkDateValue>(
        path, "qkDateValue",
        {{"value", offsetof(qkDateValue, value)}, {"tie", offsetof(qkDateValue, tie)}});
}

void qkStringValue::printOffsets(char const* path) {
    classLines<qkStringValue>(path, "qkStringValue", {{"value", offsetof(qkStringValue, value)}});
}

void qkRawValue::printOffsets(char const* path) {
    classLines<qkRawValue>(path, "qkRawValue", {{"value", offsetof(qkRawValue, value)}});
}

void qkListValue::printOffsets(char const* path) {
    classLines<qkListValue>(path, "qkListValue",
                            {{"value", offsetof(qkListValue, value)},
                             {"ident", offsetof(qkListValue, ident_)},
                             {"sorted", offsetof(qkListValue, sorted_)}});
}

void qkQueryValue::printOffsets(char const* path) {
    classLines<qkQueryValue>(path, "qkQueryValue",
                             {{"value", offsetof(qkQueryValue, value)},
                              {"alt", offsetof(qkQueryValue, alt)},
                              {"columns", offsetof(qkQueryValue, columns)},
                              {"selects", offsetof(qkQueryValue, selects)},
                              {"kinds", offsetof(qkQueryValue, kinds)},
                              {"opers", offsetof(qkQueryValue, opers)},
                              {"skipSimplify", offsetof(qkQueryValue, skipSimplify_)}});
}

// The join's own fields in the order the debugger scripts read them.
void qkJoinValue::printOffsets(char const* path) {
    classLines<qkJoinValue>(path, "qkJoinValue",
                            {{"type", offsetof(qkJoinValue, type)},
                             {"forSelect", offsetof(qkJoinValue, forSelect)},
                             {"forOrderby", offsetof(qkJoinValue, forOrderby)},
                             {"ascending", offsetof(qkJoinValue, ascending)},
                             {"orderby", offsetof(qkJoinValue, orderby)},
                             {"function", offsetof(qkJoinValue, function)},
                             {"condition", offsetof(qkJoinValue, condition)},
                             {"forceFullProjection", offsetof(qkJoinValue, forceFullProjection)}});
}
