// SPDX-License-Identifier: BSD-2-Clause
// The Transport Layer Interface of System V, over TCP sockets.
//
// An endpoint is a descriptor made by t_open. Every call names one and is allowed in some states only; the states, the
// events and the error codes have their System V names and numbers. A call that fails returns -1 (null where it
// returns a pointer) and puts its reason into t_errno:
//
//     TBADF      the descriptor is no endpoint of this process
//     TOUTSTATE  the call is not allowed in the endpoint's present state
//     TLOOK      an event must be dealt with first: t_look tells which
//     TSYSERR    the system refused: errno tells why (EFAULT for a null argument that is needed)
//
// Each call names below what else it may give. A call that would wait is interrupted by every signal that has a
// handler, and fails with TSYSERR and EINTR; it is never restarted, even if the handler asks for that. Writing to a
// connection that is gone raises no SIGPIPE. The transport is a byte stream with orderly release: it has no options,
// no expedited data, and no data in its connect and disconnect messages.
//
// A descriptor of an endpoint that was closed by close(2) is no endpoint any more, nor is what gets its number next.
// A forked child has the endpoints of its parent.
#ifndef SVR4_TLI_H
#define SVR4_TLI_H

namespace svr4 {

/// Why the last failing call of this unit failed. A call that succeeds leaves it alone. It and the two below have C
/// linkage: they are those of a program that declares them itself, as on System V.
extern "C" [[gnu::visibility("default")]] int t_errno; // NOLINT(readability-redundant-declaration)

/// The texts of t_strerror, by code, and their number.
extern "C" [[gnu::visibility("default")]] char* t_errlist[]; // NOLINT(readability-redundant-declaration)
extern "C" [[gnu::visibility("default")]] int t_nerr;        // NOLINT(readability-redundant-declaration)

enum {
    TBADADDR = 1,       // address of a wrong form
    TBADOPT = 2,        // options of a wrong form
    TACCES = 3,         // no permission
    TBADF = 4,          // no endpoint
    TNOADDR = 5,        // no address could be had
    TOUTSTATE = 6,      // not in this state
    TBADSEQ = 7,        // no such connection request
    TSYSERR = 8,        // see errno
    TLOOK = 9,          // an event requires attention
    TBADDATA = 10,      // illegal amount of data
    TBUFOVFLW = 11,     // buffer too small
    TFLOW = 12,         // flow control: would block
    TNODATA = 13,       // nothing there yet: would block
    TNODIS = 14,        // no disconnect pending
    TNOUDERR = 15,      // no unit data error pending
    TBADFLAG = 16,      // bad flags
    TNOREL = 17,        // no orderly release pending
    TNOTSUPPORT = 18,   // not supported
    TSTATECHNG = 19,    // state is changing
    TNOSTRUCTYPE = 20,  // no such structure type
    TBADNAME = 21,      // no such transport provider
    TBADQLEN = 22,      // listening without a queue
    TADDRBUSY = 23,     // address in use
    TINDOUT = 24,       // other connection requests outstanding
    TPROVMISMATCH = 25, // endpoints of different providers
    TRESQLEN = 26,      // the accepting endpoint listens itself
    TRESADDR = 27,      // the accepting endpoint has another address
    TQFULL = 28,        // queue of connection requests is full
    TPROTO = 29         // protocol error
};

/// Events, as t_look returns them.
enum {
    T_LISTEN = 0x0001,     // a connection request came
    T_CONNECT = 0x0002,    // a connection was confirmed
    T_DATA = 0x0004,       // data came
    T_EXDATA = 0x0008,     // expedited data came: never on this transport
    T_DISCONNECT = 0x0010, // the connection, or a connection request, was broken off
    T_UDERR = 0x0040,      // never on this transport
    T_ORDREL = 0x0080      // the peer has sent all and closed in order
};

/// States, as t_getstate returns them.
enum {
    T_UNINIT = 0,   // not open
    T_UNBND = 1,    // open, without an address
    T_IDLE = 2,     // bound
    T_OUTCON = 3,   // connecting
    T_INCON = 4,    // a connection request was handed out and is not answered yet
    T_DATAXFER = 5, // connected
    T_OUTREL = 6,   // released by this side, which still receives
    T_INREL = 7     // released by the peer; this side still sends
};

/// Structures for t_alloc and t_free, and the buffers in them.
enum { T_BIND = 1, T_OPTMGMT = 2, T_CALL = 3, T_DIS = 4, T_UNITDATA = 5, T_UDERROR = 6, T_INFO = 7 };
enum { T_ADDR = 0x01, T_OPT = 0x02, T_UDATA = 0x04, T_ALL = 0x07 };

/// Flags of t_snd and t_rcv, and service types of t_info.
enum { T_MORE = 0x001, T_EXPEDITED = 0x002 };
enum { T_COTS = 1, T_COTS_ORD = 2, T_CLTS = 3 };

/// A block that a call reads (`len` bytes at `buf`) or fills: at most `maxlen` bytes at `buf`, setting `len`. A
/// `maxlen` of 0 means that the caller does not want the value. An address is a sockaddr_in or sockaddr_in6.
struct netbuf {
    unsigned maxlen;
    unsigned len;
    char* buf;
};

struct t_bind {
    struct netbuf addr;
    unsigned qlen; // most connection requests handed out and not answered; 0: the endpoint does not listen
};

struct t_call {
    struct netbuf addr;
    struct netbuf opt;
    struct netbuf udata;
    int sequence; // number of a connection request, above 0
};

struct t_discon {
    struct netbuf udata;
    int reason;   // an errno value
    int sequence; // number of the connection request that was broken off, or -1
};

/// Limits of a transport in bytes: -2 means not supported, a tsdu of 0 a byte stream without record boundaries.
struct t_info {
    long addr;
    long options;
    long tsdu;
    long etsdu;
    long connect;
    long discon;
    long servtype;
};

/// Makes an endpoint of the transport provider `path`, "/dev/tcp" or "/dev/tcp6" (else TBADNAME), in state T_UNBND.
/// `oflag` must contain O_RDWR, and may contain O_NONBLOCK, which makes the endpoint one whose calls never wait for as
/// long as it lives (TBADFLAG otherwise). Fills `info` unless it is null. Returns the descriptor, which is closed by
/// an exec; the caller closes it with t_close.
int t_open(const char* path, int oflag, struct t_info* info);

/// Gives an endpoint in T_UNBND the address of `req`, or any free one when `req` or its address is empty, and makes it
/// T_IDLE. With a `qlen` above 0 it listens; the address may then linger from an earlier server, and as many clients
/// wait to be handed out as the host allows. Fills `ret`, unless it is null, with address and queue length. TBADADDR;
/// TADDRBUSY: another endpoint has the address; TNOADDR: no free address, or not one of this host; TACCES; TBUFOVFLW:
/// the endpoint is bound, but `ret` is too small.
int t_bind(int fd, const struct t_bind* req, struct t_bind* ret);

/// Takes the address from an endpoint in T_IDLE, which is T_UNBND then. Requests not yet handed out are refused.
int t_unbind(int fd);

/// A new zeroed structure of type `struct_type` (T_BIND, T_CALL, T_DIS or T_INFO, else TNOSTRUCTYPE) for the endpoint
/// `fd`. With T_ADDR in `fields` its address has a buffer for any address; options and user data, which this
/// transport does not have, get none. The caller frees it with t_free. Null when memory fails (TSYSERR).
void* t_alloc(int fd, int struct_type, int fields);

/// Frees a structure of t_alloc and its buffers; null is allowed. TNOSTRUCTYPE: nothing is freed.
int t_free(void* ptr, int struct_type);

/// Connects an endpoint in T_IDLE to the address of `sndcall` and waits until it is T_DATAXFER. Fills the address of
/// `rcvcall`, unless it is null, with the peer's. TLOOK: refused, unreachable or timed out, T_DISCONNECT is pending and
/// the state T_OUTCON until t_rcvdis takes it. Interrupted, or TNODATA without waiting: the state is T_OUTCON, and
/// t_rcvconnect, t_snddis or t_close go on. TBADADDR, TBADOPT, TBADDATA, TADDRBUSY, TACCES; TNOTSUPPORT: it listens;
/// TBUFOVFLW: connected, but `rcvcall` is too small.
int t_connect(int fd, const struct t_call* sndcall, struct t_call* rcvcall);

/// Waits for the end of a connection attempt that t_connect left in T_OUTCON. Fills `call` as t_connect does, and
/// fails as it does.
int t_rcvconnect(int fd, struct t_call* call);

/// Waits for the next connection request, in the order in which they came, and hands it out: `call` gets the client's
/// address and the sequence number by which t_accept and t_snddis know it. The state is T_INCON until all that were
/// handed out are answered. REQUIRES: T_IDLE or T_INCON. TBADQLEN: it does not listen; TQFULL: `qlen` requests are
/// unanswered; TLOOK: the client of an unanswered one has gone, which t_rcvdis tells; TNODATA; TBUFOVFLW: the address
/// does not fit, and nothing is taken.
int t_listen(int fd, struct t_call* call);

/// Accepts the request `call->sequence` handed out by the endpoint `fd` on the endpoint `resfd`, which keeps its
/// number and becomes T_DATAXFER. `resfd` is in T_IDLE and does not listen (TRESQLEN), or is `fd` itself when no other
/// request is unanswered (TINDOUT); it then stops listening for good. Requests that wait are no hindrance. TBADSEQ,
/// TBADOPT, TBADDATA, TPROVMISMATCH; TLOOK: the client has gone, T_DISCONNECT is pending on `fd`.
int t_accept(int fd, int resfd, const struct t_call* call);

/// Sends `nbytes` bytes (TBADDATA: none) and returns their number. REQUIRES: T_DATAXFER or T_INREL. Without waiting it
/// may send fewer, or none (TFLOW). An interrupted call that has sent some returns their number. `flags` is 0 or
/// T_MORE, which changes nothing; TNOTSUPPORT: T_EXPEDITED; TBADFLAG. TLOOK: T_DISCONNECT is pending.
int t_snd(int fd, const char* buf, unsigned nbytes, int flags);

/// Waits for data and returns the number of bytes received, at least 1 and at most `nbytes` (0 at once for an `nbytes`
/// of 0). `*flags`, unless null, becomes 0. REQUIRES: T_DATAXFER or T_OUTREL. TLOOK when all data was delivered and
/// the peer closed in order (T_ORDREL) or broke the connection off (T_DISCONNECT). TNODATA.
int t_rcv(int fd, char* buf, unsigned nbytes, int* flags);

/// The same, but without sleeping: TNODATA when nothing comes within some microseconds (BriefWait).
int t_rcv_soon(int fd, char* buf, unsigned nbytes);

/// The event that is pending on the endpoint, or 0. It stays pending until its call takes it: T_LISTEN t_listen,
/// T_CONNECT t_rcvconnect, T_DATA t_rcv, T_ORDREL t_rcvrel, T_DISCONNECT t_rcvdis.
int t_look(int fd);

/// Takes T_DISCONNECT. A connection, or an attempt at one, is T_IDLE then and data not yet received is lost. On a
/// listening endpoint the request whose client has gone is forgotten. Fills `discon` unless it is null. TNODIS.
int t_rcvdis(int fd, struct t_discon* discon);

/// Breaks the connection off, data in both directions is lost, or gives up an attempt at one: T_IDLE then. On a
/// listening endpoint refuses the request `call->sequence` (TBADSEQ); `call` may be null otherwise. TBADDATA; TLOOK:
/// the peer was faster, T_DISCONNECT is pending.
int t_snddis(int fd, const struct t_call* call);

/// Closes the sending direction in order, after the data sent so far: from T_DATAXFER to T_OUTREL, from T_INREL to
/// T_IDLE. TLOOK: T_DISCONNECT is pending.
int t_sndrel(int fd);

/// Takes T_ORDREL: from T_DATAXFER to T_INREL, from T_OUTREL to T_IDLE. TNOREL: none is pending, or data comes first;
/// TLOOK: T_DISCONNECT is pending.
int t_rcvrel(int fd);

/// The state of the endpoint.
int t_getstate(int fd);

/// Fills `info` unless it is null, as t_open does.
int t_getinfo(int fd, struct t_info* info);

/// Closes the endpoint in any state, and with it the requests of a listening endpoint that were not accepted. A
/// connection is closed in order, unless data waits that was not received: the peer sees that as T_DISCONNECT.
int t_close(int fd);

/// Writes `errmsg`, ": " (neither when it is null or empty), the text of t_errno, for TSYSERR also ": " and the text
/// of errno, and a newline to standard error. `errno` is kept.
void t_error(const char* errmsg);

/// The text of an error code.
const char* t_strerror(int errnum);

} // namespace svr4

#endif
