// SPDX-License-Identifier: BSD-2-Clause
// What the tests of faultd share: its client, and a fixture that starts and ends it.
#ifndef TESTS_SYSTEM_FAULTD_TESTING_H
#define TESTS_SYSTEM_FAULTD_TESTING_H

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include <sys/utsname.h>

#include <gtest/gtest.h>

#include "tests/support/testing.h"

namespace faultd_testing {

using namespace testing_support;

const std::string Faultd = ProgramUnderTest(FAULTD);
const std::string Faultctl = ProgramUnderTest(FAULTCTL);
const std::string HelloServer = ProgramUnderTest(HELLO_SERVER);
const std::string HelloClient = ProgramUnderTest(HELLO_CLIENT);

const char KeyFile[] = "/opt/orv/bin/orvd";
const char CrashFile[] = "/var/orv/data/faultd.sig";
const char NodesFile[] = "/var/orv/data/orvnodes.dat";
const char LockFileName[] = "/var/orv/data/faultd.lock";
const char FaultDirectory[] = "/var/orv/data/faults";
const char SecondServer[] = "faultd: another faultd is running: /var/orv/data/faultd.lock holds its process id\n";
const char NoServer[] = "faultctl: no server: faultd is not running here, and there is no relay to another host\n";

inline ChildResult Ctl(const std::vector<std::string>& arguments, const std::string& input = "/dev/null")
{
    return RunProgram(Faultctl, arguments, input);
}

/// `count` bytes of every value, zeros and line ends included.
inline std::string Bytes(size_t count, unsigned seed)
{
    std::string bytes(count, '\0');
    for (char& byte : bytes) {
        seed = seed * 1103515245 + 12345;
        byte = static_cast<char>(seed >> 16);
    }
    return bytes;
}

inline int QueuesOnTheHost()
{
    std::istringstream table(ReadFile("/proc/sysvipc/msg"));
    int lines = 0;
    for (std::string line; std::getline(table, line);)
        lines++;
    return lines - 1;
}

inline std::string NodeName()
{
    struct utsname host;
    uname(&host);
    return host.nodename;
}

/// A fault as its record begins: number, node, text.
inline std::string WireId(const std::string& node, const std::string& number, const std::string& text)
{
    return number + "|" + std::to_string(node.size()) + "|" + node + std::to_string(text.size()) + "|" + text;
}

class FaultdTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!InSandbox())
            GTEST_SKIP() << "needs a private /var and /opt/orv/bin";
        std::remove(CrashFile);
        std::remove(NodesFile);
        std::filesystem::remove_all(FaultDirectory);
        MakeKeyFile("orvd");
    }
    void TearDown() override
    {
        if (server > 0) {
            EndChild(server, SIGTERM);
        }
    }

    /// Starts faultd in the foreground.
    void StartServer(std::vector<std::string> arguments = {})
    {
        arguments.push_back("--foreground");
        server = StartProgram(Faultd, arguments, log());
        ASSERT_TRUE(WaitUntil([] { return Ctl({"list"}).exitCode == 0; })) << ReadFile(log());
    }
    int EndOfServer()
    {
        const int code = WaitForExit(server);
        server = 0;
        return code;
    }
    std::string log() const { return directory.File("faultd.log"); }

    TemporaryDirectory directory;
    pid_t server = 0;
};

#define EXPECT_RESULT(result, code, stdout_text, stderr_text)                                                          \
    do {                                                                                                               \
        const ChildResult ran = (result);                                                                              \
        EXPECT_EQ(ran.exitCode, code);                                                                                 \
        EXPECT_EQ(ran.out, stdout_text);                                                                               \
        EXPECT_EQ(ran.err, stderr_text);                                                                               \
    } while (0)

} // namespace faultd_testing

#endif
