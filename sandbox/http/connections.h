// The open connections, and room for new ones.
//
// libmicrohttpd stops accepting at its limit. Without this, clients that open connections and send
// nothing, or half a request, would keep everybody else out for as long as they like. So a tenth of
// the places is kept for those who come: when the others are taken, the connection is closed that
// has waited longest for its first whole request; if there is none, the one that has waited longest
// for its next request, which its client sends on a new connection. One whose request is being
// carried out or answered is never closed.
//
// Thread rule: libmicrohttpd's thread.
//
// Invariant: each open connection has one seat, in the list of its stage, in the order in which the
// connections came to that stage.
#ifndef SANDBOX_HTTP_CONNECTIONS_H
#define SANDBOX_HTTP_CONNECTIONS_H

#include <microhttpd.h>

#include <array>
#include <cstddef>
#include <list>

namespace sandbox {

class Connections {
  public:
    /// Takes the number of connections from the system's limit of descriptors.
    Connections();
    Connections(const Connections&) = delete;
    Connections& operator=(const Connections&) = delete;

    /// The limit for libmicrohttpd.
    unsigned most() const { return most_; }

    // The callbacks of libmicrohttpd: a connection was accepted (makes room when there is little),
    // its whole request arrived, its answer is out, it is closed.
    void begin(MHD_Connection* connection, void** context) noexcept;
    void busy(MHD_Connection* connection) noexcept { move(connection, kBusy); }
    void idle(MHD_Connection* connection) noexcept { move(connection, kIdle); }
    void end(void** context) noexcept;

  private:
    enum Stage { kFresh, kIdle, kBusy, kStages };
    struct Seat;
    using Seats = std::list<Seat>;
    struct Seat {
        MHD_Connection* connection;
        Stage stage;
        Seats::iterator self;
    };
    void move(MHD_Connection* connection, Stage stage) noexcept;
    void move(Seat& seat, Stage stage) noexcept;
    void makeRoom() noexcept;

    unsigned most_;
    size_t count_ = 0;
    std::array<Seats, kStages> seats_;
};

}  // namespace sandbox

#endif
