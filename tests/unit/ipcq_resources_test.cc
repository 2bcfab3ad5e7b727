// SPDX-License-Identifier: BSD-2-Clause
#include "tests/unit/ipcq_testing.h"

#include <climits>
#include <ctime>
#include <sstream>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace {

using namespace ipcq_testing;

class IpcqResources : public IpcqTest {};

key_t KeyOf(const std::string& path) { return ftok(path.c_str(), 1); }

int SetOf(key_t key) { return semget(key, 0, 0660); }

double SecondsOf(const std::function<void()>& body)
{
    struct timespec from, to;
    clock_gettime(CLOCK_MONOTONIC, &from);
    body();
    clock_gettime(CLOCK_MONOTONIC, &to);
    return double(to.tv_sec - from.tv_sec) + double(to.tv_nsec - from.tv_nsec) / 1e9;
}

TEST_F(IpcqResources, KeysComeFromKeyFiles)
{
    TemporaryDirectory directory;
    WriteFile(directory.File("local"), "");
    WriteFile(directory.File("both"), "");
    WriteFile(directory.File("orvd"), "");
    MakeKeyFile("both");
    const std::string earlier = [] {
        char path[4096];
        return std::string(getcwd(path, sizeof path));
    }();
    ASSERT_EQ(chdir(directory.Path().c_str()), 0);

    EXPECT_EQ(ftok_orvm(directory.File("local").c_str()), KeyOf(directory.File("local"))) << "a path as it stands";
    EXPECT_EQ(ftok_orvm("./local"), KeyOf("./local"));
    EXPECT_EQ(ftok_orvm("both"), KeyOf("/opt/orv/bin/both")) << "the program directory first";
    EXPECT_EQ(ftok_orvm("local"), KeyOf("local")) << "then the current one";
    if (access("/opt/orv/bin/orvd", F_OK) != 0) { // on the real paths it may be there
        EXPECT_LT(ftok_orvm("orvd"), 0) << "but not for the daemon";
    }
    MakeKeyFile("orvd");
    EXPECT_EQ(ftok_orvm("orvd"), KeyOf("/opt/orv/bin/orvd"));
    EXPECT_LT(ftok_orvm("absent"), 0);
    EXPECT_LT(ftok_orvm("/absent/orvd"), 0);
    EXPECT_LT(ftok_orvm(nullptr), 0);
    EXPECT_LT(ftok_orvm(std::string(10000, 'a').c_str()), 0);
    EXPECT_GT(ftok_orvm("both"), 0);

    ASSERT_EQ(chdir(earlier.c_str()), 0);
    unlink("/opt/orv/bin/orvd");
}

TEST_F(IpcqResources, FailuresHaveTheirReasons)
{
    EXPECT_STREQ(GetQueueErrorMsg(EIDRM), "the ipc queue no longer exists");
    EXPECT_STREQ(GetQueueErrorMsg(ENOSPC), "the system tables are full");
    EXPECT_STREQ(GetQueueErrorMsg(ENOENT), "the queue does not exist");
    EXPECT_STREQ(GetQueueErrorMsg(EAGAIN), "the queue is full");
    EXPECT_STREQ(GetQueueErrorMsg(EACCES), "of invalid access permission");
    EXPECT_STREQ(GetQueueErrorMsg(EEXIST), "the queue exists, exclusive requested");
    EXPECT_STREQ(GetQueueErrorMsg(EINVAL), "of an invalid argument or the queue does not exist");
    EXPECT_STREQ(GetQueueErrorMsg(7), "of unknown error (7)");
    const char* earlier = GetQueueErrorMsg(-2147483647);
    EXPECT_STREQ(earlier, "of unknown error (-2147483647)");
    GetQueueErrorMsg(0);
    EXPECT_STREQ(earlier, "of unknown error (0)") << "one static buffer";
}

TEST_F(IpcqResources, TellsWhetherAProcessExists)
{
    EXPECT_EQ(process_exists(getpid()), 1);
    EXPECT_EQ(process_exists(1), 1);
    EXPECT_EQ(process_exists(0), 1) << "the own process group";
    EXPECT_EQ(process_exists(-1), 0);
    EXPECT_EQ(process_exists(DeadProcess()), 0);
    EXPECT_EQ(process_exists(0x7FFFFFFF), 0);
}

TEST_F(IpcqResources, CreateMakesQueueAndSet)
{
    MakeKeyFile("create");
    const int queue = create_queue("create", getpid());
    ASSERT_GE(queue, 0);
    const struct msqid_ds status = QueueStatus(queue);
    EXPECT_EQ(status.msg_perm.__key, KeyOf("/opt/orv/bin/create"));
    EXPECT_EQ(status.msg_perm.mode & 0777, 0660);
    const int set = get_semid_from_msqid(queue);
    ASSERT_GE(set, 0);
    EXPECT_EQ(set, SetOf(KeyOf("/opt/orv/bin/create")));
    struct semid_ds setStatus = {};
    ASSERT_EQ(semctl(set, 0, IPC_STAT, &setStatus), 0);
    EXPECT_EQ(setStatus.sem_perm.mode & 0777, 0660);
    EXPECT_EQ(setStatus.sem_nsems, 1u);
    EXPECT_EQ(semctl(set, 0, GETVAL), getpid());
    delete_q_and_semaphore(queue);
    EXPECT_FALSE(QueueExists(queue));
    EXPECT_LT(SetOf(KeyOf("/opt/orv/bin/create")), 0);
}

TEST_F(IpcqResources, CreateFailuresAreReported)
{
    int queue = 0;
    EXPECT_EQ(Reports([&] { queue = create_queue("nokeyfile", getpid()); }),
              IpcWarning("ftok of \"nokeyfile\" failed, can't create unique queue"));
    EXPECT_EQ(queue, -1);

    MakeKeyFile("taken");
    const int taken = msgget(KeyOf("/opt/orv/bin/taken"), IPC_CREAT | 0660);
    EXPECT_EQ(Reports([&] { queue = create_queue("taken", getpid()); }),
              IpcWarning("Can't create message queue because the queue exists, exclusive requested"));
    EXPECT_EQ(queue, -1);
    EXPECT_LT(SetOf(KeyOf("/opt/orv/bin/taken")), 0) << "the set goes again";
    msgctl(taken, IPC_RMID, nullptr);

    // A process id that the set cannot hold makes no queue that nobody could find.
    EXPECT_EQ(Reports([&] { queue = create_queue("taken", 4000000); }),
              IpcWarning("Can't create semaphore because of unknown error (34)"));
    EXPECT_EQ(queue, -1);
    EXPECT_LT(SetOf(KeyOf("/opt/orv/bin/taken")), 0);
}

TEST_F(IpcqResources, CreateReportsASetThatIsRefused)
{
    MakeKeyFile("noaccess");
    const int set = semget(KeyOf("/opt/orv/bin/noaccess"), 1, IPC_CREAT | 0);
    ASSERT_GE(set, 0);
    const ChildResult result = RunInChild([] {
        DropPrivileges();
        std::fputs(Reports([] { CHILD_CHECK(create_queue("noaccess", getpid()) == -1); }).c_str(), stdout);
    });
    semctl(set, 0, IPC_RMID);
    if (result.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no user namespace within the sandbox";
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, IpcWarning("Can't create semaphore because of invalid access permission"));
}

TEST_F(IpcqResources, ConnectFindsTheLiveServer)
{
    const pid_t pid = StartServer("live", [](Server&) { pause(); });
    long found = 5;
    const int queue = connect_to_queue("live", 0, &found, -1);
    EXPECT_GE(queue, 0);
    EXPECT_EQ(found, pid);
    found = 5;
    EXPECT_EQ(connect_to_queue("live", 0, &found, pid), queue) << "that very server";
    EXPECT_EQ(found, pid);
    EXPECT_EQ(connect_to_queue("live", 0, &found, getpid()), -1) << "a live process that is no server";
    EXPECT_TRUE(QueueExists(queue));

    EndChild(pid);
    EXPECT_EQ(Reports([&] { EXPECT_EQ(connect_to_queue("live", 0, &found, -1), -1); }), "");
    EXPECT_FALSE(QueueExists(queue)) << "the dead server's queue is cleared away";
    EXPECT_LT(SetOf(KeyOf("/opt/orv/bin/live")), 0);
    EXPECT_EQ(connect_to_queue("nokeyfile", 0, &found, -1), -1);
    EXPECT_EQ(found, -1);
}

TEST_F(IpcqResources, ConnectWaitsInStepsOfTwoSeconds)
{
    MakeKeyFile("waited");
    const auto waits = [](short seconds, double least, double below) {
        return StartChild([=] {
            long found;
            const double passed =
                SecondsOf([&] { CHILD_CHECK(connect_to_queue("waited", seconds, &found, -1) == -1); });
            CHILD_CHECK(found == -1);
            CHILD_CHECK(passed >= least - 0.01 && passed < below);
        });
    };
    const pid_t children[] = {waits(5, 6, 7.9), waits(2, 2, 3.9), waits(1, 2, 3.9), waits(0, 0, 1.9),
                              waits(-5, 0, 1.9)};
    for (const pid_t child : children)
        EXPECT_EQ(WaitForExit(child), 0);
}

TEST_F(IpcqResources, ConnectFindsAQueueThatComesWhileItWaits)
{
    MakeKeyFile("late");
    const pid_t server = StartChild([] {
        usleep(700000);
        Server late("late");
        CHILD_CHECK(late.Created());
        pause();
    });
    long found;
    EXPECT_GE(connect_to_queue("late", 10, &found, -1), 0);
    EXPECT_EQ(found, server);
    kill(server, SIGTERM); // unregisters itself
    EXPECT_EQ(WaitForExit(server), 0);
    EXPECT_LT(SetOf(KeyOf("/opt/orv/bin/late")), 0);
}

TEST_F(IpcqResources, AQueueWithoutASetIsRefusedAndStays)
{
    MakeKeyFile("orphan");
    const int queue = msgget(KeyOf("/opt/orv/bin/orphan"), IPC_CREAT | 0660);
    ASSERT_GE(queue, 0);
    long found = 3;
    EXPECT_EQ(connect_to_queue("orphan", 0, &found, -1), -1);
    EXPECT_EQ(found, -1);
    EXPECT_EQ(connect_to_queue("orphan", 0, &found, getpid()), -1);
    EXPECT_EQ(Reports([] { EXPECT_FALSE(Server("orphan").Created()); }),
              IpcWarning("Can't create message queue because the queue exists, exclusive requested"));
    EXPECT_TRUE(QueueExists(queue)) << "nothing tells whose it is";
    EXPECT_LT(SetOf(KeyOf("/opt/orv/bin/orphan")), 0);
    msgctl(queue, IPC_RMID, nullptr);
}

// A set that was there before the call which fails.
class IpcqEarlierSet : public IpcqResources {
protected:
    void SetUp() override
    {
        IpcqResources::SetUp();
        MakeKeyFile("earlier");
        set = semget(key = KeyOf("/opt/orv/bin/earlier"), 1, IPC_CREAT | 0660);
        ASSERT_GE(set, 0);
    }
    void TearDown() override
    {
        msgctl(msgget(key, 0660), IPC_RMID, nullptr);
        semctl(set, 0, IPC_RMID);
    }
    void Set(int value) { ASSERT_EQ(semctl(set, 0, SETVAL, value), 0); }
    int Value() { return semctl(set, 0, GETVAL); }

    key_t key = -1;
    int set = -1;
};

const char QueueIsTaken[] = "Can't create message queue because the queue exists, exclusive requested";

TEST_F(IpcqEarlierSet, OfAnotherIsAsItWasWhenTheQueueIsTaken)
{
    ASSERT_GE(msgget(key, IPC_CREAT | 0660), 0);
    for (const int holder : {1, 0}) {
        Set(holder);
        EXPECT_EQ(Reports([] { EXPECT_EQ(create_queue("earlier", getpid()), -1); }), IpcWarning(QueueIsTaken));
        EXPECT_EQ(SetOf(key), set);
        EXPECT_EQ(Value(), holder);
    }
}

TEST_F(IpcqEarlierSet, OfTheCallerGoesWhenTheQueueIsTaken)
{
    ASSERT_GE(msgget(key, IPC_CREAT | 0660), 0);
    Set(getpid());
    EXPECT_EQ(Reports([] { EXPECT_EQ(create_queue("earlier", getpid()), -1); }), IpcWarning(QueueIsTaken));
    EXPECT_LT(SetOf(key), 0);
}

TEST_F(IpcqEarlierSet, IsAsItWasWhereItMayNotBeDeleted)
{
    ASSERT_GE(msgget(key, IPC_CREAT | 0660), 0);
    Set(1);
    struct semid_ds status = {};
    ASSERT_EQ(semctl(set, 0, IPC_STAT, &status), 0);
    status.sem_perm.mode = 0666;
    ASSERT_EQ(semctl(set, 0, IPC_SET, &status), 0);
    const ChildResult result = RunInChild([] {
        DropPrivileges();
        std::fputs(Reports([] { CHILD_CHECK(create_queue("earlier", getpid()) == -1); }).c_str(), stdout);
    });
    EXPECT_EQ(SetOf(key), set);
    EXPECT_EQ(Value(), 1);
    if (result.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no user namespace within the sandbox";
    EXPECT_EQ(result.out, IpcWarning(QueueIsTaken));
}

TEST_F(IpcqEarlierSet, ThatCannotHoldTheServerLeavesNoQueue)
{
    Set(1);
    EXPECT_EQ(Reports([] { EXPECT_EQ(create_queue("earlier", 4000000), -1); }),
              IpcWarning("Can't create semaphore because of unknown error (34)"));
    EXPECT_LT(msgget(key, 0660), 0);
    EXPECT_EQ(Value(), 1);
}

TEST_F(IpcqEarlierSet, IsTakenOverByANewQueue)
{
    Set(1);
    EXPECT_GE(create_queue("earlier", getpid()), 0);
    EXPECT_EQ(SetOf(key), set);
    EXPECT_EQ(Value(), getpid());
}

// A process that has the lock of a name and keeps it.
pid_t StartLockHolder(const std::string& name)
{
    const pid_t holder = StartChild([&] {
        const int fd = open(("/opt/orv/bin/" + name).c_str(), O_RDONLY);
        CHILD_CHECK(flock(fd, LOCK_EX | LOCK_NB) == 0);
        for (;;)
            pause();
    });
    const int fd = open(("/opt/orv/bin/" + name).c_str(), O_RDONLY);
    EXPECT_TRUE(WaitUntil([fd] { return flock(fd, LOCK_EX | LOCK_NB) != 0 || flock(fd, LOCK_UN) != 0; }));
    close(fd);
    return holder;
}

TEST_F(IpcqResources, WhoHoldsTheLockForEverDelaysTheOthersOnly)
{
    const pid_t server = StartServer("locked", [](Server&) { pause(); });
    const pid_t holder = StartLockHolder("locked");
    const double connecting = SecondsOf([&] { EXPECT_EQ(Client("locked").GetServerPID(), server); });
    EXPECT_GE(connecting, 0.95) << "a second for the holder";
    EXPECT_LT(connecting, 2.5);
    const double leaving = SecondsOf([&] { EXPECT_EQ(EndChild(server, SIGTERM), 0); });
    EXPECT_GE(leaving, 0.95);
    EXPECT_LT(leaving, 2.5);
    EXPECT_LT(msgget(KeyOf("/opt/orv/bin/locked"), 0660), 0);
    EXPECT_LT(SecondsOf([] { EXPECT_TRUE(Server("locked").Created()); }), 3.5)
        << "one wait to make it, one to leave it";
    long found;
    EXPECT_LT(SecondsOf([&] { EXPECT_EQ(connect_to_queue("locked", 5, &found, -1), -1); }), 7.9)
        << "one wait for all tries, whose sleeps take 6 seconds";
    EndChild(holder);
}

bool LockIsFree(const char* path)
{
    const int fd = open(path, O_RDONLY);
    const bool isFree = flock(fd, LOCK_EX | LOCK_NB) == 0;
    close(fd);
    return isFree;
}

TEST_F(IpcqResources, ASleepingConnectDoesNotHoldTheLock)
{
    MakeKeyFile("sleeps");
    const pid_t child = StartChild([] {
        long found;
        connect_to_queue("sleeps", 2, &found, -1);
    });
    usleep(500000);
    EXPECT_TRUE(LockIsFree("/opt/orv/bin/sleeps"));
    EXPECT_EQ(WaitForExit(child), 0);
}

TEST_F(IpcqResources, AQueueWhoseSetIsRefusedIsLeftAlone)
{
    MakeKeyFile("refused");
    const int queue = msgget(KeyOf("/opt/orv/bin/refused"), IPC_CREAT | 0660);
    const int set = semget(KeyOf("/opt/orv/bin/refused"), 1, IPC_CREAT | 0);
    const int code = WaitForExit(StartChild([] {
        DropPrivileges();
        long found;
        CHILD_CHECK(connect_to_queue("refused", 0, &found, -1) == -1);
        CHILD_CHECK(found == -1);
    }));
    EXPECT_TRUE(QueueExists(queue));
    msgctl(queue, IPC_RMID, nullptr);
    semctl(set, 0, IPC_RMID);
    if (code == NotPossibleHere)
        GTEST_SKIP() << "no user namespace within the sandbox";
    EXPECT_EQ(code, 0);
}

TEST_F(IpcqResources, APrivateQueueHasNoSet)
{
    PrivateQueue queue;
    const int before = ObjectsOf("sem");
    EXPECT_EQ(get_semid_from_msqid(queue.id), -1);
    EXPECT_EQ(add_serverpid_to_queue(queue.id, getpid()), -1);
    EXPECT_EQ(remove_serverpid_from_queue(queue.id, getpid()), -1);
    EXPECT_EQ(is_a_live_server_process(queue.id, getpid()), 0);
    EXPECT_EQ(ObjectsOf("sem"), before) << "and asking makes none";
    EXPECT_TRUE(QueueExists(queue.id));
    EXPECT_EQ(get_semid_from_msqid(-1), -1);
}

// A set with several slots, as an administrator may have made it.
class IpcqSlots : public IpcqResources {
protected:
    int queue = -1;
    int set = -1;
    void SetUp() override
    {
        IpcqResources::SetUp();
        MakeKeyFile("slots");
        queue = msgget(KeyOf("/opt/orv/bin/slots"), IPC_CREAT | 0660);
        set = semget(KeyOf("/opt/orv/bin/slots"), 3, IPC_CREAT | 0660);
        ASSERT_GE(set, 0);
    }
    void TearDown() override
    {
        msgctl(queue, IPC_RMID, nullptr);
        semctl(set, 0, IPC_RMID);
    }
    int Value(int slot) { return semctl(set, slot, GETVAL); }
};

TEST_F(IpcqSlots, ServersRegisterAndUnregister)
{
    EXPECT_EQ(add_serverpid_to_queue(queue, getpid()), 0);
    EXPECT_EQ(add_serverpid_to_queue(queue, 1), 1);
    EXPECT_EQ(add_serverpid_to_queue(queue, 500), 2);
    EXPECT_EQ(add_serverpid_to_queue(queue, 77), -1) << "all in use";
    EXPECT_EQ(Value(1), 1);
    EXPECT_EQ(remove_serverpid_from_queue(queue, 1), 2);
    EXPECT_EQ(Value(1), 0);
    EXPECT_EQ(add_serverpid_to_queue(queue, getpid()), 1) << "the first free one";
    EXPECT_EQ(remove_serverpid_from_queue(queue, getpid()), 1) << "from every slot";
    EXPECT_EQ(remove_serverpid_from_queue(queue, 99999), 1);
    EXPECT_EQ(remove_serverpid_from_queue(queue, 500), 0);
}

TEST_F(IpcqSlots, DeadServersArePurged)
{
    const pid_t dead = DeadProcess();
    add_serverpid_to_queue(queue, dead);
    add_serverpid_to_queue(queue, getpid());
    EXPECT_EQ(is_a_live_server_process(queue, dead), 0);
    EXPECT_EQ(Value(0), 0);
    EXPECT_EQ(Value(1), getpid());
    EXPECT_EQ(is_a_live_server_process(queue, getpid()), 1);
    EXPECT_EQ(is_a_live_server_process(queue, 1), 0) << "alive, but no server";
    EXPECT_TRUE(QueueExists(queue));
    remove_serverpid_from_queue(queue, getpid());
    add_serverpid_to_queue(queue, dead);
    EXPECT_EQ(is_a_live_server_process(queue, dead), 0);
    EXPECT_FALSE(QueueExists(queue)) << "no live server is left";
    EXPECT_LT(SetOf(KeyOf("/opt/orv/bin/slots")), 0);
}

TEST_F(IpcqResources, DeletionToleratesWhatIsGone)
{
    PrivateQueue queue;
    const int set = semget(IPC_PRIVATE, 1, IPC_CREAT | 0660);
    EXPECT_EQ(Reports([&] {
                  delete_q_and_semaphore(queue.id);
                  delete_q_and_semaphore(queue.id);
                  delete_q_and_semaphore(-1);
                  delete_semaphore(set);
                  delete_semaphore(set);
                  delete_semaphore(-1);
                  delete_shmem_id(-1);
              }),
              "");
    EXPECT_FALSE(QueueExists(queue.id));
    EXPECT_LT(semctl(set, 0, GETVAL), 0);
}

TEST_F(IpcqResources, SuperUserRaisesTheLimit)
{
    if (!InSandbox() || geteuid() != 0)
        GTEST_SKIP() << "needs the sandbox";
    PrivateQueue queue;
    SetQueueBytes(queue.id, 16384);
    EXPECT_EQ(Reports([&] { check_q_sizes(queue.id); }), "");
    EXPECT_EQ(QueueStatus(queue.id).msg_qbytes, 500736u);
    check_q_sizes(queue.id);
    EXPECT_EQ(QueueStatus(queue.id).msg_qbytes, 500736u);
}

TEST_F(IpcqResources, ALargerLimitIsLeftAlone)
{
    if (!InSandbox())
        GTEST_SKIP() << "needs the sandbox";
    SetQueueLimit(700000);
    PrivateQueue queue;
    EXPECT_EQ(Reports([&] { check_q_sizes(queue.id); }), "");
    EXPECT_EQ(QueueStatus(queue.id).msg_qbytes, 700000u);
}

TEST_F(IpcqResources, ARefusedLimitIsReportedAndTheQueueWorks)
{
    if (!InSandbox() || geteuid() != 0)
        GTEST_SKIP() << "needs the sandbox";
    SetQueueLimit(16384);
    PrivateQueue queue;
    EXPECT_EQ(Reports([&] { check_q_sizes(queue.id); }),
              Report(ErrorReporter::WARNING, ErrorReporter::IPC_QUEUE_TOO_SMALL,
                     "max bytes on ipc queue too small Current: 16384 Recommended 500736"));
    EXPECT_EQ(QueueStatus(queue.id).msg_qbytes, 16384u);

    MakeKeyFile("small");
    const pid_t peer = StartServer("small", [](Server& server) {
        short event, response, ack;
        Buffer data;
        CHILD_CHECK(server.receive_event(event, data, response, ack) == -1);
        CHILD_CHECK(Bytes(data) == Pattern(100000));
    });
    Client client("small");
    EXPECT_EQ(IPCMessageMaxDataLen, 1092);
    EXPECT_EQ(client.send_event(1, Pattern(100000).data(), 100000), 0);
    EXPECT_EQ(WaitForExit(peer), 0);
}

TEST_F(IpcqResources, StatusThatCannotBeReadIsReported)
{
    EXPECT_EQ(Reports([] { check_q_sizes(-1); }), IpcWarning("Can't IPC_STAT queue -1."));
    check_max_data_size(-1);
    EXPECT_EQ(IPCMessageMaxDataLen, 1700);
}

// The resizing tool: a script that notes its command line and does what the test tells it to.
class IpcqResizingTool : public IpcqResources {
protected:
    void SetUp() override
    {
        IpcqResources::SetUp();
        SetQueueLimit(16384);
        if (!InSandbox())
            GTEST_SKIP() << "needs the sandbox";
        if (RunInChild([] { DropPrivileges(); }).exitCode == NotPossibleHere)
            GTEST_SKIP() << "no user namespace within the sandbox";
    }
    void TearDown() override { unlink("/opt/orv/bin/.orvsys"); }

    void WriteTool(const std::string& action)
    {
        WriteFile("/opt/orv/bin/.orvsys", "#!/bin/sh\necho \"$0 $*\" >/opt/orv/bin/called\n" + action);
        chmod("/opt/orv/bin/.orvsys", 0755);
    }

    // What check_q_sizes reports to a user who is not the super-user. `meanwhile` runs beside it, privileged.
    std::string ReportsOfAUser(
        int queue, const std::function<void()>& meanwhile = [] {})
    {
        TemporaryDirectory directory;
        const pid_t child = StartChild([&] {
            DropPrivileges();
            const std::string reports = Reports([&] { check_q_sizes(queue); });
            WriteFile(directory.File("reports"), reports);
        });
        meanwhile();
        const int code = WaitForExit(child);
        return code == 0 ? ReadFile(directory.File("reports")) : "exit code " + std::to_string(code);
    }

    std::string Called()
    {
        std::string line = ReadFile("/opt/orv/bin/called");
        unlink("/opt/orv/bin/called");
        return line;
    }
};

TEST_F(IpcqResizingTool, ChangesTheLimit)
{
    PrivateQueue queue;
    const std::string go = "/opt/orv/bin/go";
    WriteTool("while [ ! -e " + go + " ]; do sleep 0.05; done\n");
    const std::string reports = ReportsOfAUser(queue.id, [&] {
        ASSERT_TRUE(WaitUntil([] { return ReadFile("/opt/orv/bin/called").find('\n') != std::string::npos; }));
        SetQueueLimit(500736);
        SetQueueBytes(queue.id, 400000);
        WriteFile(go, "");
    });
    unlink(go.c_str());
    const std::string id = std::to_string(queue.id);
    EXPECT_EQ(reports, Report(ErrorReporter::NOTICE, ErrorReporter::IPC_QUEUE_TOO_SMALL,
                              "Changed IPC Queue " + id + " from 16384 to 400000 bytes."));
    EXPECT_EQ(Called(), "/opt/orv/bin/.orvsys -c 2 -q " + id + " -s 500736\n");
}

TEST_F(IpcqResizingTool, RunsWithoutTheLock)
{
    MakeKeyFile("resized");
    const std::string go = "/opt/orv/bin/go";
    WriteTool("while ! rm " + go + " 2>/dev/null; do sleep 0.05; done\n");
    const pid_t child = StartChild([] {
        DropPrivileges();
        Reports([] {
            Server server("resized");
            CHILD_CHECK(server.Created());
            server.Shutdown();
            CHILD_CHECK(create_queue("resized", getpid()) >= 0);
        });
    });
    for (int tool = 0; tool < 2; tool++) { // of the server and of create_queue
        ASSERT_TRUE(WaitUntil([] { return ReadFile("/opt/orv/bin/called").find('\n') != std::string::npos; }));
        EXPECT_TRUE(LockIsFree("/opt/orv/bin/resized"));
        Called();
        WriteFile(go, "");
        ASSERT_TRUE(WaitUntil([&] { return access(go.c_str(), F_OK) != 0; })) << "the tool has gone on";
    }
    EXPECT_EQ(WaitForExit(child), 0);
    unlink(go.c_str());
    delete_q_and_semaphore(msgget(KeyOf("/opt/orv/bin/resized"), 0));
}

TEST_F(IpcqResizingTool, ChangesNothing)
{
    PrivateQueue queue;
    WriteTool("exit 0\n");
    EXPECT_EQ(ReportsOfAUser(queue.id),
              Report(ErrorReporter::NOTICE, ErrorReporter::IPC_QUEUE_TOO_SMALL,
                     "Failed to change IPC Queue " + std::to_string(queue.id) + " from 16384 to 500736 bytes."));
    EXPECT_NE(Called(), "");
}

TEST_F(IpcqResizingTool, IsAbsent)
{
    PrivateQueue queue;
    EXPECT_EQ(ReportsOfAUser(queue.id),
              Report(ErrorReporter::NOTICE, ErrorReporter::IPC_QUEUE_TOO_SMALL,
                     "Failed to change IPC Queue " + std::to_string(queue.id) + " from 16384 to 500736 bytes."));
}

TEST_F(IpcqResizingTool, TheQueueGoesMeanwhile)
{
    const int queue = msgget(IPC_PRIVATE, IPC_CREAT | 0660);
    WriteTool("ipcrm -q " + std::to_string(queue) + "\n");
    EXPECT_EQ(ReportsOfAUser(queue), IpcWarning("Can't IPC_STAT after orvsys on queue " + std::to_string(queue) + "."));
    msgctl(queue, IPC_RMID, nullptr);
    Called();
}

TEST_F(IpcqResources, TheBlockSizeIsAFifteenthInSixteenBits)
{
    if (!InSandbox())
        GTEST_SKIP() << "needs the sandbox";
    SetQueueLimit(2000000);
    PrivateQueue queue;
    const auto sizeFor = [&](unsigned long bytes) {
        IPCMessageMaxDataLen = 1700;
        SetQueueBytes(queue.id, bytes);
        check_max_data_size(queue.id);
        return IPCMessageMaxDataLen;
    };
    EXPECT_EQ(sizeFor(16384), 1092);
    EXPECT_EQ(sizeFor(4096), 273);
    EXPECT_EQ(sizeFor(491519), 1700) << "32767 is not smaller";
    EXPECT_EQ(sizeFor(491520), -32768);
    EXPECT_EQ(sizeFor(500736), -32154);
    EXPECT_EQ(sizeFor(983039), -1);
    EXPECT_EQ(sizeFor(983040), 0);
    EXPECT_EQ(sizeFor(25500), 1700);
    EXPECT_EQ(sizeFor(25499), 1699);

    IPCMessageMaxDataLen = 100;
    SetQueueBytes(queue.id, 16384);
    check_max_data_size(queue.id);
    EXPECT_EQ(IPCMessageMaxDataLen, 100) << "only ever lowered";
}

TEST_F(IpcqResources, SegmentsCarryData)
{
    const std::string text = Pattern(5000);
    const int id = copy_to_shmem(text.data(), 5000);
    ASSERT_GE(id, 0);
    struct shmid_ds status;
    ASSERT_EQ(shmctl(id, IPC_STAT, &status), 0);
    EXPECT_EQ(status.shm_perm.mode & 0777, 0660);
    EXPECT_EQ(status.shm_nattch, 0u);
    EXPECT_EQ(status.shm_segsz, 5000u);

    Buffer data;
    EXPECT_EQ(copy_from_shmem(id, data, 0, 5000), 1);
    EXPECT_EQ(Bytes(data), text);
    EXPECT_EQ(copy_from_shmem(id, data, 10, 20), 1);
    EXPECT_EQ(Bytes(data), text.substr(0, 10) + text.substr(0, 20) + text.substr(30));
    EXPECT_EQ(copy_from_shmem(id, data, 5000, 3), 1) << "grows the buffer";
    EXPECT_EQ(data.Size(), 5003u);

    const std::string before = Bytes(data);
    EXPECT_EQ(copy_from_shmem(id, data, 0, 5001), 0) << "more than the segment holds";
    EXPECT_EQ(copy_from_shmem(id, data, 0, -1), 0);
    EXPECT_EQ(copy_from_shmem(id, data, -1, 10), 0);
    EXPECT_EQ(copy_from_shmem(-1, data, 0, 10), 0);
    EXPECT_EQ(copy_from_shmem(static_cast<long>(0x123456789), data, 0, 10), 0);
    EXPECT_EQ(Bytes(data), before);
    ASSERT_EQ(shmctl(id, IPC_STAT, &status), 0);
    EXPECT_EQ(status.shm_nattch, 0u);

    delete_shmem_id(id);
    EXPECT_LT(shmctl(id, IPC_STAT, &status), 0);
    EXPECT_EQ(copy_from_shmem(id, data, 0, 10), 0);
}

TEST_F(IpcqResources, RefusesSegmentsThatCannotBe)
{
    EXPECT_EQ(copy_to_shmem("abc", 0), -1);
    EXPECT_EQ(copy_to_shmem("abc", -1), -1);
    EXPECT_EQ(copy_to_shmem(nullptr, 3), -1);
    EXPECT_EQ(sizeof(long) > 4 ? copy_to_shmem("abc", LONG_MAX) : -1, -1); // there is a segment of 2 GB
    EXPECT_EQ(ObjectsOf("shm"), 0);
}

TEST_F(IpcqResources, DrainMovesOneChannelInOrder)
{
    PrivateQueue queue;
    IPCQMsgSafeArray messages;
    for (short event = 1; event <= 40; event++)
        ASSERT_EQ(SendRecord(queue.id, event % 2 ? 100 : 200, Event(event, 1, std::string(size_t(event), 'd'))), 0);
    errno = EXDEV;
    DrainIPCMessages(queue.id, 100, messages);
    EXPECT_EQ(errno, EXDEV);
    ASSERT_EQ(messages.Quantity(), 20u);
    for (int i = 0; i < 20; i++) {
        EXPECT_EQ(messages[i]->msg.event, 2 * i + 1);
        EXPECT_EQ(messages[i]->msg.mtype, 100);
        EXPECT_EQ(messages[i]->msg.msg_data[2 * i], 'd');
        EXPECT_EQ(messages[i]->msg.msg_data[2 * i + 1], '\0') << "what was not sent is zero";
    }
    EXPECT_EQ(Waiting(queue.id), 20u);
    DrainIPCMessages(queue.id, 100, messages);
    EXPECT_EQ(messages.Quantity(), 20u);
    DrainIPCMessages(-1, 100, messages);
    EXPECT_EQ(messages.Quantity(), 20u);
}

TEST_F(IpcqResources, DrainDropsMalformedMessages)
{
    PrivateQueue queue;
    IPCQMsgSafeArray messages;
    IPCQMessage bad = Event(1, 1, "abc");
    ASSERT_EQ(SendRecord(queue.id, 9, bad, 299), 0);
    ASSERT_EQ(SendRecord(queue.id, 9, bad, 0), 0);
    ASSERT_EQ(SendRecord(queue.id, 9, bad, 302), 0) << "announces more than it carries";
    bad.msg_data_len = -1;
    ASSERT_EQ(SendRecord(queue.id, 9, bad, 400), 0);
    char tooLong[2001] = {};
    ASSERT_EQ(SendRaw(queue.id, 9, tooLong, sizeof tooLong), 0);
    ASSERT_EQ(SendRecord(queue.id, 9, Event(2, 1, Pattern(1700))), 0);
    LetReportsRest();
    std::string reports = Reports([&] { DrainIPCMessages(queue.id, 9, messages); });
    EXPECT_EQ(MalformedIn(reports, queue.id), 1) << "at once";
    ASSERT_EQ(messages.Quantity(), 1u);
    EXPECT_EQ(std::string(messages[0]->msg.msg_data, 1700), Pattern(1700));
    EXPECT_EQ(Waiting(queue.id), 0u);
    LetReportsRest();
    ASSERT_EQ(SendRaw(queue.id, 9, tooLong, sizeof tooLong), 0);
    reports += Reports([&] { DrainIPCMessages(queue.id, 9, messages); });
    EXPECT_EQ(MalformedIn(reports, queue.id), 6) << "the others with the next one";
}

TEST_F(IpcqResources, DumpsTheStatusOfAQueue)
{
    PrivateQueue queue;
    SetQueueBytes(queue.id, 16000);
    SendRecord(queue.id, 9, Event(1, 1, "abc"));
    IPCMessageMaxDataLen = -32154;
    std::ostringstream out;
    DumpIPCStatus(queue.id, out);
    EXPECT_EQ(out.str(), "msg_qbytes = 16000\n"
                         "msg_cbytes = 303\n"
                         "msg_qnum   = 1\n"
                         "IPCMessageDataSize =    2000\n"
                         "IPCMessageNonDataSize = 300\n"
                         "IPCMessageMaxDataLen =  -32154\n");
    out.str("");
    IPCMessageMaxDataLen = 1700;
    DumpIPCStatus(-1, out);
    EXPECT_EQ(out.str(), "error in msgctl\n"
                         "msg_qbytes = 0\n"
                         "msg_cbytes = 0\n"
                         "msg_qnum   = 0\n"
                         "IPCMessageDataSize =    2000\n"
                         "IPCMessageNonDataSize = 300\n"
                         "IPCMessageMaxDataLen =  1700\n");
}

TEST_F(IpcqResources, MessageDumpConsumesMessagesAndSegments)
{
    PrivateQueue queue;
    const int segment = copy_to_shmem("abc", 3);
    IPCQMessage first = Event(1, 1, "abc");
    IPCQMessage second = Event(2, 1);
    first.mtype = 9;
    second.mtype = 10;
    second.shmem_id = segment;
    second.shmem_size = 3;
    SendRecord(queue.id, 9, first);
    SendRecord(queue.id, 10, second);
    std::ostringstream expected;
    expected << "Message stranded on queue:\n";
    DumpIPCMessage(&first, expected);
    expected << "Message stranded on queue:\n";
    DumpIPCMessage(&second, expected);
    std::ostringstream out;
    DumpIPCMessages(queue.id, out);
    EXPECT_EQ(out.str(), expected.str());
    EXPECT_EQ(Waiting(queue.id), 0u);
    EXPECT_EQ(ObjectsOf("shm"), 0);
    out.str("");
    DumpIPCMessages(queue.id, out);
    EXPECT_EQ(out.str(), "");
}

TEST_F(IpcqResources, MessageDumpOfAMalformedMessageLeavesSegmentsAlone)
{
    PrivateQueue queue;
    const int segment = shmget(IPC_PRIVATE, 100, IPC_CREAT | 0660); // may well have the id 0
    ASSERT_GE(segment, 0);
    IPCQMessage bad = Event(1, 1, "abc");
    bad.shmem_id = segment;
    SendRecord(queue.id, 9, bad, 302);
    SendRaw(queue.id, 9, "", 0);
    char tooLong[2001] = {};
    SendRaw(queue.id, 9, tooLong, sizeof tooLong);
    std::ostringstream out;
    EXPECT_EQ(Reports([&] { DumpIPCMessages(queue.id, out); }), "");
    EXPECT_EQ(Waiting(queue.id), 0u);
    const std::string dump = out.str();
    int shown = 0;
    for (size_t at = 0; (at = dump.find("Message stranded on queue:\nIPCQMessage: \n", at)) != std::string::npos; at++)
        shown++;
    EXPECT_EQ(shown, 3);
    struct shmid_ds status;
    EXPECT_EQ(shmctl(segment, IPC_STAT, &status), 0);
    shmctl(segment, IPC_RMID, nullptr);
}

TEST_F(IpcqResources, ServersWithLargeProcessIdsAreFound)
{
    if (!InSandbox())
        GTEST_SKIP() << "needs a process id range of its own";
    WriteFile("/proc/sys/kernel/pid_max", "4194304");
    for (const long wanted : {32767L, 100000L, 4194303L}) {
        WriteFile("/proc/sys/kernel/ns_last_pid", std::to_string(wanted - 1));
        const pid_t server = StartServer("large", [](Server& self) {
            short event, response, ack;
            Buffer data;
            while (self.receive_event(event, data, response, ack) == -1 && event != 99)
                CHILD_CHECK(self.send_response(event, 5, data.Size() ? &data[0] : nullptr, data.Size()) == 0);
        });
        ASSERT_EQ(server, wanted);
        EXPECT_EQ(WaitForExit(StartChild([&] {
                      Client client("large");
                      CHILD_CHECK(client.Connected() && client.GetServerPID() == wanted);
                      const std::string text = Pattern(10000);
                      CHILD_CHECK(client.send_event_with_response(3, text.data(), 10000) == 0);
                      short event;
                      Buffer data;
                      CHILD_CHECK(client.receive_response(event, data) == 5);
                      CHILD_CHECK(event == 3 && Bytes(data) == text);
                  })),
                  0);
        EndChild(server);
        Client late("large");
        EXPECT_FALSE(late.Connected()) << "found dead";
        EXPECT_EQ(ObjectsOf("msg"), 0);
        EXPECT_EQ(ObjectsOf("sem"), 0);
    }
    WriteFile("/proc/sys/kernel/ns_last_pid", "1000");
}

} // namespace
