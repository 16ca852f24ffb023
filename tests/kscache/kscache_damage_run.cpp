// Damages a cache file at random, very often, and counts what a load makes of it. Prints a line for
// each kind of damage. Fails when damage goes unseen that the checksum always shows.
//   kscache_damage_run COUNT
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <cstring>
#include <numeric>
#include <random>
#include <string>

#include "kscache.h"
#include "platform/support.h"
#include "tests/support/must.h"

namespace {

constexpr size_t kEntries = 60;
constexpr size_t kHeader = QLX_MAGIC_LENGTH;
constexpr size_t kRecord = 41;
constexpr size_t kPayload = kEntries * kRecord;
constexpr size_t kMostBlock = 64;

using Bytes = std::string;
std::mt19937_64 source;

size_t below(size_t limit) {
    return source() % limit;
}
char otherByte(char byte) {
    return static_cast<char>(byte + 1 + static_cast<char>(below(255)));
}
void flipBit(Bytes& file, size_t from, size_t length) {
    char& byte = file[from + below(length)];
    byte = static_cast<char>(byte ^ 1 << below(8));
}
size_t placeOf(size_t length) {
    return kHeader + below(kPayload - length + 1);
}

/// Digests, values and types as a backup has them.
Bytes cacheFile(const std::string& path, KSCache* cache) {
    KSCacheReset(cache);
    for (uint64_t i = 0; i < kEntries; ++i) {
        std::array<uint64_t, 4> digest;
        for (uint64_t& word : digest)
            word = source();
        MUST(KSCacheAdd(cache, digest.data(), 3, source(), nullptr) == 0);
    }
    MUST(KSCacheSave(cache, path.c_str(), nullptr) == 0);
    Bytes file(kHeader + kPayload, '\0');
    const int fd = open(path.c_str(), O_RDONLY);
    MUST(read(fd, file.data(), file.size()) == std::ssize(file));
    close(fd);
    return file;
}

// How likely a damage leaves both sums of the checksum as they are. A byte's value has this
// variance; sums of many are as good as normal.
constexpr double kVariance = (256.0 * 256 - 1) / 12;
constexpr double kModulus = 65521;

/// That the sums of two blocks of random bytes agree.
double sameSum(double length) {
    return 1 / std::sqrt(2 * M_PI * 2 * kVariance * length);
}
/// That both sums stay when a block is replaced by another.
double replaced(double length) {
    const double spread = std::sqrt(2 * kVariance * length * (length * length - 1) / 12);
    return sameSum(length) * std::max(1 / (std::sqrt(2 * M_PI) * spread), 1 / kModulus);
}
/// The mean over all lengths that are drawn; of one or two bytes none agrees.
template <typename Share>
double mean(size_t from, size_t to, Share share) {
    double sum = 0;
    for (size_t length = from; length <= to; ++length)
        sum += share(static_cast<double>(length));
    return sum / static_cast<double>(to - from + 1);
}

struct Kind {
    const char* name;
    void (*damage)(Bytes& file, const Bytes& another);
    double expected;  ///< share that the checksum misses; 0: never any
};

const Kind kKinds[] = {
    {"a bit of the header", [](Bytes& f, const Bytes&) { flipBit(f, 0, kHeader); }, 0},
    {"a bit", [](Bytes& f, const Bytes&) { flipBit(f, kHeader, kPayload); }, 0},
    {"a byte",
     [](Bytes& f, const Bytes&) {
         char& byte = f[placeOf(1)];
         byte = otherByte(byte);
     },
     0},
    {"two bytes swapped", [](Bytes& f, const Bytes&) { std::swap(f[placeOf(1)], f[placeOf(1)]); },
     0},
    {"a block of up to 64 random bytes",
     [](Bytes& f, const Bytes&) {
         const size_t length = 3 + below(kMostBlock - 2), at = placeOf(length);
         for (size_t i = 0; i < length; ++i)
             f[at + i] = static_cast<char>(source());
     },
     mean(3, kMostBlock, replaced)},
    {"two blocks of up to 64 bytes swapped",
     [](Bytes& f, const Bytes&) {
         const size_t length = 2 + below(kMostBlock - 1);
         const size_t one = kHeader + below(kPayload / 2 - length);
         const size_t other = kHeader + kPayload / 2 + below(kPayload / 2 - length);
         std::swap_ranges(f.begin() + static_cast<ptrdiff_t>(one),
                          f.begin() + static_cast<ptrdiff_t>(one + length),
                          f.begin() + static_cast<ptrdiff_t>(other));
     },
     mean(2, kMostBlock, sameSum)},
    {"a part of another file",
     [](Bytes& f, const Bytes& another) {
         const size_t length = 3 + below(kPayload - 3), at = placeOf(length);
         f.replace(at, length, another, at, length);
     },
     mean(3, kPayload - 1, replaced)},
    {"an end cut off", [](Bytes& f, const Bytes&) { f.resize(f.size() - 1 - below(kPayload - 1)); },
     1 / kModulus / kModulus},
    {"a piece taken out",
     [](Bytes& f, const Bytes&) {
         const size_t length = 1 + below(kPayload / 2);
         f.erase(placeOf(length), length);
     },
     1 / kModulus / kModulus},
};

struct Counts {
    size_t none = 0, byHeader = 0, byChecksum = 0, missed = 0, pieces = 0;
};

class Loader {
  public:
    Loader(std::string path, KSCache* cache)
        : path_(std::move(path)), cache_(cache), fd_(open(path_.c_str(), O_WRONLY)) {}
    ~Loader() { close(fd_); }
    Loader(const Loader&) = delete;
    Loader& operator=(const Loader&) = delete;

    void count(const Bytes& file, const Bytes& whole, Counts& counts) {
        if (file == whole) {
            ++counts.none;
            return;
        }
        if ((file.size() - kHeader) % kRecord != 0) ++counts.pieces;
        MUST(pwrite(fd_, file.data(), file.size(), 0) == std::ssize(file));
        MUST(ftruncate(fd_, std::ssize(file)) == 0);
        switch (KSCacheLoad(cache_, path_.c_str(), nullptr)) {
            case CR_STATUS_BAD_HANDLE:
                ++counts.byHeader;
                return;
            case CR_STATUS_CORRUPT:
                ++counts.byChecksum;
                return;
            case CR_STATUS_OK:
                break;
            default:
                MUST(false);
        }
        ++counts.missed;
        KSCacheReset(cache_);
    }

  private:
    std::string path_;
    KSCache* cache_;
    int fd_;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const size_t each = std::strtoull(argv[1], nullptr, 10) / std::size(kKinds);
    const char* seed = getenv("KSPOOL_TEST_SEED");
    source.seed(seed != nullptr ? std::strtoull(seed, nullptr, 0) : 1);
    const std::string path = (access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") +
                             ("/kspool-damage-" + std::to_string(getpid()));
    KSCache* cache = KSCacheCreate(0, 6, 0, nullptr, nullptr);
    const Bytes another = cacheFile(path, cache), whole = cacheFile(path, cache);
    KSCacheReset(cache);
    int wrong = 0;
    {
        Loader loader(path, cache);
        for (const Kind& kind : kKinds) {
            Counts counts;
            for (size_t i = 0; i < each; ++i) {
                Bytes file = whole;
                kind.damage(file, another);
                loader.count(file, whole, counts);
            }
            printf(
                "damage: %s: %zu times, %zu unchanged, %zu header, %zu checksum, %zu missed, "
                "%.1e expected, %zu pieces\n",
                kind.name, each, counts.none, counts.byHeader, counts.byChecksum, counts.missed,
                static_cast<double>(each) * kind.expected, counts.pieces);
            if (kind.expected == 0 && counts.missed > 0) wrong = 1;
        }
    }
    KSCacheDestroy(cache);
    unlink(path.c_str());
    return wrong;
}
