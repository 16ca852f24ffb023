// Any sequence of calls of a cache, beside a plain map.
#include <cstring>
#include <map>
#include <vector>

#include "kscache.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/cache_invariants.h"

namespace {

using Digest = std::string;  // of 32 bytes

class Calls {
  public:
    explicit Calls(fuzz::Input& input)
        : input_(input), cache_(KSCacheCreate(0, input.below(7), 0, nullptr, nullptr)) {}
    ~Calls() { KSCacheDestroy(cache_); }
    Calls(const Calls&) = delete;
    Calls& operator=(const Calls&) = delete;

    void makeOne() {
        static void (Calls::*const kCalls[])() = {
            &Calls::add,   &Calls::add,   &Calls::remove, &Calls::lookUp, &Calls::addMany,
            &Calls::batch, &Calls::prune, &Calls::limit,  &Calls::walk,   &Calls::restart};
        (this->*kCalls[input_.below(std::size(kCalls))])();
    }
    void check() {
        const std::string broken = brokenInvariant(cache_);
        if (!broken.empty()) brokenCondition(broken.c_str(), __FILE__, __LINE__);
        KSCacheStatsRecord stats;
        MUST(KSCacheStats(cache_, &stats) == 0 && stats.cachedItems == model_.size());
        for (const auto& [digest, value] : model_) {
            uint64_t found = 0;
            MUST(KSCacheFetch(cache_, digest.data(), 3, &found) == 0 && found == value);
        }
    }

  private:
    /// Few bytes of it differ, so that digests meet in trees and agree in their first words.
    Digest digest() {
        Digest digest(32, '\x5a');
        digest[0] = static_cast<char>(input_.byte());
        const uint8_t more = input_.byte();
        digest[12] = static_cast<char>(more >> 4);
        digest[more % 2 == 0 ? 7 : 31] = static_cast<char>(more & 3);
        return digest;
    }
    /// The n-th of a family that a byte names.
    Digest member(uint8_t family, uint32_t n) {
        Digest digest(32, static_cast<char>(family));
        memcpy(digest.data() + 3, &n, sizeof n);
        digest[12] = static_cast<char>(n * 7);
        return digest;
    }
    void expectAdded(const Digest& digest, uint32_t status) {
        const bool isNew = model_.try_emplace(digest, last_).second;
        MUST(status == (isNew ? CR_STATUS_OK : CR_STATUS_EXISTS));
    }

    void add() {
        const Digest key = digest();
        expectAdded(key, KSCacheAdd(cache_, key.data(), 3, ++last_, nullptr));
    }
    void remove() {
        const Digest key = digest();
        const bool known = model_.erase(key) != 0;
        MUST(KSCacheDelete(cache_, key.data(), 3) == (known ? CR_STATUS_OK : CR_STATUS_NOT_FOUND));
    }
    void lookUp() {
        const Digest key = digest();
        const auto entry = model_.find(key);
        uint64_t value = 0;
        const uint32_t status = KSCacheExists(cache_, key.data(), 3, &value);
        MUST(status == (entry != model_.end() ? CR_STATUS_OK : CR_STATUS_NOT_FOUND));
        MUST(status != 0 || value == entry->second);
    }
    /// Fills a page or more.
    void addMany() {
        const uint8_t family = input_.byte();
        for (uint32_t n = 0; n < 8U * input_.below(200); ++n) {
            const Digest key = member(family, n);
            expectAdded(key, KSCacheAdd(cache_, key.data(), 3, ++last_, nullptr));
        }
    }
    void batch() {
        std::vector<Digest> digests(input_.below(200));
        std::vector<KSCacheKey> keys;
        std::vector<uint64_t> values(digests.size());
        std::vector<uint32_t> statuses(digests.size());
        const bool adds = input_.below(2) == 0;
        const uint8_t family = input_.byte();
        for (uint32_t i = 0; i < digests.size(); ++i) {
            digests[i] = i % 3 == 0 ? digest() : member(family, i / 2);
            keys.push_back({digests[i].data(), 3});
            values[i] = last_ + 1;
        }
        if (adds) {
            ++last_;
            MUST(KSCacheAddBatch(cache_, keys.data(), values.data(), nullptr, keys.size(),
                                 statuses.data()) == 0);
            for (size_t i = 0; i < keys.size(); ++i)
                expectAdded(digests[i], statuses[i]);
            return;
        }
        MUST(KSCacheExistsBatch(cache_, keys.data(), keys.size(), values.data(), statuses.data()) ==
             0);
        for (size_t i = 0; i < keys.size(); ++i) {
            const auto entry = model_.find(digests[i]);
            MUST(statuses[i] == (entry != model_.end() ? CR_STATUS_OK : CR_STATUS_NOT_FOUND));
            MUST(statuses[i] != 0 || values[i] == entry->second);
        }
    }
    void prune() {
        KSCachePrune(cache_);
        KSCacheReclaim(cache_);
    }
    static int forget(KSCache*, KSCacheNode* node, uint64_t value, int, void* arg) {
        auto* left = static_cast<std::map<Digest, uint64_t>*>(arg);
        left->emplace(Digest(reinterpret_cast<const char*>(node->fingerprint), 32), value);
        return 0;
    }
    /// What a limit drops is the cache's to say; all that it keeps must have been there.
    void limit() {
        MUST(KSCacheCheck(cache_, input_.below(2)) == 0);
        std::map<Digest, uint64_t> left;
        MUST(KSCacheIterate(cache_, forget, &left) == 0);
        MUST(std::includes(model_.begin(), model_.end(), left.begin(), left.end()));
        model_ = left;
    }
    static int removeSome(KSCache* cache, KSCacheNode* node, uint64_t, int, void* arg) {
        auto* calls = static_cast<Calls*>(arg);
        MUST(KSCacheCheck(cache, 1) == CR_STATUS_BUSY);
        if (calls->input_.below(4) != 1) return 0;
        calls->model_.erase(Digest(reinterpret_cast<const char*>(node->fingerprint), 32));
        MUST(KSCacheDelete(cache, node->fingerprint, node->type) == 0);
        return calls->input_.below(40) == 1;
    }
    void walk() { MUST(KSCacheIterate(cache_, removeSome, this) == 0); }
    void restart() {
        static const fuzz::ScratchFile file("kspool-fuzz-cache-calls");
        uint64_t saved = 0, loaded = 0;
        MUST(KSCacheSave(cache_, file.path(), &saved) == 0 && saved == model_.size());
        KSCacheReset(cache_);
        if (saved > 0) MUST(KSCacheLoad(cache_, file.path(), &loaded) == 0);
        MUST(loaded == saved);
    }

    fuzz::Input& input_;
    KSCache* cache_;
    std::map<Digest, uint64_t> model_;
    uint64_t last_ = 0;
};

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    fuzz::discardMessages();
    fuzz::Input input(bytes, size);
    Calls calls(input);
    for (int i = 0; i < 60 && !input.isEmpty(); ++i)
        calls.makeOne();
    calls.check();
    return 0;
}
