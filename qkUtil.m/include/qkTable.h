// The host's table description as the library sees it, and the hooks
// through which the library reaches the host's schema. The library knows
// nothing of the schema itself: a host derives its tables from qkTable and
// installs qkTableUtil::setId2table (and setGroupversion for cache keys)
// at start-up.
#pragma once

#include <cstdint>

#include "IntList.h"
#include "qkExport.h"

// Opaque host types the library only names.
class Server;
enum qkMode : int;

// One column's record: its name, and its data type in the numbering of
// qkValue::qkDataType.
struct qkColumnInfo {
    char const* name;
    int32_t dataType;
};

// The members the library uses of a table, and nothing else. The five
// operations stand in this order in the virtual table.
class QK_EXPORT qkTable {
  public:
    virtual ~qkTable();
    // The primary-key column numbers, in key order.
    virtual IntList const& primaryColumns() = 0;
    // The index's column numbers, in index order.
    virtual IntList const& indexColumns() = 0;
    // The table's name; for a variant (modifier other than 1) a printf
    // format with one %s that the modifier's text fills.
    virtual char const* name() = 0;
    // The number of columns (the library passes 1).
    virtual int columnCount(int which) = 0;
    // The record of a column (the library passes 1 as the second argument);
    // null for a column the table does not have.
    virtual qkColumnInfo const* columnInfo(int column, int which) = 0;

    int selective = 1;      // 0: fetches read all columns; sub-queries may be skipped
    int versionIndex = -1;  // negative: the group carries no version in keys
    int group = 0;          // written in keys as the character '@' + group
};

// Holder of the schema hooks (no data of its own).
class QK_EXPORT qkTableUtil {
  public:
    using Id2table = qkTable& (*)(int tableId);
    using Groupversion = int (*)(int tableId, int partition);

    qkTableUtil& operator=(qkTableUtil const&) { return *this; }

    static void setId2table(Id2table f) { _id2table = f; }
    static void setGroupversion(Groupversion f) { _groupversion = f; }
    // The installed hook's table. Without a hook: a table with no columns,
    // no key and an empty name, so that a host that forgot the hook gets
    // defined answers rather than a crash.
    static qkTable& id2Table(int tableId);
    // The installed hook's group version; 0 without a hook.
    static int groupVersion(int tableId, int partition);

    static Id2table _id2table;
    static Groupversion _groupversion;
};
