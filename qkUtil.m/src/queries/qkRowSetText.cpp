// Row sets as text: a row's values one line each, and the debugger lines of
// the three classes' fields.
#include <cstddef>
#include <cstdio>

#include "qkRowSet.h"

namespace {

// The value's text after its type's label; "" for the types without one.
void valueText(qkValue& v, qkString& out) {
    int i = 0;
    qkString text;
    switch (v.dataType()) {
        case qkValue::Boolean:
            v.get(i);
            out.sprintf("Bool: %d ", i);
            return;
        case qkValue::Int:
            v.get(i);
            out.sprintf("Int: %d ", i);
            return;
        case qkValue::Double:
        case qkValue::Date:
        case qkValue::String:
        case qkValue::Raw: {
            static char const* const formats[] = {nullptr,     nullptr,      "Double: %s ",
                                                  "Date: %s ", "String %s ", "Raw: %s "};
            v.get(text);
            out.sprintf(formats[v.dataType()], text.sanitize());
            return;
        }
        default:
            out = "";
            return;
    }
}

void offsetLine(FILE* f, char const* prefix, char const* field, size_t value) {
    std::fprintf(f, "set $%s_%s = 0x%x\n", prefix, field, static_cast<unsigned>(value));
}

FILE* openForAppend(char const* path) {
    FILE* f = std::fopen(path, "a");
    if (!f) std::printf("error opening %s for append\n", path);
    return f;
}

}  // namespace

void qkRowHolder::prettyRow(qkString& out) {
    if (!blob) {
        out = "<No Row set>";
        return;
    }
    qkString text, line;
    for (int i = 0; i < count(); ++i) {
        qkValue& v = (*this)[i];
        valueText(v, text);
        int flags = v.flags();
        line.sprintf(
            " Column %d, updated%d/literal%d/constant%d/feder%d/operStr%s/isNull%d Value %s\n",
            v.column(), flags & qkValue::Updated, flags & qkValue::Literal,
            flags & qkValue::Constant, flags & qkValue::Federate, v.opStr(),
            v.isNull() ? int(qkValue::NullValue) : 0, text.sanitize());
        out += line.sanitize();
    }
}

void qkRowHolder::printOffsets(char const* path) {
    FILE* f = openForAppend(path);
    if (!f) return;
    offsetLine(f, "qkRowHolder", "refCount1", offsetof(qkRowHolder, refCount1));
    offsetLine(f, "qkRowHolder", "refCount2", offsetof(qkRowHolder, refCount2));
    std::fprintf(f, "set $qkRowHolder_federate = 0x%x\n",
                 static_cast<unsigned>(offsetof(qkRowHolder, federate)));
    offsetLine(f, "qkRowHolder", "blob", offsetof(qkRowHolder, blob));
    offsetLine(f, "qkRowHolder", "parent", offsetof(qkRowHolder, parent));
    offsetLine(f, "qkRowHolder", "size", sizeof(qkRowHolder));
    std::fclose(f);
}

void qkRowRef::printOffsets(char const* path) {
    FILE* f = openForAppend(path);
    if (!f) return;
    offsetLine(f, "qkRowRef", "holder", offsetof(qkRowRef, holder_));
    offsetLine(f, "qkRowRef", "update", offsetof(qkRowRef, update));
    offsetLine(f, "qkRowRef", "remove", offsetof(qkRowRef, remove));
    offsetLine(f, "qkRowRef", "size", sizeof(qkRowRef));
    std::fclose(f);
}

void qkRowSet::printOffsets(char const* path) {
    FILE* f = openForAppend(path);
    if (!f) return;
    offsetLine(f, "qkRowSet", "rows", offsetof(qkRowSet, rows_));
    offsetLine(f, "qkRowSet", "nrows", offsetof(qkRowSet, nrows_));
    offsetLine(f, "qkRowSet", "arows", offsetof(qkRowSet, arows_));
    offsetLine(f, "qkRowSet", "anyUpdate", offsetof(qkRowSet, anyUpdate_));
    offsetLine(f, "qkRowSet", "anyRemove", offsetof(qkRowSet, anyRemove_));
    offsetLine(f, "qkRowSet", "size", sizeof(qkRowSet));
    std::fclose(f);
}
