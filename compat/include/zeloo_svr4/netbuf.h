/* SPDX-License-Identifier: BSD-2-Clause */
/* The block that calls of <tiuser.h> and <netdir.h> read or fill. */
#ifndef ZELOO_SVR4_NETBUF_H
#define ZELOO_SVR4_NETBUF_H

#include "calls.h"

/*
 * `len` bytes at `buf` are read; at most `maxlen` are written, and `len` tells how many. A `maxlen` of 0 says that the
 * value is not wanted. An address is a sockaddr_in or sockaddr_in6 of <netinet/in.h>.
 */
struct ZELOO_SVR4_STRUCT netbuf {
    unsigned int maxlen;
    unsigned int len;
    char* buf;
};

#endif
