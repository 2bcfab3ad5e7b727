// SPDX-License-Identifier: BSD-2-Clause
// The calls of <netconfig.h> and <netdir.h>, under the names that these give them.
#include <cstddef>
#include <cstdio>

#include "svr4/netconfig.h"
#include "svr4/tli.h"

#include <netconfig.h>
#include <netdir.h> // behind the host layer's, whose HOST_SELF is no macro

#include "compat/types.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: network.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

SAME_PLACE(netconfig, nc_device);
SAME_PLACE(netbuf, buf);
SAME_PLACE(nd_hostserv, h_serv);
SAME_PLACE(nd_hostservlist, h_hostservs);
SAME_PLACE(nd_addrlist, n_addrs);
SAME_VALUE(NC_TPI_CLTS);
SAME_VALUE(NC_TPI_COTS);
SAME_VALUE(NC_TPI_COTS_ORD);
SAME_VALUE(NC_TPI_RAW);
SAME_VALUE(NC_NOFLAG);
SAME_VALUE(NC_VISIBLE);
SAME_VALUE(ND_BADARG);
SAME_VALUE(ND_NOMEM);
SAME_VALUE(ND_OK);
SAME_VALUE(ND_NOHOST);
SAME_VALUE(ND_NOSERV);
SAME_VALUE(ND_SYSTEM);
SAME_VALUE(ND_ADDR);
SAME_VALUE(ND_HOSTSERVLIST);
SAME_VALUE(ND_ADDRLIST);

using zeloo::As;

static struct netconfig* Transport(const struct svr4::netconfig* transport)
{
    return const_cast<struct netconfig*>(As<struct netconfig>(transport));
}

void* setnetpath() { return svr4::setnetpath(); }

struct netconfig* getnetpath(void* handlep) { return Transport(svr4::getnetpath(handlep)); }

int endnetpath(void* handlep) { return svr4::endnetpath(handlep); }

void* setnetconfig() { return svr4::setnetconfig(); }

struct netconfig* getnetconfig(void* handlep) { return Transport(svr4::getnetconfig(handlep)); }

int endnetconfig(void* handlep) { return svr4::endnetconfig(handlep); }

struct netconfig* getnetconfigent(const char* netid) { return Transport(svr4::getnetconfigent(netid)); }

void freenetconfigent(struct netconfig*) {}

int netdir_getbyname(const struct netconfig* config, const struct nd_hostserv* service, struct nd_addrlist** addrs)
{
    svr4::nd_addrlist* found = nullptr;
    const int result = svr4::netdir_getbyname(As<struct svr4::netconfig>(config), As<struct svr4::nd_hostserv>(service),
                                              addrs == nullptr ? nullptr : &found);
    if (addrs != nullptr)
        *addrs = As<struct nd_addrlist>(found);
    return result;
}

int netdir_getbyaddr(const struct netconfig* config, struct nd_hostservlist** service, const struct netbuf* addr)
{
    struct svr4::nd_hostservlist* found = nullptr;
    const int result = svr4::netdir_getbyaddr(As<struct svr4::netconfig>(config), service == nullptr ? nullptr : &found,
                                              As<struct svr4::netbuf>(addr));
    if (service != nullptr)
        *service = As<struct nd_hostservlist>(found);
    return result;
}

char* netdir_sperror() { return const_cast<char*>(svr4::netdir_sperror()); }

void netdir_perror(const char* msg)
{
    const bool isNamed = msg != nullptr && *msg != '\0';
    std::fprintf(stderr, "%s%s%s\n", isNamed ? msg : "", isNamed ? ": " : "", svr4::netdir_sperror());
}

void netdir_free(void* ptr, int struct_type) { svr4::netdir_free(ptr, struct_type); }

char* taddr2uaddr(const struct netconfig* config, const struct netbuf* addr)
{
    return svr4::taddr2uaddr(As<struct svr4::netconfig>(config), As<struct svr4::netbuf>(addr));
}

struct netbuf* uaddr2taddr(const struct netconfig* config, const char* uaddr)
{
    return As<struct netbuf>(svr4::uaddr2taddr(As<struct svr4::netconfig>(config), uaddr));
}
