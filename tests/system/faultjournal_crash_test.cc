// SPDX-License-Identifier: BSD-2-Clause
// The example's journal on a bad day: that its changes make the faults of the store whatever happens when, and what
// becomes of damaged files.
#include <cerrno>
#include <climits>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/failing_calls.h"
#include "tests/support/failing_memory.h"
#include "tests/system/faultjournal_testing.h"

using namespace faultjournal_testing;

namespace {

typedef FaultJournalTest FaultJournalDamageTest;

// ---- A crash at any time ----

// Changes of all kinds, on the faults 1 and 2: number `n` of them.
short DoChange(FaultStore& store, int n)
{
    static const FaultRecord added = Record(3, "added", 3000), replaced = Record(3, "replaced"),
                             again = Record(2, "raised again"); // made while memory lasts
    static const FaultId one = Id(1), two = Id(2), three = Id(3);
    switch (n) {
    case 0: return store.Put(added);
    case 1: return store.SetState(three, "working");
    case 2: return store.Put(replaced);
    case 3: return store.SetState(one, "working");
    case 4: return store.Remove(two);
    case 5: return store.Remove(three);
    default: return store.Put(again);
    }
}
const int Changes = 7;

class FaultJournalCrashTest : public FaultJournalTest {
protected:
    void SetUp() override
    {
        FaultJournalTest::SetUp();
        shared =
            static_cast<int*>(mmap(nullptr, sizeof *shared, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        ASSERT_NE(static_cast<void*>(shared), MAP_FAILED);
        // The faults behind each change.
        FaultStore store(directory.File("plain").c_str());
        ASSERT_EQ(store.Load(), 0);
        ASSERT_EQ(store.Put(Record(1)), 0);
        ASSERT_EQ(store.Put(Record(2)), 0);
        expected.push_back(FaultsOf(store));
        for (int n = 0; n < Changes; n++) {
            ASSERT_EQ(DoChange(store, n), 0);
            expected.push_back(FaultsOf(store));
        }
    }
    void TearDown() override { munmap(shared, sizeof *shared); }

    // Starts, and does the changes until one fails; counts those that succeed.
    void DoChanges() const
    {
        Session session(directory.Path());
        if (session.status == 0)
            while (*shared < Changes && DoChange(session.store, *shared) == 0)
                ++*shared;
    }
    // What the client has heard of is there at the next start, and nothing else but what it was about to hear of.
    void ExpectKept(long& seen) const
    {
        Session session(directory.Path());
        ASSERT_EQ(session.status, 0);
        const Faults faults = FaultsOf(session.store);
        const size_t done = static_cast<size_t>(*shared);
        EXPECT_TRUE(faults == expected[done] || (done < Changes && faults == expected[done + 1])) << done;
        ExpectAgreement(session);
        EXPECT_GE(session.journal.Newest(), seen) << "no number is given twice";
        seen = session.journal.Newest();
    }
    void Renew(bool withJournal) const
    {
        *shared = 0;
        std::filesystem::remove_all(directory.File("journal"));
        std::filesystem::remove_all(directory.File("faults"));
        if (withJournal)
            return MakeTwo();
        FaultStore store(directory.File("faults").c_str());
        ASSERT_EQ(store.Load(), 0);
        ASSERT_EQ(store.Put(Record(1)), 0);
        ASSERT_EQ(store.Put(Record(2)), 0);
    }

    std::vector<Faults> expected;
    int* shared; // the changes that succeeded
};

TEST_F(FaultJournalCrashTest, KilledAtAnyStepItAgreesWithTheStoreAtTheNextStart)
{
    for (const bool withJournal : {true, false}) { // else the start writes a snapshot
        int step = 0, exitCode = -1;
        for (; exitCode != 0 && step < 1000; step++) {
            Renew(withJournal);
            const ChildResult child = RunInChild([&] {
                stepsToLive = step;
                DoChanges();
            });
            exitCode = child.exitCode;
            ASSERT_TRUE(exitCode == 0 || child.signal == SIGKILL) << child.err;
            long seen = 0;
            ExpectKept(seen);
            ASSERT_FALSE(HasFailure()) << "at step " << step << (withJournal ? "" : ", with a snapshot");
        }
        EXPECT_EQ(*shared, Changes);
        EXPECT_GT(step, 50);
    }
}

TEST_F(FaultJournalCrashTest, KilledInOneStartAfterTheOtherItEndsInStep)
{
    Renew(false);
    long seen = 0;
    *shared = 0;
    for (int step = 0; step < 40; step++) {
        const ChildResult child = RunInChild([&] {
            stepsToLive = step;
            CHILD_CHECK(Session(directory.Path()).status == 0);
        });
        ASSERT_TRUE(child.exitCode == 0 || child.signal == SIGKILL) << child.err;
    }
    ExpectKept(seen);
    EXPECT_EQ(Started(seen), "") << "no more snapshots";
}

TEST_F(FaultJournalCrashTest, WhateverCallFailsItAgreesWithTheStore)
{
    const std::vector<long> calls = {SYS_openat, SYS_read,     SYS_write, SYS_fsync,      SYS_renameat, SYS_renameat2,
                                     SYS_unlink, SYS_unlinkat, SYS_mkdir, SYS_getdents64, SYS_link,     SYS_fstat};
    long made = LONG_MAX;
    for (long before = 0; before < made; before++) {
        Renew(before % 2 == 0);
        FailingCalls failing(calls, {EIO, before, 1});
        const ChildResult child = failing.Run([&] {
            failing.Begin();
            DoChanges();
            failing.End();
        });
        if (child.exitCode == NotPossibleHere)
            GTEST_SKIP() << "no way to make calls fail here";
        ASSERT_EQ(child.exitCode, 0) << child.err;
        if (failing.Failed() == 0 && before % 2 == 1)
            made = before;
        long seen = 0;
        ExpectKept(seen);
        ASSERT_FALSE(HasFailure()) << "call " << before << "\n" << child.err;
    }
    EXPECT_GT(made, 100);
}

TEST_F(FaultJournalCrashTest, WhereverMemoryFailsItAgreesWithTheStore)
{
    int exitCode = -1, tried = 0;
    for (int count = 0; exitCode != 0; count++) {
        Renew(true);
        const ChildResult child = RunInChild([&] {
            const MemoryFailure failure = MemoryFailure::OfOne(count, NewObject | NewArray | Calloc);
            Session session(directory.Path());
            if (session.status != 0)
                _exit(1);
            while (*shared < Changes && DoChange(session.store, *shared) == 0)
                ++*shared;
            _exit(*shared == Changes && !failure.HasHappened() ? 0 : 1);
        });
        exitCode = child.exitCode;
        ASSERT_TRUE(exitCode == 0 || exitCode == 1 || child.signal == SIGABRT) << child.err;
        long seen = 0;
        ExpectKept(seen);
        ASSERT_FALSE(HasFailure()) << "allocation " << count << "\n" << child.err;
        tried = count;
        ASSERT_LT(count, 1000);
    }
    EXPECT_GT(tried, 50);
}

// ---- Steps that it missed ----

TEST_F(FaultJournalDamageTest, AStartWithoutItIsMadeUpForByASnapshot)
{
    MakeTwo();
    EXPECT_EQ(FaultJournal(directory.File("journal").c_str()).LoseStep(), 0);
    {
        FaultStore store(directory.File("faults").c_str());
        ASSERT_EQ(store.Load(), 0);
        ASSERT_EQ(store.Remove(Id(2)), 0);
        ASSERT_EQ(store.SetState(Id(1), "working"), 0);
    }
    EXPECT_EQ(Started(3), "4 began 0 \n5 raised 1 working\n") << "2 is not raised again by the newest change";
    EXPECT_EQ(Started(3), "4 began 0 \n5 raised 1 working\n");
    EXPECT_EQ(FaultJournal(directory.File("none").c_str()).LoseStep(), 0);
    EXPECT_FALSE(std::filesystem::exists(directory.File("none")));
}

TEST_F(FaultJournalDamageTest, AJournalThatWouldNotKnowOfAStartWithoutItIsSaidSo)
{
    MakeTwo();
    FaultJournal journal(directory.File("journal").c_str());
    unlinkRefuses = true;
    Refusal([&] { return journal.LoseStep(); }, ErrorReporter::UNLINKING_FILE);
    unlinkRefuses = false;
    refusing = "journal";
    Refusal([&] { return journal.LoseStep(); }, ErrorReporter::UNLINKING_FILE);
    Refusal([&] { return journal.LoseStep(); }, ErrorReporter::UNLINKING_FILE); // nor when it is gone from sight
}

TEST_F(FaultJournalDamageTest, ADamagedStoreIsMadeUpForByASnapshot)
{
    MakeTwo();
    const std::string faults = directory.File("faults");
    WriteFile(faults + "/alpha%2F00000002", "garbage");
    CaptureStderr([&] {
        EXPECT_EQ(Started(3), "4 began 0 \n5 raised 1 new\n6 raised 2 new\n");
        EXPECT_EQ(Started(6), "7 began 0 \n8 raised 1 new\n9 raised 2 new\n") << "it is still without its record";
        const std::string list = ReadFile(faults + "/list");
        WriteFile(faults + "/list", list.substr(0, list.size() - 1));
        EXPECT_EQ(Started(9), "10 began 0 \n11 raised 1 new\n");
        std::filesystem::remove_all(faults);
        EXPECT_EQ(Started(11), "12 began 0 \n");
    });
    EXPECT_EQ(Started(11), "12 began 0 \n");
}

TEST_F(FaultJournalDamageTest, ACrashBehindTheMendingOfTheStoreDoesNotHideIt)
{
    MakeTwo();
    const std::string list = directory.File("faults/list");
    const std::string whole = ReadFile(list);
    int exitCode = -1;
    for (int step = 0; exitCode != 0 && step < 100; step++) {
        WriteFile(list, whole.substr(0, whole.size() - 1));
        const ChildResult child = RunInChild([&] {
            stepsToLive = step;
            CHILD_CHECK(Session(directory.Path()).status == 0);
        });
        exitCode = child.exitCode;
        CaptureStderr([&] { Started(); });
        ASSERT_FALSE(HasFailure()) << "at step " << step;
        std::filesystem::remove_all(directory.File("journal"));
        std::filesystem::remove_all(directory.File("faults"));
        MakeTwo();
    }
    EXPECT_EQ(exitCode, 0);
}

// ---- Damage ----

TEST_F(FaultJournalDamageTest, WhatIsNotWholeIsSetAsideAndMadeUpForByASnapshot)
{
    MakeTwo();
    const std::string whole = ReadFile(Change(2));
    const std::vector<std::string> broken = {"", whole.substr(0, whole.size() - 1), whole + "x",
                                             "3" + whole.substr(1), // another's
                                             std::string(100, '\xff')};
    long newest = 3;
    for (const std::string& content : broken) {
        WriteFile(Change(2), content);
        const std::string report = CaptureStderr([&] {
            Session session(directory.Path());
            EXPECT_EQ(session.status, 0);
            EXPECT_EQ(Texts(ListOf(session.journal)).find("1 began 0 \n3 raised 2 new\n"), 0u) << "a gap";
            EXPECT_EQ(ListOf(session.journal, newest).changes.size(), 3u);
            newest += 3;
        });
        EXPECT_EQ(ReportField(report, "  Description= "), Change(2));
        EXPECT_FALSE(std::filesystem::exists(Change(2)));
    }
    EXPECT_EQ(ReadFile(Change(2) + ".broken.2"), broken[1]);
    EXPECT_EQ(ReadFile(Change(2) + ".broken.5"), broken[4]);
    Session session(directory.Path());
    EXPECT_EQ(session.journal.Newest(), newest);
}

TEST_F(FaultJournalDamageTest, TheNumberOfABrokenChangeIsNotGivenAgain)
{
    int exitCode = -1;
    for (int step = 0; exitCode != 0 && step < 100; step++) {
        MakeTwo();
        WriteFile(Change(3), "garbage");
        const ChildResult child = RunInChild([&] {
            stepsToLive = step;
            CHILD_CHECK(Session(directory.Path()).status == 0);
        });
        exitCode = child.exitCode;
        CaptureStderr([&] {
            Session session(directory.Path());
            EXPECT_EQ(session.status, 0);
            const FaultChangeList list = ListOf(session.journal, 2);
            ASSERT_FALSE(list.changes.empty());
            EXPECT_EQ(list.changes[0].number, 4);
            EXPECT_EQ(list.changes[0].kind, FaultChange::Began);
            EXPECT_EQ(session.store.All().size(), 2u);
        });
        ASSERT_FALSE(HasFailure()) << "at step " << step;
        std::filesystem::remove_all(directory.File("journal"));
        std::filesystem::remove_all(directory.File("faults"));
    }
    EXPECT_EQ(exitCode, 0);
}

TEST_F(FaultJournalDamageTest, WhatBreaksWhileItServesFailsTheRequest)
{
    MakeTwo();
    Session session(directory.Path());
    WriteFile(Change(2), "garbage");
    FaultChangeList list;
    Refusal([&] { return session.journal.List({0, 10}, list); }, ErrorReporter::READING_FROM_FILE);
    std::remove(Change(2).c_str());
    Refusal([&] { return session.journal.List({0, 10}, list); }, ErrorReporter::READING_FROM_FILE);
    EXPECT_EQ(Texts(ListOf(session.journal, 2)), "3 raised 2 new\n");
    EXPECT_EQ(session.store.Put(Record(3)), 0);
}

TEST_F(FaultJournalDamageTest, WhatCannotBeReadNowEndsTheStartAndChangesNothing)
{
    MakeTwo();
    const auto before = Files();
    const std::pair<std::function<void()>, std::string> refusals[] = {
        {[this] {
             chmod(Change(2).c_str(), 0);
             DropPrivileges();
         },
         Change(2)},
        {[] { MakeCallsFail({SYS_read}, EIO); }, directory.File("journal/name")},
        {[] { MakeCallsFail({SYS_getdents64}, EIO); }, directory.File("journal")},
        {[] { LimitDescriptors(3); }, directory.File("journal")}};
    for (const auto& [refuse, what] : refusals) {
        const ChildResult child = RunInChild([&, refuse = refuse] {
            refuse();
            Session session(directory.Path());
            CHILD_CHECK(session.status != 0);
            CHILD_CHECK(session.store.Put(Record(3)) != 0);
        });
        chmod(Change(2).c_str(), 0644);
        if (child.exitCode == NotPossibleHere)
            GTEST_SKIP() << "no way to refuse here";
        EXPECT_EQ(child.exitCode, 0) << child.err;
        EXPECT_EQ(ReportField(child.err, "  Description= ").find(what), 0u) << child.err;
        EXPECT_TRUE(Files() == before);
    }
    EXPECT_EQ(Started(), TwoRaised);
}

TEST_F(FaultJournalDamageTest, AJournalWithoutItsChangesEndsTheStart)
{
    MakeTwo();
    for (const long number : {1, 2, 3})
        std::filesystem::rename(Change(number), directory.File(std::to_string(number)));
    const auto before = Files();
    Refusal([&] { return Session(directory.Path()).status; }, ErrorReporter::READING_FROM_FILE);
    EXPECT_TRUE(Files() == before);
    for (const long number : {1, 2, 3})
        std::filesystem::rename(directory.File(std::to_string(number)), Change(number));
    EXPECT_EQ(Started(), TwoRaised);
}

TEST_F(FaultJournalDamageTest, AJournalWithoutItsNameGetsAnother)
{
    MakeTwo();
    const std::string name = directory.File("journal/name");
    std::remove(name.c_str());
    EXPECT_EQ(Started(3), "4 began 0 \n5 raised 1 new\n6 raised 2 new\n");
    EXPECT_GT(ReadFile(name).size(), 10u);
    int number = 1;
    for (const char* broken : {"", "\n", "no end", "a b\n"}) {
        WriteFile(name, broken);
        CaptureStderr([&] { Started(); });
        EXPECT_GT(ReadFile(name).size(), 10u);
        EXPECT_EQ(ReadFile(name + (number == 1 ? ".broken" : ".broken." + std::to_string(number))), broken);
        number++;
    }
}

TEST_F(FaultJournalDamageTest, IgnoresStrangeNamesAndRemovesWhatIsHalfWritten)
{
    MakeTwo();
    const std::vector<std::string> strange = {"README",
                                              "4",
                                              "0000000000000000004",
                                              "000000000000000000004",
                                              "00000000000000000000",
                                              "0000000000000000000x",
                                              "+0000000000000000004",
                                              "99999999999999999999",
                                              "00000000000000000004.broken"};
    for (const std::string& file : strange)
        WriteFile(directory.File("journal/" + file), "strange");
    WriteFile(Change(4) + ".new", "half");
    EXPECT_EQ(Started(), TwoRaised);
    for (const std::string& file : strange)
        EXPECT_EQ(ReadFile(directory.File("journal/" + file)), "strange");
    EXPECT_FALSE(std::filesystem::exists(Change(4) + ".new"));
}

TEST_F(FaultJournalDamageTest, TheLastNumberIsTheLast)
{
    MakeTwo();
    std::string last = ReadFile(Change(3));
    last = std::to_string(LONG_MAX) + last.substr(1);
    WriteFile(Change(LONG_MAX), last);
    Session session(directory.Path());
    EXPECT_EQ(session.status, 0);
    Refusal([&] { return session.store.Put(Record(3)); }, ErrorReporter::INVALID_DATA);
    EXPECT_EQ(session.store.All().size(), 2u);
}

} // namespace
