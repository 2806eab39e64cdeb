// qkOID: construction, the shared where list with copy on write, and
// comparison.
#include "qkOID.h"

#include "qkCompositeValues.h"

qkOID::Getpartition qkOID::_getpartition = nullptr;
qkOID::Serversetup qkOID::_serversetup = nullptr;

namespace {

int partitionFromHost() {
    qkOID::Getpartition hook = qkOID::_getpartition;
    return hook ? hook() : 0;
}

int threeWay(int a, int b) {
    return a < b ? -1 : a > b ? 1 : 0;
}

}  // namespace

qkOID::qkOID() : qkOID(0, 1, 1) {}

qkOID::qkOID(int tableId, int modifier, unsigned char distributed)
    : where_(nullptr),
      tableId_(tableId),
      modifier_(modifier ? modifier : 1),
      partition_(partitionFromHost()),
      dontUseCachedList_(0),
      distributed_(distributed ? 1 : 0),
      removeFlag_(0) {}

qkOID::qkOID(qkOID const& other)
    : where_(other.where().dup()),
      tableId_(other.tableId_),
      modifier_(other.modifier_),
      partition_(other.partition_),
      dontUseCachedList_(other.dontUseCachedList_),
      distributed_(other.distributed_),
      removeFlag_(0) {}

qkOID& qkOID::operator=(qkOID const& other) {
    if (this == &other) return *this;
    setBase(other);
    dontUseCachedList_ = other.dontUseCachedList_;
    qkValueListRef* shared = other.where().dup();  // before letting go: it may be ours
    qkValueListRef::release(where_);
    where_ = shared;
    return *this;
}

qkOID::~qkOID() {
    qkValueListRef::release(where_);
}

void qkOID::setBase(qkOID const& other) {
    tableId_ = other.tableId_;
    modifier_ = other.modifier_;
    partition_ = other.partition_;
    distributed_ = other.distributed_;
    removeFlag_ = other.removeFlag_;
}

qkValueListRef& qkOID::where() const {
    if (!where_) where_ = new qkValueListRef;
    return *where_;
}

// ---- the where list ---------------------------------------------------------------

void qkOID::dataCopy() {
    if (!where_ || where_->refCount < 2) return;
    qkValueListRef* own = where_->clone();
    qkValueListRef::release(where_);
    where_ = own;
}

void qkOID::append(qkValue* v) {
    dataCopy();
    where().append(v);
}

void qkOID::appendCopy(qkValue& v, unsigned char flag) {
    dataCopy();
    if (qkValue* copy = qkValue::newValue(v, flag != 0)) where().append(copy);
}

qkValue* qkOID::findWhereColumn(int column) const {
    qkValueListRef& w = where();
    for (int i = 0; i < w.count(); ++i)
        if (w[i].column() == column) return &w[i];
    return nullptr;
}

int qkOID::specifies(int column) {
    qkValueListRef& w = where();
    for (int i = 0; i < w.count(); ++i) {
        qkValue& v = w[i];
        if (v.column() == column && v.oper() == qkValue::Equal && v.dataType() != qkValue::Join) {
            return i;
        }
    }
    return -1;
}

// ---- comparison -------------------------------------------------------------------

int qkOID::compareTable(qkOID const& other) const {
    if (int r = threeWay(tableId_, other.tableId_)) return r;
    if (int r = threeWay(modifier_, other.modifier_)) return r;
    return threeWay(partition_, other.partition_);
}

// The remove flag is the argument's: operands are compared unless `other`
// describes a remove.
int qkOID::compare(qkOID const& other, unsigned char withOperator) const {
    if (int r = compareTable(other)) return r;
    qkValueListRef &mine = where(), &theirs = other.where();
    if (&mine == &theirs) return 0;
    if (mine.count() != theirs.count()) return mine.count() > theirs.count() ? 1 : -1;
    for (int i = 0; i < mine.count(); ++i) {
        if (int r = threeWay(mine[i].column(), theirs[i].column())) return r;
        if (other.removeFlag_) continue;
        if (int r = mine[i].compare(theirs[i], withOperator != 0)) return r;
    }
    return 0;
}
