// Fuzz target: operations interleaved on a small cache over a store with
// one damaged leaf. The first byte chooses the damage (a leaf whose first
// two keys changed places, or the first leaf copied over another), the
// second the cache size (1 to 3) and the mode, and each following pair of
// bytes one operation: a step of the walk, a lookup, a set, a delete, a
// change through the iterator, a commit, an abort, or a reopen. Every walk
// must end within the number of keys plus the sets so far (each adds at
// most one), every key it returns must lie above the one before, and the check must find no
// problem at the end that it did not find at the start, outside the
// damaged leaf.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "TagdbFuzz.h"
#include "TagdbItr.h"

using namespace tagdbfuzz;

namespace {

constexpr int kKeys = 40;
constexpr size_t kMaxOperations = 256;

struct Damage {
    std::string file;
    long long id;
    Bytes bytes;
    long long keys;  // the damaged leaf's entries: keys it may add to a walk
};

Files pristine;
std::vector<Damage> damages;

int32_t intAt(Bytes const& b, size_t at) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i)
        v = v << 8 | b[at + static_cast<size_t>(i)];
    return static_cast<int32_t>(v);
}

// The offsets of a sound leaf file's key texts (the last entry has none).
std::vector<size_t> keyOffsets(Bytes const& b) {
    std::vector<size_t> out;
    size_t at = 12;
    for (int i = 0; i < intAt(b, 8); ++i) {
        int32_t length = intAt(b, at);
        if (length > 0) out.push_back(at + 4);
        at += 4 + static_cast<size_t>(length > 0 ? length : 0);
        int32_t n = intAt(b, at);
        at += 4 + static_cast<size_t>(n > 0 ? n : 0);
    }
    return out;
}

void makeDamages() {
    std::vector<std::pair<std::string, long long>> leaves;
    for (auto const& [name, id] : nodeFiles(pristine))
        if (intAt(pristine[name], 0) == TagdbNode::Leaf) leaves.emplace_back(name, id);
    require(leaves.size() >= 2, "the store has too few leaves");
    for (auto const& [name, id] : leaves) {
        Bytes b = pristine[name];
        std::vector<size_t> keys = keyOffsets(b);
        if (keys.size() >= 2) {  // the keys have the same length
            std::swap_ranges(b.begin() + static_cast<long>(keys[0]),
                             b.begin() + static_cast<long>(keys[0] + 4),
                             b.begin() + static_cast<long>(keys[1]));
            damages.push_back({name, id, b, 0});
        }
        if (name != leaves[0].first) {
            Bytes const& copy = pristine[leaves[0].first];
            damages.push_back({name, id, copy, intAt(copy, 8)});
        }
    }
    require(damages.size() < 256, "too many damaged variants for one byte");
}

// One input's run: the Tagdb, the walk in progress and the bound on it.
class Run {
  public:
    Run(int cacheSize, T::TransMode mode, long long keys)
        : cacheSize_(cacheSize), mode_(mode), keys_(keys) {
        reopen();
    }

    void apply(unsigned op, unsigned arg) {
        std::string k = key(static_cast<int>(arg % (kKeys + 4)));
        TagdbRecord* rec = nullptr;
        switch (op % 11) {
            case 0:
            case 1:
            case 2:
                step();
                break;
            case 3:
                db_->get(k.c_str(), rec);
                break;
            case 4:
                ++sets_;
                db_->set(k.c_str(), arg % 2 ? "odd" : "even");
                break;
            case 5:
                db_->set(k.c_str(), static_cast<char const*>(nullptr));
                break;
            case 6:
                if (itr_) itr_->set(arg % 2 ? "it" : static_cast<char const*>(nullptr));
                break;
            case 7:
                if (itr_) itr_->get(rec);
                break;
            case 8:
                db_->commit();
                db_->start(mode_);
                break;
            case 9:
                db_->abort();
                db_->start(mode_);
                break;
            default:
                reopen();
                break;
        }
    }

  private:
    void step() {
        if (!itr_) {
            itr_ = std::make_unique<TagdbItr>(db_.get(), "");
            steps_ = 0;
            last_.clear();
        }
        int more = 0;
        if (itr_->next(more) != T::Ok || !more) {
            itr_.reset();
            return;
        }
        require(++steps_ <= keys_ + sets_, "a walk did not end");
        char const* s = static_cast<TagdbStringKey*>(itr_->getKey())->getString();
        std::string k = s ? s : "";
        require(steps_ == 1 || last_ < k, "a walk returned a key not above the one before");
        last_ = k;
    }

    void reopen() {
        itr_.reset();
        db_ = std::make_unique<Tagdb>(cacheSize_, 4);
        openStore(*db_);
        db_->start(mode_);
    }

    int cacheSize_;
    T::TransMode mode_;
    long long keys_;  // in the store at the start, the damaged leaf's included
    long long sets_ = 0;
    std::unique_ptr<Tagdb> db_;
    std::unique_ptr<TagdbItr> itr_;  // destroyed before its Tagdb
    long long steps_ = 0;
    std::string last_;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    build(kKeys, 10, 4);
    pristine = snapshot();
    makeDamages();
    std::vector<Bytes> seeds;
    for (unsigned char d = 0; d < damages.size() && d < 8; ++d)
        seeds.push_back({d, 0, 0, 0, 0, 0, 3, 7, 0, 0, 1, 0, 2, 0, 4, 9, 0, 0, 8, 0, 0, 0});
    seeds.push_back({0, 1, 0, 0, 6, 0, 0, 0, 0, 0, 9, 0, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0});
    writeSeeds(seeds);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    if (size < 2) return 0;
    Damage const& damage = damages[data[0] % damages.size()];
    Files files = pristine;
    files[damage.file] = damage.bytes;
    restore(files);
    std::set<std::string> before = problems();
    {
        T::TransMode mode = data[1] & 4 ? T::Deferred : T::Update;
        Run run(1 + data[1] % 3, mode, kKeys + damage.keys);
        for (size_t i = 2; i + 1 < size && i < 2 + 2 * kMaxOperations; i += 2)
            run.apply(data[i], data[i + 1]);
    }
    requireNothingLeft();
    requireNoNewDamage(before, problems(), damage.id);
    return 0;
}
