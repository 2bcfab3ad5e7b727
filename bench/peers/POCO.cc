// SPDX-License-Identifier: BSD-2-Clause
// POCO (libpoco-dev): a connection of its stream sockets.
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>

#include "bench/peers/requests.h"

namespace {

bool Send(Poco::Net::StreamSocket& socket, const std::string& record)
{
    size_t sent = 0;
    while (sent < record.size())
        sent += static_cast<size_t>(socket.sendBytes(record.data() + sent, static_cast<int>(record.size() - sent)));
    return true;
}

bool Receive(Poco::Net::StreamSocket& socket, std::string& bytes)
{
    return TakeRecord(bytes, [&](char* at, size_t size) { return socket.receiveBytes(at, static_cast<int>(size)); });
}

void Serve(Poco::Net::ServerSocket& listener)
{
    try {
        Poco::Net::StreamSocket socket = listener.acceptConnection();
        socket.setNoDelay(true);
        const std::string response = StreamRecord(0);
        std::string bytes;
        while (Receive(socket, bytes) && Send(socket, response))
            ;
    } catch (const Poco::Exception&) {
        return; // the client gets no response
    }
}

class Ends {
public:
    explicit Ends(size_t size)
        : listener(Poco::Net::SocketAddress("127.0.0.1", 0)), server([this] { Serve(listener); }),
          client(listener.address()), request(StreamRecord(static_cast<uint32_t>(size)))
    {
        client.setNoDelay(true);
        listener.close();
    }
    bool Request()
    try {
        return Send(client, request) && Receive(client, bytes);
    } catch (const Poco::Exception&) {
        return false;
    }

private:
    Poco::Net::ServerSocket listener;
    Server server;
    Poco::Net::StreamSocket client;
    std::string request, bytes;
};

const bool Registered = RegisterRequests<Ends>("POCO", {0, 1699, 1 << 20});

} // namespace
