// SPDX-License-Identifier: BSD-2-Clause
// orvstat clean, run for real: what dead servers left goes, what a living one may need stays.
#include <csignal>
#include <cstddef>
#include <functional>
#include <string>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "tests/system/orvstat_testing.h"

using namespace orvstat_testing;

namespace {

TEST_F(OrvstatTest, CleansUpAfterADeadServer)
{
    const pid_t dead = LeaveStale("hello");
    const int qid = QueueOf("hello");
    const std::string set = Number(SetOf("hello"));
    SendRecord(qid, dead, IPCQMessage(), 300);
    SendRecord(qid, dead, IPCQMessage(), 308);
    EXPECT_EQ(Result({"clean", "hello"}), "0: hello: removed queue " + Number(qid) +
                                              " (2 messages, 608 bytes) and semaphore set " + set + "; server " +
                                              Number(dead) + " is dead\n");
    EXPECT_EQ(ObjectsOf("msg"), 0);
    EXPECT_EQ(ObjectsOf("sem"), 0);
    EXPECT_EQ(Result({"clean", "hello"}), "0: hello: nothing is left of a server\n");
    EXPECT_EQ(Result({"--json", "clean", "hello"}),
              "0: {\"name\": \"hello\", \"removed_queue\": null, \"removed_set\": null, \"remark\": \"nothing is left "
              "of a server\"}\n");
    EXPECT_EQ(Result({"clean", "unknown"}), "3: unknown: not cleaned: there is no key file of this name\n");
}

TEST_F(OrvstatTest, CleansUpAfterOneWhoseParentTakesNoNotice)
{
    const pid_t server = StartServer("hello", ServeEchoes);
    kill(server, SIGKILL);
    siginfo_t ended;
    waitid(P_PID, static_cast<id_t>(server), &ended, WEXITED | WNOWAIT);
    EXPECT_EQ(Shown(1).compare(0, 12, "hello stale "), 0);
    EXPECT_EQ(Call({"clean", "hello"}).exitCode, 0);
    EXPECT_EQ(ObjectsOf("msg") + ObjectsOf("sem"), 0);
    WaitForExit(server);
}

TEST_F(OrvstatTest, CleansAwayASetWithoutAQueue)
{
    const pid_t dead = LeaveStale("hello");
    const std::string set = Number(SetOf("hello"));
    msgctl(QueueOf("hello"), IPC_RMID, nullptr);
    EXPECT_EQ(Result({"clean", "hello"}),
              "0: hello: removed semaphore set " + set + "; server " + Number(dead) + " is dead\n");
    EXPECT_EQ(ObjectsOf("sem"), 0);
}

TEST_F(OrvstatTest, CleansUpAfterAServerOfAFileOfTheDirectory)
{
    const TemporaryDirectory directory;
    WriteFile(directory.File("mykey"), "");
    const auto inDirectory = [&](const std::function<void()>& body) {
        return StartChild([&] {
            CHILD_CHECK(chdir(directory.Path().c_str()) == 0);
            body();
        });
    };
    const pid_t server = inDirectory([] {
        Server local("mykey");
        CHILD_CHECK(local.Created());
        ServeEchoes(local);
    });
    ASSERT_TRUE(WaitUntil([&] { return WaitsOnAQueue(server); }));
    EndChild(server, SIGKILL);
    EXPECT_EQ(WaitForExit(inDirectory([] { Execute(Orvstat, {"clean", "mykey"}); })), 0);
    EXPECT_EQ(ObjectsOf("msg") + ObjectsOf("sem"), 0);
}

TEST_F(OrvstatTest, CleansNothingOfALivingServer)
{
    const pid_t server = StartServer("hello", ServeEchoes);
    EXPECT_EQ(Result({"clean", "hello"}),
              "1: hello: not cleaned: server " + Number(server) + " (" + OwnProgram() + ") lives\n");
    Stop(server);
    EXPECT_EQ(Result({"clean", "hello"}),
              "1: hello: not cleaned: server " + Number(server) + " is stopped by a signal or a debugger\n");
    kill(server, SIGCONT);
    EXPECT_TRUE(Client("hello").Connected());
    EndChild(server, SIGTERM);
}

TEST_F(OrvstatTest, CleansNothingOfWhichItIsNotSure)
{
    const pid_t starting = IdleProcess();
    MakeKeyFile("hello");
    const int set = semget(ftok_orvm("hello"), 1, IPC_CREAT | 0660);
    ASSERT_EQ(semctl(set, 0, SETVAL, static_cast<int>(starting)), 0);
    EXPECT_EQ(Result({"clean", "hello"}),
              "1: hello: not cleaned: server " + Number(starting) + " is starting: it has no queue yet\n");
    EndChild(starting);
    semctl(set, 0, IPC_RMID);
    const int qid = msgget(ftok_orvm("hello"), IPC_CREAT | 0660);
    EXPECT_EQ(Result({"clean", "hello"}).compare(0, 48, "1: hello: not cleaned: nothing tells whose queue"), 0);
    msgctl(qid, IPC_RMID, nullptr);
}

TEST_F(OrvstatTest, CleansNothingWhileTheKeyFileIsLocked)
{
    LeaveStale("hello");
    const int file = open("/opt/orv/bin/hello", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(file, LOCK_EX), 0);
    EXPECT_EQ(Result({"clean", "hello"}), "1: hello: not cleaned: a server starts or ends at this moment, or a stopped "
                                          "process holds the key file's lock\n");
    EXPECT_TRUE(QueueExists(QueueOf("hello")));
    close(file);
    EXPECT_EQ(Call({"clean", "hello"}).exitCode, 0);
}

// Changes the set of a dead server between the two looks of clean, if this process is run in time. What clean says.
std::string CleanWhile(const std::function<void(int semid)>& change)
{
    LeaveStale("hello");
    const int semid = SetOf("hello");
    const TemporaryDirectory directory;
    const std::string log = directory.File("log");
    const int file = open("/opt/orv/bin/hello", O_RDONLY | O_CLOEXEC);
    const pid_t clean = StartProgram(Orvstat, {"clean", "hello"}, log);
    const auto isLocked = [&] {
        const bool isFree = flock(file, LOCK_EX | LOCK_NB) == 0;
        if (isFree)
            flock(file, LOCK_UN);
        return !isFree;
    };
    WaitUntil(isLocked, 2); // from the first look to the last
    usleep(100000);
    change(semid);
    WaitForExit(clean);
    close(file);
    return ReadFile(log);
}

TEST_F(OrvstatTest, CleansNothingThatChangesMeanwhile)
{
    std::string said;
    const std::string expected = "hello: not cleaned: a server starts or ends at this moment\n";
    for (int attempt = 0; attempt < 10 && said != expected; attempt++) {
        // As a server does that may not read its key file and so starts without the lock.
        const pid_t living = IdleProcess();
        said = CleanWhile([&](int semid) { semctl(semid, 0, SETVAL, static_cast<int>(living)); });
        EndChild(living);
        EXPECT_EQ(Call({"clean", "hello"}).exitCode, 0);
    }
    EXPECT_EQ(said, expected);
    said.clear();
    for (int attempt = 0; attempt < 10 && said != expected; attempt++) {
        said = CleanWhile([](int semid) { semctl(semid, 0, IPC_RMID); });
        const int qid = msgget(ftok_orvm("hello"), 0); // removed where the change came too late
        EXPECT_EQ(qid >= 0, said == expected);
        msgctl(qid, IPC_RMID, nullptr);
    }
    EXPECT_EQ(said, expected);
}

TEST_F(OrvstatTest, NeverTakesAStartingServersQueue)
{
    for (int round = 0; round < 15; round++) {
        LeaveStale("hello");
        const pid_t server = StartChild([&] {
            usleep(static_cast<unsigned>(round) * 10000); // before, in and after what clean does
            Server starting("hello");
            CHILD_CHECK(starting.Created());
            ServeEchoes(starting);
        });
        Call({"clean", "hello"});
        const auto serves = [&] {
            Client client("hello");
            return client.Connected() && client.GetServerPID() == server;
        };
        EXPECT_TRUE(WaitUntil(serves)) << "round " << round;
        EXPECT_EQ(Call({"clean", "hello"}).exitCode, 1);
        EXPECT_TRUE(serves());
        EXPECT_EQ(EndChild(server, SIGTERM), 0);
    }
}

// ---- Rights and refusals ----

#ifndef SYS_ipc // there one call has all of these
// Makes the removal of the objects of a kind fail for this process: the call with that number, whose command is one of
// its arguments.
void MakeRemovalFail(long number, int argument, int error)
{
    const unsigned lowHalf = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? 0 : 4;
    const unsigned place =
        static_cast<unsigned>(offsetof(struct seccomp_data, args)) + 8U * static_cast<unsigned>(argument);
    sock_filter rules[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(number), 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, place + lowHalf),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPC_RMID, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter = {sizeof rules / sizeof rules[0], rules};
    ChildNeeds(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0);
}

TEST_F(OrvstatTest, SaysWhatItMayNotRemove)
{
    LeaveStale("hello");
    const int qid = QueueOf("hello");
    const int semid = SetOf("hello");
    const auto clean = [](long number, int argument, int error) {
        return RunInChild([=] {
            MakeRemovalFail(number, argument, error);
            Execute(Orvstat, {"clean", "hello"});
        });
    };
    const ChildResult queue = clean(SYS_msgctl, 1, EPERM);
    if (queue.exitCode != NotPossibleHere) {
        EXPECT_EQ(queue.exitCode, 4);
        EXPECT_EQ(queue.err, "hello: not cleaned: queue " + Number(qid) + " belongs to user 0\n");
        EXPECT_TRUE(QueueExists(qid));
        const ChildResult set = clean(SYS_semctl, 2, EFAULT);
        EXPECT_EQ(set.exitCode, 1);
        EXPECT_EQ(set.err, "hello: removed queue " + Number(qid) + " (no message), but not all: semaphore set " +
                               Number(semid) + ": Bad address\n");
    }
    EXPECT_EQ(Call({"clean", "hello"}).exitCode, 0);
}

TEST_F(OrvstatTest, SaysThatASetAloneIsNotItsToRemove)
{
    LeaveStale("hello");
    const int semid = SetOf("hello");
    msgctl(QueueOf("hello"), IPC_RMID, nullptr);
    const ChildResult set = RunInChild([] {
        MakeRemovalFail(SYS_semctl, 2, EPERM);
        Execute(Orvstat, {"clean", "hello"});
    });
    if (set.exitCode != NotPossibleHere) {
        EXPECT_EQ(set.exitCode, 4);
        EXPECT_EQ(set.err, "hello: not cleaned: semaphore set " + Number(semid) + " belongs to user 0\n");
    }
    EXPECT_EQ(Call({"clean", "hello"}).exitCode, 0);
}

// Whoever removed it: it is gone.
TEST_F(OrvstatTest, WhatSomebodyElseRemovesMeanwhileIsRemoved)
{
    for (const int error : {EINVAL, EIDRM}) {
        LeaveStale("hello");
        const std::string queue = Number(QueueOf("hello"));
        const std::string set = Number(SetOf("hello"));
        const ChildResult result = RunInChild([=] {
            MakeRemovalFail(SYS_msgctl, 1, error);
            MakeRemovalFail(SYS_semctl, 2, error);
            Execute(Orvstat, {"clean", "hello"});
        });
        if (result.exitCode != NotPossibleHere) {
            EXPECT_EQ(result.exitCode, 0);
            const std::string removed =
                "hello: removed queue " + queue + " (no message) and semaphore set " + set + "; ";
            EXPECT_EQ(result.out.compare(0, removed.size(), removed), 0) << result.out;
        }
        EXPECT_EQ(Call({"clean", "hello"}).exitCode, 0);
    }
}
#endif

TEST_F(OrvstatTest, CleansNothingWhoseKeyFileItMayNotRead)
{
    LeaveStale("hello");
    chmod("/opt/orv/bin/hello", 0);
    const ChildResult result = RunInChild([] {
        DropPrivileges();
        Execute(Orvstat, {"clean", "hello"});
    });
    if (result.exitCode != NotPossibleHere) {
        EXPECT_EQ(result.exitCode, 4);
        EXPECT_EQ(result.err, "hello: not cleaned: its key file cannot be locked: Permission denied\n");
    }
    EXPECT_EQ(Call({"clean", "hello"}).exitCode, 0);
}

} // namespace
