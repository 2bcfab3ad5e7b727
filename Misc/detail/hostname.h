// SPDX-License-Identifier: BSD-2-Clause
// The official names of hosts.
#ifndef MISC_DETAIL_HOSTNAME_H
#define MISC_DETAIL_HOSTNAME_H

#include <cstring>

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

namespace zeloo {

/// The official name of `host`, which is a dotted address or a name, in the host tables or the name service; null when
/// they do not know it, and for null. It belongs to the C library and is valid until the next look-up. May wait for the
/// name service.
inline char* OfficialHostName(const char* host)
{
    if (host == nullptr)
        return nullptr;
    // A name without a dot is no address, though inet_aton would take "10" for one: a host may be called so.
    struct in_addr address;
    const bool isAddress = std::strchr(host, '.') != nullptr && inet_aton(host, &address) != 0;
    const struct hostent* entry = isAddress ? gethostbyaddr(&address, sizeof address, AF_INET) : gethostbyname(host);
    return entry != nullptr ? entry->h_name : nullptr;
}

} // namespace zeloo

#endif
