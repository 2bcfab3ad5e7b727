// SPDX-License-Identifier: BSD-2-Clause
// What stands behind the calls: sockets, addresses, the endpoints of this process and their connection requests.
#ifndef SVR4_TLI_ENDPOINT_H
#define SVR4_TLI_ENDPOINT_H

#include <sys/socket.h>
#include <sys/types.h>

#include "svr4/tli.h"

namespace svr4::tli {

/// What a call that failed returns: -1, or null where it returns a pointer.
struct Failure {
    operator int() const { return -1; }
    template <class T>
    operator T*() const
    {
        return nullptr;
    }
};

/// Fails with `code` in t_errno.
Failure Fail(int code);

/// Fails with TSYSERR, and with `error` in `errno`.
Failure FailSystem(int error);

/// Fails with the code for a bind(2) or connect(2) that failed with `error`.
Failure FailAddress(int error);

/// A transport provider, and the sockets that it gives.
struct Provider {
    const char* device;
    int family;
    socklen_t addressLength;
};

/// A descriptor and the socket it stood for when it was taken: the program may have closed it since, and opened
/// something else under its number, which is not ours to use or to close.
class Socket {
public:
    Socket() = default;
    /// None, with `errno`, when the host cannot say what the descriptor stands for.
    explicit Socket(int descriptor);
    bool IsNone() const { return fd < 0; }
    bool IsOurs() const;
    /// The same socket under another number, a copy made by dup(2).
    Socket As(int number) const;
    /// Closes the descriptor if it is ours.
    void Close() const;

    int fd = -1;

private:
    dev_t device = 0;
    ino_t inode = 0;
};

/// The address of one end of a connection.
struct Address {
    struct sockaddr_storage storage = {};
    socklen_t length = 0; // 0: any address

    struct sockaddr* Generic() { return reinterpret_cast<struct sockaddr*>(&storage); }
    const struct sockaddr* Generic() const { return reinterpret_cast<const struct sockaddr*>(&storage); }
    /// The length, which is that of the storage now, for a call that puts an address and its length there.
    socklen_t* Room()
    {
        length = sizeof storage;
        return &length;
    }
};

/// The socket that `descriptor`, which is new and nobody else's, stands for. None with `errno` when it is none, or when
/// the host cannot say what it stands for; it is closed then.
Socket Adopt(int descriptor);
/// A new socket, or none with `errno`.
Socket NewSocket(const Provider& provider);

/// Lets the socket be bound to an address that lingers from an earlier connection, and its own be had again.
void ReuseAddress(int fd);

/// Breaks a connection, or an attempt at one, off at once, even where other processes hold the socket too.
void Abort(int fd);

/// Whether `error` says that the connection is gone.
bool MeansDisconnect(int error);

/// The error that is pending on a socket, which loses it, or 0.
int TakeError(int fd);

/// Whether one of `events` of poll(2), or an error, is there now.
bool IsReady(int fd, short events);

/// Takes an address of the provider's family. 0, or -1 with TBADADDR.
int GetAddress(const Provider& provider, const struct netbuf& from, Address* address);

/// Gives the caller an address, who may not want it. 0, or -1 with TBUFOVFLW or TSYSERR.
int PutAddress(const Address& address, struct netbuf* to);

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

    /// Lets `source` take the place of the endpoint's socket, under the endpoint's number; the descriptor of `source` is
    /// closed in any case. False with `errno`, and then the endpoint has the socket it had.
    bool Replace(const Socket& source);
    /// Gives the endpoint a new, unbound socket. False with `errno`.
    bool Renew();

    /// Whether a T_DISCONNECT is pending; its reason is kept.
    bool IsDisconnected();
    /// Reports the failure of a call on a connection: a pending T_DISCONNECT, or what the system says. Returns -1.
    int FailConnection(int error);
    /// Waits for `events` of poll(2). Returns 0, or -1: with TSYSERR when interrupted, with `code` at once when the
    /// endpoint does not wait.
    int Await(short events, int code) const;

    /// Appends a request and returns the number that it gets.
    int Add(Request* request);
    /// The place of the outstanding request `sequence`, or null.
    Request** FindRequest(int sequence);
    /// The place of the first outstanding request whose client has gone, or null.
    Request** FindGone();
    /// Takes the request out of its place.
    Request Take(Request** place);
};

/// The endpoint `fd`, or null with TBADF.
Endpoint* Find(int fd);

/// A set of states.
constexpr unsigned In(int state) { return 1u << state; }
constexpr unsigned Connected = In(T_DATAXFER) | In(T_OUTREL) | In(T_INREL);

/// The endpoint `fd` when it is in one of `states`, else null with TBADF or TOUTSTATE.
Endpoint* FindIn(int fd, unsigned states);

} // namespace svr4::tli

#endif
