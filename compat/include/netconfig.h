/* SPDX-License-Identifier: BSD-2-Clause */
/* Network selection of System V. The transports are "tcp" and, only when NETPATH names it, "tcp6". */
#ifndef ZELOO_SVR4_NETCONFIG_H
#define ZELOO_SVR4_NETCONFIG_H

#include "zeloo_svr4/calls.h"

/* Transport semantics, and flags. */
enum { NC_TPI_CLTS = 1, NC_TPI_COTS = 2, NC_TPI_COTS_ORD = 3, NC_TPI_RAW = 4 };
enum { NC_NOFLAG = 0, NC_VISIBLE = 1 };

/* Protocol families and protocols. */
#define NC_INET "inet"
#define NC_TCP "tcp"

/* A transport of this host. The texts belong to the library: they last as long as the process, and are not changed. */
struct ZELOO_SVR4_STRUCT netconfig {
    char* nc_netid;
    unsigned long nc_semantics;
    unsigned long nc_flag;
    char* nc_protofmly;
    char* nc_proto;
    char* nc_device; /* for t_open */
};

ZELOO_SVR4_BEGIN

/* The path that NETPATH gives, or all visible transports without it: a handle for getnetpath. Null: no memory. */
void* setnetpath(void) ZELOO_SVR4_CALL(setnetpath);
/* The next transport, or null at the end. */
struct netconfig* getnetpath(void* handlep) ZELOO_SVR4_CALL(getnetpath);
/* Closes the path; the transports stay valid. */
int endnetpath(void* handlep) ZELOO_SVR4_CALL(endnetpath);

/* The same for all transports, whatever NETPATH says. */
void* setnetconfig(void) ZELOO_SVR4_CALL(setnetconfig);
struct netconfig* getnetconfig(void* handlep) ZELOO_SVR4_CALL(getnetconfig);
int endnetconfig(void* handlep) ZELOO_SVR4_CALL(endnetconfig);

/* The transport of this name, or null. */
struct netconfig* getnetconfigent(const char* netid) ZELOO_SVR4_CALL(getnetconfigent);
/* Does nothing: the transports belong to the library. */
void freenetconfigent(struct netconfig* config) ZELOO_SVR4_CALL(freenetconfigent);

ZELOO_SVR4_END

#endif
