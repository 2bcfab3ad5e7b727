// The endpoints of this process, and their connection requests.
#ifndef SVR4_TLI_ENDPOINT_H
#define SVR4_TLI_ENDPOINT_H

#include "svr4/tli.h"
#include "svr4/tli/socket.h"
#include "svr4/tli/structures.h"

namespace svr4::tli {

/// A connection request that was handed out and is not answered yet.
struct Request {
    Request* next = nullptr;
    Socket socket;
    int sequence = 0;
    int reason = 0; // the errno with which the client has gone, or 0

    /// Whether the client has gone; its reason is kept.
    bool HasGone();
};

/// What t_open made and a descriptor of the program stands for.
struct Endpoint {
    Socket socket;
    const Provider& provider;
    const bool waits; // else a call that would wait fails at once
    int state = T_UNBND;
    bool isSpent = false; // the socket has had its connection: the next one needs a new socket
    int reason = 0;       // the errno of a pending T_DISCONNECT, or 0
    unsigned qlen = 0;
    unsigned outstanding = 0;
    Request* requests = nullptr; // in the order in which they were handed out
    Address bound = {};

    /// Lets `source` take the place of the endpoint's socket, under the endpoint's number; `source` is closed in any
    /// case. False with `errno`.
    bool Replace(int source);
    /// Gives the endpoint a new, unbound socket. False with `errno`.
    bool Renew();
    /// As Renew, with the address that the endpoint was bound to.
    bool RenewBound();

    /// Whether a T_DISCONNECT is pending; its reason is kept.
    bool IsDisconnected();
    /// Reports the failure of a call on a connection: a pending T_DISCONNECT, or what the system says. Returns -1.
    int FailConnection(int error);
    /// Waits for `events` of poll(2). Returns 0, or -1: with TSYSERR when interrupted, with `code` at once when the
    /// endpoint does not wait.
    int Await(short events, int code) const;

    /// Appends a request, which gets its number.
    void Add(Request* request);
    /// The place of the outstanding request `sequence`, or null.
    Request** FindRequest(int sequence);
    /// The place of the first outstanding request whose client has gone, or null.
    Request** FindGone();
    /// Takes the request out of its place.
    Request Take(Request** place);
};

/// Makes the descriptor of a new socket an endpoint. Null when memory fails.
Endpoint* Enter(int fd, const Provider& provider, bool waits);

/// Forgets an endpoint and closes its requests; its descriptor stays as it is. REQUIRES: `fd` is in the table.
void Drop(int fd);

/// The endpoint `fd`, or null with TBADF.
Endpoint* Find(int fd);

/// A set of states.
constexpr unsigned In(int state) { return 1u << state; }
constexpr unsigned Connected = In(T_DATAXFER) | In(T_OUTREL) | In(T_INREL);

/// The endpoint `fd` when it is in one of `states`, else null with TBADF or TOUTSTATE.
Endpoint* FindIn(int fd, unsigned states);

} // namespace svr4::tli

#endif
