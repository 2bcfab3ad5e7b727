/* SPDX-License-Identifier: BSD-2-Clause */
/* The host's <libgen.h>, and gmatch of System V. */
#pragma GCC system_header
#include_next <libgen.h>
#ifndef ZELOO_SVR4_LIBGEN_H
#define ZELOO_SVR4_LIBGEN_H

#include "zeloo_svr4/calls.h"

ZELOO_SVR4_BEGIN

/* Not 0 when `str` matches the shell pattern `pattern`. "*" and "?" also match "/". */
int gmatch(const char* str, const char* pattern) ZELOO_SVR4_CALL(gmatch);

ZELOO_SVR4_END

#endif
