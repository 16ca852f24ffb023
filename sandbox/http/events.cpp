#include "sandbox/http/events.h"

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "sandbox/http/delivery.h"

namespace sandbox {
namespace {

using Clock = std::chrono::steady_clock;
using OrderedJson = nlohmann::ordered_json;

constexpr uint64_t kPause = 200;  // milliseconds
/// After this time without events a comment line is sent, so that both sides detect a dead
/// connection.
constexpr std::chrono::seconds kSilence(15);
constexpr int kMostReaders = 8;
constexpr size_t kBlockSize = 32768;

/// The reader of one answer, owned by its response.
struct Stream {
    Stream(State& shared, Alarm& clock, MHD_Connection* answered)
        : state(shared), alarm(clock), connection(answered) {
        ++state.eventReaders;
    }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
    ~Stream() { --state.eventReaders; }

    State& state;
    Alarm& alarm;
    MHD_Connection* connection;
    bool begun = false;
    uint64_t epoch = 0;   ///< of the log
    uint64_t number = 0;  ///< of the last request sent
    uint64_t faults = 0;  ///< the version sent
    std::string text{};
    size_t sent = 0;  ///< bytes of `text`
    Clock::time_point lastSent = Clock::now();
};

void appendEvent(std::string& text, const char* name, const OrderedJson& data) {
    text.append("event: ").append(name).append("\ndata: ");
    text += data.dump(-1, ' ', false, OrderedJson::error_handler_t::replace);
    text += "\n\n";
}

/// The events since the last call; empty if there were none.
std::string news(Stream& stream) {
    std::string text;
    const std::lock_guard<std::mutex> lock(stream.state.mutex);
    const RequestLog& log = stream.state.log;
    if (stream.begun && stream.epoch != log.epoch()) {
        appendEvent(text, "reset", OrderedJson::object());
        stream.number = 0;
    }
    stream.epoch = log.epoch();
    if (!stream.begun || log.total() > stream.number) {
        appendEvent(text, "requests", log.since(stream.number));
        stream.number = log.total();
    }
    const Faults& faults = stream.state.faults;
    if (!stream.begun || faults.version() != stream.faults)
        appendEvent(text, "faults", faults.report());
    stream.faults = faults.version();
    stream.begun = true;
    return text;
}

/// True if the client has closed its side. libmicrohttpd does not watch a suspended connection, so
/// otherwise a closed page would count as a reader until a write fails.
bool isGone(MHD_Connection* connection) {
    const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    if (info == nullptr) return false;
    pollfd wait{info->connect_fd, POLLRDHUP, 0};
    return poll(&wait, 1, 0) > 0;
}

/// Reader of libmicrohttpd. 0 means no data yet, which is allowed for a suspended connection.
ssize_t readStream(void* closure, uint64_t /*position*/, char* buffer, size_t size) noexcept {
    auto& stream = *static_cast<Stream*>(closure);
    try {
        if (stream.sent == stream.text.size()) {
            stream.text = news(stream);
            stream.sent = 0;
            if (stream.text.empty() && Clock::now() - stream.lastSent > kSilence)
                stream.text = ":\n\n";
        }
        if (stream.text.empty()) {
            if (isGone(stream.connection)) return MHD_CONTENT_READER_END_WITH_ERROR;
            return stream.alarm.suspend(stream.connection, kPause)
                       ? 0
                       : MHD_CONTENT_READER_END_OF_STREAM;
        }
    } catch (...) {
        return MHD_CONTENT_READER_END_WITH_ERROR;
    }
    const size_t count = std::min(size, stream.text.size() - stream.sent);
    std::copy_n(stream.text.data() + stream.sent, count, buffer);
    stream.sent += count;
    stream.lastSent = Clock::now();
    return static_cast<ssize_t>(count);
}

void freeStream(void* stream) noexcept {
    delete static_cast<Stream*>(stream);
}

}  // namespace

MHD_Result streamEvents(MHD_Connection* connection, State& state, Alarm& alarm) {
    if (state.eventReaders >= kMostReaders) {
        Answer answer;
        answer.status = 503;
        answer.body = "too many readers\n";
        return deliver(connection, alarm, std::move(answer), nullptr);
    }
    auto stream = std::make_unique<Stream>(state, alarm, connection);
    MHD_Response* response = MHD_create_response_from_callback(
        MHD_SIZE_UNKNOWN, kBlockSize, readStream, stream.get(), freeStream);
    if (response == nullptr) return MHD_NO;
    static_cast<void>(stream.release());
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "text/event-stream");
    MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
    const MHD_Result queued = MHD_queue_response(connection, 200, response);
    MHD_destroy_response(response);
    return queued;
}

}  // namespace sandbox
