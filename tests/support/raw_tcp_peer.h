// SPDX-License-Identifier: BSD-2-Clause
// A peer of the library's connections over the host's sockets alone:
//
//     RawSocket peer;
//     ASSERT_TRUE(peer.Connect());
//     EXPECT_TRUE(peer.Send(MakeRecord(event, 0, 0, 5, "hello")));
//     RawRecord answer;
//     EXPECT_TRUE(peer.Receive(&answer));
#ifndef TESTS_SUPPORT_RAW_TCP_PEER_H
#define TESTS_SUPPORT_RAW_TCP_PEER_H

#include <cerrno>
#include <cstdint>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/raw_record.h"

namespace testing_support {

/// The port of the service "orvd" in these tests' name service.
const int Port = 4711;

/// A record of the connections by its offsets.
struct RawRecord : RecordBytes {
    RawRecord() : RecordBytes(1904, LittleEndian) {}
    std::string Data() const { return bytes.substr(204, static_cast<size_t>(Get16(26))); }
};

/// A sound one: `data` at `offset` of `total` bytes.
inline RawRecord MakeRecord(int event, int partsLeft, int32_t offset, int32_t total, const std::string& data)
{
    RawRecord record;
    record.Put(4, "3.2");
    record.Put16(24, partsLeft);
    record.Put16(26, static_cast<int>(data.size()));
    record.Put32(28, offset);
    record.Put16(32, event);
    record.Put(34, "rawnode");
    record.Put(114, "/opt/raw/prog");
    record.Put32(200, total);
    record.Put(204, data);
    return record;
}

/// A reply without data.
inline RawRecord MakeReply(int event, int resultCode)
{
    RawRecord record = MakeRecord(event, 0, 0, 0, "");
    record.Put16(198, resultCode);
    return record;
}

inline struct sockaddr_in SocketAddress(const char* host, int port)
{
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, host, &address.sin_addr);
    return address;
}

inline struct sockaddr_in Loopback(int port) { return SocketAddress("127.0.0.1", port); }

/// One end of a connection, closed with the object.
class RawSocket {
public:
    explicit RawSocket(int descriptor = -1) : fd(descriptor) {}
    ~RawSocket() { Close(); }
    RawSocket(const RawSocket&) = delete;
    RawSocket& operator=(const RawSocket&) = delete;

    bool Connect(int port = Port, const char* host = "127.0.0.1")
    {
        fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const struct sockaddr_in address = SocketAddress(host, port);
        return connect(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) == 0;
    }
    /// Begins to connect, and does not wait for the peer; false when that is refused at once.
    bool BeginToConnect(int port = Port)
    {
        fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const struct sockaddr_in address = Loopback(port);
        return connect(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) == 0 ||
               errno == EINPROGRESS;
    }
    bool Listen(int backlog = 5, int port = Port)
    {
        fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int on = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        const struct sockaddr_in address = Loopback(port);
        return bind(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) == 0 &&
               listen(fd, backlog) == 0;
    }
    int Accept() const { return accept(fd, nullptr, nullptr); }

    bool Send(const void* bytes, size_t size) const
    {
        for (size_t sent = 0; sent < size;) {
            const ssize_t n = send(fd, static_cast<const char*>(bytes) + sent, size - sent, MSG_NOSIGNAL);
            if (n <= 0)
                return false;
            sent += static_cast<size_t>(n);
        }
        return true;
    }
    bool Send(const std::string& bytes) const { return Send(bytes.data(), bytes.size()); }
    bool Send(const RawRecord& record) const { return Send(record.bytes); }

    /// Takes `size` bytes; false when the peer closes before their end.
    bool Receive(void* bytes, size_t size) const
    {
        return recv(fd, bytes, size, MSG_WAITALL) == static_cast<ssize_t>(size);
    }
    bool Receive(RawRecord* record) const { return Receive(record->bytes.data(), record->bytes.size()); }
    /// Whether the peer closes within 20 seconds, in order or not, and nothing is left to receive.
    bool AtEnd() const
    {
        struct pollfd descriptor = {fd, POLLIN, 0};
        char byte;
        return poll(&descriptor, 1, 20000) > 0 && recv(fd, &byte, 1, 0) <= 0;
    }

    /// Closes with a reset.
    void Reset()
    {
        const struct linger now = {1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &now, sizeof now);
        Close();
    }
    void Close()
    {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }

    int fd;
};

} // namespace testing_support

#endif
