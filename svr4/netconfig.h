// SPDX-License-Identifier: BSD-2-Clause
// Network selection and name-to-address translation of System V.
#ifndef SVR4_NETCONFIG_H
#define SVR4_NETCONFIG_H

namespace svr4 {

struct netbuf; // svr4/tli.h

/// Transport semantics.
enum { NC_TPI_CLTS = 1, NC_TPI_COTS = 2, NC_TPI_COTS_ORD = 3, NC_TPI_RAW = 4 };
enum { NC_NOFLAG = 0, NC_VISIBLE = 1 };

/// A transport of this host. The texts belong to the library and last as long as the process.
struct netconfig {
    const char* nc_netid;       // "tcp", "tcp6"
    unsigned long nc_semantics; // NC_TPI_COTS_ORD
    unsigned long nc_flag;      // NC_VISIBLE: selected when NETPATH is not set
    const char* nc_protofmly;   // "inet", "inet6"
    const char* nc_proto;       // "tcp"
    const char* nc_device;      // for t_open: "/dev/tcp", "/dev/tcp6"
};

/// Opens the network selection path: the transports that the environment variable NETPATH names, separated by colons,
/// in its order; unknown names are skipped, and an empty NETPATH names none. Without NETPATH it is "tcp". The value
/// of this moment counts. Returns a handle for getnetpath, or null when memory fails.
void* setnetpath();
/// The next transport of the path, or null at its end (or when `handlep` is null).
const struct netconfig* getnetpath(void* handlep);
/// Closes the path. The transports stay valid. Returns 0, or -1 with `errno` EINVAL when `handlep` is null.
int endnetpath(void* handlep);

/// The same for all transports of this host, visible or not, whatever NETPATH says.
void* setnetconfig();
const struct netconfig* getnetconfig(void* handlep);
int endnetconfig(void* handlep);

/// The transport that is called `netid`, or null.
const struct netconfig* getnetconfigent(const char* netid);

/// Results of the functions below.
enum { ND_BADARG = -2, ND_NOMEM = -1, ND_OK = 0, ND_NOHOST = 1, ND_NOSERV = 2, ND_SYSTEM = 9 };
/// The result of the last call of the functions below that failed. It has C linkage: it is that of a program that
/// declares it itself.
extern "C" [[gnu::visibility("default")]] int _nderror; // NOLINT(readability-redundant-declaration)

/// The name of this host as h_host, to bind and to connect: a backslash and a 1.
constexpr char HOST_SELF[] = "\\1";

struct nd_hostserv {
    const char* h_host;
    const char* h_serv;
};

struct nd_addrlist {
    int n_cnt;
    struct netbuf* n_addrs;
};

struct nd_hostservlist {
    int h_cnt;
    struct nd_hostserv* h_hostservs;
};

/// What netdir_free frees.
enum { ND_ADDR = 0, ND_HOSTSERVLIST = 2, ND_ADDRLIST = 3 };

/// The addresses of a service on a host for one transport. The service is a name of the host's services for tcp or a
/// port number from 1 to 65535, the host a name or numeric address known to the host's resolver; HOST_SELF gives the
/// wildcard address. `*addrs` gets all addresses, one at least, once each, in the resolver's order; the caller frees
/// them with netdir_free. Returns 0, or the reason, also in _nderror, with `*addrs` null: ND_NOHOST, ND_NOSERV, ND_NOMEM,
/// ND_SYSTEM (the resolver failed), ND_BADARG (a null argument or unknown transport).
int netdir_getbyname(const struct netconfig* config, const struct nd_hostserv* service, struct nd_addrlist** addrs);

/// The host and the service of an address: their names, or the numbers where they have none. `*service` gets one pair,
/// which the caller frees with netdir_free. Returns 0, or the reason, also in _nderror, with `*service` null: ND_BADARG
/// (a null argument, or no address of this transport), ND_NOHOST, ND_NOMEM, ND_SYSTEM.
int netdir_getbyaddr(const struct netconfig* config, struct nd_hostservlist** service, const struct netbuf* addr);

/// Frees what the functions here gave: ND_ADDRLIST of netdir_getbyname, ND_HOSTSERVLIST of netdir_getbyaddr, ND_ADDR of
/// uaddr2taddr; null is allowed. Other types free nothing.
void netdir_free(void* ptr, int struct_type);

/// The text of _nderror.
const char* netdir_sperror();

/// The universal address: the host's address, and the high and the low byte of the port, each behind a dot and in
/// decimal: "192.0.2.1.31.64", "2001:db8::1.31.64". The caller frees it with free. Null with _nderror when `addr` is no
/// address of this transport (ND_BADARG) or memory fails (ND_NOMEM).
char* taddr2uaddr(const struct netconfig* config, const struct netbuf* addr);

/// The address that a universal address stands for, for netdir_free. Null with _nderror when it is none of this transport
/// (ND_BADARG) or memory fails (ND_NOMEM).
struct netbuf* uaddr2taddr(const struct netconfig* config, const char* uaddr);

} // namespace svr4

#endif
