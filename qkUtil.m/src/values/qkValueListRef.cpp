// qkValueListRef: a value list shared by reference count on the thread that
// made it, cloned for any other.
#include "qkThread.h"
#include "qkValueList.h"

qkValueListRef::qkValueListRef() : ownerThread(qkThread::id()), refCount(1) {}

qkValueListRef::~qkValueListRef() {
    clear(0);
}

qkValueListRef* qkValueListRef::clone() const {
    qkValueListRef* copy = new qkValueListRef;
    for (int i = 0; i < count(); ++i) {
        qkValue* v = qkValue::newValue(const_cast<qkValue&>((*this)[i]), false);
        if (v) copy->append(v);
    }
    return copy;
}

qkValueListRef* qkValueListRef::dup() {
    if (ownerThread != qkThread::id()) return clone();
    refCount += 1;
    return this;
}

void qkValueListRef::release(qkValueListRef* r) {
    if (r && --r->refCount < 1) delete r;
}
