/* SPDX-License-Identifier: BSD-2-Clause */
/* host.C: the host that watch runs on, and the files that it looks after */
#include <iostream.h>
#include <iomanip.h>
#include <sys/systeminfo.h>
#include <libgen.h>
#include <string.h>
#include <errno.h>

#include "Misc/CstrArray.h"
#include "Misc/cstring.h"
#include "watch.h"

static struct {
	int command;
	char *title;
} facts[] = {
	{ SI_SYSNAME, "system" },
	{ SI_HOSTNAME, "node" },
	{ SI_RELEASE, "release" },
	{ SI_MACHINE, "machine" },
};

void
tell_host()
{
	char text[257];
	int i;

	for (i = 0; i < sizeof facts / sizeof facts[0]; i++) {
		if (sysinfo(facts[i].command, text, sizeof text) < 0)
			strcpy(text, "?");
		cout << setw(10) << facts[i].title << ": " << text << endl;
	}
	if (sysinfo(-1, text, sizeof text) == -1 && errno == EINVAL)
		cout << "no such fact" << endl;
}

static char *files[] = {
	"/var/adm/messages", "/var/adm/sulog", "/var/spool/lp/logs/requests", "/etc/rc.d/rc2.log", 0
};

void
tell_files()
{
	CStringSafeArray logs;
	char path[64];
	char **f;
	unsigned i;

	for (f = files; *f != 0; f++)
		if (gmatch(*f, "*log*") != 0)
			logs.AddItem(new CString(*f));
	for (i = 0; i < logs.Quantity(); i++) {
		strcpy(path, *logs[i]);
		cout << "log " << basename(path) << " of " << *logs[i] << endl;
	}
}
