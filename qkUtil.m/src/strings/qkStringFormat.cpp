// The formatting engine behind qkString::sprintf and vsprintf.
//
// The engine walks the format itself and hands the C runtime one directive
// at a time, each into a temporary sized from its argument, so that the
// result can be of any length and the set of conversions stays fixed: a
// format with any other conversion is refused as a whole and the target
// string keeps its text.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "strings/qkStringInternal.h"

using namespace qk::str;

namespace {

// A directive's flags, width and precision are passed on to the C runtime
// unchanged; the numbers parsed here only size the temporary.
struct Directive {
    char const* start;  // the "%"
    char const* conv;   // the conversion character
    int64_t width;      // 0 when absent
    int64_t precision;  // 6 when there is no "."
    bool hasPrecision;
};

// A run of decimal digits; saturates instead of overflowing (the C runtime
// refuses such widths itself, and the engine then refuses the format).
int64_t readNumber(char const*& p) {
    int64_t n = 0;
    while (*p >= '0' && *p <= '9') {
        n = n * 10 + (*p++ - '0');
        if (n > INT32_MAX) n = int64_t{INT32_MAX} + 1;
    }
    return n;
}

Directive parseDirective(char const* percent) {
    Directive d{percent, nullptr, 0, 6, false};
    char const* p = percent + 1;
    while (*p == ' ' || *p == '#' || *p == '+' || *p == '-')
        ++p;
    d.width = readNumber(p);
    if (*p == '.') {
        ++p;
        d.precision = readNumber(p);
        d.hasPrecision = true;
    }
    d.conv = p;
    return d;
}

// How a byte >= 0x80 of the format is read, decided once per call from LANG.
enum class Lang { Unknown, C, SJIS, Other };

Lang readLang() {
    char const* lang = std::getenv("LANG");
    if (!lang || std::strcmp(lang, "C") == 0) return Lang::C;
    return std::strcmp(lang, "SJIS") == 0 ? Lang::SJIS : Lang::Other;
}

bool isSingleByte(Lang lang, unsigned char b) {
    return lang == Lang::C || (lang == Lang::SJIS && b >= 0xA0 && b <= 0xDF);
}

unsigned decimalDigits(int v) {
    char digits[16];
    return static_cast<unsigned>(std::snprintf(digits, sizeof digits, "%d", v));
}

// The size the temporary of a floating directive gets: the integer digits
// the value's magnitude needs plus the precision (or the width, if larger),
// and room for sign, point and exponent.
int64_t doubleSize(Directive const& d, double v) {
    double a = std::fabs(v);
    int64_t exponent = a > 0 && std::isfinite(a) ? static_cast<int64_t>(std::log10(a)) : 0;
    int64_t n = exponent + 1 + d.precision;
    return (d.width > n ? d.width : n) + 7;
}

int64_t max3(int64_t a, int64_t b, int64_t c) {
    int64_t m = a > b ? a : b;
    return m > c ? m : c;
}

}  // namespace

int qkString::sprintf(char const* format, ...) {
    va_list ap;
    va_start(ap, format);
    int r = vsprintf(format, ap);
    va_end(ap);
    return r;
}

namespace {

// Formats one value with the C runtime into tmp, sized first to `size` bytes
// and enlarged when the C runtime needs more (the size is an estimate for
// the unusual cases, such as a long precision on a tiny value). Returns the
// number of bytes, or -1 when the C runtime or the size limit refuses.
template <class T>
int64_t runtimeFormat(qkString& tmp, int64_t size, char const* directive, T value) {
    if (size > kMaxText) return -1;
    tmp.resize(static_cast<unsigned>(size), 0);
    int n = std::snprintf(tmp.head(), tmp.size(), directive, value);
    if (n >= 0 && static_cast<unsigned>(n) >= tmp.size()) {
        tmp.resize(static_cast<unsigned>(n), 0);
        n = std::snprintf(tmp.head(), tmp.size(), directive, value);
    }
    return n;
}

}  // namespace

// The engine's access to qkString's appending of byte ranges.
struct qkStringFormatter {
    static void appendRange(qkString& s, char const* from, char const* to) {
        unsigned len = static_cast<unsigned>(to - from);
        if (len) s.append(&from, &len, 1);
    }
    static bool formatDirective(Directive const& d, va_list* ap, qkString& result);
    static int format(qkString& s, char const* format, va_list* ap);
};

// Formats the directive d, taking its argument from ap, and appends the
// output to result. False for an unknown conversion or a directive the C
// runtime refuses.
bool qkStringFormatter::formatDirective(Directive const& d, va_list* ap, qkString& result) {
    // The directive as the C runtime sees it. "%S" is a narrow text here: it
    // goes to the C runtime as "%s" (where "%S" would mean a wide one).
    qkString directive;
    unsigned dirLen = static_cast<unsigned>(d.conv - d.start + 1);
    appendRange(directive, d.start, d.conv + 1);
    char conv = *d.conv;
    if (conv == 'S') directive[dirLen - 1] = 's';
    char const* dir = directive;

    qkString tmp;
    int64_t n;
    switch (conv) {
        case 'c':
        case 'C': {
            char c = static_cast<char>(va_arg(*ap, int));
            if (c) result += c;
            return true;
        }
        case 'd':
        case 'i': {
            int v = va_arg(*ap, int);
            n = runtimeFormat(tmp, max3(d.width, d.precision, decimalDigits(v)) + 4, dir, v);
            break;
        }
        case 'o':
        case 'u':
        case 'x':
        case 'X': {
            int v = va_arg(*ap, int);
            n = runtimeFormat(tmp, max3(d.width, d.precision, decimalDigits(v)) + 4, dir,
                              static_cast<unsigned>(v));
            break;
        }
        case 'e':
        case 'E':
        case 'f':
        case 'g':
        case 'G': {
            double v = va_arg(*ap, double);
            n = runtimeFormat(tmp, doubleSize(d, v), dir, v);
            break;
        }
        case 's':
        case 'S': {
            char const* s = va_arg(*ap, char const*);
            if (!s) return true;
            // With a precision the C runtime reads no further than it, and
            // neither may we: the text need not be terminated.
            size_t len =
                d.hasPrecision ? strnlen(s, static_cast<size_t>(d.precision)) : std::strlen(s);
            n = runtimeFormat(tmp, (d.width > int64_t(len) ? d.width : int64_t(len)) + 1, dir, s);
            break;
        }
        case 'p': {
            void* v = va_arg(*ap, void*);
            n = runtimeFormat(tmp, 16, "%016llX",
                              static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(v)));
            break;
        }
        default:
            return false;
    }
    if (n < 0 || result.length() + static_cast<uint64_t>(n) > kMaxText) return false;
    char const* text = tmp;
    appendRange(result, text, text + n);
    return true;
}

int qkString::vsprintf(char const* format, va_list ap) {
    if (!format) return 0;
    // A copy the directives can share: each takes its argument from it.
    va_list args;
    va_copy(args, ap);
    int ok = qkStringFormatter::format(*this, format, &args);
    va_end(args);
    return ok;
}

// Walks the format, copying literal text and formatting each directive into
// a result that replaces s's text only when the whole format succeeded.
int qkStringFormatter::format(qkString& s, char const* format, va_list* ap) {
    qkString result;
    Lang lang = Lang::Unknown;
    char const* segment = format;  // start of the literal text not yet copied
    char const* p = format;
    while (*p) {
        unsigned char b = static_cast<unsigned char>(*p);
        if (b >= 0x80) {
            if (lang == Lang::Unknown) lang = readLang();
            ++p;
            // A lead byte takes its trail byte with it, so a trail byte is
            // never read as "%" or "\".
            if (!isSingleByte(lang, b) && *p) ++p;
            continue;
        }
        if (b == '\\') {
            ++p;
            if (*p) ++p;
            continue;
        }
        if (b != '%') {
            ++p;
            continue;
        }
        qkStringFormatter::appendRange(result, segment, p);
        Directive d = parseDirective(p);
        if (!qkStringFormatter::formatDirective(d, ap, result)) return 0;
        p = d.conv + 1;
        segment = p;
    }
    qkStringFormatter::appendRange(result, segment, p);
    s = result;
    return 1;
}
