/* SPDX-License-Identifier: BSD-2-Clause */
/* The host's <time.h>, with strftime of System V. */
#pragma GCC system_header
#include_next <time.h>
#ifndef ZELOO_SVR4_TIME_H
#define ZELOO_SVR4_TIME_H

#include "zeloo_svr4/calls.h"

ZELOO_SVR4_BEGIN

/* "%C" is the date and time as date(1) prints them. */
size_t strftime(char* s, size_t maxsize, const char* format, const struct tm* tp) ZELOO_SVR4_INSTEAD(strftime);

ZELOO_SVR4_END

#endif
