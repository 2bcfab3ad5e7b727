// SPDX-License-Identifier: BSD-2-Clause
// A program whose own names are those that the library uses inside: each keeps its own.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <ostream>
#include <string>

#include <sys/types.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/Error.h"
#include "Misc/SafeArray.h"
#include "Misc/ipcq.h"
#include "Misc/ipctli.h"
#include "Misc/lockedfile.h"
#include "Misc/mobject.h"
#include "Misc/proginfo.h"
#include "Misc/unixproc.h"
#include "tests/support/assertions.h"
#include "tests/support/testing.h"

using namespace testing_support;

// The program's own. None has internal linkage, and none is for the library to call.

[[noreturn]] static void Taken(const char* name)
{
    std::fprintf(stderr, "the library called %s of the program\n", name);
    std::_Exit(9);
}

// As programs define them that know no header for them.
int t_errno = 0;
int _nderror = 0;
char* t_errlist[] = {nullptr};
int t_nerr = 0;

class TimedCall {
public:
    explicit TimedCall(long seconds);
    ~TimedCall();
};

TimedCall::TimedCall(long) {}

TimedCall::~TimedCall() {}

class CollectedOutput {
public:
    CollectedOutput();
    ~CollectedOutput();
    ssize_t ReadFrom(int fd);
    void HandTo(Buffer& output);
    bool MakeRoom(size_t size);
    bool Grow(size_t size);
};

CollectedOutput::CollectedOutput() {}

CollectedOutput::~CollectedOutput() {}

ssize_t CollectedOutput::ReadFrom(int) { Taken("CollectedOutput::ReadFrom"); }

void CollectedOutput::HandTo(Buffer&) { Taken("CollectedOutput::HandTo"); }

bool CollectedOutput::MakeRoom(size_t) { Taken("CollectedOutput::MakeRoom"); }

bool CollectedOutput::Grow(size_t) { Taken("CollectedOutput::Grow"); }

void sigalarm(int) { Taken("sigalarm"); }

void AssertionFailed(const char*, const char*, int) { Taken("AssertionFailed"); }

void Report(short, short, int, long, const char*, ...) { Taken("Report"); }

void Report(const ErrorReporter&, short, short, int, const char*, long, const char*, ...) { Taken("Report"); }

bool RecordFits(const TliMsgStruct&, int32_t, int32_t) { Taken("RecordFits"); }

bool RecordFits(const IPCQMessage&) { Taken("RecordFits"); }

void dumpmem(uintptr_t, unsigned long, const char*, std::ostream&) { Taken("dumpmem"); }

bool process_exists(pid_t) { Taken("process_exists"); }

extern "C" int gmatch(const char*, const char*) { Taken("gmatch"); }

extern "C" int t_open(const char*, int, void*) { Taken("t_open"); }

namespace {

const char Server[] = "interference";
const short TimeIsOver = 77;

class Interference : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!InSandbox())
            GTEST_SKIP() << "needs a private /var and /opt/orv/bin";
        static char name[] = "interference";
        static char* arguments[] = {name, nullptr};
        ProgInfo::Initialize(1, arguments, arguments + 1, "1.0");
        MakeKeyFile(Server);
    }
};

/// `body` ends a child with 0, in less than `seconds`.
void ExpectEnds(int seconds, const std::function<void()>& body)
{
    const ChildResult child = RunInChild(body, seconds);
    EXPECT_EQ(child.exitCode, 0) << "signal " << child.signal << ": " << child.err;
}

TEST_F(Interference, AChildIsKilledAtItsLimit)
{
    ExpectEnds(10, [] {
        UnixProcess sleeper("exec sleep 30", UnixProcess::wait_at_construction, 1);
        _exit(sleeper.wait() == -1 ? 0 : 1);
    });
}

TEST_F(Interference, OutputIsCollectedUntilTheLimit)
{
    ExpectEnds(10, [] {
        Buffer output;
        UnixProcess talker("echo first; exec sleep 30", output, 1);
        _exit(std::string(output.GetCString()).substr(0, 6) == "first\n" ? 0 : 1);
    });
}

TEST_F(Interference, AReceiveEndsAtItsLimit)
{
    ExpectEnds(10, [] {
        IPCQServer server(Server);
        server.SetReceiveTimeOut(1);
        server.SetReceiveTimeOutEvent(TimeIsOver);
        short event = 0, response, ack;
        Buffer data;
        if (server.Created())
            server.receive_event(event, data, response, ack);
        server.Shutdown();
        _exit(event == TimeIsOver ? 0 : 1);
    });
}

TEST_F(Interference, EventsReachTheServerAndAnswersTheClient)
{
    const std::string text(5000, 'x'); // several blocks
    const pid_t service = StartChild([] {
        IPCQServer server(Server);
        server.SetReceiveTimeOut(20);
        short event = 0, response, ack;
        Buffer data;
        server.receive_event(event, data, response, ack);
        server.send_response(event, 5, data, static_cast<long>(data.Size()));
        server.receive_event(event, data, response, ack);
        server.Shutdown();
        _exit(event == 4 ? 0 : 1);
    });
    {
        IPCQClient client(0, Server, 10);
        EXPECT_TRUE(client.Connected());
        EXPECT_EQ(client.send_event_with_response(3, text.data(), static_cast<long>(text.size())), 0);
        client.SetReceiveTimeOut(20);
        short event = 0;
        Buffer answer;
        EXPECT_EQ(client.receive_response(event, answer), 5);
        EXPECT_EQ(event, 3);
        EXPECT_TRUE(std::string(answer.GetCString(), answer.Size()) == text);
        EXPECT_EQ(client.send_event(4, nullptr, 0), 0);
        EXPECT_EQ(WaitForExit(service), 0);
    }
}

TEST_F(Interference, ALockIsOneProcesss)
{
    const TemporaryDirectory directory;
    CString name(directory.File("resource").c_str());
    LockFile lock(name);
    EXPECT_TRUE(lock.Locked());
    ExpectEnds(10, [&] {
        LockFile second(name, 1);
        _exit(second.Locked());
    });

    WriteFile(directory.File("stale.lock"), "2l");
    CString stale(directory.File("stale").c_str());
    EXPECT_TRUE(LockFile(stale).Locked());
}

// As on System V: there is one of each, whoever defines it.
TEST_F(Interference, TheErrorNumbersOfTheNetworkAreThoseOfTheProgram)
{
    IPCTli client;
    CaptureStdout([&] { CaptureStderr([&] { EXPECT_EQ(client.Topen("127.0.0.1", "1"), 0) << "somebody listens"; }); });
    EXPECT_EQ(t_errno, 9); // TLOOK
    CaptureStdout([&] { CaptureStderr([&] { EXPECT_EQ(client.Topen("127.0.0.1", "no such service"), 0); }); });
    EXPECT_EQ(_nderror, 2); // ND_NOSERV
}

TEST_F(Interference, AReportIsPrinted)
{
    const std::string text = CaptureStderr([] { EXPECT_FALSE(IPCQServer("without-key-file").Created()); });
    EXPECT_NE(text.find("Error Type= "), std::string::npos) << text;
}

TEST_F(Interference, AnAssertionHasItsText)
{
    struct Numbers : SafeArrayBase {
        Numbers() : SafeArrayBase(0) {}
        void DeleteItem(void*) override {}
    } empty;
    ExpectAssertion("v != NULL", "Misc/SafeArray", [&] {
        MonitoredObject::UnMonitor(); // no crash file
        empty.AddPtr(nullptr);
    });
}

TEST_F(Interference, ACrashFileHasTheStack)
{
    const ChildResult child = RunInChild([] {
        MonitoredObject object;
        std::abort();
    });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_NE(ReadFile("/var/orv/data/interference.sig").find("\nStack: 0x"), std::string::npos);
}

} // namespace
