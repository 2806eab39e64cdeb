// qkUtil: the kernel utility library. Including this header gives the whole
// public interface.
#pragma once

#include "LinkedList.h"
#include "qkExport.h"
#include "qkMemory.h"
#include "qkString.h"
#include "qkThread.h"
