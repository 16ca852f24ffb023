// The state of a running server, and its lock.
//
// Threads: libmicrohttpd's thread runs the callbacks of all connections; the threads of Alarm and
// Logins resume suspended connections; the program's threads construct and destroy the server, and
// call Server::admin().
//
// Lock order: a lock may be taken while locks before it in this list are held.
//  1. State::mutex: around each call of core, faults and log. serve() holds it while it handles a
//     request and queues the answer; the blocks of a long answer are made without it.
//  2. Alarm's mutex: around its list. serve() suspends a connection, and so takes it second; a
//     stalled answer takes it alone, since blocks are read outside State::mutex.
//  3. Logins' mutex: around its list. serve() suspends a connection, and so takes it second.
//  4. The mutex of libmicrohttpd's messages (server.cpp): a leaf, nothing is called under it.
//     libmicrohttpd may log in any call, under 1 and 2 as well.
// No function waits for a thread or for the network while it holds a lock: sockets are
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

/// Shared by all connections. Once the daemon runs, `core`, `faults` and `log` are used only under
/// `mutex`, and `eventReaders` only on libmicrohttpd's thread. The other members never change then,
/// and are read without a lock.
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
    std::string prefix;  ///< of the path of all URLs except those below /__admin/
    uint64_t bodyLimit;
};

}  // namespace sandbox

#endif
