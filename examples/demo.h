// Sections of the example host; each shows one subsystem at work.
#pragma once

void hostStartup();
void demoThreads();
void demoStrings();
void demoLists();
void demoValues();
void demoQueries();
void demoKeys();
void demoRowSets();
void demoMemory();
void demoMemoryDebug();
void demoTagdb();
