// qkUtil: the kernel utility library. Including this header gives the whole
// public interface.
#pragma once

#include "AbstractList.h"
#include "IntList.h"
#include "LinkedList.h"
#include "Tagdb.h"
#include "TagdbCommon.h"
#include "TagdbFile.h"
#include "TagdbItr.h"
#include "TagdbKey.h"
#include "TagdbNode.h"
#include "TagdbStore.h"
#include "qkExport.h"
#include "qkMemory.h"
#include "qkScalarValues.h"
#include "qkString.h"
#include "qkTable.h"
#include "qkThread.h"
#include "qkTimebase.h"
#include "qkVArray.h"
#include "qkValue.h"
#include "qkValueList.h"
