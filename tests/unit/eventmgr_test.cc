// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/eventmgr.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/Dates.h"
#include "Misc/proginfo.h"
#include "tests/support/testing.h"

using namespace testing_support;

namespace {

const char Server[] = "evtest";

enum Events : short { Null, Status, Work, Unknown, DumpSelf, Quit, QuitLater, Last = QuitLater };

/// What the server process leaves for the test to read.
struct Shared {
    short status; // what main() returned
    int handled;  // calls of HandleEvent
    long eventCount;
    int released;     // the test has read the answers: the server may remove its queue
    char calls[4096]; // the virtual operations called, in order
    char dump[65536];
};

class TestManager : public EventManager {
public:
    explicit TestManager(Shared* shared = nullptr, std::ostream* debug = nullptr, const char* name = Server)
        : EventManager(name, debug), shared(shared)
    {
    }

    const char* Event_to_Name(short event) override
    {
        static const char* const names[] = {"Null", "Status", "Work", "Unknown", "DumpSelf", "Quit", "QuitLater"};
        return event >= 0 && event <= Last ? names[event] : "Other";
    }
    short Name_to_Event(const char*) override { return Null; }
    short StatusEventCode() override { return Status; }
    short LastEventCode() override { return Last; }
    short IsNullEvent(short event) override { return event == Null; }
    short IsExitEvent(short event) override { return event == Quit || event == QuitLater; }

    short Handle_NULL_event() override
    {
        Note("null");
        const short status = EventManager::Handle_NULL_event();
        Respond(Null, status);
        return status;
    }
    short HandleEvent(short event) override
    {
        Note("handle");
        shared->handled++;
        if (event == Unknown)
            return Handle_UNSUPPORTED_event();
        if (event == DumpSelf)
            Dump();
        // The first byte of the data is the result asked for.
        const short status = CurrentEventData.Size() > 0 ? static_cast<unsigned char>(CurrentEventData[0]) : 0;
        Respond(event, status);
        return status;
    }
    short Handle_EXIT_event(short& exitnow) override
    {
        Note("exit");
        Respond(CurrentEvent, 0);
        if (CurrentEvent == QuitLater) {
            ExitPending = 1;
            return 0;
        }
        return EventManager::Handle_EXIT_event(exitnow);
    }
    short IsPendingExitOkNow(short& exitnow) override
    {
        Note("pending");
        if (--pendingRefusals >= 0)
            return 33;
        EventManager::IsPendingExitOkNow(exitnow);
        return 44;
    }
    void HandlePreEvent() override { Note("pre"); }
    void HandlePostEvent() override { Note("post"); }

    void Note(const char* what)
    {
        if (shared != nullptr && std::strlen(shared->calls) + std::strlen(what) + 2 < sizeof shared->calls)
            std::strcat(std::strcat(shared->calls, what), " ");
    }
    void Respond(short event, short status)
    {
        if (CurrentEventResponseRqd)
            InBasket().send_response(event, status, "answer", 6);
    }
    void Dump()
    {
        std::ostringstream text;
        dumpOn(text);
        std::snprintf(shared->dump, sizeof shared->dump, "%s", text.str().c_str());
    }

    using EventManager::CoprocessFlag;
    using EventManager::CurrentEvent;
    using EventManager::CurrentEventTime;
    using EventManager::EventCount;
    using EventManager::ExitPending;
    using EventManager::LogStreamPtr;
    using EventManager::myChildren;
    using EventManager::myParentPid;
    using EventManager::myPid;
    using EventManager::traceEvents;
    using EventManager::traceNext;
    using EventManager::traceStatus;
    using EventManager::traceTimes;

    int pendingRefusals = 0;

private:
    Shared* shared;
};

/// Every number behind a "=" becomes "<n>".
std::string WithoutNumbers(const std::string& text)
{
    return Replaced(text, "=([0-9]+(\\.[0-9]+)?(e-[0-9]+)?)", "=<n>");
}

/// The reports of this unit that Display wrote, with their times, counts, errno and lines made equal. Others, such as
/// that of a host that does not let a queue grow, are left out.
std::string Reports(const std::string& errors)
{
    const std::string begin = "\nErrorReporter: ";
    std::string reports;
    for (size_t at = 0, end; (at = errors.find(begin, at)) != std::string::npos; at = end) {
        end = errors.find("\n\n", at + 1) + 2;
        const std::string report = errors.substr(at, end - at);
        if (report.find("Id: eventmgr.cc,") != std::string::npos)
            reports += report;
    }
    return Replaced(WithoutVariables(reports), "Error Code= [^\n]*", "Error Code= <errno>");
}

std::string Warning(const std::string& type, const std::string& description)
{
    return DisplayedReport({"eventmgr", type, description, "WARNING", "<errno>", "/opt/orv/bin/evtest_program"});
}

const char NoChildren[] = "EventManager child process information:\n"
                          "SafeArray(UnixProcess)***************\n"
                          "********** Capacity =0\n"
                          "********** Quantity =0\n"
                          "********** This SafeArray is purgable.\n";

class EventManagerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!InSandbox())
            GTEST_SKIP() << "needs a private /var and /opt/orv/bin";
        static char name[] = "/opt/orv/bin/evtest_program";
        static char* argv[] = {name, nullptr};
        static char* envp[] = {nullptr};
        ProgInfo::Initialize(1, argv, envp, "1.0");
        MakeKeyFile(Server);
        shared = static_cast<Shared*>(
            mmap(nullptr, sizeof *shared, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        ASSERT_NE(shared, MAP_FAILED);
    }
    void TearDown() override
    {
        if (shared != nullptr)
            munmap(shared, sizeof *shared);
        std::remove("/var/orv/data/filler");
    }

    /// Starts a server process that runs `body`; returns when clients can connect.
    pid_t StartServer(const std::function<void()>& body)
    {
        const pid_t pid = StartChild(body);
        EXPECT_TRUE(WaitUntil([] { return IPCQClient(0, Server).Connected() != 0; }));
        return pid;
    }
    pid_t StartServer()
    {
        return StartServer([this] { Serve(); });
    }
    void Serve(std::ostream* debug = nullptr, int pendingRefusals = 0)
    {
        TestManager manager(shared, debug);
        manager.pendingRefusals = pendingRefusals;
        RunMain(manager);
    }
    /// Runs main(); keeps the queue until EndOf.
    void RunMain(TestManager& manager)
    {
        shared->status = manager.main();
        shared->eventCount = manager.EventCount;
        WaitUntil([this] { return shared->released != 0; });
    }
    int EndOf(pid_t server)
    {
        shared->released = 1;
        return WaitForExit(server);
    }

    Shared* shared = nullptr;
};

/// The answer to one request.
struct Answer {
    short code = -1;
    short event = -1;
    std::string data;
};

Answer Receive(IPCQClient& client)
{
    Answer answer;
    Buffer data;
    answer.code = client.receive_response(answer.event, data);
    answer.data.assign(static_cast<const char*>(static_cast<const void*>(data)), data.Size());
    return answer;
}

Answer Request(IPCQClient& client, short event, const std::string& data = "")
{
    Answer answer;
    answer.code = client.send_event_with_response(event, data.data(), static_cast<long>(data.size()));
    return answer.code == 0 ? Receive(client) : answer;
}

TEST_F(EventManagerTest, StartsEmpty)
{
    std::ostringstream debug;
    TestManager manager(shared, &debug);
    EXPECT_TRUE(manager.InBasket().Created());
    EXPECT_EQ(manager.LogStreamPtr, &debug);
    EXPECT_EQ(manager.EventCount, 0);
    EXPECT_EQ(manager.traceNext, 0);
    EXPECT_EQ(manager.CurrentEvent, 0);
    EXPECT_EQ(manager.CurrentEventTime, 0);
    EXPECT_EQ(manager.myPid, getpid());
    EXPECT_EQ(manager.myParentPid, getppid());
    EXPECT_EQ(manager.isCoprocess(), 0);
    EXPECT_EQ(manager.logEvents(), 1);
    for (int slot = 0; slot < 256; slot++) {
        ASSERT_EQ(manager.traceEvents[slot], -1);
        ASSERT_EQ(manager.traceStatus[slot], -1);
        ASSERT_EQ(manager.traceTimes[slot], 0);
    }
    std::ostringstream dump;
    manager.dumpOn(dump);
    EXPECT_EQ(WithoutTimes(dump.str()), std::string("Dumping EventManager data structures:\n"
                                                    "EventCount: 0\n"
                                                    "CurrentEvent: Null (0)\n"
                                                    "EventTime: <time>\n"
                                                    "\nTrace of the most recent events:\n"
                                                    "--- Time Stamp --  Status Event\n"
                                                    "End of trace of most recent events.\n\n") +
                                            NoChildren);
}

TEST_F(EventManagerTest, AcceptsKnownEventsOfNamedSenders)
{
    TestManager manager(shared);
    EXPECT_EQ(manager.AcceptEvent(0, "p", "n"), 1);
    EXPECT_EQ(manager.AcceptEvent(Last, "p", "n"), 1);
    EXPECT_EQ(manager.AcceptEvent(Last + 1, "p", "n"), 0);
    EXPECT_EQ(manager.AcceptEvent(-1, "p", "n"), 0);
    EXPECT_EQ(manager.AcceptEvent(0, "", "n"), 0);
    EXPECT_EQ(manager.AcceptEvent(0, "p", ""), 0);
    EXPECT_EQ(manager.AcceptEvent(0, nullptr, "n"), 0);
    EXPECT_EQ(manager.AcceptEvent(0, "p", nullptr), 0);
}

TEST_F(EventManagerTest, HandlesEventsAndEndsOnExit)
{
    const pid_t server = StartServer();
    IPCQClient client(0, Server);
    Answer answer = Request(client, Work, "\x05");
    EXPECT_EQ(answer.code, 5);
    EXPECT_EQ(answer.event, Work);
    EXPECT_EQ(answer.data, "answer");
    answer = Request(client, Null);
    EXPECT_EQ(answer.code, 0);
    EXPECT_EQ(answer.data, "answer");
    answer = Request(client, Quit);
    EXPECT_EQ(answer.code, 0);
    EXPECT_EQ(answer.event, Quit);
    EXPECT_EQ(EndOf(server), 0);
    EXPECT_EQ(shared->status, 0);
    EXPECT_EQ(shared->eventCount, 3);
    EXPECT_STREQ(shared->calls, "pre handle post pre null post pre exit ") << "no post-event work at the end";
    EXPECT_FALSE(IPCQClient(0, Server).Connected()) << "the queue went with the server";
}

TEST_F(EventManagerTest, AcknowledgesWithTheStatusEvent)
{
    const pid_t server = StartServer();
    IPCQClient client(0, Server);
    EXPECT_EQ(client.send_event_wait_ack(Work, "\x07", 1), 7);
    // By hand, to see the event number of the acknowledgement.
    EXPECT_EQ(client.IPCSend("p", "n", "1", client.GetServerPID(), Server, 0, Work, "\x08", 1, 0, 1, -1), 0);
    Answer ack = Receive(client);
    EXPECT_EQ(ack.code, 8);
    EXPECT_EQ(ack.event, Status);
    EXPECT_EQ(ack.data, "");
    // Both wanted: the handler's response comes first.
    EXPECT_EQ(client.IPCSend("p", "n", "1", client.GetServerPID(), Server, 0, Work, "\x09", 1, 1, 1, -1), 0);
    EXPECT_EQ(Receive(client).data, "answer");
    ack = Receive(client);
    EXPECT_EQ(ack.code, 9);
    EXPECT_EQ(ack.event, Status);
    // Neither wanted.
    EXPECT_EQ(client.send_event(Work, nullptr, 0), 0);
    EXPECT_EQ(client.send_event_wait_ack(Quit, nullptr, 0), 0) << "an exit is acknowledged too";
    EXPECT_EQ(EndOf(server), 0);
    EXPECT_EQ(shared->handled, 4);
}

TEST_F(EventManagerTest, AcknowledgesOnlyWhenAskedWithExactlyOne)
{
    const pid_t server = StartServer();
    IPCQClient client(0, Server);
    EXPECT_EQ(client.IPCSend("p", "n", "1", client.GetServerPID(), Server, 0, Work, "\x08", 1, 0, 2, -1), 0);
    const Answer next = Request(client, Null);
    EXPECT_EQ(next.event, Null);
    EXPECT_EQ(next.data, "answer") << "nothing came for the event before";
    Request(client, Quit);
    EXPECT_EQ(EndOf(server), 0);
}

TEST_F(EventManagerTest, RejectsUnknownNumbersAndNamelessSenders)
{
    const pid_t server = StartServer();
    IPCQClient client(0, Server);
    Answer answer = Request(client, Last + 1);
    EXPECT_EQ(answer.code, 81);
    EXPECT_EQ(answer.event, 0);
    EXPECT_EQ(answer.data, "");
    EXPECT_EQ(Request(client, -7).code, 81);
    EXPECT_EQ(client.send_event_wait_ack(Last + 1, nullptr, 0), 81) << "acknowledged with the status event";
    {
        IPCQClient nameless(0, Server);
        nameless.RegisterProgramName("");
        EXPECT_EQ(Request(nameless, Work).code, 81);
        EXPECT_EQ(Request(nameless, Quit).code, 81);
    }
    IPCQClient nodeless(0, Server);
    nodeless.RegisterNodeName("");
    EXPECT_EQ(Request(nodeless, Work).code, 81);
    EXPECT_STREQ(shared->calls, "") << "nothing was called for them";
    EXPECT_EQ(Request(client, Quit).code, 0);
    EXPECT_EQ(EndOf(server), 0);
    EXPECT_EQ(shared->eventCount, 7);
}

TEST_F(EventManagerTest, ReportsUnsupportedEvents)
{
    const std::string errors = CaptureStderr([this] {
        const pid_t server = StartServer();
        IPCQClient client(0, Server);
        const Answer answer = Request(client, Unknown);
        EXPECT_EQ(answer.code, 47);
        EXPECT_EQ(answer.event, 0);
        EXPECT_EQ(answer.data, "");
        EXPECT_EQ(client.send_event(Unknown, nullptr, 0), 0);
        Request(client, Quit);
        EXPECT_EQ(EndOf(server), 0);
    });
    const std::string warning =
        Warning("An unsupported feature was encountered.", "Unsupported Event: number=3, name=Unknown");
    EXPECT_EQ(Reports(errors), warning + warning);
}

TEST_F(EventManagerTest, APendingExitIsAskedAfterEveryEvent)
{
    const pid_t server = StartServer([this] { Serve(nullptr, 2); });
    IPCQClient client(0, Server);
    EXPECT_EQ(Request(client, QuitLater).code, 0);
    EXPECT_EQ(Request(client, Work, "\x05").code, 5);
    EXPECT_EQ(Request(client, Last + 1).code, 81);
    EXPECT_EQ(EndOf(server), 0);
    EXPECT_EQ(shared->status, 44) << "the result of the pending exit, not of the event";
    EXPECT_STREQ(shared->calls, "pre exit post pending pre handle post pending pending ");
}

TEST_F(EventManagerTest, AnExitDoesNotAskForThePendingOne)
{
    const pid_t server = StartServer([this] { Serve(nullptr, 100); });
    IPCQClient client(0, Server);
    Request(client, QuitLater);
    Request(client, Quit);
    EXPECT_EQ(EndOf(server), 0);
    EXPECT_EQ(shared->status, 0);
    EXPECT_STREQ(shared->calls, "pre exit post pending pre exit ");
}

TEST_F(EventManagerTest, MainReturnsAtOnceWithoutAQueue)
{
    TestManager first(shared);
    ASSERT_TRUE(first.InBasket().Created());
    // The name is taken by a live server of another process.
    const ChildResult second = RunInChild([this] {
        TestManager manager(shared);
        CHILD_CHECK(!manager.InBasket().Created());
        CHILD_CHECK(manager.main() == 0);
        CHILD_CHECK(manager.EventCount == 0);
    });
    EXPECT_EQ(second.exitCode, 0);
    EXPECT_EQ(second.err, "") << "a second server reports nothing";
    EXPECT_TRUE(IPCQClient(0, Server).Connected()) << "the first one keeps its queue";
}

TEST_F(EventManagerTest, ADumpFromAHandlerShowsTheCurrentEventLast)
{
    const pid_t server = StartServer();
    IPCQClient client(0, Server);
    EXPECT_EQ(Request(client, Work, "\x05").code, 5);
    EXPECT_EQ(Request(client, Last + 1).code, 81);
    EXPECT_EQ(Request(client, Work, "\xff").code, 255);
    EXPECT_EQ(Request(client, -1).code, 81) << "the trace cannot tell this one from an unused slot";
    const long before = Dates::CurrentTime();
    EXPECT_EQ(Request(client, DumpSelf).code, 0);
    const long after = Dates::CurrentTime();
    Request(client, Quit);
    EXPECT_EQ(EndOf(server), 0);
    const std::string dump = shared->dump;
    EXPECT_EQ(WithoutTimes(dump), std::string("Dumping EventManager data structures:\n"
                                              "EventCount: 5\n"
                                              "CurrentEvent: DumpSelf (4)\n"
                                              "EventTime: <time>\n"
                                              "\nTrace of the most recent events:\n"
                                              "--- Time Stamp --  Status Event\n"
                                              "<time>  005    Work\n"
                                              "<time>  081    Other\n"
                                              "<time>  255    Work\n"
                                              "<time>  ---    DumpSelf\n"
                                              "End of trace of most recent events.\n\n") +
                                      NoChildren);
    const long shown = Dates::GetDateTime(ReportField(dump, "EventTime: ").c_str());
    EXPECT_GE(shown, before);
    EXPECT_LE(shown, after);
}

TEST_F(EventManagerTest, TheTraceKeepsTheLast256Events)
{
    const pid_t server = StartServer();
    IPCQClient client(0, Server);
    // The results number the events; the last one is the 257th and overwrites the first.
    for (int i = 1; i <= 256; i++)
        ASSERT_EQ(Request(client, Work, std::string(1, static_cast<char>(i))).code, i % 256);
    EXPECT_EQ(Request(client, DumpSelf).code, 0);
    std::string expected;
    for (int i = 2; i <= 256; i++) {
        char line[64];
        std::snprintf(line, sizeof line, "<time>  %03d    Work\n", i % 256);
        expected += line;
    }
    expected += "<time>  ---    DumpSelf\n";
    std::string dump = WithoutTimes(shared->dump);
    const std::string heading = "--- Time Stamp --  Status Event\n";
    size_t start = dump.find(heading) + heading.size();
    EXPECT_EQ(dump.substr(start, dump.find("End of trace") - start), expected);
    EXPECT_NE(dump.find("EventCount: 257\n"), std::string::npos);

    // The next one: the oldest is now the third.
    EXPECT_EQ(Request(client, DumpSelf).code, 0);
    dump = WithoutTimes(shared->dump);
    start = dump.find(heading) + heading.size();
    const std::string line = "<time>  002    Work\n";
    EXPECT_EQ(dump.substr(start, dump.find("End of trace") - start),
              expected.substr(line.size(), expected.size() - line.size() - std::strlen("<time>  ---    DumpSelf\n")) +
                  "<time>  000    DumpSelf\n<time>  ---    DumpSelf\n");
    Request(client, Quit);
    EXPECT_EQ(EndOf(server), 0);
}

TEST_F(EventManagerTest, BetweenEventsTheOldestComesLast)
{
    TestManager manager(shared);
    for (int slot = 0; slot < 256; slot++) {
        manager.traceEvents[slot] = slot == 0 ? Work : Null;
        manager.traceStatus[slot] = static_cast<short>(slot);
        manager.traceTimes[slot] = slot;
    }
    for (int next : {0, 256}) { // 256 is where the ring stands after its last slot
        manager.traceNext = next;
        std::ostringstream out;
        manager.dumpOn(out);
        const std::string dump = WithoutTimes(out.str());
        EXPECT_EQ(CountOf(dump, "<time>  "), 256);
        EXPECT_NE(dump.find("Status Event\n<time>  001    Null\n"), std::string::npos) << next;
        EXPECT_NE(dump.find("<time>  255    Null\n<time>  000    Work\nEnd of trace"), std::string::npos) << next;
    }
    manager.traceNext = 255;
    std::ostringstream out;
    manager.dumpOn(out);
    EXPECT_NE(WithoutTimes(out.str()).find("<time>  255    Null\nEnd of trace"), std::string::npos);
}

TEST_F(EventManagerTest, DumpsItsChildren)
{
    TestManager manager(shared);
    UnixProcess* child = new UnixProcess("exit 3", UnixProcess::wait_at_construction, 20);
    manager.myChildren.AddItem(child);
    std::ostringstream out;
    manager.dumpOn(out);
    std::ostringstream expected;
    expected << "EventManager child process information:\n"
             << "SafeArray(UnixProcess)***************\n"
             << "********** Capacity =32\n"
             << "********** Quantity =1\n"
             << "********** This SafeArray is purgable.\n"
             << "****SafeArray(UnixProcess)[0] address = " << static_cast<void*>(child) << "\n"
             << "Dumping UnixProcess Object:\n"
             << "command: </sbin/sh -c exit 3>\n"
             << "process id: " << child->pid() << "\n"
             << "maxwaittime: 20\n"
             << "exit status: 3\n";
    const std::string dump = out.str();
    EXPECT_EQ(dump.substr(dump.find("EventManager child")), expected.str());
}

TEST_F(EventManagerTest, CompactDropsTheChildrenThatAreGone)
{
    TestManager manager(shared);
    const auto add = [&](const char* command, UnixProcess::ctor_dtor_flag flag) {
        UnixProcess* child = new UnixProcess(command, flag, 20);
        manager.myChildren.AddItem(child);
        return child;
    };
    add("exit 0", UnixProcess::wait_at_construction);
    add("exit 0", UnixProcess::wait_at_construction); // two in a row: none may be skipped
    UnixProcess* alive = add("exec sleep 60", UnixProcess::leave_alone_at_destruction);
    UnixProcess* unreaped = add("exit 0", UnixProcess::leave_alone_at_destruction);
    add("exit 0", UnixProcess::wait_at_construction);
    siginfo_t ended;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(unreaped->pid()), &ended, WEXITED | WNOWAIT), 0);

    EXPECT_EQ(CaptureStdout([&] { manager.Compact(); }), "");
    EXPECT_EQ(manager.myChildren.Quantity(), 2u) << "a child that was not waited for still exists";
    EXPECT_EQ(manager.myChildren[0], alive);
    EXPECT_EQ(manager.myChildren[1], unreaped);
    EXPECT_EQ(manager.myChildren.Capacity(), 2u);

    kill(static_cast<pid_t>(alive->pid()), SIGKILL);
    alive->wait();
    unreaped->wait();
    MonitoredObject::SetDebugLevel(2);
    EXPECT_EQ(CaptureStdout([&] { manager.Compact(); }), "EventManager::Compact()\n");
    MonitoredObject::SetDebugLevel(0);
    EXPECT_EQ(manager.myChildren.Quantity(), 0u);
    EXPECT_EQ(manager.myChildren.Capacity(), 0u);
}

TEST_F(EventManagerTest, TheDestructorEndsTheChildren)
{
    long pid = 0;
    {
        TestManager manager(shared);
        UnixProcess* child = new UnixProcess("exec sleep 60", UnixProcess::terminate_at_destruction);
        manager.myChildren.AddItem(child);
        pid = child->pid();
    }
    int status = 0;
    ASSERT_EQ(waitpid(static_cast<pid_t>(pid), &status, 0), pid);
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
}

TEST_F(EventManagerTest, StampsEvents)
{
    TestManager manager(shared);
    std::ostringstream out;
    manager.TimeStampS(Work, "prog", "node", out);
    manager.TimeStampE(Work, out);
    manager.RejectEventStamp(out);
    EXPECT_EQ(out.str(), "") << "silent at debug level 0";

    MonitoredObject::SetDebugLevel(1);
    manager.TimeStampS(Work, "prog", "node", out);
    EXPECT_EQ(out.str(), "----\nEventBeg: Work\nFrom: [prog] (node)\n");
    out.str("");
    manager.RejectEventStamp(out);
    EXPECT_EQ(out.str(), "Event REJECTED...\n");
    out.str("");
    usleep(300000);
    {
        MakeKeyFile("evtest_other");
        TestManager other(shared, nullptr, "evtest_other"); // shares the clock
        other.TimeStampE(Null, out);
    }
    MonitoredObject::SetDebugLevel(0);
    const std::string text = out.str();
    EXPECT_EQ(WithoutNumbers(WithoutTimes(text)), "EventEnd: Real=<n>, User=<n>, Sys=<n>. <time> Null\n");
    const double real = std::stod(ReportField(text, "Real="));
    EXPECT_GE(real, 0.25);
    EXPECT_LT(real, 60);
    EXPECT_LT(std::stod(ReportField(text, "User=")), 0.25) << "sleeping costs no processor time";
}

TEST_F(EventManagerTest, LogsEventsOnTheDebugStream)
{
    const std::string log = CaptureStdout([this] {
        const pid_t server = StartServer([this] {
            MonitoredObject::SetDebugLevel(1);
            Serve(&std::cout);
        });
        IPCQClient client(0, Server);
        client.RegisterProgramName("prog");
        client.RegisterNodeName("node");
        Request(client, Work);
        Request(client, Last + 1);
        Request(client, Quit);
        EXPECT_EQ(EndOf(server), 0);
    });
    const std::string cost = "Real=<n>, User=<n>, Sys=<n>. <time> ";
    EXPECT_EQ(WithoutNumbers(WithoutTimes(log)),
              "----\nEventBeg: Work\nFrom: [prog] (node)\nEventEnd: " + cost + "Work\n" +
                  "----\nEventBeg: Other\nFrom: [prog] (node)\nEvent REJECTED...\nEventEnd: " + cost + "Other\n" +
                  "----\nEventBeg: Quit\nFrom: [prog] (node)\nEventEnd: " + cost + "Quit\n");
}

TEST_F(EventManagerTest, RunsACoprocess)
{
    const pid_t server = StartServer([this] {
        TestManager manager(shared);
        const long parent = getpid();
        int status = -1;
        switch (manager.InitiateCoprocess()) {
        case EventManager::childP:
            manager.CoprocessExit(manager.isCoprocess() == 1 && manager.myPid == getpid() &&
                                          manager.myParentPid == parent && getppid() == parent &&
                                          signal(SIGTERM, SIG_DFL) == SIG_DFL && signal(SIGSEGV, SIG_DFL) == SIG_DFL
                                      ? 77
                                      : 1);
        case EventManager::parentP:
            wait(&status);
            shared->handled = WEXITSTATUS(status);
            CHILD_CHECK(manager.isCoprocess() == 0);
            CHILD_CHECK(manager.myPid == parent);
            CHILD_CHECK(manager.InBasket().Created());
            RunMain(manager);
            break;
        default: _exit(3);
        }
    });
    IPCQClient client(0, Server);
    EXPECT_EQ(Request(client, Work, "\x05").code, 5) << "the queue outlives the co-process";
    Request(client, Quit);
    EXPECT_EQ(EndOf(server), 0);
    EXPECT_EQ(shared->handled, 77 + 1) << "the co-process's exit code, and one event";
}

/// An object that notes when the program is told to end.
class Witness : public MonitoredObject {
public:
    explicit Witness(Shared* shared) : shared(shared) {}
    void SigTermProc(int) override { std::strcpy(shared->dump, "clean-up"); }

private:
    Shared* shared;
};

TEST_F(EventManagerTest, ASignalForANewbornCoprocessNeverRunsTheHandlersOfTheParent)
{
    const ChildResult result = RunInChild([this] {
        TestManager manager(shared);
        Witness witness(shared);
        pthread_atfork(nullptr, nullptr, [] { kill(getpid(), SIGTERM); }); // before anything else runs in the child
        if (manager.InitiateCoprocess() == EventManager::childP)
            manager.CoprocessExit(1);
        wait(&shared->handled);
    });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(WIFSIGNALED(shared->handled)) << "it ended with exit()";
    EXPECT_EQ(WTERMSIG(shared->handled), SIGTERM);
    EXPECT_STREQ(shared->dump, "");
}

TEST_F(EventManagerTest, TheCoprocessFlushesNothing)
{
    const ChildResult result = RunInChild([this] {
        TestManager manager(shared);
        std::printf("written once");
        if (manager.InitiateCoprocess() == EventManager::childP)
            manager.CoprocessExit(0);
        wait(nullptr);
    });
    EXPECT_EQ(result.out, "written once");
}

TEST_F(EventManagerTest, ACoprocessThatCannotStartIsAFailure)
{
    const ChildResult result = RunInChild([this] {
        TestManager manager(shared);
        MakeCallsFail({SYS_clone, SYS_clone3}, EAGAIN);
        shared->handled = manager.InitiateCoprocess() == EventManager::failP && manager.isCoprocess() == 0 &&
                          manager.myPid == getpid();
    });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(shared->handled, 1);
}

// The file system of /var

/// Fills /var until exactly `target` blocks are free; ends the child process that calls it when that fails.
void LeaveFree(unsigned long target)
{
    struct statvfs disk;
    std::remove("/var/orv/data/filler");
    const int fd = open("/var/orv/data/filler", O_WRONLY | O_CREAT, 0600);
    CHILD_CHECK(fd >= 0);
    CHILD_CHECK(fstatvfs(fd, &disk) == 0);
    CHILD_CHECK(disk.f_blocks <= 100000);
    CHILD_CHECK(posix_fallocate(fd, 0, static_cast<off_t>((disk.f_bfree - target) * disk.f_frsize)) == 0);
    close(fd);
    CHILD_CHECK(statvfs("/var", &disk) == 0);
    CHILD_CHECK(disk.f_bfree == target);
}

/// The least number of free blocks that is 10 percent.
unsigned long TenPercent()
{
    struct statvfs disk;
    EXPECT_EQ(statvfs("/var", &disk), 0);
    return (disk.f_blocks + 9) / 10;
}

void FailWithNoSpace()
{
    ErrorReporter reporter;
    reporter.DoNotDisplayErrorInfo();
    errno = ENOSPC;
    reporter._ReportError(ErrorReporter::NOTICE, ErrorReporter::OTHER, "disk", "$Id: test.cc,v $", 1);
}

TEST_F(EventManagerTest, TheDiskIsNotLookedAtWithoutASuspicion)
{
    const ChildResult result = RunInChild([this] {
        LeaveFree(TenPercent() - 1);
        TestManager manager(shared);
        MonitoredObject::SetDebugLevel(5); // a look at the disk would be told
        shared->handled = manager.FileSystemFull();
    });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(shared->handled, 0);
}

TEST_F(EventManagerTest, BelowTenPercentIsFull)
{
    const unsigned long limit = TenPercent();
    const ChildResult result = RunInChild([this, limit] {
        TestManager manager(shared);
        const auto check = [&](int expected, int step) {
            if (manager.FileSystemFull() != expected)
                _exit(step);
        };
        MonitoredObject::SetDebugLevel(5);
        LeaveFree(limit);
        std::cerr.setstate(std::ios::badbit);
        check(0, 1);
        CHILD_CHECK(std::cerr.good()); // room again clears the suspicions
        LeaveFree(limit - 1);
        check(0, 3); // no suspicion, no look
        std::cerr.setstate(std::ios::failbit);
        check(1, 4);
        CHILD_CHECK(!std::cerr.good());
        std::cerr.clear();
        check(1, 6); // looked at again because it was full
        LeaveFree(limit);
        FailWithNoSpace();
        check(0, 7); // and the recovery is reported
        CHILD_CHECK(ErrorReporter::GetErrorCode() == 0);
        check(0, 9); // without a look
    });
    EXPECT_EQ(result.exitCode, 0);
    struct statvfs disk;
    ASSERT_EQ(statvfs("/var", &disk), 0);
    const auto look = [&](unsigned long free, const char* percent, const char* oldFull) {
        std::ostringstream text;
        text << "f_bfree = " << free << ". f_blocks = " << disk.f_blocks << ". available = " << percent << "%. \n"
             << "OldFileFull = " << oldFull << ". TimeFileFull = <time>\n";
        return text.str();
    };
    EXPECT_EQ(WithoutTimes(result.out),
              look(limit, "10", "0") + look(limit - 1, "9", "0") + look(limit - 1, "9", "1") + look(limit, "10", "1"));
    EXPECT_EQ(Reports(result.err), Warning("File System Full.", "File system full detected at <time>, but its ok now."))
        << "the recovery is reported, once";
}

TEST_F(EventManagerTest, TheTimeOfFullnessIsWhenItWasFirstSeen)
{
    const unsigned long limit = TenPercent();
    const long before = Dates::CurrentTime();
    const ChildResult result = RunInChild([this, limit] {
        TestManager manager(shared);
        LeaveFree(limit - 1);
        FailWithNoSpace();
        CHILD_CHECK(manager.FileSystemFull() == 1);
        shared->eventCount = Dates::CurrentTime();
        sleep(2);
        CHILD_CHECK(manager.FileSystemFull() == 1);
        LeaveFree(limit);
        CHILD_CHECK(manager.FileSystemFull() == 0);
    });
    EXPECT_EQ(result.exitCode, 0);
    const std::string text = ReportField(result.err, "  Description= File system full detected at ");
    const long told = Dates::GetDateTime(text.substr(0, text.find(',')).c_str());
    EXPECT_GE(told, before);
    EXPECT_LE(told, shared->eventCount);
}

TEST_F(EventManagerTest, ADiskThatCannotBeAskedIsFull)
{
    const ChildResult result = RunInChild([this] {
        TestManager manager(shared);
        TemporaryDirectory empty; // no /var in there
        const int root = open("/", O_RDONLY);
        CHILD_CHECK(chroot(empty.Path().c_str()) == 0);
        std::cerr.setstate(std::ios::badbit);
        const int full = manager.FileSystemFull();
        CHILD_CHECK(fchdir(root) == 0);
        CHILD_CHECK(chroot(".") == 0);
        CHILD_CHECK(full == 1);
    });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(WithoutTimes(result.out), "<time> can't statvfs /var\n");
}

TEST_F(EventManagerTest, AFullFileSystemRefusesEverythingButALocalExit)
{
    const unsigned long limit = TenPercent();
    const pid_t server = StartServer([this, limit] {
        TestManager manager(shared);
        LeaveFree(limit - 1);
        FailWithNoSpace();
        RunMain(manager);
        manager.Dump();
    });
    IPCQClient client(0, Server);
    Answer answer = Request(client, Work, "\x05");
    EXPECT_EQ(answer.code, 76);
    EXPECT_EQ(answer.event, 0);
    EXPECT_EQ(answer.data, "");
    // Both wanted: two equal answers.
    EXPECT_EQ(client.IPCSend("p", "n", "1", client.GetServerPID(), Server, 0, Work, nullptr, 0, 1, 1, -1), 0);
    for (int i = 0; i < 2; i++) {
        answer = Receive(client);
        EXPECT_EQ(answer.code, 76);
        EXPECT_EQ(answer.event, 0);
    }
    EXPECT_EQ(client.send_event_wait_ack(Last + 1, nullptr, 0), 76);
    {
        IPCQClient remote(0, Server);
        remote.RegisterNodeName("elsewhere");
        EXPECT_EQ(Request(remote, Quit).code, 76);
    }
    answer = Request(client, Quit);
    EXPECT_EQ(answer.code, 0);
    EXPECT_EQ(answer.event, 0);
    EXPECT_EQ(EndOf(server), 0);
    EXPECT_EQ(shared->status, 0);
    EXPECT_EQ(shared->eventCount, 5);
    EXPECT_STREQ(shared->calls, "") << "nothing is handled";
    const std::string dump = WithoutTimes(shared->dump);
    EXPECT_NE(dump.find("<time>  076    Work\n<time>  076    Work\n<time>  076    Other\n<time>  076    Quit\n"
                        "<time>  000    Quit\nEnd of trace"),
              std::string::npos)
        << dump;
}

TEST_F(EventManagerTest, APendingExitEndsAServerWhoseFileSystemIsFull)
{
    const unsigned long limit = TenPercent();
    const pid_t server = StartServer([this, limit] {
        TestManager manager(shared);
        LeaveFree(limit - 1);
        FailWithNoSpace();
        manager.ExitPending = 1;
        manager.pendingRefusals = 1;
        RunMain(manager);
    });
    IPCQClient client(0, Server);
    EXPECT_EQ(Request(client, Work).code, 76);
    EXPECT_EQ(Request(client, Work).code, 76);
    EXPECT_EQ(EndOf(server), 0);
    EXPECT_EQ(shared->status, 76) << "the result of the pending exit is not kept";
    EXPECT_STREQ(shared->calls, "pending pending ");
}

} // namespace
