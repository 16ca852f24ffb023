// Checks whether a cache file may be used for what a run records.
#ifndef TOOLS_AGENT_BINDING_H
#define TOOLS_AGENT_BINDING_H

#include "tools/agent/cache.h"
#include "tools/agent/facts.h"

namespace agent {

/// The facts of a cache file, or new facts if there are none. Unusable facts are reported and
/// replaced by new ones. Throws Failure for a cache that is bound to something else, unless
/// `rebind`, which makes new facts.
Facts factsFor(const HeldFile& file, const Binding& binding, bool rebind);

}  // namespace agent

#endif
