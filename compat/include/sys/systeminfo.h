/* SPDX-License-Identifier: BSD-2-Clause */
/* sysinfo of System V. The host has another call of that name in <sys/sysinfo.h>: a source includes one of the two. */
#ifndef ZELOO_SVR4_SYSTEMINFO_H
#define ZELOO_SVR4_SYSTEMINFO_H

#include <zeloo_svr4/calls.h>

enum {
    SI_SYSNAME = 1,
    SI_HOSTNAME = 2,
    SI_RELEASE = 3,
    SI_VERSION = 4,
    SI_MACHINE = 5,
    SI_ARCHITECTURE = 6 /* the machine here */
};

ZELOO_SVR4_BEGIN

/* Copies a text, cut to `count` bytes. Returns the bytes that all of it needs, its end included, or -1 (EINVAL). */
int sysinfo(int command, char* buf, long count) ZELOO_SVR4_CALL(sysinfo);

ZELOO_SVR4_END

#endif
