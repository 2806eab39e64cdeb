// The fixed tables of the stand-in schema and the hooks that reach them.
#include <map>

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

std::vector<std::pair<int, TableSpec>> fixedSpecs() {
    return {
        {1,
         {"CUSTOMER",
          {{"id", I}, {"name", S}, {"balance", D}, {"created", T}, {"active", B}},
          {0},
          {},
          1,
          -1,
          1}},
        {2,
         {"ORDER_LINE",
          {{"orderId", I}, {"lineNo", I}, {"itemId", I}, {"quantity", D}, {"note", S}},
          {0, 1, 2},
          {},
          1,
          -1,
          1}},
        {3,
         {"ITEM",
          {{"id", I}, {"code", S}, {"category", I}, {"price", D}, {"picture", R}},
          {0},
          {2, 1},
          1,
          -1,
          2}},
        {4,
         {"STOCK",
          {{"itemId", I}, {"warehouse", I}, {"amount", D}, {"updated", T}},
          {0, 1},
          {},
          1,
          0,
          3}},
        {5,
         {"AUDIT_LOG",
          {{"seq", I}, {"at", T}, {"user", S}, {"payload", R}, {"ok", B}},
          {0},
          {},
          0,
          -1,
          4}},
        {6,
         {"PRICE_%s",
          {{"itemId", I}, {"validFrom", T}, {"price", D}, {"currency", S}},
          {0, 1},
          {},
          1,
          -1,
          2}},
        {46, {"LINK", {{"parent", I}, {"child", I}, {"kind", I}}, {0, 1}, {1}, 1, -1, 5}},
        {127,
         {"MEMBER",
          {{"groupId", I}, {"memberId", I}, {"role", S}, {"since", T}},
          {1, 0},
          {2},
          1,
          1,
          3}},
    };
}

// Built on first use and never destroyed: hooks may be called until exit.
std::map<int, SchemaTable*> const& tables() {
    static auto* all = [] {
        auto* m = new std::map<int, SchemaTable*>;
        for (auto& [id, spec] : fixedSpecs())
            (*m)[id] = new SchemaTable(std::move(spec));
        return m;
    }();
    return *all;
}

SchemaTable& unknownTable() {
    static auto* unknown = new SchemaTable([] {
        TableSpec spec;
        spec.name = "UNKNOWN";
        return spec;
    }());
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
