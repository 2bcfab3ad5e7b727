/* SPDX-License-Identifier: BSD-2-Clause */
/* watch.h: what the parts of watch share */
#ifndef WATCH_H
#define WATCH_H

#define PROJECT "watch"
#define NOON 1795263300L	/* of the day on which this was last seen to work */

#ifdef __cplusplus
extern "C" {
#endif

extern char *stamp(long when);		/* stamp.c */

#ifdef __cplusplus
}
#endif

extern void tell_host();		/* host.C */
extern void tell_files();
extern void tell_signals();		/* sig.C */
extern void tell_group();
extern void tell_networks();		/* names.C */
extern void tell_address(char *host, char *service);
extern char *tcp_device();
extern int tell_conversation();		/* net.C */
extern void tell_refusal();
extern const char *why_not();		/* fail.C */

#endif
