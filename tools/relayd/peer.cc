// SPDX-License-Identifier: BSD-2-Clause
#include "peer.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <vector>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <strings.h>

#include "Misc/proginfo.h"

namespace relayd {

HostAddress::HostAddress(const struct sockaddr* address) : HostAddress()
{
    if (address == nullptr)
        return;
    if (address->sa_family == AF_INET6) {
        const auto* from = reinterpret_cast<const struct sockaddr_in6*>(address);
        bytes = from->sin6_addr;
        scope = from->sin6_scope_id;
    } else if (address->sa_family == AF_INET) {
        const auto* from = reinterpret_cast<const struct sockaddr_in*>(address);
        bytes.s6_addr[10] = bytes.s6_addr[11] = 0xFF;
        std::memcpy(&bytes.s6_addr[12], &from->sin_addr, sizeof from->sin_addr);
    }
}

static bool AreEqual(const struct in6_addr& a, const struct in6_addr& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// Whether the address is one of the older form.
static bool IsMapped(const struct in6_addr& address)
{
    return std::memcmp(&address, "\0\0\0\0\0\0\0\0\0\0\xFF\xFF", 12) == 0;
}

bool HostAddress::operator==(const HostAddress& other) const
{
    return AreEqual(bytes, other.bytes) && scope == other.scope;
}

bool HostAddress::IsOwn() const
{
    if (AreEqual(bytes, in6addr_loopback) || (IsMapped(bytes) && bytes.s6_addr[12] == IN_LOOPBACKNET))
        return true;
    struct ifaddrs* interfaces = nullptr;
    if (AreEqual(bytes, in6addr_any) || getifaddrs(&interfaces) != 0) // an interface may have addresses of any family
        return false;
    bool isOwn = false;
    for (const struct ifaddrs* next = interfaces; next != nullptr && !isOwn; next = next->ifa_next)
        isOwn = HostAddress(next->ifa_addr) == *this;
    freeifaddrs(interfaces);
    return isOwn;
}

std::string HostAddress::Text() const
{
    const bool isMapped = IsMapped(bytes);
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(isMapped ? AF_INET : AF_INET6, &bytes.s6_addr[isMapped ? 12 : 0], text, sizeof text);
    return text;
}

Peer::Peer(int connection)
{
    struct sockaddr_storage peer = {};
    socklen_t length = sizeof peer;
    auto* generic = reinterpret_cast<struct sockaddr*>(&peer);
    if (getpeername(connection, generic, &length) == 0)
        address = HostAddress(generic);
}

bool Peer::IsNode(const char* name)
{
    if (knownName.empty() || knownName != name) {
        if (!HasName(name))
            return false;
        knownName = name;
    }
    return true;
}

static std::vector<HostAddress> AddressesOf(const char* name)
{
    std::vector<HostAddress> addresses;
    struct addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM; // each address once
    struct addrinfo* found = nullptr;
    if (getaddrinfo(name, nullptr, &hints, &found) != 0)
        return addresses;
    for (const struct addrinfo* next = found; next != nullptr; next = next->ai_next)
        addresses.emplace_back(next->ai_addr);
    freeaddrinfo(found);
    return addresses;
}

bool Peer::HasName(const char* name) const
{
    // The name service may read an address and leave out what stands behind a blank.
    const char* end = name + std::strlen(name);
    if (name == end || address == HostAddress() ||
        !std::all_of(name, end, [](unsigned char c) { return std::isgraph(c); }))
        return false;
    if (strcasecmp(name, ProgInfo::GetNodeName()) == 0)
        return address.IsOwn();
    const std::vector<HostAddress> addresses = AddressesOf(name);
    if (std::any_of(addresses.begin(), addresses.end(), [](const HostAddress& each) { return each.IsOwn(); }))
        return address.IsOwn();
    return std::find(addresses.begin(), addresses.end(), address) != addresses.end();
}

static void Set(int connection, int level, int option, int value)
{
    setsockopt(connection, level, option, &value, sizeof value);
}

void KeepAlive(int connection, int seconds)
{
    // Asked when it has been silent for half of the time, and then four times.
    Set(connection, IPPROTO_TCP, TCP_KEEPIDLE, std::max(1, seconds / 2));
    Set(connection, IPPROTO_TCP, TCP_KEEPINTVL, std::max(1, seconds / 8));
    Set(connection, IPPROTO_TCP, TCP_KEEPCNT, 4);
    Set(connection, SOL_SOCKET, SO_KEEPALIVE, 1);
    Set(connection, IPPROTO_TCP, TCP_USER_TIMEOUT, seconds * 1000); // while data is on its way nobody is asked
}

} // namespace relayd
