// SPDX-License-Identifier: BSD-2-Clause
// ACE (libace-dev): its message queue, and a connection of its sockets.
#include <ace/INET_Addr.h>
#include <ace/SOCK_Acceptor.h>
#include <ace/SOCK_Connector.h>
#include <ace/SOCK_Stream.h>
#include <ace/SV_Message.h>
#include <ace/SV_Message_Queue.h>

#include <netinet/tcp.h>

#include "bench/peers/requests.h"

namespace {

const long ToServer = 1;
const long ToClient = 2;

class Message : public ACE_SV_Message {
public:
    explicit Message(long type = 0) : ACE_SV_Message(type) {}

    char text[BlockSize];
};

// A queue that nobody else can find, and that goes with this object.
class Queue {
public:
    Queue() : queue(IPC_PRIVATE, ACE_SV_Message_Queue::ACE_CREATE, 0600) {}
    ~Queue() { queue.remove(); }
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    bool Send(const Message& message, size_t size) { return queue.send(message, static_cast<int>(size)) == 0; }
    bool Receive(Message& message, long type) { return queue.recv(message, sizeof message.text, type) >= 0; }

private:
    ACE_SV_Message_Queue queue;
};

void ServeQueue(Queue& queue)
{
    Message message;
    const Message response(ToClient);
    while (queue.Receive(message, ToServer) && queue.Send(response, 0))
        ;
}

class QueueEnds {
public:
    explicit QueueEnds(size_t size) : server([this] { ServeQueue(queue); }), request(ToServer), size(size)
    {
        std::memset(request.text, 'r', sizeof request.text);
    }
    bool Request() { return queue.Send(request, size) && queue.Receive(response, ToClient); }

private:
    Queue queue;
    Server server;
    Message request, response;
    size_t size;
};

// One end of a connection.
class Stream {
public:
    ACE_SOCK_Stream& Socket() { return socket; }
    void SendAtOnce()
    {
        int on = 1;
        socket.set_option(IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    bool Send(const std::string& record)
    {
        return socket.send_n(record.data(), record.size()) == static_cast<ssize_t>(record.size());
    }
    bool Receive()
    {
        return TakeRecord(bytes, [&](char* at, size_t size) { return socket.recv(at, size); });
    }
    void Close() { socket.close(); }

private:
    ACE_SOCK_Stream socket;
    std::string bytes;
};

void ServeStream(ACE_SOCK_Acceptor& acceptor)
{
    Stream stream;
    if (acceptor.accept(stream.Socket()) != 0)
        return;
    stream.SendAtOnce();
    const std::string response = StreamRecord(0);
    while (stream.Receive() && stream.Send(response))
        ;
}

class StreamEnds {
public:
    explicit StreamEnds(size_t size)
        : acceptor(ACE_INET_Addr(static_cast<u_short>(0), INADDR_LOOPBACK)), server([this] { ServeStream(acceptor); }),
          request(StreamRecord(static_cast<uint32_t>(size)))
    {
        ACE_INET_Addr address;
        acceptor.get_local_addr(address);
        ACE_SOCK_Connector().connect(client.Socket(), address);
        client.SendAtOnce();
        acceptor.close();
    }
    ~StreamEnds() { client.Close(); }
    StreamEnds(const StreamEnds&) = delete;
    StreamEnds& operator=(const StreamEnds&) = delete;

    bool Request() { return client.Send(request) && client.Receive(); }

private:
    ACE_SOCK_Acceptor acceptor;
    Server server;
    Stream client;
    std::string request;
};

const bool Registered =
    RegisterRequests<QueueEnds>("ACEqueue", {0, 1699}) && RegisterRequests<StreamEnds>("ACEsocket", {0, 1699, 1 << 20});

} // namespace
