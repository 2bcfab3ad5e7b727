/* SPDX-License-Identifier: BSD-2-Clause */
/* stamp.c: times as the operators know them from date(1) */
#include <sys/types.h>
#include <time.h>

#include "watch.h"

static char text[64];

char *
stamp(when)
	long when;
{
	time_t t;
	register struct tm *tm;

	t = when;
	tm = localtime(&t);
	if (strftime(text, sizeof text, "%C", tm) == 0)
		return "never";
	return text;
}
