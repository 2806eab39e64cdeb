// Strings: short texts inside the object, long ones shared by reference
// count on their thread and copied when one sharer writes, another thread
// taking its own copy, and the formatting engine.
#include <cstdio>
#include <thread>

#include "demo.h"
#include "qkString.h"

namespace {

void show(char const* label, qkString const& s) {
    std::printf("  %-10s \"%s\" (length %u, capacity %u)\n", label, s.sanitize(), s.length(),
                s.size());
}

}  // namespace

void demoStrings() {
    std::printf("\n== Strings: qkString sharing, copy on write, sprintf ==\n");
    qkString shortText("kept inside the object");
    show("short", shortText);

    qkString table("customer_orders_by_region_and_quarter");
    qkString copy = table;  // same thread: shares the heap text
    std::printf("  copy shares the text of table: %s\n",
                copy.sanitize() == table.sanitize() ? "yes" : "no");
    copy += "_archive";  // the writer gets a text of its own
    show("table", table);
    show("copy", copy);

    // Another thread never shares this thread's text: it copies.
    bool sharedAcross = true;
    std::thread other([&] {
        qkString mine = table;
        sharedAcross = mine.sanitize() == table.sanitize();
    });
    other.join();
    std::printf("  a string made from it on another thread shares it: %s\n",
                sharedAcross ? "yes" : "no");

    qkString line;
    line.sprintf("%s=%d (%.2f) [%-6s] %08X %p", "rows", 42, 3.14159, "ok", 48879,
                 static_cast<void*>(&line));
    show("formatted", line);
    int accepted = line.sprintf("100%% done");  // no %% directive: refused
    std::printf("  \"100%%%% done\" accepted: %d, text unchanged: \"%s\"\n", accepted,
                line.sanitize());

    qkString pattern("cust*_?rder%"), sql;
    unsigned char escaped = pattern.prepareSQL(sql);
    std::printf("  wildcard pattern %s as SQL: %s (escaped: %d)\n", pattern.sanitize(),
                sql.sanitize(), escaped);

    qkString utf8;
    utf8.convertToUTF8FromUnicode(u"Gr\u00FC\u00DFe \U0001F600");
    std::printf("  from UTF-16: %s (%u bytes)\n", utf8.sanitize(), utf8.length());
}
