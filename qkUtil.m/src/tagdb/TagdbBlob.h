// The bytes of a record when it is a TagdbBlobRecord (the only record type
// whose bytes the by-name and iterator forms hand out); null and 0 for any
// other type. Internal to the tag database.
#pragma once

#include <typeinfo>

#include "TagdbKey.h"

namespace qk::tagdb {

inline void blobData(TagdbRecord* rec, void const*& data, int& n) {
    data = nullptr;
    n = 0;
    if (!rec) return;
    // The exact type is the common case and costs a pointer compare; a
    // class derived from TagdbBlobRecord takes the full cast.
    TagdbBlobRecord* blob = typeid(*rec) == typeid(TagdbBlobRecord)
                                ? static_cast<TagdbBlobRecord*>(rec)
                                : dynamic_cast<TagdbBlobRecord*>(rec);
    if (blob) blob->getData(data, n);
}

}  // namespace qk::tagdb
