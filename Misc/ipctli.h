// SPDX-License-Identifier: BSD-2-Clause
// Client/server messaging between hosts over connections of the Transport Layer Interface.
//
// A server listens at the address of its service; the services "pexserver" and "orvpmd" are reached through "orvd".
// What travels on a connection are records of 1904 bytes, in either direction. Results named "code" are
// ErrorReporter::ErrorType values, 0 for success:
//
//   10  OUT_OF_MEMORY        memory for the data could not be had
//   62  TCP_ERROR            the transport failed, a malformed record came, or an argument was refused
//   65  SERVER_GONE          the peer has closed or broken off the connection, or says that it is going
//   66  IPC_CONNECTION_LOST  there is no connection
//   69  IPC_RECV_TIME_OUT    a record did not come within 900 seconds
//
// The names of hosts and services are those of the host's tables (/etc/hosts, /etc/services and whatever else its
// resolver asks); the transports are those that the environment variable NETPATH selects. A host that is null or this
// node's name is looked up as "\1", the name service's word for the local host.
#ifndef MISC_IPCTLI_H
#define MISC_IPCTLI_H

#include <iosfwd>

#include <sys/types.h>

#include "Misc/Error.h"
#include "Misc/buffer.h"
#include "Misc/client.h"
#include "Misc/export.h"
#include "Misc/mobject.h"
#include "Misc/records.h"

namespace svr4 {
struct nd_addrlist;
struct t_call;
} // namespace svr4

/// Writes every field of `*pmsg` under its name, then a hex dump of the data. Safe for a record from anywhere: texts
/// end with their field, and no byte outside `msg_data` is read.
ZELOO_API void DumpTliMessage(const TliMsgStruct* pmsg, std::ostream& out);

/// One endpoint of the transport: closed, listening for clients, or connected. Unless a code is named, results are 1
/// for success and 0 for failure. What failed in the transport is printed on the standard output, where a contract
/// says so, and explained on the standard error (t_error).
///
/// An endpoint belongs to the process that opened it, where the destructor and a terminating signal disconnect and close
/// it. A forked child has a copy, and they close that copy alone: neither the parent nor the peer notices. All else acts
/// for whichever process calls it. A child that serves the connection ends it with Tshutdown, and the parent leaves it
/// to the child with Tclose.
class ZELOO_API IPCTli : public ErrorReporter, public MonitoredObject {
public:
    /// A closed endpoint.
    IPCTli();
    /// Disconnects and closes the endpoint if it is open; in a forked child, closes the copy.
    ~IPCTli() override;
    /// Writes the descriptor, -1 when closed.
    void dumpOn(std::ostream& out) const override;
    /// Releases everything, as the destructor does.
    void SigTermProc(int sig) override;

    /// Looks up the addresses of a service, and keeps them with the first connection-oriented transport that knows
    /// it. May wait for a name server.
    short get_addrs_and_provider(const char* HostName, const char* Service);

    // The next three operations open a new endpoint; one that is open is given up before, as by the destructor.

    /// Connects to the first address of a service as a client. Waits 120 seconds at most. On failure the endpoint is
    /// closed. Nothing is printed.
    short Topen(const char* host, const char* service);
    /// Listens at the first address of a service, with up to 5 connection requests waiting. On failure prints why and
    /// leaves the endpoint closed.
    short Tprelisten(const char* host, const char* service);
    /// Accepts on a new endpoint the request that `sp`, another object, took with Tlisten. Others may be waiting
    /// there. On failure prints why and leaves this endpoint closed; `sp` stays open.
    short Taccept(const IPCTli& sp);

    /// Waits for the next connection request of a listening endpoint and takes it, for Taccept: requests are taken in
    /// the order in which they came. Any signal that is handled ends the wait and counts as failure. On failure
    /// prints why and closes the endpoint.
    short Tlisten();

    /// The descriptor behind the endpoint, -1 when closed: to wait with poll(2) for what comes, and to ask the host
    /// about the connection. It stays the endpoint's own.
    int Descriptor() const { return fd; }

    /// Disconnects. What was sent still reaches the peer; nothing can be sent any more.
    void Tshutdown();
    /// Closes this process's endpoint without disconnecting: a connection of which another process has a copy goes on.
    /// Returns 0, or -1 when that failed, as for one that is closed; `fd` is -1 then in any case.
    short Tclose();

    /// Sends `bsize` bytes; waits, without limit, while the peer does not take them. Returns a code.
    short send(const char* buff, long bsize);
    /// Receives exactly `bsize` bytes, for which it waits 900 seconds in all. Bytes that did not come are 0. A signal
    /// that is handled while it waits counts as the end of that time. Returns a code: 65 when the peer closed (nothing
    /// is printed), 69, or 62 with its reason printed. The endpoint stays open, but in the middle of a record.
    short recv(char* buff, long bsize);

    /// Sends an event with `len` bytes of data in blocks of 1700, each with the header of `*pmsg`, of which this
    /// fills the fields that describe the block. Data whose length is a multiple of 1700 is followed by an empty
    /// block. Refused with a report of type BAD_IPC_PARAMETER, before the first record: a negative length, a null
    /// `ptr` with a length, and 32768 blocks of 1700 or more. Returns a code.
    short send_block(TliMsgStruct* pmsg, const void* ptr, long len);
    /// Receives an event: the first record into `*pmsg`, the data of all into `Data`, which is empty on failure. Memory
    /// is taken as the data comes, not as it is announced. A record that does not fit the ones before it, or whose
    /// texts are not terminated, is reported and closes the endpoint (62); so does a lack of memory (10). Returns a
    /// code.
    short recv_block(TliMsgStruct* pmsg, Buffer& Data);

    /// The host on which a server is to be sought. For "orvd", "pexserver" and "orvpmd" the first word of the file
    /// "/var/orv/data/orvdserver.host": its first line, of which 256 characters count, up to the first white space;
    /// empty when there is none, null when the file cannot be opened. For other names that name itself. In a static
    /// buffer that the next call overwrites; null for null.
    static char* get_default_hostname(const char* HostName);
    /// Whether two names name one host: they are the same, or have the same address for the service "orvd". A name
    /// that is null or empty names none. May wait for a name server.
    static short NodeNamesEqual(const char* Node1, const char* Node2);
    /// Room for any printable address, with its terminator.
    static constexpr int AsciiAddrSize = 128;
    /// Puts into `addr`, which has room for AsciiAddrSize characters, the printable form of the first address of a
    /// service: that of the last transport that knows it, or the empty text.
    static void get_ascii_addr(const char* host, const char* service, char* addr);
    /// Whether a service on a host has an address.
    static short configured_ok(const char* host, const char* service);
    /// The official name of a host given by a dotted Internet address or by a name; null when it is not known. The
    /// text belongs to the name service's routines and is valid until the next look-up. May wait for a name server.
    static char* TcptoName(const char* tcpIpAddress);
    /// Writes what every transport knows about a service on a host, which is looked up as it stands.
    static void info(const char* host, const char* service, std::ostream& out);

    IPCTli(const IPCTli&) = delete;
    IPCTli& operator=(const IPCTli&) = delete;

private:
    bool Open(const char* device);
    short Bind(const char* host, const char* service);
    short Receive(char* buff, long enough, long room, long* received);
    short ReceiveEvent(const TliMsgStruct& first, Buffer& Data);
    short RefuseRecord();
    short RefuseForMemory(int bytes);
    void CloseEndpoint();
    void FreeAddresses();
    void Release();

    int fd;                   // the endpoint, -1 when closed
    pid_t owner;              // the process that opened it
    char* provider;           // device file of the transport; owned
    svr4::nd_addrlist* addrs; // addresses of the service; of netdir_getbyname
    svr4::t_call* callptr;    // the connection request of a listening endpoint; of t_alloc
};

/// A client of a server on another host, with the operations of IPCQClient; its identity and its sends are those of
/// ServerClient. It is connected from its construction until a send or receive fails, the server says that it is going,
/// or Disconnect; only a new object connects again.
class ZELOO_API IPCTliClient : public ErrorReporter, public ServerClient<IPCTliClient> {
public:
    /// Connects to object `Object` of a server on the host `ServerNodeName`, or, when that is null, on the default
    /// host of that server; an empty or missing host gives no connection. With `CheckForIPCQueue` the server is asked
    /// whether it serves that object here, and a connection on which it does not is given up. The records carry this
    /// program's version, full name and node. A null server name connects nothing. May wait for a name server, 120
    /// seconds for the connection and 900 for the answer.
    IPCTliClient(short Object, const char* IPCServerName, const char* ServerNodeName, short CheckForIPCQueue);
    /// Disconnect.
    ~IPCTliClient() override;
    /// Writes the identity and, while there is one, the dump of the connection, between a first and a last line.
    virtual void dumpOn(std::ostream& out) const;

    /// Ends the connection. What was sent still reaches the server. In a forked child it closes the copy (see IPCTli).
    void Disconnect();
    /// Whether there is a connection: until a send or receive fails, the server says that it is going, or Disconnect.
    short Connected() const { return ptli != nullptr; }

    /// Keeps a limit in seconds, 900 at first, that has no effect: a record is awaited for 900 seconds. This is
    /// intended.
    void SetReceiveTimeOut(long seconds) { ReceiveTimeOut = seconds; }
    /// Keeps a limit in seconds, 60 at first, that has no effect: sends have no limit. This is intended.
    void SetSendTimeOut(long seconds) { SendTimeOut = seconds; }

    /// The program that sent the last event that was received; empty when none was.
    const char* LastSendersProgramName() const { return SendersProgramName; }
    /// The node of the program that sent the last event that was received; empty when none was.
    const char* LastSendersNodeName() const { return SendersNodeName; }

    /// Sends an event with `len` bytes of data (limits as for IPCTli::send_block). A failure leaves the client
    /// connected. Returns a code.
    short TLISend(const char* FromProg, const char* FromNode, const char* FromVers, short Object, short event,
                  const void* ptr, long len, short response_required, short ack_required);
    /// Receives the next event and its data. Returns the status that the sender gave it; a code with `REvent` 0 and
    /// `Data` empty on failure, after which the client is not connected.
    short TLIReceive(short& REvent, Buffer& Data, short& ResponseRqd, short& AckRqd);

    /// Waits for the server's response. Returns the status that the server gave it; a code with `REvent` 0 on
    /// failure.
    short receive_response(short& REvent, Buffer& Data);

    IPCTliClient(const IPCTliClient&) = delete;
    IPCTliClient& operator=(const IPCTliClient&) = delete;

private:
    friend class ServerClient<IPCTliClient>;
    short SendToServer(short event, const void* ptr, long len, short response, short ack);
    short Probe();

    short DestObject;
    char ClientVersion[20];
    char ClientProgram[80];
    char ClientNode[80];
    long ReceiveTimeOut;
    long SendTimeOut;
    char SendersProgramName[80];
    char SendersNodeName[80];
    IPCTli* ptli; // the connection; owned, null when there is none
};

#endif
