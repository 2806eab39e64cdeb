// Test support for qkString: what every string test includes, the text as a
// std::string, the C library's snprintf as the formatting oracle, and the
// engine's result as a text.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "qkString.h"

inline std::string text(qkString const& s) {
    return std::string(s.sanitize(), s.length());
}

// "S" (a narrow text to the engine) is "s" to the C library.
template <class... A>
std::string cFormat(std::string format, A... args) {
    std::replace(format.begin(), format.end(), 'S', 's');
    int n = std::snprintf(nullptr, 0, format.c_str(), args...);
    std::string out(size_t(n), '\0');
    std::snprintf(out.data(), size_t(n) + 1, format.c_str(), args...);
    return out;
}

// The text sprintf leaves in s, or "(refused)" when it refuses the format.
template <class... A>
std::string fmt(qkString& s, char const* format, A... args) {
    return s.sprintf(format, args...) == 1 ? text(s) : "(refused)";
}
