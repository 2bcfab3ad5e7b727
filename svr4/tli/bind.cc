#include "svr4/tli.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <netinet/in.h>
#include <unistd.h>

#include "svr4/tli/endpoint.h"
#include "svr4/tli/error.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: tli.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

using namespace tli;

constexpr Provider Providers[] = {
    {"/dev/tcp", AF_INET, sizeof(struct sockaddr_in)},
    {"/dev/tcp6", AF_INET6, sizeof(struct sockaddr_in6)},
};

int t_open(const char* path, int oflag, struct t_info* info)
{
    const Provider* provider = nullptr;
    for (const Provider& known : Providers)
        if (path != nullptr && strcmp(path, known.device) == 0)
            provider = &known;
    if (provider == nullptr)
        return Fail(TBADNAME);
    if ((oflag & ~O_NONBLOCK) != O_RDWR)
        return Fail(TBADFLAG);
    const int fd = NewSocket(*provider);
    if (fd < 0)
        return Fail(TSYSERR);
    if (Enter(fd, *provider, (oflag & O_NONBLOCK) == 0) == nullptr) {
        close(fd);
        return FailSystem(ENOMEM);
    }
    if (info != nullptr)
        *info = {static_cast<long>(provider->addressLength), -2, 0, -2, -2, -2, T_COTS_ORD};
    return fd;
}

// The code for a bind(2) or listen(2) to `address` that failed with `error`.
static int BindFailure(int error, const Address& address)
{
    // The port is at the same place in both families.
    const bool anyPort = reinterpret_cast<const struct sockaddr_in*>(address.Generic())->sin_port == 0;
    switch (error) {
    case EADDRINUSE: return Fail(anyPort ? TNOADDR : TADDRBUSY);
    case EADDRNOTAVAIL: return Fail(TNOADDR);
    case EACCES:
    case EPERM: return Fail(TACCES);
    default: return FailSystem(error);
    }
}

// Binds the endpoint's socket, listening with a `qlen` above 0, and notes the address it got. As many clients as the
// host allows may wait to be handed out, whatever `qlen` is: one that it turns away tries again after a second only.
static int Bind(Endpoint* endpoint, const Address& address, unsigned qlen)
{
    const int fd = endpoint->socket.fd;
    if (qlen > 0)
        ReuseAddress(fd);
    Address* bound = &endpoint->bound;
    if (bind(fd, address.Generic(), address.length) == 0 && (qlen == 0 || listen(fd, SOMAXCONN) == 0) &&
        getsockname(fd, bound->Generic(), bound->Room()) == 0)
        return 0;
    const int error = errno;
    bound->length = 0;
    endpoint->Renew(); // the socket may be half done
    return BindFailure(error, address);
}

int t_bind(int fd, const struct t_bind* req, struct t_bind* ret)
{
    Endpoint* endpoint = FindIn(fd, In(T_UNBND));
    if (endpoint == nullptr)
        return -1;
    Address address;
    address.storage.ss_family = static_cast<sa_family_t>(endpoint->provider.family);
    address.length = endpoint->provider.addressLength;
    const bool any = req == nullptr || req->addr.len == 0;
    if (!any && GetAddress(endpoint->provider, req->addr, &address) < 0)
        return -1;
    const unsigned qlen = req == nullptr ? 0 : std::min<unsigned>(req->qlen, SOMAXCONN);
    // Who neither gives an address nor asks for it gets one with the connection: that takes no port of its own.
    const bool later = any && qlen == 0 && (ret == nullptr || ret->addr.maxlen == 0);
    if (!later && Bind(endpoint, address, qlen) < 0)
        return -1;
    endpoint->qlen = qlen;
    endpoint->state = T_IDLE;
    if (ret == nullptr)
        return 0;
    ret->qlen = qlen;
    return PutAddress(endpoint->bound, &ret->addr);
}

int t_unbind(int fd)
{
    Endpoint* endpoint = FindIn(fd, In(T_IDLE));
    if (endpoint == nullptr)
        return -1;
    if (!endpoint->Renew())
        return Fail(TSYSERR);
    endpoint->bound.length = 0;
    endpoint->qlen = 0;
    endpoint->state = T_UNBND;
    return 0;
}

int t_close(int fd)
{
    if (Find(fd) == nullptr)
        return -1;
    Drop(fd);
    close(fd); // whatever it returns, the descriptor is gone
    return 0;
}

} // namespace svr4
