// SPDX-License-Identifier: BSD-2-Clause
// What the tests of the example's journal share: a journal with its store, and a host that refuses, or ends the process,
// where a test wants it.
#ifndef TESTS_SYSTEM_FAULTJOURNAL_TESTING_H
#define TESTS_SYSTEM_FAULTJOURNAL_TESTING_H

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "examples/journaledstore.h"
#include "tests/support/testing.h"
#include "tests/system/faultjournal_replay.h"

namespace faultjournal_testing {

using namespace testing_support;

extern std::vector<std::string> steps; // what reached the disk, in order: "sync FILE", "rename FILE", "unlink FILE"
extern int stepsToLive;                // behind so many of them the process is killed
extern std::string refusing;           // the directory whose names cannot be put on the disk
extern bool unlinkRefuses;

inline std::string NameOf(const std::string& path) { return std::filesystem::path(path).filename(); }

inline FaultId Id(long number) { return FaultId(number, "alpha"); }

inline FaultRecord Record(long number, const char* text = "t", unsigned attached = 0)
{
    FaultRecord fault;
    fault.summary.hdr.myId = Id(number);
    fault.summary.raised = 1000;
    fault.summary.state = FirstFaultState;
    fault.summary.text = text;
    fault.summary.options.AddItem(new Option("rack", "7"));
    if (attached > 0) {
        fault.attachment.ReSize(attached);
        std::fill_n(&fault.attachment[0], attached, 'a');
        fault.summary.attached = static_cast<int>(attached);
    }
    return fault;
}

// A daemon's faults with their journal, from its start on.
class Session {
public:
    explicit Session(const std::string& directory)
        : journal((directory + "/journal").c_str()), store((directory + "/faults").c_str(), journal),
          status(store.Load())
    {
    }

    FaultJournal journal;
    JournaledStore store;
    const short status;
};

inline Faults FaultsOf(const FaultStore& store)
{
    Faults faults;
    for (const auto& entry : store.All())
        faults[static_cast<const char*>(entry.first)] = Packed(entry.second);
    return faults;
}

inline FaultChangeList ListOf(const FaultJournal& journal, long since = 0, int most = 1000)
{
    FaultChangeList list;
    EXPECT_EQ(journal.List({since, most}, list), 0);
    return list;
}

// "number kind id state" of each change.
inline std::string Texts(const FaultChangeList& list)
{
    static const char* const kinds[] = {"began", "raised", "moved", "cleared"};
    std::string texts;
    for (const FaultChange& change : list.changes)
        texts += std::to_string(change.number) + " " + kinds[change.kind] + " " +
                 std::to_string(change.fault.summary.hdr.myId.GetId()) + " " +
                 static_cast<const char*>(change.fault.summary.state) + "\n";
    return texts;
}

const char TwoRaised[] = "1 began 0 \n2 raised 1 new\n3 raised 2 new\n";

class FaultJournalTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (!InSandbox())
            GTEST_SKIP() << "needs namespaces";
    }
    void TearDown() override { refusing.clear(); }

    // Makes a journal of two faults: changes 1 to 3.
    void MakeTwo() const
    {
        Session session(directory.Path());
        ASSERT_EQ(session.status, 0);
        ASSERT_EQ(session.store.Put(Record(1)), 0);
        ASSERT_EQ(session.store.Put(Record(2)), 0);
        steps.clear();
    }
    std::string Change(long number) const
    {
        const std::string digits = std::to_string(number);
        return directory.File("journal/" + std::string(20 - digits.size(), '0') + digits);
    }
    // The files of journal and store by their names.
    std::map<std::string, std::string> Files() const
    {
        std::map<std::string, std::string> files;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(directory.Path()))
            if (entry.is_regular_file())
                files[entry.path()] = ReadFile(entry.path());
        return files;
    }
    // What a new start finds: that the changes make the faults is expected. The changes beyond `since`.
    std::string Started(long since = 0) const
    {
        Session session(directory.Path());
        EXPECT_EQ(session.status, 0);
        ExpectAgreement(session);
        return Texts(ListOf(session.journal, since));
    }
    static void ExpectAgreement(const Session& session)
    {
        Replay replay;
        FaultChangeList list = ListOf(session.journal);
        for (; !list.changes.empty(); list = ListOf(session.journal, replay.last)) {
            EXPECT_TRUE(replay.Add(list));
        }
        EXPECT_TRUE(replay.faults == FaultsOf(session.store)) << Texts(ListOf(session.journal));
        EXPECT_EQ(replay.last, list.last);
    }
    // What fails, and is told in a report.
    static std::string Refusal(const std::function<short()>& body, short expected)
    {
        return CaptureStderr([&] { EXPECT_EQ(body(), expected); });
    }

    const TemporaryDirectory directory = TemporaryDirectory("/dev/shm");
};

} // namespace faultjournal_testing

#endif
