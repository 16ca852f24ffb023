// The support library's stand-in: trace switch, messages, their sink and the fatal-error record.
//
// Thread rule: any thread may call any function here.
// Invariants:
//  1. Messages are formatted without a lock and handed over under `sinkLock`: one thread at a time
//     is in the sink, and it gets whole messages.
//  2. qlxSetSink() takes the same lock. When it returns, no thread is in the old sink, whose `arg`
//     may be freed. A sink that logs or calls qlxSetSink() would wait for itself.
//  3. `fatalLock` covers the three members of the fatal-error record. No lock is taken while the
//     other one is held.
//  4. errno is as before after each message call; the status slot is never touched.
// A child of fork() has copies of the locks. One that another thread held at the fork is never
// released in the child, whose next message then waits for ever: a program that logs from several
// threads may only call exec() in its children.
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <mutex>

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

/// A formatted text of any length. A text of up to 1023 bytes lies in the object itself; a longer
/// one is allocated, and is cut to that size when there is no memory.
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

/// Writes a message as one line, with a single writev(): pieces written one by one would mix with
/// those of other processes that have the same stderr.
void writeToStderr(uint32_t level, uint32_t status, const char* text) {
    const auto* row = std::find_if(std::begin(kLevelNames), std::end(kLevelNames),
                                   [=](const LevelName& l) { return l.level == level; });
    char head[64];
    if (row == std::end(kLevelNames)) {
        snprintf(head, sizeof head, "level %u %u", level, status);
    } else if (level == QLX_LEVEL_TRACE) {
        snprintf(head, sizeof head, "%s", row->name);
    } else {
        snprintf(head, sizeof head, "%s %u", row->name, status);
    }
    char start[160];
    snprintf(start, sizeof start, "%.80s[%d] %s: ", OSGetProcName(0), getpid(), head);
    const iovec parts[] = {{start, strlen(start)},
                           {const_cast<char*>(text), strlen(text)},
                           {const_cast<char*>("\n"), 1}};
    // A failure is ignored: stderr is where it would have to be reported.
    [[maybe_unused]] const ssize_t written = writev(STDERR_FILENO, parts, std::size(parts));
}

std::mutex sinkLock;
QLXSink currentSink = nullptr;
void* currentSinkArg = nullptr;

QLX_PRINTF(3, 0)
void emit(uint32_t level, uint32_t status, const char* format, va_list arguments) {
    const int savedErrno = errno;
    const Message message(format, arguments);
    {
        const std::lock_guard<std::mutex> hold(sinkLock);
        if (currentSink != nullptr) {
            currentSink(level, status, message.text(), currentSinkArg);
        } else {
            writeToStderr(level, status, message.text());
        }
    }
    errno = savedErrno;
}

std::mutex fatalLock;
uint32_t fatalId = 0;
char fatalFunction[128];
char fatalMessage[4096];

}  // namespace

int* __qlxlog_trace_location() noexcept {
    return &traceSwitch;
}

void qlxSetSink(QLXSink sink, void* arg) noexcept {
    const std::lock_guard<std::mutex> hold(sinkLock);
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
