#include "sandbox/http/delivery.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "sandbox/http/wire.h"

namespace sandbox {
namespace {

/// The least Content-Length of a cut answer: an empty body could not be cut.
constexpr uint64_t kSmallestCut = 16;
constexpr size_t kBlockSize = 32768;

struct DestroyResponse {
    void operator()(MHD_Response* response) const { MHD_destroy_response(response); }
};
using Response = std::unique_ptr<MHD_Response, DestroyResponse>;

/// A body that is generated while it is sent, so that an oversize one of gigabytes needs no memory:
/// the text, then 'x' up to the length. Owned by its response, which is destroyed before the
/// connection.
struct Stream {
    std::string text;
    uint64_t length = 0;   ///< bytes that are sent
    bool complete = true;  ///< false: the connection is closed after them
    uint64_t stall = 0;    ///< milliseconds to wait before the first byte; 0 once waited
    Alarm* alarm = nullptr;
    MHD_Connection* connection = nullptr;
};

/// Reader of libmicrohttpd. 0 means no data yet, which is allowed for a suspended connection.
ssize_t readStream(void* closure, uint64_t position, char* buffer, size_t size) noexcept {
    auto& stream = *static_cast<Stream*>(closure);
    const uint64_t stall = std::exchange(stream.stall, 0);
    if (stall > 0 && stream.alarm->suspend(stream.connection, stall)) return 0;
    if (position >= stream.length) {
        return stream.complete ? MHD_CONTENT_READER_END_OF_STREAM
                               : MHD_CONTENT_READER_END_WITH_ERROR;
    }
    const size_t count = std::min<uint64_t>(size, stream.length - position);
    size_t copied = 0;
    if (position < stream.text.size()) {
        copied = std::min<uint64_t>(count, stream.text.size() - position);
        memcpy(buffer, stream.text.data() + position, copied);
    }
    memset(buffer + copied, 'x', count - copied);
    return static_cast<ssize_t>(count);
}

void freeStream(void* stream) noexcept {
    delete static_cast<Stream*>(stream);
}

Response streamResponse(Stream stream, uint64_t declared) {
    auto owned = std::make_unique<Stream>(std::move(stream));
    Response response(MHD_create_response_from_callback(declared, kBlockSize, readStream,
                                                        owned.get(), freeStream));
    if (response != nullptr) static_cast<void>(owned.release());
    return response;
}

/// A long answer, of which one block at a time is in memory. It is sent chunked, since its length
/// is not known when the head is sent.
struct Blocks {
    std::string block;
    std::function<std::string()> more;
    size_t sent = 0;  ///< bytes of `block`
};

/// Reader of libmicrohttpd. After a failure the connection is closed without the last chunk: the
/// client sees that the answer is incomplete.
ssize_t readBlocks(void* closure, uint64_t /*position*/, char* buffer, size_t size) noexcept {
    auto& blocks = *static_cast<Blocks*>(closure);
    try {
        if (blocks.sent == blocks.block.size()) {
            blocks.block = blocks.more();
            blocks.sent = 0;
        }
    } catch (...) {
        return MHD_CONTENT_READER_END_WITH_ERROR;
    }
    if (blocks.block.empty()) return MHD_CONTENT_READER_END_OF_STREAM;
    const size_t count = std::min(size, blocks.block.size() - blocks.sent);
    std::copy_n(blocks.block.data() + blocks.sent, count, buffer);
    blocks.sent += count;
    return static_cast<ssize_t>(count);
}

void freeBlocks(void* blocks) noexcept {
    delete static_cast<Blocks*>(blocks);
}

Response blocksResponse(Answer& answer) {
    auto owned = std::make_unique<Blocks>(Blocks{std::move(answer.body), std::move(answer.more)});
    Response response(MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kBlockSize, readBlocks,
                                                        owned.get(), freeBlocks));
    if (response != nullptr) static_cast<void>(owned.release());
    return response;
}

/// The body as the fault disrupts it. `declared` receives the length for the head.
Stream spoilt(std::string body, const Fault& fault, uint64_t& declared) {
    Stream stream;
    stream.text = std::move(body);
    stream.length = declared = stream.text.size();
    switch (fault.kind->delivery) {
        case Delivery::kCut:
            declared = std::max(declared, kSmallestCut);
            stream.length = std::min(fault.number("bytes", declared / 2), declared - 1);
            stream.complete = false;
            break;
        case Delivery::kStall:
            // With a length of 0 the answer would end after its head, and libmicrohttpd would
            // never call the reader.
            if (declared == 0) declared = MHD_SIZE_UNKNOWN;
            stream.stall = fault.number("ms", 1000);
            break;
        case Delivery::kOversize:
            declared = stream.length = fault.number("bytes", uint64_t{1} << 30);
            break;
        default:
            declared = MHD_SIZE_UNKNOWN;
    }
    return stream;
}

/// An answer before it is queued, and what is logged of it: the header lines by which libmicrohttpd
/// delimits the body, which it sends before or after the other lines, and the body.
struct Prepared {
    Response response;
    std::string before;
    std::string framing;
    std::string shown;
    uint64_t bytes = 0;
};

std::string framingOf(uint64_t declared) {
    if (declared == MHD_SIZE_UNKNOWN) return "Transfer-Encoding: chunked\r\n";
    return "Content-Length: " + std::to_string(declared) + "\r\n";
}

Prepared prepare(MHD_Connection* connection, Alarm& alarm, Answer& answer, const Fault* fault) {
    Prepared made;
    const bool bodiless = answer.status == 204 || answer.status == 304;
    if (bodiless) answer.body.clear();
    made.bytes = answer.body.size();
    made.shown = answer.body.substr(0, kKeptMessage);
    if (answer.more != nullptr) {
        made.framing = framingOf(MHD_SIZE_UNKNOWN);
        made.response = blocksResponse(answer);
        return made;
    }
    if (fault == nullptr || fault->kind->delivery == Delivery::kPlain) {
        if (!bodiless) made.framing = framingOf(answer.body.size());
        made.response.reset(MHD_create_response_from_buffer(answer.body.size(), answer.body.data(),
                                                            MHD_RESPMEM_MUST_COPY));
        return made;
    }
    uint64_t declared = 0;
    Stream stream = spoilt(std::move(answer.body), *fault, declared);
    stream.alarm = &alarm;
    stream.connection = connection;
    made.bytes = stream.length;
    made.shown.resize(std::min<uint64_t>(stream.length, kKeptMessage), 'x');
    const bool unbounded = fault->kind->delivery == Delivery::kUnbounded;
    (unbounded ? made.before : made.framing) =
        unbounded ? "Connection: close\r\n" : framingOf(declared);
    made.response = streamResponse(std::move(stream), declared);
    if (made.response != nullptr && unbounded)
        MHD_set_response_options(made.response.get(), MHD_RF_HTTP_1_0_COMPATIBLE_STRICT,
                                 MHD_RO_END);
    return made;
}

int descriptorOf(MHD_Connection* connection) {
    return MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
}

/// Resets a connection (TCP RST). The usual way, close() with a zero SO_LINGER, does not work:
/// libmicrohttpd shuts down the sending side before it closes, so the client would get a FIN and
/// see an orderly end. connect() to AF_UNSPEC dissolves the connection, and Linux sends the RST at
/// once.
void resetConnection(MHD_Connection* connection) {
    sockaddr nowhere{};
    nowhere.sa_family = AF_UNSPEC;
    // A failure is not reported: the connection is closed anyway.
    static_cast<void>(connect(descriptorOf(connection), &nowhere, sizeof nowhere));
}

std::string garbageOf(const Fault& fault) {
    return fault.text("text", "\x01\xfe no HTTP at all \r\n\r\n");
}

/// Sends bytes on the socket directly, since libmicrohttpd would send a valid head first. On a TLS
/// connection the bytes are not encrypted.
void sendBytes(MHD_Connection* connection, const std::string& bytes) {
    static_cast<void>(send(descriptorOf(connection), bytes.data(), bytes.size(), MSG_NOSIGNAL));
}

/// Ends a connection without an answer.
Message breakOff(MHD_Connection* connection, const Fault& fault) {
    if (fault.kind->delivery == Delivery::kReset) resetConnection(connection);
    if (fault.kind->delivery != Delivery::kGarbage) return {};
    const std::string bytes = garbageOf(fault);
    sendBytes(connection, bytes);
    return {bytes.substr(0, kKeptMessage), bytes.size()};
}

}  // namespace

bool isAnswered(const Fault* fault) {
    const Delivery delivery = fault != nullptr ? fault->kind->delivery : Delivery::kPlain;
    return delivery != Delivery::kReset && delivery != Delivery::kClose &&
           delivery != Delivery::kGarbage;
}

MHD_Result deliver(MHD_Connection* connection, Alarm& alarm, Answer answer, const Fault* fault,
                   Message* sent) {
    if (!isAnswered(fault)) {
        const Message broken = breakOff(connection, *fault);
        if (sent != nullptr) *sent = broken;
        return MHD_NO;
    }
    Prepared made = prepare(connection, alarm, answer, fault);
    if (made.response == nullptr) return MHD_NO;
    std::string lines;
    const auto add = [&](const char* name, const std::string& value) {
        MHD_add_response_header(made.response.get(), name, value.c_str());
        if (sent != nullptr) lines.append(name).append(": ").append(value).append("\r\n");
    };
    add(MHD_HTTP_HEADER_DATE, httpDate());
    add(MHD_HTTP_HEADER_CONTENT_TYPE, answer.type);
    for (const auto& [name, value] : answer.headers)
        add(name, value);
    if (sent != nullptr)
        *sent = answerMessage(answer.status, made.before + lines + made.framing, made.shown,
                              made.bytes);
    return MHD_queue_response(connection, answer.status, made.response.get());
}

}  // namespace sandbox
