// ls, mkdir, cp, mv and rm: the server's name space.
#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "tools/mb/commands.h"
#include "tools/mb/listing.h"
#include "tools/shared/text.h"

namespace pool {
namespace {

using tool::printable;

/// One call for each path, whatever became of the one before.
int forEachPath(const Options& options,
                const std::function<uint32_t(MBSession*, const char* path)>& call) {
    Session session(options.session);
    int worst = session.code();
    if (worst != tool::kExitOk) return worst;
    for (const std::string& path : options.paths) {
        worst = std::max(worst, session.attempt(printable(path), [&](MBSession* mb) {
            return call(mb, path.c_str());
        }));
    }
    return worst;
}

/// One call with source and destination.
int fromTo(const Options& options, const std::function<uint32_t(MBSession*)>& call) {
    Session session(options.session);
    if (const int code = session.code()) return code;
    return session.attempt(printable(options.source) + " to " + printable(options.destination),
                           call);
}

}  // namespace

int list(const Options& options) {
    Session session(options.session);
    if (const int code = session.code()) return code;
    const std::string name = printable(options.paths[0]);
    char* received = nullptr;
    size_t length = 0;
    int code = session.attempt(name, [&](MBSession* mb) {
        return MBDirList(mb, options.paths[0].c_str(), &received, &length, options.recursive);
    });
    const tool::LibraryText text(received);
    if (code != tool::kExitOk) return code;

    // The length counts the NUL.
    const Listing listing =
        parseListing(length > 0 ? std::string_view(text.get(), length - 1) : "");
    (options.json ? printListingJson : printListing)(listing);
    for (const std::string& problem : listing.problems) {
        Session::complain(name, problem);
        code = tool::kExitFailed;
    }
    return code;
}

int makeDirectories(const Options& options) {
    return forEachPath(options, MBDirCreate);
}

int copy(const Options& options) {
    return fromTo(options, [&](MBSession* mb) {
        return MBFileCopy(mb, options.source.c_str(), options.destination.c_str(),
                          options.recursive);
    });
}

int move(const Options& options) {
    return fromTo(options, [&](MBSession* mb) {
        return MBFileMove(mb, options.source.c_str(), options.destination.c_str(), 0);
    });
}

int remove(const Options& options) {
    return forEachPath(options, [&](MBSession* mb, const char* path) {
        return MBFileDelete(mb, path, options.recursive);
    });
}

}  // namespace pool
