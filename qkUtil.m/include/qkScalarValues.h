// The scalar values: boolean, integer, double, date, string and raw bytes.
// Each stores its content after the base fields of qkValue, overrides the
// set/get forms it supports and answers every other form through the
// not-implemented path. Text conversions that depend on the host go through
// qkValue's hooks; without a hook each class has a built-in fallback.
#pragma once

#include <cstdint>

#include "qkString.h"
#include "qkTimebase.h"
#include "qkVArray.h"
#include "qkValue.h"

// Non-zero is true. set(int) keeps the low 16 bits; the text "TRUE" (case
// and length significant) is true without a hook, anything else false.
class QK_EXPORT qkBooleanValue : public qkValue {
  public:
    explicit qkBooleanValue(int column = 0);
    int set(unsigned char b) override;
    int set(int i) override;
    int set(qkString const& s) override;
    int get(unsigned char& b) const override;  // the low byte
    int get(int& i) const override;            // sign-extended from 16 bits
    int get(qkString& s) const override;       // "TRUE" or "FALSE"
    using qkValue::get;
    using qkValue::set;
    int compare(qkValue const& other, bool withOperator) const override;
    using qkValue::compare;
    void* pointer() override { return &value; }
    static void printOffsets(char const* path);

    int16_t value;
};

// set(qkString) converts as stoi does in base 10: leading blanks and a sign,
// up to the first character that cannot continue the number. The empty text
// is 0, a text without digits 0 (both succeed); a number beyond 32 bits
// signals "Value out of range" and leaves value and flags as they were.
class QK_EXPORT qkIntValue : public qkValue {
  public:
    explicit qkIntValue(int column = 0);
    qkIntValue(int column, int value);
    int set(int i) override;
    int set(qkString const& s) override;
    int get(unsigned char& b) const override;  // 1 when non-zero
    int get(int& i) const override;
    int get(qkString& s) const override;  // "null" when NullValue is set
    using qkValue::get;
    using qkValue::set;
    int compare(qkValue const& other, bool withOperator) const override;
    using qkValue::compare;
    void* pointer() override { return &value; }
    static void printOffsets(char const* path);

    int32_t value;
};

// The text a double was set from is kept (the cache) and given back by
// get(qkString&); set(double) empties it, and get(qkString&) fills an empty
// one with the hook, or "%f". Without a hook set(qkString) converts in
// single precision (as stof does) and widens to double; a text that is not
// a number or is out of the float range signals "Value out of range".
// prepare() gives the text with the host's decimal symbol.
class QK_EXPORT qkDoubleValue : public qkValue {
  public:
    explicit qkDoubleValue(int column = 0);
    qkDoubleValue(qkDoubleValue const& other) = default;
    qkDoubleValue& operator=(qkDoubleValue const& other) = default;
    int set(double d) override;
    int set(qkString const& s) override;
    int get(double& d) const override;
    int get(qkString& s) const override;
    using qkValue::get;
    using qkValue::set;
    int compare(qkValue const& other, bool withOperator) const override;
    using qkValue::compare;
    void* prepare(int size) override;
    void* pointer() override { return &value; }
    int size() override;
    void clear() override;
    static void printOffsets(char const* path);

    double value;
    uint8_t haveString;       // carried by copies, read by nothing
    mutable qkString string;  // the text cache, filled on demand by get
};

// A timestamp with its null indicator; set(qkTimebase) makes the value null
// exactly when the timestamp is. Without the host's hooks the text forms
// are not implemented. The unsupported sets print "set to ...!" first.
//
// The tie is a block (qkMalloc) that the host may attach; the value owns it
// and frees it in clear() and its destructor. A copy does not share it: the
// copy constructor and assignment leave the copy without a tie (carrying the
// pointer would free it twice), and copyFrom keeps the target's own tie.
class QK_EXPORT qkDateValue : public qkValue {
  public:
    explicit qkDateValue(int column = 0);
    qkDateValue(qkDateValue const& other);
    qkDateValue& operator=(qkDateValue const& other);
    ~qkDateValue() override;
    int set(qkTimebase const& t) override;
    int set(qkString const& s) override;
    int set(qkVArray_uint8 const& a) override;
    int set(unsigned char b) override;
    int set(int i) override;
    int set(double d) override;
    int get(qkTimebase& t) const override;
    int get(qkString& s) const override;  // 1 in every case
    using qkValue::get;
    bool isNull() const override;  // NullValue set, or a null timestamp
    int compare(qkValue const& other, bool withOperator) const override;
    using qkValue::compare;
    void* pointer() override { return &value; }
    int size() override { return value.is_null() ? 0 : 1; }
    void clear() override;  // frees the tie; the timestamp stays
    static void printOffsets(char const* path);

    qkTimebase value;
    void* tie;
};

// set(qkString) takes a private copy of the text; get(qkString&) shares it.
// Without the host's collation texts compare byte-wise, unsigned.
class QK_EXPORT qkStringValue : public qkValue {
  public:
    explicit qkStringValue(int column = 0);
    int set(qkString const& s) override;
    int get(qkString& s) const override;
    using qkValue::get;
    using qkValue::set;
    int compare(qkValue const& other, bool withOperator) const override;
    using qkValue::compare;
    // n >= 0 resizes the text to n characters; the character buffer.
    void* prepare(int size) override;
    void* pointer() override { return prepare(-1); }
    int size() override { return static_cast<int>(value.length()); }
    void clear() override;
    static void printOffsets(char const* path);

    qkString value;
};

// Raw bytes; as text two upper-case hexadecimal digits a byte. set(qkString)
// reads two characters a byte in either case (any other character counts
// as 0, a trailing odd one is dropped); the empty text makes a null value.
class QK_EXPORT qkRawValue : public qkValue {
  public:
    explicit qkRawValue(int column = 0);
    int set(qkVArray_uint8 const& a) override;
    int set(qkString const& s) override;
    int get(qkVArray_uint8& a) const override;
    int get(qkString& s) const override;
    using qkValue::get;
    using qkValue::set;
    int compare(qkValue const& other, bool withOperator) const override;
    using qkValue::compare;
    // n >= 0 resizes to n bytes (new bytes zero); the bytes, or a static
    // empty byte when there are none.
    void* prepare(int size) override;
    void* pointer() override { return &value; }  // the array itself
    int size() override { return static_cast<int>(value.length()); }
    void clear() override { value.resize(0); }
    static void printOffsets(char const* path);

    qkVArray_uint8 value;
};
