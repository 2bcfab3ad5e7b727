// SPDX-License-Identifier: BSD-2-Clause
// The gate of a host: whatever is killed or away, all changes of the journal come into the engine's stream in their order,
// each once.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Misc/proginfo.h"
#include "fleet/message.h"
#include "tests/system/faultgate_testing.h"

using namespace fleet_testing;

namespace {

// ---- A good day ----

TEST_F(FaultgateTest, PassesOnWhatTheJournalHas)
{
    const std::string large = directory.File("large"), exact = directory.File("exact");
    WriteFile(large, std::string(1300000, 'l') + "end");
    WriteFile(exact, std::string(fleet::PieceSize, 'e'));
    StartEngine();
    StartDaemon();
    Ctl({"raise", "alpha", "1", "one", "--option", "a=b"});
    Ctl({"raise", "alpha", "2", "two", "--attach", large});
    Ctl({"raise", "beta", "3", "three", "--attach", exact});
    Ctl({"move", "alpha", "1", "working"});
    Ctl({"raise", "alpha", "2", "without it"});
    Ctl({"clear", "beta", "3"});
    const FaultChangeList journal = ChangesOfServer();
    ASSERT_EQ(journal.changes.size(), 7u);

    EXPECT_EQ(Once().exitCode, 0);
    const History history = ReadHistory(engine.Urls(), node);
    EXPECT_EQ(history.journals, std::vector<std::string>{static_cast<const char*>(journal.journal)});
    ASSERT_EQ(history.changes.size(), journal.changes.size());
    for (std::size_t i = 0; i < journal.changes.size(); i++)
        EXPECT_EQ(PackedChange(history.changes[i]), PackedChange(journal.changes[i])) << i;
    EXPECT_EQ(CountOf(Ctl({"changes"}).out, "\n"), 1) << "the daemon keeps the newest only";

    const std::size_t stored = ReadStream(engine.Urls()).size();
    EXPECT_EQ(stored, 1u + 3 + 1) << "changes that are there at once travel together";
    EXPECT_EQ(Once().exitCode, 0);
    EXPECT_EQ(ReadStream(engine.Urls()).size(), stored) << "nothing new";
}

TEST_F(FaultgateTest, SaysWhyItCannot)
{
    EXPECT_EQ(Once().exitCode, 1);
    const std::string away = "faultgate: no connection to " + engine.Urls() + ": ";
    EXPECT_EQ(Once().err.compare(0, away.size(), away), 0) << Once().err;
    engine.Start();
    StartDaemon();
    const std::string text = "faultgate: a message to fault.piece." + node + ".settled: ";
    ASSERT_TRUE(WaitUntil([&] { return Once().err.find(text) == 0; }, 60)) << "there is no stream";
    ASSERT_TRUE(engine.SetUp());
    EXPECT_EQ(Once().exitCode, 0);
    EndDaemon(SIGTERM);
    EXPECT_EQ(Once().err.find("faultgate: the daemon's changes: "), 0u) << Once().err;
    for (const std::vector<std::string>& wrong :
         {std::vector<std::string>{"--engine"}, {"--interval", "0"}, {"--interval", "1x"}, {"--engine", ""}, {"x"}})
        EXPECT_EQ(RunProgram(Faultgate, wrong).exitCode, 2);
    const ChildResult help = RunProgram(Faultgate, {"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_EQ(help.out.find("usage: faultgate "), 0u);
}

TEST_F(FaultgateTest, EndsWhenItIsTold)
{
    for (const int signal : {SIGTERM, SIGINT}) {
        StartGate(); // with nothing there at all
        ASSERT_TRUE(WaitUntil([&] { return !ReadFile(gateLog()).empty(); }));
        EXPECT_EQ(EndChild(gates[0], signal), 0);
        gates.clear();
    }
}

// ---- A bad day ----

TEST_F(FaultgateTest, WaitsForTheEngine)
{
    StartDaemon();
    StartGate();
    Storm storm(1, 10, 3000);
    storm.Allow(200);
    ASSERT_TRUE(storm.Settles());
    ASSERT_TRUE(WaitUntil([&] { return CountOf(ReadFile(gateLog()), "no connection") > 0; }));
    StartEngine();
    EXPECT_TRUE(AllPassedOn()) << ReadFile(gateLog());
    ExpectAgreement();
    ASSERT_TRUE(WaitUntil([&] { return CountOf(ReadFile(gateLog()), "faultgate: goes on\n") == 1; }));
    EXPECT_EQ(CountOf(ReadFile(gateLog()), "no connection"), 1) << "said once";
}

TEST_F(FaultgateTest, TheEngineIsKilledInAStorm)
{
    StartEngine();
    StartDaemon();
    StartGate();
    Storm storm(2, 20, 3000);
    std::mt19937 random(2);
    for (int kills = 0; kills < 6; kills++) {
        const int until = storm.Raised() + static_cast<int>(random() % 60);
        storm.Allow(100);
        ASSERT_TRUE(storm.HasRaised(until));
        engine.End();
        ASSERT_TRUE(storm.Settles());
        engine.Start();
    }
    EXPECT_TRUE(AllPassedOn()) << ReadFile(gateLog()) << engine.Log();
    ExpectAgreement();
}

TEST_F(FaultgateTest, GatesAreKilledInAStorm)
{
    StartEngine();
    StartDaemon();
    StartGate(0);
    StartGate(1); // two at once, which is more than there should be
    Storm storm(3, 20, 700000);
    std::mt19937 random(3);
    for (int kills = 0; kills < 40; kills++) {
        const int until = storm.Raised() + static_cast<int>(random() % 20);
        storm.Allow(20);
        ASSERT_TRUE(storm.HasRaised(until));
        const std::size_t index = random() % 2;
        EndChild(gates[index], SIGKILL);
        StartGate(index);
    }
    ASSERT_TRUE(storm.Settles());
    EXPECT_TRUE(AllPassedOn()) << ReadFile(gateLog(0)) << ReadFile(gateLog(1));
    ExpectAgreement();
}

TEST_F(FaultgateTest, TheDaemonIsKilledInAStorm)
{
    StartEngine();
    StartDaemon();
    StartGate();
    Storm storm(4, 20, 3000);
    std::mt19937 random(4);
    for (int kills = 0; kills < 10; kills++) {
        const int until = storm.Raised() + static_cast<int>(random() % 20);
        storm.Allow(30);
        ASSERT_TRUE(storm.HasRaised(until));
        EndDaemon(SIGKILL);
        StartDaemon();
    }
    ASSERT_TRUE(storm.Settles());
    EXPECT_TRUE(AllPassedOn()) << ReadFile(gateLog());
    ExpectAgreement();
}

// ---- Journals ----

TEST_F(FaultgateTest, AJournalBegunAnewFollowsTheOld)
{
    StartEngine();
    StartDaemon();
    StartGate();
    Ctl({"raise", "alpha", "1", "t"});
    Ctl({"raise", "alpha", "2", "t"});
    EXPECT_TRUE(AllPassedOn());
    EndDaemon(SIGTERM);
    std::filesystem::remove_all(JournalDirectory);
    StartDaemon();
    EXPECT_TRUE(AllPassedOn()) << ReadFile(gateLog());
    Ctl({"clear", "alpha", "1"});
    EXPECT_TRUE(WaitUntil([&] { return ReadHistory(engine.Urls(), node).changes.size() == 7; }));
    const History history = ReadHistory(engine.Urls(), node);
    EXPECT_EQ(history.journals.size(), 2u);
    EXPECT_EQ(history.changes[3].kind, FaultChange::Began);
    EXPECT_TRUE(history.replay.faults == FaultsOfServer());
}

// A copy of the journal and the faults as they are, to be put back.
class Backup {
public:
    explicit Backup(const TemporaryDirectory& directory) : place(directory.File("backup"))
    {
        std::filesystem::create_directory(place);
        std::filesystem::copy(JournalDirectory, place + "/journal");
        std::filesystem::copy(FaultDirectory, place + "/faults");
    }
    void PutBack() const
    {
        std::filesystem::remove_all(JournalDirectory);
        std::filesystem::remove_all(FaultDirectory);
        std::filesystem::copy(place + "/journal", JournalDirectory);
        std::filesystem::copy(place + "/faults", FaultDirectory);
    }

private:
    const std::string place;
};

class FaultgateOldCopyTest : public FaultgateTest {
protected:
    // Changes 1 to 3 are in the copy, 4 and 5 have been passed on.
    void MakeOldCopy()
    {
        StartEngine();
        StartDaemon();
        Ctl({"raise", "alpha", "1", "t"});
        Ctl({"raise", "alpha", "2", "t"});
        EndDaemon(SIGTERM);
        const Backup backup(directory);
        StartDaemon();
        Ctl({"raise", "alpha", "3", "t"});
        Ctl({"raise", "alpha", "4", "t"});
        EXPECT_EQ(Once().exitCode, 0);
        EndDaemon(SIGTERM);
        backup.PutBack();
        StartDaemon();
        stored = ReadStream(engine.Urls()).size();
    }
    void ExpectRefusal(const std::string& text)
    {
        const ChildResult refused = Once();
        EXPECT_EQ(refused.exitCode, 1);
        EXPECT_EQ(refused.err, "faultgate: " + text + "\n");
        EXPECT_EQ(ReadStream(engine.Urls()).size(), stored) << "nothing is stored";
    }
    // What the text tells to do.
    void ExpectThatANewOneHelps()
    {
        EndDaemon(SIGTERM);
        std::filesystem::remove_all(JournalDirectory);
        StartDaemon();
        const ChildResult passed = Once();
        EXPECT_EQ(passed.exitCode, 0) << passed.err;
        const History history = ReadHistory(engine.Urls(), node);
        EXPECT_EQ(history.journals.size(), 2u);
        EXPECT_TRUE(history.replay.faults == FaultsOfServer());
    }
    std::size_t stored = 0;
};

TEST_F(FaultgateOldCopyTest, IsRefused)
{
    MakeOldCopy();
    const std::string text =
        "the journal ends at 3, and 5 of it has been passed on: it is an old copy; a new one begins "
        "when its directory is removed";
    ExpectRefusal(text);
    Ctl({"raise", "beta", "1", "other"});
    ExpectRefusal("the journal ends at 4" + text.substr(text.find(", and")));
    ExpectThatANewOneHelps();
}

TEST_F(FaultgateOldCopyTest, IsRefusedThoughItHasGoneFurther)
{
    MakeOldCopy();
    for (const char* number : {"1", "2", "3"})
        Ctl({"raise", "beta", number, "other"});
    ExpectRefusal(
        "change 5 of the journal is another than the one that has been passed on: it is an old copy; a new one "
        "begins when its directory is removed");
    ExpectThatANewOneHelps();
}

// The same, put back under a gate that runs.
TEST_F(FaultgateOldCopyTest, IsRefusedByAGateThatKnewTheNewOne)
{
    StartEngine();
    StartDaemon();
    Ctl({"raise", "alpha", "1", "t"});
    EndDaemon(SIGTERM);
    const Backup backup(directory);
    StartDaemon();
    StartGate();
    Ctl({"raise", "alpha", "2", "t"});
    EXPECT_TRUE(AllPassedOn());
    EndDaemon(SIGTERM);
    ASSERT_TRUE(WaitUntil([&] { return !ReadFile(gateLog()).empty(); })) << "it knows that the daemon is away";
    kill(gates[0], SIGSTOP); // not to look before it is too late
    backup.PutBack();
    StartDaemon();
    for (const char* number : {"1", "2", "3"})
        Ctl({"raise", "beta", number, "other"});
    stored = ReadStream(engine.Urls()).size();
    kill(gates[0], SIGCONT);
    EXPECT_TRUE(WaitUntil([&] { return ReadFile(gateLog()).find("it is an old copy") != std::string::npos; }));
    EXPECT_EQ(ReadStream(engine.Urls()).size(), stored);
}

TEST_F(FaultgateTest, RefusesToLeaveChangesOut)
{
    StartEngine();
    StartDaemon();
    Ctl({"raise", "alpha", "1", "t"});
    EXPECT_EQ(Once().exitCode, 0);
    Ctl({"raise", "alpha", "2", "t"});
    Ctl({"raise", "alpha", "3", "t"});
    Ctl({"changes-done", "4"}); // which is for the gate alone to say
    const std::size_t stored = ReadStream(engine.Urls()).size();
    const ChildResult refused = Once();
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.err,
              "faultgate: the journal has no change 3, which should be the next: somebody else has removed "
              "it, or the engine has lost it or lags behind\n");
    EXPECT_EQ(ReadStream(engine.Urls()).size(), stored);
}

TEST_F(FaultgateTest, ABrokenChangeIsMadeUpForByTheNextBeginning)
{
    StartEngine();
    StartDaemon();
    Ctl({"raise", "alpha", "1", "t"});
    EXPECT_EQ(Once().exitCode, 0);
    Ctl({"raise", "alpha", "2", "t"}); // 3
    Ctl({"raise", "alpha", "3", "t"});
    EndDaemon(SIGTERM);
    WriteFile(std::string(JournalDirectory) + "/00000000000000000003", "nonsense");
    StartDaemon(); // which begins with 5
    const ChildResult passed = Once();
    EXPECT_EQ(passed.exitCode, 0) << passed.err;
    std::vector<long> numbers;
    for (const Stored& stored : ReadStream(engine.Urls()))
        numbers.push_back(stored.number);
    EXPECT_EQ(numbers, (std::vector<long>{2, 8}));
    EXPECT_EQ(CountOf(Ctl({"changes"}).out, "\n"), 1);
}

// ---- A small engine, and a large one ----

TEST_F(FaultgateTest, AFullStreamMakesItWait)
{
    const std::string file = directory.File("attachment");
    WriteFile(file, std::string(300000, 'a'));
    StartEngine({"--bytes", "1000000"});
    StartDaemon();
    StartGate();
    for (const char* number : {"1", "2", "3", "4", "5", "6"})
        ASSERT_EQ(Ctl({"raise", "alpha", number, "t", "--attach", file}).exitCode, 0);
    EXPECT_TRUE(WaitUntil([&] { return ReadFile(gateLog()).find("maximum bytes exceeded") != std::string::npos; }))
        << ReadFile(gateLog());
    Ctl({"raise", "beta", "1", "t"});
    EXPECT_GT(CountOf(Ctl({"changes"}).out, "\n"), 1) << "they wait here";
    ASSERT_TRUE(engine.SetUp({"--bytes", "100000000"}));
    EXPECT_TRUE(AllPassedOn()) << ReadFile(gateLog());
    ExpectAgreement();
    EXPECT_EQ(CountOf(ReadFile(gateLog()), "maximum bytes exceeded"), 1) << "said once: " << ReadFile(gateLog());
}

class FaultgateClusterTest : public FaultgateTest {
protected:
    FaultgateClusterTest() : FaultgateTest(3) {}
};

TEST_F(FaultgateClusterTest, TheLeaderIsKilledInAStorm)
{
    engine.StartAll();
    ASSERT_TRUE(engine.SetUp({"--replicas", "3"})) << engine.Log();
    StartDaemon();
    StartGate();
    Storm storm(5, 20, 3000);
    std::mt19937 random(5);
    const char* wanted = std::getenv("FAULTGATE_KILLS"); // each takes some ten seconds
    for (int kills = 0; kills < (wanted != nullptr ? std::atoi(wanted) : 1); kills++) {
        int leader = -1;
        ASSERT_TRUE(WaitUntil([&] { return (leader = engine.Leader()) >= 0; }, 120)) << "all are in step";
        const int until = storm.Raised() + static_cast<int>(random() % 100);
        storm.Allow(200);
        ASSERT_TRUE(storm.HasRaised(until));
        engine.End(leader);
        ASSERT_TRUE(storm.Settles());
        EXPECT_TRUE(AllPassedOn()) << "two servers are enough: " << ReadFile(gateLog());
        engine.Start(leader);
    }
    ExpectAgreement();
}

} // namespace
