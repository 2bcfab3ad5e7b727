/* SPDX-License-Identifier: BSD-2-Clause */
/* names.C: networks and addresses */
#include <iostream.h>
#include <stdlib.h>
#include <string.h>
extern "C" {
#include <tiuser.h>
#include <netconfig.h>
#include <netdir.h>
}

#include "watch.h"

void
tell_networks()
{
	struct netconfig *nconf;
	void *handle;

	if ((handle = setnetpath()) == NULL)
		return;
	while ((nconf = getnetpath(handle)) != NULL)
		cout << "network " << nconf->nc_netid << " on " << nconf->nc_device << " of " << nconf->nc_protofmly
		     << (nconf->nc_semantics == NC_TPI_COTS_ORD ? ", with orderly release" : "") << endl;
	endnetpath(handle);
}

char *
tcp_device()
{
	static char device[64];
	struct netconfig *nconf;

	if ((nconf = getnetconfigent("tcp")) == NULL)
		return "no network";
	strcpy(device, nconf->nc_device);
	freenetconfigent(nconf);
	return device;
}

void
tell_address(char *host, char *service)
{
	struct nd_hostserv hs;
	struct nd_addrlist *found;
	struct netconfig *nconf;
	char *text;
	void *handle;
	int i;

	hs.h_host = host;
	hs.h_serv = service;
	handle = setnetpath();
	while ((nconf = getnetpath(handle)) != NULL) {
		if (netdir_getbyname(nconf, &hs, &found) != ND_OK) {
			cout << service << ": " << netdir_sperror() << endl;
			continue;
		}
		for (i = 0; i < found->n_cnt; i++) {
			text = taddr2uaddr(nconf, &found->n_addrs[i]);
			cout << service << " is " << text << endl;
			free(text);
		}
		netdir_free((char *)found, ND_ADDRLIST);
	}
	endnetpath(handle);
}
