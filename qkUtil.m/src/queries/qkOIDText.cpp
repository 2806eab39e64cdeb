// qkOID as text: the table's name, the readable query text, and the
// debugger lines.
#include <cstddef>
#include <cstdio>

#include "qkCompositeValues.h"
#include "qkOID.h"

void qkOID::tableName(qkString& out, char const* format) {
    char const* name = table().name();
    if (!name) name = "";
    if (modifier_ == 1) {
        out = name;
    } else {
        char modifier[16];
        std::snprintf(modifier, sizeof modifier, "%08x", static_cast<unsigned>(modifier_));
        out.sprintf(name, modifier);
    }
    if (format && *format) {
        qkString plain(out);
        out.sprintf(format, plain.sanitize());
    }
}

namespace {

// A value's text; a list prints its members rather than its ident when
// `expandLists` is set.
void valueText(qkValue& v, unsigned char expandLists, qkString& text) {
    if (expandLists && v.dataType() == qkValue::List) {
        auto& list = static_cast<qkListValue&>(v);
        int ident = list.getIdent();
        list.ident(0);
        list.get(text);
        list.ident(ident);
    } else {
        v.get(text);
    }
}

}  // namespace

void qkOID::makeKey(qkString& out, unsigned char expandLists) {
    tableName(out, nullptr);
    qkTable& t = table();
    qkValueListRef& w = where();
    qkString text, piece;
    for (int i = 0; i < w.count(); ++i) {
        qkValue& v = w[i];
        valueText(v, expandLists, text);
        qkColumnInfo const* info = t.columnInfo(v.column(), 1);
        char const* column = info && info->name ? info->name : "";
        piece.sprintf("%s%s%s", column, v.opStr(), text.sanitize());
        out += i == 0 ? " where " : " and ";
        out += piece.sanitize();
    }
}

// Reaches the private fields for offsetof.
struct qkOIDOffsets {
    static void write(FILE* f) {
        line(f, "where", offsetof(qkOID, where_));
        line(f, "tableId", offsetof(qkOID, tableId_));
        line(f, "modifier", offsetof(qkOID, modifier_));
        line(f, "partition", offsetof(qkOID, partition_));
        line(f, "dontUseCachedList", offsetof(qkOID, dontUseCachedList_));
        line(f, "distributed", offsetof(qkOID, distributed_));
        line(f, "removeFlag", offsetof(qkOID, removeFlag_));
        line(f, "size", sizeof(qkOID));
    }
    static void line(FILE* f, char const* field, size_t value) {
        std::fprintf(f, "set $qkOID_%s = 0x%x\n", field, static_cast<unsigned>(value));
    }
};

void qkOID::printOffsets(char const* path) {
    FILE* f = std::fopen(path, "a");
    if (!f) {
        std::printf("error opening %s for append\n", path);
        return;
    }
    qkOIDOffsets::write(f);
    std::fclose(f);
}
