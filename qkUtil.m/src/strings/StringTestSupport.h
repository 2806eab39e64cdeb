// Test support for qkString: the text as a std::string, and the C library's
// snprintf as the formatting oracle.
#pragma once

#include <cstdio>
#include <string>

#include "qkString.h"

inline std::string text(qkString const& s) {
    return std::string(s.sanitize(), s.length());
}

template <class... A>
std::string cFormat(char const* format, A... args) {
    int n = std::snprintf(nullptr, 0, format, args...);
    std::string out(size_t(n), '\0');
    std::snprintf(out.data(), size_t(n) + 1, format, args...);
    return out;
}
