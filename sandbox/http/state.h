// The state of a running server, and its lock.
//
// Threads: libmicrohttpd's thread runs the callbacks of all connections; the alarm's thread and
// that of the logins resume suspended ones; the program's threads construct and end the server, and
// call Server::admin().
//
// Locks, in the order in which they may be taken while others are held:
//  1. State::mutex: around each call of core, faults and log. serve() holds it while it handles a
//     request and queues the answer; the blocks of a long answer are made without it.
//  2. Alarm's mutex: around its list. serve() suspends a connection, and so takes it second; a
//     stalled answer takes it alone, since blocks are read outside State::mutex.
//  3. Logins' mutex: around its list. serve() suspends a connection, and so takes it second.
//  4. The mutex of libmicrohttpd's messages (server.cpp): a leaf, nothing is called under it.
//     libmicrohttpd may log in any call, under 1 and 2 as well.
// No function waits for a thread or for the network while it holds one of them: sockets are
// non-blocking, and Alarm::stop() and Logins::stop() join their threads after unlocking. Only
// SQLite may wait, for up to two seconds, while another program holds the database's lock.
#ifndef SANDBOX_HTTP_STATE_H
#define SANDBOX_HTTP_STATE_H

#include <cstdint>
#include <mutex>
#include <string>

#include "sandbox/core.h"
#include "sandbox/faults.h"
#include "sandbox/log.h"
#include "sandbox/sandbox.h"

namespace sandbox {

/// Shared by all connections. `core`, `faults` and `log` are used under `mutex` once the daemon
/// runs. The other members are set before, never change, and are read without it.
struct State {
    explicit State(const Settings& settings)
        : core(settings),
          host(settings.host),
          prefix(settings.prefix),
          bodyLimit(settings.bodyLimit) {}

    std::mutex mutex;
    Core core;
    Faults faults;
    RequestLog log;
    int eventReaders = 0;  ///< of libmicrohttpd's thread alone
    std::string url;
    std::string host;    ///< of the configured URL, or empty
    std::string prefix;  ///< of the path of each URL but those below /__admin/
    uint64_t bodyLimit;
};

}  // namespace sandbox

#endif
