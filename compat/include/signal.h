/* SPDX-License-Identifier: BSD-2-Clause */
/* The host's <signal.h>, with signal of System V. */
#pragma GCC system_header
#include_next <signal.h>
#ifndef ZELOO_SVR4_SIGNAL_H
#define ZELOO_SVR4_SIGNAL_H

#include "zeloo_svr4/calls.h"

ZELOO_SVR4_BEGIN

/*
 * A handler is one-shot: the disposition is the default again when it runs, and the signal is not held back meanwhile.
 * A call that it interrupts fails with EINTR. Where C is compiled strictly, glibc declares its own of this meaning.
 */
#if !defined(__GLIBC__) || defined(__USE_MISC)
typedef void (*zeloo_svr4_handler)(int);
zeloo_svr4_handler signal(int sig, zeloo_svr4_handler handler) ZELOO_SVR4_INSTEAD(signal);
#endif

ZELOO_SVR4_END

#endif
