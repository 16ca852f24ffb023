// The actions of the wire protocol: one row each.
#ifndef SANDBOX_ACTIONS_H
#define SANDBOX_ACTIONS_H

#include <array>
#include <cstdint>
#include <functional>
#include <string>

#include "sandbox/request.h"
#include "sandbox/store/images.h"
#include "sandbox/store/names.h"
#include "sandbox/store/pos.h"
#include "sandbox/store/selections.h"

namespace sandbox {

/// What handlers work on. They return the answer's text or throw Event.
struct Context {
    NameSpace& names;
    POStore& pos;
    Selections& selections;
    ImageStore& images;
    int64_t now;
    /// What follows the text that a handler returns, block by block, if it is long.
    std::function<std::string()> more{};
};

constexpr size_t kMostParameters = 9;

struct Action {
    const char* name;
    const char* service;
    const char* permission;  ///< NULL: any login
    /// In one transaction, and its answer is kept for when the request comes again.
    bool changes;
    /// The name under which the handler has the request's body, when the parameters are in the URL;
    /// NULL: the body is the parameters.
    const char* bodyText;
    std::array<Parameter, kMostParameters> parameters;  ///< those that have a name
    std::string (*handle)(Context&, const Parameters&);
};

/// NULL when the service has no such action.
const Action* findAction(const std::string& service, const std::string& name);

}  // namespace sandbox

#endif
