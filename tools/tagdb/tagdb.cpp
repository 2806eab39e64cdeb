// tagdb: inspection and maintenance of tag database stores.
#include "tagdb_tool.h"

int main(int argc, char** argv) {
    return tagdbtool::run(argc, argv);
}
