// String keys and blob records: their stored forms byte for byte, the readers
// (a stored -1 is null, a short file fails), ordering and prefix matching
// against std::string, and ownership (each object one block, freed by
// release; the sanitizer build catches leaks and double frees).
#include <algorithm>
#include <random>

#include "TagdbTestUtil.h"

using namespace tagdbtest;

namespace {

Bytes le32(int v) {
    unsigned u = static_cast<unsigned>(v);
    return {static_cast<unsigned char>(u), static_cast<unsigned char>(u >> 8),
            static_cast<unsigned char>(u >> 16), static_cast<unsigned char>(u >> 24)};
}

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (Bytes const& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

struct Pointing : TagdbStringKey {
    explicit Pointing(char const* s) : TagdbStringKey(s) {}
};

TEST(TagdbKey, StoredFormsAndReadersRoundTrip) {
    TempDir dir;
    std::string path = dir / "keys";
    TagdbKey* empty = nullptr;
    TagdbRecord* emptyRec = nullptr;
    ASSERT_EQ(TagdbStringKey::newInstance(empty, nullptr, nullptr), TagdbCommon::Ok);
    ASSERT_EQ(TagdbBlobRecord::newInstance(emptyRec, nullptr, nullptr), TagdbCommon::Ok);
    ASSERT_TRUE(empty && emptyRec);

    std::vector<TagdbKey*> keys = {key("ab"), key(""), empty};
    char zeros[1] = {0};
    std::vector<TagdbRecord*> recs = {rec("x\0y"), Rec::newInstance(zeros, 0), emptyRec};
    TagdbLocalFile f;
    ASSERT_EQ(f.open(path.c_str(), TagdbCommon::WriteMode), TagdbCommon::Ok);
    for (size_t i = 0; i < keys.size(); ++i) {
        ASSERT_EQ(keys[i]->write(&f), TagdbCommon::Ok);
        ASSERT_EQ(recs[i]->write(&f), TagdbCommon::Ok);
    }
    ASSERT_EQ(f.close(), TagdbCommon::Ok);
    Bytes expected = cat({le32(3),
                          {'a', 'b', 0},
                          le32(1),
                          {'x'},  // rec("x\0y") is "x"
                          le32(1),
                          {0},
                          le32(0),  // empty text; 0 bytes
                          le32(-1),
                          le32(-1)});  // the empty instances
    EXPECT_EQ(readFile(path), expected);

    ASSERT_EQ(f.open(path.c_str(), TagdbCommon::ReadMode), TagdbCommon::Ok);
    std::vector<std::pair<std::string, std::string>> back;
    for (int i = 0; i < 3; ++i) {
        TagdbKey* k = nullptr;
        TagdbRecord* r = nullptr;
        ASSERT_EQ(TagdbStringKey::newInstance(k, &f, nullptr), TagdbCommon::Ok);
        ASSERT_EQ(TagdbBlobRecord::newInstance(r, &f, nullptr), TagdbCommon::Ok);
        back.emplace_back(text(k), text(r));
        if (k) k->release();
        if (r) r->release();
    }
    // A zero-length record is a record (with a buffer); -1 is no record.
    EXPECT_EQ(back, (std::vector<std::pair<std::string, std::string>>{
                        {"ab", "x"}, {"", ""}, {"<null>", "<null>"}}));
    for (TagdbKey* k : keys)
        k->release();
    for (TagdbRecord* r : recs)
        r->release();

    // Every truncation of a stored key or record fails the reader.
    Bytes one = cat({le32(4), {'a', 'b', 'c', 0}, le32(2), {7, 8}});
    for (size_t cut = 0; cut < one.size(); ++cut) {
        writeFile(path, Bytes(one.begin(), one.begin() + static_cast<long>(cut)));
        ASSERT_EQ(f.open(path.c_str(), TagdbCommon::ReadMode), TagdbCommon::Ok);
        TagdbKey* k = nullptr;
        TagdbRecord* r = nullptr;
        TagdbCommon::Status st = TagdbStringKey::newInstance(k, &f, nullptr);
        if (st == TagdbCommon::Ok) st = TagdbBlobRecord::newInstance(r, &f, nullptr);
        EXPECT_EQ(st, TagdbCommon::Failed) << "cut at " << cut;
        if (k) k->release();
        EXPECT_EQ(r, nullptr);
    }
}

std::string randomText(std::mt19937& rng) {
    static char const alphabet[] = {'a', 'b', '\x01', '\x7f', '\x80', '\xff'};
    std::string s;
    for (size_t n = rng() % 5; n > 0; --n)
        s.push_back(alphabet[rng() % sizeof alphabet]);
    return s;
}

int sign(int v) {
    return (v > 0) - (v < 0);
}

// compare is unsigned byte order and match is "begins with", as std::string
// sees them; both must hold for keys made, copied and read alike.
TEST(TagdbKey, OrderAndPrefixMatchAgreeWithStdString) {
    std::mt19937 rng(3);
    for (int i = 0; i < 20000; ++i) {
        std::string a = randomText(rng), b = randomText(rng);
        TagdbKey* ka = key(a);
        TagdbKey* kb = key(b);
        if (i % 2) {  // a copy outlives its original
            TagdbKey* c = kb->copy();
            kb->release();
            kb = c;
        }
        ASSERT_EQ(sign(ka->compare(kb)), sign(a.compare(b))) << a << " vs " << b;
        ASSERT_EQ(ka->match(kb), b.compare(0, a.size(), a) == 0 ? 1 : 0) << a << " vs " << b;
        ka->release();
        kb->release();
    }
    // A key over the caller's text matches without copying it, and its copy
    // is independent of that text.
    char buf[] = "ab";
    Pointing p(buf);
    TagdbKey* c = p.copy();
    buf[1] = 'z';
    TagdbKey* abc = key("abc");
    EXPECT_EQ(p.match(abc), 0);
    EXPECT_EQ(c->match(abc), 1);
    EXPECT_EQ(text(c), "ab");
    TagdbKey* empty = nullptr;
    ASSERT_EQ(TagdbStringKey::newInstance(empty, nullptr, nullptr), TagdbCommon::Ok);
    EXPECT_EQ(empty->match(abc), 1);
    c->release();
    abc->release();
    empty->release();
}

}  // namespace
