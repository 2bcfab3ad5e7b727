// SPDX-License-Identifier: BSD-2-Clause
// orvstat ping, run for real: servers that answer, answer half, hang, are stopped or die, on this host and behind a relay.
#include <chrono>
#include <csignal>
#include <string>

#include <netinet/in.h>
#include <sys/socket.h>

#include "tests/system/orvstat_testing.h"
#include "tests/system/relayd_testing.h"

using namespace orvstat_testing;
using relayd_testing::FarHost;
using relayd_testing::SecondHost;

namespace {

/// A ping under way.
class Pinging {
public:
    explicit Pinging(const std::vector<std::string>& more) : begin(std::chrono::steady_clock::now())
    {
        std::vector<std::string> arguments = {"ping"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        pid = StartProgram(Orvstat, arguments, directory.File("log"));
    }
    /// The exit code and what was written, with "<ms>" for the milliseconds. It never takes five seconds; on a busy host
    /// it may take some more to be run at all.
    std::string Result()
    {
        const int code = WaitForExit(pid);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
        return Number(code) + ": " + Replaced(ReadFile(directory.File("log")), "after [0-9]+\\.[0-9] ms", "after <ms>");
    }

    pid_t Process() const { return pid; }

private:
    TemporaryDirectory directory;
    std::chrono::steady_clock::time_point begin;
    pid_t pid;
};

std::string Pinged(const std::vector<std::string>& more) { return Pinging(more).Result(); }

/// A server on EventManager, as it comes.
class Manager : public EventManager {
public:
    explicit Manager(const char* name) : EventManager(name, nullptr) {}
    const char* Event_to_Name(short) override { return "event"; }
    short Name_to_Event(const char*) override { return 0; }
    short StatusEventCode() override { return AckEvent; }
    short LastEventCode() override { return 5; }
    short IsNullEvent(short event) override { return event == 0; }
    short IsExitEvent(short) override { return 0; }
    short HandleEvent(short) override { return 0; }
};

/// One that responds to the null event too.
class Responder : public Manager {
public:
    using Manager::Manager;
    short Handle_NULL_event() override
    {
        InBasket().send_response(0, 0, nullptr, 0);
        return 7;
    }
};

/// One that rejects every event.
class Rejecter : public Manager {
public:
    using Manager::Manager;
    short AcceptEvent(short, const char*, const char*) override { return 0; }
};

template <class Kind>
pid_t StartManager(const char* name)
{
    MakeKeyFile(name);
    const pid_t pid = StartChild([=] {
        Kind server(name);
        CHILD_CHECK(server.InBasket().Created());
        server.main();
    });
    EXPECT_TRUE(WaitUntil([&] { return WaitsOnAQueue(pid); }));
    return pid;
}

// ---- On this host -----------------------------------------------------------------------------------------------

TEST_F(OrvstatTest, PingSaysWhichAnswersCame)
{
    const pid_t both = StartServer("both", ServeEchoes);
    EXPECT_EQ(Pinged({"both"}), "0: both: response after <ms>: event 0, status 0\n"
                                "both: acknowledgement after <ms>: event 77, status 0\n");
    const pid_t acknowledges = StartManager<Manager>("acknowledges");
    EXPECT_EQ(Pinged({"acknowledges"}), "0: acknowledges: acknowledgement after <ms>: event 77, status 0\n"
                                        "acknowledges: no response within 1000 ms more\n");
    const pid_t responds = StartManager<Responder>("responds");
    EXPECT_EQ(Pinged({"responds"}), "0: responds: response after <ms>: event 0, status 0\n"
                                    "responds: acknowledgement after <ms>: event 77, status 7\n");
    const pid_t rejects = StartManager<Rejecter>("rejects");
    EXPECT_EQ(Pinged({"rejects"}), "0: rejects: response after <ms>: event 0, status 81\n"
                                   "rejects: acknowledgement after <ms>: event 77, status 81\n");
    for (const char* name : {"both", "acknowledges", "responds", "rejects"})
        EXPECT_EQ(Waiting(QueueOf(name)), 0u);
    for (const pid_t server : {both, acknowledges, responds, rejects})
        EndChild(server, SIGTERM);
}

// An answer behind the acknowledgement is the response, whatever it carries.
TEST_F(OrvstatTest, PingTellsTwoAnswersWithoutDataApart)
{
    const pid_t server = StartServer("bare", [](Server& inBasket) {
        for (;;) {
            short event, response, ack;
            Buffer data;
            inBasket.receive_event(event, data, response, ack);
            inBasket.send_response(AckEvent, 0, nullptr, 0);
            inBasket.send_response(5, 3, nullptr, 0);
        }
    });
    EXPECT_EQ(Pinged({"bare"}), "0: bare: response after <ms>: event 5, status 3\n"
                                "bare: acknowledgement after <ms>: event 77, status 0\n");
    EndChild(server, SIGTERM);
}

TEST_F(OrvstatTest, PingTakesAnAnswerOfAnyLength)
{
    const pid_t server = StartServer("long", [](Server& inBasket) {
        const std::string text(100000, 'x');
        for (;;) {
            short event, response, ack;
            Buffer data;
            inBasket.receive_event(event, data, response, ack);
            inBasket.send_response(5, -3, text.data(), static_cast<long>(text.size()));
        }
    });
    EXPECT_EQ(Pinged({"long"}), "0: long: response after <ms>: event 5, status -3, 100000 bytes\n"
                                "long: no acknowledgement within 1000 ms more\n");
    EXPECT_EQ(Waiting(QueueOf("long")), 0u);
    EndChild(server, SIGTERM);
}

TEST_F(OrvstatTest, PingWritesJson)
{
    const pid_t server = StartServer("hello", ServeEchoes);
    EXPECT_EQ(Replaced(Result({"--json", "ping", "hello"}), "microseconds\": [0-9]+", "microseconds\": N"),
              "0: {\"name\": \"hello\", \"host\": null, \"service\": null, \"response_microseconds\": N, "
              "\"response_event\": 0, \"response_status\": 0, \"response_bytes\": 0, "
              "\"acknowledgement_microseconds\": N, \"acknowledgement_event\": 77, \"acknowledgement_status\": 0, "
              "\"remark\": null}\n");
    EndChild(server, SIGTERM);
    EXPECT_EQ(Result({"--json", "ping", "hello"}),
              "3: {\"name\": \"hello\", \"host\": null, \"service\": null, \"response_microseconds\": null, "
              "\"response_event\": null, \"response_status\": null, \"response_bytes\": null, "
              "\"acknowledgement_microseconds\": null, \"acknowledgement_event\": null, "
              "\"acknowledgement_status\": null, \"remark\": \"no server runs\"}\n");
}

// At once, as each takes all of its time.
TEST_F(OrvstatTest, PingSaysWhyNoAnswerCame)
{
    const pid_t stopped = StartServer("stopped", ServeEchoes);
    Stop(stopped);
    const pid_t hanging = StartServer("hanging", [](Server& inBasket) {
        short event, response, ack;
        Buffer data;
        inBasket.receive_event(event, data, response, ack);
        for (;;)
            pause();
    });
    SetQueueLimit(16384);
    const pid_t full = StartDeafServer("full");
    const std::string filler(100, 'x');
    while (SendRaw(QueueOf("full"), full, filler.data(), filler.size(), IPC_NOWAIT) == 0)
        ;
    const pid_t client = StartBlockedSender("full", full);
    const struct msqid_ds before = QueueStatus(QueueOf("full"));

    Pinging theStopped({"stopped"});
    Pinging theHanging({"hanging"});
    Pinging theFull({"full"});
    const std::string none = ": no answer within 4500 ms: server ";
    EXPECT_EQ(theStopped.Result(), "1: stopped" + none + Number(stopped) +
                                       " is stopped by a signal or a debugger; on its queue wait 1 message, 300 bytes "
                                       "of 500736, where the request stays until it is taken\n");
    EXPECT_EQ(theHanging.Result(), "1: hanging" + none + Number(hanging) +
                                       " lives, but is busy or hangs; it has taken the request from its queue\n");
    EXPECT_EQ(theFull.Result(), "1: full" + none + Number(full) +
                                    " lives, but is busy or hangs; its queue has no room for a request: " +
                                    Number(static_cast<long>(before.msg_qnum)) + " messages, " +
                                    Number(static_cast<long>(before.__msg_cbytes)) + " bytes of 16384\n");

    EXPECT_EQ(Waiting(QueueOf("full")), before.msg_qnum) << "nothing was added";
    kill(stopped, SIGCONT);
    EXPECT_TRUE(WaitUntil([&] { return Waiting(QueueOf("stopped")) == 0 && WaitsOnAQueue(stopped); }));
    EXPECT_EQ(Waiting(QueueOf("stopped")), 0u) << "its answers are for a process that has gone";
    EXPECT_EQ(Pinged({"stopped"}).compare(0, 2, "0:"), 0);
    EndChild(client);
    for (const pid_t server : {stopped, hanging, full})
        EndChild(server, SIGTERM);
}

TEST_F(OrvstatTest, PingLeavesNobodyBehindWhenItIsKilled)
{
    const pid_t server = StartServer("hello", ServeEchoes);
    Stop(server);
    const TemporaryDirectory directory;
    const pid_t ping = StartProgram(Orvstat, {"ping", "hello"}, directory.File("log"));
    EXPECT_TRUE(WaitUntil([] { return Waiting(QueueOf("hello")) == 1; }));
    const std::vector<pid_t> askers = relayd_testing::ChildrenOf(ping);
    ASSERT_EQ(askers.size(), 1u);
    EndChild(ping, SIGKILL);
    EXPECT_TRUE(WaitUntil([&] { return !process_exists(askers[0]); }, 4));
    EndChild(server, SIGKILL);
    EXPECT_EQ(Call({"clean", "hello"}).exitCode, 0);
}

// The one that asks cannot tell of it, nor end when it is told to.
TEST_F(OrvstatTest, PingTellsOfAServerThatHasGoneUnseen)
{
    const pid_t server = StartServer("hello", ServeEchoes);
    Stop(server);
    Pinging ping({"hello"});
    EXPECT_TRUE(WaitUntil([] { return Waiting(QueueOf("hello")) == 1; }));
    const std::vector<pid_t> askers = relayd_testing::ChildrenOf(ping.Process());
    ASSERT_EQ(askers.size(), 1u);
    EXPECT_TRUE(WaitUntil([&] { return WaitsOnAQueue(askers[0]); }));
    kill(askers[0], SIGSTOP);
    EndChild(server, SIGKILL);
    EXPECT_EQ(Call({"clean", "hello"}).exitCode, 0);
    EXPECT_EQ(ping.Result(), "1: hello: no answer within 4500 ms: the server has ended meanwhile\n");
    EXPECT_FALSE(process_exists(askers[0]));
}

TEST_F(OrvstatTest, PingTellsOfAServerThatDies)
{
    const pid_t server = StartServer("hello", [](Server& inBasket) {
        short event, response, ack;
        Buffer data;
        inBasket.receive_event(event, data, response, ack);
        raise(SIGKILL);
    });
    Pinging ping({"hello"});
    EXPECT_EQ(WaitForExit(server), 128 + SIGKILL);
    EXPECT_EQ(ping.Result(), "1: hello: no answer: the server has ended before it answered\n");
    EXPECT_EQ(Pinged({"hello"}), "1: hello: server " + Number(server) +
                                     " is dead, its queue and semaphore set are left; \"orvstat clean hello\" removes "
                                     "what is left\n");
    EXPECT_EQ(Call({"clean", "hello"}).exitCode, 0) << "asking it has not removed anything";
}

TEST_F(OrvstatTest, PingSaysThatThereIsNoServer)
{
    MakeKeyFile("hello");
    EXPECT_EQ(Pinged({"hello"}), "3: hello: no server runs\n");
    EXPECT_EQ(Pinged({"unknown"}), "3: unknown: there is no key file of this name\n");
}

TEST_F(OrvstatTest, PingSaysWhyItCannotAsk)
{
    const pid_t server = StartServer("hello", ServeEchoes);
    struct msqid_ds status = QueueStatus(QueueOf("hello"));
    status.msg_perm.mode = 0;
    ASSERT_EQ(msgctl(QueueOf("hello"), IPC_SET, &status), 0);
    const ChildResult refused = RunInChild([] {
        DropPrivileges();
        Execute(Orvstat, {"ping", "hello"});
    });
    if (refused.exitCode != NotPossibleHere) {
        EXPECT_EQ(refused.exitCode, 4);
        EXPECT_EQ(refused.err, "hello: no right to use its queue, of user 65534\n");
    }
    const ChildResult alone = RunInChild([] {
        setenv("ASAN_OPTIONS", "detect_leaks=0", 1); // the search for leaks starts a process
        MakeForksFail();
        Execute(Orvstat, {"ping", "hello"});
    });
    if (alone.exitCode != NotPossibleHere) {
        EXPECT_EQ(alone.exitCode, 1);
        EXPECT_EQ(alone.err, "hello: no process can be started\n");
    }
    const auto without = [](std::initializer_list<long> calls, int error) {
        const ChildResult result = RunInChild([&] {
            MakeCallsFail(calls, error);
            Execute(Orvstat, {"ping", "hello"});
        });
        return result.exitCode == NotPossibleHere ? "" : Number(result.exitCode) + ": " + result.err;
    };
    const auto expect = [](const std::string& result, const std::string& expected) {
        EXPECT_TRUE(result.empty() || result == expected) << result;
    };
#ifndef __SANITIZE_ADDRESS__ // a sanitizer needs pipes of its own
    expect(without({SYS_pipe, SYS_pipe2}, EMFILE), "1: hello: no process can be started\n");
#endif
#ifndef SYS_ipc // there one call is all of these
    expect(without({SYS_msgget}, EACCES), "3: hello: no answer: its queue cannot be used: it has ended meanwhile, or "
                                          "there is no right to it\n");
    expect(without({SYS_msgsnd}, EACCES), "1: hello: no answer: An ipc message queue error occurred (60)\n");
#endif
    EndChild(server, SIGTERM);
}

// ---- Over a relay -----------------------------------------------------------------------------------------------

class OrvstatRelayTest : public relayd_testing::RelaydTest {};

TEST_F(OrvstatRelayTest, PingAsksThroughARelay)
{
    StartEchoes();
    const pid_t other = StartServer("hello", ServeEchoes);
    StartRelay({"--object", "4", "hello"});
    const std::string both = ": response after <ms>: event 0, status 0\n";
    const std::string ack = ": acknowledgement after <ms>: event 77, status 0\n";
    EXPECT_EQ(Pinged({"orvd", "--host", FarHost}), "0: orvd" + both + "orvd" + ack);
    EXPECT_EQ(Pinged({"orvpmd", "--host", FarHost}), "0: orvpmd" + both + "orvpmd" + ack) << "of the same service";
    EXPECT_EQ(Pinged({"hello", "--host", FarHost, "--service", "orvd", "--object", "4"}),
              "0: hello" + both + "hello" + ack);
    EXPECT_EQ(Pinged({"orvd", "--host", ProgInfo::GetNodeName()}), "0: orvd" + both + "orvd" + ack);
    EXPECT_TRUE(Serves(0)) << "no connection stays";
    EndChild(other, SIGTERM);
}

TEST_F(OrvstatRelayTest, PingTellsWhereTheWayEnds)
{
    MakeKeyFile("orvd");
    EXPECT_EQ(Pinged({"orvd", "--host", FarHost}),
              "3: orvd: no answer: nothing listens at far, service orvd, or one of the names is not known here\n");
    EXPECT_EQ(Pinged({"orvd", "--host", "nowhere"}),
              "3: orvd: no answer: nothing listens at nowhere, service orvd, or one of the names is not known here\n");
    StartRelay();
    EXPECT_EQ(Pinged({"orvd", "--host", FarHost}),
              "3: orvd: no answer: a relay listens at far, service orvd, but there is no server behind it\n");
}

TEST_F(OrvstatRelayTest, PingWaitsFiveSecondsForWhoSaysNothing)
{
    StartEchoes();
    Stop(server);
    StartRelay();
    const int silent = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(silent, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(4712);
    ASSERT_EQ(bind(silent, reinterpret_cast<struct sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(silent, 5), 0);
    Pinging behindTheRelay({"orvd", "--host", FarHost});
    Pinging withoutARelay({"hello", "--host", FarHost});
    EXPECT_EQ(behindTheRelay.Result(), "1: orvd: no answer within 4500 ms: the relay at far, service orvd, has taken "
                                       "the request, but its server says nothing\n");
    EXPECT_EQ(withoutARelay.Result(), "1: hello: no answer within 4500 ms: no relay answers at far, service hello\n");
    close(silent);
    kill(server, SIGCONT);
    EXPECT_TRUE(WaitUntil([] { return Waiting(QueueOf("orvd")) == 0; }));
}

TEST_F(OrvstatRelayTest, PingTellsOfARelayThatDoesNotBelieveIt)
{
    StartEchoes();
    StartRelay();
    const std::string log = directory.File("log");
    SecondHost second([&] {
        CHILD_CHECK(unshare(CLONE_NEWUTS) == 0 && sethostname("third", 5) == 0);
        const std::string ping = Orvstat + " ping orvd --host " + relayd_testing::FirstAddress;
        Execute("/bin/sh", {"-c", ping + " >" + log + " 2>&1"});
    });
    EXPECT_EQ(second.WaitForExit(), 1);
    EXPECT_EQ(ReadFile(log),
              "orvd: no answer: the relay has ended the connection: its server has ended, or it does not "
              "take third for this host's name\n");
}

} // namespace
