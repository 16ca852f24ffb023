#include "tools/agent/record_report.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

void printForPeople(const RecordOptions& options, const RecordResult& r) {
    const auto bytes = [](uint64_t count) { return tool::humanBytes(static_cast<double>(count)); };
    const auto count = tool::humanCount;
    printf("Image          %s (client %s, policy %s, data selection %u)\n",
           tool::printable(options.name.image).c_str(),
           tool::printable(options.name.client).c_str(),
           tool::printable(options.name.policy).c_str(), options.name.dataselection);
    printf("Files          %s read, %s recorded", count(r.files).c_str(),
           count(r.recorded).c_str());
    if (r.skipped > 0) printf(", %s could not be read", count(r.skipped).c_str());
    printf("\n");
    printf("Data           %s in %s segments\n", bytes(r.bytes).c_str(), count(r.segments).c_str());
    printf("New            %s in %s segments\n", bytes(r.newBytes).c_str(),
           count(r.newSegments).c_str());
    printf("Known          %s in %s segments\n", bytes(r.bytes - r.newBytes).c_str(),
           count(r.segments - r.newSegments).c_str());
    printf("Cache          %s fingerprints\n", count(r.cached).c_str());
    const auto share = [&](double part) { return r.seconds > 0 ? 100 * part / r.seconds : 0; };
    printf("Time           %s, of which %.1f %% in the cache, %.1f %% for the server\n",
           tool::humanSeconds(r.seconds).c_str(), share(r.cacheSeconds), share(r.serverSeconds));
    if (r.interrupted || r.recorded < r.files) {
        printf("Not complete   %s; run it again to complete the image\n",
               r.interrupted ? "interrupted" : "the server could not be told of all files");
    } else {
        printf("On the server  %s files of this image\n", count(r.found).c_str());
    }
}

}  // namespace

void printRecord(const RecordOptions& options, const RecordResult& r) {
    if (!options.json) return printForPeople(options, r);
    tool::printJson({{"image", options.name.image},
                     {"files", r.files},
                     {"recorded", r.recorded},
                     {"skipped", r.skipped},
                     {"bytes", r.bytes},
                     {"segments", r.segments},
                     {"newSegments", r.newSegments},
                     {"newBytes", r.newBytes},
                     {"found", r.found},
                     {"cached", r.cached},
                     {"interrupted", r.interrupted},
                     {"seconds", r.seconds},
                     {"cacheSeconds", r.cacheSeconds},
                     {"serverSeconds", r.serverSeconds}},
                    2);
}

}  // namespace agent
