// SPDX-License-Identifier: BSD-2-Clause
// ZeroMQ (libzmq3-dev): a request socket and a reply socket over a socket of the host that has no file.
#include <zmq.h>

#include "bench/peers/requests.h"

namespace {

// A context with one socket; both go together.
class Socket {
public:
    explicit Socket(int type) : context(zmq_ctx_new()), socket(zmq_socket(context, type))
    {
        const int none = 0, limit = ResponseLimit * 1000;
        zmq_setsockopt(socket, ZMQ_LINGER, &none, sizeof none);
        if (type == ZMQ_REQ)
            zmq_setsockopt(socket, ZMQ_RCVTIMEO, &limit, sizeof limit);
    }
    ~Socket()
    {
        zmq_close(socket);
        zmq_ctx_term(context);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    bool Bind(const std::string& address) { return zmq_bind(socket, address.c_str()) == 0; }
    bool Connect(const std::string& address) { return zmq_connect(socket, address.c_str()) == 0; }
    bool Send(const std::string& bytes) { return zmq_send(socket, bytes.data(), bytes.size(), 0) >= 0; }
    bool Receive()
    {
        zmq_msg_t message;
        zmq_msg_init(&message);
        const int size = zmq_msg_recv(&message, socket, 0);
        zmq_msg_close(&message);
        return size >= 0;
    }

private:
    void* context;
    void* socket;
};

void Serve(const std::string& address)
{
    Socket socket(ZMQ_REP);
    if (!socket.Bind(address))
        return;
    while (socket.Receive() && socket.Send(""))
        ;
}

class Ends {
public:
    explicit Ends(size_t size)
        : address("ipc://@zeloo-bench-" + std::to_string(getpid())), server([this] { Serve(address); }),
          client(ZMQ_REQ), request(size, 'r')
    {
        client.Connect(address);
    }
    bool Request() { return client.Send(request) && client.Receive(); }

private:
    std::string address;
    Server server;
    Socket client;
    std::string request;
};

const bool Registered = RegisterRequests<Ends>("ZeroMQ", {0, 1699, 1 << 20});

} // namespace
