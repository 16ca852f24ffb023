#include "sandbox/http/delivery.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace sandbox {
namespace {

/// The length that the head of a cut answer declares at least: an empty body could not be cut.
constexpr uint64_t kSmallestCut = 16;
constexpr size_t kBlockSize = 32768;

struct DestroyResponse {
    void operator()(MHD_Response* response) const { MHD_destroy_response(response); }
};
using Response = std::unique_ptr<MHD_Response, DestroyResponse>;

/// A body that is made while it is sent, so that an oversize one of gigabytes needs no memory: the
/// text, then 'x' up to the length. Owned by its response, which is destroyed before the
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

/// A long answer, of which one block at a time is in memory. It goes out in chunks, since its
/// length is not known when the head is sent.
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

Response makeResponse(MHD_Connection* connection, Alarm& alarm, std::string body,
                      const Fault* fault) {
    const Delivery delivery = fault != nullptr ? fault->kind->delivery : Delivery::kPlain;
    if (delivery == Delivery::kPlain) {
        return Response(
            MHD_create_response_from_buffer(body.size(), body.data(), MHD_RESPMEM_MUST_COPY));
    }
    Stream stream;
    stream.text = std::move(body);
    stream.length = stream.text.size();
    stream.alarm = &alarm;
    stream.connection = connection;
    uint64_t declared = stream.length;
    if (delivery == Delivery::kCut) {
        declared = std::max(declared, kSmallestCut);
        stream.length = std::min(fault->number("bytes", declared / 2), declared - 1);
        stream.complete = false;
    } else if (delivery == Delivery::kStall) {
        // With a length of 0 the answer would end with its head, and the reader never be called.
        if (declared == 0) declared = MHD_SIZE_UNKNOWN;
        stream.stall = fault->number("ms", 1000);
    } else if (delivery == Delivery::kOversize) {
        declared = stream.length = fault->number("bytes", uint64_t{1} << 30);
    } else {
        declared = MHD_SIZE_UNKNOWN;
    }
    Response response = streamResponse(std::move(stream), declared);
    if (response != nullptr && delivery == Delivery::kUnbounded)
        MHD_set_response_options(response.get(), MHD_RF_HTTP_1_0_COMPATIBLE_STRICT, MHD_RO_END);
    return response;
}

int descriptorOf(MHD_Connection* connection) {
    return MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
}

/// Resets a connection (TCP RST). The usual way, to close with a zero SO_LINGER, comes too late
/// here: libmicrohttpd shuts the sending side down before it closes, so that the client gets a FIN
/// and sees an orderly end. To connect a socket to AF_UNSPEC dissolves its connection, and Linux
/// sends the RST at once.
void resetConnection(MHD_Connection* connection) {
    sockaddr nowhere{};
    nowhere.sa_family = AF_UNSPEC;
    // A failure is not reported: the connection is closed anyway.
    static_cast<void>(connect(descriptorOf(connection), &nowhere, sizeof nowhere));
}

/// Past libmicrohttpd, which would put a valid head in front; over TLS past the encryption too.
void sendGarbage(MHD_Connection* connection, const Fault& fault) {
    const std::string bytes = fault.text("text", "\x01\xfe no HTTP at all \r\n\r\n");
    static_cast<void>(send(descriptorOf(connection), bytes.data(), bytes.size(), MSG_NOSIGNAL));
}

}  // namespace

bool isAnswered(const Fault* fault) {
    const Delivery delivery = fault != nullptr ? fault->kind->delivery : Delivery::kPlain;
    return delivery != Delivery::kReset && delivery != Delivery::kClose &&
           delivery != Delivery::kGarbage;
}

MHD_Result deliver(MHD_Connection* connection, Alarm& alarm, Answer answer, const Fault* fault) {
    if (!isAnswered(fault)) {
        if (fault->kind->delivery == Delivery::kReset) resetConnection(connection);
        if (fault->kind->delivery == Delivery::kGarbage) sendGarbage(connection, *fault);
        return MHD_NO;
    }
    const Response response = answer.more != nullptr
                                  ? blocksResponse(answer)
                                  : makeResponse(connection, alarm, std::move(answer.body), fault);
    if (response == nullptr) return MHD_NO;
    MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONTENT_TYPE, answer.type.c_str());
    for (const auto& [name, value] : answer.headers)
        MHD_add_response_header(response.get(), name, value.c_str());
    return MHD_queue_response(connection, answer.status, response.get());
}

}  // namespace sandbox
