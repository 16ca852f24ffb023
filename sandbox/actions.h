// The actions of the wire protocol: one row each.
#ifndef SANDBOX_ACTIONS_H
#define SANDBOX_ACTIONS_H

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "sandbox/request.h"
#include "sandbox/store/images.h"
#include "sandbox/store/names.h"
#include "sandbox/store/pos.h"
#include "sandbox/store/selections.h"

namespace sandbox {

/// The state that a handler works on, for one request.
struct Context {
    NameSpace& names;
    POStore& pos;
    Selections& selections;
    ImageStore& images;
    int64_t now;  ///< seconds since 1970
    /// Set by a handler with a long answer: the source of the blocks after the returned text, as in
    /// Answer::more.
    std::function<std::string()> more{};
};

constexpr size_t kMostParameters = 9;

/// One row of the protocol's table. The row decides everything but the effect: the service, the
/// permission, and where the parameters are and of which types.
struct Action {
    const char* name;
    const char* service;
    const char* permission;  ///< NULL: any login
    /// True: runs in a transaction, and its answer is stored for a resend (see core.h).
    bool changes;
    /// NULL: the body holds the parameters. Otherwise they are in the URL, and the handler gets the
    /// body as the parameter of this name.
    const char* bodyText;
    std::array<Parameter, kMostParameters> parameters;  ///< rows without a name are unused
    /// Returns the answer's text. Throws Event, which rolls its effects back if `changes`.
    std::string (*handle)(Context&, const Parameters&);
};

/// True for an action of any service, and for "arch", the request for the architecture mode.
bool isActionName(const std::string& name);
/// The names of all of these, in the order of the protocol's table.
std::vector<std::string> actionNames();

/// The row of an action, NULL when the service has none of this name.
const Action* findAction(const std::string& service, const std::string& name);

}  // namespace sandbox

#endif
