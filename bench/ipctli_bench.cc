// SPDX-License-Identifier: BSD-2-Clause
// A connection with the library's protocol beside the same bytes over sockets alone: a request with its response, and
// 1 MiB in records. Both ends run on one core.
#include <cstring>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Misc/ipctli.h"
#include "Misc/proginfo.h"
#include "bench/require.h"
#include "bench/two_processes.h"

namespace {

const int RecordSize = sizeof(TliMsgStruct);
static_assert(BlockSize == sizeof(TliMsgStruct::msg_data), "the floor sends blocks of the same size");
// Ports by their numbers: no table of services is needed. Both lie below those that the host gives to connections, one of
// which may hold its port for a minute after its end.
const char Service[] = "17117";
const uint16_t RawPort = 17118;

// Answers every event with an event without data, until the client closes.
void Serve(IPCTli& listener)
{
    IPCTli end;
    if (!listener.Tlisten() || !end.Taccept(listener))
        return;
    TliMsgStruct record;
    Buffer data;
    while (end.recv_block(&record, data) == 0) {
        record.result_code = 0;
        if (record.response_rqd && end.send_block(&record, nullptr, 0) != 0)
            return;
    }
}

// A server in a process of its own, and a client of it.
class LibraryEnds {
public:
    LibraryEnds()
    {
        static char name[] = "ipctli_bench";
        static char* arguments[] = {name, nullptr};
        ProgInfo::Initialize(1, arguments, arguments + 1, "1.0");
        IPCTli listener;
        Require(listener.Tprelisten("localhost", Service), "endpoint to listen at");
        server = Fork([&] { Serve(listener); });
        listener.Tclose();
        client = new IPCTliClient(0, Service, "localhost", 0);
        Require(client->Connected(), "connection of the library");
    }
    ~LibraryEnds()
    {
        delete client;
        waitpid(server, nullptr, 0);
    }
    IPCTliClient& Client() { return *client; }

private:
    pid_t server;
    IPCTliClient* client;
};

bool SendAll(int fd, const char* bytes, size_t length)
{
    while (length > 0) {
        const ssize_t n = send(fd, bytes, length, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        bytes += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

bool ReceiveAll(int fd, char* bytes, size_t length)
{
    while (length > 0) {
        const ssize_t n = recv(fd, bytes, length, 0);
        if (n <= 0)
            return false;
        bytes += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

// The other end of the floor: takes records, and answers those that are the last of something.
void ServeRaw(int listener)
{
    const int fd = accept(listener, nullptr, nullptr);
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    char record[RecordSize];
    while (ReceiveAll(fd, record, sizeof record))
        if (record[0] && !SendAll(fd, record, sizeof record))
            break;
    close(fd);
}

class RawEnds {
public:
    RawEnds()
    {
        struct sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(RawPort);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const struct sockaddr* const generic = reinterpret_cast<struct sockaddr*>(&address);
        const int on = 1;
        const int listener = socket(AF_INET, SOCK_STREAM, 0);
        setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        Require(bind(listener, generic, sizeof address) == 0 && listen(listener, 5) == 0, "socket to listen at");
        server = Fork([&] { ServeRaw(listener); });
        fd = socket(AF_INET, SOCK_STREAM, 0);
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        Require(connect(fd, generic, sizeof address) == 0, "connection");
        close(listener);
    }
    ~RawEnds()
    {
        close(fd);
        waitpid(server, nullptr, 0);
    }

    bool Send(const char* data, size_t length, bool last)
    {
        record[0] = last;
        std::memcpy(record + RecordSize - BlockSize, data, length);
        return SendAll(fd, record, sizeof record);
    }
    bool TakeAnswer() { return ReceiveAll(fd, record, sizeof record); }

private:
    pid_t server;
    int fd;
    char record[RecordSize] = {};
};

const bool Registered = RegisterRequests<LibraryEnds, RawEnds>();

} // namespace
