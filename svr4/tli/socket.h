// The sockets behind the endpoints. They never block: what waits is poll(2), which no handler can have restarted.
#ifndef SVR4_TLI_SOCKET_H
#define SVR4_TLI_SOCKET_H

#include <sys/socket.h>
#include <sys/types.h>

namespace svr4::tli {

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
    explicit Socket(int descriptor);
    bool IsOurs() const;
    /// Closes the descriptor if it is ours.
    void Close() const;

    int fd = -1;

private:
    dev_t device = 0;
    ino_t inode = 0;
};

/// A new socket, or -1 with `errno`.
int NewSocket(const Provider& provider);

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

} // namespace svr4::tli

#endif
