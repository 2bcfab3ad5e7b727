// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/proginfo.h"

#include <cstdio>
#include <functional>
#include <string>

#include <arpa/inet.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/Error.h"
#include "tests/support/testing.h"

using namespace testing_support;

namespace {

// The name server of this network, which answers nothing. It counts what it is asked.
class SilentNameServer {
public:
    SilentNameServer() : fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        struct sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(53);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ChildNeeds(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
    }
    ~SilentNameServer() { close(fd); }
    int Questions()
    {
        int count = 0;
        char question[512];
        while (recv(fd, question, sizeof question, MSG_DONTWAIT) > 0)
            count++;
        return count;
    }

private:
    int fd;
};

// Gives this process a file of its own in the place of one of the host.
void Cover(const char* path, const std::string& content)
{
    const std::string other = "/opt/orv/resolver_test";
    WriteFile(other, content);
    ChildNeeds(mount(other.c_str(), path, nullptr, MS_BIND, nullptr) == 0);
    unlink(other.c_str());
}

// Makes this process, a child, a node whose name only the name server could know.
void BecomeUnknownNode()
{
    ChildNeeds(unshare(CLONE_NEWUTS | CLONE_NEWNS) == 0 && sethostname("n1", 2) == 0);
    Cover("/etc/hosts", "127.0.0.1 localhost\n");
    Cover("/etc/nsswitch.conf", "hosts: files dns\n");
    Cover("/etc/resolv.conf", "nameserver 127.0.0.1\noptions timeout:1 attempts:1\n");
}

// Runs `body` in a child process, `seconds` later on the clock that only goes forward.
void Later(long seconds, const std::function<void()>& body)
{
    ChildNeeds(unshare(CLONE_NEWTIME) == 0);
    FILE* offsets = fopen("/proc/self/timens_offsets", "w");
    ChildNeeds(offsets != nullptr);
    ChildNeeds(fprintf(offsets, "monotonic %ld 0\n", seconds) > 0 && fclose(offsets) == 0);
    CHILD_CHECK(WaitForExit(StartChild(body)) == 0);
}

class NodeNameTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (!InSandbox())
            GTEST_SKIP() << "needs a private network";
    }
    static void OnUnknownNode(const std::function<void(SilentNameServer&)>& body)
    {
        const ChildResult child = RunInChild([&] {
            BecomeUnknownNode();
            SilentNameServer server;
            body(server);
        });
        if (child.exitCode == NotPossibleHere)
            GTEST_SKIP() << "no network or clock of one's own here";
        EXPECT_EQ(child.exitCode, 0) << child.err;
    }
};

TEST_F(NodeNameTest, RecordsWaitForASilentNameServerOnce)
{
    OnUnknownNode([](SilentNameServer& server) {
        ErrorReporter reporter;
        reporter.DoNotDisplayErrorInfo();
        for (int i = 0; i < 3; i++) {
            reporter._ReportError(ErrorReporter::NOTICE_WITH_LOG, ErrorReporter::OTHER, "text", "$Id: t.cc,v", 1);
            const bool isFirst = i == 0;
            CHILD_CHECK((server.Questions() > 0) == isFirst);
        }
        CHILD_CHECK(std::string(ProgInfo::GetNodeNameLongVersion()) == "n1");
        CHILD_CHECK(server.Questions() == 0);
    });
}

TEST_F(NodeNameTest, TheNameServerIsAskedAgainAfterAMinute)
{
    OnUnknownNode([](SilentNameServer& server) {
        ProgInfo::GetNodeNameLongVersion();
        CHILD_CHECK(server.Questions() > 0);
        Later(70, [&] {
            ProgInfo::GetNodeNameLongVersion();
            CHILD_CHECK(server.Questions() > 0);
            ProgInfo::GetNodeNameLongVersion();
            CHILD_CHECK(server.Questions() == 0);
        });
    });
}

TEST_F(NodeNameTest, ThatThereIsNoTranslationIsKeptForAMinute)
{
    OnUnknownNode([](SilentNameServer& server) {
        CHILD_CHECK(std::string(ProgInfo::GetNodeNameLongVersion()) == "n1");
        WriteFile("/etc/hosts", "10.9.8.7 n1.kelvaro.example n1\n");
        server.Questions();
        CHILD_CHECK(std::string(ProgInfo::GetNodeNameLongVersion()) == "n1");
        Later(70, [] {
            CHILD_CHECK(std::string(ProgInfo::GetNodeNameLongVersion()) == "n1.kelvaro.example");
            WriteFile("/etc/hosts", "10.9.8.7 n2.kelvaro.example n1\n");
            CHILD_CHECK(std::string(ProgInfo::GetNodeNameLongVersion()) == "n1.kelvaro.example"); // kept for good
        });
    });
}

} // namespace
