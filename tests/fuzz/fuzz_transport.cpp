// The whole way of an HTTP answer: from the bytes of a socket through libcurl and the transport
// into calls of a session, beside a plain reading of the same bytes.
//
// The sockets and the clock are those of this program: libcurl and the transport call the functions
// below in place of the system's. Nothing waits, so that time-outs and pauses cost nothing, and an
// input always takes the same way.
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "common/ascii.h"
#include "mb.h"
#include "platform/status.h"
#include "platform/ws.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/loopback.h"

namespace {

constexpr int64_t kMs = 1'000'000;
constexpr size_t kLimit = 3000;  // of an answer

/// What the server does behind an answer, or in place of a connection.
enum class End : uint8_t { kKeepsOpen, kCloses, kResets, kRefuses, kIsSilent };

struct Reply {
    End end = End::kKeepsOpen;
    uint8_t call = 0;  ///< the call that is made for it
    std::string bytes = {};
    bool isFlawless = false;  ///< an answer of the protocol by its making
    std::string request = {};
    int64_t begunAt = 0;
};

struct Connection {
    std::string request = {}, answer = {};
    size_t taken = 0;  ///< bytes of the answer
    End end = End::kKeepsOpen;
    bool isShut = false;  ///< by the transport
    int64_t dueAt = 0;    ///< when the next bytes of the answer are there
};

struct World {
    fuzz::Input input{nullptr, 0};
    MBSession* session = nullptr;
    int64_t now = 1'000'000 * kMs;
    std::map<int, Connection> connections = {};
    std::vector<Reply> replies = {};  ///< to the call under way
    std::optional<Reply> next = {};
    size_t piece = 0;    ///< most bytes that are there at once
    int64_t pause = 0;   ///< between them
    uint64_t moved = 0;  ///< bytes in both directions
    uint32_t pollsToAbort = 0;
    int64_t abortedAt = 0;  ///< 0: not aborted

    Reply& peek();
} world;

Reply& World::peek() {
    if (next) return *next;
    const uint8_t kind = input.byte(), end = kind % 8;
    const std::string bytes = input.until('\xff');
    next = Reply{end < 5 ? End{end} : End::kKeepsOpen, static_cast<uint8_t>(kind >> 5), bytes};
    if (end >= 5 || bytes.empty()) {
        next->bytes = (end == 7 ? "HTTP/1.1 503 No\r\nContent-Type: application/problem+json"
                                : "HTTP/1.1 200 Yes\r\nContent-Type: text/plain") +
                      ("\r\nContent-Length: " + std::to_string(bytes.size())) + "\r\n\r\n" + bytes;
        next->isFlawless = bytes.size() <= kLimit && bytes.find('\0') == std::string::npos;
    } else if ((kind >> 3 & 3) == 3) {
        for (int i = 0; i < 100; ++i)
            next->bytes += bytes;
    }
    return *next;
}

/// Whether a connection holds a whole request of ours.
bool isRequest(const std::string& bytes) {
    const size_t head = bytes.find("\r\n\r\n"), length = bytes.find("\r\nContent-Length: ");
    if (head == std::string::npos) return false;
    return bytes.size() == head + 4 + (length < head ? std::stoul(bytes.substr(length + 18)) : 0);
}

short eventsOf(const Connection& c) {
    if (c.end == End::kIsSilent) return 0;
    if (c.isShut) return POLLIN | POLLOUT | POLLHUP;
    const bool hasMore = c.taken < c.answer.size() || c.end != End::kKeepsOpen;
    return world.now >= c.dueAt && hasMore ? POLLIN | POLLOUT : POLLOUT;
}

int failed(int error) {
    errno = error;
    return -1;
}

}  // namespace

#define IN_PLACE_OF_THE_SYSTEM extern "C" __attribute__((visibility("default")))

IN_PLACE_OF_THE_SYSTEM int clock_gettime(clockid_t clock, timespec* time) noexcept {
    const bool isOurs = clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_RAW;
    if (!isOurs) return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    *time = {world.now / (1000 * kMs), world.now % (1000 * kMs)};
    return 0;
}

IN_PLACE_OF_THE_SYSTEM int socket(int domain, int type, int protocol) noexcept {
    if (domain != AF_INET) return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
    // A descriptor of its own, on which nothing is sent.
    const int fd = static_cast<int>(syscall(SYS_socket, AF_UNIX, type, 0));
    world.connections[fd] = {};
    return fd;
}

IN_PLACE_OF_THE_SYSTEM int connect(int fd, const sockaddr* /*address*/, socklen_t /*length*/) {
    const End end = world.peek().end;
    if (end != End::kRefuses && end != End::kIsSilent) return 0;
    world.connections.at(fd).end = end;
    world.next.reset();
    return failed(end == End::kRefuses ? ECONNREFUSED : EINPROGRESS);
}

/// libcurl reuses no connection whose peer it does not know.
IN_PLACE_OF_THE_SYSTEM int getpeername(int /*fd*/, sockaddr* address, socklen_t* length) noexcept {
    const sockaddr_in server = loopback::addressOf(1);
    memcpy(address, &server, *length = sizeof server);
    return 0;
}

IN_PLACE_OF_THE_SYSTEM ssize_t send(int fd, const void* bytes, size_t size, int /*flags*/) {
    Connection& c = world.connections.at(fd);
    if (c.isShut) return failed(EPIPE);
    size = std::min(size, world.piece);
    if (c.end != End::kKeepsOpen) return static_cast<ssize_t>(size);  // nobody reads it
    world.moved += size;
    // What a server said unasked would be taken for the answer.
    MUST(!c.request.empty() || (eventsOf(c) & POLLIN) == 0);
    c.request.append(static_cast<const char*>(bytes), size);
    if (!isRequest(c.request)) return static_cast<ssize_t>(size);
    Reply reply = world.peek();
    world.next.reset();
    reply.isFlawless = reply.isFlawless && c.taken == c.answer.size();
    reply.end = std::min(reply.end, End::kResets);
    reply.request = std::exchange(c.request, "");
    reply.begunAt = world.now;
    world.replies.push_back(reply);
    c.answer += reply.bytes;
    c.end = reply.end;
    c.dueAt = world.now + world.pause;
    return static_cast<ssize_t>(size);
}

IN_PLACE_OF_THE_SYSTEM ssize_t recv(int fd, void* bytes, size_t size, int flags) {
    Connection& c = world.connections.at(fd);
    if (c.isShut) return 0;
    if (world.now < c.dueAt) return failed(EAGAIN);
    const size_t got = std::min({size, world.piece, c.answer.size() - c.taken});
    if (got == 0 && c.end == End::kCloses) return 0;
    if (got == 0) return failed(c.end == End::kKeepsOpen ? EAGAIN : ECONNRESET);
    memcpy(bytes, c.answer.data() + c.taken, got);
    if ((flags & MSG_PEEK) != 0) return static_cast<ssize_t>(got);
    c.taken += got;
    world.moved += got;
    c.dueAt = world.now + world.pause;
    return static_cast<ssize_t>(got);
}

IN_PLACE_OF_THE_SYSTEM int shutdown(int fd, int /*how*/) noexcept {
    world.connections.at(fd).isShut = true;
    return 0;
}

IN_PLACE_OF_THE_SYSTEM int close(int fd) {
    world.connections.erase(fd);
    return static_cast<int>(syscall(SYS_close, fd));
}

IN_PLACE_OF_THE_SYSTEM int poll(pollfd* fds, nfds_t count, int timeout) {
    MUST(timeout >= 0);  // no wait is without an end
    if (timeout > 0 && world.pollsToAbort > 0 && --world.pollsToAbort == 0) {
        MUST(MBAbort(world.session) == 0);
        world.abortedAt = world.now;
    }
    int64_t wait = timeout * kMs;
    for (bool hasWaited = timeout == 0;; hasWaited = true) {
        if (syscall(SYS_poll, fds, count, 0) < 0) return -1;
        for (pollfd* one = fds; one != fds + count; ++one) {
            const auto found = world.connections.find(one->fd);
            if (found == world.connections.end()) continue;
            const Connection& c = found->second;
            one->revents = static_cast<short>(eventsOf(c) & (one->events | POLLHUP));
            if (c.dueAt > world.now) wait = std::min(wait, c.dueAt - world.now);
        }
        const auto isReady = [](const pollfd& one) { return one.revents != 0; };
        const auto ready = static_cast<int>(std::count_if(fds, fds + count, isReady));
        if (ready > 0 || hasWaited) return ready;
        world.now += wait;
    }
}

namespace {

/// An answer as a plain reader of the protocol takes it.
struct Plain {
    long code = 0;  ///< 0: not whole, or without an end that the answer itself tells
    std::string type = {}, body = {};
};

/// Takes a line and its end away. One with a CR within is none.
std::optional<std::string> takeLine(std::string_view& rest) {
    const size_t end = rest.find('\n');
    std::string line(rest.substr(0, end));
    if (end == std::string_view::npos) return {};
    rest.remove_prefix(end + 1);
    if (line.ends_with('\r')) line.pop_back();
    if (line.find('\r') != std::string::npos) return {};
    return line;
}

bool takeBody(std::string_view rest, const std::optional<std::string>& length, std::string& body) {
    for (bool isEnd = false; !isEnd;) {
        const auto line = length ? length : takeLine(rest);
        if (!line || isxdigit(static_cast<unsigned char>((*line)[0])) == 0) return false;
        const size_t size = strtoul(line->c_str(), nullptr, length ? 10 : 16);
        if (size > rest.size()) return false;
        body += rest.substr(0, size);
        rest.remove_prefix(size);
        isEnd = length || size == 0;
        if (!isEnd && takeLine(rest) != "") return false;
    }
    return body.find('\0') == std::string::npos;
}

Plain plainly(std::string_view rest) {
    Plain plain;
    std::map<std::string, std::vector<std::string>> fields;
    do {
        fields.clear();
        auto line = takeLine(rest);
        if (!line || !line->starts_with("HTTP/1.") || line->size() < 12) return {};
        plain.code = strtol(line->c_str() + 8, nullptr, 10);
        while ((line = takeLine(rest)) != "") {
            // Different programs read a line that goes on with the one before differently.
            if (!line || line->find_first_of(" \t") == 0) return {};
            const size_t colon = std::min(line->find(':'), line->size() - 1);
            for (char& c : *line)
                c = kspool::asciiLower(c);
            std::string& value = fields[line->substr(0, colon)].emplace_back();
            value = line->substr(std::min(line->find_first_not_of(" \t", colon + 1), line->size()));
        }
    } while (plain.code / 100 == 1);
    const auto& lengths = fields["content-length"];
    if (lengths.empty() == fields["transfer-encoding"].empty()) return {};
    const auto length = lengths.empty() ? std::nullopt : std::optional(lengths[0]);
    if (!takeBody(rest, length, plain.body)) return {};
    const auto& types = fields["content-type"];
    if (!types.empty()) plain.type = types.back().substr(0, types.back().find_first_of("; \t"));
    return plain;
}

/// The code of the event that an answer tells of; 0 for another one.
uint64_t plainEvent(const Plain& plain) {
    const bool isProblem = plain.code >= 400 && plain.code < 600;
    if (!isProblem || plain.type != "application/problem+json") return 0;
    const auto problem = nlohmann::json::parse(plain.body, nullptr, false);
    if (!problem.is_object() || !problem.contains("eventCode")) return 0;
    const auto& code = problem["eventCode"];
    return code.is_number_unsigned() && code <= UINT32_MAX ? code.get<uint64_t>() : 0;
}

/// A call, and whether it hands out the text of its answer as it is.
uint32_t call(uint8_t kind, char*& text, bool& isTold) {
    uint32_t time = 0;
    isTold = kind < 5;
    if (kind == 4) return MBDirList(world.session, "/", &text, nullptr, 1);
    if (kind == 5) return MBPOAddList(world.session, 1, "1|1|\n");
    if (kind == 6) return MBGetTime(world.session, &time);
    if (kind == 7) return MBKeepAlive(world.session, 0);
    return MBGetLastImages(world.session, 1, "c", "p", 0, 0, &text);
}

/// What a call says is what the last answer says.
void compare(uint32_t status, const char* text, bool isTold, const MBEvent& event) {
    const Reply last = world.replies.empty() ? Reply{} : world.replies.back();
    const Plain plain = plainly(last.bytes);
    const std::string told = text != nullptr ? text : "";
    MUST(text == nullptr || status == 0);
    if (status == 0) {
        MUST(event.eventCode == 0 && event.httpStatus == 200 && plain.code == 200);
        MUST(plain.type == "text/plain" && (!isTold || plain.body == told));
    }
    if (event.eventCode != 0) MUST(status != 0 && plainEvent(plain) == event.eventCode);
    for (const char* known :
         {event.severity, event.serverAddress, event.sourceApplication, event.description})
        for (; known != nullptr && *known != '\0'; ++known)
            MUST(static_cast<unsigned char>(*known) >= 0x20 && *known != 0x7f);
    // An answer without a flaw is taken, when its reader had the time for it.
    if (!last.isFlawless || world.pause != 0 || world.abortedAt != 0) return;
    const bool isOther = !isTold && status == CR_STATUS_BAD_RESPONSE;  // no list of names
    if (event.httpStatus == 200) MUST(status == 0 || isOther);
    const bool isLast = status != WS_STATUS_NO_CONNECT && status != WS_STATUS_CONNECT_TIMED_OUT;
    if (event.httpStatus == 503 && isLast) MUST(event.eventCode == plainEvent(plain));
}

/// All attempts of a request are the same bytes, and no later than its time allows; a status that
/// promises that nothing was done is given when nothing can have been.
void checkAttempts(uint32_t status, const MBEvent& event, int64_t start, int64_t most) {
    static std::string idBefore;
    bool mayBeDone = false;
    for (const Reply& one : world.replies) {
        MUST(one.request == world.replies[0].request && one.begunAt <= start + most);
        MUST(one.request.find(std::string("Request-Id: ") + event.requestId + "\r\n") <
             one.request.size());
        mayBeDone = plainEvent(plainly(one.bytes)) == 0;
    }
    MUST(event.requestId != std::exchange(idBefore, event.requestId));
    MUST(world.now <= start + most);
    MUST(world.abortedAt == 0 || world.now <= world.abortedAt + 100 * kMs);
    for (const uint32_t promise : {WS_STATUS_NO_CONNECT, WS_STATUS_CONNECT_TIMED_OUT})
        MUST(status != promise || !mayBeDone);
}

void makeCall(int64_t limit) {
    MBEvent event{};
    event.size = sizeof event;
    world.replies.clear();
    world.abortedAt = 0;
    const int64_t start = world.now;
    const uint64_t before = world.moved;
    char* text = nullptr;
    bool isTold = false;
    uint32_t status = call(world.peek().call, text, isTold);
    MUST(MBLastEvent(world.session, &event) == 0 && event.requestId != nullptr);
    if (status == CR_STATUS_REMOTE_ERROR && event.eventCode == 0) status = 0;  // an empty text
    const auto paid = static_cast<int64_t>((world.moved - before) >> 16) * 1000;
    checkAttempts(status, event, start, (limit + paid + 100) * kMs);
    compare(status, text, isTold, event);
    free(text);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    fuzz::discardMessages();
    WSSetAnswerLimit(kLimit);
    world.next.reset();
    world.input = {bytes, size};
    const auto response = static_cast<int>(world.input.below(3) + 1);
    const auto reconnect = static_cast<int>(world.input.below(4));
    const uint8_t piece = world.input.byte(), pause = world.input.byte();
    world.pollsToAbort = world.input.byte();
    world.piece = piece != 0 ? piece : SIZE_MAX;
    world.pause = pause > 63 ? 0 : int64_t{pause} * 10 * kMs;
    world.session = MBInitWithAgentCfg("http://127.0.0.1:1/a", 0, "a", "b", "/dev/null");
    MUST(MBSetResponseTimeOut(world.session, response) == 0);
    MUST(MBEnableResiliency(world.session, reconnect) == 0);
    for (int i = 0; i < 8 && (world.next || !world.input.isEmpty()); ++i)
        makeCall(int64_t{response + reconnect} * 1000);
    MBShutdown(world.session);
    MUST(world.connections.empty());
    return 0;
}
