// SPDX-License-Identifier: BSD-2-Clause
// faultd under load while it is asked for one dump after the other: every client is answered, and the dumps are whole.
// ZELOO_DUMPS says how many are asked for, 1000 when it does not.
#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/system/faultd_testing.h"

using namespace faultd_testing;

namespace {

const char StateFile[] = "/var/orv/data/faultd.state";
const int Clients = 3;
const int CommandsInBatch = 40;

const std::string FirstLine = "SIGNAL " + std::to_string(SIGUSR1) + " caught...initiating dump...\n";
const std::string LastLine = "*** End Dump of all Monitored Objects ***\n";

int RequestsToSend()
{
    const char* number = std::getenv("ZELOO_DUMPS");
    return number != nullptr ? std::atoi(number) : 1000;
}

bool IsWhole(const std::string& dump)
{
    return dump.compare(0, FirstLine.size(), FirstLine) == 0 && dump.size() > LastLine.size() &&
           dump.compare(dump.size() - LastLine.size(), LastLine.size(), LastLine) == 0 &&
           CountOf(dump, "*** Begin dump of object tag: ") == CountOf(dump, "*** End dump of object tag:   ") &&
           dump.find("left out") == std::string::npos;
}

// A client that has one batch of commands after the other answered until `stop` is there, twice at least. Its exit code is
// 0 when every command was.
pid_t StartClient(int number, const std::string& input, const std::string& stop)
{
    std::string commands;
    for (int i = 0; i < CommandsInBatch; i++)
        commands += i % 8 == 0 ? "raise client" + std::to_string(number) + " " + std::to_string(i) + " text\n"
                               : "show client" + std::to_string(number) + " " + std::to_string(i / 8 * 8) + "\n";
    WriteFile(input, commands);
    return StartChild([=] {
        setpgid(0, 0);
        for (int batch = 0; batch < 2 || access(stop.c_str(), F_OK) != 0; batch++) {
            const ChildResult answers = Ctl({"batch"}, input);
            CHILD_CHECK(answers.exitCode == 0);
            CHILD_CHECK(answers.err.empty());
            CHILD_CHECK(CountOf(answers.out, "Raised:   ") == CommandsInBatch - CommandsInBatch / 8);
        }
    });
}

class FaultdDumps : public FaultdTest {};

TEST_F(FaultdDumps, RequestsUnderLoadCostNoAnswerAndTheLastDumpIsWhole)
{
    std::remove(StateFile);
    StartServer();
    const std::string stop = directory.File("stop");
    std::vector<pid_t> clients;
    clients.reserve(Clients);
    for (int i = 0; i < Clients; i++)
        clients.push_back(StartClient(i, directory.File("commands" + std::to_string(i)), stop));
    for (int i = RequestsToSend(); i > 0; i--) {
        ASSERT_EQ(kill(server, SIGUSR1), 0);
        usleep(1000);
    }
    EXPECT_TRUE(WaitUntil([] { return IsWhole(ReadFile(StateFile)); })) << ReadFile(StateFile);
    WriteFile(stop, "");
    for (const pid_t client : clients)
        EXPECT_EQ(WaitForExit(client), 0) << ReadFile(log());

    kill(server, SIGUSR1);
    const std::string count = "Faults: " + std::to_string(Clients * CommandsInBatch / 8) + "\n";
    EXPECT_TRUE(WaitUntil([&] {
        const std::string state = ReadFile(StateFile);
        return IsWhole(state) && state.find(count) != std::string::npos;
    })) << ReadFile(StateFile);
    EXPECT_EQ(kill(server, 0), 0);
    kill(server, SIGTERM);
    EXPECT_EQ(EndOfServer(), 0);
}

TEST_F(FaultdDumps, Sigusr2UnderLoadLeavesAWholeReportAndEnds)
{
    StartServer();
    const std::string stop = directory.File("stop");
    const pid_t client = StartClient(0, directory.File("commands"), stop);
    EXPECT_TRUE(WaitUntil([] { return Ctl({"status"}).out.find("Faults: 5\n") != std::string::npos; }));
    kill(server, SIGUSR2);
    EXPECT_EQ(EndOfServer(), 128 + SIGABRT);
    EXPECT_NE(ReadFile(CrashFile).find("SIGNAL " + std::to_string(SIGUSR2) + " detected."), std::string::npos);
    kill(-client, SIGKILL); // it would try each of its commands again
    EndChild(client);
}

} // namespace
