// A TagdbLocalFile that fails on command, for fault-injection tests: the
// primitive operations with chosen numbers, counted from the last arm(). A
// failed open leaves the file untouched; a failed close closes the
// descriptor but reports failure, as if the last bytes had been lost.
#pragma once

#include <algorithm>
#include <new>
#include <vector>

#include "TagdbFile.h"

namespace tagdbtest {

class FaultFile : public TagdbLocalFile {
  public:
    static TagdbFile* newInstance() { return new (std::nothrow) FaultFile(); }

    // The operations with these numbers (1 = the next one) fail.
    static void arm(std::vector<long> p) { points = std::move(p), operations = 0; }
    static void disarm() { points.clear(); }
    static inline long operations = 0;  // seen since the last arm()

    Status open(char const* path, FileMode m) override {
        if (!fault()) return TagdbLocalFile::open(path, m);
        TagdbLocalFile::close();
        return Failed;
    }
    Status close() override {
        if (!isOpen()) return Ok;
        Status st = TagdbLocalFile::close();
        return fault() ? Failed : st;
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
    static inline std::vector<long> points;
    static bool fault() {
        return std::find(points.begin(), points.end(), ++operations) != points.end();
    }
};

}  // namespace tagdbtest
