// SPDX-License-Identifier: BSD-2-Clause
// faultd as a daemon: one a host, faults that survive it, their lives, their commands, the nodes it listens to.
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/FaultId.h"
#include "Misc/ipcq.h"
#include "Misc/proginfo.h"
#include "examples/fault.h"
#include "tests/system/faultd_testing.h"

using namespace faultd_testing;

namespace {

const char DaemonLog[] = "/var/orv/data/faultd.log";

// The number in the lock file; 0 when there is none.
pid_t LockOwner() { return static_cast<pid_t>(std::atol(ReadFile(LockFileName).c_str())); }

bool IsGone(pid_t pid) { return kill(pid, 0) != 0; }

// The value of a field of /proc/PID/status.
std::string StatusOf(pid_t pid, const std::string& field)
{
    return ReportField(ReadFile("/proc/" + std::to_string(pid) + "/status"), "\n" + field + ":\t");
}

class FaultDaemonTest : public FaultdTest {
protected:
    void SetUp() override
    {
        FaultdTest::SetUp();
        std::remove(DaemonLog);
    }
    void TearDown() override
    {
        if (daemon > 0 && !IsGone(daemon))
            EndDaemon(SIGTERM);
        FaultdTest::TearDown();
    }

    void StartDaemon(const std::vector<std::string>& arguments = {})
    {
        EXPECT_RESULT(RunProgram(Faultd, arguments), 0, "", "");
        daemon = LockOwner();
        ASSERT_GT(daemon, 1) << ReadFile(DaemonLog);
    }
    // Ends the daemon with a signal, or 0 for the exit event.
    void EndDaemon(int signal)
    {
        ASSERT_GT(daemon, 1) << "there is none";
        if (signal != 0)
            kill(daemon, signal);
        else
            EXPECT_RESULT(Ctl({"exit"}), 0, "", "");
        EXPECT_TRUE(WaitUntil([this] { return IsGone(daemon); }));
        daemon = 0;
    }
    // Waits for a text in the log.
    static bool Logs(const std::string& text)
    {
        return WaitUntil([&] { return ReadFile(DaemonLog).find(text) != std::string::npos; });
    }

    pid_t daemon = 0;
};

// What the daemon answers to a node of that name.
short StatusFor(const char* node, short event, const std::string& data = "")
{
    IPCQClient client(0, "orvd");
    client.RegisterProgramName("stranger's program");
    client.RegisterNodeName(node);
    short answered = -1;
    Buffer answer;
    EXPECT_EQ(client.send_event_with_response(event, data.data(), static_cast<long>(data.size())), 0);
    return client.receive_response(answered, answer);
}

const short Rejected = 81;
const std::string Alpha7 = "7|5|alpha14|alpha/00000007";

} // namespace

// ---- The daemon

TEST_F(FaultDaemonTest, LeavesTerminalParentAndDescriptors)
{
    StartDaemon();
    EXPECT_EQ(StatusOf(daemon, "PPid"), "1");
    EXPECT_EQ(StatusOf(daemon, "Umask"), "0022") << "its files are not for everybody to write to";
    EXPECT_NE(getsid(daemon), daemon) << "a session leader could get a terminal again";
    EXPECT_NE(getsid(daemon), getsid(0));
    const std::string process = "/proc/" + std::to_string(daemon);
    std::string status;
    const auto waits = [&] { // with 1 as its parent
        status = ReadFile(process + "/stat");
        return status.substr(status.rfind(')')).find(") S 1 ") == 0;
    };
    EXPECT_TRUE(WaitUntil(waits)) << status;
    EXPECT_NE(status.find(" 0 -1 "), std::string::npos) << "no terminal, no terminal group: " << status;
    for (const char* fd : {"0", "1", "2"})
        EXPECT_EQ(std::filesystem::read_symlink(process + "/fd/" + fd), DaemonLog);
    struct stat logFile;
    EXPECT_EQ(stat(DaemonLog, &logFile), 0);
    EXPECT_EQ(logFile.st_mode & 07777, 0644u);
    EXPECT_EQ(ReadFile(LockFileName).substr(0, std::to_string(daemon).size() + 2),
              std::to_string(daemon) + "l" + std::string(1, '\0'));
    EndDaemon(0);
    EXPECT_FALSE(std::filesystem::exists(LockFileName));
    EXPECT_EQ(QueuesOnTheHost(), 0);
}

TEST_F(FaultDaemonTest, LogsBehindTheEarlierMessages)
{
    StartDaemon();
    Ctl({"raise", "alpha", "1", "first"});
    EndDaemon(0);
    StartDaemon();
    Ctl({"raise", "alpha", "2", "second"});
    EXPECT_TRUE(Logs("alpha/00000001 raised, new: first\n"));
    EXPECT_TRUE(Logs("alpha/00000002 raised, new: second\n"));
    EndDaemon(SIGHUP);
    const std::string other = directory.File("other.log");
    StartDaemon({"--log", other});
    Ctl({"raise", "alpha", "3", "third"});
    EXPECT_TRUE(WaitUntil([&] { return ReadFile(other).find("raised, new: third\n") != std::string::npos; }));
}

TEST_F(FaultDaemonTest, ReturnsOnlyOnceItServes)
{
    // A start that takes a while: many faults, whose missing records are reported.
    ASSERT_EQ(mkdir(FaultDirectory, 0755), 0);
    FaultIdList faults((std::string(FaultDirectory) + "/list").c_str());
    for (int number = 1; number <= 2000; number++)
        faults.AddFaultId(FaultId(number, "alpha"));
    faults.Save();
    for (int i = 0; i < 5; i++) {
        EXPECT_RESULT(RunProgram(Faultd, {}), 0, "", "");
        EXPECT_TRUE(IPCQClient(0, "orvd").Connected());
        daemon = LockOwner();
        EndDaemon(0);
    }
}

TEST_F(FaultDaemonTest, TellsAServiceManagerOnceItServes)
{
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    for (const std::string& name : {directory.File("notify"), std::string("@notify")}) {
        const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ASSERT_GE(manager, 0);
        const std::string bound = name[0] == '@' ? std::string(1, '\0') + name.substr(1) : name;
        std::memcpy(address.sun_path, bound.data(), bound.size());
        ASSERT_EQ(bind(manager, reinterpret_cast<struct sockaddr*>(&address),
                       static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + bound.size())),
                  0);
        const struct timeval limit = {60, 0};
        setsockopt(manager, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);

        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        const pid_t server = StartProgram(Faultd, {"--foreground"}, directory.File("foreground.log"));
        unsetenv("NOTIFY_SOCKET");
        char text[64] = "";
        EXPECT_EQ(recv(manager, text, sizeof text - 1, 0), 7) << ReadFile(directory.File("foreground.log"));
        EXPECT_STREQ(text, "READY=1");
        EXPECT_TRUE(IPCQClient(0, "orvd").Connected());
        EXPECT_RESULT(Ctl({"raise", "alpha", "1", "fault"}), 0, "", "");
        EXPECT_RESULT(Ctl({"run", "alpha", "1", "echo \"${NOTIFY_SOCKET-none}\""}), 0, "none\n", "");
        EXPECT_RESULT(Ctl({"clear", "alpha", "1"}), 0, "", "");
        EXPECT_EQ(EndChild(server, SIGTERM), 0);
        close(manager);
    }
}

TEST_F(FaultDaemonTest, OfManyThatAreStartedOneServes)
{
    const int count = 8;
    pid_t starts[count];
    for (int i = 0; i < count; i++)
        starts[i] = StartProgram(Faultd, {}, directory.File(std::to_string(i)));
    int refused = 0;
    for (int i = 0; i < count; i++)
        if (WaitForExit(starts[i]) != 0) {
            refused++;
            EXPECT_EQ(ReadFile(directory.File(std::to_string(i))), SecondServer);
        }
    daemon = LockOwner();
    EXPECT_EQ(refused, count - 1);
    EXPECT_EQ(CountOf(ReadFile(DaemonLog), SecondServer), refused);
    EXPECT_EQ(Ctl({"list"}).exitCode, 0);
    EXPECT_EQ(QueuesOnTheHost(), 1);
    EXPECT_EQ(LockOwner(), daemon);
}

TEST_F(FaultDaemonTest, TellsItsCallerWhyItDoesNotServe)
{
    WriteFile(FaultDirectory, "not a directory");
    EXPECT_RESULT(RunProgram(Faultd, {}), 1, "", "faultd: the faults cannot be kept in /var/orv/data/faults\n");
    std::remove(FaultDirectory);
    EXPECT_TRUE(WaitUntil([] { return !std::filesystem::exists(LockFileName); })) << "it ends after it has said so";

    const ChildResult ended = RunInChild([] {
        MakeCallsFail({SYS_setsid}, EPERM);
        Execute(Faultd, {});
    });
    if (ended.exitCode != NotPossibleHere) {
        EXPECT_EQ(ended.exitCode, 1);
        EXPECT_EQ(ended.err, "can't change process group\n"
                             "faultd: ended before it served; see /var/orv/data/faultd.log\n");
    }
}

TEST_F(FaultDaemonTest, ALockThatCannotBeWrittenIsNotOneThatIsHeld)
{
    ASSERT_EQ(mkdir(LockFileName, 0755), 0);
    const std::string refused = "faultd: no way to take the lock /var/orv/data/faultd.lock: ";
    EXPECT_RESULT(RunProgram(Faultd, {}), 1, "", refused + "Is a directory\n");
    ASSERT_EQ(rmdir(LockFileName), 0);
    StartDaemon();
    EXPECT_RESULT(RunProgram(Faultd, {}), 1, "", SecondServer);
}

TEST_F(FaultDaemonTest, AStaleLockDoesNotKeepItFromStarting)
{
    StartDaemon();
    EndDaemon(SIGKILL);
    EXPECT_TRUE(std::filesystem::exists(LockFileName)) << "it had no chance";
    StartDaemon();
    EXPECT_EQ(LockOwner(), daemon);
}

TEST_F(FaultDaemonTest, SaysWhyItCannotStart)
{
    const std::string data = "/var/orv/data";
    const std::string aside = "/var/orv/aside";
    ASSERT_EQ(rename(data.c_str(), aside.c_str()), 0);
    EXPECT_RESULT(RunProgram(Faultd, {}), 1, "",
                  "faultd: no way to write into /var/orv/data: No such file or directory\n");
    ASSERT_EQ(rename(aside.c_str(), data.c_str()), 0);

    EXPECT_RESULT(RunProgram(Faultd, {"--log", "/no/such/log"}), 1, "",
                  "faultd: no way to write the log /no/such/log: No such file or directory\n");
    const std::string fifo = directory.File("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_RESULT(RunProgram(Faultd, {"--log", fifo}), 1, "",
                  "faultd: no way to write the log " + fifo + ": No such device or address\n");
    EXPECT_EQ(QueuesOnTheHost(), 0);

    WriteFile(FaultDirectory, "not a directory");
    ChildResult refused = RunProgram(Faultd, {"--foreground"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.err.find("faultd: the faults cannot be kept in /var/orv/data/faults\n"), std::string::npos);
    std::remove(FaultDirectory);

    server = StartChild([] {
        IPCQServer other("orvd");
        if (other.Created())
            pause();
    });
    ASSERT_TRUE(WaitUntil([] { return QueuesOnTheHost() == 1 && IPCQClient(0, "orvd").Connected(); }));
    refused = RunProgram(Faultd, {"--foreground"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.err.find("faultd: no message queue: another server has it, or the host refuses one\n"),
              std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(LockFileName));
}

// ---- Faults that survive it

TEST_F(FaultDaemonTest, ItsFaultsAreThereAfterARestart)
{
    const std::string file = directory.File("attachment");
    const std::string copy = directory.File("copy");
    WriteFile(file, Bytes(70000, 1));
    StartDaemon();
    Ctl({"raise", "alpha", "7", "disk 3", "--attach", file, "--option", "port=4", "--option", "bay=left = 2"});
    Ctl({"raise", "beta", "1", "to be cleared"});
    Ctl({"raise", "it's", "2147483647", ""});
    Ctl({"move", "alpha", "7", "working"});
    Ctl({"clear", "beta", "1"});
    const std::string list = Ctl({"list"}).out;
    EXPECT_EQ(WithoutTimes(list), "alpha/00000007\t<time>\tworking\t70000\tdisk 3\n"
                                  "it's/2147483647\t<time>\tnew\t0\t\n");
    for (const int signal : {SIGKILL, SIGSEGV, SIGTERM, 0}) {
        EndDaemon(signal);
        StartDaemon();
        EXPECT_EQ(Ctl({"list"}).out, list) << "after " << signal;
    }
    const ChildResult shown = Ctl({"show", "alpha", "7", "--save", copy});
    EXPECT_EQ(WithoutTimes(shown.out), "Fault:    alpha/00000007\n"
                                       "Raised:   <time>\n"
                                       "State:    working\n"
                                       "Attached: 70000 bytes\n"
                                       "Text:     disk 3\n"
                                       "Option:   port=4\n"
                                       "Option:   bay=left = 2\n");
    EXPECT_TRUE(ReadFile(copy) == ReadFile(file));
    // Nothing is left of a fault that was cleared.
    EXPECT_RESULT(Ctl({"clear", "alpha", "7"}), 0, "", "");
    EXPECT_RESULT(Ctl({"clear", "it's", "2147483647"}), 0, "", "");
    int files = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(FaultDirectory))
        files++;
    EXPECT_EQ(files, 1) << "the list";
}

TEST_F(FaultDaemonTest, AFaultWhoseRecordIsLostIsKeptAndToldOf)
{
    StartDaemon();
    for (const char* number : {"1", "2", "3", "4"})
        Ctl({"raise", "alpha", number, "t"});
    EndDaemon(0);
    const std::string record = std::string(FaultDirectory) + "/alpha%2F0000000";
    std::remove((record + "1").c_str());
    WriteFile(record + "2", "garbage");
    WriteFile(record + "3", ReadFile(record + "4"));
    StartDaemon();
    const std::string lost = "\tnew\t0\t(the record of this fault could not be read)\n";
    const std::string none = "01/01/1970 00:00:00";
    const std::string list = Replaced(Ctl({"list"}).out, "\t[^\t]* 00:00:00", "\t<no time>");
    EXPECT_EQ(WithoutTimes(list), "alpha/00000001\t<no time>" + lost + "alpha/00000002\t<no time>" + lost +
                                      "alpha/00000003\t<no time>" + lost + "alpha/00000004\t<time>\tnew\t0\tt\n");
    const std::string text = ReadFile(DaemonLog);
    for (const char* number : {"1", "2", "3"})
        EXPECT_NE(text.find("  Description= " + record + number + "\n"), std::string::npos) << text;
    EXPECT_RESULT(Ctl({"raise", "alpha", "1", "again"}), 0, "", "");
    EXPECT_RESULT(Ctl({"clear", "alpha", "2"}), 0, "", "");
}

TEST_F(FaultDaemonTest, AListThatWasCutShortKeepsWhatCouldBeRead)
{
    StartDaemon();
    for (const char* number : {"1", "2", "3"})
        Ctl({"raise", "alpha", number, "t"});
    EndDaemon(0);
    const std::string list = std::string(FaultDirectory) + "/list";
    const std::string whole = ReadFile(list);
    EXPECT_EQ(whole.substr(0, 2), std::string("\0\3", 2)) << "in network order";
    WriteFile(list, whole.substr(0, whole.size() - 1));
    StartDaemon();
    EXPECT_EQ(WithoutTimes(Ctl({"list"}).out), "alpha/00000001\t<time>\tnew\t0\tt\n"
                                               "alpha/00000002\t<time>\tnew\t0\tt\n");
    EXPECT_TRUE(Logs("  Description= " + list + "\n"));
    EXPECT_TRUE(ReadFile(list + ".broken") == whole.substr(0, whole.size() - 1)) << "kept for whoever can mend it";
    EndDaemon(SIGKILL);
    StartDaemon();
    EXPECT_EQ(CountOf(Ctl({"list"}).out, "\n"), 2);
    EndDaemon(0);
    WriteFile(list, std::string("\x7f\xff", 2) + std::string(1000, '\xff'));
    StartDaemon();
    EXPECT_RESULT(Ctl({"list"}), 0, "", "");
}

TEST_F(FaultDaemonTest, AChangeThatCannotBeStoredIsRefused)
{
    StartDaemon();
    Ctl({"raise", "alpha", "1", "t"});
    const std::string faults = FaultDirectory;
    for (const char* name : {"/list.new", "/alpha%2F00000002.new"}) {
        ASSERT_EQ(mkdir((faults + name).c_str(), 0755), 0);
        const ChildResult raised = Ctl({"raise", "alpha", "2", "t"});
        EXPECT_EQ(raised.exitCode, 1);
        EXPECT_EQ(ReportField(raised.err, "faultctl: RAISE: ").find(ErrorReporter::GetErrorType(16)), 0u) << raised.err;
        ASSERT_EQ(rmdir((faults + name).c_str()), 0);
        EXPECT_FALSE(std::filesystem::exists(faults + "/alpha%2F00000002"));
    }
    ASSERT_EQ(mkdir((faults + "/alpha%2F00000001.new").c_str(), 0755), 0);
    EXPECT_EQ(Ctl({"move", "alpha", "1", "working"}).exitCode, 1);
    ASSERT_EQ(rmdir((faults + "/alpha%2F00000001.new").c_str()), 0);
    ASSERT_EQ(mkdir((faults + "/list.new").c_str(), 0755), 0);
    EXPECT_EQ(Ctl({"clear", "alpha", "1"}).exitCode, 1);
    ASSERT_EQ(rmdir((faults + "/list.new").c_str()), 0);
    EXPECT_RESULT(Ctl({"raise", "alpha", "3", "t"}), 0, "", "");
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(WithoutTimes(Ctl({"list"}).out), "alpha/00000001\t<time>\tnew\t0\tt\n"
                                                   "alpha/00000003\t<time>\tnew\t0\tt\n");
        EndDaemon(SIGKILL);
        StartDaemon();
    }
}

// ---- The life of a fault

TEST_F(FaultDaemonTest, WalksAFaultThroughItsStates)
{
    StartDaemon();
    Ctl({"raise", "alpha", "7", "t"});
    const auto move = [](const char* state) { return Ctl({"move", "alpha", "7", state}); };
    const std::string refused = "faultctl: MOVE: An invalid transition was encountered. (26)\n";
    EXPECT_RESULT(Ctl({"moves", "alpha", "7"}), 0,
                  "working\tBeing worked on\nwaiting_escalation\tWaiting for escalation\n", "");
    EXPECT_RESULT(move("closed"), 1, "", refused);
    EXPECT_RESULT(move("new"), 1, "", refused);
    EXPECT_RESULT(move("asleep"), 1, "", "faultctl: MOVE: An invalid state was encountered. (27)\n");
    EXPECT_RESULT(move("waiting_escalation"), 0, "", "");
    EXPECT_RESULT(move("waiting_escalation"), 0, "", "");
    EXPECT_RESULT(Ctl({"moves", "alpha", "7"}), 0, "working\tBeing worked on\n", "");
    EXPECT_RESULT(move("escalated"), 0, "", "");
    EXPECT_RESULT(move("solved"), 0, "", "");
    EXPECT_RESULT(move("working"), 0, "", "");
    EXPECT_RESULT(move("solved"), 0, "", "");
    EXPECT_RESULT(move("closed"), 0, "", "");
    EXPECT_RESULT(Ctl({"moves", "alpha", "7"}), 0, "", "");
    EXPECT_EQ(WithoutTimes(Ctl({"list"}).out), "alpha/00000007\t<time>\tclosed\t0\tt\n");
    EXPECT_TRUE(Logs("alpha/00000007 moved, closed: t\n"));
    EXPECT_EQ(CountOf(ReadFile(DaemonLog), "alpha/00000007 moved, "), 7);
    EXPECT_TRUE(Logs("  Description= Invalid state transition: new -> new.\n"));
    // Raised again it begins anew.
    Ctl({"raise", "alpha", "7", "t"});
    EXPECT_EQ(WithoutTimes(Ctl({"list"}).out), "alpha/00000007\t<time>\tnew\t0\tt\n");
    const std::string missing = "Cannot find the data item, it does not exist. (56)\n";
    EXPECT_RESULT(Ctl({"move", "alpha", "8", "working"}), 1, "", "faultctl: MOVE: " + missing);
    EXPECT_RESULT(Ctl({"moves", "alpha", "8"}), 1, "", "faultctl: MOVES: " + missing);
}

TEST_F(FaultDaemonTest, MessagesFollowTheTemplateAndCftime)
{
    setenv("FAULT_MESSAGE", "%d|%e|%i|%n|%s|%t|%o|100%%|%x", 1);
    setenv("CFTIME", "<%Y-%m-%d>", 1);
    StartDaemon();
    unsetenv("FAULT_MESSAGE");
    unsetenv("CFTIME");
    Ctl({"raise", "alpha", "7", "two\nlines", "--option", "a=1", "--option", "b=%d"});
    Ctl({"clear", "alpha", "7"});
    EXPECT_TRUE(Logs("|cleared|"));
    const std::string text = Replaced(ReadFile(DaemonLog), "<[0-9]{4}-[0-9]{2}-[0-9]{2}>", "<date>");
    EXPECT_NE(text.find("<date>|raised|alpha/00000007|alpha|new|two lines| a=1 b=%d|100%|%x\n"
                        "<date>|cleared|alpha/00000007|alpha|new|two lines| a=1 b=%d|100%|%x\n"),
              std::string::npos)
        << text;
}

// ---- Commands

TEST_F(FaultDaemonTest, RunsNineCommandsEightAtATime)
{
    StartDaemon();
    Ctl({"raise", "al'pha", "7", "t"});
    const std::string gate = directory.File("gate");
    for (int i = 1; i <= 9; i++)
        EXPECT_RESULT(Ctl({"start", "al'pha", "7",
                           "echo begin " + std::to_string(i) + " $FAULT_NODE $FAULT_NUMBER; until [ -e " + gate +
                               " ]; do sleep 0.1; done; echo end"}),
                      0, "", "");
    EXPECT_TRUE(Logs("begin 8 al'pha 7\n"));
    std::string status = Ctl({"status"}).out;
    EXPECT_NE(status.find("Number of Pending Processes = 1\n"), std::string::npos);
    EXPECT_NE(status.find("Number of Active Processes = 8\n"), std::string::npos);
    EXPECT_EQ(CountOf(status, "AssociateFaultId is al'pha/00000007\n"), 8);
    EXPECT_EQ(ReadFile(DaemonLog).find("begin 9"), std::string::npos);
    // The daemon is at anybody's service meanwhile.
    EXPECT_RESULT(Ctl({"run", "al'pha", "7", "echo $FAULT_NODE"}), 0, "al'pha\n", "");
    WriteFile(gate, "");
    EXPECT_TRUE(Logs("begin 9 al'pha 7\n"));
    EXPECT_TRUE(WaitUntil([] { return CountOf(ReadFile(DaemonLog), "end\n") == 9; }));
    EXPECT_TRUE(WaitUntil([] {
        return Ctl({"status"}).out.find("Number of Active Processes = 0\n") != std::string::npos;
    })) << "without an event that would make it look";
    const std::string missing = "Cannot find the data item, it does not exist. (56)\n";
    EXPECT_RESULT(Ctl({"start", "alpha", "8", "true"}), 1, "", "faultctl: START: " + missing);
}

TEST_F(FaultDaemonTest, ACommandThatEndsWhileAnotherIsWaitedForLeavesNoZombie)
{
    StartDaemon();
    Ctl({"raise", "alpha", "7", "t"});
    Ctl({"start", "alpha", "7", "sleep 0.5"});
    EXPECT_RESULT(Ctl({"run", "alpha", "7", "sleep 1"}), 0, "", "");
    EXPECT_TRUE(
        WaitUntil([] { return Ctl({"status"}).out.find("Number of Active Processes = 0\n") != std::string::npos; }));
    const std::string children = "/proc/" + std::to_string(daemon) + "/task/" + std::to_string(daemon) + "/children";
    EXPECT_EQ(ReadFile(children), "");
}

TEST_F(FaultDaemonTest, AtItsEndTellsWhichCommandsWereNotStarted)
{
    StartDaemon();
    Ctl({"raise", "alpha", "7", "t"});
    for (int i = 1; i <= 10; i++)
        Ctl({"start", "alpha", "7", "sleep 3; echo done " + std::to_string(i)});
    EndDaemon(0);
    const std::string prefix = "not started any more: export FAULT_NODE='alpha' FAULT_NUMBER=7\nsleep 3; echo done ";
    EXPECT_TRUE(Logs(prefix + "9\n" + prefix + "10\n"));
    EXPECT_TRUE(WaitUntil([] { return CountOf(ReadFile(DaemonLog), "\ndone ") == 8; })) << "those run to their end";
}

// ---- Other nodes

TEST_F(FaultDaemonTest, ANodeThatIsNotListedIsRejectedAndLoggedOnce)
{
    SyslogSink syslog;
    StartDaemon();
    Ctl({"raise", "alpha", "7", "t"});
    syslog.Records();
    for (int i = 0; i < 3; i++)
        for (const short event : {NoEvent, StatusEvent, ListEvent, RunEvent})
            EXPECT_EQ(StatusFor("stranger", event), Rejected);
    EXPECT_EQ(StatusFor("other", ListEvent), Rejected);
    const std::string rejected = "ORV rejected message from invalid node ";
    const std::string text = ReadFile(DaemonLog);
    EXPECT_EQ(CountOf(text, "  Description= " + rejected + "stranger\n"), 1) << text;
    EXPECT_EQ(CountOf(text, "  Description= " + rejected + "other\n"), 1);
    EXPECT_EQ(CountOf(text, "  Description= No orvnodes.dat file.\n"), 1);
    const std::vector<std::string> records = syslog.Records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_NE(records[0].find(rejected + "stranger"), std::string::npos) << records[0];
    EXPECT_NE(records[1].find(rejected + "other"), std::string::npos) << records[1];
}

TEST_F(FaultDaemonTest, TheNodeListTellsWhatANodeMayDo)
{
    StartDaemon();
    Ctl({"raise", "alpha", "7", "t"});
    EXPECT_EQ(StatusFor("reader", ListEvent), Rejected);
    WriteFile(NodesFile, "reader read\n\n  writer \t full, and more\nworld global\nnobody none\nbare\n");
    const std::string raise = Alpha7 + "0|3|new1|t0|0|";
    EXPECT_EQ(StatusFor("world", RaiseEvent, raise), 0);
    EXPECT_EQ(StatusFor("writer", RaiseEvent, raise), Rejected) << "the option is \"full,\"";
    WriteFile(NodesFile, "reader read\n\n  writer \t full and more\nnobody none\nbare\n");
    EXPECT_EQ(StatusFor("writer", RaiseEvent, raise), 0);
    EXPECT_EQ(StatusFor("writer", MoveEvent, Alpha7 + "7|working"), 0);
    EXPECT_EQ(StatusFor("world", ListEvent), Rejected) << "no longer listed";
    for (const short event : {NoEvent, StatusEvent, ListEvent})
        EXPECT_EQ(StatusFor("reader", event), 0);
    for (const short event : {FetchEvent, MovesEvent})
        EXPECT_EQ(StatusFor("reader", event, Alpha7), 0);
    for (const short event : {ClearEvent, RaiseEvent, RunEvent, StartEvent, MoveEvent})
        EXPECT_EQ(StatusFor("reader", event, Alpha7), Rejected);
    for (const char* node : {"nobody", "bare", "Reader"})
        EXPECT_EQ(StatusFor(node, ListEvent), Rejected);
    EXPECT_EQ(WithoutTimes(Ctl({"list"}).out), "alpha/00000007\t<time>\tworking\t0\tt\n") << "this node may always";
}

TEST_F(FaultDaemonTest, TheRemoteAccessIsForNodesThatAreNotListed)
{
    WriteFile(NodesFile, "nobody none\n");
    StartDaemon({"--remote-access", "read"});
    EXPECT_EQ(StatusFor("stranger", ListEvent), 0);
    EXPECT_EQ(StatusFor("stranger", ClearEvent, Alpha7), Rejected);
    EXPECT_EQ(StatusFor("nobody", ListEvent), Rejected);
    EndDaemon(0);
    StartDaemon({"--remote-access", "full"});
    EXPECT_EQ(StatusFor("stranger", ClearEvent, Alpha7), 56);
    EXPECT_EQ(StatusFor("nobody", ListEvent), Rejected);
    EndDaemon(0);
    StartDaemon({"--remote-access", "global"});
    EXPECT_EQ(StatusFor("nobody", ClearEvent, Alpha7), 56) << "the list does not matter";
}

// ---- A crash

TEST_F(FaultDaemonTest, ACrashLeavesAllItsStateAndNoQueue)
{
    StartDaemon();
    Ctl({"raise", "alpha", "7", "seen in the crash file", "--option", "port=4"});
    Ctl({"move", "alpha", "7", "waiting_escalation"});
    Ctl({"start", "alpha", "7", "sleep 1"});
    const pid_t crashed = daemon;
    EndDaemon(SIGSEGV);
    const std::string crash = WithoutTimes(ReadFile(CrashFile));
    for (const char* part :
         {"<time>  000    RAISE\n", "IPCQServer Object Begin\n",
          "State: Waiting for escalation, abbrev: waiting_escalation\n",
          "FaultIdList: Quantity = 1; CurrIndex = 0\nalpha/00000007\n",
          "alpha/00000007: waiting_escalation, seen in the crash file (0 bytes attached)\n",
          "bytes attached)\n  port = 4\n", "Number of Active Processes = 1\n", "AssociateFaultId is alpha/00000007\n"})
        EXPECT_NE(crash.find(part), std::string::npos) << part;
    EXPECT_EQ(QueuesOnTheHost(), 0);
    EXPECT_FALSE(std::filesystem::exists(LockFileName)) << "held by " << crashed;
    const pid_t command = static_cast<pid_t>(std::atol(ReportField(crash, "process: ").c_str()));
    ASSERT_GT(command, 1);
    EXPECT_TRUE(WaitUntil([&] { return IsGone(command); })) << "commands run to their end";
}
