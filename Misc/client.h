// SPDX-License-Identifier: BSD-2-Clause
// What the clients of a server share, whatever carries their messages.
#ifndef MISC_CLIENT_H
#define MISC_CLIENT_H

#include <ostream>

#include "Misc/Error.h"
#include "Misc/buffer.h"
#include "Misc/export.h"
#include "Misc/proginfo.h"

/// What is the same in IPCQClient and IPCTliClient: the identity that a client's messages carry, and the ways to send an
/// event. Each of the two is the `Client` of its own base class; there are no others. Their headers list the codes.
template <class Client>
class ZELOO_API ServerClient {
public:
    /// Changes the version that the messages carry, cut to 19 characters.
    void RegisterVersion(const char* version) { Register(This().ClientVersion, version); }
    /// Changes the program name that the messages carry, cut to 79 characters.
    void RegisterProgramName(const char* program) { Register(This().ClientProgram, program); }
    /// Changes the node name that the messages carry, cut to 79 characters.
    void RegisterNodeName(const char* node) { Register(This().ClientNode, node); }

    /// Sends an event with `len` bytes of data and asks for nothing. Returns a code. A send that fails, here and below,
    /// disconnects the client.
    short send_event(short event, const void* ptr, long len) { return This().SendToServer(event, ptr, len, 0, 0); }
    /// Sends an event and asks for a response, which receive_response fetches. Returns a code.
    short send_event_with_response(short event, const void* ptr, long len)
    {
        return This().SendToServer(event, ptr, len, 1, 0);
    }
    /// Sends an event and waits for its acknowledgement. Returns the code of a send that failed, else what
    /// receive_response gives: the status of the acknowledgement, or a code.
    short send_event_wait_ack(short event, const void* ptr, long len)
    {
        const short code = This().SendToServer(event, ptr, len, 0, 1);
        if (code != ErrorReporter::NO_ERRORS)
            return code;
        short ackEvent;
        Buffer ackData;
        return This().receive_response(ackEvent, ackData);
    }

    ServerClient(const ServerClient&) = delete;
    ServerClient& operator=(const ServerClient&) = delete;

private:
    // The data are the client's. An empty base class stands at the client's own address, so that pointers to the
    // operations above are what they would be if the client declared them.
    friend Client;

    ServerClient() = default;
    ~ServerClient() = default;

    // Makes this program's version, full name and node the identity.
    void RegisterProgram()
    {
        RegisterVersion(ProgInfo::GetVersion());
        RegisterProgramName(ProgInfo::GetFullProgramName());
        RegisterNodeName(ProgInfo::GetNodeName());
    }
    // Writes a line for the object and for each part of the identity, which begins with the name of the client's class.
    void DumpIdentityOn(const char* className, std::ostream& out) const
    {
        const Client& client = static_cast<const Client&>(*this);
        out << className << "::DestObject   : " << client.DestObject << '\n';
        out << className << "::ClientVersion: " << client.ClientVersion << '\n';
        out << className << "::ClientProgram: " << client.ClientProgram << '\n';
        out << className << "::ClientNode   : " << client.ClientNode << '\n';
    }

    template <unsigned size>
    static void Register(char (&field)[size], const char* text)
    {
        unsigned n = 0;
        for (; text != nullptr && n < size - 1 && text[n] != '\0'; n++)
            field[n] = text[n];
        field[n] = '\0';
    }
    Client& This() { return static_cast<Client&>(*this); }
};

#endif
