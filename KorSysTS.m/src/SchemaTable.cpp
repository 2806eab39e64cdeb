// SchemaTable: a qkTable answering from its TableLayout.
#include <utility>

#include "KorSysSchema.h"

namespace KorSysSchema {

namespace {

void fill(IntList& list, std::vector<int> const& columns) {
    for (int c : columns)
        list << c;
}

}  // namespace

SchemaTable::SchemaTable(TableLayout layout) : layout_(std::move(layout)) {
    // The records point into layout_'s strings, which stay put from here on.
    infos_.reserve(layout_.columns.size());
    for (ColumnLayout const& c : layout_.columns)
        infos_.push_back({c.name.c_str(), c.dataType});
    fill(primary_, layout_.primary);
    fill(index_, layout_.index);
    selective = layout_.selective;
    versionIndex = layout_.versionIndex;
    group = layout_.group;
}

int SchemaTable::columnCount(int) {
    return static_cast<int>(infos_.size());
}

qkColumnInfo const* SchemaTable::columnInfo(int column, int) {
    if (column < 0 || column >= columnCount(1)) return nullptr;
    return &infos_[column];
}

}  // namespace KorSysSchema
