// SPDX-License-Identifier: BSD-2-Clause
// Clients that do not care where their server is.
#ifndef MISC_IPCOBJECT_H
#define MISC_IPCOBJECT_H

#include <cstdint>
#include <iosfwd>

#include "Misc/buffer.h"
#include "Misc/cstring.h"
#include "Misc/export.h"

class IPCQClient;
class IPCTliClient;

/// A client of a server on this host or another. It chooses its transport when it is made: the server's message queue
/// (see IPCQClient) or a connection to the server's host (see IPCTliClient). Results named "code" are
/// ErrorReporter::ErrorType values, 0 for success, as Misc/ipcq.h lists them; besides those, 62 (TCP_ERROR) tells that
/// the connection failed.
class ZELOO_API IPCClient {
public:
    /// The transports that a client may use.
    enum client_types { QueueClient = 1, TLIClient = 2, AnyClient = 3 };

    /// Connects to object `Object` of the server `IPCServerName`; a null name connects to nothing. Tries what
    /// `ClientsAllowed` allows, in this order, until one is connected: the queue; a connection to `ServerNodeName`, or
    /// to the server's configured host when that is null (see IPCTli::get_default_hostname); the queue again, waiting
    /// up to `TimeOutValue` seconds for it to appear, unless that is 0. A node of another name than this host's turns
    /// AnyClient into TLIClient; an empty name is such a node, one that cannot be reached. With `CheckForIPCQueue` a
    /// connection counts only when the server lives at its other end.
    IPCClient(short Object, const char* IPCServerName, const char* ServerNodeName = nullptr,
              client_types ClientsAllowed = AnyClient, unsigned short TimeOutValue = 0, short CheckForIPCQueue = 1);
    /// Disconnect.
    virtual ~IPCClient();
    /// Writes the dump of the transport in use, between a first and a last line of its own.
    virtual void dumpOn(std::ostream& out) const;

    /// Gives up the transport. It does not come back: every later send returns 66.
    void Disconnect();
    /// Whether the transport is connected.
    short Connected() const;
    /// Changes the version that the messages carry, cut to 19 characters. Without a transport nothing happens, here and
    /// in the next two.
    void RegisterVersion(const char* version);
    /// Changes the program name that the messages carry, cut to 79 characters.
    void RegisterProgramName(const char* program);
    /// Changes the node name that the messages carry, cut to 79 characters.
    void RegisterNodeName(const char* node);
    /// Limits the wait for an answer on a queue, in seconds (see IPCQBase::SetReceiveTimeOut). A connection keeps its
    /// own limit.
    void SetReceiveTimeOut(long t_out);
    /// Limits the wait for room on a queue, in seconds (see IPCQBase::SetSendTimeOut). A connection has no such limit.
    void SetSendTimeOut(long t_out);
    /// The process id of a server on this host's queue, else -1.
    long GetServerPID() const;

    /// Sends `len` bytes with an event and asks for nothing. Returns a code, 66 without a transport. A failure
    /// disconnects.
    short send_event(short event, const void* ptr, long len);
    /// Sends an event and asks for a response, which receive_response fetches. Returns a code, 66 without a transport.
    /// A failure disconnects.
    short send_event_with_response(short event, const void* ptr, long len);
    /// Sends an event and waits for its acknowledgement, whose status is the result, or a code; 66 without a transport.
    /// It disconnects only when its transport has lost its connection, since its result may come from the server.
    short send_event_wait_ack(short event, const void* ptr, long len);
    /// Waits for the server's response. Returns the status that the server gave it; a code with `REvent` 0 on
    /// failure, 66 without a transport.
    short receive_response(short& REvent, Buffer& Data);

    /// Whether a client made with these arguments is connected to a server that lives.
    static short IPCServerExists(short Object, const char* IPCServerName, const char* ServerNodeName = nullptr,
                                 client_types ClientsAllowed = AnyClient, unsigned short TimeOutValue = 0);
    /// Whether the server's host accepts a connection. The server itself is not asked for.
    static short TLIServerExists(short Object, const char* IPCServerName, const char* ServerNodeName = nullptr);
    /// Whether this host is the configured host of "orvd"; 1 too when none is configured. The first answer is kept for
    /// the life of the process.
    static short AmIontheORVDServerHost();

    IPCClient(const IPCClient&) = delete;
    IPCClient& operator=(const IPCClient&) = delete;

private:
    IPCTliClient* pipctli; // owned; at most one of the two is there
    IPCQClient* pipcq;     // owned
};

/// A client that makes itself a new IPCClient, of any transport, when its server or its connection has gone, and then
/// sends once more. Sends return a code as IPCClient does.
class ZELOO_API ReconnectClient {
public:
    /// Connects to object `server` of the server `serverName`, once and without waiting. The name is not copied and
    /// must stay. A null or empty `serverNode` leaves it to the client to find the server's host.
    ReconnectClient(short server, const char* serverName, const char* serverNode = nullptr);
    /// Disconnects the current client.
    virtual ~ReconnectClient();

    /// Sends an event. After 62, 65 or 66 it reconnects: it returns the result of AttemptReConnect when that fails,
    /// else that of a second send.
    virtual short SendEvent(short event, const void* ptr, long size);
    /// Sends an event and waits for its acknowledgement, whose status it returns. It reconnects as SendEvent does.
    virtual short SendEventWaitAck(short event, const void* ptr, long size);
    /// Sends an event and waits for its response, whose data go into `inbuf`. A send that fails, whatever its code, is
    /// repeated after reconnecting; its code is returned when that fails too. A failed wait for the response is not
    /// repeated, as the server may have acted. Returns the server's status or a code; 48 (IPC_BAD_RESPONSE_EVENT)
    /// when the status is 0 but the event not `response_event`.
    virtual short SendEventWithResponse(short event, Buffer& inbuf, short response_event, const void* ptr, long size);
    /// The same, through the operation above. `inbuf` gets the data up to the first zero byte, and is empty when
    /// nothing was received.
    virtual short SendEventWithResponse(short event, CString& inbuf, short response_event, const void* ptr, long size);

    /// Replaces the current client by a new one, connected or not; by none without memory for it or the node's name.
    void CreateClient();
    /// Makes new clients until one is connected: at most RetryCount, with RetryWaitTime seconds between two. Returns 0;
    /// 65 when the current client is not connected; 10 when there is none, as memory failed. With a RetryCount of 0 or
    /// less it makes none.
    short AttemptReConnect();
    /// Whether the current client is connected.
    short ServerConnected() const;
    /// Sets how many new clients AttemptReConnect makes at most; 5 at first.
    void SetRetryCount(short count) { RetryCount = count; }
    /// Sets the seconds that AttemptReConnect waits between two of them; 5 at first.
    void SetRetryWaitTime(short seconds) { RetryWaitTime = seconds; }
    /// The server's node for the clients made from now on; empty or null as in the constructor.
    void SetServerNode(const char* node);
    /// The server's node for the clients made from now on; empty when it is left to them.
    const CString& GetServerNode() const { return ServerNode; }

    ReconnectClient(const ReconnectClient&) = delete;
    ReconnectClient& operator=(const ReconnectClient&) = delete;

private:
    typedef short (IPCClient::*SendOperation)(short event, const void* ptr, long len);

    short Send(SendOperation operation, short event, const void* ptr, long size);

    IPCClient* Client; // owned; null only when memory failed
    int16_t RetryCount;
    int16_t RetryWaitTime;
    int16_t Server;
    const char* ServerName;
    CString ServerNode;
    bool isNodeLost; // there was no memory for its name
};

#endif
