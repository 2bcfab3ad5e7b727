// SPDX-License-Identifier: BSD-2-Clause
// What the tests of relayd share: the relay, connections by hand, and a second host.
#ifndef TESTS_SYSTEM_RELAYD_TESTING_H
#define TESTS_SYSTEM_RELAYD_TESTING_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <sched.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/ipcobject.h"
#include "Misc/ipctli.h"
#include "tests/support/raw_tcp_peer.h"
#include "tests/unit/echo_testing.h"

namespace relayd_testing {

using namespace ipcq_testing;

inline const std::string Relayd = ProgramUnderTest(RELAYD);
const char FarHost[] = "far"; // another address of this host, so that it counts as another host
const short GoneEvent = -1;

/// The children of a process; zombies count.
inline std::vector<pid_t> ChildrenOf(pid_t pid)
{
    std::vector<pid_t> children;
    const std::string number = std::to_string(pid);
    std::ifstream in("/proc/" + number + "/task/" + number + "/children");
    for (pid_t child; in >> child;)
        children.push_back(child);
    return children;
}

/// A connection made by hand, for whole records.
class RawConnection : public RawSocket {
public:
    explicit RawConnection(const char* host = "127.0.0.1") : connected(Connect(Port, host)) {}
    using RawSocket::Send;
    bool Send(const TliMsgStruct& record) const { return Send(&record, sizeof record); }
    bool Receive(TliMsgStruct& record) const { return RawSocket::Receive(&record, sizeof record); }
    bool IsClosedByPeer() const { return AtEnd(); }

    const bool connected;
};

inline TliMsgStruct Record(short event, const std::string& data = "", bool response = false, bool ack = false)
{
    TliMsgStruct record = {};
    std::strcpy(record.senders_version, "2.1");
    std::strcpy(record.origprog, "raw");
    std::strcpy(record.orignode, FarHost);
    record.event = event;
    record.response_rqd = response;
    record.ack_rqd = ack;
    record.result_code = -1;
    record.alloc_data_length = static_cast<int32_t>(data.size());
    record.send_data_length = static_cast<int16_t>(data.size());
    std::memcpy(record.msg_data, data.data(), data.size());
    return record;
}

inline TliMsgStruct ProbeRecord(short object = 0)
{
    TliMsgStruct record = {};
    record.object = object;
    record.QueueExistCheck = 1;
    return record;
}

const char FirstAddress[] = "192.0.2.1"; // this host's end of the cable
const char FirstAddress6[] = "2001:db8::1";

/// A host of its own with the addresses 192.0.2.2 and 2001:db8::2, which are known as "second", on which `body` runs
/// once a cable joins it to this host. A client there must be told the name: this process has its node's name already.
class SecondHost {
public:
    explicit SecondHost(const std::function<void()>& body)
    {
        int toSecond[2];
        int toFirst[2];
        EXPECT_EQ(pipe(toSecond), 0);
        EXPECT_EQ(pipe(toFirst), 0);
        char byte = 0;
        pid = StartChild([&] {
            CHILD_CHECK(unshare(CLONE_NEWNET) == 0);
            CHILD_CHECK(write(toFirst[1], &byte, 1) == 1 && read(toSecond[0], &byte, 1) == 1);
            body();
        });
        close(toFirst[1]);
        EXPECT_EQ(read(toFirst[0], &byte, 1), 1);
        const std::string up = "ip address add 192.0.2.%/24 dev cable && "
                               "ip address add 2001:db8::%/64 dev cable nodad && ip link set cable up";
        EXPECT_TRUE(Run("ip link add cable type veth peer name cable netns " + std::to_string(pid) + " && " +
                        Replaced(up, "%", "1")));
        EXPECT_TRUE(RunThere("ip link set lo up && " + Replaced(up, "%", "2")));
        EXPECT_EQ(write(toSecond[1], &byte, 1), 1);
        for (int fd : {toSecond[0], toSecond[1], toFirst[0]})
            close(fd);
    }
    ~SecondHost()
    {
        if (pid > 0)
            EndChild(pid);
        Run("ip link delete cable 2>/dev/null"); // it goes with the host, but not at once
    }
    SecondHost(const SecondHost&) = delete;
    SecondHost& operator=(const SecondHost&) = delete;

    static bool PullCable() { return Run("ip link set cable down"); }
    static bool PutCableBack() { return Run("ip link set cable up"); }
    /// From now on it can't be reached, as if its power had failed.
    bool Vanish() const { return RunThere("ip link set cable down"); }
    int WaitForExit()
    {
        const int code = testing_support::WaitForExit(pid);
        pid = 0;
        return code;
    }

private:
    static bool Run(const std::string& command) { return system(command.c_str()) == 0; }
    bool RunThere(const std::string& command) const
    {
        return Run("nsenter --net --target " + std::to_string(pid) + " sh -c '" + command + "'");
    }

    pid_t pid = 0;
};

class RelaydTest : public EchoTest {
protected:
    static void SetUpTestSuite()
    {
        if (!InSandbox())
            return;
        static bool isPrepared = false; // for the suites of a program together
        if (!isPrepared) {
            std::ofstream("/etc/services", std::ios::app) << "\norvd 4711/tcp\nhello 4712/tcp\n";
            std::ofstream("/etc/hosts", std::ios::app)
                << "\n127.0.0.2 " << FarHost << "\n192.0.2.2 second\n2001:db8::2 second\n192.0.2.3 third\n";
        }
        isPrepared = true;
    }
    void TearDown() override
    {
        EchoTest::TearDown();
        if (relay > 0) {
            EXPECT_EQ(EndRelay(), 0) << Log();
        }
    }

    void StartRelay(const std::vector<std::string>& arguments = {})
    {
        relay = StartProgram(Relayd, arguments, directory.File("relayd.log"));
        ASSERT_TRUE(WaitUntil([] { return RawConnection().connected; })) << Log();
        { // it is answered when the ones before it have got their processes
            RawConnection last;
            TliMsgStruct answer;
            EXPECT_TRUE(last.Send(ProbeRecord()) && last.Receive(answer));
        }
        EXPECT_TRUE(Serves(0));
    }
    int EndRelay(int signal = SIGTERM)
    {
        const int code = EndChild(relay, signal);
        relay = 0;
        return code;
    }
    std::string Log() const { return ReadFile(directory.File("relayd.log")); }
    /// Waits until the relay serves `n` connections.
    bool Serves(size_t n) const
    {
        return WaitUntil([&] { return ChildrenOf(relay).size() == n; });
    }

    TemporaryDirectory directory;
    pid_t relay = 0;
};

inline std::unique_ptr<IPCClient> FarClient(short object = 0, const char* name = "orvd")
{
    return std::make_unique<IPCClient>(object, name, FarHost);
}

} // namespace relayd_testing

#endif
