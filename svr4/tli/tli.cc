#include "svr4/tli.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: tli.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

namespace svr4 {

int t_errno = 0;

namespace {

struct Provider {
    const char* device;
    int family;
    socklen_t addressLength;
};

constexpr Provider kProviders[] = {
    {"/dev/tcp", AF_INET, sizeof(struct sockaddr_in)},
    {"/dev/tcp6", AF_INET6, sizeof(struct sockaddr_in6)},
};

// A descriptor and the socket it stood for when it was taken: the program may have closed it since, and opened
// something else under its number, which is not ours to use or to close.
class Socket {
public:
    Socket() = default;
    explicit Socket(int descriptor) : fd(descriptor)
    {
        struct stat status;
        if (fstat(fd, &status) == 0) {
            device = status.st_dev;
            inode = status.st_ino;
        } else {
            fd = -1;
        }
    }
    bool IsOurs() const
    {
        struct stat status;
        return fd >= 0 && fstat(fd, &status) == 0 && status.st_ino == inode && status.st_dev == device;
    }

    int fd = -1;

private:
    dev_t device = 0;
    ino_t inode = 0;
};

// A connection request that was handed out and is not answered yet.
struct Request {
    Request* next = nullptr;
    Socket socket;
    int sequence = 0;
    int reason = 0; // the errno with which the client has gone, or 0
};

struct Endpoint {
    Socket socket; // never blocks: what waits is poll(2), which no handler can have restarted
    const Provider* provider = nullptr;
    int state = T_UNBND;
    bool waits = true;
    bool isSpent = false; // the socket has had its connection: the next one needs a new socket
    int reason = 0;       // the errno of a pending T_DISCONNECT, or 0
    unsigned qlen = 0;
    unsigned outstanding = 0;
    Request* requests = nullptr; // in the order in which they were handed out
    struct sockaddr_storage bound = {};
    socklen_t boundLength = 0; // 0: any address
};

Endpoint** endpoints = nullptr; // by descriptor
int endpointCount = 0;

int Fail(int code)
{
    t_errno = code;
    return -1;
}

int FailSystem(int error)
{
    errno = error;
    return Fail(TSYSERR);
}

// -- The table --

void CloseRequest(Request* request)
{
    if (request->socket.IsOurs())
        close(request->socket.fd);
    delete request;
}

// Forgets the endpoint; its descriptor stays as it is.
void Drop(int fd)
{
    Endpoint* const endpoint = endpoints[fd];
    endpoints[fd] = nullptr;
    while (Request* const first = endpoint->requests) {
        endpoint->requests = first->next;
        CloseRequest(first);
    }
    delete endpoint;
}

Endpoint* Find(int fd)
{
    if (fd < 0 || fd >= endpointCount || endpoints[fd] == nullptr) {
        Fail(TBADF);
        return nullptr;
    }
    if (!endpoints[fd]->socket.IsOurs()) {
        Drop(fd);
        Fail(TBADF);
        return nullptr;
    }
    return endpoints[fd];
}

// Makes room for `fd` in the table. False when memory fails.
bool Provide(int fd)
{
    if (fd < endpointCount) {
        if (endpoints[fd] != nullptr)
            Drop(fd); // closed behind our back
        return true;
    }
    const int count = std::max(fd + 1, endpointCount < INT_MAX / 2 ? 2 * endpointCount : INT_MAX);
    void* const larger = realloc(endpoints, static_cast<size_t>(count) * sizeof *endpoints);
    if (larger == nullptr)
        return false;
    endpoints = static_cast<Endpoint**>(larger);
    std::fill(endpoints + endpointCount, endpoints + count, nullptr);
    endpointCount = count;
    return true;
}

constexpr unsigned In(int state)
{
    return 1u << state;
}

constexpr unsigned kConnected = In(T_DATAXFER) | In(T_OUTREL) | In(T_INREL);

// The endpoint `fd` when it is in one of `states`, else null with t_errno.
Endpoint* FindIn(int fd, unsigned states)
{
    Endpoint* const endpoint = Find(fd);
    if (endpoint != nullptr && (In(endpoint->state) & states) == 0) {
        Fail(TOUTSTATE);
        return nullptr;
    }
    return endpoint;
}

// -- Sockets --

int NewSocket(const Provider& provider)
{
    const int fd = socket(provider.family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    const int on = 1;
    // A record that follows another must not wait for the peer's delayed acknowledgement.
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (provider.family == AF_INET6)
        setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on); // "tcp" has the port for itself
    return fd;
}

void ReuseAddress(int fd)
{
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
}

// Lets `source` take the place of the endpoint's socket, under the endpoint's number. False with errno.
bool Replace(Endpoint* endpoint, int source)
{
    int result;
    do {
        result = dup3(source, endpoint->socket.fd, O_CLOEXEC);
    } while (result < 0 && (errno == EINTR || errno == EBUSY));
    const int error = errno;
    close(source);
    errno = error;
    if (result < 0)
        return false;
    endpoint->socket = Socket(result);
    return true;
}

// Gives the endpoint a new, unbound socket. False with errno.
bool Renew(Endpoint* endpoint)
{
    const int fresh = NewSocket(*endpoint->provider);
    if (fresh < 0 || !Replace(endpoint, fresh))
        return false;
    endpoint->isSpent = false;
    return true;
}

// As Renew, with the address that the endpoint was bound to.
bool RenewBound(Endpoint* endpoint)
{
    if (!Renew(endpoint))
        return false;
    if (endpoint->boundLength == 0)
        return true;
    ReuseAddress(endpoint->socket.fd);
    const struct sockaddr* const address = reinterpret_cast<struct sockaddr*>(&endpoint->bound);
    endpoint->isSpent = bind(endpoint->socket.fd, address, endpoint->boundLength) < 0; // to be tried again then
    return !endpoint->isSpent;
}

// Breaks a connection, or an attempt at one, off at once, even where other processes hold the socket too.
void Abort(int fd)
{
    struct sockaddr nobody = {};
    nobody.sa_family = AF_UNSPEC;
    connect(fd, &nobody, sizeof nobody);
}

bool MeansDisconnect(int error)
{
    switch (error) {
    case ECONNREFUSED:
    case ECONNRESET:
    case ECONNABORTED:
    case EPIPE:
    case ETIMEDOUT:
    case EHOSTUNREACH:
    case EHOSTDOWN:
    case ENETUNREACH:
    case ENETDOWN:
    case ENETRESET:
    case ENOTCONN:
    case EPROTO: return true;
    default: return false;
    }
}

// The error that is pending on a socket, which loses it, or 0.
int TakeError(int fd)
{
    int error = 0;
    socklen_t length = sizeof error;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 ? error : errno;
}

// Whether a T_DISCONNECT is pending; its reason is kept.
bool IsDisconnected(Endpoint* endpoint)
{
    if (endpoint->reason == 0)
        endpoint->reason = TakeError(endpoint->socket.fd);
    return endpoint->reason != 0;
}

// Reports the failure of a call on a connection: a pending T_DISCONNECT, or what the system says.
int FailConnection(Endpoint* endpoint, int error)
{
    if (!MeansDisconnect(error))
        return FailSystem(error);
    if (endpoint->reason == 0)
        endpoint->reason = error;
    return Fail(TLOOK);
}

bool IsReady(int fd, short events)
{
    struct pollfd descriptor = {fd, events, 0};
    return poll(&descriptor, 1, 0) > 0;
}

// Waits for `events`; fails with TSYSERR when interrupted, and with `code` when the endpoint does not wait.
int Await(const Endpoint* endpoint, short events, int code)
{
    if (!endpoint->waits)
        return Fail(code);
    struct pollfd descriptor = {endpoint->socket.fd, events, 0};
    return poll(&descriptor, 1, -1) < 0 ? Fail(TSYSERR) : 0;
}

// -- Arguments --

int PutAddress(const struct sockaddr_storage& address, socklen_t length, struct netbuf* to)
{
    to->len = 0;
    if (to->maxlen == 0)
        return 0;
    if (to->maxlen < length)
        return Fail(TBUFOVFLW);
    if (to->buf == nullptr)
        return FailSystem(EFAULT);
    memcpy(to->buf, &address, length);
    to->len = length;
    return 0;
}

int GetAddress(const Endpoint* endpoint, const struct netbuf& from, struct sockaddr_storage* address)
{
    if (from.buf == nullptr || from.len < endpoint->provider->addressLength || from.len > sizeof *address)
        return Fail(TBADADDR);
    *address = {};
    memcpy(address, from.buf, endpoint->provider->addressLength);
    return address->ss_family == endpoint->provider->family ? 0 : Fail(TBADADDR);
}

// Refuses what this transport does not carry in its connect messages.
int CheckCall(const struct t_call* call)
{
    if (call == nullptr)
        return FailSystem(EFAULT);
    if (call->opt.len > 0)
        return Fail(TBADOPT);
    return call->udata.len > 0 ? Fail(TBADDATA) : 0;
}

// -- Connection requests --

// The place of the first outstanding request that is `sequence`, or for 0 whose client has gone; null: none.
Request** FindRequest(Endpoint* endpoint, int sequence)
{
    for (Request** place = &endpoint->requests; *place != nullptr; place = &(*place)->next)
        if (sequence == 0 ? (*place)->reason != 0 : (*place)->sequence == sequence)
            return place;
    return nullptr;
}

void LookAtRequest(Request* request)
{
    if (request->reason == 0)
        request->reason = request->socket.IsOurs() ? TakeError(request->socket.fd) : ECONNABORTED;
}

// The place of the first outstanding request whose client has gone, or null.
Request** FindGone(Endpoint* endpoint)
{
    for (Request* request = endpoint->requests; request != nullptr; request = request->next)
        LookAtRequest(request);
    return FindRequest(endpoint, 0);
}

Request* TakeRequest(Endpoint* endpoint, Request** place)
{
    Request* const request = *place;
    *place = request->next;
    if (--endpoint->outstanding == 0)
        endpoint->state = T_IDLE;
    return request;
}

void AddRequest(Endpoint* endpoint, Request* request)
{
    static int lastSequence = 0;
    request->sequence = lastSequence = lastSequence < INT_MAX ? lastSequence + 1 : 1;
    Request** end = &endpoint->requests;
    while (*end != nullptr)
        end = &(*end)->next;
    *end = request;
    endpoint->outstanding++;
    endpoint->state = T_INCON;
}

} // namespace

// -- Opening and binding --

int t_open(const char* path, int oflag, struct t_info* info)
{
    const Provider* provider = nullptr;
    for (const Provider& known : kProviders)
        if (path != nullptr && strcmp(path, known.device) == 0)
            provider = &known;
    if (provider == nullptr)
        return Fail(TBADNAME);
    if ((oflag & ~O_NONBLOCK) != O_RDWR)
        return Fail(TBADFLAG);
    const int fd = NewSocket(*provider);
    if (fd < 0)
        return Fail(TSYSERR);
    Endpoint* const endpoint = Provide(fd) ? new (std::nothrow) Endpoint : nullptr;
    if (endpoint == nullptr) {
        close(fd);
        return FailSystem(ENOMEM);
    }
    endpoint->socket = Socket(fd);
    endpoint->provider = provider;
    endpoint->waits = (oflag & O_NONBLOCK) == 0;
    endpoints[fd] = endpoint;
    if (info != nullptr)
        *info = {static_cast<long>(provider->addressLength), -2, 0, -2, -2, -2, T_COTS_ORD};
    return fd;
}

// The code for a bind(2) or listen(2) to `address` that failed with `error`.
static int BindFailure(int error, const struct sockaddr_storage& address)
{
    // The port is at the same place in both families.
    const bool anyPort = reinterpret_cast<const struct sockaddr_in*>(&address)->sin_port == 0;
    switch (error) {
    case EADDRINUSE: return Fail(anyPort ? TNOADDR : TADDRBUSY);
    case EADDRNOTAVAIL: return Fail(TNOADDR);
    case EACCES:
    case EPERM: return Fail(TACCES);
    default: return FailSystem(error);
    }
}

// Binds the endpoint's socket, listening with a `qlen` above 0, and notes the address it got.
static int Bind(Endpoint* endpoint, const struct sockaddr_storage& address, unsigned qlen)
{
    const int fd = endpoint->socket.fd;
    if (qlen > 0)
        ReuseAddress(fd);
    endpoint->boundLength = sizeof endpoint->bound;
    if (bind(fd, reinterpret_cast<const struct sockaddr*>(&address), endpoint->provider->addressLength) == 0 &&
        (qlen == 0 || listen(fd, static_cast<int>(qlen)) == 0) &&
        getsockname(fd, reinterpret_cast<struct sockaddr*>(&endpoint->bound), &endpoint->boundLength) == 0)
        return 0;
    const int error = errno;
    endpoint->boundLength = 0;
    Renew(endpoint); // the socket may be half done
    return BindFailure(error, address);
}

int t_bind(int fd, const struct t_bind* req, struct t_bind* ret)
{
    Endpoint* const endpoint = FindIn(fd, In(T_UNBND));
    if (endpoint == nullptr)
        return -1;
    struct sockaddr_storage address = {};
    address.ss_family = static_cast<sa_family_t>(endpoint->provider->family);
    const bool any = req == nullptr || req->addr.len == 0;
    if (!any && GetAddress(endpoint, req->addr, &address) < 0)
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
    return PutAddress(endpoint->bound, endpoint->boundLength, &ret->addr);
}

int t_unbind(int fd)
{
    Endpoint* const endpoint = FindIn(fd, In(T_IDLE));
    if (endpoint == nullptr)
        return -1;
    if (!Renew(endpoint))
        return Fail(TSYSERR);
    endpoint->boundLength = 0;
    endpoint->qlen = 0;
    endpoint->state = T_UNBND;
    return 0;
}

// -- Structures --

static size_t SizeOf(int struct_type)
{
    switch (struct_type) {
    case T_BIND: return sizeof(struct t_bind);
    case T_CALL: return sizeof(struct t_call);
    case T_DIS: return sizeof(struct t_discon);
    case T_INFO: return sizeof(struct t_info);
    default: return 0;
    }
}

// The address buffer of a structure, or null for one without.
static struct netbuf* AddressOf(void* ptr, int struct_type)
{
    switch (struct_type) {
    case T_BIND: return &static_cast<struct t_bind*>(ptr)->addr;
    case T_CALL: return &static_cast<struct t_call*>(ptr)->addr;
    default: return nullptr;
    }
}

void* t_alloc(int fd, int struct_type, int fields)
{
    if (Find(fd) == nullptr)
        return nullptr;
    const size_t size = SizeOf(struct_type);
    if (size == 0) {
        Fail(TNOSTRUCTYPE);
        return nullptr;
    }
    void* const ptr = calloc(1, size);
    if (ptr == nullptr) {
        FailSystem(ENOMEM);
        return nullptr;
    }
    struct netbuf* const address = AddressOf(ptr, struct_type);
    if (address == nullptr || (fields & T_ADDR) == 0)
        return ptr;
    address->buf = static_cast<char*>(calloc(1, sizeof(struct sockaddr_storage)));
    if (address->buf == nullptr) {
        free(ptr);
        FailSystem(ENOMEM);
        return nullptr;
    }
    address->maxlen = sizeof(struct sockaddr_storage);
    return ptr;
}

int t_free(void* ptr, int struct_type)
{
    if (SizeOf(struct_type) == 0)
        return Fail(TNOSTRUCTYPE);
    if (ptr == nullptr)
        return 0;
    if (const struct netbuf* const address = AddressOf(ptr, struct_type))
        free(address->buf);
    free(ptr);
    return 0;
}

// -- Connecting --

// A connection to a free port of this host may get that very port as its own end, and meet itself.
static bool IsConnectedToItself(int fd)
{
    struct sockaddr_storage here = {}, there = {};
    socklen_t hereLength = sizeof here, thereLength = sizeof there;
    return getsockname(fd, reinterpret_cast<struct sockaddr*>(&here), &hereLength) == 0 &&
           getpeername(fd, reinterpret_cast<struct sockaddr*>(&there), &thereLength) == 0 &&
           hereLength == thereLength && memcmp(&here, &there, hereLength) == 0;
}

// Waits until the attempt in T_OUTCON has succeeded or failed.
static int FinishConnect(Endpoint* endpoint, struct t_call* call)
{
    const int fd = endpoint->socket.fd;
    if (endpoint->reason == 0 && !IsReady(fd, POLLOUT) && Await(endpoint, POLLOUT, TNODATA) < 0)
        return -1;
    if (IsDisconnected(endpoint))
        return Fail(TLOOK);
    if (IsConnectedToItself(fd)) {
        Abort(fd);
        endpoint->reason = ECONNREFUSED;
        return Fail(TLOOK);
    }
    endpoint->state = T_DATAXFER;
    if (call == nullptr || call->addr.maxlen == 0)
        return 0;
    struct sockaddr_storage peer = {};
    socklen_t length = sizeof peer;
    if (getpeername(fd, reinterpret_cast<struct sockaddr*>(&peer), &length) < 0)
        return FailConnection(endpoint, errno);
    return PutAddress(peer, length, &call->addr);
}

// The code for an attempt that could not be begun.
static int ConnectFailure(int error)
{
    switch (error) {
    case EADDRINUSE: return Fail(TADDRBUSY);
    case EACCES:
    case EPERM: return Fail(TACCES);
    default: return FailSystem(error);
    }
}

int t_connect(int fd, const struct t_call* sndcall, struct t_call* rcvcall)
{
    Endpoint* const endpoint = FindIn(fd, In(T_IDLE));
    if (endpoint == nullptr)
        return -1;
    if (endpoint->qlen > 0)
        return Fail(TNOTSUPPORT);
    struct sockaddr_storage address;
    if (CheckCall(sndcall) < 0 || GetAddress(endpoint, sndcall->addr, &address) < 0)
        return -1;
    if (endpoint->isSpent && !RenewBound(endpoint))
        return ConnectFailure(errno);
    if (endpoint->boundLength > 0)
        ReuseAddress(fd); // so that the next connection can have the address while this one lingers
    const struct sockaddr* const to = reinterpret_cast<struct sockaddr*>(&address);
    if (connect(fd, to, endpoint->provider->addressLength) < 0 && errno != EINPROGRESS) {
        if (!MeansDisconnect(errno))
            return ConnectFailure(errno);
        endpoint->reason = errno;
    }
    endpoint->isSpent = true;
    endpoint->state = T_OUTCON;
    return FinishConnect(endpoint, rcvcall);
}

int t_rcvconnect(int fd, struct t_call* call)
{
    Endpoint* const endpoint = FindIn(fd, In(T_OUTCON));
    return endpoint == nullptr ? -1 : FinishConnect(endpoint, call);
}

// -- Listening and accepting --

// Waits for a client. Returns its socket.
static int AcceptSocket(const Endpoint* endpoint, struct sockaddr_storage* peer, socklen_t* length)
{
    for (;;) {
        *length = sizeof *peer;
        struct sockaddr* const address = reinterpret_cast<struct sockaddr*>(peer);
        const int fd = accept4(endpoint->socket.fd, address, length, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0)
            return fd;
        if (errno == EAGAIN) {
            if (Await(endpoint, POLLIN, TNODATA) < 0)
                return -1;
        } else if (!MeansDisconnect(errno)) { // else that client has gone already
            return Fail(TSYSERR);
        }
    }
}

int t_listen(int fd, struct t_call* call)
{
    Endpoint* const endpoint = FindIn(fd, In(T_IDLE) | In(T_INCON));
    if (endpoint == nullptr)
        return -1;
    if (endpoint->qlen == 0)
        return Fail(TBADQLEN);
    if (call == nullptr)
        return FailSystem(EFAULT);
    if (FindGone(endpoint) != nullptr)
        return Fail(TLOOK);
    if (endpoint->outstanding >= endpoint->qlen)
        return Fail(TQFULL);
    if (call->addr.maxlen > 0 && call->addr.maxlen < endpoint->provider->addressLength)
        return Fail(TBUFOVFLW);
    Request* const request = new (std::nothrow) Request;
    if (request == nullptr)
        return FailSystem(ENOMEM);
    struct sockaddr_storage peer;
    socklen_t length;
    const int client = AcceptSocket(endpoint, &peer, &length);
    if (client < 0) {
        delete request;
        return -1;
    }
    request->socket = Socket(client);
    AddRequest(endpoint, request);
    call->sequence = request->sequence;
    call->opt.len = 0;
    call->udata.len = 0;
    return PutAddress(peer, length, &call->addr);
}

// Whether `resfd` may take a connection that `listener` hands out.
static Endpoint* FindAcceptor(Endpoint* listener, int fd, int resfd)
{
    if (resfd == fd) {
        if (listener->outstanding > 1) {
            Fail(TINDOUT);
            return nullptr;
        }
        return listener;
    }
    Endpoint* const acceptor = FindIn(resfd, In(T_IDLE));
    if (acceptor == nullptr)
        return nullptr;
    if (acceptor->qlen > 0) {
        Fail(TRESQLEN);
        return nullptr;
    }
    if (acceptor->provider != listener->provider) {
        Fail(TPROVMISMATCH);
        return nullptr;
    }
    return acceptor;
}

int t_accept(int fd, int resfd, const struct t_call* call)
{
    Endpoint* const listener = Find(fd);
    if (listener == nullptr || Find(resfd) == nullptr || FindIn(fd, In(T_INCON)) == nullptr)
        return -1;
    Endpoint* const acceptor = FindAcceptor(listener, fd, resfd);
    if (acceptor == nullptr || CheckCall(call) < 0)
        return -1;
    Request** const place = call->sequence > 0 ? FindRequest(listener, call->sequence) : nullptr;
    if (place == nullptr)
        return Fail(TBADSEQ);
    LookAtRequest(*place);
    if ((*place)->reason != 0)
        return Fail(TLOOK);
    Request* const request = TakeRequest(listener, place);
    const bool moved = Replace(acceptor, request->socket.fd);
    const int error = errno;
    delete request;
    if (!moved)
        return FailSystem(error);
    acceptor->qlen = 0;
    acceptor->isSpent = true;
    acceptor->reason = 0;
    acceptor->state = T_DATAXFER;
    return 0;
}

// -- Transfer --

int t_snd(int fd, const char* buf, unsigned nbytes, int flags)
{
    Endpoint* const endpoint = FindIn(fd, In(T_DATAXFER) | In(T_INREL));
    if (endpoint == nullptr)
        return -1;
    if ((flags & ~T_MORE) != 0)
        return Fail(flags & T_EXPEDITED ? TNOTSUPPORT : TBADFLAG);
    if (nbytes == 0 || nbytes > INT_MAX)
        return Fail(TBADDATA);
    unsigned sent = 0;
    while (sent < nbytes) {
        const ssize_t count = send(fd, buf + sent, nbytes - sent, MSG_NOSIGNAL);
        if (count >= 0)
            sent += static_cast<unsigned>(count);
        else if (errno != EAGAIN)
            return FailConnection(endpoint, errno);
        else if (Await(endpoint, POLLOUT, TFLOW) < 0)
            return sent > 0 ? static_cast<int>(sent) : -1;
    }
    return static_cast<int>(sent);
}

int t_rcv(int fd, char* buf, unsigned nbytes, int* flags)
{
    Endpoint* const endpoint = FindIn(fd, In(T_DATAXFER) | In(T_OUTREL));
    if (endpoint == nullptr)
        return -1;
    if (flags != nullptr)
        *flags = 0;
    if (nbytes == 0)
        return 0;
    for (;;) {
        const ssize_t count = recv(fd, buf, std::min<unsigned>(nbytes, INT_MAX), 0);
        if (count > 0)
            return static_cast<int>(count);
        if (count == 0)
            return Fail(TLOOK); // T_ORDREL, or the T_DISCONNECT that was seen before
        if (errno != EAGAIN)
            return FailConnection(endpoint, errno);
        if (Await(endpoint, POLLIN, TNODATA) < 0)
            return -1;
    }
}

// -- Events --

// The event on the receiving side of a connection.
static int LookAtConnection(Endpoint* endpoint)
{
    if (endpoint->reason != 0)
        return T_DISCONNECT;
    char byte;
    const ssize_t count = recv(endpoint->socket.fd, &byte, 1, MSG_PEEK);
    if (count >= 0)
        return count > 0 ? T_DATA : T_ORDREL;
    if (!MeansDisconnect(errno))
        return 0;
    endpoint->reason = errno;
    return T_DISCONNECT;
}

int t_look(int fd)
{
    Endpoint* const endpoint = Find(fd);
    if (endpoint == nullptr)
        return -1;
    switch (endpoint->state) {
    case T_IDLE:
    case T_INCON:
        if (FindGone(endpoint) != nullptr)
            return T_DISCONNECT;
        return endpoint->qlen > 0 && IsReady(fd, POLLIN) ? T_LISTEN : 0;
    case T_OUTCON:
        if (endpoint->reason == 0 && !IsReady(fd, POLLOUT))
            return 0;
        return IsDisconnected(endpoint) ? T_DISCONNECT : T_CONNECT;
    case T_DATAXFER:
    case T_OUTREL: return LookAtConnection(endpoint);
    case T_INREL: return IsDisconnected(endpoint) ? T_DISCONNECT : 0;
    default: return 0;
    }
}

// -- Disconnecting --

// Takes the disconnect of an outstanding request, or of the connection, into `discon`.
static int TakeDisconnect(Endpoint* endpoint, struct t_discon* discon)
{
    if (endpoint->state == T_INCON) {
        Request** const place = FindGone(endpoint);
        if (place == nullptr)
            return Fail(TNODIS);
        Request* const request = TakeRequest(endpoint, place);
        discon->reason = request->reason;
        discon->sequence = request->sequence;
        CloseRequest(request);
        return 0;
    }
    if (!IsDisconnected(endpoint))
        return Fail(TNODIS);
    discon->reason = endpoint->reason;
    discon->sequence = -1;
    endpoint->reason = 0;
    endpoint->state = T_IDLE;
    return 0;
}

int t_rcvdis(int fd, struct t_discon* discon)
{
    Endpoint* const endpoint = FindIn(fd, kConnected | In(T_OUTCON) | In(T_INCON));
    if (endpoint == nullptr)
        return -1;
    struct t_discon taken = {};
    if (TakeDisconnect(endpoint, &taken) < 0)
        return -1;
    if (discon != nullptr) {
        discon->reason = taken.reason;
        discon->sequence = taken.sequence;
        discon->udata.len = 0;
    }
    return 0;
}

int t_snddis(int fd, const struct t_call* call)
{
    Endpoint* const endpoint = FindIn(fd, kConnected | In(T_OUTCON) | In(T_INCON));
    if (endpoint == nullptr)
        return -1;
    if (call != nullptr && call->udata.len > 0)
        return Fail(TBADDATA);
    if (endpoint->state == T_INCON) {
        Request** const place = call != nullptr && call->sequence > 0 ? FindRequest(endpoint, call->sequence) : nullptr;
        if (place == nullptr)
            return Fail(TBADSEQ);
        Request* const request = TakeRequest(endpoint, place);
        if (request->socket.IsOurs())
            Abort(request->socket.fd);
        CloseRequest(request);
        return 0;
    }
    if (IsDisconnected(endpoint))
        return Fail(TLOOK);
    Abort(fd);
    endpoint->state = T_IDLE;
    return 0;
}

int t_sndrel(int fd)
{
    Endpoint* const endpoint = FindIn(fd, In(T_DATAXFER) | In(T_INREL));
    if (endpoint == nullptr)
        return -1;
    if (IsDisconnected(endpoint))
        return Fail(TLOOK);
    if (shutdown(fd, SHUT_WR) < 0)
        return FailConnection(endpoint, errno);
    endpoint->state = endpoint->state == T_INREL ? T_IDLE : T_OUTREL;
    return 0;
}

int t_rcvrel(int fd)
{
    Endpoint* const endpoint = FindIn(fd, In(T_DATAXFER) | In(T_OUTREL));
    if (endpoint == nullptr)
        return -1;
    const int event = IsDisconnected(endpoint) ? T_DISCONNECT : LookAtConnection(endpoint);
    if (event != T_ORDREL)
        return Fail(event == T_DISCONNECT ? TLOOK : TNOREL);
    endpoint->state = endpoint->state == T_OUTREL ? T_IDLE : T_INREL;
    return 0;
}

int t_getstate(int fd)
{
    const Endpoint* const endpoint = Find(fd);
    return endpoint == nullptr ? -1 : endpoint->state;
}

int t_close(int fd)
{
    if (Find(fd) == nullptr)
        return -1;
    Drop(fd);
    close(fd); // whatever it returns, the descriptor is gone
    return 0;
}

// -- Messages --

void t_error(const char* errmsg)
{
    const int error = errno;
    struct iovec parts[6];
    int count = 0;
    const auto add = [&](const char* text) { parts[count++] = {const_cast<char*>(text), strlen(text)}; };
    if (errmsg != nullptr && *errmsg != '\0') {
        add(errmsg);
        add(": ");
    }
    add(t_strerror(t_errno));
    if (t_errno == TSYSERR) {
        add(": ");
        add(strerror(error));
    }
    add("\n");
    if (writev(STDERR_FILENO, parts, count) < 0) {
        // There is nowhere else to say it.
    }
    errno = error;
}

const char* t_strerror(int errnum)
{
    static const char* const texts[] = {
        "No Error",
        "Incorrect address format",
        "Incorrect options format",
        "Illegal permissions",
        "Illegal file descriptor",
        "Couldn't allocate address",
        "Routine will place interface out of state",
        "Illegal called/calling sequence number",
        "System error",
        "An event requires attention",
        "Illegal amount of data",
        "Buffer not large enough",
        "Can't send message - (blocked)",
        "No message currently available",
        "Disconnect message not found",
        "Unitdata error message not found",
        "Incorrect flags specified",
        "Orderly release message not found",
        "Primitive not supported by provider",
        "State is in process of changing",
        "Unsupported structure type requested",
        "Invalid transport provider name",
        "Listener queue length limit is zero",
        "Transport address is in use",
        "Outstanding connection indications exist",
        "Listener-acceptor transport provider mismatch",
        "Connection acceptor has listen queue length limit greater than zero",
        "Connection acceptor-listener addresses not same but required by transport",
        "Incoming connection queue is full",
        "Protocol error on transport primitive",
    };
    constexpr int count = static_cast<int>(sizeof texts / sizeof *texts);
    static_assert(count == TPROTO + 1, "a text for every code");
    if (errnum >= 0 && errnum < count)
        return texts[errnum];
    static char unknown[32];
    snprintf(unknown, sizeof unknown, "%d: error unknown", errnum);
    return unknown;
}

} // namespace svr4
