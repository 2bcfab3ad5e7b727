// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/tli/endpoint.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "svr4/errno.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: tli.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4::tli {

Socket::Socket(int descriptor)
{
    struct stat status;
    if (fstat(descriptor, &status) != 0)
        return;
    fd = descriptor;
    device = status.st_dev;
    inode = status.st_ino;
}

bool Socket::IsOurs() const
{
    struct stat status;
    if (fd < 0)
        return false;
    if (fstat(fd, &status) != 0)
        return errno != EBADF; // open, and nothing tells that it is another
    return status.st_ino == inode && status.st_dev == device;
}

Socket Socket::As(int number) const
{
    Socket copy = *this;
    copy.fd = number;
    return copy;
}

void Socket::Close() const
{
    if (IsOurs())
        close(fd);
}

static void TurnOn(int fd, int level, int option)
{
    const int on = 1;
    setsockopt(fd, level, option, &on, sizeof on);
}

Socket Adopt(int descriptor)
{
    if (descriptor < 0)
        return Socket();
    const Socket socket(descriptor);
    if (socket.IsNone()) {
        const SavedErrno savedErrno;
        close(descriptor);
    }
    return socket;
}

Socket NewSocket(const Provider& provider)
{
    const int fd = socket(provider.family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return Socket();
    TurnOn(fd, IPPROTO_TCP, TCP_NODELAY); // a record that follows another must not wait for a delayed acknowledgement
    if (provider.family == AF_INET6)
        TurnOn(fd, IPPROTO_IPV6, IPV6_V6ONLY); // "tcp" has the port for itself
    return Adopt(fd);
}

void ReuseAddress(int fd) { TurnOn(fd, SOL_SOCKET, SO_REUSEADDR); }

void Abort(int fd)
{
    const struct sockaddr nobody = {AF_UNSPEC, {}};
    static_cast<void>(connect(fd, &nobody, sizeof nobody));
}

bool MeansDisconnect(int error)
{
    constexpr int Disconnects[] = {ECONNREFUSED, ECONNRESET,  ECONNABORTED, EPIPE,     ETIMEDOUT, EHOSTUNREACH,
                                   EHOSTDOWN,    ENETUNREACH, ENETDOWN,     ENETRESET, ENOTCONN,  EPROTO};
    return std::find(std::begin(Disconnects), std::end(Disconnects), error) != std::end(Disconnects);
}

int TakeError(int fd)
{
    int error = 0;
    socklen_t length = sizeof error;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 ? error : errno;
}

bool IsReady(int fd, short events)
{
    struct pollfd descriptor = {fd, events, 0};
    return poll(&descriptor, 1, 0) > 0;
}

int GetAddress(const Provider& provider, const struct netbuf& from, Address* address)
{
    if (from.buf == nullptr || from.len < provider.addressLength || from.len > sizeof address->storage)
        return Fail(TBADADDR);
    *address = {};
    address->length = provider.addressLength;
    memcpy(&address->storage, from.buf, address->length);
    return address->storage.ss_family == provider.family ? 0 : Fail(TBADADDR);
}

int PutAddress(const Address& address, struct netbuf* to)
{
    to->len = 0;
    if (to->maxlen == 0)
        return 0;
    if (to->maxlen < address.length)
        return Fail(TBUFOVFLW);
    if (to->buf == nullptr)
        return FailSystem(EFAULT);
    memcpy(to->buf, &address.storage, address.length);
    to->len = address.length;
    return 0;
}

} // namespace svr4::tli
