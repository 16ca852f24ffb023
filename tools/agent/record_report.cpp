#include "tools/agent/record_report.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

void printData(const RecordResult& r) {
    const auto row = [](const char* name, uint64_t bytes, uint64_t segments) {
        printf("%-14s %s in %s\n", name, tool::humanBytes(bytes).c_str(),
               tool::counted(segments, "segment", "segments").c_str());
    };
    row("Data", r.bytes, r.segments);
    row("New", r.newBytes, r.newSegments);
    row("Known", r.bytes - r.newBytes, r.segments - r.newSegments);
}

void printFolders(const RecordResult& r) {
    printf("\n%11s  %11s  %11s  %s\n", "files", "data", "new", "folder");
    for (const FolderSum& sum : r.byFolder) {
        printf("%11s  %11s  %11s  %s\n", tool::humanCount(sum.files).c_str(),
               tool::humanBytes(sum.bytes).c_str(), tool::humanBytes(sum.newBytes).c_str(),
               tool::printable(sum.path).c_str());
    }
}

/// What is left to be done of an image that is complete.
void printLeft(const RecordOptions& options, const RecordResult& r) {
    if (options.retention != 0 && r.retentionSet == Outcome::kNo) {
        printf("Not set        the retention; kspool-mb image retention --set sets it\n");
    } else if (options.retention != 0 && r.retentionSet == Outcome::kUnknown) {
        printf("Not known      if the retention is set; kspool-mb image retention tells\n");
    }
    if (!options.cacheFile.empty() && !r.cacheSaved) {
        printf("Not saved      the cache; run it again, or the next run counts the same as new\n");
    }
}

void printComplete(const RecordOptions& options, const RecordResult& r) {
    printf("On the server  %s of this image", tool::counted(r.found, "entry", "entries").c_str());
    if (r.stale > 0) printf("; %s of before expired", tool::humanCount(r.stale).c_str());
    printf("\n");
    if (r.kept > 0) {
        printf("Kept           %s of before, of what could not be read now\n",
               tool::counted(r.kept, "entry", "entries").c_str());
    }
    printLeft(options, r);
}

void printEnd(const RecordOptions& options, const RecordResult& r) {
    const char* why = r.interrupted ? "interrupted" : "it ended early";
    if (options.dryRun && r.complete == Outcome::kYes) {
        printf("Dry run        the server was not changed\n");
        if (!r.byFolder.empty()) printFolders(r);
    } else if (!r.begun) {
        printf("Not recorded   %s; the server was not changed\n", why);
    } else if (r.complete == Outcome::kNo) {
        printf("Not complete   %s; run it again to complete the image\n", why);
    } else if (r.complete == Outcome::kUnknown) {
        printf("Not known      %s; kspool-agent images tells if the image is complete\n", why);
    } else {
        printComplete(options, r);
    }
}

void printForPeople(const RecordOptions& options, const RecordResult& r) {
    const ImageName& n = options.name;
    printf("Image          %s (client %s, policy %s, data selection %u)\n",
           tool::printable(n.image).c_str(), tool::printable(n.client).c_str(),
           tool::printable(n.policy).c_str(), n.dataselection);
    printf("Files          %s", tool::counted(r.files, "file", "files").c_str());
    if (r.unread > 0) printf(", %s unchanged and not read", tool::humanCount(r.unread).c_str());
    if (r.skipped > 0) printf(", %s could not be read", tool::humanCount(r.skipped).c_str());
    printf("\nAs well        %s, %s\n", tool::counted(r.folders, "folder", "folders").c_str(),
           tool::counted(r.links, "symbolic link", "symbolic links").c_str());
    printData(r);
    const auto share = [&](double part) { return r.seconds > 0 ? 100 * part / r.seconds : 0; };
    printf("Cache          %s\n", tool::counted(r.cached, "fingerprint", "fingerprints").c_str());
    printf("Time           %s, of which %.1f %% in the cache, %.1f %% for the server\n",
           tool::humanSeconds(r.seconds).c_str(), share(r.cacheSeconds), share(r.serverSeconds));
    printEnd(options, r);
}

nlohmann::ordered_json outcomeJson(Outcome outcome) {
    if (outcome == Outcome::kUnknown) return nullptr;
    return outcome == Outcome::kYes;
}

nlohmann::ordered_json foldersJson(const RecordResult& r) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const FolderSum& sum : r.byFolder) {
        list.push_back({{"path", tool::printable(sum.path)},
                        {"files", sum.files},
                        {"bytes", sum.bytes},
                        {"newBytes", sum.newBytes}});
    }
    return list;
}

}  // namespace

void printRecord(const RecordOptions& options, const RecordResult& r) {
    if (!options.json) return printForPeople(options, r);
    nlohmann::ordered_json report = {{"image", options.name.image},
                                     {"files", r.files},
                                     {"unread", r.unread},
                                     {"folders", r.folders},
                                     {"links", r.links},
                                     {"recorded", r.recorded},
                                     {"skipped", r.skipped},
                                     {"stale", r.stale},
                                     {"kept", r.kept},
                                     {"bytes", r.bytes},
                                     {"segments", r.segments},
                                     {"newSegments", r.newSegments},
                                     {"newBytes", r.newBytes},
                                     {"found", r.found},
                                     {"cached", r.cached},
                                     {"complete", outcomeJson(r.complete)},
                                     {"interrupted", r.interrupted},
                                     {"seconds", r.seconds},
                                     {"cacheSeconds", r.cacheSeconds},
                                     {"serverSeconds", r.serverSeconds}};
    if (options.dryRun) {
        report["byFolder"] = foldersJson(r);
    } else {
        if (options.retention != 0) report["retentionSet"] = outcomeJson(r.retentionSet);
        if (!options.cacheFile.empty()) report["cacheSaved"] = r.cacheSaved;
    }
    tool::printJson(report, 2);
}

}  // namespace agent
