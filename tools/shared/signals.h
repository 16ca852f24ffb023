// How a program is asked to end: by SIGINT, SIGTERM or SIGHUP.
//
// Thread rule: one thread makes and destroys the only Interrupts of a program, and names its
// session. Any thread may call asked(). The handler may run on any thread. MBAbort() may be called
// by a handler, so that no thread of its own has to wait for signals.
// Invariants:
//  1. The first signal sets asked() for good, and gives all three signals their default action:
//     the second one ends the program at once.
//  2. A signal that was ignored when the program began, as by nohup, stays ignored.
//  3. MBAbort() has no effect between two requests. The handler therefore runs again each second,
//     by SIGALRM, so that a request which began just after the signal is ended too.
//  4. When abort() or the destructor returns, no handler uses the former session any more: its
//     owner may shut it down.
#ifndef TOOLS_SHARED_SIGNALS_H
#define TOOLS_SHARED_SIGNALS_H

#include "mb.h"

namespace tool {

/// The first SIGINT, SIGTERM or SIGHUP asks the program to end in order; the second ends it at
/// once. To be declared after the session that it aborts, so that it is destroyed before it.
class Interrupts {
  public:
    Interrupts();
    /// Restores what the signals did before; asked() stays.
    ~Interrupts();
    Interrupts(const Interrupts&) = delete;
    Interrupts& operator=(const Interrupts&) = delete;

    /// Whether a signal has come.
    static bool asked();

    /// From the first signal on, the requests of this session end at once with WS_STATUS_ABORTED,
    /// later requests included: a silent server holds nothing up. nullptr: none. A program that
    /// still has requests to make in order to end calls abort(nullptr) before them.
    void abort(MBSession* session);

    /// Ends the program by the signal that has come, since a shell stops its script only for a
    /// program that ended so. The shell shows 128 and the signal's number. Returns this number
    /// where the signal is blocked. runProgram() calls it for ExitCode::kInterrupted.
    static int endBySignal();
};

}  // namespace tool

#endif
