// shape: how deep and how full the trees of a cache are, and why if they are too deep.
#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <cstring>
#include <vector>

#include "tools/cache/commands.h"
#include "tools/cache/contents.h"
#include "tools/cache/file.h"
#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace cache {
namespace {

using nlohmann::ordered_json;
using tool::humanCount;

/// With evenly spread digests and the bits of KSCacheBitsFor(), the average depth is up to 1.25;
/// this is twice as deep.
constexpr double kTooDeep = 2.5;

/// A histogram with a row for each number up to 10, and ranges that double above. So even a
/// degenerate tree (a list of all entries) adds only a few rows.
class Histogram {
  public:
    struct Row {
        uint64_t from;
        uint64_t to;
        uint64_t count;
    };

    void add(uint64_t number, uint64_t times = 1) {
        if (times == 0) return;
        counts_[rowOf(number)] += times;
        times_ += times;
        sum_ += number * times;
        greatest_ = std::max(greatest_, number);
    }
    /// The rows that have counts.
    std::vector<Row> rows() const {
        std::vector<Row> rows;
        for (size_t i = 0; i < counts_.size(); ++i) {
            if (counts_[i] > 0) rows.push_back({first(i), first(i + 1) - 1, counts_[i]});
        }
        return rows;
    }
    uint64_t sum() const { return sum_; }
    uint64_t greatest() const { return greatest_; }
    double average() const {
        return times_ == 0 ? 0 : static_cast<double>(sum_) / static_cast<double>(times_);
    }

  private:
    static constexpr size_t kSingle = 10;

    static size_t rowOf(uint64_t number) {
        if (number <= kSingle) return number;
        return kSingle + static_cast<size_t>(std::bit_width((number - 1) / kSingle));
    }
    static uint64_t first(size_t row) {
        return row <= kSingle ? row : (uint64_t{kSingle} << (row - kSingle - 1)) + 1;
    }

    std::array<uint64_t, kSingle + 64> counts_{};
    uint64_t times_ = 0;
    uint64_t sum_ = 0;
    uint64_t greatest_ = 0;
};

struct Shape {
    std::string path;
    uint64_t entries = 0;
    uint64_t roots = 0;
    uint64_t trees = 0;
    uint32_t bits = 0;
    uint32_t bitsAsked = 0;
    uint32_t bitsToUse = 0;
    uint64_t cacheSize = 0;
    Histogram depths;    ///< entries by depth; 1 is the top of a tree
    Histogram loads;     ///< roots by the entries below them
    double squares = 0;  ///< sum of the squares of the loads

    bool tooDeep() const { return depths.average() > kTooDeep; }
    bool tooFewBits() const { return tooDeep() && bits < bitsToUse; }
    /// Entries in the tree of an average entry: as measured, and for evenly spread digests.
    double meanTreeSize() const { return squares / static_cast<double>(entries); }
    double expectedTreeSize() const {
        return 1 + static_cast<double>(entries - 1) / static_cast<double>(roots);
    }
    /// With enough bits, trees below this bound are too small to be too deep, even as lists. So
    /// every shape that is too deep has at least one of the two reasons.
    bool unspread() const { return tooDeep() && meanTreeSize() > 2 * expectedTreeSize() + 1; }
};

/// Measures a tree from its top. No recursion: a tree can be as deep as it has nodes, and would
/// overflow the stack.
void measureTree(const KSCacheNode& top, Shape& shape) {
    struct Step {
        const KSCacheNode* node;
        uint64_t depth;
    };
    std::vector<Step> steps{{&top, 1}};
    uint64_t load = 0;
    while (!steps.empty()) {
        const Step step = steps.back();
        steps.pop_back();
        ++load;
        shape.depths.add(step.depth);
        for (const KSCacheNode* below : {step.node->higher, step.node->lower}) {
            if (below != nullptr) steps.push_back({below, step.depth + 1});
        }
    }
    ++shape.trees;
    shape.loads.add(load);
    shape.squares += static_cast<double>(load) * static_cast<double>(load);
}

uint64_t rootOf(const KSCacheNode& entry, uint64_t roots) {
    std::array<uint8_t, 4> word{};
    memcpy(word.data(), entry.fingerprint + 12, word.size());
    uint64_t number = 0;
    for (size_t i = word.size(); i-- > 0;)
        number = number << 8 | word[i];
    return number & (roots - 1);
}

Shape measure(const FileReport& file, uint32_t bits) {
    tool::CacheSettings settings = tool::settingsFor(file.records);
    if (bits != 0) settings.bits = bits;
    const Loaded loaded = load(file, settings);
    Shape shape;
    shape.path = file.path;
    shape.entries = loaded.stats.cachedItems;
    shape.roots = uint64_t{1} << loaded.stats.bits;
    shape.bits = loaded.stats.bits;
    shape.bitsAsked = settings.bits;
    shape.bitsToUse = KSCacheBitsFor(shape.entries);
    shape.cacheSize = loaded.stats.cacheSize;
    // A walk visits entries in the order in which they were added, since nothing was deleted. The
    // first entry that was added to a tree is its top.
    std::vector<bool> met(shape.roots);
    forEachEntry(loaded.cache.get(), [&](const KSCacheNode& entry) {
        const uint64_t root = rootOf(entry, shape.roots);
        if (!met[root]) measureTree(entry, shape);
        met[root] = true;
        return true;
    });
    shape.loads.add(0, shape.roots - shape.trees);
    if (shape.loads.sum() != shape.entries)
        throw tool::Failure(file.name + ": the trees of its cache are not as expected");
    return shape;
}

std::string barOf(uint64_t count, uint64_t greatest) {
    constexpr uint64_t kWidth = 50;
    if (count == 0) return {};
    const double share = static_cast<double>(count) / static_cast<double>(greatest);
    return std::string(std::max<size_t>(1, static_cast<size_t>(share * kWidth)), '#');
}

void printHistogram(const char* what, const char* counted, const Histogram& histogram) {
    const std::vector<Histogram::Row> rows = histogram.rows();
    uint64_t greatest = 0;
    for (const Histogram::Row& row : rows)
        greatest = std::max(greatest, row.count);
    printf("\n%15s %15s\n", what, counted);
    for (const Histogram::Row& row : rows) {
        std::string range = humanCount(row.from);
        if (row.to != row.from) range += "-" + humanCount(row.to);
        const std::string bar = barOf(row.count, greatest);
        printf("%15s %15s%s%s\n", range.c_str(), humanCount(row.count).c_str(),
               bar.empty() ? "" : "  ", bar.c_str());
    }
}

void printReasons(const Shape& shape) {
    if (!shape.tooDeep()) return;
    printf("\nThe trees are much deeper than they need be:\n");
    if (shape.tooFewBits()) {
        printf("- Too few bits: %s entries share %s roots. Use %u bits.\n",
               humanCount(shape.entries).c_str(), humanCount(shape.roots).c_str(), shape.bitsToUse);
    }
    if (shape.unspread()) {
        printf(
            "- Digests are not spread over bytes 12 to 15, which select the tree: an average\n"
            "  entry is in a tree of %s, by chance it would be %.2f.%s\n",
            humanCount(static_cast<uint64_t>(shape.meanTreeSize())).c_str(),
            shape.expectedTreeSize(), shape.tooFewBits() ? "" : " More bits hardly help.");
    }
}

void printShape(const Shape& shape) {
    printf("%s: %s entries in %s trees, of %s roots\n", tool::printable(shape.path).c_str(),
           humanCount(shape.entries).c_str(), humanCount(shape.trees).c_str(),
           humanCount(shape.roots).c_str());
    printHistogram("depth", "entries", shape.depths);
    printHistogram("entries in tree", "roots", shape.loads);
    printf("\nDepth          %.2f on average, %s at most\n", shape.depths.average(),
           humanCount(shape.depths.greatest()).c_str());
    printf("Bits           %u here, %u to use\n", shape.bits, shape.bitsToUse);
    if (shape.bits != shape.bitsAsked)
        printf("               There was no memory for the roots of %u bits.\n", shape.bitsAsked);
    printReasons(shape);
}

ordered_json histogramJson(const char* counted, const Histogram& histogram) {
    auto list = ordered_json::array();
    for (const Histogram::Row& row : histogram.rows())
        list.push_back({{"from", row.from}, {"to", row.to}, {counted, row.count}});
    return list;
}

void printShapeJson(const Shape& shape) {
    tool::printJson({{"file", shape.path},
                     {"entries", shape.entries},
                     {"trees", shape.trees},
                     {"roots", shape.roots},
                     {"bits", shape.bits},
                     {"bitsToUse", shape.bitsToUse},
                     {"pageBytes", shape.cacheSize},
                     {"averageDepth", shape.depths.average()},
                     {"greatestDepth", shape.depths.greatest()},
                     {"greatestLoad", shape.loads.greatest()},
                     {"tooFewBits", shape.tooFewBits()},
                     {"unspreadDigests", shape.unspread()},
                     {"depths", histogramJson("entries", shape.depths)},
                     {"loads", histogramJson("roots", shape.loads)}},
                    2);
}

}  // namespace

ExitCode shape(const Options& options) {
    const FileReport file = inspectAndReport(options.files[0]);
    if (const ExitCode code = loadingCode(file); code != ExitCode::kOk) return code;
    (options.json ? printShapeJson : printShape)(measure(file, options.bits));
    return ExitCode::kOk;
}

}  // namespace cache
