// What the caller's structures hold: addresses and connect messages.
#ifndef SVR4_TLI_STRUCTURES_H
#define SVR4_TLI_STRUCTURES_H

#include <sys/socket.h>

#include "svr4/tli.h"
#include "svr4/tli/socket.h"

namespace svr4::tli {

/// The address of one end of a connection.
struct Address {
    struct sockaddr_storage storage = {};
    socklen_t length = 0; // 0: any address

    struct sockaddr* Generic() { return reinterpret_cast<struct sockaddr*>(&storage); }
    const struct sockaddr* Generic() const { return reinterpret_cast<const struct sockaddr*>(&storage); }
    /// The length, which is that of the storage now, for a call that puts an address and its length there.
    socklen_t* Room();
};

/// Takes an address of the provider's family. 0, or -1 with TBADADDR.
int GetAddress(const Provider& provider, const struct netbuf& from, Address* address);

/// Gives the caller an address, who may not want it. 0, or -1 with TBUFOVFLW or TSYSERR.
int PutAddress(const Address& address, struct netbuf* to);

/// Refuses what this transport does not carry in its connect messages. 0, or -1 with TSYSERR, TBADOPT or TBADDATA.
int CheckCall(const struct t_call* call);

} // namespace svr4::tli

#endif
