// qkdemo: the example host. It plays the part of the application server
// that links qkUtil and walks through the library's subsystems in turn.
#include <cstdio>

#include "demo.h"

int main() {
    std::printf("qkUtil example host\n");
    hostStartup();
    demoThreads();
    demoStrings();
    demoLists();
    demoValues();
    demoQueries();
    demoKeys();
    demoRowSets();
    demoMemory();
    demoMemoryDebug();
    demoTagdb();
    std::printf("\ndone.\n");
    return 0;
}
