// The fixed tables of the stand-in schema and the hooks that reach them.
#include <map>
#include <utility>

#include "KorSysSchema.h"
#include "qkValue.h"

namespace KorSysSchema {

namespace {

constexpr int B = qkValue::Boolean;
constexpr int I = qkValue::Int;
constexpr int D = qkValue::Double;
constexpr int T = qkValue::Date;
constexpr int S = qkValue::String;
constexpr int R = qkValue::Raw;

// Fields left out keep TableLayout's defaults: no index, selective, no version.
std::vector<std::pair<int, TableLayout>> fixedLayouts() {
    return {
        {1,
         {.name = "CUSTOMER",
          .columns = {{"id", I}, {"name", S}, {"balance", D}, {"created", T}, {"active", B}},
          .primary = {0},
          .group = 1}},
        {2,
         {.name = "ORDER_LINE",
          .columns = {{"orderId", I}, {"lineNo", I}, {"itemId", I}, {"quantity", D}, {"note", S}},
          .primary = {0, 1, 2},
          .group = 1}},
        {3,
         {.name = "ITEM",
          .columns = {{"id", I}, {"code", S}, {"category", I}, {"price", D}, {"picture", R}},
          .primary = {0},
          .index = {2, 1},
          .group = 2}},
        {4,
         {.name = "STOCK",
          .columns = {{"itemId", I}, {"warehouse", I}, {"amount", D}, {"updated", T}},
          .primary = {0, 1},
          .versionIndex = 0,
          .group = 3}},
        {5,
         {.name = "AUDIT_LOG",
          .columns = {{"seq", I}, {"at", T}, {"user", S}, {"payload", R}, {"ok", B}},
          .primary = {0},
          .selective = 0,
          .group = 4}},
        {6,
         {.name = "PRICE_%s",
          .columns = {{"itemId", I}, {"validFrom", T}, {"price", D}, {"currency", S}},
          .primary = {0, 1},
          .group = 2}},
        {46,
         {.name = "LINK",
          .columns = {{"parent", I}, {"child", I}, {"kind", I}},
          .primary = {0, 1},
          .index = {1},
          .group = 5}},
        {127,
         {.name = "MEMBER",
          .columns = {{"groupId", I}, {"memberId", I}, {"role", S}, {"since", T}},
          .primary = {1, 0},
          .index = {2},
          .versionIndex = 1,
          .group = 3}},
    };
}

// Built on first use and never destroyed: hooks may be called until exit.
std::map<int, SchemaTable*> const& tables() {
    static auto* all = [] {
        auto* m = new std::map<int, SchemaTable*>;
        for (auto& [id, layout] : fixedLayouts())
            (*m)[id] = new SchemaTable(std::move(layout));
        return m;
    }();
    return *all;
}

SchemaTable& unknownTable() {
    static auto* unknown = [] {
        TableLayout layout;
        layout.name = "UNKNOWN";
        return new SchemaTable(std::move(layout));
    }();
    return *unknown;
}

qkTable& id2table(int id) {
    return table(id);
}

}  // namespace

void install() {
    qkTableUtil::setId2table(&id2table);
    qkTableUtil::setGroupversion(&groupVersion);
}

void uninstall() {
    qkTableUtil::setId2table(nullptr);
    qkTableUtil::setGroupversion(nullptr);
}

qkTable& table(int id) {
    auto it = tables().find(id);
    if (it == tables().end()) return unknownTable();
    return *it->second;
}

std::vector<int> tableIds() {
    std::vector<int> ids;
    for (auto const& entry : tables())
        ids.push_back(entry.first);
    return ids;
}

int groupVersion(int tableId, int partition) {
    if (table(tableId).versionIndex < 0) return 0;
    long long v = (7LL * tableId + 3LL * partition) % 50;
    return 1 + static_cast<int>(v < 0 ? v + 50 : v);
}

}  // namespace KorSysSchema
