// A string key that points to the caller's text for the length of a call:
// the by-name forms of Tagdb build one in place (no copy, no allocation).
// Internal to the tag database.
#pragma once

#include "TagdbKey.h"

namespace qk::tagdb {

class NameKey : public TagdbStringKey {
  public:
    explicit NameKey(char const* name) : TagdbStringKey(name) {}
};

}  // namespace qk::tagdb
