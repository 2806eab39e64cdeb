// qkRowHolder: a row's values in one block, its two reference counts, and
// the rows made from it (clone, extract).
#include <cstddef>
#include <new>

#include "qkMemory.h"
#include "qkRowSet.h"
#include "qkScalarValues.h"

namespace {

// The blob places each value at a multiple of 8 bytes.
constexpr size_t roundUp(size_t n) {
    return (n + 7) & ~size_t{7};
}

// One value of each scalar type, made with 0 on the first row built in the
// process (a function-local static, so two threads building their first
// rows at once make them once) and kept until the process ends.
struct Prototypes {
    qkIntValue intValue{0};
    qkDoubleValue doubleValue{0};
    qkBooleanValue booleanValue{0};
    qkStringValue stringValue{0};
    qkDateValue dateValue{0};
    qkRawValue rawValue{0};
};

Prototypes const& prototypes() {
    static Prototypes const* p = new Prototypes;
    return *p;
}

// The blob space of a value of `type`; 0 for the types without a prototype.
size_t blobSpace(int type) {
    switch (type) {
        case qkValue::Int:
            return roundUp(sizeof(qkIntValue));
        case qkValue::Double:
            return roundUp(sizeof(qkDoubleValue));
        case qkValue::Boolean:
            return roundUp(sizeof(qkBooleanValue));
        case qkValue::String:
            return roundUp(sizeof(qkStringValue));
        case qkValue::Date:
            return roundUp(sizeof(qkDateValue));
        case qkValue::Raw:
            return roundUp(sizeof(qkRawValue));
        default:
            return 0;
    }
}

// A copy of type's prototype constructed at `at`.
qkValue* constructAt(void* at, int type) {
    Prototypes const& p = prototypes();
    switch (type) {
        case qkValue::Int:
            return new (at) qkIntValue(p.intValue);
        case qkValue::Double:
            return new (at) qkDoubleValue(p.doubleValue);
        case qkValue::Boolean:
            return new (at) qkBooleanValue(p.booleanValue);
        case qkValue::String:
            return new (at) qkStringValue(p.stringValue);
        case qkValue::Date:
            return new (at) qkDateValue(p.dateValue);
        default:
            return new (at) qkRawValue(p.rawValue);
    }
}

// A column of a type without a prototype: a value of its own class, or a
// null String value when the type has none.
qkValue* valueApart(int column, int type) {
    qkValue* v = qkValue::newValue(column, static_cast<qkValue::qkDataType>(type), nullptr);
    if (!v) {
        v = new qkStringValue(column);
        v->setFlag(qkValue::NullValue, true);
    }
    return v;
}

int columnType(qkTable* table, qkValueList* model, int i) {
    if (!table) return (*model)[i].dataType();
    qkColumnInfo const* info = table->columnInfo(i, 1);
    return info ? info->dataType : qkValue::String;
}

}  // namespace

qkRowHolder::qkRowHolder(int n) : qkValueList(n) {}

qkRowHolder::~qkRowHolder() {
    if (parent) {
        removeAll();  // the values are the parent's
        release2(parent);
    } else {
        destroyValues();
    }
}

bool qkRowHolder::inBlob(qkValue const* v) const {
    auto const* p = reinterpret_cast<char const*>(v);
    auto const* b = static_cast<char const*>(blob);
    return b && p >= b && p < b + blobSize_;
}

// Values in the blob are destroyed in place (which also frees what they
// hold, such as a string's text); the others are deleted.
void qkRowHolder::destroyValues() {
    for (int i = 0; i < count(); ++i) {
        qkValue* v = item(i);
        if (inBlob(v)) {
            v->~qkValue();
        } else {
            delete v;
        }
    }
    removeAll();
    qkFree(blob, __FILE__, __LINE__);
    blob = nullptr;
    blobSize_ = 0;
}

void qkRowHolder::allocate(qkTable* table, qkValueList* model) {
    if (blob || count()) destroyValues();
    int n = table ? table->columnCount(1) : (model ? model->count() : 0);
    size_t bytes = 0;
    for (int i = 0; i < n; ++i)
        bytes += blobSpace(columnType(table, model, i));
    blob = qkMalloc(bytes, __FILE__, __LINE__);
    blobSize_ = static_cast<int32_t>(bytes);
    char* at = static_cast<char*>(blob);
    for (int i = 0; i < n; ++i) {
        int type = columnType(table, model, i);
        size_t space = blobSpace(type);
        qkValue* v = space ? constructAt(at, type) : valueApart(i, type);
        at += space;
        v->column(i);
        append(v);
    }
}

qkRowHolder* qkRowHolder::clone() {
    auto* copy = new qkRowHolder(count());
    copy->federate = federate;
    copy->allocate(nullptr, this);
    for (int i = 0; i < count(); ++i) {
        qkValue& v = (*copy)[i];
        v.copyFrom((*this)[i], true);
        v.column(i);
    }
    return copy;
}

qkRowHolder* qkRowHolder::extract(int start, int n) {
    auto* sub = new qkRowHolder(n);
    for (int i = start; i < start + n; ++i)
        sub->append(item(i));
    sub->parent = this;
    dup2();
    return sub;
}

void qkRowHolder::release1(qkRowHolder* h) {
    if (h && --h->refCount1 == 0 && h->refCount2 == 0) delete h;
}

void qkRowHolder::release2(qkRowHolder* h) {
    if (h && --h->refCount2 == 0 && h->refCount1 == 0) delete h;
}
