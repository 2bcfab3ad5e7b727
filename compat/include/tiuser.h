/* SPDX-License-Identifier: BSD-2-Clause */
/*
 * The Transport Layer Interface of System V, over TCP sockets: states, events and error codes have the names and
 * numbers that programs know.
 *
 * A call that fails returns -1 (null where it returns a pointer) and puts the reason into t_errno; TSYSERR says that it
 * stands in errno. What is peculiar to this transport: it is a byte stream with orderly release; there are no options,
 * no expedited data, and no data in connect and disconnect messages; "/dev/tcp" and "/dev/tcp6" are its providers. A
 * call that waits is interrupted by every signal that has a handler (TSYSERR, EINTR). Writing to a connection that is
 * gone raises no SIGPIPE. A forked child has the endpoints of its parent; an exec closes them.
 */
#ifndef ZELOO_SVR4_TIUSER_H
#define ZELOO_SVR4_TIUSER_H

#include "zeloo_svr4/calls.h"
#include "zeloo_svr4/netbuf.h"

/* Error codes. */
enum {
    TBADADDR = 1,       /* address of a wrong form */
    TBADOPT = 2,        /* options of a wrong form */
    TACCES = 3,         /* no permission */
    TBADF = 4,          /* the descriptor is no endpoint */
    TNOADDR = 5,        /* no address could be had */
    TOUTSTATE = 6,      /* not in this state */
    TBADSEQ = 7,        /* no such connection request */
    TSYSERR = 8,        /* see errno */
    TLOOK = 9,          /* an event comes first: t_look tells which */
    TBADDATA = 10,      /* illegal amount of data */
    TBUFOVFLW = 11,     /* buffer too small */
    TFLOW = 12,         /* would block: no room */
    TNODATA = 13,       /* would block: nothing there */
    TNODIS = 14,        /* no disconnect pending */
    TNOUDERR = 15,      /* no unit data error pending */
    TBADFLAG = 16,      /* bad flags */
    TNOREL = 17,        /* no orderly release pending */
    TNOTSUPPORT = 18,   /* not supported */
    TSTATECHNG = 19,    /* state is changing */
    TNOSTRUCTYPE = 20,  /* no such structure type */
    TBADNAME = 21,      /* no such transport provider */
    TBADQLEN = 22,      /* listening without a queue */
    TADDRBUSY = 23,     /* address in use */
    TINDOUT = 24,       /* other connection requests outstanding */
    TPROVMISMATCH = 25, /* endpoints of different providers */
    TRESQLEN = 26,      /* the accepting endpoint listens itself */
    TRESADDR = 27,      /* the accepting endpoint has another address */
    TQFULL = 28,        /* queue of connection requests is full */
    TPROTO = 29         /* protocol error */
};

/* Events. */
enum {
    T_LISTEN = 0x0001,
    T_CONNECT = 0x0002,
    T_DATA = 0x0004,
    T_EXDATA = 0x0008,
    T_DISCONNECT = 0x0010,
    T_UDERR = 0x0040,
    T_ORDREL = 0x0080
};

/* States. */
enum { T_UNINIT = 0, T_UNBND = 1, T_IDLE = 2, T_OUTCON = 3, T_INCON = 4, T_DATAXFER = 5, T_OUTREL = 6, T_INREL = 7 };

/* Structures for t_alloc and t_free, the buffers in them, flags of t_snd and t_rcv, service types. */
enum { T_BIND = 1, T_OPTMGMT = 2, T_CALL = 3, T_DIS = 4, T_UNITDATA = 5, T_UDERROR = 6, T_INFO = 7 };
enum { T_ADDR = 0x01, T_OPT = 0x02, T_UDATA = 0x04, T_ALL = 0x07 };
enum { T_MORE = 0x001, T_EXPEDITED = 0x002 };
enum { T_COTS = 1, T_COTS_ORD = 2, T_CLTS = 3 };

struct ZELOO_SVR4_STRUCT t_bind {
    struct netbuf addr;
    unsigned int qlen;
};

struct ZELOO_SVR4_STRUCT t_call {
    struct netbuf addr;
    struct netbuf opt;
    struct netbuf udata;
    int sequence;
};

struct ZELOO_SVR4_STRUCT t_discon {
    struct netbuf udata;
    int reason; /* an errno value */
    int sequence;
};

struct ZELOO_SVR4_STRUCT t_info {
    long addr;
    long options;
    long tsdu;
    long etsdu;
    long connect;
    long discon;
    long servtype;
};

ZELOO_SVR4_BEGIN

/* Why the last call that failed did so, also within the library; the texts of the codes, and their number. */
ZELOO_SVR4_DATA int t_errno;
ZELOO_SVR4_DATA char* t_errlist[];
ZELOO_SVR4_DATA int t_nerr;

int t_accept(int fd, int resfd, const struct t_call* call) ZELOO_SVR4_CALL(t_accept);
char* t_alloc(int fd, int struct_type, int fields) ZELOO_SVR4_CALL(t_alloc);
int t_bind(int fd, const struct t_bind* req, struct t_bind* ret) ZELOO_SVR4_CALL(t_bind);
int t_close(int fd) ZELOO_SVR4_CALL(t_close);
int t_connect(int fd, const struct t_call* sndcall, struct t_call* rcvcall) ZELOO_SVR4_CALL(t_connect);
void t_error(const char* errmsg) ZELOO_SVR4_CALL(t_error);
int t_free(void* ptr, int struct_type) ZELOO_SVR4_CALL(t_free);
int t_getinfo(int fd, struct t_info* info) ZELOO_SVR4_CALL(t_getinfo);
int t_getstate(int fd) ZELOO_SVR4_CALL(t_getstate);
int t_listen(int fd, struct t_call* call) ZELOO_SVR4_CALL(t_listen);
int t_look(int fd) ZELOO_SVR4_CALL(t_look);
int t_open(const char* path, int oflag, struct t_info* info) ZELOO_SVR4_CALL(t_open);
int t_rcv(int fd, char* buf, unsigned int nbytes, int* flags) ZELOO_SVR4_CALL(t_rcv);
int t_rcvconnect(int fd, struct t_call* call) ZELOO_SVR4_CALL(t_rcvconnect);
int t_rcvdis(int fd, struct t_discon* discon) ZELOO_SVR4_CALL(t_rcvdis);
int t_rcvrel(int fd) ZELOO_SVR4_CALL(t_rcvrel);
int t_snd(int fd, const char* buf, unsigned int nbytes, int flags) ZELOO_SVR4_CALL(t_snd);
int t_snddis(int fd, const struct t_call* call) ZELOO_SVR4_CALL(t_snddis);
int t_sndrel(int fd) ZELOO_SVR4_CALL(t_sndrel);
char* t_strerror(int errnum) ZELOO_SVR4_CALL(t_strerror);
int t_sync(int fd) ZELOO_SVR4_CALL(t_sync);
int t_unbind(int fd) ZELOO_SVR4_CALL(t_unbind);

ZELOO_SVR4_END

#endif
