// SchemaTable: a qkTable answering from its TableSpec.
#include <utility>

#include "KorSysSchema.h"

namespace KorSysSchema {

namespace {

void fill(IntList& list, std::vector<int> const& columns) {
    for (int c : columns)
        list << c;
}

}  // namespace

SchemaTable::SchemaTable(TableSpec spec) : spec_(std::move(spec)) {
    // The records point into spec_'s strings, which stay put from here on.
    infos_.reserve(spec_.columns.size());
    for (ColumnSpec const& c : spec_.columns)
        infos_.push_back({c.name.c_str(), c.dataType});
    fill(primary_, spec_.primary);
    fill(index_, spec_.index);
    selective = spec_.selective;
    versionIndex = spec_.versionIndex;
    group = spec_.group;
}

int SchemaTable::columnCount(int) {
    return static_cast<int>(infos_.size());
}

qkColumnInfo const* SchemaTable::columnInfo(int column, int) {
    if (column < 0 || column >= columnCount(1)) return nullptr;
    return &infos_[column];
}

}  // namespace KorSysSchema
