// Test helper: reads lines from standard input with qkString's operator>>
// until the stream fails and writes each as "[text]" on a line of its own.
// With the argument "nosync" standard input is first detached from stdio.
#include <cstring>
#include <iostream>

#include "qkString.h"

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "nosync") == 0) std::ios::sync_with_stdio(false);
    qkString s;
    while (std::cin >> s)
        std::cout << '[' << s << "]\n";
    return 0;
}
