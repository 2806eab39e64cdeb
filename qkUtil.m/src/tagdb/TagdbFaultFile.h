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
    static void arm(std::vector<long> points) {
        state().points = std::move(points);
        state().operations = 0;
    }
    static void disarm() { state().points.clear(); }
    // Operations seen since the last arm().
    static long operations() { return state().operations; }

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
    struct State {
        std::vector<long> points;
        long operations = 0;
    };
    static State& state() {
        static State s;
        return s;
    }
    static bool fault() {
        long n = ++state().operations;
        auto const& p = state().points;
        return std::find(p.begin(), p.end(), n) != p.end();
    }
};

}  // namespace tagdbtest
