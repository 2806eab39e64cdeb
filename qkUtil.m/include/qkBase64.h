// Base64: the alphabet and padding of RFC 4648, section 4, without line
// breaks. The caller sizes the output: 4 * ceil(n / 3) + 1 characters for
// encode64, at most 3 * n / 4 + 1 bytes for decode64 (both end their output
// with a NUL that the returned count leaves out).
#pragma once

#include <cstddef>

#include "qkExport.h"

// "A".."Z", "a".."z", "0".."9", "+", "/" and the terminating NUL.
QK_EXPORT_C char const qkMime64[65];

// Encodes the n bytes at in; returns the characters written. n <= 0 writes
// only the NUL.
QK_EXPORT_C int encode64(char const* in, int n, char* out);
// Decodes the n characters at in: characters whose code as a signed char is
// 32 or less (blanks, line breaks, control characters, bytes from 0x80) are
// skipped, and the first "=" ends the text. Meant for text isBase64
// accepted: any other character outside the alphabet counts as "A".
// Returns the bytes written.
QK_EXPORT_C int decode64(char const* in, size_t n, char* out);
// 1 when the n characters at s are acceptable Base64: n a multiple of 4
// (skipped characters count), only alphabet characters before the first
// "=", and that "=" (if any) among the last two, the last one being "="
// too when it is the second last.
QK_EXPORT_C int isBase64(char const* s, size_t n);
