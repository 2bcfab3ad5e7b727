/* SPDX-License-Identifier: BSD-2-Clause */
/* fail.C: why the last call of the network failed; it was written before the header said so */
#include "watch.h"

extern int t_errno;
extern char *t_errlist[];
extern int t_nerr;

const char *
why_not()
{
	return t_errno > 0 && t_errno < t_nerr ? t_errlist[t_errno] : "nobody knows why";
}
