#include "tests/support/cache_model.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>

#include "kscache/kscache_int.h"
#include "platform/status.h"
#include "tests/support/cache_invariants.h"
#include "tests/support/must.h"

namespace {

constexpr uint32_t kNoMemory = 1000 + ENOMEM;

/// Counts calls.
void called(void*, void* arg) {
    ++*static_cast<uint64_t*>(arg);
}

}  // namespace

const CacheModel::Operation CacheModel::kOperations[] = {
    {"add", 2000, &CacheModel::add, false},      {"lookup", 1000, &CacheModel::lookup, false},
    {"delete", 600, &CacheModel::remove, false}, {"batch", 500, &CacheModel::batch, false},
    {"walk", 4, &CacheModel::walk, true},        {"restart", 4, &CacheModel::restart, true},
    {"limit", 20, &CacheModel::limit, true},     {"reclaim", 20, &CacheModel::reclaim, true},
    {"reset", 1, &CacheModel::reset, true},
};

CacheModel::CacheModel(Setup setup, std::string path, Source below)
    : setup_(std::move(setup)),
      below_(std::move(below)),
      path_(std::move(path)),
      cache_(KSCacheCreate(setup_.areaSize, setup_.bits, setup_.lockPages,
                           setup_.tellsRepeats ? called : nullptr, &callbacks_)) {
    if (exists()) return;
    MUST(setup_.failed());
    same("status slot", *__cr_errno_location(), kNoMemory);
}

CacheModel::~CacheModel() {
    KSCacheDestroy(cache_);
    ::remove(path_.c_str());
}

void CacheModel::same(const char* what, uint64_t got, uint64_t expected) const {
    if (got == expected) return;
    std::string key;
    if (at_.fingerprint != nullptr) {
        key = " of type " + std::to_string(at_.type) + ", ";
        char digits[3];
        for (const uint8_t byte : identity(at_).second)
            key.append(digits, static_cast<size_t>(snprintf(digits, sizeof digits, "%02x", byte)));
    }
    fprintf(stderr, "%s, step %lu, %s%s: %s: expected %lu, got %lu\n", setup_.name.c_str(),
            static_cast<unsigned long>(steps_), operation_, key.c_str(), what,
            static_cast<unsigned long>(expected), static_cast<unsigned long>(got));
    abort();
}

bool CacheModel::step() {
    constexpr uint64_t kShares = 4149;
    uint64_t share = below_(kShares);
    const Operation* row = kOperations;
    while (share >= row->share)
        share -= (row++)->share;
    ++steps_;
    operation_ = row->name;
    (this->*row->work)();
    at_ = {};
    keys_.clear();
    return row->changesMuch;
}

void CacheModel::compareAll() const {
    const std::string broken = brokenInvariant(cache_);
    same(broken.c_str(), broken.size(), 0);
    size_t used = 0;
    for (KSCachePage* page = cache_->firstPage; page != nullptr; page = page->next) {
        for (const KSCacheNode& slot : kspool::slotsOf(page)) {
            if (slot.refCount == 0) continue;
            ++used;
            at_ = {slot.fingerprint, slot.type};
            const auto entry = model_.find(identity(at_));
            same("known", entry != model_.end() ? 1 : 0, 1);
            same("value", slot.value, entry->second.value);
            same("references", slot.refCount, entry->second.refCount);
        }
    }
    at_ = {};
    same("used slots", used, model_.size());
    same("entries", cache_->cachedItems, model_.size());
    same("hits", cache_->hits, hits_);
    same("misses", cache_->misses, misses_);
    same("callbacks", callbacks_, expectedCallbacks_);
}

/// Keys that meet often and share their beginnings: few differing bytes, many types.
CacheModel::Bytes CacheModel::randomKey() {
    Bytes key(32, 0x5a);
    key[below_(2) * 7] = static_cast<uint8_t>(below_(7));  // in the first word
    key[8] = static_cast<uint8_t>(below_(12));
    key[12] = static_cast<uint8_t>(below_(24));  // selects the tree
    key[15] = static_cast<uint8_t>(below_(2));
    key[16 + below_(2) * 15] = static_cast<uint8_t>(below_(5));  // counts for type 3 only
    return key;
}

/// A key that must stay while it is used, with as many bytes as its type has, so that a sanitizer
/// reports reads past them.
KSCacheKey CacheModel::randomCacheKey() {
    constexpr uint32_t kTypes[] = {1, 2, 3, 3, 0x103, 7};
    ++operations_;
    const uint32_t type = kTypes[below_(std::size(kTypes))];
    const Bytes whole = randomKey();
    keys_.push_back(identity({whole.data(), type}).second);
    return {keys_.back().data(), type};
}

/// Sorts by its number among those of the same tree.
KSCacheKey CacheModel::numberedKey(uint32_t number) {
    const uint32_t tree = setup_.bits > 1 ? number * 2654435761U : 0;
    const uint32_t words[8] = {__builtin_bswap32(number), 0, 0, tree};
    keys_.push_back(identity({words, 3}).second);
    return {keys_.back().data(), 3};
}

CacheModel::Identity CacheModel::identity(const KSCacheKey& key) {
    const auto* bytes = static_cast<const uint8_t*>(key.fingerprint);
    const auto low = static_cast<uint8_t>(key.type);
    return {low, Bytes(bytes, bytes + (low == 3 ? 32 : 16))};
}

bool CacheModel::mayLack(uint32_t status) const {
    return status == kNoMemory && setup_.failed();
}

/// What an add returned, if the caller was told, and what becomes of the map. False when the cache
/// had no memory for a new entry.
bool CacheModel::noteAdd(const KSCacheKey& key, uint64_t value, bool withArg,
                         const uint32_t* status) {
    at_ = key;
    const Identity id = identity(key);
    const bool known = model_.contains(id);
    const uint32_t expected = known ? CR_STATUS_EXISTS : CR_STATUS_OK;
    if (status != nullptr && !known && mayLack(*status)) return false;
    if (status != nullptr) same("status", *status, expected);
    Entry& entry = model_.try_emplace(id, Entry{value, 0}).first->second;
    entry.refCount = std::min<uint64_t>(entry.refCount + 1, 16383);
    hits_ += known ? 1 : 0;
    expectedCallbacks_ += known && withArg && setup_.tellsRepeats ? 1 : 0;
    return true;
}

/// The same of a lookup, whose output held `before`.
void CacheModel::noteLookup(const KSCacheKey& key, bool counted, const uint32_t* status,
                            uint64_t before, const uint64_t* value) {
    at_ = key;
    const auto entry = model_.find(identity(key));
    const bool known = entry != model_.end();
    if (status != nullptr) same("status", *status, known ? CR_STATUS_OK : CR_STATUS_NOT_FOUND);
    if (value != nullptr) same("value", *value, known ? entry->second.value : before);
    if (!counted) return;
    ++(known ? hits_ : misses_);
    if (known) entry->second.refCount = std::min<uint64_t>(entry->second.refCount + 1, 16383);
}

/// An add that succeeds leaves the status slot and errno alone, unless pages are locked, which is
/// reported when it fails.
void CacheModel::addOne(const KSCacheKey& key, uint64_t value, void* arg) {
    *__cr_errno_location() = 7;
    errno = EDOM;
    const uint32_t status = KSCacheAdd(cache_, key.fingerprint, key.type, value, arg);
    const auto error = static_cast<uint64_t>(errno);
    const bool added = noteAdd(key, value, arg != nullptr, &status);
    same("status slot", *__cr_errno_location(), added ? 7 : status);
    if (added && setup_.lockPages == 0) same("errno", error, EDOM);
}

void CacheModel::add() {
    const KSCacheKey key = randomCacheKey();
    const uint64_t value = ++lastValue_;
    addOne(key, value, below_(2) != 0 ? this : nullptr);
}

void CacheModel::fill(uint32_t count, Order order) {
    operation_ = "fill";
    std::vector<KSCacheKey> keys;
    std::vector<uint64_t> values;
    for (uint32_t n = 0; n < count; ++n) {
        const uint32_t i = order == kSwapped && (n ^ 1) < count ? n ^ 1 : n;
        keys.push_back(numberedKey(i));
        values.push_back(i);
        if (order != kBatch) addOne(keys.back(), i, nullptr);
    }
    std::vector<uint32_t> statuses(count, 99);
    if (order == kBatch) addAll(keys, values, nullptr, statuses.data());
    keys_.clear();
}

void CacheModel::addAll(const std::vector<KSCacheKey>& keys, const std::vector<uint64_t>& values,
                        void* const* args, uint32_t* statuses) {
    const uint32_t result =
        KSCacheAddBatch(cache_, keys.data(), values.data(), args, keys.size(), statuses);
    bool all = true;
    for (size_t i = 0; i < keys.size(); ++i) {
        const bool withArg = args != nullptr && args[i] != nullptr;
        if (!noteAdd(keys[i], values[i], withArg, statuses != nullptr ? &statuses[i] : nullptr))
            all = false;
    }
    same("KSCacheAddBatch", result, all ? 0 : kNoMemory);
}

void CacheModel::lookup() {
    const KSCacheKey key = randomCacheKey();
    uint64_t value = 4711;
    const bool counted = below_(2) != 0;
    const uint32_t status = counted ? KSCacheExists(cache_, key.fingerprint, key.type, &value)
                                    : KSCacheFetch(cache_, key.fingerprint, key.type, &value);
    noteLookup(key, counted, &status, 4711, &value);
}

void CacheModel::removeOne(const KSCacheKey& key) {
    at_ = key;
    const uint32_t status = model_.erase(identity(key)) != 0 ? CR_STATUS_OK : CR_STATUS_NOT_FOUND;
    same("found", KSCacheFetch(cache_, key.fingerprint, key.type, nullptr), status);
    same("status", KSCacheDelete(cache_, key.fingerprint, key.type), status);
}

void CacheModel::remove() {
    removeOne(randomCacheKey());
}

void CacheModel::drop(uint32_t count) {
    operation_ = "drop";
    for (uint32_t i = 0; i < count; ++i)
        if (i % 3 != 0) removeOne(numberedKey(i));
    at_ = {};
    keys_.clear();
}

/// Batches are the single calls in their order: keys come twice in them, and are new together.
void CacheModel::batch() {
    const size_t count = below_(below_(3) != 0 ? 900 : 3);
    std::vector<KSCacheKey> keys;
    std::vector<uint64_t> values;
    std::vector<uint32_t> statuses(count, 99);
    std::vector<void*> args;
    for (size_t i = 0; i < count; ++i) {
        keys.push_back(i > 0 && below_(9) == 0 ? keys[below_(i)] : randomCacheKey());
        values.push_back(++lastValue_);
        args.push_back(below_(2) != 0 ? this : nullptr);
    }
    const uint64_t what = below_(3);
    const bool withArgs = below_(2) != 0, withValues = what == 0 || below_(4) != 0;
    uint32_t* const out = below_(4) != 0 ? statuses.data() : nullptr;
    if (what == 0) return addAll(keys, values, withArgs ? args.data() : nullptr, out);
    const std::vector<uint64_t> before = values;
    uint64_t* const valuesOut = withValues ? values.data() : nullptr;
    same("status",
         what == 1 ? KSCacheExistsBatch(cache_, keys.data(), count, valuesOut, out)
                   : KSCacheFetchBatch(cache_, keys.data(), count, valuesOut, out),
         0);
    for (size_t i = 0; i < count; ++i) {
        noteLookup(keys[i], what == 1, out != nullptr ? &out[i] : nullptr, before[i],
                   withValues ? &values[i] : nullptr);
    }
}

/// A walk meets each entry once. Entries that it deletes are not met again; it adds nothing.
int CacheModel::onEntry(KSCache* cache, KSCacheNode* node, uint64_t, int, void* arg) {
    auto* self = static_cast<CacheModel*>(arg);
    const Identity met = identity({node->fingerprint, node->type});
    self->at_ = {met.second.data(), met.first};
    self->same("met", self->met_.insert(met).second ? 1 : 2, 1);
    if (self->below_(5) == 1) {
        self->same("status", KSCacheDelete(cache, node->fingerprint, node->type), 0);
        self->same("known", self->model_.erase(met), 1);
    }
    self->at_ = {};
    return 0;
}

void CacheModel::walk() {
    const size_t entries = model_.size();
    met_.clear();
    same("status", KSCacheIterate(cache_, onEntry, this), 0);
    same("entries met", met_.size(), entries);
    walkByCursor();
}

/// Goes on with a walk by cursor until a status is not 0, which is returned.
uint32_t CacheModel::walkOn(KSCacheCursor& cursor, size_t most) {
    const KSCacheNode* node = nullptr;
    uint32_t status = 0;
    for (size_t i = 0; i < most && (status = KSCacheNext(cache_, &cursor, &node)) == 0; ++i) {
        const Identity met = identity({node->fingerprint, node->type});
        same("known", model_.contains(met), 1);
        met_.insert(met);
    }
    return status;
}

/// A walk by cursor meets the same, and one that began earlier what is still there, until entries
/// move.
void CacheModel::walkByCursor() {
    const uint32_t status = walkOn(standing_, 1 + below_(20));
    if (status != 0) standing_ = {};
    same("status", status == CR_STATUS_NOT_FOUND || status == CR_STATUS_BAD_HANDLE ? 0 : status, 0);
    met_.clear();
    KSCacheCursor cursor{};
    same("status", walkOn(cursor, model_.size() + 1), CR_STATUS_NOT_FOUND);
    same("entries met", met_.size(), model_.size());
}

/// Reference counts are not kept in the file; everything else is. A save or load that fails leaves
/// some of the entries out, a load that is refused all of them.
void CacheModel::restart() {
    uint64_t saved = 0, loaded = 0;
    const uint32_t status = KSCacheSave(cache_, path_.c_str(), &saved);
    if (!mayLack(status)) {
        same("KSCacheSave", status, 0);
        same("saved", saved, model_.size());
    }
    KSCacheReset(cache_);
    hits_ = misses_ = 0;
    const uint32_t read = KSCacheLoad(cache_, path_.c_str(), &loaded);
    if (setup_.failed()) {
        MUST(read == CR_STATUS_OK || cache_->pageCount == 0);
        std::erase_if(model_, [&](const auto& row) {
            const auto& [type, bytes] = row.first;
            return KSCacheFetch(cache_, bytes.data(), type, nullptr) != CR_STATUS_OK;
        });
    } else {
        same("KSCacheLoad", read, model_.empty() ? 1000 + ENOENT : 0);
        same("loaded", loaded, model_.size());
    }
    for (auto& [key, entry] : model_)
        entry.refCount = 1;
}

void CacheModel::sortedReport() {
    operation_ = "sortedReport";
    const std::unique_ptr<FILE, int (*)(FILE*)> out(tmpfile(), fclose);
    KSCacheDumpSorted(out.get(), cache_);
    rewind(out.get());
    char line[200];
    unsigned long value = 0, last = ULONG_MAX;
    size_t lines = 0;
    for (; fgets(line, sizeof line, out.get()) != nullptr; ++lines) {
        if (sscanf(line, "%*s %*u %lu", &value) != 1) continue;
        MUST(setup_.bits > 1 || value < last);
        last = value;
    }
    same("lines", lines, model_.size() + 1);
}

/// Drops what the rule says, computed a second way: by sorting all counts.
void CacheModel::limit() {
    const uint64_t budget = uint64_t{1} << 20;
    const bool above = cache_->cacheSize > budget;
    if (above) {
        std::vector<uint64_t> counts;
        for (const auto& [key, entry] : model_)
            counts.push_back(entry.refCount);
        std::sort(counts.rbegin(), counts.rend());
        const size_t fit = budget / 72;
        const uint64_t highest = counts.size() > fit ? counts[fit] : 0;
        std::erase_if(model_, [=](const auto& row) { return row.second.refCount <= highest; });
    }
    const bool reclaims =
        above && cache_->freeListCount + cache_->cachedItems >= model_.size() + cache_->areaSize;
    const bool hadPages = cache_->pageCount > 0;
    same("status", KSCacheCheck(cache_, 1), 0);
    forgetCountsWithLastPage(hadPages);
    const uint64_t page = cache_->areaSize * 72;
    const uint64_t promised = budget + budget / (cache_->areaSize - 1) + page;
    if (reclaims && setup_.pagesAscend)
        same("bytes of pages, or the most that is promised", std::max(cache_->cacheSize, promised),
             promised);
}

/// Compaction fills pages from the first one on, where they lie in this order.
void CacheModel::reclaim() {
    const uint64_t perPage = cache_->areaSize - 1;
    const bool hadPages = cache_->pageCount > 0;
    const bool reclaims = cache_->freeListCount >= cache_->areaSize;
    same("KSCachePrune", KSCachePrune(cache_), cache_->freeListCount);
    KSCacheReclaim(cache_);
    forgetCountsWithLastPage(hadPages);
    if (reclaims && setup_.pagesAscend)
        same("pages", cache_->pageCount, (model_.size() + perPage - 1) / perPage);
}

void CacheModel::forgetCountsWithLastPage(bool hadPages) {
    if (hadPages && cache_->pageCount == 0) hits_ = misses_ = 0;
}

void CacheModel::reset() {
    KSCacheReset(cache_);
    model_.clear();
    hits_ = misses_ = 0;
}
