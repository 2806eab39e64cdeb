// Base64: any bytes encode to text that isBase64 accepts and that decodes
// back to them; any input, taken as text, is checked and decoded within the
// promised output size.
#include <cstring>
#include <string>

#include "FuzzCheck.h"
#include "qkBase64.h"

using qkfuzz::require;

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    auto const* in = reinterpret_cast<char const*>(data);
    std::string text(4 * ((size + 2) / 3) + 1, '\0');
    int n = encode64(in, int(size), text.data());
    require(size_t(n) == 4 * ((size + 2) / 3), "encoded length");
    require(isBase64(text.data(), size_t(n)) == 1, "own encoding accepted");
    std::string back(3 * size_t(n) / 4 + 1, '\0');
    int m = decode64(text.data(), size_t(n), back.data());
    require(size_t(m) == size && std::memcmp(back.data(), in, size) == 0, "round trip");

    // The input as text: at most 3n/4 bytes and the NUL come out.
    std::string out(3 * size / 4 + 1, '\x5a');
    int k = decode64(in, size, out.data());
    require(k >= 0 && size_t(k) <= 3 * size / 4 && out[size_t(k)] == 0, "decoded size");
    int accepted = isBase64(in, size);
    require(accepted == 0 || accepted == 1, "isBase64 answers 0 or 1");
    if (accepted && size % 4 == 0) {
        // Accepted text without skipped characters or padding decodes to
        // exactly three bytes per four characters.
        bool plain = true;
        for (size_t i = 0; i < size; ++i)
            plain = plain && in[i] > 32 && in[i] != '=';
        if (plain) require(size_t(k) == 3 * size / 4, "plain text decodes fully");
    }
    return 0;
}
