// SPDX-License-Identifier: BSD-2-Clause
// hello_server and hello_client, run for real.
#include <csignal>
#include <string>

#include <sys/msg.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/system/faultd_testing.h"

using namespace faultd_testing;

namespace {

class HelloTest : public FaultdTest {};

TEST_F(HelloTest, AnswersTextsOfAnyLength)
{
    MakeKeyFile("hello");
    server = StartProgram(HelloServer, {}, log());
    ASSERT_TRUE(WaitUntil([] { return RunProgram(HelloClient, {}).out == "Hello, world!\n"; }));
    EXPECT_RESULT(RunProgram(HelloClient, {"operator"}), 0, "Hello, operator!\n", "");
    const std::string longName(5000, 'x');
    EXPECT_RESULT(RunProgram(HelloClient, {longName}), 0, "Hello, " + longName + "!\n", "");
    const ChildResult second = RunProgram(HelloServer, {});
    EXPECT_EQ(second.exitCode, 1);
    kill(server, SIGTERM);
    EXPECT_EQ(EndOfServer(), 0);
    EXPECT_EQ(QueuesOnTheHost(), 0);
}

TEST_F(HelloTest, TheClientTellsWhatIsMissing)
{
    unlink("/opt/orv/bin/hello");
    EXPECT_RESULT(RunProgram(HelloClient, {}), 1, "",
                  "hello_client: cannot see the key file /opt/orv/bin/hello: No such file or directory\n");
    MakeKeyFile("hello");
    EXPECT_RESULT(RunProgram(HelloClient, {}), 1, "", "hello_client: no server: is hello_server running?\n");
    server = StartProgram(HelloServer, {}, log());
    ASSERT_TRUE(WaitUntil([] { return RunProgram(HelloClient, {}).out == "Hello, world!\n"; }));

    kill(server, SIGSTOP);
    EXPECT_RESULT(RunProgram(HelloClient, {}), 1, "",
                  "hello_client: no answer within 10 seconds: is hello_server stopped?\n");
    kill(server, SIGCONT);

    const int queue = msgget(ftok("/opt/orv/bin/hello", 1), 0);
    struct msqid_ds status;
    ASSERT_EQ(msgctl(queue, IPC_STAT, &status), 0);
    status.msg_perm.mode = 0;
    ASSERT_EQ(msgctl(queue, IPC_SET, &status), 0);
    EXPECT_RESULT(RunProgram("/usr/bin/setpriv", {"--bounding-set=-all", "--inh-caps=-all", HelloClient}), 1, "",
                  "hello_client: no right to the queue of hello_server: be its user, or a member of its group\n");

    kill(server, SIGTERM);
    EXPECT_EQ(EndOfServer(), 0);
    EXPECT_EQ(QueuesOnTheHost(), 0);
}

} // namespace
