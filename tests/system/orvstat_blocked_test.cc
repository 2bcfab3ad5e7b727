// SPDX-License-Identifier: BSD-2-Clause
// What orvstat tells of processes: who waits on a queue, and who lives, where the host shows much or little of them.
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>

#include "tests/system/orvstat_testing.h"

using namespace orvstat_testing;

namespace {

// What stands behind the state and the program in the line of "hello".
std::string Receivers(pid_t server)
{
    const std::string shown = Shown();
    const std::string line = shown.substr(0, shown.find('\n'));
    EXPECT_EQ(line.find("hello up " + Number(server) + " "), 0u) << shown;
    return line.substr(line.rfind(' ') + 1);
}

TEST_F(OrvstatTest, AProcessIsNamedOnceHoweverManyOfItsThreadsWait)
{
    const pid_t server = StartDeafServer("hello");
    const int qid = QueueOf("hello");
    const auto waits = [=] {
        RawMessage message;
        msgrcv(qid, &message, sizeof message.text, 0x7FFFFFF, 0);
    };
    const pid_t receiver = StartChild([=] {
        std::thread other(waits);
        waits();
        other.join();
    });
    const auto allWait = [=] {
        long waiting = 0;
        for (const auto& thread : std::filesystem::directory_iterator("/proc/" + Number(receiver) + "/task"))
            waiting += WaitsOnAQueue(static_cast<pid_t>(std::stol(thread.path().filename())));
        return waiting == 2;
    };
    ASSERT_TRUE(WaitUntil(allWait));
    EXPECT_EQ(Receivers(server), Number(receiver));
    EndChild(receiver);
    EndChild(server, SIGTERM);
}

#if defined(SYS_msgrcv) && __SIZEOF_LONG__ == 8
// The host's call takes 32 bits of the register, and compilers leave the others as they were.
TEST_F(OrvstatTest, AWaitIsSeenWhateverStandsInTheUpperHalfOfItsArgument)
{
    const pid_t server = StartDeafServer("hello");
    const long qid = QueueOf("hello");
    const pid_t receiver = StartChild([=] {
        RawMessage message;
        syscall(SYS_msgrcv, qid | 0x500000000L, &message, sizeof message.text, 0x7FFFFFFL, 0);
    });
    ASSERT_TRUE(WaitUntil([&] { return WaitsOnAQueue(receiver); }));
    EXPECT_EQ(Receivers(server), Number(receiver));
    EndChild(receiver);
    EndChild(server, SIGTERM);
}
#endif

TEST_F(OrvstatTest, AServerThatMayNotBeSignalledLives)
{
    const pid_t server = StartServer("hello", ServeEchoes);
    const ChildResult shown = RunInChild([] {
        MakeCallsFail({SYS_kill}, EPERM);
        Execute(Orvstat, {});
    });
    if (shown.exitCode != NotPossibleHere) {
        EXPECT_EQ(shown.exitCode, 0);
        EXPECT_NE(Squeezed(shown.out).find("\nhello up " + Number(server) + " " + OwnProgram() + " "),
                  std::string::npos)
            << shown.out;
    }
    EndChild(server, SIGTERM);
}

TEST_F(OrvstatTest, AHostThatShowsNoProcessesHasServers)
{
    const pid_t server = StartServer("hello", ServeEchoes);
    const pid_t dead = LeaveStale("gone");
    const ChildResult shown = RunInChild([] {
        ChildNeeds(unshare(CLONE_NEWNS) == 0 && mount("none", "/proc", "tmpfs", 0, "size=16k") == 0);
        Execute(Orvstat, {});
    });
    if (shown.exitCode != NotPossibleHere) {
        EXPECT_EQ(shown.exitCode, 1);
        const std::string text = Squeezed(shown.out);
        EXPECT_NE(text.find("\nhello up " + Number(server) + " - "), std::string::npos) << text;
        EXPECT_NE(text.find("\ngone stale " + Number(dead) + " - "), std::string::npos) << text;
    }
    EndChild(server, SIGTERM);
    EXPECT_EQ(Call({"clean", "gone"}).exitCode, 0);
}

TEST_F(OrvstatTest, AHostWithoutProgramsHasNoServers)
{
    const pid_t server = StartServer("hello", ServeEchoes);
    const ChildResult shown = RunInChild([] {
        const int program = open(Orvstat.c_str(), O_RDONLY | O_CLOEXEC);
        ChildNeeds(unshare(CLONE_NEWNS) == 0 && mount("none", "/opt", "tmpfs", 0, "size=16k") == 0);
        char name[] = "orvstat";
        char* const arguments[] = {name, nullptr};
        fexecve(program, arguments, environ);
    });
    if (shown.exitCode != NotPossibleHere) {
        EXPECT_EQ(shown.exitCode, 0);
        EXPECT_NE(shown.out.find(": no file in /opt/orv/bin has its key "), std::string::npos)
            << shown.out << shown.err;
    }
    EndChild(server, SIGTERM);
}

} // namespace
