// SPDX-License-Identifier: BSD-2-Clause
#include "tests/unit/ipcq_testing.h"

#include <initializer_list>
#include <iostream>
#include <sstream>
#include <vector>

#include "Misc/ipcq/mail.h"
#include "tests/support/failing_memory.h"

namespace {

using namespace ipcq_testing;

class IpcqServer : public IpcqTest {
protected:
    short event = 0, response = 0, ack = 0;
    Buffer data;
};

int SetOf(const char* name) { return semget(ftok_orvm(name), 0, 0660); }

TEST_F(IpcqServer, IsTheOnlyServerOfItsName)
{
    MakeKeyFile("only");
    Server server("only");
    EXPECT_EQ(server.Created(), 1);
    EXPECT_EQ(server.is_a_server(), 1);
    EXPECT_EQ(server.GetServerPID(), getpid());
    EXPECT_EQ(semctl(SetOf("only"), 0, GETVAL), getpid());
    EXPECT_EQ(Reports([] {
                  const Server second("only");
                  EXPECT_EQ(second.Created(), 0) << "also in the same process";
                  EXPECT_EQ(second.GetServerPID(), -1);
              }),
              "");
    EXPECT_EQ(
        WaitForExit(StartChild([] { CHILD_CHECK(Reports([] { CHILD_CHECK(!Server("only").Created()); }).empty()); })),
        0);
    EXPECT_TRUE(QueueExists(server.Queue())) << "the refused ones leave it alone";
    const int queue = server.Queue();
    server.Shutdown();
    EXPECT_EQ(server.Created(), 0);
    EXPECT_FALSE(QueueExists(queue));
    EXPECT_LT(SetOf("only"), 0);
    Server next("only");
    EXPECT_EQ(next.Created(), 1);
}

TEST_F(IpcqServer, AClientWithoutMemoryForItsMailCarriesNothing)
{
    MakeKeyFile("nomail");
    const Server server("nomail");
    const auto failure = MemoryFailure::OfNextOfSize(sizeof(zeloo::Mail), NewObject);
    IPCQClient client(0, "nomail");
    ASSERT_TRUE(failure.HasHappened());
    ASSERT_TRUE(client.Connected());
    EXPECT_EQ(client.IPCSend("p", "n", "v", 1, "q", 0, 1, "", 0, 0, 0, 0), ErrorReporter::OUT_OF_MEMORY);
    EXPECT_EQ(client.receive_response(event, data), ErrorReporter::OUT_OF_MEMORY);
}

TEST_F(IpcqServer, WithoutAKeyFileThereIsNoServer)
{
    EXPECT_EQ(Reports([] { EXPECT_FALSE(Server("nokeyfile").Created()); }),
              IpcWarning("ftok of \"nokeyfile\" failed, can't create unique queue"));
    EXPECT_EQ(Reports([] { EXPECT_FALSE(Server(nullptr).Created()); }),
              IpcWarning("ftok of \"\" failed, can't create unique queue"));
}

TEST_F(IpcqServer, AKilledServerIsFoundDeadByItsSuccessor)
{
    const pid_t killed = StartServer("successor", [](Server&) { pause(); });
    const int queue = msgget(ftok_orvm("successor"), 0660);
    SendRecord(queue, killed, Event(1, getpid()));
    EndChild(killed);
    EXPECT_TRUE(QueueExists(queue));
    Server next("successor");
    EXPECT_TRUE(next.Created());
    EXPECT_NE(next.Queue(), queue);
    EXPECT_FALSE(QueueExists(queue));
    EXPECT_EQ(Waiting(next.Queue()), 0u);
    EXPECT_EQ(ObjectsOf("msg"), 1);
    EXPECT_EQ(ObjectsOf("sem"), 1);
}

TEST_F(IpcqServer, AKilledServerIsFoundDeadByAClient)
{
    const pid_t killed = StartServer("found", [](Server&) { pause(); });
    Client earlier("found");
    EXPECT_TRUE(earlier.Connected());
    EndChild(killed);
    EXPECT_EQ(earlier.send_event(1, nullptr, 0), ErrorReporter::IPC_SEND_PROCESS_GONE);
    EXPECT_FALSE(earlier.Connected());
    EXPECT_EQ(earlier.send_event(1, nullptr, 0), ErrorReporter::IPC_CONNECTION_LOST);
    EXPECT_EQ(Reports([] { EXPECT_FALSE(Client("found").Connected()); }), "");
    EXPECT_EQ(ObjectsOf("msg"), 0);
    EXPECT_EQ(ObjectsOf("sem"), 0);
}

TEST_F(IpcqServer, AServerJoinsAQueueWithAFreeSlot)
{
    // Two slots, as an administrator may have made them.
    MakeKeyFile("joined");
    const int queue = msgget(ftok_orvm("joined"), IPC_CREAT | 0660);
    const int set = semget(ftok_orvm("joined"), 2, IPC_CREAT | 0660);
    ASSERT_EQ(add_serverpid_to_queue(queue, 1), 0);
    {
        Server second("joined");
        EXPECT_TRUE(second.Created());
        EXPECT_EQ(second.Queue(), queue);
        EXPECT_EQ(semctl(set, 1, GETVAL), getpid());
        Client client("joined", 0, getpid());
        EXPECT_EQ(client.GetServerPID(), getpid());
        EXPECT_EQ(Client("joined").GetServerPID(), 1) << "the first server by default";
    }
    EXPECT_EQ(semctl(set, 1, GETVAL), 0);
    EXPECT_TRUE(QueueExists(queue)) << "another server is registered";
    delete_q_and_semaphore(queue);
}

// A queue and its set, made beforehand, with these process ids in the slots.
int MakeQueueOf(const char* name, std::initializer_list<long> servers)
{
    MakeKeyFile(name);
    const int queue = msgget(ftok_orvm(name), IPC_CREAT | IPC_EXCL | 0660);
    EXPECT_GE(semget(ftok_orvm(name), static_cast<int>(servers.size()), IPC_CREAT | IPC_EXCL | 0660), 0);
    for (const long server : servers)
        EXPECT_GE(add_serverpid_to_queue(queue, server), 0);
    return queue;
}

TEST_F(IpcqServer, ASlotWithItsOwnIdIsADeadPredecessors)
{
    const int queue = MakeQueueOf("reused", {getpid()});
    EXPECT_EQ(Reports([&] {
                  Server server("reused");
                  EXPECT_TRUE(server.Created());
                  EXPECT_NE(server.Queue(), queue);
                  EXPECT_EQ(server.GetServerPID(), getpid());
                  EXPECT_EQ(semctl(SetOf("reused"), 0, GETVAL), getpid());
                  EXPECT_FALSE(Server("reused").Created()) << "now it is a living one's";
              }),
              "");
    EXPECT_FALSE(QueueExists(queue));
    EXPECT_EQ(ObjectsOf("msg"), 0);
    EXPECT_EQ(ObjectsOf("sem"), 0);
    const int next = MakeQueueOf("reused", {getpid()});
    EXPECT_TRUE(Server("reused").Created()) << "again, when the object has gone";
    EXPECT_FALSE(QueueExists(next));
}

TEST_F(IpcqServer, ItsPredecessorsSlotIsTakenBesideOtherLiveServers)
{
    const int queue = MakeQueueOf("beside", {getpid(), 1});
    {
        Server server("beside");
        EXPECT_TRUE(server.Created());
        EXPECT_EQ(server.Queue(), queue);
        EXPECT_EQ(Client("beside").GetServerPID(), getpid());
    }
    EXPECT_TRUE(QueueExists(queue));
    EXPECT_EQ(semctl(SetOf("beside"), 0, GETVAL), 0);
    EXPECT_EQ(semctl(SetOf("beside"), 1, GETVAL), 1);
    delete_q_and_semaphore(queue);
}

TEST_F(IpcqServer, DeadServersBesideItsPredecessorDoNotCount)
{
    const int queue = MakeQueueOf("gone", {DeadProcess(), getpid()});
    Server server("gone");
    EXPECT_TRUE(server.Created());
    EXPECT_NE(server.Queue(), queue);
    EXPECT_FALSE(QueueExists(queue));
}

TEST_F(IpcqServer, AServerObjectThatServesNothingOrBelongsToTheParentDoesNotCount)
{
    MakeKeyFile("parents");
    Server parents("parents");
    Server refused("parents");
    ASSERT_TRUE(parents.Created());
    EXPECT_EQ(WaitForExit(StartChild([] {
                  MakeQueueOf("childs", {getpid()});
                  Server childs("childs");
                  CHILD_CHECK(childs.Created());
                  CHILD_CHECK(!Server("parents").Created()); // though the child has copies of the objects
              })),
              0);
    parents.Shutdown();
    MakeQueueOf("later", {getpid()});
    EXPECT_TRUE(Server("later").Created());
}

// What a process finds of the mail that waited for its id before it ran `body`.
class IpcqEarlierMail : public IpcqServer {
protected:
    void SetUp() override
    {
        IpcqServer::SetUp();
        server = StartServer("mail", [](Server&) { pause(); });
        queue = msgget(ftok_orvm("mail"), 0660);
    }
    void TearDown() override { EXPECT_EQ(EndChild(server, SIGTERM), 0); }

    pid_t server = -1;
    int queue = -1;
};

TEST_F(IpcqEarlierMail, IsDroppedByTheFirstClientOfAProcess)
{
    EXPECT_EQ(WaitForExit(StartChild([&] {
                  SendRecord(queue, getpid(), Event(1, server));
                  SendRecord(queue, getpid(), Event(2, server, "for somebody else"));
                  SendRecord(queue, getppid(), Event(3, server));
                  Client first("mail");
                  CHILD_CHECK(Waiting(queue) == 1);
                  CHILD_CHECK(first.Saved().Quantity() == 0);
                  SendRecord(queue, getpid(), Event(4, server));
                  Client second("mail");
                  CHILD_CHECK(Waiting(queue) == 2); // the first one's
              })),
              0);
    IPCQMsgSafeArray rest;
    DrainIPCMessages(queue, getpid(), rest);
    EXPECT_EQ(rest.Quantity(), 1u);
}

TEST_F(IpcqEarlierMail, IsDroppedByAForkedChildOnItsOwn)
{
    Client parents("mail");
    SendRecord(queue, getpid(), Event(1, server));
    EXPECT_EQ(WaitForExit(StartChild([&] {
                  SendRecord(queue, getpid(), Event(2, server));
                  Client childs("mail");
                  CHILD_CHECK(Waiting(queue) == 1); // the parent's
              })),
              0);
    parents.IPCDrain();
    EXPECT_EQ(parents.Saved().Quantity(), 1u);
}

TEST_F(IpcqEarlierMail, IsDroppedOnEachQueueAndOnOneThatTookItsPlace)
{
    EXPECT_EQ(WaitForExit(StartChild([&] {
                  Client first("mail");
                  pid_t other = StartServer("second", [](Server&) { pause(); });
                  for (int round = 0; round < 2; round++) {
                      const int second = msgget(ftok_orvm("second"), 0660);
                      SendRecord(second, getpid(), Event(1, other));
                      Client onSecond("second");
                      CHILD_CHECK(Waiting(second) == 0);
                      EndChild(other, SIGTERM);
                      other = StartServer("second", [](Server&) { pause(); });
                  }
                  EndChild(other, SIGTERM);
                  SendRecord(queue, getpid(), Event(1, server));
                  Client again("mail");
                  CHILD_CHECK(Waiting(queue) == 1); // other queues make no client of this one the first
                  again.IPCDrain();
              })),
              0);
}

TEST_F(IpcqEarlierMail, StaysInTheServersOwnProcess)
{
    MakeKeyFile("own");
    Server own("own");
    SendRecord(own.Queue(), getpid(), Event(1, server));
    Client("own");
    EXPECT_EQ(Waiting(own.Queue()), 1u);

    // Also when the client talks to another server of the queue.
    const int shared = MakeQueueOf("shared", {server, DeadProcess()});
    Server second("shared");
    ASSERT_EQ(second.Queue(), shared);
    SendRecord(shared, getpid(), Event(1, server));
    const Client client("shared");
    EXPECT_EQ(client.GetServerPID(), server);
    EXPECT_EQ(Waiting(shared), 1u);
    delete_q_and_semaphore(shared);
}

TEST_F(IpcqServer, AnswersRequests)
{
    const pid_t pid = StartServer("talk", [](Server& server) {
        short event, response, ack;
        Buffer data;
        CHILD_CHECK(server.receive_event(event, data, response, ack) == -1); // what clients send
        CHILD_CHECK(event == 3 && response == 1 && ack == 0 && Bytes(data) == "question");
        CHILD_CHECK(std::strcmp(server.LastSendersProgramName(), "/opt/orv/bin/tester") == 0);
        CHILD_CHECK(std::strcmp(server.LastSendersNodeName(), ProgInfo::GetNodeName()) == 0);
        CHILD_CHECK(server.send_response(4, 45, "answer", 6) == 0);
        CHILD_CHECK(server.receive_event(event, data, response, ack) == -1);
        CHILD_CHECK(event == 5 && response == 0 && ack == 1);
        CHILD_CHECK(std::strcmp(server.LastSendersProgramName(), "prog") == 0);
        CHILD_CHECK(std::strcmp(server.LastSendersNodeName(), "node") == 0);
        CHILD_CHECK(server.send_response(6, 81, "ignored", 7) == 0);
        CHILD_CHECK(server.receive_event(event, data, response, ack) == -1);
        CHILD_CHECK(event == 7 && response == 0 && ack == 0);
    });
    Client client("talk");
    ASSERT_TRUE(client.Connected());
    EXPECT_EQ(client.is_a_server(), 0);
    EXPECT_EQ(client.GetServerPID(), pid);
    EXPECT_EQ(client.send_event_with_response(3, "question", 8), 0);
    EXPECT_EQ(client.receive_response(event, data), 45) << "the server's status";
    EXPECT_EQ(event, 4) << "with its event";
    EXPECT_EQ(Bytes(data), "answer") << "and data";
    EXPECT_STREQ(client.LastSendersProgramName(), "/opt/orv/bin/tester");
    client.RegisterProgramName("prog");
    client.RegisterNodeName("node");
    client.RegisterVersion("9");
    EXPECT_EQ(client.send_event_wait_ack(5, nullptr, 0), 81);
    EXPECT_TRUE(client.Connected());
    EXPECT_EQ(client.send_event(7, nullptr, 0), 0);
    EXPECT_EQ(WaitForExit(pid), 0);
    EXPECT_EQ(ObjectsOf("msg"), 0);
}

TEST_F(IpcqServer, PutsTheResponseOnTheQueue)
{
    MakeKeyFile("answer");
    Server server("answer");
    const pid_t peer = IdleProcess();
    IPCQMessage msg = Event(9, peer);
    SendRecord(server.Queue(), getpid(), msg);
    EXPECT_EQ(server.receive_event(event, data, response, ack), -1);
    EXPECT_EQ(server.send_response(4, 45, "answer", 6), 0);
    EXPECT_EQ(TakeRecord(server.Queue(), peer, &msg), 306);
    EXPECT_STREQ(msg.senders_version, "3.4");
    EXPECT_EQ(msg.senders_pid, getpid());
    EXPECT_EQ(msg.object, -1);
    EXPECT_EQ(msg.event, 4);
    EXPECT_STREQ(msg.destprog, "program");
    EXPECT_STREQ(msg.origprog, "/opt/orv/bin/tester");
    EXPECT_STREQ(msg.orignode, ProgInfo::GetNodeName());
    EXPECT_EQ(msg.response_rqd, 0);
    EXPECT_EQ(msg.ack_rqd, 0);
    EXPECT_EQ(msg.result_code, 45);
    EndChild(peer);
    EXPECT_EQ(server.send_response(4, 45, "answer", 6), ErrorReporter::IPC_SEND_PROCESS_GONE);
    EXPECT_TRUE(server.Created());
}

TEST_F(IpcqServer, WhoAskedWhileItWaitedAndHasGoneIsNotAnswered)
{
    MakeKeyFile("late");
    Server server("late");
    const pid_t peer = StartChild([&] {
        usleep(200000);
        SendRecord(server.Queue(), getppid(), Event(9, getpid()));
        pause();
    });
    EXPECT_EQ(server.receive_event(event, data, response, ack), -1);
    EXPECT_EQ(event, 9);
    EndChild(peer);
    usleep(50000); // a clock tick at least
    EXPECT_EQ(server.send_response(4, 45, "answer", 6), ErrorReporter::IPC_SEND_PROCESS_GONE);
    IPCQMessage msg;
    EXPECT_EQ(TakeRecord(server.Queue(), peer, &msg), -1);
}

TEST_F(IpcqServer, WithoutARequestThereIsNobodyToAnswer)
{
    MakeKeyFile("nobody");
    Server server("nobody");
    EXPECT_STREQ(server.LastSendersProgramName(), "");
    EXPECT_STREQ(server.LastSendersNodeName(), "");
    EXPECT_EQ(server.send_response(4, 45, nullptr, 0), ErrorReporter::IPC_SEND_PROCESS_GONE);
}

TEST_F(IpcqServer, ATimeOutIsAnEventFromInside)
{
    MakeKeyFile("timed");
    Server server("timed");
    server.SetReceiveTimeOut(1);
    EXPECT_EQ(server.receive_event(event, data, response, ack), 0) << "not -1";
    EXPECT_EQ(event, 0);
    server.SetReceiveTimeOutEvent(55);
    EXPECT_EQ(server.receive_event(event, data, response, ack), 0);
    EXPECT_EQ(event, 55);
    EXPECT_STREQ(server.LastSendersProgramName(), "Internal");
    EXPECT_STREQ(server.LastSendersNodeName(), ProgInfo::GetNodeName());
}

TEST_F(IpcqServer, AServerWaitsForEverByDefault)
{
    const pid_t pid = StartServer("patient", [](Server& server) {
        alarm(100);
        short event, response, ack;
        Buffer data;
        CHILD_CHECK(server.receive_event(event, data, response, ack) == -1 && event == 2);
        CHILD_CHECK(alarm(0) >= 98);
    });
    usleep(1200000);
    Client client("patient");
    EXPECT_EQ(client.send_event(2, nullptr, 0), 0);
    EXPECT_EQ(WaitForExit(pid), 0);
}

TEST_F(IpcqServer, AClientWhoseResponseDoesNotComeGivesUp)
{
    const pid_t pid = StartServer("silent", [](Server&) { pause(); });
    const pid_t child = StartChild([] {
        Client client("silent");
        client.SetReceiveTimeOut(10);
        short event = 9;
        Buffer data;
        CHILD_CHECK(client.receive_response(event, data) == 0 && event == 0);
        CHILD_CHECK(client.Connected());
    });
    const pid_t dying = StartServer("dying", [](Server&) { pause(); });
    const pid_t other = StartChild([] {
        Client client("dying");
        short event = 9;
        Buffer data;
        CHILD_CHECK(client.receive_response(event, data) == ErrorReporter::IPC_RECV_PROCESS_GONE && event == 0);
    });
    usleep(300000);
    EndChild(dying);
    EXPECT_EQ(WaitForExit(other), 0);
    EXPECT_EQ(WaitForExit(child), 0);
    kill(pid, SIGTERM);
    EXPECT_EQ(WaitForExit(pid), 0);
    Client("dying"); // clears what the dead one left
}

TEST_F(IpcqServer, EventsOfTheServersOwnProcessTakeNoQueue)
{
    MakeKeyFile("inside");
    Server server("inside");
    Client client("inside"); // of the same process
    EXPECT_TRUE(client.Connected());
    EXPECT_EQ(client.send_event(8, "note", 4), 0);
    EXPECT_EQ(Waiting(server.Queue()), 0u) << "never on the queue";
    EXPECT_EQ(server.receive_event(event, data, response, ack), -1);
    EXPECT_EQ(event, 8);
    EXPECT_EQ(Bytes(data), "note");
    EXPECT_EQ(Reports([&] { EXPECT_EQ(client.send_event_wait_ack(8, nullptr, 0), ErrorReporter::IPC_ERROR); }),
              IpcWarning("IPCSend deadlock condition."));
    EXPECT_FALSE(client.Connected());

    Client inside("inside");
    SendRecord(server.Queue(), getpid(), Event(1, getppid()));
    inside.IPCDrain();
    EXPECT_EQ(inside.Saved().Quantity(), 0u) << "it does not take the server's mail";
    EXPECT_EQ(Waiting(server.Queue()), 1u);
    server.IPCDrain();
    EXPECT_EQ(server.Saved().Quantity(), 1u);
}

TEST_F(IpcqServer, ShutdownDropsInternalEventsInEveryCase)
{
    MakeKeyFile("drops");
    Server server("drops");
    EXPECT_EQ(Client("drops").send_event(8, nullptr, 0), 0);
    ASSERT_NE(InternalQMsgsPtr, nullptr);
    Server refused("drops");
    EXPECT_FALSE(refused.Created());
    refused.Shutdown();
    EXPECT_EQ(InternalQMsgsPtr, nullptr) << "also that of a server without a queue";
    EXPECT_TRUE(server.Created());
}

TEST_F(IpcqServer, ShutdownShowsStrandedMessagesWhenDebugging)
{
    MakeKeyFile("stranded");
    IPCQMessage msg = Event(1, 2, "abc");
    msg.mtype = 4711;
    std::ostringstream expected;
    expected << "Message stranded on queue:\n";
    DumpIPCMessage(&msg, expected);
    for (const short level : {0, 1, 2, 3}) {
        Server server("stranded");
        ASSERT_TRUE(server.Created());
        SendRecord(server.Queue(), 4711, msg);
        MonitoredObject::SetDebugLevel(level);
        EXPECT_EQ(CaptureStdout([&] { server.Shutdown(); }), level >= 2 ? expected.str() : "");
        MonitoredObject::SetDebugLevel(0);
        EXPECT_EQ(ObjectsOf("msg"), 0);
    }
}

TEST_F(IpcqServer, SignalsUnregisterTheServer)
{
    const pid_t pid = StartServer("signalled", [](Server&) { pause(); });
    kill(pid, SIGTERM);
    EXPECT_EQ(WaitForExit(pid), 0);
    EXPECT_EQ(ObjectsOf("msg"), 0);
    EXPECT_EQ(ObjectsOf("sem"), 0);

    MakeKeyFile("hook");
    Server server("hook");
    server.SigTermProc(SIGTERM);
    EXPECT_FALSE(server.Created());
}

TEST_F(IpcqServer, AQueueThatGoesIsAPanic)
{
    MakeKeyFile("panic");
    const ChildResult result = RunInChild([] {
        Server server("panic");
        msgctl(server.Queue(), IPC_RMID, nullptr);
        short event = 9, response, ack;
        Buffer data;
        server.receive_event(event, data, response, ack);
    });
    EXPECT_EQ(result.signal, SIGABRT);
    // Where the queue could not be enlarged that is reported first.
    const std::string report = result.err.substr(result.err.rfind("\nErrorReporter: "));
    EXPECT_EQ(ReportField(report, "  Severity Level="), "PANIC");
    EXPECT_EQ(ReportField(report, "  Error Type= "), ErrorReporter::GetErrorType(ErrorReporter::SERVER_GONE));
    const std::string text = ReportField(report, "  Description= ");
    EXPECT_TRUE(text == "Unable to receive data via ipc because the ipc queue no longer exists" ||
                text == "Unable to receive data via ipc because of an invalid argument or the queue does not exist")
        << text;
    EXPECT_EQ(ObjectsOf("msg"), 0);
    semctl(SetOf("panic"), 0, IPC_RMID); // without its queue nobody finds the set, until the next server
}

TEST_F(IpcqServer, AQueueThatFailsIsRemovedWithAPanic)
{
    if (RunInChild([] { DropPrivileges(); }).exitCode == NotPossibleHere)
        GTEST_SKIP() << "no user namespace within the sandbox";
    MakeKeyFile("refusing");
    const pid_t closer = StartChild([] { // takes every right away from the queue as soon as it is there
        int queue = -1;
        CHILD_CHECK(WaitUntil([&] { return (queue = msgget(ftok_orvm("refusing"), 0660)) >= 0; }));
        struct msqid_ds status = QueueStatus(queue);
        status.msg_perm.mode = 0;
        CHILD_CHECK(msgctl(queue, IPC_SET, &status) == 0);
    });
    const ChildResult result = RunInChild([&] {
        DropPrivileges();
        Server server("refusing");
        struct msqid_ds status;
        CHILD_CHECK(WaitUntil([&] { return msgctl(server.Queue(), IPC_STAT, &status) < 0 && errno == EACCES; }));
        short event = 9, response, ack;
        Buffer data;
        server.receive_event(event, data, response, ack);
    });
    EXPECT_EQ(WaitForExit(closer), 0);
    EXPECT_EQ(result.signal, SIGABRT) << result.err;
    EXPECT_NE(result.err.find("  Severity Level=PANIC\n  Error Type= " +
                              std::string(ErrorReporter::GetErrorType(ErrorReporter::IPC_ERROR)) + "\n"),
              std::string::npos);
    EXPECT_NE(result.err.find("  Description= Unable to receive data via ipc because of invalid access permission\n"),
              std::string::npos)
        << result.err;
    EXPECT_EQ(ObjectsOf("msg"), 0);
    semctl(SetOf("refusing"), 0, IPC_RMID); // the key of a queue that may not be read is not known
}

TEST_F(IpcqServer, AMalformedMessageDoesNotTakeTheServerDown)
{
    MakeKeyFile("sturdy");
    Server server("sturdy");
    char bytes[2001] = {};
    SendRaw(server.Queue(), getpid(), bytes, 2001);
    SendRaw(server.Queue(), getpid(), bytes, 10);
    SendRecord(server.Queue(), getpid(), Event(3, getppid(), "good"));
    LetReportsRest();
    EXPECT_EQ(
        MalformedIn(Reports([&] { EXPECT_EQ(server.receive_event(event, data, response, ack), -1); }), server.Queue()),
        1)
        << "the second within a second is counted";
    EXPECT_EQ(event, 3);
    EXPECT_TRUE(server.Created());
}

TEST_F(IpcqServer, ClientsWithoutAServerAreNotConnected)
{
    MakeKeyFile("nobodyhome");
    Client client("nobodyhome");
    EXPECT_EQ(client.Connected(), 0);
    EXPECT_EQ(client.GetServerPID(), -1);
    EXPECT_EQ(client.send_event(1, nullptr, 0), ErrorReporter::IPC_CONNECTION_LOST);
    EXPECT_EQ(client.send_event_wait_ack(1, nullptr, 0), ErrorReporter::IPC_CONNECTION_LOST);
    event = 9;
    EXPECT_EQ(client.receive_response(event, data), ErrorReporter::IPC_CONNECTION_LOST);
    EXPECT_EQ(event, 0);
    Client null(nullptr);
    EXPECT_EQ(null.Connected(), 0);
    EXPECT_EQ(Client("nokeyfile").Connected(), 0);
}

TEST_F(IpcqServer, AClientLeavesNoMailBehind)
{
    MakeKeyFile("mail");
    Server server("mail");
    EXPECT_EQ(WaitForExit(StartChild([&] {
                  const int queue = server.Queue();
                  Client client("mail");
                  SendRecord(queue, getpid(), Event(1, getppid()));
                  SendRecord(queue, getpid(), Event(2, getppid()));
                  client.Shutdown();
                  CHILD_CHECK(Waiting(queue) == 0 && client.Saved().Quantity() == 2);
                  CHILD_CHECK(client.Connected());
                  SendRecord(queue, getpid(), Event(3, getppid()));
                  client.SigTermProc(SIGTERM);
                  CHILD_CHECK(Waiting(queue) == 0);
              })),
              0);
}

TEST_F(IpcqServer, LongNamesAreCut)
{
    MakeKeyFile("cut");
    Server server("cut");
    const std::string longName(200, 'n');
    const std::string text = [&] {
        TemporaryDirectory directory;
        WaitForExit(StartChild([&] {
            Client client("cut");
            client.RegisterVersion(longName.c_str());
            client.RegisterProgramName(longName.c_str());
            client.RegisterNodeName(longName.c_str());
            CHILD_CHECK(client.send_event(1, nullptr, 0) == 0);
            WriteFile(directory.File("dump"), Dump(client));
            client.RegisterNodeName(nullptr);
        }));
        return ReadFile(directory.File("dump"));
    }();
    EXPECT_NE(text.find("IPCQClient::ClientVersion: " + std::string(19, 'n') + "\n"), std::string::npos);
    EXPECT_NE(text.find("IPCQClient::ClientProgram: " + std::string(79, 'n') + "\n"), std::string::npos);
    EXPECT_NE(text.find("IPCQClient::ClientNode   : " + std::string(79, 'n') + "\n"), std::string::npos);
    EXPECT_EQ(server.receive_event(event, data, response, ack), -1);
    EXPECT_EQ(server.LastSendersProgramName(), std::string(79, 'n'));
    EXPECT_EQ(server.LastSendersNodeName(), std::string(79, 'n'));
}

// The dump of a client of the queue `queue`, of this process.
std::string ClientDump(const std::string& server, const std::string& serverPid, const std::string& queue,
                       const std::string& version, const std::string& program, const std::string& node)
{
    return "IPCQClient Object Begin\n"
           "IPCQBase::ServerName     : " +
           server + "\nIPCQBase::ServerPID      : " + serverPid + "\nIPCQBase::MyQueueID      : " + queue +
           "\nIPCQBase::ReceiveTimeOut : 900\n"
           "IPCQBase::SendTimeOut    : 60\n"
           "IPCQBase::MyPID          : " +
           std::to_string(getpid()) +
           "\nIPCQBase::SendersPID     : -1\n"
           "IPCQBase::SendersProgram : \n"
           "IPCQBase::SendersNodeName: \n"
           "IPCQClient::DestObject   : 7\n"
           "IPCQClient::ClientVersion: " +
           version + "\nIPCQClient::ClientProgram: " + program + "\nIPCQClient::ClientNode   : " + node +
           "\nIPCQClient Object End\n";
}

TEST_F(IpcqServer, ServerAndClientDumpThemselves)
{
    MakeKeyFile("dumped");
    Server server("dumped");
    server.SetReceiveTimeOut(30);
    server.SetSendTimeOut(20);
    server.SetReceiveTimeOutEvent(5);
    SendRecord(server.Queue(), getpid(), Event(1, 99));
    server.receive_event(event, data, response, ack);
    const std::string pid = std::to_string(getpid());
    const std::string queue = std::to_string(server.Queue());
    EXPECT_EQ(Dump(server), "IPCQServer Object Begin\n"
                            "IPCQBase::ServerName     : dumped\n"
                            "IPCQBase::ServerPID      : " +
                                pid + "\nIPCQBase::MyQueueID      : " + queue +
                                "\nIPCQBase::ReceiveTimeOut : 30\n"
                                "IPCQBase::SendTimeOut    : 20\n"
                                "IPCQBase::MyPID          : " +
                                pid +
                                "\nIPCQBase::SendersPID     : 99\n"
                                "IPCQBase::SendersProgram : program\n"
                                "IPCQBase::SendersNodeName: node\n"
                                "IPCQServer::ReceiveTimeOutEvent: 5\n"
                                "IPCQServer Object End\n");
    Client client("dumped");
    client.RegisterNodeName("mynode");
    EXPECT_EQ(Dump(client), ClientDump("dumped", pid, queue, "3.4", "/opt/orv/bin/tester", "mynode"));
    EXPECT_EQ(Dump(Client(nullptr)), ClientDump("", "-1", "-1", "", "", ""));
}

TEST_F(IpcqServer, DumpsTheQueue)
{
    MakeKeyFile("info");
    Server server("info");
    Client client("info");
    SetQueueBytes(server.Queue(), 16384);
    IPCMessageMaxDataLen = 1092;
    IPCQMessage msg = Event(1, 2, "abc");
    msg.mtype = 4711;
    SendRecord(server.Queue(), 4711, msg);
    std::ostringstream expected;
    expected << "Dumping queue: " << server.Queue() << "\n"
             << "Server: info ServerPID: " << getpid() << "\n"
             << "IPC Status: \n"
                "msg_qbytes = 16384\n"
                "msg_cbytes = 303\n"
                "msg_qnum   = 1\n"
                "IPCMessageDataSize =    2000\n"
                "IPCMessageNonDataSize = 300\n"
                "IPCMessageMaxDataLen =  1092\n"
                "Outstanding Messages:\n"
                "Message stranded on queue:\n";
    DumpIPCMessage(&msg, expected);
    std::ostringstream out;
    client.dumpQueueInfoOn(out);
    EXPECT_EQ(out.str(), expected.str());
    EXPECT_EQ(Waiting(server.Queue()), 0u);
}

TEST_F(IpcqServer, NoDescriptorsAreLeft)
{
    MakeKeyFile("tidy");
    const int before = OpenDescriptors();
    {
        Server server("tidy");
        Client client("tidy");
        client.send_event(1, nullptr, 0);
        server.receive_event(event, data, response, ack);
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

// What a forked child of a server or client does must not reach the parent's queue, whichever way the child ends.
class IpcqForkedChild : public IpcqServer {
protected:
    static void LeaveThroughDestructor(IPCQBase* object)
    {
        delete object;
        _exit(0);
    }
    static void LeaveThroughSignal(IPCQBase*)
    {
        raise(SIGTERM); // every monitored object cleans up, and the process exits
        _exit(1);
    }
    // Lets a child with a copy of `object` end.
    static int EndOfChild(IPCQBase* object, void (*leave)(IPCQBase*))
    {
        return WaitForExit(StartChild([=] { leave(object); }));
    }
};

TEST_F(IpcqForkedChild, OfAServerLeavesQueueAndSemaphoreAlone)
{
    MakeKeyFile("forks");
    for (const auto leave : {LeaveThroughDestructor, LeaveThroughSignal}) {
        Server* server = new Server("forks");
        ASSERT_TRUE(server->Created());
        EXPECT_EQ(EndOfChild(server, leave), 0);
        EXPECT_TRUE(QueueExists(server->Queue()));
        EXPECT_EQ(semctl(SetOf("forks"), 0, GETVAL), getpid());
        EXPECT_TRUE(IPCQClient(0, "forks").Connected());
        delete server;
        EXPECT_EQ(ObjectsOf("msg"), 0) << "the parent itself removes them";
    }
}

TEST_F(IpcqForkedChild, OfAClientLeavesTheParentsMailAlone)
{
    const pid_t pid = StartServer("mail", [](Server&) { pause(); });
    for (const auto leave : {LeaveThroughDestructor, LeaveThroughSignal}) {
        Client* client = new Client("mail");
        ASSERT_TRUE(client->Connected());
        SendRecord(client->Queue(), getpid(), Event(1, pid));
        EXPECT_EQ(EndOfChild(client, leave), 0);
        EXPECT_EQ(Waiting(client->Queue()), 1u);
        delete client;
    }
    kill(pid, SIGTERM);
    WaitForExit(pid);
}

TEST_F(IpcqForkedChild, KeepsItsOwnInternalEvents)
{
    MakeKeyFile("parent");
    MakeKeyFile("child");
    Server* parents = new Server("parent");
    EXPECT_EQ(WaitForExit(StartChild([=] {
                  Server childs("child");
                  CHILD_CHECK(Client("child").send_event(8, "note", 4) == 0);
                  delete parents;
                  short event, response, ack;
                  Buffer data;
                  childs.SetReceiveTimeOut(10);
                  CHILD_CHECK(childs.receive_event(event, data, response, ack) == -1 && event == 8);
              })),
              0);
    delete parents;
}

TEST_F(IpcqForkedChild, SavesNothingOfTheParentsMail)
{
    const pid_t pid = StartServer("saves", [](Server&) { pause(); });
    {
        Client client("saves");
        SendRecord(client.Queue(), getpid(), Event(1, pid));
        EXPECT_EQ(WaitForExit(StartChild([&] {
                      client.IPCDrain();
                      CHILD_CHECK(client.Saved().Quantity() == 0);
                  })),
                  0);
        EXPECT_EQ(Waiting(client.Queue()), 1u);
    }
    EXPECT_EQ(EndChild(pid, SIGTERM), 0);
}

TEST_F(IpcqForkedChild, DumpsNothingOfTheParentsMail)
{
    const pid_t pid = StartServer("dumps", [](Server&) { pause(); });
    {
        Client client("dumps");
        SendRecord(client.Queue(), getpid(), Event(1, pid));
        const ChildResult result = RunInChild([&] { client.dumpQueueInfoOn(std::cout); });
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(CountOf(result.out, "Outstanding Messages:\n"), 1);
        EXPECT_EQ(CountOf(result.out, "Message stranded on queue:"), 0);
        EXPECT_EQ(Waiting(client.Queue()), 1u);
    }
    EXPECT_EQ(EndChild(pid, SIGTERM), 0);
}

} // namespace
