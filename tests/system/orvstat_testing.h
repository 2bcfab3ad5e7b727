// SPDX-License-Identifier: BSD-2-Clause
// What the tests of orvstat share: the program, run, and servers in all states.
#ifndef TESTS_SYSTEM_ORVSTAT_TESTING_H
#define TESTS_SYSTEM_ORVSTAT_TESTING_H

#include <string>
#include <vector>

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/eventmgr.h"
#include "tests/support/echo_server.h"
#include "tests/unit/ipcq_testing.h"

namespace orvstat_testing {

using namespace ipcq_testing;

inline const std::string Orvstat = ProgramUnderTest(ORVSTAT);

inline ChildResult Call(const std::vector<std::string>& arguments) { return RunProgram(Orvstat, arguments); }

/// The exit code, and what was written, in one text.
inline std::string Result(const std::vector<std::string>& arguments)
{
    const ChildResult result = Call(arguments);
    return std::to_string(result.exitCode) + ": " + result.out + result.err;
}

inline std::string Number(long number) { return std::to_string(number); }

/// The text with each run of blanks as one.
inline std::string Squeezed(const std::string& text) { return Replaced(text, " +", " "); }

/// The lines of the table and behind it, squeezed, with clock times as "<time>"; without the headings.
inline std::string Shown(int exitCode = 0)
{
    const ChildResult result = Call({});
    EXPECT_EQ(result.exitCode, exitCode) << result.out << result.err;
    EXPECT_EQ(result.err, "");
    const std::string text = Replaced(Squeezed(result.out), "[0-9][0-9]:[0-9][0-9]:[0-9][0-9]", "<time>");
    EXPECT_EQ(text.compare(0, 5, "NAME "), 0) << text;
    return text.substr(text.find('\n') + 1);
}

/// The name that the host keeps of this program.
inline std::string OwnProgram()
{
    const std::string name = program_invocation_short_name;
    return name.substr(0, 15);
}

inline int QueueOf(const char* name)
{
    const int qid = msgget(ftok_orvm(name), 0);
    EXPECT_GE(qid, 0) << name;
    return qid;
}

inline int SetOf(const char* name)
{
    const int semid = semget(ftok_orvm(name), 0, 0);
    EXPECT_GE(semid, 0) << name;
    return semid;
}

/// Whether a process waits in a system call of queues.
inline bool WaitsOnAQueue(pid_t pid)
{
    const std::string call = ReadFile("/proc/" + Number(pid) + "/syscall");
    const long number = std::atol(call.c_str());
#ifdef SYS_ipc
    if (number == SYS_ipc)
        return true;
#endif
    return number == SYS_msgsnd || number == SYS_msgrcv;
}

/// A server that was killed and whose parent has taken note; its process id.
inline pid_t LeaveStale(const char* name)
{
    const pid_t pid = StartServer(name, ServeEchoes);
    EndChild(pid, SIGKILL);
    return pid;
}

/// Stops a process and waits until it has stopped.
inline void Stop(pid_t pid)
{
    kill(pid, SIGSTOP);
    siginfo_t stopped;
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &stopped, WSTOPPED), 0);
}

/// Starts a server that takes nothing off its queue, and fills the queue with events of 1300 bytes.
inline pid_t StartDeafServer(const char* name)
{
    const pid_t pid = StartServer(name, [](Server&) {
        for (;;)
            pause();
    });
    const std::string record(1300, 'x');
    while (SendRaw(QueueOf(name), pid, record.data(), record.size(), IPC_NOWAIT) == 0)
        ;
    return pid;
}

/// Starts a client that waits for room on a full queue.
inline pid_t StartBlockedSender(const char* name, long server)
{
    const int qid = QueueOf(name);
    const pid_t pid = StartChild([=] {
        const std::string record(1300, 'x');
        SendRaw(qid, server, record.data(), record.size());
    });
    EXPECT_TRUE(WaitUntil([&] { return WaitsOnAQueue(pid); }));
    return pid;
}

class OrvstatTest : public IpcqTest {
protected:
    void SetUp() override
    {
        if (!InSandbox())
            GTEST_SKIP() << "needs a private /opt/orv/bin";
        IpcqTest::SetUp();
        if (system("rm -f /opt/orv/bin/*") != 0)
            FAIL();
    }
};

} // namespace orvstat_testing

#endif
