// ls, mkdir, cp, mv and rm: files and directories of the server.
#include <functional>
#include <string>
#include <string_view>

#include "common/owned.h"
#include "tools/mb/commands.h"
#include "tools/mb/listing.h"
#include "tools/shared/text.h"

namespace mb {
namespace {

using tool::printable;
using tool::Session;

/// Makes one call per path; goes on after a failure.
ExitCode forEachPath(const Options& options,
                     const std::function<uint32_t(MBSession*, const char* path)>& call) {
    Session session(options.session);
    tool::Steps steps;
    for (const std::string& path : options.paths) {
        steps.run([&] {
            session.attempt(printable(path), [&](MBSession* s) { return call(s, path.c_str()); });
        });
    }
    return steps.code();
}

/// Makes one call with source and destination.
ExitCode fromTo(const Options& options, const std::function<uint32_t(MBSession*)>& call) {
    Session session(options.session);
    session.attempt(printable(options.source) + " to " + printable(options.destination), call);
    return ExitCode::kOk;
}

}  // namespace

ExitCode list(const Options& options) {
    Session session(options.session);
    const std::string name = printable(options.paths[0]);
    kspool::OwnedText text;
    size_t length = 0;  // with the NUL
    session.attempt(name, [&](MBSession* s) {
        char* received = nullptr;
        const uint32_t status =
            MBDirList(s, options.paths[0].c_str(), &received, &length, options.recursive);
        text.reset(received);
        return status;
    });
    const Listing listing =
        parseListing(length > 0 ? std::string_view(text.get(), length - 1) : "");
    (options.json ? printListingJson : printListing)(listing);
    for (const std::string& problem : listing.problems)
        tool::complain(std::string(name).append(": ").append(problem));
    return listing.problems.empty() ? ExitCode::kOk : ExitCode::kFailed;
}

ExitCode makeDirectories(const Options& options) {
    return forEachPath(options, MBDirCreate);
}

ExitCode copy(const Options& options) {
    return fromTo(options, [&](MBSession* s) {
        return MBFileCopy(s, options.source.c_str(), options.destination.c_str(),
                          options.recursive);
    });
}

ExitCode move(const Options& options) {
    return fromTo(options, [&](MBSession* s) {
        return MBFileMove(s, options.source.c_str(), options.destination.c_str(), 0);
    });
}

ExitCode remove(const Options& options) {
    return forEachPath(options, [&](MBSession* s, const char* path) {
        return MBFileDelete(s, path, options.recursive);
    });
}

}  // namespace mb
