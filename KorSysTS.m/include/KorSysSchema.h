// A small in-memory schema standing in for the host's, for the tests, the
// benchmarks and the example host. install() points the library's schema
// hooks (qkTableUtil) at it.
//
// The fixed tables (column numbers from 0; types as qkValue::qkDataType):
//
//   id  name          primary  index   selective  versionIndex  group
//    1  CUSTOMER      0        -       1          -1            1
//    2  ORDER_LINE    0,1,2    -       1          -1            1
//    3  ITEM          0        2,1     1          -1            2
//    4  STOCK         0,1      -       1           0            3
//    5  AUDIT_LOG     0        -       0          -1            4
//    6  PRICE_%s      0,1      -       1          -1            2
//   46  LINK          0,1      1       1          -1            5
//  127  MEMBER        1,0      2       1           1            3
//
// PRICE_%s is the variant table: its name is a printf format with one %s.
// 46 and 127 are the ids the library treats apart.
//
// The group version of a table whose versionIndex is not negative is
// 1 + (7 * id + 3 * partition) mod 50, with the mod taken into 0 .. 49 for
// any partition; every other table, and an unknown id, has version 0.
//
// The tables are built on first use, are never destroyed and are read-only
// afterwards, so that any thread may read them at any time until exit.
#pragma once

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "IntList.h"
#include "qkTable.h"

namespace KorSysSchema {

// One column: its name and its qkValue::qkDataType number.
struct ColumnLayout {
    std::string name;
    int dataType;
};

// Everything that makes a table description.
struct TableLayout {
    std::string name;
    std::vector<ColumnLayout> columns;
    std::vector<int> primary = {};  // column numbers in key order
    std::vector<int> index = {};    // column numbers in index order
    int selective = 1;
    int versionIndex = -1;
    int group = 0;
};

// A qkTable that answers from a TableLayout. It owns its names, so the
// pointers it hands out live as long as it does. It answers the same
// whatever the `which` argument; columnInfo is null outside 0 .. count - 1.
class SchemaTable : public qkTable {
  public:
    explicit SchemaTable(TableLayout layout);
    SchemaTable(SchemaTable const&) = delete;
    SchemaTable& operator=(SchemaTable const&) = delete;

    IntList const& primaryColumns() override { return primary_; }
    IntList const& indexColumns() override { return index_; }
    char const* name() override { return layout_.name.c_str(); }
    int columnCount(int which) override;
    qkColumnInfo const* columnInfo(int column, int which) override;

    TableLayout const& layout() const { return layout_; }

  private:
    TableLayout layout_;
    std::vector<qkColumnInfo> infos_;
    IntList primary_;
    IntList index_;
};

// Points qkTableUtil's id2Table and groupVersion hooks at this schema.
void install();
// Removes both hooks, whichever were installed: the library is back to its
// answers without a host.
void uninstall();

// The table with this id; for an id not in tableIds() the one unknown table:
// name "UNKNOWN", no columns, empty keys, selective 1, versionIndex -1,
// group 0.
qkTable& table(int id);
// The ids of the fixed tables, ascending.
std::vector<int> tableIds();
// The group version described above.
int groupVersion(int tableId, int partition);

// Limits of makeRandomTable.
struct RandomLimits {
    int maxColumns = 8;     // 1 .. maxColumns columns
    int maxKeyColumns = 3;  // each key 0 .. min(maxKeyColumns, columns) long
};

// A random table description: columns "C0", "C1", ... of random types
// (Boolean .. Raw); a primary key and an index of distinct columns each, in
// random order and independent of each other; selective 0 or 1;
// versionIndex -1 or 0 .. 3; group 0 .. 25; name "R<n>" or the variant
// format "R<n>_%s".
std::unique_ptr<SchemaTable> makeRandomTable(std::mt19937& rng, RandomLimits const& limits = {});

}  // namespace KorSysSchema
