#include "tools/agent/outbox.h"

#include "tools/agent/po.h"
#include "tools/shared/text.h"

namespace agent {

Stopwatch::Stopwatch(double& sum) : sum_(sum) {}

Stopwatch::~Stopwatch() {
    sum_ += std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

std::vector<KSCacheKey> keysOf(const std::vector<Digest>& digests, uint32_t type) {
    std::vector<KSCacheKey> keys;
    keys.reserve(digests.size());
    for (const Digest& digest : digests)
        keys.push_back({digest.data(), type});
    return keys;
}

Outbox::Outbox(const RecordOptions& options, uint32_t fingerprintType, uint64_t image,
               tool::Session& session, BlockCache& cache, RecordResult& result)
    : options_(options),
      type_(fingerprintType),
      image_(image),
      session_(session),
      cache_(cache),
      result_(result) {}

void Outbox::add(const Record& record) {
    list_ += poLine(options_.name, record);
    ++listed_;
    sum_.add(record);
    paths_.insert(record.path);
    if (listed_ >= options_.listSize || list_.size() >= kLongestList) send();
}

void Outbox::send() {
    if (listed_ == 0) return;
    if (!options_.dryRun) {
        const Stopwatch server(result_.serverSeconds);
        session_.attempt(tool::counted(listed_, "entry", "entries"), [&](MBSession* session) {
            return MBPOAddList(session, options_.name.dataselection, list_.c_str());
        });
        result_.recorded += listed_;
    }
    const Stopwatch cache(result_.cacheSeconds);
    cache_.remember(keysOf({waiting_.begin(), waiting_.end()}, type_), image_);
    list_.clear();
    waiting_.clear();
    listed_ = 0;
}

}  // namespace agent
