// Ending a program in order by SIGINT, SIGTERM or SIGHUP.
//
// Thread rule: one thread makes and destroys the only Interrupts of a program, and sets its
// session. Any thread may call asked(). The handler may run on any thread. Handlers may call
// MBAbort(), so no separate thread has to wait for signals. Invariants:
//  1. The first signal sets asked() permanently and gives all three signals their default action,
//     so that the second signal ends the program at once.
//  2. A signal that was ignored at the start of the program, as by nohup, stays ignored.
//  3. MBAbort() has no effect between two requests. Therefore SIGALRM repeats it every second, so
//     that a request that began just after the signal is ended too.
//  4. When abort() or the destructor returns, no handler uses the former session any more, and its
//     owner may shut it down.
#ifndef TOOLS_SHARED_SIGNALS_H
#define TOOLS_SHARED_SIGNALS_H

#include "mb.h"

namespace tool {

/// The first SIGINT, SIGTERM or SIGHUP asks the program to end in order; the second ends it at
/// once. Declare it after the session that it aborts, so that it is destroyed before the session.
class Interrupts {
  public:
    Interrupts();
    /// Restores the former actions of the signals; asked() keeps its value.
    ~Interrupts();
    Interrupts(const Interrupts&) = delete;
    Interrupts& operator=(const Interrupts&) = delete;

    /// Whether a signal has come.
    static bool asked();

    /// From the first signal on, all requests of this session, later ones included, end at once
    /// with WS_STATUS_ABORTED, so that a silent server cannot delay the end. nullptr: no session. A
    /// program that must still make requests in order to end calls abort(nullptr) first.
    void abort(MBSession* session);

    /// Ends the program by the signal that has come: a shell stops its script only after a program
    /// that ended by a signal. The exit code in the shell is 128 plus the signal's number. Returns
    /// this code if the signal is blocked. runProgram() calls it for ExitCode::kInterrupted.
    static int endBySignal();
};

}  // namespace tool

#endif
