// SPDX-License-Identifier: BSD-2-Clause
// faultd and faultctl, run for real.
#include <csignal>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/Error.h"
#include "Misc/ZELstream.h"
#include "Misc/ipcq.h"
#include "Misc/proginfo.h"
#include "tests/system/faultd_testing.h"

using namespace faultd_testing;

namespace {

TEST_F(FaultdTest, RaisesListsShowsAndClears)
{
    StartServer();
    EXPECT_RESULT(Ctl({"list"}), 0, "", "");
    EXPECT_RESULT(Ctl({"raise", "beta", "3", "fan 1 stopped"}), 0, "", "");
    EXPECT_RESULT(Ctl({"raise", "alpha", "123456789", "big number"}), 0, "", "");
    EXPECT_RESULT(Ctl({"raise", "alpha", "7", "two\nlines\tand a tab"}), 0, "", "");
    EXPECT_EQ(WithoutTimes(Ctl({"list"}).out), "alpha/00000007\t<time>\tnew\t0\ttwo lines and a tab\n"
                                               "alpha/123456789\t<time>\tnew\t0\tbig number\n"
                                               "beta/00000003\t<time>\tnew\t0\tfan 1 stopped\n");
    EXPECT_EQ(WithoutTimes(Ctl({"show", "beta", "3"}).out), "Fault:    beta/00000003\n"
                                                            "Raised:   <time>\n"
                                                            "State:    new\n"
                                                            "Attached: 0 bytes\n"
                                                            "Text:     fan 1 stopped\n");
    EXPECT_RESULT(Ctl({"raise", "beta", "3", "fan 1 stopped again"}), 0, "", "");
    EXPECT_RESULT(Ctl({"clear", "alpha", "7"}), 0, "", "");
    EXPECT_RESULT(Ctl({"clear", "alpha", "123456789"}), 0, "", "");
    EXPECT_EQ(WithoutTimes(Ctl({"list"}).out), "beta/00000003\t<time>\tnew\t0\tfan 1 stopped again\n");

    const std::string missing = "Cannot find the data item, it does not exist. (56)\n";
    EXPECT_RESULT(Ctl({"clear", "alpha", "7"}), 1, "", "faultctl: CLEAR: " + missing);
    EXPECT_RESULT(Ctl({"show", "beta", "4"}), 1, "", "faultctl: FETCH: " + missing);
    EXPECT_RESULT(Ctl({"run", "gamma", "3", "true"}), 1, "", "faultctl: RUN: " + missing);
}

TEST_F(FaultdTest, CarriesAttachmentsByteForByte)
{
    StartServer();
    const std::string file = directory.File("attachment");
    const std::string copy = directory.File("copy");
    // Around the block sizes of the queue, and a megabyte.
    for (size_t size : {size_t(0), size_t(1), size_t(1092), size_t(1700), size_t(3400), size_t(1) << 20}) {
        const std::string bytes = Bytes(size, static_cast<unsigned>(size));
        WriteFile(file, bytes);
        EXPECT_RESULT(Ctl({"raise", "alpha", "1", "with a dump", "--attach", file}), 0, "", "");
        const ChildResult shown = Ctl({"show", "alpha", "1", "--save", copy});
        EXPECT_EQ(shown.exitCode, 0);
        EXPECT_NE(shown.out.find("Attached: " + std::to_string(size) + " bytes\n"), std::string::npos) << shown.out;
        EXPECT_TRUE(ReadFile(copy) == bytes) << size << " bytes";
    }
    EXPECT_EQ(WithoutTimes(Ctl({"list"}).out), "alpha/00000001\t<time>\tnew\t1048576\twith a dump\n");
    EXPECT_RESULT(Ctl({"raise", "alpha", "2", "t", "--attach", directory.File("missing")}), 1, "",
                  "faultctl: cannot read " + directory.File("missing") + "\n");
    const ChildResult unsaved = Ctl({"show", "alpha", "1", "--save", "/proc/no/such/place"});
    EXPECT_EQ(unsaved.exitCode, 1);
    EXPECT_NE(unsaved.err.find("faultctl: cannot write /proc/no/such/place\n"), std::string::npos);
}

TEST_F(FaultdTest, RunsCommandsForAFault)
{
    StartServer({"--time-limit", "1"});
    Ctl({"raise", "alpha", "7", "t"});
    EXPECT_RESULT(Ctl({"run", "alpha", "7", "echo $FAULT_NODE $FAULT_NUMBER"}), 0, "alpha 7\n", "");
    EXPECT_RESULT(Ctl({"run", "alpha", "7", "true"}), 0, "", "");
    EXPECT_RESULT(Ctl({"run", "alpha", "7", "echo half; exit 9"}), 1, "half\n",
                  "faultctl: the command ended with status 9\n");
    const ChildResult large = Ctl({"run", "alpha", "7", "head -c 300000 /dev/zero | tr '\\0' x"});
    EXPECT_EQ(large.exitCode, 0);
    EXPECT_TRUE(large.out == std::string(300000, 'x'));
    // The command and what it started are gone when the time is over.
    EXPECT_RESULT(Ctl({"run", "alpha", "7", "echo begun; sleep 60 & sleep 60; true"}), 1,
                  "begun\n\n\n******** Process max wait time exceeded **********\n",
                  "faultctl: RUN: Child process run time exceeded max time to run. (75)\n");
    EXPECT_RESULT(Ctl({"run", "alpha", "7", "echo still here"}), 0, "still here\n", "");
}

TEST_F(FaultdTest, LoadsTheErrorLinesOfALog)
{
    StartServer();
    std::ifstream log(SAMPLE_LOG);
    regex_t telling;
    ASSERT_EQ(regcomp(&telling, "(^|[^a-z])(error|fail|panic|fault|segfault)", REG_EXTENDED | REG_ICASE), 0);
    std::string expected;
    int number = 0, faults = 0;
    for (std::string line; std::getline(log, line);) {
        number++;
        if (regexec(&telling, line.c_str(), 0, nullptr, 0) != 0)
            continue;
        faults++;
        char name[32];
        std::snprintf(name, sizeof name, "/%08d", number);
        expected += NodeName() + name + "\t<time>\tnew\t0\t" + line + "\n";
    }
    regfree(&telling);
    EXPECT_EQ(faults, 12) << "the sample is what this test was made for";
    const ChildResult loaded = Ctl({"load", SAMPLE_LOG});
    EXPECT_EQ(loaded.exitCode, 0);
    EXPECT_EQ(WithoutTimes(loaded.out), expected);
    EXPECT_EQ(WithoutTimes(Ctl({"list"}).out), expected);

    const std::string other = directory.File("log");
    WriteFile(other, "by default nothing\nfaultless\n\nNO PANIC here");
    EXPECT_EQ(WithoutTimes(Ctl({"load", "-"}, other).out), NodeName() + "/00000002\t<time>\tnew\t0\tfaultless\n" +
                                                               NodeName() +
                                                               "/00000004\t<time>\tnew\t0\tNO PANIC here\n");
    EXPECT_RESULT(Ctl({"load", directory.File("missing")}), 1, "",
                  "faultctl: cannot read " + directory.File("missing") + "\n");
    EXPECT_RESULT(Ctl({"load", directory.Path()}), 1, "", "faultctl: cannot read " + directory.Path() + "\n");
}

TEST_F(FaultdTest, TellsItsStatus)
{
    StartServer();
    Ctl({"raise", "alpha", "7", "disk", "--attach", KeyFile});
    Ctl({"clear", "alpha", "8"});
    const ChildResult status = Ctl({"status"});
    EXPECT_EQ(status.exitCode, 0);
    EXPECT_EQ(status.err, "");
    const std::string text = WithoutTimes(status.out);
    const size_t life = text.find("Dumping valid States:");
    ASSERT_NE(life, std::string::npos) << text;
    const size_t trace = text.find("--- Time Stamp");
    EXPECT_EQ(text.substr(trace, life - trace), "--- Time Stamp --  Status Event\n"
                                                "<time>  000    LIST\n"
                                                "<time>  000    RAISE\n"
                                                "<time>  056    CLEAR\n"
                                                "<time>  ---    STATUS\n"
                                                "End of trace of most recent events.\n\n"
                                                "EventManager child process information:\n"
                                                "SafeArray(UnixProcess)***************\n"
                                                "********** Capacity =0\n"
                                                "********** Quantity =0\n"
                                                "********** This SafeArray is purgable.\n");
    EXPECT_EQ(text.substr(text.find("FaultIdList: ")), "FaultIdList: Quantity = 1; CurrIndex = 0\n"
                                                       "alpha/00000007\n"
                                                       "Faults: 1\n"
                                                       "alpha/00000007: new, disk (0 bytes attached)\n"
                                                       "Dumping ProcMgr Object:\n"
                                                       "Number of Pending Processes = 0\n"
                                                       "Number of Active Processes = 0\n"
                                                       "MaxActive = 8\n"
                                                       "MaxRetry = 4\n"
                                                       "MaxTime = 1800\n"
                                                       "Number of timed out processes = 0\n"
                                                       "Number of retry exceeded processes = 0\n");
    EXPECT_EQ(text.find("Dumping EventManager data structures:\nEventCount: 4\nCurrentEvent: STATUS (1)\n"), 0u);
}

TEST_F(FaultdTest, ComplainsOfWrongUsage)
{
    const std::string hint = "; see faultctl --help\n";
    EXPECT_RESULT(Ctl({}), 2, "", "faultctl: no command" + hint);
    EXPECT_RESULT(Ctl({"--host"}), 2, "", "faultctl: unknown command --host" + hint);
    EXPECT_RESULT(Ctl({"rise"}), 2, "", "faultctl: unknown command rise" + hint);
    EXPECT_RESULT(Ctl({"raise", "n", "1"}), 2, "",
                  "faultctl: raise takes NODE NUMBER TEXT [--attach FILE] [--option NAME=VALUE]..." + hint);
    EXPECT_RESULT(Ctl({"raise", "n", "1", "t", "--attach"}), 2, "",
                  "faultctl: raise takes NODE NUMBER TEXT [--attach FILE] [--option NAME=VALUE]..." + hint);
    EXPECT_RESULT(Ctl({"show", "n", "1", "--attach", "f"}), 2, "",
                  "faultctl: show takes NODE NUMBER [--save FILE]" + hint);
    EXPECT_RESULT(Ctl({"list", "all"}), 2, "", "faultctl: list takes no arguments" + hint);
    EXPECT_RESULT(Ctl({"load"}), 2, "", "faultctl: load takes FILE" + hint);
    for (const char* option : {"", "name", "=value"})
        EXPECT_RESULT(Ctl({"raise", "n", "1", "t", "--option", option}), 2, "",
                      "faultctl: --option takes NAME=VALUE, not " + std::string(option) + hint);
    const std::string badKey = "faultctl: NODE must be 1 to 79 visible characters without / and :, NUMBER from 0 to "
                               "2147483647" +
                               hint;
    for (const char* number : {"", "x", "1x", "-1", " 1", "2147483648", "99999999999999999999"})
        EXPECT_RESULT(Ctl({"clear", "n", number}), 2, "", badKey);
    for (const char* node : {"", "a/b", "a:b", "a b", "a\t"})
        EXPECT_RESULT(Ctl({"show", node, "1"}), 2, "", badKey);
    EXPECT_RESULT(Ctl({"run", std::string(80, 'n'), "1", "true"}), 2, "", badKey);
    EXPECT_RESULT(Ctl({"run", "n", "1", ""}), 2, "", "faultctl: COMMAND must be 1 to 4000 characters" + hint);
    EXPECT_RESULT(Ctl({"raise", "n", "1", std::string(4001, 't')}), 2, "",
                  "faultctl: TEXT is longer than 4000 characters" + hint);

    const ChildResult help = Ctl({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find("Exit codes: 0 done, 1 refused or failed, 2 wrong usage, 3 no server.\n"),
              std::string::npos);
    EXPECT_EQ(RunProgram(Faultd, {"--help"}).exitCode, 0);
    const std::vector<std::string> wrong[] = {{"--debug"},
                                              {"--debug", "x"},
                                              {"--debug", "-1"},
                                              {"--time-limit", "0"},
                                              {"--other", "1"},
                                              {"--log", ""},
                                              {"--remote-access", "write"},
                                              {"--foreground", "--log"}};
    for (const std::vector<std::string>& arguments : wrong) {
        const ChildResult daemon = RunProgram(Faultd, arguments);
        EXPECT_EQ(daemon.exitCode, 2);
        EXPECT_EQ(daemon.err.find("usage: faultd "), 0u);
    }
}

TEST_F(FaultdTest, SaysWhenThereIsNoServer)
{
    EXPECT_RESULT(Ctl({"list"}), 3, "", NoServer);
    unlink(KeyFile);
    EXPECT_RESULT(Ctl({"exit"}), 3, "", NoServer);
    EXPECT_RESULT(RunProgram(Faultd, {}), 1, "",
                  "faultd: the key file /opt/orv/bin/orvd is missing; create it with `touch`\n");
}

TEST_F(FaultdTest, FindsTheServerOfANamedHost)
{
    StartServer();
    EXPECT_RESULT(Ctl({"--host", NodeName(), "raise", "alpha", "7", "t"}), 0, "", "");
    EXPECT_EQ(WithoutTimes(Ctl({"--host", NodeName(), "list"}).out), "alpha/00000007\t<time>\tnew\t0\tt\n");
    EXPECT_RESULT(Ctl({"--host", "nowhere", "list"}), 3, "",
                  "faultctl: no server: none on nowhere, or no relay to it\n");
    EXPECT_RESULT(Ctl({"--host", "nowhere"}), 2, "", "faultctl: no command; see faultctl --help\n");
}

TEST_F(FaultdTest, RunsABatchOfCommands)
{
    StartServer();
    const std::string commands = directory.File("commands");
    const std::string answers = directory.File("answers");
    ASSERT_EQ(mkfifo(commands.c_str(), 0600), 0);
    const pid_t batch = StartChild([&] {
        dup2(open(commands.c_str(), O_RDONLY), 0);
        const int out = open(answers.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        dup2(out, 1);
        dup2(out, 2);
        Execute(Faultctl, {"batch"});
    });
    const int in = open(commands.c_str(), O_WRONLY | O_CLOEXEC); // the next server is not to hold it open
    const auto order = [in](const std::string& lines) { return write(in, lines.data(), lines.size()) > 0; };
    EXPECT_TRUE(order("raise alpha 7 \"two  words and \\\"quotes\\\"\"\n\n   list\nclear alpha 8\nrise\n"));
    EXPECT_TRUE(WaitUntil([&] { return ReadFile(answers).find("rise") != std::string::npos; }));
    kill(server, SIGKILL);
    EndOfServer();
    StartServer();
    EXPECT_TRUE(order("list\nraise alpha 9 t\nlist")); // the last line need not end
    close(in);
    EXPECT_EQ(WaitForExit(batch), 2) << "the code of the last one that failed";
    EXPECT_EQ(WithoutTimes(ReadFile(answers)), "alpha/00000007\t<time>\tnew\t0\ttwo  words and \"quotes\"\n"
                                               "faultctl: CLEAR: Cannot find the data item, it does not exist. (56)\n"
                                               "faultctl: unknown command rise; see faultctl --help\n"
                                               "alpha/00000007\t<time>\tnew\t0\ttwo  words and \"quotes\"\n"
                                               "alpha/00000007\t<time>\tnew\t0\ttwo  words and \"quotes\"\n"
                                               "alpha/00000009\t<time>\tnew\t0\tt\n");
    EXPECT_RESULT(Ctl({"batch"}), 0, "", "");
}

TEST_F(FaultdTest, ASecondServerGivesWay)
{
    StartServer();
    Ctl({"raise", "alpha", "7", "t"});
    EXPECT_RESULT(RunProgram(Faultd, {}), 1, "", SecondServer);
    EXPECT_RESULT(RunProgram(Faultd, {"--foreground"}), 1, "", SecondServer);
    EXPECT_EQ(WithoutTimes(Ctl({"list"}).out), "alpha/00000007\t<time>\tnew\t0\tt\n") << "the first one works on";
}

TEST_F(FaultdTest, EndsOnTheExitEventAndOnSigterm)
{
    StartServer();
    EXPECT_EQ(QueuesOnTheHost(), 1);
    EXPECT_RESULT(Ctl({"exit"}), 0, "", "");
    EXPECT_EQ(EndOfServer(), 0);
    EXPECT_EQ(QueuesOnTheHost(), 0);

    StartServer();
    kill(server, SIGTERM);
    EXPECT_EQ(EndOfServer(), 0);
    EXPECT_EQ(QueuesOnTheHost(), 0);
    EXPECT_EQ(Ctl({"list"}).exitCode, 3);
}

TEST_F(FaultdTest, ServesTwoClientsAtOnce)
{
    StartServer();
    const int rounds = 5;
    std::vector<pid_t> clients;
    for (const char* node : {"alpha", "beta"})
        clients.push_back(StartChild([&, node] {
            for (int i = 0; i < rounds; i++) {
                const std::string file = directory.File(node + std::to_string(i));
                WriteFile(file, Bytes(100000 + static_cast<size_t>(i), static_cast<unsigned>(node[0] + i)));
                const std::string number = std::to_string(i);
                CHILD_CHECK(Ctl({"raise", node, number, "t", "--attach", file}).exitCode == 0);
                CHILD_CHECK(Ctl({"show", node, number, "--save", file + ".copy"}).exitCode == 0);
                CHILD_CHECK(ReadFile(file) == ReadFile(file + ".copy"));
            }
        }));
    for (pid_t client : clients)
        EXPECT_EQ(WaitForExit(client), 0);
    EXPECT_NE(Ctl({"status"}).out.find("Faults: 10\n"), std::string::npos);
}

TEST_F(FaultdTest, Sigusr1WritesItsState)
{
    StartServer();
    Ctl({"raise", "alpha", "7", "t"});
    for (int i = 0; i < 2; i++) { // more than once
        std::remove("/var/orv/data/faultd.state");
        kill(server, SIGUSR1);
        EXPECT_TRUE(WaitUntil([] {
            const std::string state = ReadFile("/var/orv/data/faultd.state");
            return state.find("Faults: 1\n") != std::string::npos &&
                   state.find("*** End Dump of all Monitored Objects ***") != std::string::npos;
        }));
    }
    EXPECT_EQ(Ctl({"list"}).exitCode, 0);
}

TEST_F(FaultdTest, ARestartReplacesTheQueueOfAKilledServer)
{
    StartServer();
    Ctl({"raise", "alpha", "7", "t"});
    kill(server, SIGKILL);
    EXPECT_EQ(EndOfServer(), 128 + SIGKILL);
    EXPECT_EQ(QueuesOnTheHost(), 1) << "it had no chance";
    StartServer();
    EXPECT_EQ(QueuesOnTheHost(), 1);
    EXPECT_EQ(WithoutTimes(Ctl({"list"}).out), "alpha/00000007\t<time>\tnew\t0\tt\n");

    // A client clears it away as well.
    kill(server, SIGKILL);
    EndOfServer();
    EXPECT_RESULT(Ctl({"list"}), 3, "", NoServer);
    EXPECT_EQ(QueuesOnTheHost(), 0);
}

TEST_F(FaultdTest, LogsEventsAtDebugLevelOne)
{
    StartServer({"--debug", "1"});
    Ctl({"raise", "alpha", "7", "t"});
    Ctl({"exit"});
    EXPECT_EQ(EndOfServer(), 0);
    const std::string text = ReadFile(log());
    const std::string from = "From: [" + Faultctl + "] (" + NodeName() + ")\n";
    EXPECT_NE(text.find("----\nEventBeg: LIST\n" + from + "EventEnd: Real="), std::string::npos) << text;
    EXPECT_NE(text.find("----\nEventBeg: RAISE\n" + from), std::string::npos) << text;
    EXPECT_NE(text.find("alpha/00000007 raised, new: t\nEventEnd: Real="), std::string::npos) << text;
}

/// What faultd answers to data that no faultctl would send.
short Status(short event, const std::string& data)
{
    IPCQClient client(0, "orvd");
    short answered = -1;
    Buffer answer;
    EXPECT_EQ(client.send_event_with_response(event, data.data(), static_cast<long>(data.size())), 0);
    return client.receive_response(answered, answer);
}

TEST_F(FaultdTest, RefusesBadPayloads)
{
    static char name[] = "faultd_test";
    static char* argv[] = {name, nullptr};
    ProgInfo::Initialize(1, argv, argv + 1, "1.0");
    StartServer();
    enum { Raise = 2, Fetch = 4, Clear = 5, Run = 6, Start = 7, Move = 8, Moves = 9 };
    // A whole record: number, node and name, time, state, text, options, attachment's length and bytes.
    const std::string id = "7|5|alpha14|alpha/00000007";
    EXPECT_EQ(Status(Raise, id + "0|3|new4|text1|4|name5|value3|abc"), 0);
    const std::string bad[] = {
        "",                                                                      // nothing
        id,                                                                      // the end is missing
        id + "0|3|new4|text0|",                                                  //
        id + "0|3|new4|text0|4|abc",                                             // an attachment of one byte less
        id + "0|3|new4|text0|3|abcd",                                            // of one byte more
        id + "0|3|new4|text0|-1|",                                               // of less than nothing
        id + "0|3|new4|text0|2147483647|abc",                                    // of nearly everything
        id + "0|3|new4|text0|99999999999999999999|abc",                          // of more than that
        id + "0|3|new60000|text0|3|abc",                                         // a text that is not there
        id + "0|3|new9|text0|3|abc",                                             // a text that takes more than its own
        id + "0|3|new4|text2|4|name5|value3|abc",                                // an option that is not there
        id + "0|3|new4|text1|4|name5|value|3|abc",                               // another form
        id + "0|3|new4|text1|0|5|value3|abc",                                    // an option without a name
        id + "0|3|new4|text-1|3|abc",                                            // less than no options
        id + "0|3|new4|text101|" + std::string(101 * 4, 'x') + "3|abc",          // too many
        "5|alpha7|0|3|new4|text0|3|abc",                                         // another form of a name
        WireId("alpha", "-7", "alpha/-0000007") + "0|3|new4|text0|0|",           // a number below 0
        WireId("alpha", "2147483648", "alpha/2147483648") + "0|3|new4|text0|0|", // too large a number
        WireId("alpha", "7", "alpha/7") + "0|3|new4|text0|0|",                   // a text that is not the name's
        WireId("alpha", "7", "beta/00000007") + "0|3|new4|text0|0|",             //
        WireId("", "7", "/00000007") + "0|3|new4|text0|0|",                      // no node
        WireId("a/b", "7", "a/b/00000007") + "0|3|new4|text0|0|",                // a path
        WireId("a b", "7", "a b/00000007") + "0|3|new4|text0|0|",
        WireId("a\nb", "7", "a\nb/00000007") + "0|3|new4|text0|0|",
        WireId(std::string(80, 'n'), "7", std::string(80, 'n') + "/00000007") + "0|3|new4|text0|0|",
        id + "0|3|new4001|" + std::string(4001, 't') + "0|0|",
        id + "0|3|new4|text1|80|" + std::string(80, 'o') + "1|v0|",
        id + "0|3|new4|text1|1|o4001|" + std::string(4001, 'v') + "0|",
    };
    for (const std::string& data : bad)
        EXPECT_EQ(Status(Raise, data), 22) << data;
    for (short event : {short(Fetch), short(Clear), short(Run), short(Start), short(Move), short(Moves)}) {
        EXPECT_EQ(Status(event, ""), 22);
        EXPECT_EQ(Status(event, "7|5|alph"), 22);
        EXPECT_EQ(Status(event, "7|5|alpha"), 22);
    }
    EXPECT_EQ(Status(Fetch, id + "x"), 22) << "more than a name";
    EXPECT_EQ(Status(Run, id + "0|"), 22) << "an empty command";
    EXPECT_EQ(Status(Start, id + "0|"), 22) << "an empty command";
    EXPECT_EQ(Status(Move, id + "9|working"), 22) << "a state that comes short";
    EXPECT_EQ(Status(Move, id + "7|Working"), 27) << "no such state";
    EXPECT_EQ(Status(11, "0|1|"), 47) << "it has no journal";
    EXPECT_EQ(Status(12, "0|"), 47) << "it has no journal";
    EXPECT_EQ(Status(13, ""), 81) << "no such event";
    EXPECT_EQ(Status(-1, ""), 81) << "the server's own";
    EXPECT_EQ(Status(0, ""), 0) << "a sign of life";
    EXPECT_EQ(WithoutTimes(Ctl({"list"}).out), "alpha/00000007\t<time>\tnew\t3\ttext\n");
    EXPECT_EQ(Ctl({"exit"}).exitCode, 0);
    EXPECT_EQ(EndOfServer(), 0);
}

} // namespace
