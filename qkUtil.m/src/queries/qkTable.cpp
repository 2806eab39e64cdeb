// qkTable's destructor and the schema hooks of qkTableUtil.
#include "qkTable.h"

qkTable::~qkTable() = default;

qkTableUtil::Id2table qkTableUtil::_id2table = nullptr;
qkTableUtil::Groupversion qkTableUtil::_groupversion = nullptr;

namespace {

// What a lookup without the host's hook finds: a table with nothing in it.
class NoTable : public qkTable {
  public:
    IntList const& primaryColumns() override { return none; }
    IntList const& indexColumns() override { return none; }
    char const* name() override { return ""; }
    int columnCount(int) override { return 0; }
    qkColumnInfo const* columnInfo(int, int) override { return nullptr; }

  private:
    IntList none;
};

}  // namespace

qkTable& qkTableUtil::id2Table(int tableId) {
    if (Id2table hook = _id2table) return hook(tableId);
    static NoTable* none = new NoTable;  // never destroyed: used until exit
    return *none;
}

int qkTableUtil::groupVersion(int tableId, int partition) {
    Groupversion hook = _groupversion;
    return hook ? hook(tableId, partition) : 0;
}
