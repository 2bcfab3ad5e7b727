// What the clients of a server share, whatever carries their messages.
#ifndef MISC_CLIENT_H
#define MISC_CLIENT_H

#include <iosfwd>

#include "Misc/Error.h"
#include "Misc/buffer.h"
#include "Misc/export.h"

/// The object of the server to which a client talks, and the identity that the client's messages carry: at first this
/// program's version, full name and node.
class ZELOO_API ClientIdentity {
public:
    /// Change the identity, cut to 19, 79 and 79 characters.
    void RegisterVersion(const char* version);
    void RegisterProgramName(const char* program);
    void RegisterNodeName(const char* node);

    ClientIdentity(const ClientIdentity&) = delete;
    ClientIdentity& operator=(const ClientIdentity&) = delete;

protected:
    /// The identity stays empty when there is no server's name.
    ClientIdentity(short Object, const char* IPCServerName);
    ~ClientIdentity() = default;
    /// Writes a line for each member, which begins with the name of the client's class.
    void DumpIdentityOn(const char* className, std::ostream& out) const;

    short DestObject;
    char ClientVersion[20];
    char ClientProgram[80];
    char ClientNode[80];
};

/// The ways in which IPCQClient and IPCTliClient send an event: each of the two is the `Client` of its own base class.
/// Their headers list the codes.
template <class Client>
class ZELOO_API ServerClient : public ClientIdentity {
public:
    /// Send an event with `len` bytes of data: without asking for anything; asking for a response, which
    /// receive_response fetches; asking for an acknowledgement, for which the call waits (the result is then its
    /// status). Return a code. A send that fails disconnects the client.
    short send_event(short event, const void* ptr, long len) { return Self().SendToServer(event, ptr, len, 0, 0); }
    short send_event_with_response(short event, const void* ptr, long len)
    {
        return Self().SendToServer(event, ptr, len, 1, 0);
    }
    short send_event_wait_ack(short event, const void* ptr, long len)
    {
        const short code = Self().SendToServer(event, ptr, len, 0, 1);
        if (code != ErrorReporter::NO_ERRORS)
            return code;
        short ackEvent;
        Buffer ackData;
        return Self().receive_response(ackEvent, ackData);
    }

private:
    friend Client;
    using ClientIdentity::ClientIdentity;
    ~ServerClient() = default;
    Client& Self() { return static_cast<Client&>(*this); }
};

#endif
