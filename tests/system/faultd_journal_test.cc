// SPDX-License-Identifier: BSD-2-Clause
// faultd with a journal: what clients see of it, who may, and that killed at any time it agrees with the faults.
#include <algorithm>
#include <csignal>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/ipcobject.h"
#include "Misc/ipcq.h"
#include "Misc/proginfo.h"
#include "examples/fault.h"
#include "tests/system/faultd_testing.h"
#include "tests/system/faultjournal_replay.h"

using namespace faultd_testing;
using faultjournal_testing::Faults;
using faultjournal_testing::Packed;
using faultjournal_testing::Replay;

namespace {

const char JournalDirectory[] = "/var/orv/data/journal";
const short Rejected = 81, Invalid = 22;

class FaultdJournalTest : public FaultdTest {
protected:
    void SetUp() override
    {
        static char name[] = "faultd_journal_test";
        static char* argv[] = {name, nullptr};
        FaultdTest::SetUp();
        ProgInfo::Initialize(1, argv, argv + 1, "1.0");
        std::filesystem::remove_all(JournalDirectory);
    }
    void StartJournal(std::vector<std::string> arguments = {})
    {
        arguments.push_back("--journal");
        StartServer(arguments);
    }
    void Restart(int signal, const std::vector<std::string>& arguments = {"--journal"})
    {
        kill(server, signal);
        EndOfServer();
        StartServer(arguments);
    }
    // What `faultctl changes` prints, without the times.
    static std::string Changes(std::vector<std::string> arguments = {})
    {
        arguments.insert(arguments.begin(), "changes");
        const ChildResult result = Ctl(arguments);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return WithoutTimes(result.out);
    }
};

// What the server answers to a node of that name.
template <class Object>
short Ask(const char* node, short event, const Object& request, Buffer& answer)
{
    IPCQClient client(0, "orvd");
    client.RegisterNodeName(node);
    Buffer data;
    Pack(request, data);
    short answered = -1;
    EXPECT_EQ(client.send_event_with_response(event, data, static_cast<long>(data.Size())), 0);
    return client.receive_response(answered, answer);
}

template <class Object>
short StatusFor(const char* node, short event, const Object& request)
{
    Buffer answer;
    return Ask(node, event, request, answer);
}

FaultChangeList ChangesSince(long since)
{
    Buffer answer;
    FaultChangeList list;
    EXPECT_EQ(Ask(NodeName().c_str(), ChangesEvent, ChangesRequest{since, 1000}, answer), 0);
    EXPECT_TRUE(Unpack(answer, list));
    return list;
}

// ---- What clients see ----

TEST_F(FaultdJournalTest, ShowsItsChanges)
{
    StartJournal();
    Ctl({"raise", "alpha", "7", "two\nlines", "--attach", KeyFile});
    Ctl({"move", "alpha", "7", "working"});
    Ctl({"raise", "beta", "1", "t"});
    Ctl({"raise", "alpha", "7", "again"});
    Ctl({"clear", "beta", "1"});
    EXPECT_EQ(Ctl({"move", "alpha", "7", "closed"}).exitCode, 1) << "what did not happen is no change";
    EXPECT_EQ(Ctl({"clear", "beta", "1"}).exitCode, 1);
    const std::string all = "1\t<time>\tbegan\t\t\t\n"
                            "2\t<time>\traised\talpha/00000007\tnew\ttwo lines\n"
                            "3\t<time>\tmoved\talpha/00000007\tworking\t\n"
                            "4\t<time>\traised\tbeta/00000001\tnew\tt\n"
                            "5\t<time>\traised\talpha/00000007\tnew\tagain\n"
                            "6\t<time>\tcleared\tbeta/00000001\t\t\n";
    EXPECT_EQ(Changes(), all);
    EXPECT_EQ(Changes({"--since", "4", "--most", "1"}), "5\t<time>\traised\talpha/00000007\tnew\tagain\n");
    EXPECT_EQ(Changes({"--most", "1"}), "1\t<time>\tbegan\t\t\t\n");
    EXPECT_EQ(Changes({"--since", "6"}), "");
    EXPECT_EQ(Changes({"--since", "1000"}), "");
    for (const int signal : {SIGKILL, SIGTERM}) {
        Restart(signal);
        EXPECT_EQ(Changes(), all) << "they are there again";
    }
    const std::string status = Ctl({"status"}).out;
    const std::string name = ReadFile(std::string(JournalDirectory) + "/name");
    EXPECT_NE(status.find("Journal: " + name.substr(0, name.size() - 1) + ", changes 1 to 6\n"), std::string::npos);
    EXPECT_EQ(name.find(NodeName() + "-"), 0u);

    EXPECT_RESULT(Ctl({"changes-done", "7"}), 1, "", "faultctl: CHANGES_DONE: Invalid data was encountered. (22)\n");
    EXPECT_RESULT(Ctl({"changes-done", "4"}), 0, "", "");
    EXPECT_EQ(Changes(), all.substr(all.find("5\t")));
    EXPECT_RESULT(Ctl({"changes-done", "6"}), 0, "", "");
    EXPECT_EQ(Changes(), all.substr(all.find("6\t")));
    Ctl({"clear", "alpha", "7"});
    EXPECT_EQ(Changes({"--since", "6"}), "7\t<time>\tcleared\talpha/00000007\t\t\n");
}

TEST_F(FaultdJournalTest, ShowsMoreThanAnAnswerHolds)
{
    const std::string commands = directory.File("commands");
    std::string lines = "raise alpha 1 t\n";
    for (int i = 0; i < 600; i++)
        lines += "move alpha 1 working\nmove alpha 1 solved\n";
    WriteFile(commands, lines);
    StartJournal();
    EXPECT_EQ(Ctl({"batch"}, commands).exitCode, 0);
    EXPECT_EQ(CountOf(Changes(), "\n"), 1202);
    EXPECT_EQ(CountOf(Changes({"--most", "1100"}), "\n"), 1100);
    EXPECT_EQ(CountOf(Changes({"--since", "102"}), "\n"), 1100);
}

TEST_F(FaultdJournalTest, WithoutItNothingIsKeptOrRefused)
{
    StartServer();
    Ctl({"raise", "alpha", "7", "t"});
    const std::string unsupported = "An unsupported feature was encountered. (47)\n";
    EXPECT_RESULT(Ctl({"changes"}), 1, "", "faultctl: CHANGES: " + unsupported);
    EXPECT_RESULT(Ctl({"changes-done", "1"}), 1, "", "faultctl: CHANGES_DONE: " + unsupported);
    EXPECT_EQ(CountOf(Ctl({"status"}).out, "Journal: "), 0);
    EXPECT_FALSE(std::filesystem::exists(JournalDirectory));
}

TEST_F(FaultdJournalTest, AStartWithoutItIsMadeUpFor)
{
    StartJournal();
    Ctl({"raise", "alpha", "7", "t"});
    Restart(SIGKILL, {});
    Ctl({"clear", "alpha", "7"});
    Ctl({"raise", "alpha", "8", "t"});
    Ctl({"move", "alpha", "8", "working"});
    Restart(SIGKILL);
    EXPECT_EQ(Changes({"--since", "2"}), "3\t<time>\tbegan\t\t\t\n"
                                         "4\t<time>\traised\talpha/00000008\tworking\tt\n");
    Restart(SIGKILL);
    EXPECT_EQ(Changes({"--since", "4"}), "");
}

TEST_F(FaultdJournalTest, SaysWhyItCannotStart)
{
    WriteFile(JournalDirectory, "not a directory");
    const ChildResult refused = RunProgram(Faultd, {"--foreground", "--journal"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.err.find("faultd: the faults cannot be kept in /var/orv/data/faults and /var/orv/data/journal\n"),
              std::string::npos);
    StartServer(); // which has none
    EndChild(server, SIGTERM);
    server = 0;
    std::remove(JournalDirectory);

    std::filesystem::create_directories(std::string(JournalDirectory) + "/step"); // which cannot be unlinked
    const ChildResult unknown = RunProgram(Faultd, {"--foreground"});
    EXPECT_EQ(unknown.exitCode, 1);
    EXPECT_NE(unknown.err.find("faultd: an earlier journal in /var/orv/data/journal would not know of this start"),
              std::string::npos);
}

TEST_F(FaultdJournalTest, ComplainsOfWrongUsage)
{
    const std::string hint = "; see faultctl --help\n";
    EXPECT_RESULT(Ctl({"changes", "3"}), 2, "", "faultctl: changes takes [--since N] [--most M]" + hint);
    EXPECT_RESULT(Ctl({"changes", "--since", "1", "--since", "2"}), 2, "",
                  "faultctl: changes takes [--since N] [--most M]" + hint);
    EXPECT_RESULT(Ctl({"list", "--most", "1"}), 2, "", "faultctl: list takes no arguments" + hint);
    EXPECT_RESULT(Ctl({"changes-done"}), 2, "", "faultctl: changes-done takes N" + hint);
    for (const char* number : {"x", "-1", "1x", "99999999999999999999"}) {
        EXPECT_RESULT(Ctl({"changes", "--since", number}), 2, "",
                      "faultctl: --since takes the number of a change or 0, not " + std::string(number) + hint);
        EXPECT_RESULT(Ctl({"changes-done", number}), 2, "", "faultctl: N must be the number of a change" + hint);
    }
    for (const char* number : {"x", "-1", "0"})
        EXPECT_RESULT(Ctl({"changes", "--most", number}), 2, "",
                      "faultctl: --most takes a number from 1 on, not " + std::string(number) + hint);
}

// ---- Who may ----

TEST_F(FaultdJournalTest, WhoMayReadMayAskButOnlyThisHostMayRemove)
{
    WriteFile(NodesFile, "reader read\nfriend full\nboss global\nstranger none\n");
    const ChangesRequest request;
    const ChangesDone done = {1};
    StartJournal();
    Ctl({"raise", "alpha", "7", "t"});
    for (const char* node : {"reader", "friend", "boss"})
        EXPECT_EQ(StatusFor(node, ChangesEvent, request), 0) << node;
    EXPECT_EQ(StatusFor("stranger", ChangesEvent, request), Rejected);
    for (const char* node : {"reader", "friend", "boss", "stranger"})
        EXPECT_EQ(StatusFor(node, ChangesDoneEvent, done), Rejected) << node;
    Restart(SIGTERM, {"--journal", "--remote-access", "global"});
    EXPECT_EQ(StatusFor("anybody", ChangesEvent, request), 0);
    EXPECT_EQ(StatusFor("anybody", ChangesDoneEvent, done), Rejected);
    EXPECT_EQ(CountOf(Changes(), "\n"), 2);
    EXPECT_EQ(StatusFor(NodeName().c_str(), ChangesDoneEvent, done), 0);
    EXPECT_EQ(CountOf(Changes(), "\n"), 1);
}

TEST_F(FaultdJournalTest, RefusesBadPayloads)
{
    StartJournal();
    const std::string node = NodeName();
    EXPECT_EQ(StatusFor(node.c_str(), ChangesEvent, FaultId()), Invalid);
    EXPECT_EQ(StatusFor(node.c_str(), ChangesEvent, ChangesDone{1}), Invalid);
    EXPECT_EQ(StatusFor(node.c_str(), ChangesEvent, ChangesRequest{-1, 1}), Invalid);
    EXPECT_EQ(StatusFor(node.c_str(), ChangesEvent, ChangesRequest{0, 0}), Invalid);
    EXPECT_EQ(StatusFor(node.c_str(), ChangesDoneEvent, ChangesRequest{0, 1}), Invalid);
    EXPECT_EQ(StatusFor(node.c_str(), ChangesDoneEvent, ChangesDone{-1}), Invalid);
    EXPECT_EQ(StatusFor(node.c_str(), ChangesDoneEvent, ChangesDone{2}), Invalid) << "there is no such change yet";
    EXPECT_EQ(StatusFor(node.c_str(), ChangesDoneEvent, ChangesDone{0}), 0);
}

// ---- A bad day ----

TEST_F(FaultdJournalTest, AFullFileSystemIsEmptiedByWhoPassesTheChangesOn)
{
    if (std::filesystem::space("/var/orv/data").capacity > 64 << 20)
        GTEST_SKIP() << "needs a small file system";
    const std::string file = directory.File("attachment");
    WriteFile(file, std::string(1 << 18, 'a'));
    StartJournal();
    int raised = 0;
    while (raised < 1000 && Ctl({"raise", "alpha", "1", "t", "--attach", file}).exitCode == 0)
        raised++;
    ASSERT_GT(raised, 2);
    ASSERT_LT(raised, 1000);
    EXPECT_RESULT(Ctl({"move", "alpha", "1", "working"}), 1, "", "faultctl: MOVE: File System Full. (76)\n");
    EXPECT_EQ(CountOf(Changes(), "\traised\t"), raised);
    EXPECT_RESULT(Ctl({"changes-done", std::to_string(raised + 1)}), 0, "", "");
    EXPECT_RESULT(Ctl({"move", "alpha", "1", "working"}), 0, "", "");
    EXPECT_EQ(Changes({"--since", std::to_string(raised + 1)}),
              std::to_string(raised + 2) + "\t<time>\tmoved\talpha/00000001\tworking\t\n");
}

// The faults that the server has, each whole.
Faults FaultsOfServer()
{
    Faults faults;
    Buffer answer;
    FaultList list;
    EXPECT_EQ(Ask(NodeName().c_str(), ListEvent, FaultList(), answer), 0);
    EXPECT_TRUE(Unpack(answer, list));
    for (const FaultSummary& summary : list.faults) {
        FaultRecord fault;
        EXPECT_EQ(Ask(NodeName().c_str(), FetchEvent, summary.hdr.myId, answer), 0);
        EXPECT_TRUE(Unpack(answer, fault));
        faults[static_cast<const char*>(summary.hdr.myId)] = Packed(fault);
    }
    return faults;
}

const int Raises = 1000, Numbers = 40;

struct Shared {
    volatile int allowed; // raises; the client waits for leave to do more
    volatile int raised;
    long last[Numbers]; // the raise that is there for sure
};

// Raises faults, moves and clears them, whatever becomes of the server.
void Storm(Shared& shared)
{
    std::mt19937 random(1);
    ReconnectClient client(0, "orvd");
    client.SetRetryCount(1000);
    client.SetRetryWaitTime(0);
    Buffer answer;
    const auto send = [&](short event, const auto& object) {
        Buffer data;
        Pack(object, data);
        return client.SendEventWithResponse(event, answer, event, data, static_cast<long>(data.Size()));
    };
    while (shared.raised < Raises) {
        while (shared.raised >= shared.allowed)
            usleep(100);
        const long number = static_cast<long>(random() % Numbers);
        FaultRecord fault;
        fault.summary.hdr.myId = FaultId(number, "alpha");
        fault.summary.text = std::to_string(shared.raised + 1).c_str();
        fault.attachment.Append(std::string(random() % 3000, 'a').c_str());
        fault.summary.attached = static_cast<int>(fault.attachment.Size());
        shared.last[number] = 0; // one that is not answered may be there or not
        if (send(RaiseEvent, fault) != 0)
            continue;
        if (random() % 2 == 0)
            send(MoveEvent, FaultMove{fault.summary.hdr.myId, "working"});
        if (random() % 4 == 0)
            send(ClearEvent, fault.summary.hdr.myId);
        else
            shared.last[number] = shared.raised + 1;
        shared.raised = shared.raised + 1;
    }
}

TEST_F(FaultdJournalTest, KilledAtRandomItAgreesWithTheList)
{
    Shared* shared =
        static_cast<Shared*>(mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(static_cast<void*>(shared), MAP_FAILED);
    volatile int& raised = shared->raised;
    StartJournal();
    const pid_t client = StartChild([&] { Storm(*shared); });
    std::mt19937 random(2);
    std::map<long, std::string> seen; // by who follows the changes, each packed
    int kills = 0;
    while (raised < Raises && !HasFailure()) {
        shared->allowed = std::min(raised + 20 + static_cast<int>(random() % 60), Raises);
        const int until = shared->allowed - static_cast<int>(random() % 20);
        for (int i = 0; i < 600000 && raised < until; i++) // looking closely: it is to be killed at its work
            usleep(100);
        EXPECT_GE(raised, until);
        Restart(SIGKILL);
        kills++;
        for (FaultChangeList list = ChangesSince(seen.empty() ? 0 : seen.rbegin()->first); !list.changes.empty();
             list = ChangesSince(seen.rbegin()->first))
            for (const FaultChange& change : list.changes) {
                Buffer data;
                Pack(change, data);
                seen[change.number].assign(static_cast<const char*>(static_cast<const void*>(data)), data.Size());
            }
    }
    shared->allowed = Raises;
    EXPECT_EQ(WaitForExit(client), 0);
    EXPECT_GE(kills, Raises / 80);

    const Faults faults = FaultsOfServer();
    Replay replay;
    FaultChangeList list = ChangesSince(0);
    ASSERT_FALSE(list.changes.empty());
    EXPECT_EQ(list.changes[0].number, 1);
    for (; !list.changes.empty(); list = ChangesSince(replay.last)) {
        for (const FaultChange& change : list.changes) {
            Buffer data;
            Pack(change, data);
            const std::string packed(static_cast<const char*>(static_cast<const void*>(data)), data.Size());
            EXPECT_TRUE(seen.count(change.number) == 0 || seen[change.number] == packed) << "given for two changes";
        }
        EXPECT_TRUE(replay.Add(list)) << "in order, without a gap";
    }
    EXPECT_TRUE(replay.faults == faults);
    for (int number = 0; number < Numbers; number++)
        if (shared->last[number] != 0) {
            const std::string id = static_cast<const char*>(FaultId(number, "alpha"));
            ASSERT_EQ(faults.count(id), 1u) << id;
            const std::string text = std::to_string(shared->last[number]);
            EXPECT_NE(faults.at(id).find(std::to_string(text.size()) + "|" + text), std::string::npos) << id;
        }
    munmap(shared, sizeof(Shared));
}

} // namespace
