// qkStrBuff: a growable text buffer that collects pieces and, unless made
// raw, ends each piece with a line feed (a piece that ends with one gets no
// second). qkSysUtils fills one with the current process's command line,
// environment or executable path.
#pragma once

#include <cstddef>

#include "qkExport.h"

class QK_EXPORT qkStrBuff {
  public:
    qkStrBuff() = default;
    explicit qkStrBuff(int raw) : raw(raw) {}
    ~qkStrBuff();
    // The buffer moves with the object; copying one is refused (two
    // buffers' owners would free it twice).
    qkStrBuff(qkStrBuff const&) = delete;
    qkStrBuff& operator=(qkStrBuff const&) = delete;

    // Adds s (null is ignored). When the buffer cannot grow, the piece is
    // not added.
    qkStrBuff& operator+=(char const* s);
    // The text, zero-terminated; null before the first piece.
    char const* getBuffer() const { return text; }
    // Room for n more bytes (and a line feed and a terminator) after the
    // text; the buffer, or null when there is none. The counts stay: a
    // caller that writes into it keeps its own.
    char* getBuffer(int n);
    size_t length() const { return used; }

    char* text = nullptr;
    size_t room = 0;  // capacity - used after the last addition
    size_t used = 0;
    size_t capacity = 0;
    int raw = 0;  // non-zero: pieces are added as they are

  private:
    size_t resize(size_t n);
    void add(char const* s, size_t n);
};

class QK_EXPORT qkSysUtils {
  public:
    // The command line as one piece: the program and its arguments joined
    // by blanks, an argument with a blank, a tab or a double quote in it (or
    // an empty one) in double quotes with its quotes and the backslashes
    // before them escaped by a backslash. pid is not used. Returns 1.
    static int getProcessCmdLine(qkStrBuff& out, int pid);
    // Each NAME=value entry of the environment, in order, one piece each.
    static void getProcessEnvironment(qkStrBuff& out);
    // The executable's full path as one piece: 1, or 0 when it cannot be
    // read. pid is not used.
    static int getProcessExe(qkStrBuff& out, int pid);
    static int getParentPID() { return 0; }
};
