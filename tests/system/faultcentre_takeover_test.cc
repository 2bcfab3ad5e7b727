// SPDX-License-Identifier: BSD-2-Clause
// One applier goes on where another has ended, wherever that was, and whatever happens to the engine.
#include <random>
#include <string>

#include "Misc/Dates.h"
#include "fleet/message.h"
#include "tests/system/applier_testing.h"

using namespace centre_testing;
using namespace fleet;

namespace {

class TakeoverTest : public ApplierTest {
protected:
    /// Puts so many faults of other hosts into the bucket, as older changes have made them. Returns what ExpectFaults
    /// has of them.
    static std::string Fill(int faults)
    {
        return AskEngine([=](Engine& connection) {
            BulkWriter writer(connection);
            std::vector<std::string> values;
            std::map<std::string, std::string> lines; // by subject
            std::vector<Write> writes(static_cast<std::size_t>(faults));
            for (int i = 0; i < faults; i++) {
                FleetFault fault;
                fault.place = {1, static_cast<uint64_t>(i + 1), 1};
                fault.journal = "j";
                fault.raised = i + 1;
                fault.last.node = ("filled" + std::to_string(i % 50)).c_str();
                Write& write = writes[static_cast<std::size_t>(i)];
                values.push_back(Value(fault, FaultId(i, "alpha"), &write));
                lines[write.subject] = LineOf(std::string(fault.last.node), fault.last.fault);
            }
            for (std::size_t i = 0; i < values.size(); i++) {
                writes[i].bytes = values[i].data();
                writes[i].size = values[i].size();
            }
            CHILD_CHECK(writer.Store(writes) == Outcome::Done);
            std::string all;
            for (const auto& line : lines)
                all += line.second;
            return all;
        });
    }
    /// The value of a fault, and where it is to be stored.
    static std::string Value(FleetFault& fault, const FaultId& id, Write* write)
    {
        fault.last.fault.hdr.myId = id;
        fault.last.fault.state = FirstFaultState;
        fault.last.fault.text = "text";
        write->subject = KeySubject(FaultBucket, FaultKey(std::string(fault.last.node), static_cast<const char*>(id)));
        Buffer data;
        Pack(fault, data);
        return std::string(static_cast<const char*>(static_cast<const void*>(data)), data.Size());
    }
    /// Waits until it has stopped in its reading of the bucket.
    bool HasStopped(int i) const
    {
        return WaitUntil([&] {
            return ReadFile("/proc/" + std::to_string(appliers[i]) + "/stat").find(") T ") != std::string::npos;
        });
    }
    /// Stores a message of a host with one change.
    static void Publish(const std::string& host, FaultChange::Kind kind, long number, long fault = 0)
    {
        AskEngine([=](Engine& connection) {
            Position position;
            Buffer data;
            const Outcome known = connection.Last(host, &position, &data);
            CHILD_CHECK(known == Outcome::Done || known == Outcome::Nothing);
            FaultChange change;
            change.number = number;
            change.kind = kind;
            change.fault.summary.hdr.myId = FaultId(fault, "alpha");
            change.fault.summary.state = FirstFaultState;
            change.fault.summary.text = "text";
            data.PurgeContents();
            PackChange(change, data);
            position.journal = "j";
            position.number = number;
            CHILD_CHECK(connection.Publish(host, data, &position) == Outcome::Done);
            return std::string();
        });
    }
    static std::string Line(const std::string& host, long fault)
    {
        FaultSummary summary;
        summary.hdr.myId = FaultId(fault, "alpha");
        summary.state = FirstFaultState;
        summary.text = "text";
        return LineOf(host, summary);
    }
};

TEST_F(TakeoverTest, KilledWhileItReadsTheBucketTheNextBeginsAnew)
{
    const std::string filled = Fill(3500);
    StartHosts(40, 0);
    const std::string expected = filled + Expected(); // "filled" is before "host"
    for (int i = 0; i < 2; i++) {
        shared->stopAfter[i] = i + 2;
        StartApplier(i);
        ASSERT_TRUE(HasStopped(i));
        EXPECT_TRUE(FaultsInBucket() == filled) << "nothing is applied before all is known";
        EndApplier(i);
    }
    StartApplier(2);
    ExpectFaults(expected);
    EXPECT_GE(shared->looks[2], 4);
}

// While the bucket is read, and when all is read and nothing applied.
TEST_F(TakeoverTest, OneThatWasStoppedLearnsWhatAnotherHasDoneMeanwhile)
{
    const std::string filled = Fill(2500);
    unsigned seed = 1;
    for (const int looks : {2, 3}) {
        StartHosts(30, 0, seed++);
        const std::string before = Expected();
        shared->stopAfter[0] = looks;
        StartApplier(0);
        ASSERT_TRUE(HasStopped(0));
        StartApplier(1);
        ExpectFaults(filled + before);
        const long runs = shared->runs[0];
        kill(appliers[0], SIGCONT);
        EXPECT_TRUE(WaitUntil([&] { return shared->runs[0] > runs + 1; }));
        EndApplier(1);
        EXPECT_TRUE(OneIsActive());
        StartHosts(1, 0, seed++); // of the same names: what was there before is gone
        ExpectFaults(filled + Expected());
        EndApplier(0);
    }
}

// As when two believe to have the lease: what another one has stored is found when the same is to be stored.
TEST_F(TakeoverTest, ItReadsAgainWhatAnotherHasStored)
{
    ASSERT_TRUE(engine.SetUp({"--lease", "60"})); // it keeps it
    StartApplier(0);
    Publish("h", FaultChange::Began, 1);
    Publish("h", FaultChange::Raised, 2, 1);
    ExpectFaults(Line("h", 1));
    kill(appliers[0], SIGSTOP);
    Publish("h", FaultChange::Raised, 3, 2);
    AskEngine([](Engine& connection) { // that has been stored, and what message 4 will bring, and that this was applied
        Write place, write;
        std::string value;
        CHILD_CHECK(Get(connection, FaultBucket, "applied", &value, &place.expected) == Outcome::Done);
        for (const long number : {3, 4}) {
            FleetFault fault;
            fault.place = {std::stoll(value), static_cast<uint64_t>(number), number};
            fault.journal = "j";
            fault.raised = number;
            fault.last.node = number == 3 ? "h" : "i";
            const std::string bytes = Value(fault, FaultId(number - 1, "alpha"), &write);
            write.bytes = bytes.data();
            write.size = bytes.size();
            CHILD_CHECK(Store(connection, write) == Outcome::Done);
        }
        place.subject = KeySubject(FaultBucket, "applied");
        value = value.substr(0, value.find(' ')) + " 4";
        place.bytes = value.data();
        place.size = value.size();
        CHILD_CHECK(Store(connection, place) == Outcome::Done);
        return std::string();
    });
    kill(appliers[0], SIGCONT);
    const long runs = shared->runs[0];
    EXPECT_TRUE(WaitUntil([&] { return shared->runs[0] > runs + 3; })); // it has been refused
    Publish("i", FaultChange::Raised, 4, 3);
    Publish("h", FaultChange::Raised, 5, 4);
    ExpectFaults(Line("h", 1) + Line("h", 2) + Line("h", 4) + Line("i", 3));
    Publish("h", FaultChange::Began, 6);
    Publish("i", FaultChange::Began, 7);
    ExpectFaults("");
}

TEST_F(TakeoverTest, KilledAtRandomWithTheEngineItAgreesWithTheHosts)
{
    const int messages = 200;
    for (int i = 0; i < Most; i++)
        StartApplier(i);
    StartHosts(messages, 2000);
    std::mt19937 random(3);
    int kills = 0, stops = 0, restarts = 0;
    for (int stored = 0; stored < messages * Hosts && !HasFailure(); stored = shared->stored) {
        usleep(random() % 200000);
        const int victim = static_cast<int>(random() % Most);
        switch (random() % 6) {
        case 0:
            engine.End();
            usleep(random() % 200000);
            engine.Start();
            restarts++;
            break;
        case 1:
            kill(appliers[victim], SIGSTOP);
            usleep(1000000 + random() % 500000);
            kill(appliers[victim], SIGCONT);
            stops++;
            break;
        default:
            EndApplier(victim);
            StartApplier(victim);
            kills++;
        }
    }
    EXPECT_GT(kills + stops + restarts, 5);
    const std::string expected = Expected();
    ExpectFaults(expected);
    ExpectTrimmed(Attachments(expected));
}

} // namespace
