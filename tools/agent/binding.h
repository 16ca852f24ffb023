// Whether the cache of a file may be used for what a run is to record.
#ifndef TOOLS_AGENT_BINDING_H
#define TOOLS_AGENT_BINDING_H

#include "tools/agent/cache.h"
#include "tools/agent/facts.h"

namespace agent {

/// The facts of a cache file, or new ones where there are none, or none that can be read, which is
/// told. Throws Failure for a cache that is bound to something else, unless `rebind`: then the
/// facts are new.
Facts factsFor(const HeldFile& file, const Binding& binding, bool rebind);

}  // namespace agent

#endif
