// IntListList: the AbstractList instance over IntList, compiled into the
// library once and exported from it.
#include "AbstractListImpl.h"
#include "IntList.h"

template class AbstractList<IntList, kIntListListName>;
