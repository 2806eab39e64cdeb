// qkValueList: the pointer-list template over qkValue, compiled into the
// library once and exported from it.
#include "qkValueList.h"
#include "containers/AbstractListImpl.h"

template class AbstractList<qkValue, kValueListName>;
