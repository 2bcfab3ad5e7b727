// SPDX-License-Identifier: BSD-2-Clause
// What the tests of the connections share: a private name service, and endpoints with a raw peer.
#ifndef TESTS_UNIT_IPCTLI_TESTING_H
#define TESTS_UNIT_IPCTLI_TESTING_H

#include <csignal>
#include <cstdint>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>

#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/ipctli.h"
#include "Misc/proginfo.h"
#include "tests/support/objects.h"
#include "tests/support/raw_tcp_peer.h"
#include "tests/support/short_reports.h"
#include "tests/support/testing.h"

namespace ipctli_testing {

using namespace testing_support;

const short OutOfMemory = ErrorReporter::OUT_OF_MEMORY;
const short TcpError = ErrorReporter::TCP_ERROR;
const short ServerGone = ErrorReporter::SERVER_GONE;
const short ConnectionLost = ErrorReporter::IPC_CONNECTION_LOST;
const short ReceiveTimeOut = ErrorReporter::IPC_RECV_TIME_OUT;

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
    ~Nagger() { EndChild(pid); }

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

    /// Whether the handler stands as it was set, with its flags.
    bool IsInPlace() const
    {
        struct sigaction now;
        sigaction(number, nullptr, &now);
        return now.sa_handler == Note && (now.sa_flags & (SA_RESTART | SA_SIGINFO | SA_RESETHAND)) == SA_RESTART;
    }

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
