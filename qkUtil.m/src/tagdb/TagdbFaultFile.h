// A TagdbLocalFile that fails on command, for fault-injection tests: either
// the n-th primitive operation from now (once), or every open for writing.
#pragma once

#include <new>

#include "TagdbFile.h"

namespace tagdbtest {

class FaultFile : public TagdbLocalFile {
  public:
    static TagdbFile* newInstance() { return new (std::nothrow) FaultFile(); }

    // The n-th operation from now fails (n >= 1); 0 disables.
    static void failAfter(long n) { countdown() = n; }
    // Every open in WriteMode fails while set.
    static void failWriteOpens(bool on) { writeOpensFail() = on; }
    // Operations seen since the last failAfter.
    static long& operations() {
        static long n = 0;
        return n;
    }

    Status open(char const* path, FileMode m) override {
        if (m == WriteMode && writeOpensFail()) {
            TagdbLocalFile::close();
            return Failed;
        }
        return fault() ? (TagdbLocalFile::close(), Failed) : TagdbLocalFile::open(path, m);
    }
    Status close() override {
        if (!isOpen()) return Ok;
        Status st = TagdbLocalFile::close();
        return fault() ? Failed : st;  // as if the last bytes did not make it
    }
    Status read(void* buf, int size, int& got) override {
        got = 0;
        return fault() ? Failed : TagdbLocalFile::read(buf, size, got);
    }
    Status write(void const* buf, int size) override {
        return fault() ? Failed : TagdbLocalFile::write(buf, size);
    }
    Status lock(char const* name) override { return fault() ? Failed : TagdbLocalFile::lock(name); }

  private:
    static long& countdown() {
        static long n = 0;
        return n;
    }
    static bool& writeOpensFail() {
        static bool on = false;
        return on;
    }
    static bool fault() {
        ++operations();
        return countdown() > 0 && --countdown() == 0;
    }
};

}  // namespace tagdbtest
