// tagdb: looking into and maintaining tag database stores.
#include "tagdb_tool.h"

int main(int argc, char** argv) {
    return tagdbtool::run(argc, argv);
}
