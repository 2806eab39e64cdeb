// Iterators against a model: random prefixes, with the tree changed under
// the iterator between steps (deletes and replacements through it, inserts
// and deletes around it, lookups that evict its nodes). Every step must land
// on the model's next key above the last one visited: nothing above the
// current key is skipped or repeated, nothing below it comes back.
#include <memory>
#include <random>

#include "TagdbItr.h"
#include "TagdbTestUtil.h"

using namespace tagdbtest;

namespace {

using Content = std::map<std::string, std::string>;

bool inRange(Content::iterator it, Content& m, std::string const& prefix) {
    return it != m.end() && it->first.compare(0, prefix.size(), prefix) == 0;
}

std::string valueOf(TagdbItr& it) {
    void const* data = nullptr;
    int n = 0;
    EXPECT_EQ(it.get(data, n), T::Ok);
    return data ? std::string(static_cast<char const*>(data), static_cast<size_t>(n)) : "<none>";
}

class ItrModel {
  public:
    ItrModel(int maxEntries, int cacheSize, unsigned seed)
        : rng_(seed), db_(cacheSize, maxEntries) {
        openStore(db_, dir_ / "s");
    }

    void run(int rounds) {
        ASSERT_EQ(db_.start(T::Update), T::Ok);
        for (int i = 0; i < 250; ++i)
            insertRandom();
        ASSERT_EQ(db_.commit(), T::Ok);  // the walk starts from nodes on disk
        ASSERT_EQ(db_.start(T::Update), T::Ok);
        for (int round = 0; round < rounds && !testing::Test::HasFailure(); ++round) {
            SCOPED_TRACE("round " + std::to_string(round));
            walkOnce(randomKey(rng_() % 3));
            if (round % 5 == 4) {
                ASSERT_EQ(db_.commit(), T::Ok);
                ASSERT_EQ(db_.start(T::Update), T::Ok);
            }
        }
        db_.abort();
    }

  private:
    std::string randomKey(size_t length) {
        std::string k(length, 'a');
        for (char& c : k)
            c = "abc"[rng_() % 3];
        return k;
    }

    void insertRandom(std::string const& avoid = "\x01") {
        std::string k = randomKey(1 + rng_() % 4);
        if (k == avoid) return;
        std::string v = std::to_string(rng_() % 1000);
        ASSERT_EQ(db_.set(k.c_str(), v.c_str()), T::Ok);
        model_[k] = v + '\0';
    }

    void walkOnce(std::string const& prefix) {
        SCOPED_TRACE("prefix \"" + prefix + "\"");
        TagdbItr it(&db_, prefix.c_str());
        std::string cur;
        bool started = false;
        for (int guard = 0; guard < 2000; ++guard) {
            int more = -1;
            ASSERT_EQ(it.next(more), T::Ok);
            auto expected = started ? model_.upper_bound(cur) : model_.lower_bound(prefix);
            if (!inRange(expected, model_, prefix)) {
                ASSERT_EQ(more, 0) << "after " << cur << " visited " << text(it.getKey());
                break;
            }
            ASSERT_EQ(more, 1) << "ended early; expected " << expected->first;
            ASSERT_EQ(text(it.getKey()), expected->first) << log_;
            ASSERT_EQ(valueOf(it), expected->second);
            cur = expected->first;
            started = true;
            disturb(it, cur);
        }
        int more = -1;
        EXPECT_EQ(it.next(more), T::Ok);  // the end stays the end
        EXPECT_EQ(more, 0);
    }

    // Zero to three changes between two steps of the iterator.
    void disturb(TagdbItr& it, std::string const& cur) {
        bool curDeleted = false;
        log_ += "\nat " + cur + ":";
        for (int n = static_cast<int>(rng_() % 4); n > 0; --n) {
            unsigned op = rng_() % 6;
            log_ += " " + std::to_string(op);
            switch (op) {
                case 0:
                    if (curDeleted) break;
                    ASSERT_EQ(it.set(static_cast<TagdbRecord*>(nullptr)), T::Ok);
                    model_.erase(cur);
                    curDeleted = true;
                    break;
                case 1: {
                    if (curDeleted) break;
                    std::string v = "r" + std::to_string(rng_() % 100);
                    ASSERT_EQ(it.set(v.c_str()), T::Ok);
                    model_[cur] = v + '\0';
                    ASSERT_EQ(valueOf(it), model_[cur]);
                    break;
                }
                case 2:
                case 3:
                    insertRandom(curDeleted ? cur : "\x01");
                    break;
                case 4: {
                    std::string k = randomKey(1 + rng_() % 4);
                    ASSERT_EQ(db_.set(k.c_str(), static_cast<TagdbRecord*>(nullptr)), T::Ok);
                    model_.erase(k);
                    if (k == cur) curDeleted = true;
                    break;
                }
                case 5: {  // a lookup: loads nodes, may evict the iterator's
                    char const* v = nullptr;
                    std::string k = randomKey(1 + rng_() % 4);
                    ASSERT_EQ(db_.get(k.c_str(), v), T::Ok);
                    auto found = model_.find(k);
                    ASSERT_EQ(v ? std::string(v) + '\0' : "<none>",
                              found == model_.end() ? "<none>" : found->second);
                    break;
                }
            }
        }
    }

    std::mt19937 rng_;
    TempDir dir_;
    Tagdb db_;
    Content model_;
    std::string log_;
};

class TagdbItrModel : public testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(TagdbItrModel, WalksMatchTheModelWhileTheTreeChanges) {
    auto [maxEntries, cacheSize] = GetParam();
    ItrModel(maxEntries, cacheSize, 104729u * maxEntries + cacheSize).run(60 * soakFactor());
}

INSTANTIATE_TEST_SUITE_P(NodeAndCacheSizes, TagdbItrModel,
                         testing::Values(std::make_tuple(3, 1), std::make_tuple(4, 2),
                                         std::make_tuple(7, 3), std::make_tuple(512, 32)));

// In a Deferred transaction changes through the iterator go to the log; the
// walk itself sees the committed tree, and the commit applies them.
TEST(TagdbItr, DeferredChangesApplyAtCommit) {
    TempDir dir;
    Tagdb db(2, 3);
    openStore(db, dir / "s");
    ASSERT_EQ(db.start(T::Update), T::Ok);
    for (char const* k : {"a", "ab", "ab1", "abc", "b"})
        ASSERT_EQ(db.set(k, k), T::Ok);
    ASSERT_EQ(db.commit(), T::Ok);
    ASSERT_EQ(db.start(T::Deferred), T::Ok);
    std::vector<std::string> seen;
    {
        TagdbItr it(&db, "ab");
        int more = 0;
        while (it.next(more) == T::Ok && more) {
            seen.push_back(text(it.getKey()));
            ASSERT_EQ(seen.size() == 2 ? it.set(static_cast<char const*>(nullptr)) : it.set("X"),
                      T::Ok);
        }
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"ab", "ab1", "abc"}));
    ASSERT_EQ(db.commit(), T::Ok);
    ASSERT_EQ(db.start(T::Update), T::Ok);
    std::map<std::string, std::string> after;
    TagdbItr all(&db, nullptr);
    int more = 0;
    while (all.next(more) == T::Ok && more) {
        char const* v = nullptr;
        all.get(v);
        after[text(all.getKey())] = v;
    }
    EXPECT_EQ(after, (std::map<std::string, std::string>{
                         {"a", "a"}, {"ab", "X"}, {"abc", "X"}, {"b", "b"}}));
    db.abort();
}

// Outside a transaction an iterator refuses; once its store is closed it
// reports NotOpen; a copy walks on independently of the original.
TEST(TagdbItr, LifecycleAndCopies) {
    TempDir dir;
    Tagdb db(2, 3);
    openStore(db, dir / "s");
    TagdbItr early(&db, "");
    int more = 0;
    EXPECT_EQ(early.next(more), T::NoTransaction);
    ASSERT_EQ(db.start(T::Update), T::Ok);
    for (char const* k : {"k1", "k2", "k3", "k4", "k5"})
        ASSERT_EQ(db.set(k, k), T::Ok);
    ASSERT_EQ(early.next(more), T::Ok);
    ASSERT_EQ(more, 1);
    ASSERT_EQ(early.next(more), T::Ok);  // on k2
    TagdbItr copy(early);
    ASSERT_EQ(copy.next(more), T::Ok);
    EXPECT_EQ(text(copy.getKey()), "k3");
    ASSERT_EQ(copy.next(more), T::Ok);
    EXPECT_EQ(text(early.getKey()), "k2");
    ASSERT_EQ(early.next(more), T::Ok);
    EXPECT_EQ(text(early.getKey()), "k3");
    early = copy;
    ASSERT_EQ(early.next(more), T::Ok);
    EXPECT_EQ(text(early.getKey()), "k5");
    db.close();
    EXPECT_EQ(early.next(more), T::NotOpen);
    EXPECT_EQ(copy.set("x"), T::NotOpen);
    TagdbRecord* r = nullptr;
    EXPECT_EQ(copy.get(r), T::Ok);
    EXPECT_EQ(r, nullptr);
}

}  // namespace
