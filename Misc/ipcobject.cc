// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/ipcobject.h"

#include <new>
#include <ostream>

#include <unistd.h>

#include "Misc/Error.h"
#include "Misc/detail/text.h"
#include "Misc/ipcq.h"
#include "Misc/ipctli.h"
#include "Misc/proginfo.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipcobject.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const short DefaultRetryCount = 5;
static const short DefaultRetryWaitTime = 5; // seconds

// `client` when it is connected, else null, which is also what stands for a client without memory.
template <class TransportClient>
static TransportClient* ConnectedOrNull(TransportClient* client)
{
    if (client == nullptr || client->Connected())
        return client;
    delete client;
    return nullptr;
}

static bool IsAnotherHost(const char* node) { return !IPCTli::NodeNamesEqual(node, ProgInfo::GetNodeName()); }

IPCClient::IPCClient(short Object, const char* IPCServerName, const char* ServerNodeName, client_types ClientsAllowed,
                     unsigned short TimeOutValue, short CheckForIPCQueue)
    : pipctli(nullptr), pipcq(nullptr)
{
    if (IPCServerName == nullptr)
        return;
    client_types allowed = ClientsAllowed;
    if (ServerNodeName != nullptr && allowed == AnyClient && IsAnotherHost(ServerNodeName))
        allowed = TLIClient; // a queue of that name on this host belongs to another server
    const bool queueAllowed = allowed == QueueClient || allowed == AnyClient;
    const bool tliAllowed = allowed == TLIClient || allowed == AnyClient;

    if (queueAllowed)
        pipcq = ConnectedOrNull(new (std::nothrow) IPCQClient(Object, IPCServerName, 0, -1));
    if (!Connected() && tliAllowed)
        pipctli =
            ConnectedOrNull(new (std::nothrow) IPCTliClient(Object, IPCServerName, ServerNodeName, CheckForIPCQueue));
    if (!Connected() && queueAllowed && TimeOutValue > 0)
        pipcq = ConnectedOrNull(new (std::nothrow) IPCQClient(Object, IPCServerName, TimeOutValue, -1));
}

IPCClient::~IPCClient() { Disconnect(); }

void IPCClient::dumpOn(std::ostream& out) const
{
    out << "IPCClient Object Begin\n";
    if (pipctli != nullptr) {
        out << "TLI CLIENT\n";
        pipctli->dumpOn(out);
    }
    if (pipcq != nullptr) {
        out << "IPCQ CLIENT\n";
        pipcq->dumpOn(out);
    }
    out << "IPCClient Object End\n";
}

void IPCClient::Disconnect()
{
    delete pipctli;
    pipctli = nullptr;
    delete pipcq;
    pipcq = nullptr;
}

short IPCClient::Connected() const
{
    if (pipcq != nullptr)
        return pipcq->Connected();
    if (pipctli != nullptr)
        return pipctli->Connected();
    return 0;
}

// Performs `operation` on the client there is, if any.
template <class Operation>
static void OnClient(IPCQClient* queue, IPCTliClient* connection, const Operation& operation)
{
    if (queue != nullptr)
        operation(*queue);
    if (connection != nullptr)
        operation(*connection);
}

void IPCClient::RegisterVersion(const char* version)
{
    OnClient(pipcq, pipctli, [&](auto& client) { client.RegisterVersion(version); });
}

void IPCClient::RegisterProgramName(const char* program)
{
    OnClient(pipcq, pipctli, [&](auto& client) { client.RegisterProgramName(program); });
}

void IPCClient::RegisterNodeName(const char* node)
{
    OnClient(pipcq, pipctli, [&](auto& client) { client.RegisterNodeName(node); });
}

void IPCClient::SetReceiveTimeOut(long t_out)
{
    OnClient(pipcq, pipctli, [&](auto& client) { client.SetReceiveTimeOut(t_out); });
}

void IPCClient::SetSendTimeOut(long t_out)
{
    OnClient(pipcq, pipctli, [&](auto& client) { client.SetSendTimeOut(t_out); });
}

long IPCClient::GetServerPID() const { return pipcq != nullptr ? pipcq->GetServerPID() : -1; }

short IPCClient::send_event(short event, const void* ptr, long len)
{
    short code = ErrorReporter::IPC_CONNECTION_LOST;
    OnClient(pipcq, pipctli, [&](auto& client) { code = client.send_event(event, ptr, len); });
    if (code != ErrorReporter::NO_ERRORS)
        Disconnect();
    return code;
}

short IPCClient::send_event_with_response(short event, const void* ptr, long len)
{
    short code = ErrorReporter::IPC_CONNECTION_LOST;
    OnClient(pipcq, pipctli, [&](auto& client) { code = client.send_event_with_response(event, ptr, len); });
    if (code != ErrorReporter::NO_ERRORS)
        Disconnect();
    return code;
}

short IPCClient::send_event_wait_ack(short event, const void* ptr, long len)
{
    short code = ErrorReporter::IPC_CONNECTION_LOST;
    OnClient(pipcq, pipctli, [&](auto& client) { code = client.send_event_wait_ack(event, ptr, len); });
    if (!Connected()) // the code alone does not tell: it may be the status that the server acknowledged with
        Disconnect();
    return code;
}

short IPCClient::receive_response(short& REvent, Buffer& Data)
{
    REvent = 0;
    short code = ErrorReporter::IPC_CONNECTION_LOST;
    OnClient(pipcq, pipctli, [&](auto& client) { code = client.receive_response(REvent, Data); });
    return code;
}

short IPCClient::IPCServerExists(short Object, const char* IPCServerName, const char* ServerNodeName,
                                 client_types ClientsAllowed, unsigned short TimeOutValue)
{
    return IPCClient(Object, IPCServerName, ServerNodeName, ClientsAllowed, TimeOutValue, 1).Connected();
}

short IPCClient::TLIServerExists(short Object, const char* IPCServerName, const char* ServerNodeName)
{
    return IPCTliClient(Object, IPCServerName, ServerNodeName, 0).Connected();
}

short IPCClient::AmIontheORVDServerHost()
{
    static const bool isServerHost = [] {
        const char* host = IPCTli::get_default_hostname("orvd");
        return host == nullptr || !IsAnotherHost(host);
    }();
    return isServerHost;
}

ReconnectClient::ReconnectClient(short server, const char* serverName, const char* serverNode)
    : Client(nullptr), RetryCount(DefaultRetryCount), RetryWaitTime(DefaultRetryWaitTime), Server(server),
      ServerName(serverName)
{
    SetServerNode(serverNode);
    CreateClient();
}

ReconnectClient::~ReconnectClient() { delete Client; }

// Whether a failed send may succeed on a new connection.
static bool ConnectionIsGone(short code)
{
    return code == ErrorReporter::SERVER_GONE || code == ErrorReporter::TCP_ERROR ||
           code == ErrorReporter::IPC_CONNECTION_LOST;
}

short ReconnectClient::SendEvent(short event, const void* ptr, long size)
{
    return Send(&IPCClient::send_event, event, ptr, size);
}

short ReconnectClient::SendEventWaitAck(short event, const void* ptr, long size)
{
    return Send(&IPCClient::send_event_wait_ack, event, ptr, size);
}

short ReconnectClient::Send(SendOperation operation, short event, const void* ptr, long size)
{
    short code = ErrorReporter::IPC_CONNECTION_LOST;
    if (Client != nullptr)
        code = (Client->*operation)(event, ptr, size);
    if (!ConnectionIsGone(code))
        return code;
    code = AttemptReConnect();
    if (code == ErrorReporter::NO_ERRORS)
        code = (Client->*operation)(event, ptr, size);
    return code;
}

short ReconnectClient::SendEventWithResponse(short event, Buffer& inbuf, short response_event, const void* ptr,
                                             long size)
{
    short code = ErrorReporter::SERVER_GONE;
    if (ServerConnected())
        code = Client->send_event_with_response(event, ptr, size);
    if (code != ErrorReporter::NO_ERRORS && AttemptReConnect() == ErrorReporter::NO_ERRORS)
        code = Client->send_event_with_response(event, ptr, size);
    if (code != ErrorReporter::NO_ERRORS)
        return code; // of the send: why reconnecting failed as well says less

    short received;
    code = Client->receive_response(received, inbuf);
    if (code == ErrorReporter::NO_ERRORS && received != response_event)
        code = ErrorReporter::IPC_BAD_RESPONSE_EVENT;
    return code;
}

short ReconnectClient::SendEventWithResponse(short event, CString& inbuf, short response_event, const void* ptr,
                                             long size)
{
    Buffer data;
    const short code = SendEventWithResponse(event, data, response_event, ptr, size);
    inbuf = data.GetCString();
    return code;
}

void ReconnectClient::SetServerNode(const char* node)
{
    ServerNode = node;
    isNodeLost = ServerNode.strlen() == 0 && *zeloo::TextOrEmpty(node) != '\0';
}

void ReconnectClient::CreateClient()
{
    delete Client;
    Client = nullptr;
    if (isNodeLost) // without a name it would be another server
        return;
    const char* node = ServerNode;
    Client =
        new (std::nothrow) IPCClient(Server, ServerName, *node != '\0' ? node : nullptr, IPCClient::AnyClient, 0, 1);
}

short ReconnectClient::AttemptReConnect()
{
    if (RetryCount > 0)
        CreateClient();
    for (int further = 1; further < RetryCount && Client != nullptr && !Client->Connected(); further++) {
        if (RetryWaitTime > 0)
            sleep(static_cast<unsigned>(RetryWaitTime));
        CreateClient();
    }
    if (Client == nullptr)
        return ErrorReporter::OUT_OF_MEMORY;
    return Client->Connected() ? ErrorReporter::NO_ERRORS : ErrorReporter::SERVER_GONE;
}

short ReconnectClient::ServerConnected() const { return Client != nullptr && Client->Connected(); }
