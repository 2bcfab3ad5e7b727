// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/ipc.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <fstream>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/testing.h"

namespace {

using namespace testing_support;

struct Record {
    int32_t mtype;
    char text[12];
};

struct HostMessage {
    long type;
    char text[64];
};

class IpcTest : public ::testing::Test {
protected:
    int queue = msgget(IPC_PRIVATE, IPC_CREAT | 0660);
    int set = semget(IPC_PRIVATE, 2, IPC_CREAT | 0660);
    ~IpcTest() override
    {
        msgctl(queue, IPC_RMID, nullptr);
        semctl(set, 0, IPC_RMID);
    }
};

TEST_F(IpcTest, SendsARecordInPlaceAndRestoresIt)
{
    svr4::MessageArea<Record> area;
    area.record = {0x12345678, "hello world"};
    ASSERT_EQ(svr4::msgsnd(queue, &area.record, 5, IPC_NOWAIT), 0);
    EXPECT_EQ(area.record.mtype, 0x12345678);
    EXPECT_STREQ(area.record.text, "hello world");

    HostMessage host;
    ASSERT_EQ(msgrcv(queue, &host, sizeof host.text, 0, IPC_NOWAIT), 5);
    EXPECT_EQ(host.type, 0x12345678L);
    EXPECT_EQ(std::memcmp(host.text, "hello", 5), 0);
}

TEST_F(IpcTest, AFailedSendRestoresTheRecordAndKeepsTheErrno)
{
    svr4::MessageArea<Record> area;
    area.record = {-5, "hello"};
    EXPECT_EQ(svr4::msgsnd(queue, &area.record, 5, IPC_NOWAIT), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(area.record.mtype, -5);
    EXPECT_STREQ(area.record.text, "hello");
}

TEST_F(IpcTest, ReceivesIntoARecordInPlace)
{
    const HostMessage host = {0x7FFFFFFF, "abcdefgh"};
    ASSERT_EQ(msgsnd(queue, &host, 8, IPC_NOWAIT), 0);
    svr4::MessageArea<Record> area;
    area.record = {1, "..........."};
    ASSERT_EQ(svr4::msgrcv(queue, &area.record, sizeof area.record.text, 0, IPC_NOWAIT), 8);
    EXPECT_EQ(area.record.mtype, 0x7FFFFFFF);
    EXPECT_STREQ(area.record.text, "abcdefgh...");
}

TEST_F(IpcTest, AFailedReceiveLeavesTheRecord)
{
    svr4::MessageArea<Record> area;
    area.record = {77, "kept"};
    EXPECT_EQ(svr4::msgrcv(queue, &area.record, sizeof area.record.text, 9, IPC_NOWAIT), -1);
    EXPECT_EQ(errno, ENOMSG);
    EXPECT_EQ(area.record.mtype, 77);
    EXPECT_STREQ(area.record.text, "kept");
}

TEST_F(IpcTest, StatusHasKeyAndBytes)
{
    struct msqid_ds status;
    ASSERT_EQ(msgctl(queue, IPC_STAT, &status), 0);
    EXPECT_EQ(svr4::queue_key(status), IPC_PRIVATE);
    EXPECT_EQ(svr4::queue_cbytes(status), 0u);
    const HostMessage host = {1, "abc"};
    ASSERT_EQ(msgsnd(queue, &host, 3, IPC_NOWAIT), 0);
    ASSERT_EQ(msgctl(queue, IPC_STAT, &status), 0);
    EXPECT_EQ(svr4::queue_cbytes(status), 3u);

    const key_t key = ftok("/", 3);
    const int keyed = msgget(key, IPC_CREAT | IPC_EXCL | 0660);
    ASSERT_GE(keyed, 0);
    ASSERT_EQ(msgctl(keyed, IPC_STAT, &status), 0);
    EXPECT_EQ(svr4::queue_key(status), key);
    msgctl(keyed, IPC_RMID, nullptr);
}

TEST_F(IpcTest, SmallProcessIdsAreStoredAsTheyAre)
{
    EXPECT_EQ(svr4::semaphore_count(set), 2);
    EXPECT_EQ(svr4::semaphore_pid(set, 0), 0);
    EXPECT_EQ(svr4::set_semaphore_pid(set, 1, 32766), 0);
    EXPECT_EQ(semctl(set, 1, GETVAL), 32766);
    EXPECT_EQ(svr4::semaphore_pid(set, 1), 32766);
    EXPECT_EQ(svr4::semaphore_pid(set, 0), 0);
    EXPECT_EQ(svr4::set_semaphore_pid(set, 1, 0), 0);
    EXPECT_EQ(svr4::semaphore_pid(set, 1), 0);
}

TEST_F(IpcTest, FailuresGiveMinusOne)
{
    EXPECT_EQ(svr4::semaphore_pid(set, 2), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(svr4::set_semaphore_pid(set, 2, 5), -1);
    EXPECT_EQ(svr4::set_semaphore_pid(set, 0, -1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(svr4::semaphore_count(-1), -1);
    EXPECT_EQ(svr4::semaphore_pid(-1, 0), -1);
}

TEST_F(IpcTest, ALargeProcessIdIsStoredByItsOwnProcessOnly)
{
    EXPECT_EQ(svr4::set_semaphore_pid(set, 0, 4194303), -1);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(svr4::set_semaphore_pid(set, 0, 32767), -1) << "the marker itself";
    EXPECT_EQ(svr4::semaphore_pid(set, 0), 0);

    if (!InSandbox())
        GTEST_SKIP() << "needs a process id range of its own";
    WriteFile("/proc/sys/kernel/pid_max", "4194304");
    for (const long wanted : {32766L, 32767L, 32768L, 1000000L, 4194303L}) {
        WriteFile("/proc/sys/kernel/ns_last_pid", std::to_string(wanted - 1));
        const pid_t child = StartChild([&] { _exit(svr4::set_semaphore_pid(set, 0, getpid()) == 0 ? 0 : 1); });
        ASSERT_EQ(child, wanted);
        EXPECT_EQ(WaitForExit(child), 0);
        EXPECT_EQ(semctl(set, 0, GETVAL), wanted < 32767 ? wanted : 32767);
        EXPECT_EQ(svr4::semaphore_pid(set, 0), wanted) << "also when the process is gone";
        EXPECT_EQ(svr4::set_semaphore_pid(set, 1, 12), 0) << "another slot does not disturb it";
        EXPECT_EQ(svr4::semaphore_pid(set, 0), wanted);
    }
}

} // namespace
