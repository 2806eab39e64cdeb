// The tokenizer against a plain split: the first byte gives the number of
// delimiter bytes that follow, the rest is the text.
#include <string>
#include <vector>

#include "FuzzCheck.h"
#include "qkVersion.h"

using qkfuzz::require;

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    if (size == 0) return 0;
    size_t nd = data[0] % 8;
    if (nd + 1 > size) return 0;
    std::string delims(reinterpret_cast<char const*>(data + 1), nd);
    std::string text(reinterpret_cast<char const*>(data + 1 + nd), size - 1 - nd);
    delims.resize(delims.find('\0') == std::string::npos ? delims.size() : delims.find('\0'));
    text.resize(text.find('\0') == std::string::npos ? text.size() : text.find('\0'));

    std::vector<std::string> want;
    std::string token;
    for (char c : text) {
        if (delims.find(c) != std::string::npos) {
            if (!token.empty()) want.push_back(token), token.clear();
        } else {
            token += c;
        }
    }
    if (!token.empty()) want.push_back(token);

    std::vector<std::string> got;
    std::string work = text;
    char* save = work.data();
    for (char* t = KorSysStrtok(work.data(), delims.c_str(), &save); t;
         t = KorSysStrtok(nullptr, delims.c_str(), &save)) {
        require(got.size() <= text.size(), "tokens end");
        got.emplace_back(t);
    }
    require(got == want, "tokens as split");
    return 0;
}
