// UUID texts: any input is checked and parsed without harm; a text that
// isAnUuid accepts parses to the bytes that print back as that text.
#include <string>

#include "FuzzCheck.h"
#include "qkUuid.h"

using qkfuzz::require;

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    std::string text(reinterpret_cast<char const*>(data), size);
    text.resize(text.find('\0') == std::string::npos ? text.size() : text.find('\0'));
    qkString s(text.c_str());
    qkUuid parsed = qkUuid::fromHexaUuid(s);
    qkString printed;
    parsed.get(printed);
    require(isAnUuid(printed) == 1, "printed form accepted");
    require(qkUuid::fromHexaUuid(printed) == parsed, "printed form parses back");
    if (isAnUuid(s)) require(std::string(printed) == text, "accepted text round trip");
    char chaine[36], record[82];
    parsed.UUID_to_chaine(chaine);
    parsed.UUID_to_struct(record);
    return 0;
}
