// FlashKey and FlashKeyList: a random model test of the text, the three
// storage forms and every allocation against std::string; numbers and dates
// against printf; lists against a splitting oracle.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "qkFlashKey.h"
#include "qkMemory.h"
#include "qkSuperSetKey.h"
#include "qkTimebase.h"

namespace {

// The form as the two words show it.
enum class Form { Empty, Inline, Outside };

Form formOf(FlashKey const& k) {
    uint64_t w[2];
    std::memcpy(w, &k, sizeof w);
    if (w[0] != 0) return Form::Inline;
    return w[1] ? Form::Outside : Form::Empty;
}

char* bufferOf(FlashKey const& k) {
    char* p;
    std::memcpy(&p, reinterpret_cast<char const*>(&k) + 8, sizeof p);
    return p;
}

std::string hexOracle(int v, bool fixed) {
    char b[16];
    std::snprintf(b, sizeof b, fixed ? "%08x" : "%x", static_cast<unsigned>(v));
    return b;
}

std::string dateOracle(qkSQLnull_timestamp const& t) {
    if (t.nullIndicator) return "@";
    char b[64];
    auto const& s = t.timestamp;
    std::snprintf(b, sizeof b, "%04d.%02d.%02d.%02d.%02d.%02d", s.year, s.month, s.day, s.hour,
                  s.minute, s.second);
    return b;
}

// The key under test and what it should hold: its text, and how many
// buffers it should have allocated or regrown so far.
struct Model {
    SuperSetKey key;  // a FlashKey with trim
    std::string text;
    uint64_t allocations = 0;
    uint64_t allocationsAtStart = FlashKey::allocations();

    // An append from cursor `pos` of n bytes regrows exactly when the text
    // crosses a multiple of 16.
    void expectAppend(size_t pos, std::string const& added) {
        if (pos == 0) text.clear();
        if ((pos + added.size()) / 16 > pos / 16) ++allocations;
        text += added;
    }
    void expectSet(std::string const& s) {
        text = s;
        if (s.size() >= 16) ++allocations;
    }

    void check(char const* what) {
        ASSERT_EQ(std::string(static_cast<char const*>(key)), text) << what;
        ASSERT_EQ(FlashKey::allocations() - allocationsAtStart, allocations) << what;
        Form f = formOf(key);
        if (text.size() >= 16) {
            ASSERT_EQ(f, Form::Outside) << what;
        }
        if (f == Form::Outside) {
            // The capacity rule: the buffer holds ((L / 16) + 1) * 16 bytes
            // (the manager knows its blocks' sizes; the C heap's are not asked).
            if (qkMemory::getManager()) {
                ASSERT_GE(qkMemSize(bufferOf(key)), (text.size() / 16 + 1) * 16) << what;
            }
        } else {
            ASSERT_EQ(key.hasKey() != 0, f == Form::Inline) << what;
        }
        if (f == Form::Empty) {
            ASSERT_TRUE(text.empty()) << what;
        }
    }
};

std::string randomText(std::mt19937& rng, size_t maxLength) {
    std::string s(rng() % (maxLength + 1), ' ');
    for (char& c : s)
        c = char(0x20 + rng() % 0x5f);
    return s;
}

qkSQLnull_timestamp randomDate(std::mt19937& rng) {
    qkSQLnull_timestamp t{};
    t.nullIndicator = rng() % 5 == 0;
    t.timestamp.year = uint16_t(rng() % 4 == 0 ? rng() : rng() % 10000);
    t.timestamp.month = uint16_t(rng() % 13);
    t.timestamp.day = uint16_t(rng() % 32);
    t.timestamp.hour = uint16_t(rng() % 24);
    t.timestamp.minute = uint16_t(rng() % 60);
    t.timestamp.second = uint16_t(rng() % 3 == 0 ? rng() : rng() % 60);
    return t;
}

int randomInt(std::mt19937& rng) {
    static int const edges[] = {0, 1, -1, 15, 16, 255, 256, INT_MAX, INT_MIN, 0x0fffffff};
    return rng() % 3 == 0 ? edges[rng() % 10] : static_cast<int>(rng() >> (rng() % 32));
}

// One random operation on the model's key, with the cursor kept in step.
void step(Model& m, int& pos, std::mt19937& rng) {
    char const tags[] = {0, 0, FlashKey::kFieldTag, FlashKey::kListTag, 'O'};
    char tag = tags[rng() % 5];
    std::string tagText = tag ? std::string(1, tag) : "";
    switch (rng() % 10) {
        case 0:
        case 1: {
            std::string s = randomText(rng, rng() % 4 == 0 ? 70 : 12);
            bool null = rng() % 6 == 0;
            m.expectAppend(size_t(pos), tagText);
            if (!null) m.expectAppend(m.text.size(), s);
            m.key.addString(pos, tag, null ? nullptr : s.c_str());
            break;
        }
        case 2: {
            int v = randomInt(rng);
            bool fixed = rng() % 2;
            m.expectAppend(size_t(pos), tagText + hexOracle(v, fixed));
            m.key.addInt(pos, tag, v, fixed);
            break;
        }
        case 3: {
            qkSQLnull_timestamp t = randomDate(rng);
            m.expectAppend(size_t(pos), tagText + dateOracle(t));
            m.key.addDate(pos, tag, t);
            break;
        }
        case 4: {
            std::string s = randomText(rng, 40);
            m.expectSet(s);
            m.key.set(rng() % 8 == 0 && s.empty() ? nullptr : s.c_str());
            pos = int(s.size());
            break;
        }
        case 5: {
            // A tail of the key's own text.
            size_t from = m.text.empty() ? 0 : rng() % m.text.size();
            m.expectSet(m.text.substr(from));
            m.key.set(m.key.head() + from);
            pos = int(m.text.size());
            break;
        }
        case 6: {
            size_t cut = m.text.rfind(FlashKey::kFieldTag);
            ASSERT_EQ(m.key.trim() != 0, cut != std::string::npos);
            if (cut != std::string::npos) m.text.resize(cut);
            pos = int(m.text.size());
            break;
        }
        case 7: {
            SuperSetKey copy;
            copy = m.key;  // copied into storage of its own
            ASSERT_STREQ(copy, m.key);
            if (m.text.size() >= 16) {
                ASSERT_NE(bufferOf(copy), bufferOf(m.key));
                ++m.allocations;
            }
            m.key = std::move(copy);  // takes the copy's buffer: no allocation
            break;
        }
        case 8:
            if (rng() % 4 == 0) {
                m.key.reset();
                m.text.clear();
                pos = 0;
            }
            break;
        default:
            pos = rng() % 6 == 0 ? 0 : pos;  // a cursor of 0 starts a new key
            m.expectAppend(size_t(pos), tagText);
            m.key.addString(pos, tag, nullptr);
            break;
    }
    ASSERT_EQ(size_t(pos), m.text.size());
}

TEST(FlashKey, RandomOperationsKeepTextFormsAndAllocationsInStep) {
    std::mt19937 rng(20261124);
    for (int round = 0; round < 300; ++round) {
        Model m;
        int pos = 0;
        for (int i = 0; i < 60; ++i) {
            ASSERT_NO_FATAL_FAILURE(step(m, pos, rng)) << "round " << round << " step " << i;
            ASSERT_NO_FATAL_FAILURE(m.check("after a step"));
        }
    }
}

TEST(FlashKey, CapacityAtTheInlineLimitInEveryForm) {
    for (size_t from : {0u, 14u, 15u, 16u, 31u, 32u, 47u}) {
        for (size_t added : {0u, 1u, 2u, 17u, 100u, 1000u}) {
            Model m;
            int pos = 0;
            std::string start(from, 'a');
            m.key.set(start.c_str());
            m.expectSet(start);
            pos = int(from);
            std::string more(added, 'b');
            m.expectAppend(size_t(pos), more);
            m.key.addString(pos, 0, more.c_str());
            ASSERT_NO_FATAL_FAILURE(m.check(
                ("from " + std::to_string(from) + " adding " + std::to_string(added)).c_str()));
            // A tag where pos + 1 is a multiple of 16 grows the buffer first.
            m.expectAppend(size_t(pos), "\x01");
            m.key.addString(pos, FlashKey::kFieldTag, nullptr);
            ASSERT_NO_FATAL_FAILURE(m.check("then a tag"));
        }
    }
}

TEST(FlashKey, NumbersRoundTripAndMatchPrintf) {
    std::mt19937 rng(7);
    std::vector<int> values = {0, -1, 1, INT_MIN, INT_MAX, 255, 256, 0x7fffffff, 0x10};
    for (int i = 0; i < 20000; ++i)
        values.push_back(static_cast<int>(rng() >> (rng() % 32)));
    char buf[12];
    for (int v : values) {
        for (unsigned char fixed : {0, 1}) {
            char const* digits = FlashKey::itoa(v, buf, sizeof buf, fixed);
            ASSERT_EQ(std::string(digits), hexOracle(v, fixed)) << v;
            ASSERT_EQ(digits + std::strlen(digits), buf + sizeof buf - 1) << "right-aligned";
            ASSERT_EQ(FlashKey::atoi(digits), v);
        }
    }
    // A buffer too short keeps the least significant digits; none at all is null.
    char small[4];
    EXPECT_STREQ(FlashKey::itoa(0x12345, small, sizeof small, 0), "345");
    EXPECT_EQ(FlashKey::itoa(1, small, 0, 0), nullptr);
}

TEST(FlashKey, AtoiReadsLowerCaseHexLikeStrtoulAndWraps) {
    std::mt19937 rng(11);
    char const alphabet[] = "0123456789abcdefABCDEFgx-+ ";
    for (int i = 0; i < 20000; ++i) {
        std::string s(rng() % 16, ' ');
        for (char& c : s)
            c = alphabet[rng() % (sizeof alphabet - 1)];
        // The oracle: the leading run of lower-case digits, read exactly
        // (at most 15 of them fit 64 bits), then cut to 32 bits.
        size_t n = s.find_first_not_of("0123456789abcdef");
        std::string run = s.substr(0, n);
        uint32_t expected =
            run.empty() ? 0 : static_cast<uint32_t>(std::strtoull(run.c_str(), nullptr, 16));
        ASSERT_EQ(static_cast<uint32_t>(FlashKey::atoi(s.c_str())), expected) << s;
    }
    EXPECT_EQ(FlashKey::atoi("1F"), 1);
    EXPECT_EQ(FlashKey::atoi(nullptr), 0);
}

TEST(FlashKey, FieldTextsOfTheKnownCases) {
    FlashKey k;
    int pos = 0;
    k.addInt(pos, FlashKey::kFieldTag, 255, 0);
    EXPECT_STREQ(k,
                 "\x01"
                 "ff");
    EXPECT_EQ(pos, 3);
    pos = 0;
    k.addInt(pos, FlashKey::kFieldTag, 255, 1);
    EXPECT_STREQ(k,
                 "\x01"
                 "000000ff");
    EXPECT_EQ(pos, 9);

    pos = 0;
    k.setGroup(pos, 3, 123456);
    EXPECT_STREQ(k, "CXB,");
    pos = 0;
    k.setGroup(pos, 3, 0);
    EXPECT_STREQ(k, "C   ");

    qkTimebase date(2024, 3, 5, 7, 8, 9.0f);
    pos = 0;
    k.addDate(pos, 0, date);
    EXPECT_STREQ(k, "2024.03.05.07.08.09");
    qkTimebase null;  // null by default
    pos = 0;
    k.addDate(pos, 0, null);
    EXPECT_STREQ(k, "@");

    k.set(nullptr);
    EXPECT_FALSE(k.hasKey());
    k.set("");
    EXPECT_FALSE(k.hasKey());
    EXPECT_STREQ(k, "");
}

// Every version below one million reads back from its three digit bytes.
TEST(FlashKey, GroupTextTellsAllVersionsApart) {
    for (int version = 0; version < 1000000; version += 7) {
        FlashKey k;
        int pos = 0;
        k.setGroup(pos, version % 150, version);
        ASSERT_EQ(pos, 4);
        auto const* b = reinterpret_cast<unsigned char const*>(static_cast<char const*>(k));
        ASSERT_EQ(b[0], static_cast<unsigned char>('@' + version % 150));
        int decoded = (b[1] - 0x20) + 100 * (b[2] - 0x20) + 10000 * (b[3] - 0x20);
        ASSERT_EQ(decoded, version);
    }
    // A group whose byte is 0 writes nothing at all.
    FlashKey k;
    int pos = 0;
    k.setGroup(pos, -64, 5);
    EXPECT_EQ(pos, 0);
    EXPECT_FALSE(k.hasKey());
}

// The entries next() should give: split at 0x02; an empty last entry (and
// so an empty list) gives nothing.
std::vector<std::string> splitOracle(std::string const& text) {
    std::vector<std::string> out;
    size_t from = 0;
    while (from < text.size()) {
        size_t sep = text.find('\x02', from);
        if (sep == std::string::npos) sep = text.size();
        out.push_back(text.substr(from, sep - from));
        from = sep + 1;
    }
    return out;
}

TEST(FlashKeyList, AppendedEntriesReadBackInOrder) {
    std::mt19937 rng(3);
    for (int round = 0; round < 2000; ++round) {
        FlashKeyList list;
        std::string text;
        int n = rng() % 8;
        for (int i = 0; i < n; ++i) {
            std::string s = rng() % 4 == 0 ? "" : randomText(rng, 20);
            if (rng() % 2) {
                list.append(s.c_str());
                text += text.empty() ? s : "\x02" + s;
            } else {
                int pos = int(text.size());
                text += pos ? "\x02" + s : s;
                list.append(pos, s.c_str());
                ASSERT_EQ(size_t(pos), text.size());
            }
        }
        ASSERT_EQ(std::string(static_cast<char const*>(list)), text);
        std::vector<std::string> read;
        FlashKey entry;
        int pos = 0;
        while (list.next(pos, entry)) {
            read.push_back(static_cast<char const*>(entry));
            ASSERT_EQ(entry.hasKey() != 0, !read.back().empty());
        }
        ASSERT_EQ(read, splitOracle(text)) << "round " << round;
        ASSERT_EQ(size_t(pos), text.size());
    }
}

TEST(FlashKeyList, KnownListAndReadingIntoItself) {
    FlashKeyList list;
    list.append("ab");
    list.append("cd");
    EXPECT_STREQ(list,
                 "ab\x02"
                 "cd");
    FlashKey out;
    int pos = 0;
    ASSERT_TRUE(list.next(pos, out));
    EXPECT_STREQ(out, "ab");
    EXPECT_EQ(pos, 3);
    ASSERT_TRUE(list.next(pos, out));
    EXPECT_STREQ(out, "cd");
    EXPECT_EQ(pos, 5);
    EXPECT_FALSE(list.next(pos, out));
    EXPECT_STREQ(out, "cd");

    // The first entry of a long list read into the list itself.
    std::string first(40, 'x');
    list.set((first + "\x02" + std::string(30, 'y')).c_str());
    pos = 0;
    ASSERT_TRUE(list.next(pos, list));
    EXPECT_EQ(std::string(static_cast<char const*>(list)), first);
}

}  // namespace
