#include "tools/agent/scan_report.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

using tool::humanBytes;
using tool::humanCount;
using tool::humanSeconds;

/// 0 for nothing of nothing.
double ratio(double part, double whole) {
    return whole > 0 ? part / whole : 0;
}

double ratio(uint64_t part, uint64_t whole) {
    return ratio(static_cast<double>(part), static_cast<double>(whole));
}

/// The figures that both forms of the report need.
struct Figures {
    explicit Figures(const ScanResult& r)
        : all(r.all()),
          repeated(r.repeated()),
          roots(uint64_t{1} << r.cache.bits),
          rootBytes(roots * sizeof(void*)),
          dedupRatio(ratio(all.bytes, all.bytes - repeated.bytes)),
          bytesPerEntry(ratio(r.cache.cacheSize + rootBytes, r.cache.cachedItems)),
          pageBytesPerEntry(ratio(r.cache.cacheSize, r.cache.cachedItems)),
          perSecond(ratio(static_cast<double>(all.segments), r.seconds)),
          cacheShare(ratio(r.cacheSeconds, r.seconds)),
          cacheSecondsEach(ratio(r.cacheSeconds, static_cast<double>(all.segments))) {}

    Amount all;
    Amount repeated;
    uint64_t roots;
    uint64_t rootBytes;
    double dedupRatio;
    double bytesPerEntry;
    double pageBytesPerEntry;
    double perSecond;
    double cacheShare;
    double cacheSecondsEach;
};

void printAmount(const char* name, const Amount& amount, const Amount& all) {
    printf("%-22s %15s   %12s   %5.1f %%\n", name, humanCount(amount.segments).c_str(),
           humanBytes(static_cast<double>(amount.bytes)).c_str(),
           100 * ratio(amount.bytes, all.bytes));
}

void printForPeople(const ScanOptions& options, const ScanResult& r) {
    const Figures f(r);
    printf("Scanned %s files, %s, in segments of %s named by %s.\n\n", humanCount(r.files).c_str(),
           humanBytes(static_cast<double>(f.all.bytes)).c_str(),
           humanBytes(static_cast<double>(options.segmentSize)).c_str(), options.digest.c_str());
    printf("%-22s %15s   %12s   %7s\n", "", "segments", "data", "of all");
    printAmount("unique", r.unique, f.all);
    printAmount("repeated", f.repeated, f.all);
    printAmount("  in the same file", r.sameFile, f.all);
    printAmount("  in another file", r.otherFile, f.all);
    if (r.uncached.segments > 0) printAmount("not cached, no memory", r.uncached, f.all);
    printAmount("all", f.all, f.all);
    printf("\nDedup ratio    %.2f : 1, %s need not be stored again\n", f.dedupRatio,
           humanBytes(static_cast<double>(f.repeated.bytes)).c_str());
    printf("Cache memory   %s: %s entries in %u pages, %.1f bytes each, and %s roots of 8 bytes;\n",
           humanBytes(static_cast<double>(r.cache.cacheSize + f.rootBytes)).c_str(),
           humanCount(r.cache.cachedItems).c_str(), r.cache.pageCount, f.pageBytesPerEntry,
           humanCount(f.roots).c_str());
    printf("               %.1f bytes an entry in all\n", f.bytesPerEntry);
    printf("Time           %s, %s fingerprints a second; %.2f %% of it in the cache, %s each\n",
           humanSeconds(r.seconds).c_str(), humanCount(static_cast<uint64_t>(f.perSecond)).c_str(),
           100 * f.cacheShare, humanSeconds(f.cacheSecondsEach).c_str());
    if (r.skipped > 0) {
        printf("Skipped        %s files or folders that could not be read\n",
               humanCount(r.skipped).c_str());
    }
}

nlohmann::ordered_json amountJson(const Amount& amount) {
    return {{"segments", amount.segments}, {"bytes", amount.bytes}};
}

void printJson(const ScanOptions& options, const ScanResult& r) {
    const Figures f(r);
    const nlohmann::ordered_json report = {
        {"files", r.files},
        {"skipped", r.skipped},
        {"segmentSize", options.segmentSize},
        {"digest", options.digest},
        {"all", amountJson(f.all)},
        {"unique", amountJson(r.unique)},
        {"repeated", amountJson(f.repeated)},
        {"repeatedSameFile", amountJson(r.sameFile)},
        {"repeatedOtherFile", amountJson(r.otherFile)},
        {"uncached", amountJson(r.uncached)},
        {"dedupRatio", f.dedupRatio},
        {"cache",
         {{"entries", r.cache.cachedItems},
          {"pages", r.cache.pageCount},
          {"pageBytes", r.cache.cacheSize},
          {"areaSize", r.cache.areaSize},
          {"bits", r.cache.bits},
          {"rootBytes", f.rootBytes},
          {"bytesPerEntry", f.bytesPerEntry},
          {"pageBytesPerEntry", f.pageBytesPerEntry},
          {"hits", r.cache.hits},
          {"misses", r.cache.misses}}},
        {"seconds", r.seconds},
        {"fingerprintsPerSecond", f.perSecond},
        {"cacheSeconds", r.cacheSeconds},
        {"cacheShare", f.cacheShare},
    };
    tool::printJson(report, 2);
}

}  // namespace

void printScan(const ScanOptions& options, const ScanResult& result) {
    (options.json ? printJson : printForPeople)(options, result);
}

}  // namespace agent
