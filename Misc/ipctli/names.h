// SPDX-License-Identifier: BSD-2-Clause
// The names under which hosts and services are looked up.
#ifndef MISC_IPCTLI_NAMES_H
#define MISC_IPCTLI_NAMES_H

namespace zeloo {

/// `host`, or the name service's word for the local host when it is null or this node's name.
const char* HostOrSelf(const char* host);

/// The service at which a server is reached: its own name, or that of the daemon that passes its events on.
const char* ServiceOf(const char* serverName);

} // namespace zeloo

#endif
