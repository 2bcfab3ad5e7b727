// SPDX-License-Identifier: BSD-2-Clause
// Servers of one name that start, end and are killed at the same time as clients connect.

#include "Misc/ipcq.h"

#include <csignal>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/proginfo.h"
#include "tests/support/testing.h"

using namespace testing_support;

namespace {

const char* const Name = "race";
enum StartTestEvents : short { Ask = 1, Exit = 9 };
const int Servers = 6;
const int Clients = 3;

enum Outcome { Unknown, Created, Refused, Reported };

// What the processes of a round share.
struct Round {
    volatile int go;
    volatile int over; // the clients stop
    volatile int outcome[Servers];
};

// Answers until it is told to end.
void Serve(IPCQServer& server)
{
    for (short event = 0; event != Exit;) {
        short response, ack;
        Buffer data;
        server.receive_event(event, data, response, ack);
        if (response)
            server.send_response(event, 45, nullptr, 0);
    }
}

int ObjectsOf(const char* kind) { return CountOf(ReadFile(std::string("/proc/sysvipc/") + kind), "\n") - 1; }

class QueueStart : public testing::Test {
protected:
    void SetUp() override
    {
        if (!InSandbox())
            GTEST_SKIP() << "needs the sandbox";
        static const char* arguments[] = {"queue_start_test", nullptr};
        ProgInfo::Initialize(1, const_cast<char* const*>(arguments), environ, "1.0");
        WriteFile("/proc/sys/kernel/msgmnb", "500736"); // so that nothing about the size is reported
        MakeKeyFile(Name);
        round = static_cast<Round*>(
            mmap(nullptr, sizeof *round, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        ASSERT_NE(round, MAP_FAILED);
    }
    void TearDown() override
    {
        if (round != nullptr)
            munmap(round, sizeof *round);
    }

    void AwaitGo() const
    {
        while (!round->go)
            usleep(50);
    }

    pid_t StartServer(int number)
    {
        return StartChild([=] {
            AwaitGo();
            IPCQServer* server = nullptr;
            const std::string reports = CaptureStderr([&] { server = new IPCQServer(Name); });
            round->outcome[number] = !reports.empty() ? Reported : server->Created() ? Created : Refused;
            if (server->Created())
                Serve(*server);
            delete server;
        });
    }

    pid_t StartClient()
    {
        return StartChild([=] {
            AwaitGo();
            while (!round->over)
                IPCQClient(0, Name);
        });
    }

    // Lets all start at once; the process id of the server that got the queue, or -1.
    pid_t RunRound()
    {
        new (round) Round();
        std::vector<pid_t> servers, clients;
        for (int i = 0; i < Servers; i++)
            servers.push_back(StartServer(i));
        for (int i = 0; i < Clients; i++)
            clients.push_back(StartClient());
        round->go = 1;

        pid_t winner = -1;
        int winners = 0;
        for (int i = 0; i < Servers; i++) {
            EXPECT_TRUE(WaitUntil([=] { return round->outcome[i] != Unknown; }));
            EXPECT_NE(round->outcome[i], Reported);
            if (round->outcome[i] == Created) {
                winner = servers[static_cast<size_t>(i)];
                winners++;
            }
        }
        round->over = 1;
        for (const pid_t client : clients)
            EXPECT_EQ(WaitForExit(client), 0);
        for (const pid_t server : servers)
            EXPECT_TRUE(server == winner || WaitForExit(server) == 0);
        EXPECT_EQ(winners, 1);
        return winner;
    }

    static void ExpectAnswers(pid_t server)
    {
        IPCQClient client(0, Name);
        ASSERT_TRUE(client.Connected());
        EXPECT_EQ(client.GetServerPID(), server);
        ASSERT_EQ(client.send_event_with_response(Ask, nullptr, 0), 0);
        short event = 0;
        Buffer data;
        EXPECT_EQ(client.receive_response(event, data), 45);
        EXPECT_EQ(event, Ask);
    }

    static void End(pid_t server)
    {
        EXPECT_EQ(IPCQClient(0, Name).send_event(Exit, nullptr, 0), 0);
        EXPECT_EQ(WaitForExit(server), 0);
        EXPECT_EQ(ObjectsOf("msg"), 0);
        EXPECT_EQ(ObjectsOf("sem"), 0);
    }

    // The next process gets an id from there on.
    static void NextProcessId(long pid)
    {
        WriteFile("/proc/sys/kernel/pid_max", "4194304");
        WriteFile("/proc/sys/kernel/ns_last_pid", std::to_string(pid - 1));
    }

    static int SlotValue() { return semctl(semget(ftok_orvm(Name), 0, 0660), 0, GETVAL); }

    Round* round = nullptr;
};

TEST_F(QueueStart, OneOfManyServersGetsTheQueue)
{
    for (int i = 0; i < 60 && !HasFailure(); i++) {
        const pid_t winner = RunRound();
        EXPECT_EQ(SlotValue(), winner);
        ExpectAnswers(winner);
        End(winner);
    }
}

TEST_F(QueueStart, SoItDoesWithLargeProcessIds)
{
    for (int i = 0; i < 20 && !HasFailure(); i++) {
        NextProcessId(100000 + 100 * i);
        const pid_t winner = RunRound();
        EXPECT_GT(winner, 32767);
        EXPECT_EQ(SlotValue(), 32767) << "the marker: the one that set it";
        ExpectAnswers(winner);
        End(winner);
    }
    NextProcessId(1000);
}

TEST_F(QueueStart, OneOfManySuccessorsOfAKilledServerGetsTheQueue)
{
    pid_t server = RunRound();
    for (int i = 0; i < 40 && !HasFailure(); i++) {
        EndChild(server);
        server = RunRound();
        ExpectAnswers(server);
    }
    End(server);
}

// A server that ends because of a signal, whatever it does at that moment, takes what it made along.
TEST_F(QueueStart, ASignalAtAnyMomentLeavesNothingBehind)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the leak checker waits for ever for an allocator in which the signal has come";
#endif
    for (int i = 0; i < 150 && !HasFailure(); i++) {
        new (round) Round();
        const pid_t child = StartChild([=] {
            const IPCQClient monitored(0, nullptr); // from now on signals are handled
            round->go = 1;
            for (;;)
                IPCQServer(Name).Shutdown();
        });
        ASSERT_TRUE(WaitUntil([=] { return round->go != 0; }));
        usleep(static_cast<useconds_t>(i * 37 % 400));
        EXPECT_EQ(EndChild(child, SIGTERM), 0);
        EXPECT_EQ(ObjectsOf("msg"), 0) << i;
        EXPECT_EQ(ObjectsOf("sem"), 0) << i;
    }
}

} // namespace
