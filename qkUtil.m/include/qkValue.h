// qkValue: the base of every typed value (one cell of a row, one literal of
// a where-condition, one element of a key). It carries a column, a table, a
// set of flags, its data type and a comparison operator, and offers six
// representations to set and read (raw bytes, text, timestamp, double, int,
// boolean). What a class does not support goes to one not-implemented path,
// which reports through the process-wide signal callback.
//
// Host hooks: text conversions, string collation, the decimal symbol, the
// not-implemented handler and the signal callback are plain process-wide
// pointers that the host installs once, before values are used; they are
// read without locking. A value belongs to one thread at a time.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <iosfwd>

#include "qkExport.h"

class qkString;
class qkTimebase;
class qkVArray_uint8;
class qkValueList;

// The host's error levels; the library passes these two.
enum qkErrorLevel {
    qkErrorLevelValue = 3,            // a value out of range
    qkErrorLevelNotImplemented = 13,  // a conversion the value's class lacks
};

// An error shared with the host through the signal callback: its number,
// its printf-style format, and a member the library's own errors leave null.
struct qkError {
    int number;
    char const* format;
    void* reserved;
};

// The library's errors: 700002 "Value out of range %s" (level 3) and 700003
// "not implemented: table %d column %d datatype %s (not %s)" (level 13).
QK_EXPORT extern qkError const qkErrorValueOutOfRange;
QK_EXPORT extern qkError const qkErrorNotImplemented;

class QK_EXPORT qkValue {
  public:
    enum qkDataType {
        Boolean = 0,
        Int = 1,
        Double = 2,
        Date = 3,
        String = 4,
        Raw = 5,
        SString_DEPRECATED = 6,  // a number only: no class has it
        Query = 7,
        List = 8,
        Join = 9,
    };
    enum qkOperator {
        Equal = 0,
        Match = 1,
        LessThan = 2,
        LessOrEqual = 3,
        MoreThan = 4,
        MoreOrEqual = 5,
        NEqual = 6,
        NMatch = 7,
        Member = 8,
        NMember = 9,
        SMatch = 10,
        NSMatch = 11,
        RMatch = 12,
        Odd = 13,
        BitMatch = 14,
        NBitMatch = 15,
        ColEqual = 16,
        NColEqual = 17,
    };
    enum qkFlags {
        Updated = 1,
        Constant = 2,
        Federate = 4,
        NullValue = 8,
        Literal = 16,
        RemovedEscapes = 32,
    };
    enum qkJoinType {
        DefaultColumn = 0,
        ConstColumnLeft = 1,
        ConstColumnRight = 2,
        ConstColumn = 2,
        ExistsColumn = 3,
        WhereColumn = 4,
        NotExistsColumn = 5,
    };

    // Column (0 by default), no flags, operator Equal, table -1; the data
    // type is the concrete class's.
    qkValue();
    explicit qkValue(int column);
    // Copy column, flags, data type, operator and table id.
    qkValue(qkValue const& other) = default;
    qkValue& operator=(qkValue const& other) = default;

    // ---- the virtual slots, in this order -----------------------------------
    // Each set/get returns 1 on success; the base class answers every form
    // through not_implemented(what). A set that succeeds marks the value
    // Updated and not null (unless its class says otherwise).
    virtual ~qkValue();
    virtual int set(qkVArray_uint8 const& a);
    virtual int set(qkString const& s);
    virtual int set(qkTimebase const& t);
    virtual int set(double d);
    virtual int set(int i);
    virtual int set(unsigned char b);
    virtual int get(qkVArray_uint8& a) const;
    virtual int get(qkString& s) const;
    virtual int get(qkTimebase& t) const;
    virtual int get(double& d) const;
    virtual int get(int& i) const;
    virtual int get(unsigned char& b) const;
    virtual void column(int column);
    // The NullValue flag (a date also counts a null timestamp).
    virtual bool isNull() const;
    // The row's value at this value's column (range-checked), compared with
    // this value, the row's value first.
    virtual int compare(qkValueList const& row) const;
    // -1, 0 or 1. Against a list value 1, against a query value -1; with
    // withOperator the operators first (as unsigned numbers); then the
    // contents, as if other were of this class. Column, table and flags
    // never take part. The base class answers 0.
    virtual int compare(qkValue const& other, bool withOperator) const;
    // Room for n bytes of raw content, and where to write it (the base
    // class: pointer()).
    virtual void* prepare(int size);
    // The address of the content; the base class reports "pointer" as not
    // implemented and returns null.
    virtual void* pointer();
    // The size of the content in bytes (the base class: 1).
    virtual int size();
    virtual void clear();

    // ---- fields ---------------------------------------------------------------
    void init(int column);  // as constructed; the data type stays
    int column() const { return column_; }
    qkDataType dataType() const { return static_cast<qkDataType>(dataType_); }
    qkOperator oper() const { return static_cast<qkOperator>(operator_); }
    void oper(qkOperator op) { operator_ = static_cast<uint8_t>(op); }
    int getTableId() const { return tableId_; }
    void setTableId(int id) { tableId_ = id; }
    // The data type's name ("int", ...; "??" for an unknown number) and the
    // operator's text ("=", "<=", ...; "?" for an unknown number).
    char const* getDataType() const;
    char const* opStr() const;

    // ---- flags: setters set or clear the bit; testers return the bit ----------
    void setFlag(int bits, bool on) {
        flags_ = static_cast<uint8_t>(on ? flags_ | bits : flags_ & ~bits);
    }
    void update(bool on) { setFlag(Updated, on); }
    void constant(bool on) { setFlag(Constant, on); }
    void federate(bool on) { setFlag(Federate, on); }
    void nullvalue(bool on) { setFlag(NullValue, on); }
    void literal(bool on) { setFlag(Literal, on); }
    void removedEscapes(bool on) { setFlag(RemovedEscapes, on); }
    int isUpdated() const { return flags_ & Updated; }
    int isConstant() const { return flags_ & Constant; }
    int isFederate() const { return flags_ & Federate; }
    int isLiteral() const { return flags_ & Literal; }
    int isRemovedEscapes() const { return flags_ & RemovedEscapes; }
    uint8_t flags() const { return flags_; }

    // ---- comparison and copying -----------------------------------------------
    // Equal column, data type and operator, and compare(other, false) == 0.
    bool operator==(qkValue const& other) const;
    int compareWithOperator(qkValue const& other) const { return compare(other, true); }
    // Copies src's content (src is of this value's type), always with the
    // operator, and with withFlags the flags last; column, table and data
    // type stay.
    void copyFrom(qkValue& src, bool withFlags);

    // ---- errors -----------------------------------------------------------------
    // The not-implemented path: the installed handler's result, else the
    // signal callback's for error 700003 with this value's table, column
    // and type name and `what`.
    int not_implemented(char const* what) const;
    // The host's callback with the arguments as a va_list, and its result;
    // without one, the format printed with the arguments and "\n" to
    // standard output, and 0.
    static int qkSignalCallBack(qkErrorLevel level, qkError const& error, char const* context, ...);

    // ---- host hooks -------------------------------------------------------------
    using String2double = void (*)(char const*, double&);
    using Double2string = void (*)(double, qkString&);
    using String2time = void (*)(char const*, qkTimebase&);
    using Time2string = void (*)(qkTimebase const&, qkString&);
    using String2boolean = void (*)(char const*, unsigned char&);
    using Stringcompare = int (*)(char const*, char const*);
    using Notimplemented = int (*)();
    using SignalCallBack = int (*)(qkErrorLevel, qkError const&, char const*, va_list);
    static void setString2double(String2double f) { _string2double = f; }
    static void setDouble2string(Double2string f) { _double2string = f; }
    static void setString2time(String2time f) { _string2time = f; }
    static void setTime2string(Time2string f) { _time2string = f; }
    static void setString2boolean(String2boolean f) { _string2boolean = f; }
    static void setStringcompare(Stringcompare f) { _stringcompare = f; }
    static void setDecimalSymbol(char c) { _decimalSymbol = c; }
    static void setNotimplemented(Notimplemented f) { _notimplemented = f; }
    static void setQkSignalCallBack(SignalCallBack f) { _qkSignalCallBackPtr = f; }

    static String2double _string2double;
    static Double2string _double2string;
    static String2time _string2time;
    static Time2string _time2string;
    static String2boolean _string2boolean;
    static Stringcompare _stringcompare;
    static char _decimalSymbol;
    static Notimplemented _notimplemented;
    static SignalCallBack _qkSignalCallBackPtr;

    // Appends the debugger lines of the value fields and enumerations, then
    // those of each value class, to the file at path.
    static void printOffsets(char const* path);

    // ---- rows (a row is a qkValueList whose element i is column i's value) ----
    // qsort comparator over value pointers: (*a)->compare(**b, false).
    static int qsortCompare(void const* a, void const* b);
    // Sorts n row pointers by the cell at `column`, then (column2 >= 0) by
    // the cell at column2; not stable. A row too short is a range error.
    static void sort(qkValueList** rows, int n, int column, int column2);
    // Binary search of rows sorted ascending by key's column for a row whose
    // cell compares equal to key: its index, or -1.
    static int lookup(qkValueList** rows, int n, qkValue& key);

    // ---- the binary record (scalar types only) --------------------------------
    // A type byte (data type, and a small number N in the high nibble), a
    // flags byte (the flags; 0x40: number bytes follow; 0x80: negative),
    // N + 1 number bytes when 0x40 is set, then the content: a Double's 8
    // and a Date's 24 bytes, a String's or Raw's `number` bytes. The number
    // is an Int's or Boolean's value, a String's or Raw's length.
    //
    // Appends this value's record at buf + pos and advances pos; when the
    // record may not fit, the block (qkMalloc'd, `capacity` bytes; null with
    // 0) grows by qkRealloc to twice the room needed. List, query and join
    // values write nothing, and neither does a record beyond 2 GiB.
    void writeObject(char*& buf, int& pos, int& capacity);
    // Reads the record at buf + pos, which must be complete, advances pos
    // past it and returns a new value with that column (the caller owns it):
    // content and flags without Federate and NullValue; an Int or Boolean
    // comes back marked Updated. A type nibble above 5 gives null after the
    // two header bytes. A negative String or Raw length reads as 0.
    static qkValue* readObject(char* buf, int& pos, int column);
    // The same for a record that must lie within buf's first `length`
    // bytes: null, with pos unchanged, when it does not (truncated or
    // damaged: a length past the end, or a negative one). Never reads
    // outside the buffer.
    static qkValue* readObject(char const* buf, int& pos, int length, int column);

    // ---- factories (the caller owns the result) ----------------------------
    // A new value of src's class with src's column, its operator, content
    // and (withFlags) flags; table id -1. Null for a type without a class.
    static qkValue* newValue(qkValue& src, bool withFlags);
    // A new value of `type`, filled from data when it is not null (a byte, an
    // int32, a double, a qkSQLnull_timestamp, a text, a hexadecimal text, a
    // qkOID or a qkValueListRef). Null for a type without a class.
    static qkValue* newValue(int column, qkDataType type, void const* data);

  protected:
    // The comparator of sort, over its records.
    static int compare(void const* a, void const* b);
    // The comparison steps every class shares: 1 against a list value, -1
    // against a query value, then (withOperator) the operators. Sets
    // `decided` when those settle it.
    int compareShared(qkValue const& other, bool withOperator, bool& decided) const;
    // Updated set, NullValue cleared: what a successful set does.
    void markSet() { flags_ = static_cast<uint8_t>((flags_ | Updated) & ~NullValue); }

    int32_t column_;
    uint8_t flags_;
    uint8_t dataType_;
    uint8_t operator_;
    int32_t tableId_;

    friend struct qkValueOffsets;
};

// Writes v's text (get(qkString&)) to the stream.
QK_EXPORT std::ostream& operator<<(std::ostream& os, qkValue const& v);
