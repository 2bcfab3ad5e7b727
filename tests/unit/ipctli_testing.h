// What the tests of the connections share: a private name service, and peers that know nothing but the record layout.
#ifndef TESTS_UNIT_IPCTLI_TESTING_H
#define TESTS_UNIT_IPCTLI_TESTING_H

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/ipctli.h"
#include "Misc/proginfo.h"
#include "tests/support/testing.h"
#include "tests/unit/ipcq_testing.h"

namespace ipctli_testing {

using namespace testing_support;
using ipcq_testing::Contents;
using ipcq_testing::Pattern;
using ipcq_testing::Report;
using ipcq_testing::Reports;

const int Port = 4711;
const short OutOfMemory = ErrorReporter::OUT_OF_MEMORY;
const short TcpError = ErrorReporter::TCP_ERROR;
const short ServerGone = ErrorReporter::SERVER_GONE;
const short ConnectionLost = ErrorReporter::IPC_CONNECTION_LOST;
const short ReceiveTimeOut = ErrorReporter::IPC_RECV_TIME_OUT;

/// A record by its offsets alone.
struct RawRecord {
    std::string bytes = std::string(1904, '\0');

    void Put(size_t offset, const std::string& text) { bytes.replace(offset, text.size(), text); }
    void Put16(size_t offset, int value)
    {
        const int16_t v = static_cast<int16_t>(value);
        Put(offset, std::string(reinterpret_cast<const char*>(&v), sizeof v));
    }
    void Put32(size_t offset, int32_t value)
    {
        Put(offset, std::string(reinterpret_cast<const char*>(&value), sizeof value));
    }
    int Get16(size_t offset) const
    {
        int16_t v;
        std::memcpy(&v, &bytes[offset], sizeof v);
        return v;
    }
    int32_t Get32(size_t offset) const
    {
        int32_t v;
        std::memcpy(&v, &bytes[offset], sizeof v);
        return v;
    }
    std::string Text(size_t offset) const { return &bytes[offset]; }
    std::string Data() const { return bytes.substr(204, static_cast<size_t>(Get16(26))); }
};

/// A sound record: `data` at `offset` of `total` bytes.
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

/// One end of a connection, over the host's sockets.
class RawSocket {
public:
    explicit RawSocket(int descriptor = -1) : fd(descriptor) {}
    ~RawSocket() { Close(); }
    RawSocket(const RawSocket&) = delete;
    RawSocket& operator=(const RawSocket&) = delete;

    bool Connect(int port = Port)
    {
        fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const struct sockaddr_in address = Loopback(port);
        return connect(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) == 0;
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

    bool Send(const std::string& bytes) const
    {
        for (size_t sent = 0; sent < bytes.size();) {
            const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (n <= 0)
                return false;
            sent += static_cast<size_t>(n);
        }
        return true;
    }
    bool Send(const RawRecord& record) const { return Send(record.bytes); }
    /// Takes one record; false when the peer closes before its end.
    bool Receive(RawRecord* record) const
    {
        return recv(fd, &record->bytes[0], record->bytes.size(), MSG_WAITALL) == ssize_t(record->bytes.size());
    }
    /// Whether the peer has closed and nothing is left to receive.
    bool AtEnd() const
    {
        char byte;
        return recv(fd, &byte, 1, 0) <= 0;
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

    static struct sockaddr_in Loopback(int port)
    {
        struct sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }

    int fd;
};

/// What a call writes to standard output and standard error.
struct Output {
    std::string out;
    std::string err;
};

inline Output Capture(const std::function<void()>& body)
{
    Output output;
    output.out = CaptureStdout([&] { output.err = CaptureStderr(body); });
    return output;
}

/// `text` with the number behind "errno: " or "errno:" replaced by "N", where it is left over from anywhere.
inline std::string WithoutErrno(const std::string& text)
{
    return Replaced(Replaced(text, "^errno: [0-9]+ ", "errno: N "), "accept errno:[0-9]+", "accept errno:N");
}

/// Sends a signal to this process every few milliseconds while it lives.
class Nagger {
public:
    explicit Nagger(int sig)
        : pid(StartChild([sig, parent = getpid()] {
              for (;;) {
                  usleep(20000);
                  kill(parent, sig);
              }
          }))
    {
    }
    ~Nagger()
    {
        kill(pid, SIGKILL);
        WaitForExit(pid);
    }

private:
    pid_t pid;
};

/// Handles a signal by noting what is left of the alarm, while it lives.
class Handling {
public:
    explicit Handling(int sig) : number(sig)
    {
        calls = 0;
        secondsLeft = -1;
        struct sigaction action = {};
        action.sa_handler = Note;
        action.sa_flags = SA_RESTART; // the calls must not rely on the program's flags
        sigaction(sig, &action, &earlier);
    }
    ~Handling() { sigaction(number, &earlier, nullptr); }

    static volatile sig_atomic_t calls;
    static volatile sig_atomic_t secondsLeft; // the most that any call has seen

private:
    static void Note(int)
    {
        struct itimerval left = {};
        getitimer(ITIMER_REAL, &left);
        calls = calls + 1;
        const long seconds = left.it_value.tv_sec + (left.it_value.tv_usec > 0);
        if (seconds > secondsLeft)
            secondsLeft = static_cast<sig_atomic_t>(seconds);
    }

    int number;
    struct sigaction earlier;
};

inline volatile sig_atomic_t Handling::calls = 0;
inline volatile sig_atomic_t Handling::secondsLeft = -1;

/// A host named "thisnode" with a name service of its own: the service "orvd" at Port, some hosts.
class IpctliTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (!InSandbox())
            GTEST_SKIP() << "needs private /etc/services and /etc/hosts";
        ASSERT_EQ(sethostname("thisnode", 8), 0); // before anybody asks for it
        services = ReadFile("/etc/services");
        hosts = ReadFile("/etc/hosts");
        WriteFile("/etc/services", services + "\norvd 4711/tcp\nother 4712/tcp\n");
        WriteFile("/etc/hosts", "127.0.0.1 localhost here alsohere\n127.0.0.9 there\n");
        static char program[] = "/opt/orv/bin/tester";
        static char* arguments[] = {program, nullptr};
        ProgInfo::Initialize(1, arguments, arguments + 1, "3.4");
        descriptors = OpenDescriptors();
    }
    void TearDown() override
    {
        if (!InSandbox())
            return;
        EXPECT_EQ(OpenDescriptors(), descriptors);
        unlink("/var/orv/data/orvdserver.host");
        WriteFile("/etc/services", services);
        WriteFile("/etc/hosts", hosts);
    }

    std::string services;
    std::string hosts;
    int descriptors = 0;
};

/// A listening endpoint, an accepted connection and a raw peer of it.
struct RawPeerConnection {
    IPCTli listener;
    IPCTli end;
    RawSocket peer;
    RawPeerConnection()
    {
        EXPECT_EQ(listener.Tprelisten(nullptr, "orvd"), 1);
        EXPECT_TRUE(peer.Connect());
        EXPECT_EQ(listener.Tlisten(), 1);
        EXPECT_EQ(end.Taccept(listener), 1);
    }
};

/// The descriptor of an endpoint, as its dump shows it.
inline int Descriptor(const IPCTli& endpoint)
{
    std::ostringstream out;
    endpoint.dumpOn(out);
    const std::string label = "IPCTli::fd      : ";
    EXPECT_EQ(out.str().substr(0, label.size()), label);
    const int fd = std::atoi(out.str().c_str() + label.size());
    EXPECT_EQ(out.str(), label + std::to_string(fd) + "\n");
    return fd;
}

} // namespace ipctli_testing

#endif
