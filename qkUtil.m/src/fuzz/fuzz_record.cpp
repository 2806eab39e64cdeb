// Value records: the bounded reader walks any bytes without reading past
// them; every value it returns writes a record that reads back the same.
#include <cstring>
#include <memory>

#include "FuzzCheck.h"
#include "qkMemory.h"
#include "qkValue.h"

using qkfuzz::require;

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    if (size > 1 << 20) return 0;
    // An exact copy, so that a read past the end is caught.
    std::unique_ptr<char[]> buf(new char[size ? size : 1]);
    std::memcpy(buf.get(), data, size);
    int length = int(size), pos = 0;
    for (int records = 0; records < 10000; ++records) {
        int before = pos;
        std::unique_ptr<qkValue> v(qkValue::readObject(buf.get(), pos, length, 3));
        require(pos >= before && pos <= length, "position within the buffer");
        if (!v) {
            if (pos == before) break;
            continue;
        }
        require(v->column() == 3, "column given");
        char* out = nullptr;
        int written = 0, capacity = 0;
        v->writeObject(out, written, capacity);
        require(written <= capacity, "record within its buffer");
        int at = 0;
        std::unique_ptr<qkValue> again(qkValue::readObject(out, at, written, 3));
        require(again && at == written, "own record reads whole");
        require(again->dataType() == v->dataType(), "type read back");
        if (v->dataType() == qkValue::Double) {
            require(std::memcmp(again->pointer(), v->pointer(), 8) == 0, "double bit for bit");
        } else {
            require(again->compare(*v, false) == 0, "value read back");
        }
        qkFree(out, "fuzz", 0);
    }
    return 0;
}
