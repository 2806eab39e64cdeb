// qkValue: the base behaviour of every slot, the names of types and
// operators, the not-implemented path and the signal callback.
#include "qkValue.h"

#include <cstdio>
#include <ostream>

#include "qkString.h"
#include "qkValueList.h"

qkError const qkErrorValueOutOfRange = {700002, "Value out of range %s", nullptr};
qkError const qkErrorNotImplemented = {
    700003, "not implemented: table %d column %d datatype %s (not %s)", nullptr};

qkValue::String2double qkValue::_string2double = nullptr;
qkValue::Double2string qkValue::_double2string = nullptr;
qkValue::String2time qkValue::_string2time = nullptr;
qkValue::Time2string qkValue::_time2string = nullptr;
qkValue::String2boolean qkValue::_string2boolean = nullptr;
qkValue::Stringcompare qkValue::_stringcompare = nullptr;
char qkValue::_decimalSymbol = 0;
qkValue::Notimplemented qkValue::_notimplemented = nullptr;
qkValue::SignalCallBack qkValue::_qkSignalCallBackPtr = nullptr;

qkValue::qkValue() : qkValue(0) {}

// The data type is the concrete class's; Boolean until it sets its own.
qkValue::qkValue(int column)
    : column_(column), flags_(0), dataType_(Boolean), operator_(Equal), tableId_(-1) {}

void qkValue::init(int column) {
    column_ = column;
    flags_ = 0;
    operator_ = Equal;
    tableId_ = -1;
}

// ---- the base slots -------------------------------------------------------------

qkValue::~qkValue() = default;

int qkValue::set(qkVArray_uint8 const&) {
    return not_implemented("array");
}
int qkValue::set(qkString const&) {
    return not_implemented("string");
}
int qkValue::set(qkTimebase const&) {
    return not_implemented("Date");
}
int qkValue::set(double) {
    return not_implemented("double");
}
int qkValue::set(int) {
    return not_implemented("int");
}
int qkValue::set(unsigned char) {
    return not_implemented("boolean");
}
int qkValue::get(qkVArray_uint8&) const {
    return not_implemented("array");
}
int qkValue::get(qkString&) const {
    return not_implemented("string");
}
int qkValue::get(qkTimebase&) const {
    return not_implemented("date");
}
int qkValue::get(double&) const {
    return not_implemented("double");
}
int qkValue::get(int&) const {
    return not_implemented("int");
}
int qkValue::get(unsigned char&) const {
    return not_implemented("boolean");
}

void qkValue::column(int column) {
    column_ = column;
}

bool qkValue::isNull() const {
    return (flags_ & NullValue) != 0;
}

int qkValue::compare(qkValueList const& row) const {
    return row[column_].compare(*this, false);
}

int qkValue::compare(qkValue const&, bool) const {
    return 0;
}

void* qkValue::prepare(int) {
    return pointer();
}

void* qkValue::pointer() {
    not_implemented("pointer");
    return nullptr;
}

int qkValue::size() {
    return 1;
}

void qkValue::clear() {}

// ---- names ------------------------------------------------------------------------

char const* qkValue::getDataType() const {
    static char const* const names[] = {
        "boolean", "int",  "double", "date", "string", "raw", "SString_DEPRECATED",
        "query",   "list", "join"};
    return dataType_ < sizeof names / sizeof names[0] ? names[dataType_] : "??";
}

char const* qkValue::opStr() const {
    static char const* const texts[] = {"=",  "~",  "<",   "<=",  ">",   ">=", "!=",  "!~", "=",
                                        "!=", "~~", "!~~", "<~>", "%2=", "&~", "!&~", "=",  "!="};
    return operator_ < sizeof texts / sizeof texts[0] ? texts[operator_] : "?";
}

// ---- comparison ---------------------------------------------------------------------

int qkValue::compareShared(qkValue const& other, bool withOperator, bool& decided) const {
    decided = true;
    if (other.dataType_ == List) return 1;
    if (other.dataType_ == Query) return -1;
    if (withOperator && operator_ != other.operator_) return operator_ > other.operator_ ? 1 : -1;
    decided = false;
    return 0;
}

bool qkValue::operator==(qkValue const& other) const {
    return column_ == other.column_ && dataType_ == other.dataType_ &&
           operator_ == other.operator_ && compare(other, false) == 0;
}

// ---- errors ---------------------------------------------------------------------------

int qkValue::not_implemented(char const* what) const {
    if (Notimplemented handler = _notimplemented) return handler();
    return qkSignalCallBack(qkErrorLevelNotImplemented, qkErrorNotImplemented, nullptr, tableId_,
                            column_, getDataType(), what);
}

int qkValue::qkSignalCallBack(qkErrorLevel level, qkError const& error, char const* context, ...) {
    va_list ap;
    va_start(ap, context);
    int result = 0;
    if (SignalCallBack callback = _qkSignalCallBackPtr) {
        result = callback(level, error, context, ap);
    } else {
        std::vprintf(error.format, ap);
        std::printf("\n");
        std::fflush(stdout);
    }
    va_end(ap);
    return result;
}

std::ostream& operator<<(std::ostream& os, qkValue const& v) {
    qkString text("");
    v.get(text);
    return os << text.sanitize();
}
