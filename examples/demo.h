// Sections of the example host; each shows one subsystem at work.
#pragma once

void demoThreads();
void demoStrings();
void demoLists();
void demoMemory();
void demoTagdb();
