// The support library's stand-in: trace switch, messages, their sink and the fatal-error record.
//
// Thread rule: any thread may call any function here.
// Invariants:
//  1. Messages are formatted without a lock and passed to the sink under `sinkLock`: only one
//     thread at a time is in the sink, and messages do not mix.
//  2. qlxSetSink() takes the same lock. When it returns, no other thread is in the old sink, whose
//     `arg` may be freed. A message that is already being written to stderr may appear later.
//  3. `isInSink` marks the thread that is in the sink. This thread holds the lock, and would
//     deadlock if it took the lock again. Therefore a message that a sink writes goes to stderr.
//  4. `fatalLock` covers the fatal-error record. It is the inner lock: a sink may read the record,
//     and nothing is called while `fatalLock` is held.
//  5. fork() takes both locks, the outer one first, and releases them in parent and child.
//     Otherwise a lock held by another thread would stay locked in the child, whose next message
//     would hang, and the sink's data could be copied in the middle of a change. A thread that
//     forks inside the sink already holds the outer lock, and so does its child. stderr is written
//     without a lock, so that fork() does not wait for the reader of a full pipe.
//  6. errno is as before after each message call; the status slot is never touched.
//  7. On stderr each line of a message begins with the process and the level, and control
//     characters are escaped: otherwise text from a server could forge a line or control the
//     terminal. A sink gets the text unchanged.
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <mutex>
#include <string_view>

#include "common/ascii.h"
#include "common/owned.h"
#include "platform/support.h"

namespace {

int traceSwitch = 0;

struct LevelName {
    uint32_t level;
    const char* name;
};

constexpr LevelName kLevelNames[] = {
    {QLX_LEVEL_TRACE, "trace"},   {QLX_LEVEL_NOTE, "note"},       {QLX_LEVEL_INFO, "info"},
    {QLX_LEVEL_NOTICE, "notice"}, {QLX_LEVEL_WARNING, "warning"}, {QLX_LEVEL_ERROR, "error"},
};

/// A formatted text of any length. Up to 1023 bytes are stored in the object itself; a longer text
/// is allocated, or truncated to that size when memory is short.
class Message {
  public:
    QLX_PRINTF(2, 0) Message(const char* format, va_list arguments) {
        va_list first;
        va_copy(first, arguments);
        short_[0] = '\0';
        const int length = vsnprintf(short_, sizeof short_, format, first);
        va_end(first);
        if (length < static_cast<int>(sizeof short_)) return;
        const size_t size = static_cast<size_t>(length) + 1;
        long_.reset(static_cast<char*>(malloc(size)));
        if (long_ != nullptr) vsnprintf(long_.get(), size, format, arguments);
    }
    const char* text() const { return long_ != nullptr ? long_.get() : short_; }

  private:
    char short_[1024];
    kspool::OwnedText long_;
};

/// Counts all bytes, and stores as many as fit.
struct Output {
    char* text;
    size_t room;
    size_t size = 0;

    void put(std::string_view piece) {
        const size_t kept = std::min(piece.size(), room - std::min(room, size));
        if (kept > 0) memcpy(text + size, piece.data(), kept);
        size += piece.size();
    }
};

/// Puts a message as it appears on stderr: its first line after the head and ": ", each further
/// line after the head and "| ", so that no further line can pass for a message. A final LF is
/// dropped.
void putLines(Output& output, std::string_view head, std::string_view text) {
    if (text.ends_with('\n')) text.remove_suffix(1);
    const auto putHead = [&] {
        kspool::visible(head, [&](std::string_view piece) { output.put(piece); });
    };
    putHead();
    output.put(": ");
    kspool::visible(text, [&](std::string_view piece) {
        output.put(piece);
        if (piece != "\n") return;
        putHead();
        output.put("| ");
    });
    output.put("\n");
}

/// Writes a message with a single write(): separate pieces would mix with those of other processes
/// on the same stderr. A long message is truncated when memory is short.
void writeToStderr(uint32_t level, uint32_t status, const char* text) {
    const auto* row = std::find_if(std::begin(kLevelNames), std::end(kLevelNames),
                                   [=](const LevelName& l) { return l.level == level; });
    char name[64];
    if (row == std::end(kLevelNames)) {
        snprintf(name, sizeof name, "level %u %u", level, status);
    } else if (level == QLX_LEVEL_TRACE) {
        snprintf(name, sizeof name, "%s", row->name);
    } else {
        snprintf(name, sizeof name, "%s %u", row->name, status);
    }
    char head[160];
    snprintf(head, sizeof head, "%.80s[%d] %s", OSGetProcName(0), getpid(), name);
    char few[2048];
    Output output{few, sizeof few};
    putLines(output, head, text);
    kspool::OwnedText many;
    if (output.size > sizeof few) {
        many.reset(static_cast<char*>(malloc(output.size)));
        if (many != nullptr) {
            output = {many.get(), output.size};
            putLines(output, head, text);
        } else {
            output.size = sizeof few;
            few[sizeof few - 1] = '\n';
        }
    }
    // A failure is ignored: it could only be reported on stderr.
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, output.text, output.size);
}

std::mutex sinkLock;
QLXSink currentSink = nullptr;
void* currentSinkArg = nullptr;
thread_local bool isInSink = false;

std::mutex fatalLock;
uint32_t fatalId = 0;
char fatalFunction[128];
char fatalMessage[4096];

void lockForFork() {
    if (!isInSink) sinkLock.lock();
    fatalLock.lock();
}

void unlockAfterFork() {
    fatalLock.unlock();
    if (!isInSink) sinkLock.unlock();
}

/// Runs when the library is loaded, before any thread of the program can log or fork. If memory is
/// short, handlers are missing and a child may hang; there is no way to report that yet.
[[gnu::constructor]] void watchForks() {
    pthread_atfork(lockForFork, unlockAfterFork, unlockAfterFork);
}

/// Passes a message to the sink. False without a sink, and for a message that the sink itself
/// wrote.
bool hand(uint32_t level, uint32_t status, const char* text) {
    if (isInSink) return false;
    const std::lock_guard<std::mutex> hold(sinkLock);
    if (currentSink == nullptr) return false;
    isInSink = true;
    currentSink(level, status, text, currentSinkArg);
    isInSink = false;
    return true;
}

QLX_PRINTF(3, 0)
void emit(uint32_t level, uint32_t status, const char* format, va_list arguments) {
    const int savedErrno = errno;
    const Message message(format, arguments);
    if (!hand(level, status, message.text())) writeToStderr(level, status, message.text());
    errno = savedErrno;
}

}  // namespace

int* __qlxlog_trace_location() noexcept {
    return &traceSwitch;
}

void qlxSetSink(QLXSink sink, void* arg) noexcept {
    std::unique_lock<std::mutex> hold(sinkLock, std::defer_lock);
    if (!isInSink) hold.lock();
    currentSink = sink;
    currentSinkArg = arg;
}

// A variadic function can pass its arguments on only as a va_list, so each entry has this body.
#define EMIT(level, status)                     \
    do {                                        \
        va_list arguments;                      \
        va_start(arguments, format);            \
        emit(level, status, format, arguments); \
        va_end(arguments);                      \
    } while (false)

void __TraceA(const char* format, ...) noexcept {
    EMIT(QLX_LEVEL_TRACE, 0);
}
void ErrorA(uint32_t status, const char* format, ...) noexcept {
    EMIT(QLX_LEVEL_ERROR, status);
}
void WarningA(uint32_t status, const char* format, ...) noexcept {
    EMIT(QLX_LEVEL_WARNING, status);
}
void NoticeA(uint32_t status, const char* format, ...) noexcept {
    EMIT(QLX_LEVEL_NOTICE, status);
}
void InfoA(uint32_t status, const char* format, ...) noexcept {
    EMIT(QLX_LEVEL_INFO, status);
}
void qlxLogA(uint32_t status, uint32_t level, const char* format, ...) noexcept {
    EMIT(level, status);
}

#undef EMIT

void qlxSetFatalError(const char* function, uint32_t id, const char* format, ...) noexcept {
    const int savedErrno = errno;
    va_list arguments;
    va_start(arguments, format);
    const Message message(format, arguments);
    va_end(arguments);
    errno = savedErrno;
    const std::lock_guard<std::mutex> hold(fatalLock);
    fatalId = id;
    qlxstrcpy(fatalFunction, function, sizeof fatalFunction);
    qlxstrcpy(fatalMessage, message.text(), sizeof fatalMessage);
}

uint32_t qlxGetFatalError(char* function, size_t functionSize, char* message,
                          size_t messageSize) noexcept {
    const std::lock_guard<std::mutex> hold(fatalLock);
    qlxstrcpy(function, fatalFunction, functionSize);
    qlxstrcpy(message, fatalMessage, messageSize);
    return fatalId;
}
