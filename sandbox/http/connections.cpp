#include "sandbox/http/connections.h"

#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <exception>

namespace sandbox {
namespace {

constexpr rlim_t kMost = 1000;
/// Descriptors for other purposes: database, listening socket, standard streams, long answers.
constexpr rlim_t kOthers = 64;

unsigned mostConnections() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return kMost;
    const rlim_t free = limit.rlim_cur > 2 * kOthers ? limit.rlim_cur - kOthers : kOthers;
    return static_cast<unsigned>(std::min(free, kMost));
}

}  // namespace

Connections::Connections() : most_(mostConnections()) {}

void Connections::begin(MHD_Connection* connection, void** context) noexcept {
    // Before the new connection has a seat: otherwise it could be the one that is closed.
    if (count_ + 1 > most_ - most_ / 10) makeRoom();
    try {
        Seats& fresh = seats_[kFresh];
        Seat& seat = fresh.emplace_back(Seat{connection, kFresh, {}});
        seat.self = std::prev(fresh.end());
        *context = &seat;
    } catch (const std::exception&) {
        *context = nullptr;  // the connection is served, but not counted
        return;
    }
    ++count_;
}

void Connections::end(void** context) noexcept {
    if (*context == nullptr) return;
    const Seat& seat = *static_cast<Seat*>(*context);
    *context = nullptr;
    --count_;
    seats_[seat.stage].erase(seat.self);
}

void Connections::move(Seat& seat, Stage stage) noexcept {
    seats_[stage].splice(seats_[stage].end(), seats_[seat.stage], seat.self);
    seat.stage = stage;
}

void Connections::move(MHD_Connection* connection, Stage stage) noexcept {
    const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    if (info == nullptr || info->socket_context == nullptr) return;
    move(*static_cast<Seat*>(info->socket_context), stage);
}

/// libmicrohttpd has no call that closes another connection. A socket that is shut down reads as
/// ended, and libmicrohttpd closes it. Until then it counts as busy, so that it is not chosen
/// again.
void Connections::makeRoom() noexcept {
    for (const Stage stage : {kFresh, kIdle}) {
        if (seats_[stage].empty()) continue;
        Seat& seat = seats_[stage].front();
        const auto* info =
            MHD_get_connection_info(seat.connection, MHD_CONNECTION_INFO_CONNECTION_FD);
        if (info != nullptr) static_cast<void>(shutdown(info->connect_fd, SHUT_RDWR));
        move(seat, kBusy);
        return;
    }
}

}  // namespace sandbox
