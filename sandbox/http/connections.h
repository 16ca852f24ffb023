// The open connections, and room for new ones.
//
// libmicrohttpd stops accepting connections at its limit, so clients that open connections and send
// nothing, or half a request, could lock out all others. Therefore a tenth of the limit is
// reserved: when the rest is in use, each new connection closes an old one. The first choice is the
// connection that has waited longest for its first complete request, the second one that has waited
// longest for its next request, which its client then sends on a new connection. A connection whose
// request is being carried out or answered is never closed.
//
// Thread rule: libmicrohttpd's thread.
//
// Invariant: each open connection has one seat, in the list of its stage. Each list is in the order
// in which the connections reached that stage.
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

    // The callbacks of libmicrohttpd: a connection was accepted (may close another one), its
    // request has arrived completely, its answer was sent, it is closed.
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
