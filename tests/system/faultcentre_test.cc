// SPDX-License-Identifier: BSD-2-Clause
// Hosts with daemons and gates, and two centres, each with a name, queues and files of its own, on one network.
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Misc/proginfo.h"
#include "tests/system/hosts_testing.h"

using namespace centre_testing;

namespace {

const std::string Relayd = ProgramUnderTest(RELAYD);

class FaultcentreTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!InSandbox())
            GTEST_SKIP() << "needs namespaces";
        if (EngineProgram().empty())
            GTEST_SKIP() << "needs nats-server";
        static char name[] = "faultcentre_test";
        static char* argv[] = {name, nullptr};
        ProgInfo::Initialize(1, argv, argv + 1, "1.0");
        Urls = engine.Urls();
        engine.Start();
        ASSERT_TRUE(engine.SetUp({"--lease", "1"})) << engine.Log();
        for (const char* name : {"alpha", "beta", "north", "south"})
            hosts.push_back(std::make_unique<Host>(name));
        for (Host* host : {&Alpha(), &Beta()}) {
            host->Start(Faultd, {"--foreground", "--journal"});
            host->Start(Faultgate, {"--engine", Urls, "--interval", "20"});
            ASSERT_TRUE(WaitUntil([=] { return host->Ctl({"list"}).exitCode == 0; })) << ReadFile(host->Log());
        }
        for (Host* host : {&North(), &South()})
            StartCentre(*host);
    }
    static pid_t StartCentre(Host& host) { return centre_testing::StartCentre(host, {"--engine", Urls}); }
    // What a centre is to list of a host: what its daemon does.
    static std::string ListOf(const Host& host)
    {
        std::string lines = "\n" + WithoutTimes(host.Ctl({"list"}).out);
        lines = Replaced(lines, "\n", "\n" + host.name + "\t");
        return lines.substr(1, lines.size() - host.name.size() - 2);
    }
    void ExpectSame(const std::vector<const Host*>& centres)
    {
        for (const Host* centre : centres) {
            std::string listed, expected;
            EXPECT_TRUE(WaitUntil([&] {
                return (listed = centre->Centre({"list"})) == (expected = ListOf(Alpha()) + ListOf(Beta()));
            })) << centre->name
                << ReadFile(centre->Log());
            EXPECT_EQ(listed, expected);
        }
    }
    void ExpectSame() { ExpectSame({&North(), &South()}); }
    Host& Alpha() { return *hosts[0]; }
    Host& Beta() { return *hosts[1]; }
    Host& North() { return *hosts[2]; }
    Host& South() { return *hosts[3]; }

    EngineServers engine;
    std::vector<std::unique_ptr<Host>> hosts;
};

TEST_F(FaultcentreTest, ListsWhatTheDaemonsDo)
{
    ExpectSame();
    for (Host* host : {&Alpha(), &Beta()}) {
        host->Ctl({"raise", "x", "1", "one of " + host->name, "--attach", "/etc/passwd"});
        host->Ctl({"raise", "x", "2", "two of " + host->name, "--option", "a=b"});
        host->Ctl({"raise", host->name, "3", "three"});
        host->Ctl({"move", "x", "2", "working"});
    }
    ExpectSame();
    EXPECT_EQ(North().Centre({"list", "beta"}), ListOf(Beta()));
    EXPECT_EQ(North().Centre({"list", "b"}), "");
    Alpha().Ctl({"clear", "x", "1"});
    Beta().Ctl({"raise", "x", "2", "again"});
    ExpectSame();
    const std::string status = North().Centre({"status"});
    EXPECT_EQ(CountOf(status, "Fleet: 5 faults"), 1) << status;

    EXPECT_EQ(North().Ctl({"--centre", "raise", "x", "1", "t"}).exitCode, 2) << "a centre has no faults of its own";
    EXPECT_EQ(North().Ctl({"--centre", "list", "alpha", "beta"}).err,
              "faultctl: list takes [HOST]; see faultctl --help\n");
    EXPECT_EQ(Alpha().Ctl({"--centre", "list"}).err,
              "faultctl: no server: faultcentre is not running here, and there is no relay to another host\n");
    EXPECT_EQ(North().Ctl({"--centre", "exit"}).exitCode, 0);
    EXPECT_TRUE(WaitUntil([&] { return North().Ctl({"--centre", "list"}).exitCode == 3; }));
}

// It returns when it serves, although its second process goes on.
TEST_F(FaultcentreTest, ServesInTheBackground)
{
    EXPECT_EQ(North().Ctl({"--centre", "exit"}).exitCode, 0);
    EXPECT_TRUE(WaitUntil([&] { return North().Ctl({"--centre", "list"}).exitCode == 3; }));
    EXPECT_TRUE(WaitUntil([&] { // until the lock of the one before has gone
        return North().Run(Faultcentre, {"--engine", Urls}).exitCode == 0;
    }));
    EXPECT_EQ(North().Ctl({"--centre", "list"}).exitCode, 0);
    EXPECT_EQ(North().Ctl({"--centre", "exit"}).exitCode, 0);
    EXPECT_TRUE(WaitUntil([&] { return North().Ctl({"--centre", "list"}).exitCode == 3; }));
}

static std::string FieldOf(const std::filesystem::path& status, const std::string& name)
{
    std::istringstream lines(ReadFile(status.string()));
    for (std::string line; std::getline(lines, line);)
        if (line.compare(0, name.size() + 2, name + ":\t") == 0)
            return line.substr(name.size() + 2);
    return "";
}

// The threads of programs that wait for alarms, but for the first of each, and those of them that would take one.
static void CountThreads(int* all, std::string* takers)
{
    for (const auto& process : std::filesystem::directory_iterator("/proc")) {
        const std::string id = process.path().filename(), name = FieldOf(process.path() / "status", "Name");
        const std::string parent = FieldOf("/proc/" + FieldOf(process.path() / "status", "PPid") + "/status", "Name");
        if (name != "faultgate" && (name != "faultcentre" || parent == name)) // the applier waits for none
            continue;
        for (const auto& thread : std::filesystem::directory_iterator(process.path() / "task")) {
            if (thread.path().filename() == id)
                continue;
            ++*all;
            const std::string held = FieldOf(thread.path() / "status", "SigBlk");
            if ((std::strtoull(held.c_str(), nullptr, 16) >> (SIGALRM - 1) & 1) == 0)
                *takers += name + " ";
        }
    }
}

// An alarm that another thread takes leaves the one that waits for it waiting.
TEST_F(FaultcentreTest, NoThreadOfTheEnginesClientTakesAlarms)
{
    Alpha().Ctl({"raise", "x", "1", "text"});
    ExpectSame();
    North().Centre({"show", "alpha", "x", "1"}); // a request to a gate
    int threads = 0;
    std::string takers;
    CountThreads(&threads, &takers);
    EXPECT_GE(threads, 6 * 3) << "two gates of two processes each, and two centres";
    EXPECT_EQ(takers, "");
}

TEST_F(FaultcentreTest, ListsMoreThanAnAnswerHolds)
{
    const TemporaryDirectory directory;
    std::string lines;
    const std::string text(3900, 't');
    for (int i = 0; i < 700; i++)
        lines += "raise x " + std::to_string(i) + " " + text + "\n";
    WriteFile(directory.File("commands"), lines);
    EXPECT_EQ(Beta().Run("/bin/sh", {"-c", Faultctl + " batch <" + directory.File("commands")}).exitCode, 0);
    ExpectSame();
    EXPECT_EQ(CountOf(North().Centre({"list"}), "\n"), 700);
}

TEST_F(FaultcentreTest, ShowsChangesAsTheyCome)
{
    Alpha().Ctl({"raise", "x", "1", "before"});
    ExpectSame();
    const TemporaryDirectory directory;
    const std::string seen = directory.File("seen");
    North().Start("/bin/sh", {"-c", "exec " + Faultctl + " --centre watch >" + seen});
    const auto sees = [&](const std::string& line) {
        return WaitUntil([&] { return CountOf(WithoutTimes(ReadFile(seen)), line) == 1; });
    };
    EXPECT_TRUE(WaitUntil([&] { // it looks from when it begins on
        Beta().Ctl({"raise", "x", "9", "begins"});
        return CountOf(ReadFile(seen), "begins") > 0;
    }));
    Alpha().Ctl({"raise", "x", "2", "two"});
    EXPECT_TRUE(sees("<time>\talpha\traised\tx/00000002\tnew\ttwo\n"));
    Alpha().Ctl({"move", "x", "2", "working"});
    EXPECT_TRUE(sees("<time>\talpha\tmoved\tx/00000002\tworking\ttwo\n"));
    Alpha().Ctl({"clear", "x", "2"});
    EXPECT_TRUE(sees("<time>\talpha\tcleared\tx/00000002\t\t\n"));
    EXPECT_EQ(CountOf(ReadFile(seen), "before"), 0);
}

TEST_F(FaultcentreTest, ChangesWithoutAnEndHoldNobodyUp)
{
    for (Host* host : {&Alpha(), &Beta()})
        host->Start("/bin/sh", {"-c", "while :; do " + Faultctl + " raise x 1 storm; done >/dev/null"});
    const TemporaryDirectory directory;
    const std::string done = directory.File("done");
    North().Start("/bin/sh", {"-c", "for i in $(seq 40); do " + Faultctl +
                                        " --centre list; sleep 0.05; done >/dev/null; echo >" + done});
    EXPECT_TRUE(WaitUntil([&] { return std::filesystem::exists(done); }, 30));
}

TEST_F(FaultcentreTest, EachOfItsProcessesEndsWithTheOther)
{
    hosts[2].reset(); // one centre is enough
    hosts[2] = std::make_unique<Host>("north");
    for (const int signal : {SIGKILL, SIGTERM, 0}) {
        const pid_t centre = StartCentre(North());
        std::ifstream in("/proc/" + std::to_string(centre) + "/task/" + std::to_string(centre) + "/children");
        pid_t applier = 0;
        ASSERT_TRUE(in >> applier);
        if (signal == 0) {
            kill(applier, SIGKILL);
            EXPECT_EQ(North().End(centre, 0), 1) << "it says that it could not go on";
        } else {
            North().End(centre, signal);
        }
        EXPECT_TRUE(WaitUntil([&] { return kill(applier, 0) != 0; }));
        const std::string text = std::to_string(signal);
        Alpha().Ctl({"raise", "x", text.substr(0, 1), "after signal " + text});
    }
    StartCentre(North());
    ExpectSame();
}

TEST_F(FaultcentreTest, OutlivesTheEngine)
{
    Alpha().Ctl({"raise", "x", "1", "before"});
    ExpectSame();
    engine.End();
    Alpha().Ctl({"clear", "x", "1"});
    Alpha().Ctl({"raise", "x", "2", "while it is away"});
    EXPECT_EQ(CountOf(North().Centre({"list"}), "before"), 1) << "what is known is shown meanwhile";
    engine.Start();
    ExpectSame();
}

// ---- Requests ----

TEST_F(FaultcentreTest, AsksTheDaemonOfAHost)
{
    Alpha().Ctl({"raise", "x", "1", "one", "--attach", "/etc/passwd", "--option", "a=b"});
    ExpectSame();
    EXPECT_EQ(North().Centre({"show", "nowhere", "x", "1"}), "? faultctl: no gate of nowhere is there\n");
    EXPECT_EQ(North().Ctl({"--centre", "show", "nowhere", "x", "1"}).exitCode, 3);
    Alpha().Write("/var/orv/data/orvnodes.dat", "north full\nsouth read\n");
    std::string shown;
    EXPECT_TRUE(WaitUntil([&] { return (shown = North().Centre({"show", "alpha", "x", "1"}))[0] != '?'; })) << shown;
    EXPECT_EQ(shown, WithoutTimes(Alpha().Ctl({"show", "x", "1"}).out));
    const TemporaryDirectory directory;
    EXPECT_EQ(North().Centre({"show", "alpha", "x", "1", "--save", directory.File("saved")}), shown);
    EXPECT_EQ(ReadFile(directory.File("saved")), ReadFile("/etc/passwd"));
    EXPECT_EQ(North().Centre({"run", "alpha", "x", "1", "echo $FAULT_NODE on $(uname -n)"}), "x on alpha\n");
    EXPECT_EQ(North().Centre({"run", "alpha", "x", "1", "exit 3"}), "? faultctl: the command ended with status 3\n");
    EXPECT_EQ(North().Centre({"move", "alpha", "x", "1", "working"}), "");
    ExpectSame();
    EXPECT_EQ(CountOf(North().Centre({"list"}), "working"), 1);
    EXPECT_EQ(North().Centre({"move", "alpha", "x", "1", "closed"}),
              "? faultctl: MOVE: An invalid transition was encountered. (26)\n");
    EXPECT_EQ(South().Centre({"show", "alpha", "x", "1"})[0], 'F');
    EXPECT_EQ(South().Centre({"clear", "alpha", "x", "1"}),
              "? faultctl: CLEAR: request for service was rejected. (81)\n")
        << "the daemon's node list decides";
    EXPECT_EQ(North().Centre({"clear", "alpha", "x", "1"}), "");
    EXPECT_EQ(North().Centre({"clear", "alpha", "x", "1"}),
              "? faultctl: CLEAR: Cannot find the data item, it does not exist. (56)\n");
    ExpectSame();
}

TEST_F(FaultcentreTest, ShowsAFaultWhateverItsSize)
{
    const TemporaryDirectory directory;
    std::string bytes;
    for (long i = 0; i < 3000000; i++)
        bytes += static_cast<char>(i * 7919 >> 8);
    WriteFile(directory.File("large"), bytes);
    Alpha().Ctl({"raise", "x", "1", "one", "--attach", directory.File("large")});
    Alpha().Write("/var/orv/data/orvnodes.dat", "north full\n");
    ExpectSame();
    EXPECT_EQ(North().Centre({"show", "alpha", "x", "1", "--save", directory.File("saved")}),
              WithoutTimes(Alpha().Ctl({"show", "x", "1"}).out));
    EXPECT_TRUE(ReadFile(directory.File("saved")) == bytes);
    EXPECT_TRUE(North().Ctl({"--centre", "run", "alpha", "x", "1", "cat " + directory.File("large")}).out == bytes);
}

TEST_F(FaultcentreTest, ASlowHostHoldsNobodyUp)
{
    Alpha().Ctl({"raise", "x", "1", "one"});
    ExpectSame();
    Alpha().Write("/var/orv/data/orvnodes.dat", "north full\n");
    ASSERT_TRUE(WaitUntil([&] { return North().Centre({"show", "alpha", "x", "1"})[0] != '?'; }));
    const TemporaryDirectory directory;
    const std::string go = directory.File("go"), began = directory.File("began"), done = directory.File("done");
    North().Start("/bin/sh", {"-c", Faultctl + " --centre run alpha x 1 'echo >" + began + "; while [ ! -e " + go +
                                        " ]; do sleep 0.1; done; echo ran' >" + done});
    ASSERT_TRUE(WaitUntil([&] { return std::filesystem::exists(began); }));
    EXPECT_EQ(CountOf(North().Centre({"list"}), "one"), 1);
    EXPECT_EQ(North().Centre({"show", "nowhere", "x", "1"}), "? faultctl: no gate of nowhere is there\n");
    EXPECT_EQ(ReadFile(done), "");
    WriteFile(go, "");
    EXPECT_TRUE(WaitUntil([&] { return ReadFile(done) == "ran\n"; }));
}

// ---- Clients on other hosts ----

TEST_F(FaultcentreTest, ServesOtherHostsOverTheRelay)
{
    std::ofstream("/etc/services", std::ios::app) << "\norvcentre 4713/tcp\n";
    std::ofstream("/etc/hosts", std::ios::app) << "\n127.0.0.1 north alpha beta\n";
    Alpha().Ctl({"raise", "x", "1", "one"});
    Alpha().Write("/var/orv/data/orvnodes.dat", "north full\n");
    ExpectSame();
    North().Write("/var/orv/data/orvnodes.dat", "alpha full\nbeta read\n");
    North().Start(Relayd, {"--service", "orvcentre"});
    const auto far = [](const Host& host, std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"--host", "north", "--centre"});
        const ChildResult result = host.Ctl(arguments);
        return result.exitCode == 0 ? WithoutTimes(result.out) : "? " + result.err;
    };
    const std::string expected = ListOf(Alpha());
    EXPECT_TRUE(WaitUntil([&] { return far(Beta(), {"list"}) == expected; })) << far(Beta(), {"list"});
    EXPECT_EQ(far(Beta(), {"show", "alpha", "x", "1"})[0], 'F');
    const std::string rejected = "? faultctl: REQUEST: request for service was rejected. (81)\n";
    EXPECT_EQ(far(Beta(), {"move", "alpha", "x", "1", "working"}), rejected);
    EXPECT_EQ(far(Beta(), {"run", "alpha", "x", "1", "true"}), rejected);
    EXPECT_EQ(far(Beta(), {"exit"}), "? faultctl: EXIT: request for service was rejected. (81)\n");
    EXPECT_EQ(far(Alpha(), {"move", "alpha", "x", "1", "working"}), "");
    ExpectSame();
}

} // namespace
