/* SPDX-License-Identifier: BSD-2-Clause */
/* Name-to-address translation of System V: services from /etc/services, hosts through the resolver. */
#ifndef ZELOO_SVR4_NETDIR_H
#define ZELOO_SVR4_NETDIR_H

#include "zeloo_svr4/calls.h"
#include "zeloo_svr4/netbuf.h"

struct netconfig; /* of <netconfig.h> */

/* Results, also in _nderror. */
enum { ND_BADARG = -2, ND_NOMEM = -1, ND_OK = 0, ND_NOHOST = 1, ND_NOSERV = 2, ND_SYSTEM = 9 };

/* The name of this host as h_host, to bind and to connect. */
#define HOST_SELF "\\1"

/* What netdir_free frees. */
enum { ND_ADDR = 0, ND_HOSTSERVLIST = 2, ND_ADDRLIST = 3 };

struct ZELOO_SVR4_STRUCT nd_hostserv {
    char* h_host;
    char* h_serv;
};

struct ZELOO_SVR4_STRUCT nd_hostservlist {
    int h_cnt;
    struct nd_hostserv* h_hostservs;
};

struct ZELOO_SVR4_STRUCT nd_addrlist {
    int n_cnt;
    struct netbuf* n_addrs;
};

ZELOO_SVR4_BEGIN

/* The result of the last of these calls that failed. */
ZELOO_SVR4_DATA int _nderror;

/* All addresses of a service on a host, for netdir_free; 0, or the reason with `*addrs` null. */
int netdir_getbyname(const struct netconfig* config, const struct nd_hostserv* service, struct nd_addrlist** addrs)
    ZELOO_SVR4_CALL(netdir_getbyname);
/* The names of host and service of an address, or their numbers, one pair, for netdir_free. */
int netdir_getbyaddr(const struct netconfig* config, struct nd_hostservlist** service, const struct netbuf* addr)
    ZELOO_SVR4_CALL(netdir_getbyaddr);
/* Frees what these calls gave: ND_ADDRLIST, ND_HOSTSERVLIST, or ND_ADDR of uaddr2taddr. */
void netdir_free(void* ptr, int struct_type) ZELOO_SVR4_CALL(netdir_free);
/* The text of _nderror, and the same on standard error, behind `msg` and ": ". */
char* netdir_sperror(void) ZELOO_SVR4_CALL(netdir_sperror);
void netdir_perror(const char* msg) ZELOO_SVR4_CALL(netdir_perror);
/* The universal address h.h.h.h.p.p, to be freed with free. */
char* taddr2uaddr(const struct netconfig* config, const struct netbuf* addr) ZELOO_SVR4_CALL(taddr2uaddr);
/* The address that it stands for, for netdir_free; null when it is none. */
struct netbuf* uaddr2taddr(const struct netconfig* config, const char* uaddr) ZELOO_SVR4_CALL(uaddr2taddr);

ZELOO_SVR4_END

#endif
