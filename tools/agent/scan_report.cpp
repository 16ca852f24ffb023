#include "tools/agent/scan_report.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

using tool::counted;
using tool::humanBytes;
using tool::humanCount;
using tool::humanSeconds;

/// The figures that both forms of the report compute from a result.
struct Figures {
    Figures(const ScanResult& result, const SizeResult& size)
        : all(size.all()),
          repeated(size.repeated()),
          bytesPerEntry(ratio(size.cacheBytes(), size.cache.cachedItems)),
          pageBytesPerEntry(ratio(size.cache.cacheSize, size.cache.cachedItems)),
          perSecond(ratio(static_cast<double>(all.segments), result.seconds)),
          cacheShare(ratio(size.cacheSeconds, result.seconds)),
          cacheSecondsEach(ratio(size.cacheSeconds, static_cast<double>(all.segments))) {}

    Amount all;
    Amount repeated;
    double bytesPerEntry;
    double pageBytesPerEntry;
    double perSecond;
    double cacheShare;
    double cacheSecondsEach;
};

void printAmount(const char* name, const Amount& amount, const Amount& all) {
    printf("%-24s %15s   %12s   %5.1f %%\n", name, humanCount(amount.segments).c_str(),
           humanBytes(amount.bytes).c_str(), 100 * ratio(amount.bytes, all.bytes));
}

void printHead(const ScanOptions& options, const ScanResult& r) {
    if (r.interrupted) printf("Interrupted: this is what was scanned until then.\n");
    const SizeResult& first = r.sizes.front();
    const std::string cut = options.compare.empty()
                                ? "segments of " + humanBytes(first.segmentSize)
                                : counted(r.sizes.size(), "segment size", "segment sizes");
    printf("Scanned %s, %s, in %s named by %s.\n\n", counted(r.files, "file", "files").c_str(),
           humanBytes(first.all().bytes).c_str(), cut.c_str(), options.digest.c_str());
}

void printTail(const ScanResult& r) {
    if (r.skipped == 0) return;
    printf("Skipped        %s that could not be read\n",
           counted(r.skipped, "file or folder", "files or folders").c_str());
}

void printAmounts(const ScanOptions& options, const SizeResult& size, const Figures& f) {
    printf("%-24s %15s   %12s   %7s\n", "", "segments", "data", "of all");
    printAmount("unique", size.of(Fate::kUnique), f.all);
    printAmount("repeated", f.repeated, f.all);
    printAmount("  in the same file", size.of(Fate::kSameFile), f.all);
    printAmount("  in another file", size.of(Fate::kOtherFile), f.all);
    if (!options.cacheFile.empty()) {
        printAmount("  known from earlier", size.of(Fate::kEarlier), f.all);
    }
    if (size.of(Fate::kUncached).segments > 0) {
        printAmount(options.limit != 0 ? "not cached, limit" : "not cached, no memory",
                    size.of(Fate::kUncached), f.all);
    }
    printAmount("all", f.all, f.all);
}

void printSize(const ScanOptions& options, const ScanResult& r) {
    const SizeResult& size = r.sizes.front();
    const Figures f(r, size);
    printAmounts(options, size, f);
    printf("\nDedup ratio    ");
    if (f.all.bytes > 0 && f.all.bytes == f.repeated.bytes) {
        printf("all of the data is known\n");
    } else {
        printf("%.2f : 1, %s need not be stored again\n", size.dedupRatio(),
               humanBytes(f.repeated.bytes).c_str());
    }
    printf("Cache memory   %s: %s in %s,\n", humanBytes(size.cacheBytes()).c_str(),
           counted(size.cache.cachedItems, "entry", "entries").c_str(),
           counted(size.cache.pageCount, "page", "pages").c_str());
    printf("               %.1f bytes each, and %s roots of 8 bytes;\n", f.pageBytesPerEntry,
           humanCount(uint64_t{1} << size.cache.bits).c_str());
    printf("               %.1f bytes an entry in all\n", f.bytesPerEntry);
    if (!options.cacheFile.empty()) {
        printf("Known from     %s\n", tool::printable(options.cacheFile).c_str());
    }
    printf("Time           %s, %s fingerprints a second;\n", humanSeconds(r.seconds).c_str(),
           humanCount(static_cast<uint64_t>(f.perSecond)).c_str());
    printf("               %.2f %% of it in the cache, %s each\n", 100 * f.cacheShare,
           humanSeconds(f.cacheSecondsEach).c_str());
}

void printComparison(const ScanResult& r) {
    printf("%12s %15s %12s %12s %13s\n", "segments of", "segments", "dedup ratio", "entries",
           "cache memory");
    uint64_t uncached = 0;
    for (const SizeResult& size : r.sizes) {
        printf("%12s %15s %8.2f : 1 %12s %13s\n", humanBytes(size.segmentSize).c_str(),
               humanCount(size.all().segments).c_str(), size.dedupRatio(),
               humanCount(size.cache.cachedItems).c_str(), humanBytes(size.cacheBytes()).c_str());
        uncached += size.of(Fate::kUncached).segments;
    }
    printf("\nTime           %s\n", humanSeconds(r.seconds).c_str());
    if (uncached > 0) {
        printf("Not cached     %s\n", counted(uncached, "segment", "segments").c_str());
    }
}

nlohmann::ordered_json amountJson(const Amount& amount) {
    return {{"segments", amount.segments}, {"bytes", amount.bytes}};
}

nlohmann::ordered_json sizeJson(const ScanOptions& options, const ScanResult& r,
                                const SizeResult& size) {
    const Figures f(r, size);
    return {
        {"segmentSize", size.segmentSize},
        {"digest", options.digest},
        {"all", amountJson(f.all)},
        {"unique", amountJson(size.of(Fate::kUnique))},
        {"repeated", amountJson(f.repeated)},
        {"repeatedSameFile", amountJson(size.of(Fate::kSameFile))},
        {"repeatedOtherFile", amountJson(size.of(Fate::kOtherFile))},
        {"knownFromEarlier", amountJson(size.of(Fate::kEarlier))},
        {"uncached", amountJson(size.of(Fate::kUncached))},
        {"dedupRatio", size.dedupRatio()},
        {"cache",
         {{"entries", size.cache.cachedItems},
          {"pages", size.cache.pageCount},
          {"pageBytes", size.cache.cacheSize},
          {"areaSize", size.cache.areaSize},
          {"bits", size.cache.bits},
          {"rootBytes", size.rootBytes()},
          {"bytesPerEntry", f.bytesPerEntry},
          {"pageBytesPerEntry", f.pageBytesPerEntry},
          {"hits", size.cache.hits},
          {"misses", size.cache.misses}}},
        {"seconds", r.seconds},
        {"fingerprintsPerSecond", f.perSecond},
        {"cacheSeconds", size.cacheSeconds},
        {"cacheShare", f.cacheShare},
    };
}

void printJson(const ScanOptions& options, const ScanResult& r) {
    nlohmann::ordered_json report = {
        {"files", r.files}, {"skipped", r.skipped}, {"interrupted", r.interrupted}};
    if (options.compare.empty()) {
        report.update(sizeJson(options, r, r.sizes.front()));
    } else {
        for (const SizeResult& size : r.sizes)
            report["compare"].push_back(sizeJson(options, r, size));
    }
    tool::printJson(report, 2);
}

}  // namespace

void printScan(const ScanOptions& options, const ScanResult& result) {
    if (options.json) return printJson(options, result);
    printHead(options, result);
    if (options.compare.empty()) {
        printSize(options, result);
    } else {
        printComparison(result);
    }
    printTail(result);
}

}  // namespace agent
