/* SPDX-License-Identifier: BSD-2-Clause */
/* The host's <unistd.h>, with setpgrp of System V. */
#pragma GCC system_header
#include_next <unistd.h>
#ifndef ZELOO_SVR4_UNISTD_H
#define ZELOO_SVR4_UNISTD_H

#include "zeloo_svr4/calls.h"

ZELOO_SVR4_BEGIN

/* The caller leads a new session and group without a terminal. Returns the group, or -1 when it leads one already. */
int setpgrp(void) ZELOO_SVR4_INSTEAD(setpgrp);

ZELOO_SVR4_END

#endif
