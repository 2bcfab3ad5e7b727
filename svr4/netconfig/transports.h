// SPDX-License-Identifier: BSD-2-Clause
// What the parts of the translation share.
#ifndef SVR4_NETCONFIG_TRANSPORTS_H
#define SVR4_NETCONFIG_TRANSPORTS_H

#include "svr4/netconfig.h"

namespace svr4::netdir {

/// Fails with `code` in _nderror, which it returns.
int Fail(int code);

/// The address family of a transport, or AF_UNSPEC when it is none of this host.
int Family(const struct netconfig* config);

/// The result for a failure of the host's resolver.
int ResolverFailure(int error);

/// Whether `text` is a decimal number of `least` to `most`, without sign, blank or anything else.
bool IsNumber(const char* text, unsigned long least, unsigned long most);

} // namespace svr4::netdir

#endif
