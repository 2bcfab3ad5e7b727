// SPDX-License-Identifier: BSD-2-Clause
// The example's journal: what it keeps, lists, removes and refuses.
#include <cerrno>
#include <climits>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/system/faultjournal_testing.h"

using namespace faultjournal_testing;

namespace {

// ---- What it keeps ----

TEST_F(FaultJournalTest, BeginsWithTheFaultsThatAreThere)
{
    {
        FaultStore store(directory.File("faults").c_str());
        ASSERT_EQ(store.Load(), 0);
        ASSERT_EQ(store.Put(Record(1, "one", 5000)), 0);
        ASSERT_EQ(store.Put(Record(2)), 0);
        ASSERT_EQ(store.SetState(Id(2), "working"), 0);
    }
    Session session(directory.Path());
    ASSERT_EQ(session.status, 0);
    const FaultChangeList list = ListOf(session.journal);
    EXPECT_EQ(Texts(list), "1 began 0 \n2 raised 1 new\n3 raised 2 working\n");
    EXPECT_EQ(list.last, 3);
    EXPECT_GT(list.journal.strlen(), 10u);
    EXPECT_TRUE(Packed(list.changes[1].fault) == Packed(Record(1, "one", 5000))) << "with its attachment";
    EXPECT_EQ(ReadFile(directory.File("journal/name")), std::string(static_cast<const char*>(list.journal)) + "\n");
}

TEST_F(FaultJournalTest, KeepsEachChangeOverRestarts)
{
    const long before = time(nullptr);
    MakeTwo();
    CString name;
    {
        Session session(directory.Path());
        name = ListOf(session.journal).journal;
        EXPECT_EQ(Texts(ListOf(session.journal)), TwoRaised) << "a start adds nothing";
        EXPECT_EQ(session.store.SetState(Id(1), "working"), 0);
        EXPECT_EQ(session.store.Put(Record(1, "again")), 0);
        EXPECT_EQ(session.store.Remove(Id(2)), 0);
        ExpectAgreement(session);
    }
    EXPECT_EQ(Started(3), "4 moved 1 working\n5 raised 1 new\n6 cleared 2 \n");
    Session session(directory.Path());
    EXPECT_TRUE(ListOf(session.journal).journal == name);
    EXPECT_EQ(session.store.Remove(Id(1)), 0);
    EXPECT_EQ(session.journal.Newest(), 7);
    for (const FaultChange& change : ListOf(session.journal).changes) {
        EXPECT_GE(change.time, before);
        EXPECT_LE(change.time, time(nullptr));
    }
}

TEST_F(FaultJournalTest, TwoJournalsHaveTwoNames)
{
    MakeTwo();
    const std::string first = ReadFile(directory.File("journal/name"));
    std::filesystem::remove_all(directory.File("journal"));
    const ChildResult child = RunInChild([&] { CHILD_CHECK(Session(directory.Path()).status == 0); });
    EXPECT_EQ(child.exitCode, 0) << child.err;
    EXPECT_NE(ReadFile(directory.File("journal/name")), first) << "another process made it";
}

TEST_F(FaultJournalTest, ListsAsMuchAsWasAskedForAndFits)
{
    Session session(directory.Path());
    ASSERT_EQ(session.status, 0);
    for (int number = 1; number <= 3; number++)
        ASSERT_EQ(session.store.Put(Record(number, "t", 3 << 19)), 0); // a megabyte and a half
    ASSERT_EQ(session.store.Put(Record(4, "t", 9 << 20)), 0);
    ASSERT_EQ(session.store.Put(Record(5)), 0);
    const FaultJournal& journal = session.journal;
    EXPECT_EQ(Texts(ListOf(journal)), TwoRaised) << "the third one does not fit";
    EXPECT_EQ(Texts(ListOf(journal, 0, 2)), "1 began 0 \n2 raised 1 new\n");
    EXPECT_EQ(Texts(ListOf(journal, 2)), "3 raised 2 new\n4 raised 3 new\n");
    EXPECT_EQ(Texts(ListOf(journal, 4)), "5 raised 4 new\n") << "whatever its size";
    EXPECT_EQ(Texts(ListOf(journal, 5)), "6 raised 5 new\n");
    for (const long since : {6L, 7L, LONG_MAX}) {
        EXPECT_EQ(Texts(ListOf(journal, since)), "");
        EXPECT_EQ(ListOf(journal, since).last, 6);
    }
    EXPECT_EQ(ListOf(journal, 0, 2).last, 6) << "not that of the answer";
}

TEST_F(FaultJournalTest, AnAnswerHasAThousandChangesAtMost)
{
    Session session(directory.Path());
    for (int i = 0; i < 1100; i++)
        ASSERT_EQ(session.store.Put(Record(1)), 0);
    EXPECT_EQ(ListOf(session.journal, 0, INT_MAX).changes.size(), 1000u);
    EXPECT_EQ(ListOf(session.journal, 1000, INT_MAX).changes.size(), 101u);
    ExpectAgreement(session);
}

TEST_F(FaultJournalTest, RemovesWhatIsDoneButNeverTheNewest)
{
    MakeTwo();
    Session session(directory.Path());
    EXPECT_EQ(session.journal.Remove(4), ErrorReporter::INVALID_DATA) << "there is no such change yet";
    EXPECT_EQ(session.journal.Remove(0), 0);
    EXPECT_EQ(Texts(ListOf(session.journal)), TwoRaised);
    EXPECT_EQ(session.journal.Remove(1), 0);
    EXPECT_EQ(Texts(ListOf(session.journal)), "2 raised 1 new\n3 raised 2 new\n") << "it begins with the oldest";
    EXPECT_EQ(session.journal.Remove(1), 0);
    EXPECT_EQ(session.journal.Remove(3), 0);
    EXPECT_EQ(Texts(ListOf(session.journal)), "3 raised 2 new\n");
    EXPECT_FALSE(std::filesystem::exists(Change(2)));
    EXPECT_TRUE(std::filesystem::exists(Change(3)));
    EXPECT_EQ(session.store.Put(Record(3)), 0);

    Session next(directory.Path());
    EXPECT_EQ(Texts(ListOf(next.journal)), "3 raised 2 new\n4 raised 3 new\n") << "it is the counter";
    unlinkRefuses = true;
    Refusal([&] { return next.journal.Remove(4); }, ErrorReporter::UNLINKING_FILE);
    unlinkRefuses = false;
    EXPECT_EQ(Texts(ListOf(next.journal)), "3 raised 2 new\n4 raised 3 new\n");
}

TEST_F(FaultJournalTest, IsOnTheDiskBeforeTheStore)
{
    typedef std::vector<std::string> Steps;
    MakeTwo();
    Session session(directory.Path());
    steps.clear();
    ASSERT_EQ(session.store.Put(Record(3)), 0);
    const std::string change = NameOf(Change(4));
    ASSERT_GE(steps.size(), 4u);
    EXPECT_EQ(Steps(steps.begin(), steps.begin() + 4),
              (Steps{"sync " + change + ".new", "rename " + change, "sync journal", "sync alpha%2F00000003.new"}));

    std::filesystem::remove_all(directory.File("journal"));
    steps.clear();
    Session next(directory.Path());
    EXPECT_EQ(Steps(steps.end() - 3, steps.end()), (Steps{"sync step.new", "rename step", "sync journal"}))
        << "last, when all is there";
}

// ---- What it refuses ----

TEST_F(FaultJournalTest, AFullDiskRefusesTheChange)
{
    const ChildResult child = RunInChild([&] {
        const std::string disk = directory.File("journal");
        CHILD_CHECK(mkdir(disk.c_str(), 0755) == 0);
        ChildNeeds(mount("none", disk.c_str(), "tmpfs", 0, "size=64k") == 0);
        {
            Session session(directory.Path());
            CHILD_CHECK(session.status == 0 && session.store.Put(Record(1)) == 0);
            const auto before = Files();
            CHILD_CHECK(session.store.Put(Record(1, "t", 200000)) == ErrorReporter::WRITING_TO_FILE);
            CHILD_CHECK(session.store.Put(Record(2, "t", 200000)) == ErrorReporter::WRITING_TO_FILE);
            CHILD_CHECK(Files() == before);
            int count = 0;
            while (session.store.SetState(Id(1), "working") == 0)
                count++;
            CHILD_CHECK(count > 1 && count < 100);
            CHILD_CHECK(session.store.Remove(Id(1)) == ErrorReporter::WRITING_TO_FILE);
            CHILD_CHECK(session.store.All().size() == 1);
            ExpectAgreement(session);
            CHILD_CHECK(session.journal.Remove(session.journal.Newest()) == 0);
            CHILD_CHECK(session.store.Remove(Id(1)) == 0); // there is room again
            CHILD_CHECK(session.journal.Newest() == count + 3);
        }
        CHILD_CHECK(Session(directory.Path()).status == 0 && !HasFailure());
        umount(disk.c_str());
    });
    if (child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no way to mount a file system here";
    EXPECT_EQ(child.exitCode, 0) << child.err;
}

TEST_F(FaultJournalTest, WhatNoAnswerCouldCarryIsRefused)
{
    Session session(directory.Path());
    const auto before = Files();
    const std::string report =
        Refusal([&] { return session.store.Put(Record(1, "t", 33 << 20)); }, ErrorReporter::INVALID_DATA);
    EXPECT_EQ(ReportField(report, "  Error Code= "), std::to_string(EFBIG) + " : File too large");
    EXPECT_TRUE(Files() == before);
}

TEST_F(FaultJournalTest, WhatTheStoreRefusesIsTakenBack)
{
    MakeTwo();
    Session session(directory.Path());
    const auto before = Files();
    for (const char* half : {"faults/alpha%2F00000001.new", "faults/alpha%2F00000003.new", "faults/list.new"})
        ASSERT_EQ(mkdir(directory.File(half).c_str(), 0755), 0);
    Refusal([&] { return session.store.Put(Record(3)); }, ErrorReporter::WRITING_TO_FILE);
    Refusal([&] { return session.store.Put(Record(1, "again")); }, ErrorReporter::WRITING_TO_FILE);
    Refusal([&] { return session.store.SetState(Id(1), "working"); }, ErrorReporter::WRITING_TO_FILE);
    steps.clear();
    Refusal([&] { return session.store.Remove(Id(2)); }, ErrorReporter::WRITING_TO_FILE);
    EXPECT_EQ(steps.back(), "sync journal") << "that it is gone lasts";
    EXPECT_TRUE(Files() == before);
    for (const char* half : {"faults/alpha%2F00000001.new", "faults/alpha%2F00000003.new", "faults/list.new"})
        rmdir(directory.File(half).c_str());
    EXPECT_EQ(session.store.Put(Record(3)), 0);
    EXPECT_EQ(Texts(ListOf(session.journal, 3)), "4 raised 3 new\n") << "no number is left out";
    ExpectAgreement(session);
}

TEST_F(FaultJournalTest, AFaultTooManyIsNotInTheJournal)
{
    const std::string faults = directory.File("faults");
    const ChildResult child = RunInChild([&] {
        CHILD_CHECK(mkdir(faults.c_str(), 0755) == 0);
        FaultIdList list((faults + "/list").c_str());
        for (int number = 1; number <= SHRT_MAX; number++)
            list.AddFaultId(Id(number));
        list.Save();
        Session session(directory.Path());
        CHILD_CHECK(session.status == 0 && session.journal.Newest() == SHRT_MAX + 1);
        CHILD_CHECK(session.store.Put(Record(0)) == ErrorReporter::TOO_MANY_FAULTS);
        CHILD_CHECK(session.store.Put(Record(1)) == 0); // which is there already
        CHILD_CHECK(session.journal.Newest() == SHRT_MAX + 2);
    });
    EXPECT_EQ(child.exitCode, 0) << child.err.substr(0, 1000);
}

TEST_F(FaultJournalTest, AnEntryThatCannotBeTakenBackIsGivenToNobody)
{
    MakeTwo();
    const ChildResult child = RunInChild([&] {
        Session session(directory.Path());
        CHILD_CHECK(mkdir(directory.File("faults/list.new").c_str(), 0755) == 0);
        unlinkRefuses = true;
        CHILD_CHECK(session.store.Put(Record(3)) == ErrorReporter::WRITING_TO_FILE);
        unlinkRefuses = false;
        CHILD_CHECK(rmdir(directory.File("faults/list.new").c_str()) == 0);
        CHILD_CHECK(std::filesystem::exists(Change(4)));
        CHILD_CHECK(Texts(ListOf(session.journal)) == TwoRaised && ListOf(session.journal).last == 3);
        CHILD_CHECK(session.store.Put(Record(5)) == ErrorReporter::WRITING_TO_FILE);
        CHILD_CHECK(session.store.Remove(Id(1)) == ErrorReporter::WRITING_TO_FILE);
        ExpectAgreement(session);
        CHILD_CHECK(session.journal.Remove(3) == 0); // that still goes
        CHILD_CHECK(Texts(ListOf(session.journal)) == "3 raised 2 new\n" && !HasFailure());
    });
    EXPECT_EQ(child.exitCode, 0) << child.err;
    EXPECT_EQ(CountOf(child.err, "takes no changes until the next start"), 1);
    Session session(directory.Path());
    EXPECT_EQ(Texts(ListOf(session.journal)), "3 raised 2 new\n4 raised 3 new\n");
    EXPECT_EQ(session.store.All().size(), 3u) << "it happened at the next start";
}

TEST_F(FaultJournalTest, AJournalThatCannotKnowWhatItsDiskHoldsTakesNoMore)
{
    MakeTwo();
    Session session(directory.Path());
    refusing = "journal";
    Refusal([&] { return session.store.Put(Record(3)); }, ErrorReporter::WRITING_TO_FILE);
    refusing.clear();
    EXPECT_EQ(session.store.All().size(), 2u);
    EXPECT_FALSE(std::filesystem::exists(Change(4)));
    Refusal([&] { return session.store.Put(Record(3)); }, ErrorReporter::WRITING_TO_FILE);
    ExpectAgreement(session);
    EXPECT_EQ(Started(), TwoRaised);
}

TEST_F(FaultJournalTest, AStoreThatCannotKnowWhatItsDiskHoldsLeavesTheChangeToTheNextStart)
{
    MakeTwo();
    const std::function<short(FaultStore&)> changes[] = {
        [](FaultStore& store) { return store.SetState(Id(1), "working"); },
        [](FaultStore& store) { return store.Put(Record(3)); }, [](FaultStore& store) { return store.Remove(Id(2)); }};
    long number = 3;
    for (const auto& change : changes) {
        {
            Session session(directory.Path());
            refusing = "faults";
            Refusal([&] { return change(session.store); }, ErrorReporter::WRITING_TO_FILE);
            refusing.clear();
            EXPECT_EQ(ListOf(session.journal).last, number);
            ExpectAgreement(session);
            Refusal([&] { return session.store.Put(Record(9)); }, ErrorReporter::WRITING_TO_FILE);
        }
        number++;
        Started();
    }
    EXPECT_EQ(Started(3), "4 moved 1 working\n5 raised 3 new\n6 cleared 2 \n");
}

// ---- What comes from others ----

template <class Object>
bool IsRead(const std::string& bytes)
{
    Buffer data;
    data.Append(bytes.data(), static_cast<unsigned>(bytes.size()));
    Object object;
    return Unpack(data, object);
}

TEST(FaultChangeTest, IsReadWholeOrNotAtAll)
{
    const std::string id = "7|5|alpha14|alpha/00000007";
    const std::string raised = id + "0|3|new4|text1|4|name5|value3|abc";
    EXPECT_TRUE(IsRead<FaultChange>("1|5|0|"));
    EXPECT_TRUE(IsRead<FaultChange>("1|5|1|" + raised));
    EXPECT_TRUE(IsRead<FaultChange>("1|5|2|" + id + "7|working"));
    EXPECT_TRUE(IsRead<FaultChange>("1|5|3|" + id));
    const std::string bad[] = {"",
                               "1|5|",
                               "1|5|x",
                               "0|5|0|",
                               "-1|5|0|",
                               "1|5|-1|",
                               "1|5|4|" + id,
                               "1|5|0|" + id,
                               "1|5|1|" + raised + "d",
                               "1|5|1|" + raised.substr(0, raised.size() - 1),
                               "1|5|2|" + id,
                               "1|5|2|" + id + "8|working",
                               "1|5|3|7|5|alpha14|alpha/00000008",
                               "1|5|3|" + id + "7|working"};
    for (const std::string& bytes : bad)
        EXPECT_FALSE(IsRead<FaultChange>(bytes)) << bytes;
    EXPECT_TRUE(IsRead<FaultChangeList>("4|name2|2|1|5|0|2|5|0|"));
    EXPECT_TRUE(IsRead<FaultChangeList>("4|name9|0|"));
    for (const char* bytes : {"4|name2|2|1|5|0|", "4|name2|2|2|5|0|1|5|0|", "4|name2|2|1|5|0|1|5|0|",
                              "4|name1|2|1|5|0|2|5|0|", "4|name-1|0|", "4|name2|-1|", "9|name2|0|"})
        EXPECT_FALSE(IsRead<FaultChangeList>(bytes)) << bytes;
    EXPECT_TRUE(IsRead<ChangesRequest>("0|1|"));
    for (const char* bytes : {"", "0|", "-1|1|", "0|0|", "0|-1|", "0|1|2|"})
        EXPECT_FALSE(IsRead<ChangesRequest>(bytes)) << bytes;
    EXPECT_TRUE(IsRead<ChangesDone>("0|"));
    for (const char* bytes : {"", "-1|", "x", "1|2|"})
        EXPECT_FALSE(IsRead<ChangesDone>(bytes)) << bytes;
}

} // namespace
