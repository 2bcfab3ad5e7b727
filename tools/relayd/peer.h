// SPDX-License-Identifier: BSD-2-Clause
// The host at the other end of a connection.
#ifndef TOOLS_RELAYD_PEER_H
#define TOOLS_RELAYD_PEER_H

#include <cstdint>
#include <string>

#include <netinet/in.h>
#include <sys/socket.h>

namespace relayd {

/// The address of a host, the same in both families.
class HostAddress {
public:
    HostAddress() : bytes(), scope(0) {}
    /// Of an address of another family, or null, it is the address that no host has.
    explicit HostAddress(const struct sockaddr* address);
    bool operator==(const HostAddress& other) const;
    /// Whether it is one of this host.
    bool IsOwn() const;
    std::string Text() const;

private:
    struct in6_addr bytes; // one of IPv4 is mapped
    uint32_t scope;        // the link on which it is valid, or 0
};

/// The peer of a connection, whose descriptor it does not keep.
class Peer {
public:
    explicit Peer(int connection);
    std::string Address() const { return address.Text(); }
    /// Whether this is the node `name`: whether the name, looked up here, has the peer's address. This host's node
    /// name, and names that have one of its addresses, are those of peers on this host alone. May wait for a name
    /// server; a name that was found to be the peer's is not looked up again.
    bool IsNode(const char* name);

private:
    bool HasName(const char* name) const;

    HostAddress address;
    std::string knownName; // empty: none yet
};

/// Lets the host break a connection off when its peer has been silent for so many seconds though it was asked, or has
/// not taken what was sent.
void KeepAlive(int connection, int seconds);

} // namespace relayd

#endif
