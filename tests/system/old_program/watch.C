/* SPDX-License-Identifier: BSD-2-Clause */
/* watch: says what it finds on its host, and asks its server for the time */
#include <iostream.h>
#include <stdlib.h>
#include <netdir.h>

#include "Misc/proginfo.h"
#include "watch.h"

int
main(int argc, char **argv, char **envp)
{
	ProgInfo::Initialize(argc, argv, envp, "4.0");
	putenv("TZ=UTC0");
	cout << ProgInfo::GetProgramName() << " of " << stamp(NOON) << endl;
	tell_host();
	tell_files();
	tell_signals();
	tell_group();
	tell_networks();
	tell_address(HOST_SELF, "8000");
	tell_address(HOST_SELF, "no such");
	tell_refusal();
	return tell_conversation();
}
