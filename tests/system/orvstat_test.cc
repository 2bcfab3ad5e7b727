// SPDX-License-Identifier: BSD-2-Clause
// orvstat, run for real, beside servers that live, hang, start and have died.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <regex>
#include <string>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include "tests/system/orvstat_testing.h"

using namespace orvstat_testing;

namespace {

// ---- The table --------------------------------------------------------------------------------------------------

TEST_F(OrvstatTest, WithoutServersThereIsNothingToShow)
{
    MakeKeyFile("hello");
    ASSERT_EQ(symlink("nowhere", "/opt/orv/bin/dangling"), 0);
    ASSERT_EQ(mkdir("/opt/orv/bin/directory", 0755), 0);
    const int ofTheDirectory = msgget(ftok_orvm("/opt/orv/bin/directory"), IPC_CREAT | 0660);
    EXPECT_EQ(Result({}), "0: No server has a queue on this host.\n");
    msgctl(ofTheDirectory, IPC_RMID, nullptr);
    rmdir("/opt/orv/bin/directory");
}

TEST_F(OrvstatTest, ShowsALivingServer)
{
    const pid_t server = StartServer("hello", ServeEchoes);
    ASSERT_TRUE(WaitUntil([&] { return WaitsOnAQueue(server); }));
    const std::string begin =
        "hello up " + Number(server) + " " + OwnProgram() + " " + Number(QueueOf("hello")) + " 0 0 500736 1700 ";
    EXPECT_EQ(Shown(), begin + "- - - - - " + Number(server) + "\n");
    const pid_t client = StartChild([] {
        Client asks("hello");
        Buffer data;
        short event;
        CHILD_CHECK(asks.send_event_with_response(Echo, "x", 1) == 0);
        CHILD_CHECK(asks.receive_response(event, data) == 0);
    });
    EXPECT_EQ(WaitForExit(client), 0);
    const std::string now = begin + Number(server) + " <time> " + Number(client) + " <time> - " + Number(server) + "\n";
    EXPECT_TRUE(WaitUntil([&] { return Shown() == now; })) << "it looks up now and then\n" << Shown() << now;
    EXPECT_EQ(EndChild(server, SIGTERM), 0);
}

TEST_F(OrvstatTest, TheBlockSizeIsThatOfAClient)
{
    for (const unsigned long bytes : {4096UL, 16384UL, 32768UL, 500736UL}) {
        SetQueueLimit(bytes);
        const pid_t server = StartServer("hello", ServeEchoes);
        IPCMessageMaxDataLen = 1700;
        check_max_data_size(QueueOf("hello"));
        const std::string block = Number(IPCMessageMaxDataLen > 0 ? IPCMessageMaxDataLen : 1700);
        EXPECT_NE(Shown().find(" 0 0 " + Number(static_cast<long>(bytes)) + " " + block + " "), std::string::npos);
        EndChild(server, SIGTERM);
    }
}

// The set cannot hold such a number: it says who has entered itself.
TEST_F(OrvstatTest, AServersProcessIdMayBeLarge)
{
    const pid_t wanted = 41234;
    const std::string lastPid = ReadFile("/proc/sys/kernel/ns_last_pid");
    MakeKeyFile("hello");
    const pid_t server = StartChildAt(wanted, [] {
        Server large("hello");
        CHILD_CHECK(large.Created());
        ServeEchoes(large);
    });
    if (server == wanted) {
        EXPECT_TRUE(WaitUntil([&] { return WaitsOnAQueue(server); }));
        EXPECT_EQ(Shown().compare(0, 15, "hello up 41234 "), 0);
        EndChild(server, SIGKILL);
        EXPECT_EQ(Shown(1).compare(0, 18, "hello stale 41234 "), 0);
    } else {
        EndChild(server);
    }
    EXPECT_EQ(Call({"clean", "hello"}).exitCode, 0);
    WriteFile("/proc/sys/kernel/ns_last_pid", lastPid); // other tests put process ids into sets by hand
}

TEST_F(OrvstatTest, MarksWhatIsStale)
{
    const pid_t dead = LeaveStale("gone");
    const pid_t living = StartServer("hello", ServeEchoes);
    ASSERT_TRUE(WaitUntil([&] { return WaitsOnAQueue(living); }));
    EXPECT_EQ(Shown(1), "gone stale " + Number(dead) + " - " + Number(QueueOf("gone")) +
                            " 0 0 500736 1700 - - - - - -\n"
                            "hello up " +
                            Number(living) + " " + OwnProgram() + " " + Number(QueueOf("hello")) +
                            " 0 0 500736 1700 - - - - - " + Number(living) + "\ngone: server " + Number(dead) +
                            " is dead, its queue and semaphore set are left; \"orvstat clean gone\" removes what is "
                            "left\n");
    EXPECT_TRUE(QueueExists(QueueOf("gone"))) << "looking changes nothing";
    EndChild(living, SIGTERM);
    EXPECT_EQ(Call({"clean", "gone"}).exitCode, 0);
}

TEST_F(OrvstatTest, TellsTheStatesApart)
{
    const pid_t stopped = StartServer("a-stopped", ServeEchoes);
    Stop(stopped);
    const pid_t starting = IdleProcess();
    MakeKeyFile("b-starting");
    const int set = semget(ftok_orvm("b-starting"), 1, IPC_CREAT | 0660);
    ASSERT_EQ(semctl(set, 0, SETVAL, static_cast<int>(starting)), 0);
    MakeKeyFile("c-lost");
    const int lost = msgget(ftok_orvm("c-lost"), IPC_CREAT | 0660);
    MakeKeyFile("d-empty");
    const int empty = semget(ftok_orvm("d-empty"), 1, IPC_CREAT | 0660);

    MakeKeyFile("e-second"); // in which two are registered
    const int two = semget(ftok_orvm("e-second"), 2, IPC_CREAT | 0660);
    const pid_t gone = DeadProcess();
    ASSERT_EQ(semctl(two, 0, SETVAL, static_cast<int>(gone)), 0);
    ASSERT_EQ(semctl(two, 1, SETVAL, static_cast<int>(starting)), 0);
    MakeKeyFile("f-dead");
    const int dead = semget(ftok_orvm("f-dead"), 2, IPC_CREAT | 0660);
    for (const int slot : {0, 1})
        ASSERT_EQ(semctl(dead, slot, SETVAL, static_cast<int>(gone)), 0);

    const std::string shown = Shown(1);
    const auto has = [&](const std::string& part) {
        EXPECT_NE(("\n" + shown).find("\n" + part), std::string::npos) << part << "\n" << shown;
    };
    has("a-stopped stopped " + Number(stopped) + " ");
    has("a-stopped: server " + Number(stopped) + " is stopped by a signal or a debugger\n");
    has("b-starting starting " + Number(starting) + " " + OwnProgram() + " - - - - - - - - - - -\n");
    has("b-starting: server " + Number(starting) + " is starting: it has no queue yet\n");
    has("c-lost no set - - " + Number(lost) + " 0 0 ");
    has("c-lost: nothing tells whose queue " + Number(lost) +
        " is: its semaphore set is gone; if no process uses it, \"ipcrm -q " + Number(lost) + "\" removes it\n");
    has("d-empty stale - - - - - - - - - - - - -\n");
    has("d-empty: no server is registered, its semaphore set is left; \"orvstat clean d-empty\" removes what is "
        "left\n");

    has("e-second starting " + Number(starting) + " ");
    has("f-dead stale " + Number(gone) + " ");

    EndChild(starting);
    kill(stopped, SIGCONT);
    EndChild(stopped, SIGTERM);
    semctl(set, 0, IPC_RMID);
    for (const int semid : {empty, two, dead})
        semctl(semid, 0, IPC_RMID);
    msgctl(lost, IPC_RMID, nullptr);
}

TEST_F(OrvstatTest, NamesThoseWhoAreBlocked)
{
    SetQueueLimit(16384);
    const pid_t server = StartDeafServer("hello");
    const pid_t first = StartBlockedSender("hello", server);
    EXPECT_NE(Shown().find("\nhello: 1 process waits for room on the queue\n"), std::string::npos);
    const pid_t second = StartBlockedSender("hello", server);
    const int qid = QueueOf("hello");
    const pid_t receiver = StartChild([=] {
        RawMessage message;
        msgrcv(qid, &message, sizeof message.text, 0x7FFFFFF, 0);
    });
    ASSERT_TRUE(WaitUntil([&] { return WaitsOnAQueue(receiver); }));
    EXPECT_EQ(Shown(), "hello up " + Number(server) + " " + OwnProgram() + " " + Number(qid) + " 12 15600 16384 1092 " +
                           Number(getpid()) + " <time> - - " + Number(first) + "," + Number(second) + " " +
                           Number(receiver) + "\nhello: 2 processes wait for room on the queue\n");
    for (const pid_t pid : {first, second, receiver})
        EndChild(pid);
    EndChild(server, SIGTERM);
}

TEST_F(OrvstatTest, FindsQueuesWhoseFilesItDoesNotKnow)
{
    const TemporaryDirectory directory;
    const std::string path = directory.File("key");
    WriteFile(path, "");
    const pid_t server = StartChild([&] {
        Server unnamed(path.c_str());
        CHILD_CHECK(unnamed.Created());
        ServeEchoes(unnamed);
    });
    ASSERT_TRUE(WaitUntil([&] { return WaitsOnAQueue(server); }));
    const PrivateQueue other; // somebody else's, as is the next, without a set
    const int privateSet = semget(IPC_PRIVATE, 1, 0660);
    const int foreign = msgget(0x01FEDCBA, IPC_CREAT | 0660);
    const int larger = msgget(0x01FEDCBB, IPC_CREAT | 0660); // whose set is none of a server
    const int largerSet = semget(0x01FEDCBB, 2, IPC_CREAT | 0660);
    char key[20];
    std::snprintf(key, sizeof key, "0x%08x", static_cast<unsigned>(ftok_orvm(path.c_str())));
    const std::string queue = Number(QueueOf(path.c_str()));
    EXPECT_EQ(Shown(), "- up " + Number(server) + " " + OwnProgram() + " " + queue + " 0 0 500736 1700 - - - - - " +
                           Number(server) + "\nqueue " + queue + ": no file in /opt/orv/bin has its key " + key + "\n");
    for (const int qid : {foreign, larger})
        msgctl(qid, IPC_RMID, nullptr);
    for (const int semid : {privateSet, largerSet})
        semctl(semid, 0, IPC_RMID);
    EXPECT_EQ(Result({"ping", path}).compare(0, 3 + path.size(), "0: " + path), 0);
    EndChild(server, SIGKILL);
    EXPECT_EQ(Call({}).exitCode, 0) << "nobody knows whether it is a server's";
    EXPECT_EQ(Call({"clean", path}).exitCode, 0);
}

TEST_F(OrvstatTest, NamesOfOneKeyShareALine)
{
    MakeKeyFile("hello");
    ASSERT_EQ(link("/opt/orv/bin/hello", "/opt/orv/bin/again"), 0);
    const pid_t server = StartServer("hello", ServeEchoes);
    EXPECT_EQ(Shown().compare(0, 15, "again,hello up "), 0);
    EndChild(server, SIGTERM);
}

TEST_F(OrvstatTest, SaysWhatItMayNotSee)
{
    const pid_t server = StartServer("hello", ServeEchoes);
    struct msqid_ds status = QueueStatus(QueueOf("hello"));
    status.msg_perm.mode = 0;
    ASSERT_EQ(msgctl(QueueOf("hello"), IPC_SET, &status), 0);
    struct semid_ds set;
    const int semid = SetOf("hello");
    ASSERT_EQ(semctl(semid, 0, IPC_STAT, &set), 0);
    set.sem_perm.mode = 0;
    ASSERT_EQ(semctl(semid, 0, IPC_SET, &set), 0);
    const auto run = [](const std::string& command) {
        return RunInChild([&] {
            DropPrivileges();
            Execute("/bin/sh", {"-c", Orvstat + command});
        });
    };
    const ChildResult shown = run("");
    if (shown.exitCode != NotPossibleHere) {
        EXPECT_EQ(shown.exitCode, 4);
        const std::string reason = "no right to read its semaphore set (user 65534, mode 000)\n";
        EXPECT_NE(Squeezed(shown.out).find("hello unknown - - "), std::string::npos) << shown.out;
        EXPECT_NE(shown.out.find("\nhello: " + reason), std::string::npos) << shown.out;
        EXPECT_NE(shown.out.find("\nWho is blocked may be more than shown: this user may not look at all processes ("),
                  std::string::npos)
            << shown.out;
        const ChildResult pinged = run(" ping hello");
        EXPECT_EQ(pinged.exitCode, 4);
        EXPECT_EQ(pinged.err, "hello: " + reason);
        const ChildResult cleaned = run(" clean hello");
        EXPECT_EQ(cleaned.exitCode, 4);
        EXPECT_EQ(cleaned.err, "hello: not cleaned: " + reason);
    }
    EndChild(server, SIGTERM);
}

// A time zone whose day has ended since the last message was sent.
TEST_F(OrvstatTest, MomentsOfOtherDaysAreDates)
{
    const pid_t server = StartDeafServer("hello");
    const time_t sent = QueueStatus(QueueOf("hello")).msg_stime;
    ASSERT_TRUE(WaitUntil([&] { return time(nullptr) > sent; }));
    const long west = (sent + 1) % 86400; // there the day ends behind that second
    char zone[40];
    std::snprintf(zone, sizeof zone, "ORV+%ld:%ld:%ld", west / 3600, west / 60 % 60, west % 60);
    const time_t there = sent - west;
    char date[20];
    struct tm day;
    std::strftime(date, sizeof date, " %m/%d/%y ", gmtime_r(&there, &day));
    const ChildResult shown = RunInChild([&] {
        setenv("TZ", zone, 1);
        Execute(Orvstat, {});
    });
    EXPECT_NE(Squeezed(shown.out).find(" " + Number(getpid()) + date), std::string::npos) << shown.out << date;
    EXPECT_NE(Call({"--json"}).out.find("\"last_sent\": " + Number(sent) + ","), std::string::npos);
    EndChild(server, SIGTERM);
}

// ---- JSON, terminals, watching ----------------------------------------------------------------------------------

// Whether a text is one JSON value, by a small grammar.
bool IsJson(const std::string& text)
{
    const std::string value =
        "(null|-?[0-9]+|\"([^\"\\\\]|\\\\[\"\\\\]|\\\\u[0-9a-f]{4})*\"|\\[([0-9]+(,[0-9]+)*)?\\])";
    const std::string flat = "\\{(\"[a-z_]+\": " + value + ", )*\"[a-z_]+\": " + value + "\\}";
    const std::string list = "\\[(\n    " + flat + "(,\n    " + flat + ")*\n  )?\\]";
    const std::string all = "\\{\n  \"host\": " + value + ",\n  \"time\": [0-9]+,\n  \"servers\": " + list +
                            ",\n  \"unseen_processes\": [0-9]+\n\\}\n";
    return std::regex_match(text, std::regex(all));
}

bool PythonReads(const std::string& json)
{
    if (system("python3 -c 1 >/dev/null 2>&1") != 0)
        return true;
    const TemporaryDirectory directory;
    WriteFile(directory.File("json"), json);
    return system(("python3 -m json.tool " + directory.File("json") + " >/dev/null").c_str()) == 0;
}

TEST_F(OrvstatTest, WritesJson)
{
    EXPECT_TRUE(IsJson(Call({"--json"}).out));
    EXPECT_TRUE(PythonReads(Call({"--json"}).out));
    const pid_t server = StartServer("odd \"name\"\\\t\x7F\xFC", ServeEchoes);
    ASSERT_TRUE(WaitUntil([&] { return WaitsOnAQueue(server); }));
    const pid_t dead = LeaveStale("gone");
    const ChildResult result = Call({"--json"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(IsJson(result.out)) << result.out;
    EXPECT_TRUE(PythonReads(result.out)) << result.out;
    const auto entry = [](const std::string& name, const std::string& json, const std::string& facts, int queue,
                          const std::string& end) {
        char key[20];
        std::snprintf(key, sizeof key, "0x%08x", static_cast<unsigned>(ftok_orvm(name.c_str())));
        return "    {\"name\": \"" + json + "\", \"key\": \"" + key + "\", " + facts + ", \"queue\": " + Number(queue) +
               ", \"set\": " + Number(SetOf(name.c_str())) +
               ", \"messages\": 0, \"bytes\": 0, \"capacity\": 500736, \"block_size\": 1700, \"last_sender\": null, "
               "\"last_sent\": null, \"last_receiver\": null, \"last_received\": null, \"blocked_senders\": [], "
               "\"blocked_receivers\": " +
               end + "}";
    };
    const std::string servers =
        "  \"servers\": [\n" +
        entry("gone", "gone", "\"state\": \"stale\", \"pid\": " + Number(dead) + ", \"program\": null", QueueOf("gone"),
              "[], \"remark\": \"server " + Number(dead) +
                  " is dead, its queue and semaphore set are left; \\\"orvstat clean gone\\\" removes what is left\"") +
        ",\n" +
        entry("odd \"name\"\\\t\x7F\xFC", "odd \\\"name\\\"\\\\\\u0009\\u007f\\u00fc",
              "\"state\": \"up\", \"pid\": " + Number(server) + ", \"program\": \"" + OwnProgram() + "\"",
              QueueOf("odd \"name\"\\\t\x7F\xFC"), "[" + Number(server) + "], \"remark\": null") +
        "\n  ],\n";
    EXPECT_NE(result.out.find(servers), std::string::npos) << result.out << "\n" << servers;
    EXPECT_NE(Call({}).out.find("\nodd \"name\"\\??? "), std::string::npos);
    EndChild(server, SIGTERM);
    const std::string queue = Number(QueueOf("gone"));
    const std::string set = Number(SetOf("gone"));
    EXPECT_EQ(Result({"--json", "clean", "gone"}), "0: {\"name\": \"gone\", \"removed_queue\": " + queue +
                                                       ", \"removed_set\": " + set + ", \"remark\": \"removed queue " +
                                                       queue + " (no message) and semaphore set " + set + "; server " +
                                                       Number(dead) + " is dead\"}\n");
}

// Runs orvstat on a terminal until `enough` of what it wrote, and interrupts it then if it watches.
std::string OnATerminal(const std::vector<std::string>& arguments, const char* setting,
                        const std::function<bool(const std::string&)>& enough)
{
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_TRUE(grantpt(terminal) == 0 && unlockpt(terminal) == 0);
    const std::string name = ptsname(terminal);
    const int other = open(name.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    const pid_t pid = StartChild([&] {
        setenv("TERM", "xterm", 1);
        unsetenv("NO_COLOR");
        if (setting != nullptr)
            putenv(const_cast<char*>(setting));
        dup2(other, 1);
        Execute(Orvstat, arguments);
    });
    std::string text;
    EXPECT_TRUE(WaitUntil([&] {
        int waiting = 0;
        char bytes[4096];
        if (ioctl(terminal, FIONREAD, &waiting) == 0 && waiting > 0)
            text.append(bytes, static_cast<size_t>(read(terminal, bytes, sizeof bytes)));
        return enough(text);
    })) << text;
    if (!arguments.empty() && arguments[0] == "--watch")
        kill(pid, SIGINT);
    EXPECT_LT(WaitForExit(pid), 2);
    close(other);
    close(terminal);
    return Replaced(text, "\r", "");
}

TEST_F(OrvstatTest, ColoursStandOnTerminalsOnly)
{
    const pid_t server = StartServer("hello", ServeEchoes);
    EXPECT_EQ(Call({}).out.find('\033'), std::string::npos);
    const auto isWhole = [](const std::string& text) { return CountOf(text, "\n") == 2; };
    const auto has = [](const std::string& text, const char* part) { return text.find(part) != std::string::npos; };
    EXPECT_TRUE(has(OnATerminal({}, nullptr, isWhole), "hello  \033[32mup\033[0m   "));
    EXPECT_TRUE(has(OnATerminal({}, "NO_COLOR=", isWhole), "\033[32m")) << "empty is as if it were not set";
    for (const char* setting : {"NO_COLOR=1", "TERM=dumb", "TERM="})
        EXPECT_FALSE(has(OnATerminal({}, setting, isWhole), "\033")) << setting;
    EXPECT_FALSE(has(
        OnATerminal({"--json"}, nullptr, [](const std::string& text) { return text.find("\n}") != std::string::npos; }),
        "\033"));
    const auto isRemarked = [](const std::string& text) { return CountOf(text, "\n") == 3; };
    Stop(server);
    EXPECT_TRUE(has(OnATerminal({}, nullptr, isRemarked), "hello  \033[33mstopped\033[0m  "));
    kill(server, SIGCONT);
    EndChild(server, SIGTERM);
    LeaveStale("hello");
    const std::string stale =
        OnATerminal({}, nullptr, [](const std::string& text) { return CountOf(text, "\n") == 3; });
    EXPECT_TRUE(has(stale, "hello  \033[1;31mstale\033[0m  ")) << stale;
    EXPECT_EQ(Call({"clean", "hello"}).exitCode, 0);
}

TEST_F(OrvstatTest, WatchesUntilItIsInterrupted)
{
    const TemporaryDirectory directory;
    const std::string log = directory.File("log");
    const pid_t watch = StartProgram(Orvstat, {"--watch", "1"}, log);
    const std::string none = "No server has a queue on this host.\n";
    EXPECT_TRUE(WaitUntil([&] { return CountOf(ReadFile(log), none) >= 2; }));
    const pid_t dead = LeaveStale("gone");
    EXPECT_TRUE(WaitUntil([&] { return CountOf(ReadFile(log), "server " + Number(dead) + " is dead") >= 1; }));
    EXPECT_EQ(EndChild(watch, SIGINT), 1) << "the exit code of the last look";
    const std::string node = ProgInfo::GetNodeName();
    EXPECT_EQ(WithoutTimes(ReadFile(log)).find(node + "  <time>\n" + none + "\n" + node + "  <time>\n" + none), 0u);
    EXPECT_EQ(Call({"clean", "gone"}).exitCode, 0);

    const std::string shown = OnATerminal({"--watch", "1"}, nullptr, [](const std::string& text) {
        return CountOf(text, "\033[H\033[2J") >= 2 && CountOf(text, "host.") >= 2;
    });
    const std::string screen = "\033[H\033[2J" + node + "  <time>\n" + none;
    EXPECT_EQ((WithoutTimes(shown) + "\n").compare(0, 2 * screen.size() - 1, screen + screen, 0, 2 * screen.size() - 1),
              0)
        << shown;
    const pid_t json = StartProgram(Orvstat, {"--watch", "--json"}, log);
    EXPECT_TRUE(WaitUntil([&] { return CountOf(ReadFile(log), "\n}\n") >= 1; }));
    EXPECT_EQ(EndChild(json, SIGTERM), 0);
    const std::string objects = ReadFile(log);
    EXPECT_TRUE(IsJson(objects.substr(0, objects.find("\n}\n") + 3)));
}

TEST_F(OrvstatTest, AWatchThatNobodyCanReadEnds)
{
    const TemporaryDirectory directory;
    const ChildResult result = RunInChild([&] {
        const int full = open(directory.File("none").c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
        dup2(full, 1); // no write to it succeeds
        Execute(Orvstat, {"--watch"});
    });
    EXPECT_EQ(result.exitCode, 0);
}

// ---- The command line -------------------------------------------------------------------------------------------

TEST_F(OrvstatTest, ComplainsOfWrongUsage)
{
    const std::vector<std::string> wrong[] = {{"list"},
                                              {"clean"},
                                              {"ping"},
                                              {"clean", "a", "b"},
                                              {"--object", "x", "ping", "a", "--host", "h"},
                                              {"ping", "a", "--object", "99999", "--host", "h"},
                                              {"ping", "a", "--service", "s"},
                                              {"ping", "a", "--host"},
                                              {"ping", "a", "--host", ""},
                                              {"ping", ""},
                                              {"--host", "h"},
                                              {"clean", "a", "--host", "h"},
                                              {"--service", "s"},
                                              {"--object", "4"},
                                              {"--object", "-99999", "ping", "a", "--host", "h"},
                                              {"--watch", "0"},
                                              {"--watch", ""},
                                              {"--watch", "86401"},
                                              {"--watch", "99999999999"},
                                              {"--watch", "1", "clean", "a"},
                                              {"--colour"},
                                              {"--help", "x"}};
    for (const std::vector<std::string>& arguments : wrong) {
        const ChildResult result = Call(arguments);
        EXPECT_EQ(result.exitCode, 2) << arguments[0];
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(CountOf(result.err, "; see orvstat --help\n"), 1) << result.err;
    }
}

TEST_F(OrvstatTest, HelpAndManPageTellTheSame)
{
    EXPECT_EQ(Result({"--version"}), "0: orvstat " ORVSTAT_VERSION "\n");
    const std::string help = Call({"--help"}).out;
    EXPECT_EQ(help.compare(0, 15, "usage: orvstat "), 0);
    const std::string page = Replaced(ReadFile(ORVSTAT_PAGE), "\\\\-", "-");
    std::smatch found;
    const std::regex option("--[a-z]+");
    int options = 0;
    for (std::string rest = help; std::regex_search(rest, found, option); rest = found.suffix()) {
        EXPECT_NE(page.find(found.str()), std::string::npos) << found.str();
        options++;
    }
    EXPECT_GE(options, 7);
    if (system("groff --version >/dev/null 2>&1") == 0) {
        const ChildResult formatted =
            RunProgram("/bin/sh", {"-c", "groff -man -Tascii -ww " ORVSTAT_PAGE " >/dev/null"});
        EXPECT_EQ(formatted.exitCode, 0);
        EXPECT_EQ(formatted.err, "");
    }
}

} // namespace
