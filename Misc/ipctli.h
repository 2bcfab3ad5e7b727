// Names of hosts.
#ifndef MISC_IPCTLI_H
#define MISC_IPCTLI_H

class IPCTli {
public:
    /// The official name of a host given by a dotted Internet address or by a name; null when it is not known. The
    /// text belongs to the name service's routines and is valid until the next look-up. May wait for a name server.
    static char* TcptoName(const char* tcpIpAddress);
};

#endif
