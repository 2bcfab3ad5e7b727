/* SPDX-License-Identifier: BSD-2-Clause */
/*
 * How the headers of this folder name the calls that they declare. A call keeps its System V name in the source; in the
 * object file it is zeloo_svr4_NAME, so that neither the host's function of that name nor one of another library is ever
 * taken for it, or it for them, and no macro is in the way of a program's own members and variables.
 */
#ifndef ZELOO_SVR4_CALLS_H
#define ZELOO_SVR4_CALLS_H

#ifdef __cplusplus
#define ZELOO_SVR4_BEGIN extern "C" {
#define ZELOO_SVR4_END }
#else
#define ZELOO_SVR4_BEGIN
#define ZELOO_SVR4_END
#endif

/* Stands behind the declaration of a call, and of one that the host has already declared. */
#define ZELOO_SVR4_CALL(name) __asm__("zeloo_svr4_" #name) __attribute__((__visibility__("default")))
#if defined(__cplusplus) && defined(__THROW)
#define ZELOO_SVR4_INSTEAD(name) __THROW ZELOO_SVR4_CALL(name)
#else
#define ZELOO_SVR4_INSTEAD(name) ZELOO_SVR4_CALL(name)
#endif

/* Stands before the declaration of a variable, whose name is the same everywhere. */
#define ZELOO_SVR4_DATA extern __attribute__((__visibility__("default")))

/* Stands in the definition of a structure, which the library knows under a type of its own. */
#define ZELOO_SVR4_STRUCT __attribute__((__may_alias__))

#endif
