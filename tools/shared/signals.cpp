#include "tools/shared/signals.h"

#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <thread>

namespace tool {
namespace {

constexpr std::array kSignals = {SIGINT, SIGTERM, SIGHUP};
constexpr unsigned kAgainAfter = 1;  // seconds

std::array<struct sigaction, kSignals.size()> formerActions;
struct sigaction formerAlarm;

std::atomic<int> askedBy{0};
std::atomic<MBSession*> abortedSession{nullptr};
std::atomic<int> handlersAtWork{0};

static_assert(std::atomic<int>::is_always_lock_free && std::atomic<MBSession*>::is_always_lock_free,
              "the handlers may take no lock");

bool isIgnored(const struct sigaction& action) {
    return (action.sa_flags & SA_SIGINFO) == 0 && action.sa_handler == SIG_IGN;
}

void abortSession() {
    ++handlersAtWork;
    if (MBSession* session = abortedSession; session != nullptr) {
        MBAbort(session);
        alarm(kAgainAfter);
    }
    --handlersAtWork;
}

void onAlarm(int /*number*/) {
    const int kept = errno;
    abortSession();
    errno = kept;
}

void onSignal(int number) {
    const int kept = errno;
    struct sigaction byDefault {};
    byDefault.sa_handler = SIG_DFL;
    for (size_t i = 0; i < kSignals.size(); ++i)
        if (!isIgnored(formerActions[i])) sigaction(kSignals[i], &byDefault, nullptr);
    askedBy = number;
    abortSession();
    errno = kept;
}

}  // namespace

Interrupts::Interrupts() {
    struct sigaction action {};
    action.sa_flags = SA_RESTART;
    for (const int number : kSignals)
        sigaddset(&action.sa_mask, number);
    action.sa_handler = onAlarm;
    sigaction(SIGALRM, &action, &formerAlarm);
    action.sa_handler = onSignal;
    // The handler reads all former actions, so they must be stored before it is installed.
    for (size_t i = 0; i < kSignals.size(); ++i)
        sigaction(kSignals[i], nullptr, &formerActions[i]);
    for (size_t i = 0; i < kSignals.size(); ++i)
        if (!isIgnored(formerActions[i])) sigaction(kSignals[i], &action, nullptr);
}

Interrupts::~Interrupts() {
    for (size_t i = 0; i < kSignals.size(); ++i)
        sigaction(kSignals[i], &formerActions[i], nullptr);
    abort(nullptr);
    sigaction(SIGALRM, &formerAlarm, nullptr);
}

bool Interrupts::asked() {
    return askedBy != 0;
}

void Interrupts::abort(MBSession* session) {
    abortedSession = session;
    while (handlersAtWork != 0)
        std::this_thread::yield();
    // A handler that ran before the session was set has not started the alarm.
    alarm(session != nullptr && asked() ? kAgainAfter : 0);
}

int Interrupts::endBySignal() {
    struct sigaction byDefault {};
    byDefault.sa_handler = SIG_DFL;
    sigaction(askedBy, &byDefault, nullptr);
    raise(askedBy);
    return 128 + askedBy;
}

}  // namespace tool
