// Random table descriptions for tests that derive rules over any keys.
#include <algorithm>
#include <numeric>

#include "KorSysSchema.h"
#include "qkValue.h"

namespace KorSysSchema {

namespace {

int uniform(std::mt19937& rng, int lo, int hi) {
    return std::uniform_int_distribution<int>(lo, hi)(rng);
}

// Up to maxLength distinct column numbers below columns, in random order.
std::vector<int> randomKey(std::mt19937& rng, int columns, int maxLength) {
    std::vector<int> all(columns);
    std::iota(all.begin(), all.end(), 0);
    std::shuffle(all.begin(), all.end(), rng);
    all.resize(uniform(rng, 0, std::min(maxLength, columns)));
    return all;
}

}  // namespace

std::unique_ptr<SchemaTable> makeRandomTable(std::mt19937& rng, RandomLimits const& limits) {
    TableLayout layout;
    int columns = uniform(rng, 1, std::max(1, limits.maxColumns));
    for (int c = 0; c < columns; ++c)
        layout.columns.push_back(
            {"C" + std::to_string(c), uniform(rng, qkValue::Boolean, qkValue::Raw)});
    layout.primary = randomKey(rng, columns, limits.maxKeyColumns);
    layout.index = randomKey(rng, columns, limits.maxKeyColumns);
    layout.selective = uniform(rng, 0, 1);
    layout.versionIndex = uniform(rng, -1, 3);
    layout.group = uniform(rng, 0, 25);
    layout.name = "R" + std::to_string(uniform(rng, 0, 9999));
    if (uniform(rng, 0, 1)) layout.name += "_%s";
    return std::make_unique<SchemaTable>(std::move(layout));
}

}  // namespace KorSysSchema
