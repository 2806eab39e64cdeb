// String keys and blob records: the readers (stored -1 is null, every
// truncation fails, a zero-length record is not null), ordering and prefix
// matching against std::string, and copies independent of their source.
// Each object is one block freed by release(); the sanitizer build catches
// leaks and double frees.
#include <random>

#include "TagdbTestUtil.h"

using namespace tagdbtest;

namespace {

struct Pointing : TagdbStringKey {
    explicit Pointing(char const* s) : TagdbStringKey(s) {}
};

TEST(TagdbKey, ReadersTurnStoredFormsBackIntoObjects) {
    TempDir dir;
    std::string path = dir / "kv";
    // (key, record) pairs: text and bytes, empty text and zero bytes, the
    // empty instances.
    Bytes stored = cat({le(3, 4), sz("ab"), le(2, 4), Bytes{7, 0}, le(1, 4), sz(""), le(0, 4),
                        le(-1, 4), le(-1, 4)});
    writeFile(path, stored);
    TagdbLocalFile f;
    ASSERT_EQ(f.open(path.c_str(), T::ReadMode), T::Ok);
    std::vector<std::string> back;
    for (int i = 0; i < 3; ++i) {
        TagdbKey* k = nullptr;
        TagdbRecord* r = nullptr;
        ASSERT_EQ(TagdbStringKey::newInstance(k, &f, nullptr), T::Ok);
        ASSERT_EQ(TagdbBlobRecord::newInstance(r, &f, nullptr), T::Ok);
        back.push_back(text(k) + "=" + (r ? "[" + text(r) + "]" : "none"));
        if (k) k->release();
        if (r) r->release();
    }
    EXPECT_EQ(back, (std::vector<std::string>{"ab=[" + std::string("\7\0", 2) + "]", "=[]",
                                              "<null>=none"}));
    for (size_t cut = 0; cut < 13; ++cut) {  // every cut of the first pair fails it
        writeFile(path, Bytes(stored.begin(), stored.begin() + static_cast<long>(cut)));
        ASSERT_EQ(f.open(path.c_str(), T::ReadMode), T::Ok);
        TagdbKey* k = nullptr;
        TagdbRecord* r = nullptr;
        T::Status st = TagdbStringKey::newInstance(k, &f, nullptr);
        if (st == T::Ok) st = TagdbBlobRecord::newInstance(r, &f, nullptr);
        EXPECT_EQ(st, T::Failed) << "cut at " << cut;
        if (k) k->release();
        EXPECT_EQ(r, nullptr);
    }
}

TEST(TagdbKey, OrderAndPrefixMatchAgreeWithStdString) {
    static char const alphabet[] = {'a', 'b', '\x01', '\x7f', '\x80', '\xff'};
    std::mt19937 rng(3);
    auto randomText = [&] {
        std::string s(rng() % 5, 'a');
        for (char& c : s)
            c = alphabet[rng() % sizeof alphabet];
        return s;
    };
    for (int i = 0; i < 20000; ++i) {
        std::string a = randomText(), b = randomText();
        TagdbKey* ka = key(a);
        TagdbKey* kb = key(b);
        if (i % 2) {  // a copy outlives its original
            TagdbKey* c = kb->copy();
            kb->release();
            kb = c;
        }
        int expected = a.compare(b);
        ASSERT_EQ((ka->compare(kb) > 0) - (ka->compare(kb) < 0), (expected > 0) - (expected < 0))
            << a << " vs " << b;
        ASSERT_EQ(ka->match(kb), b.compare(0, a.size(), a) == 0 ? 1 : 0) << a << " vs " << b;
        ka->release();
        kb->release();
    }
    // A key over the caller's text follows it; its copy does not.
    char buf[] = "ab";
    Pointing p(buf);
    TagdbKey* c = p.copy();
    buf[1] = 'z';
    TagdbKey* abc = key("abc");
    EXPECT_EQ(p.match(abc), 0);
    EXPECT_EQ(c->match(abc), 1);
    c->release();
    abc->release();
}

}  // namespace
