// SPDX-License-Identifier: BSD-2-Clause
// Requests of centres, which the gate takes to its daemon: who may ask for what, and that nothing else gets through.
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "fleet/request.h"
#include "tests/system/faultgate_testing.h"

using namespace fleet_testing;

namespace {

const short Rejected = 81, Invalid = 22, Gone = 65, Missing = ErrorReporter::ITEM_DOES_NOT_EXIST;
const short NoAnswer = -1, Unreadable = -2;

std::string Text(const Buffer& data)
{
    return std::string(static_cast<const char*>(static_cast<const void*>(data)), data.Size());
}

class FaultgateRequestsTest : public FaultgateTest {
protected:
    void SetUp() override
    {
        FaultgateTest::SetUp();
        if (IsSkipped())
            return;
        WriteFile(NodesFile, "boss full\nreader read\nnobody none\n");
        StartEngine();
        StartDaemon();
        StartGate();
        ASSERT_EQ(Ctl({"raise", "alpha", "1", "one"}).exitCode, 0);
        id = FaultId(1, "alpha");
        ASSERT_EQ(natsConnection_ConnectTo(&connection, engine.Urls().c_str()), NATS_OK);
        ASSERT_TRUE(WaitUntil([&] { return Status("boss", ListEvent) == 0; })) << ReadFile(gateLog());
    }
    void TearDown() override
    {
        natsConnection_Destroy(connection);
        FaultgateTest::TearDown();
    }

    // What the gate answers to these bytes.
    short Send(const std::string& bytes, Buffer* answer = nullptr)
    {
        static int asked = 0;
        const std::string reply = "_INBOX.requests." + std::to_string(asked++);
        natsSubscription* answers = nullptr;
        natsConnection_SubscribeSync(&answers, connection, reply.c_str());
        natsConnection_PublishRequest(connection, fleet::RequestSubject(node).c_str(), reply.c_str(), bytes.data(),
                                      static_cast<int>(bytes.size()));
        fleet::AnswerParts parts;
        short failure = 0;
        for (natsMsg* message = nullptr; failure == 0 && !parts.IsWhole(); natsMsg_Destroy(message))
            if (natsSubscription_NextMsg(&message, answers, 20000) != NATS_OK)
                failure = NoAnswer;
            else if (!parts.Take(message))
                failure = Unreadable;
        natsSubscription_Destroy(answers);
        fleet::FleetAnswer read;
        if (failure != 0 || !parts.Read(&read))
            return failure != 0 ? failure : Unreadable;
        if (answer != nullptr)
            *answer = read.data;
        return read.status;
    }
    static std::string Packed(const std::string& centre, short event, const Buffer& data)
    {
        fleet::FleetRequest request;
        request.centre = centre.c_str();
        request.event = event;
        request.data = data;
        Buffer packed;
        Pack(request, packed);
        return Text(packed);
    }
    short Status(const std::string& centre, short event) { return Send(Packed(centre, event, Buffer())); }
    template <class Object>
    short Ask(const std::string& centre, short event, const Object& object, Buffer* answer = nullptr)
    {
        Buffer data;
        Pack(object, data);
        return Send(Packed(centre, event, data), answer);
    }
    // The process of the first gate that answers; 0: there is none.
    pid_t Responder() const
    {
        for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
            const std::string status = ReadFile(entry.path().string() + "/status");
            if (status.find("\nPPid:\t" + std::to_string(gates[0]) + "\n") != std::string::npos)
                return std::stoi(entry.path().filename());
        }
        return 0;
    }
    static bool HasEnded(pid_t process)
    {
        const std::string status = ReadFile("/proc/" + std::to_string(process) + "/stat");
        return status.empty() || status.find(") Z ") != std::string::npos;
    }

    natsConnection* connection = nullptr;
    FaultId id;
};

TEST_F(FaultgateRequestsTest, ACentreThatMayDoEverything)
{
    Buffer answer;
    FaultList list;
    EXPECT_EQ(Send(Packed("boss", ListEvent, Buffer()), &answer), 0);
    ASSERT_TRUE(Unpack(answer, list));
    ASSERT_EQ(list.faults.size(), 1u);
    EXPECT_EQ(std::string(list.faults[0].text), "one");
    FaultRecord record;
    EXPECT_EQ(Ask("boss", FetchEvent, id, &answer), 0);
    ASSERT_TRUE(Unpack(answer, record));
    EXPECT_EQ(record.summary.hdr.myId, id);
    CommandResult result;
    EXPECT_EQ(Ask("boss", RunEvent, FaultCommand{id, "echo $FAULT_NODE $FAULT_NUMBER; exit 3"}, &answer), 0);
    ASSERT_TRUE(Unpack(answer, result));
    EXPECT_EQ(Text(result.output), "alpha 1\n");
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_EQ(Ask("boss", MoveEvent, FaultMove{id, "working"}), 0);
    EXPECT_NE(Ctl({"list"}).out.find("\tworking\t"), std::string::npos);
    EXPECT_EQ(Ask("boss", ClearEvent, id), 0);
    EXPECT_EQ(Ctl({"list"}).out, "");
    EXPECT_EQ(Ask("boss", ClearEvent, id), Missing) << "the daemon's own answer";
    EXPECT_TRUE(AllPassedOn());
}

TEST_F(FaultgateRequestsTest, TheNodeListDecides)
{
    EXPECT_EQ(Status("reader", ListEvent), 0);
    EXPECT_EQ(Ask("reader", FetchEvent, id), 0);
    for (const char* centre : {"reader", "nobody", "stranger"}) {
        EXPECT_EQ(Ask(centre, RunEvent, FaultCommand{id, ("touch " + directory.File("ran")).c_str()}), Rejected);
        EXPECT_EQ(Ask(centre, MoveEvent, FaultMove{id, "working"}), Rejected);
        EXPECT_EQ(Ask(centre, ClearEvent, id), Rejected);
    }
    for (const char* centre : {"nobody", "stranger"}) {
        EXPECT_EQ(Status(centre, ListEvent), Rejected);
        EXPECT_EQ(Ask(centre, FetchEvent, id), Rejected);
    }
    EXPECT_EQ(access(directory.File("ran").c_str(), F_OK), -1);
    EXPECT_NE(Ctl({"list"}).out.find("\tnew\t"), std::string::npos);
}

TEST_F(FaultgateRequestsTest, NobodySpeaksInTheNameOfThisNode)
{
    EXPECT_EQ(Status(node, ListEvent), Rejected);
    EXPECT_EQ(Ask(node, ClearEvent, id), Rejected);
    EXPECT_EQ(Status("", ListEvent), Invalid);
    EXPECT_EQ(Status(std::string(80, 'n'), ListEvent), Invalid);
    EXPECT_EQ(Status("two words", ListEvent), Invalid);
    std::string request = Packed(node + "x", ListEvent, Buffer());
    request[request.find(node) + node.size()] = '\0'; // what some take for the end
    EXPECT_EQ(Send(request), Rejected);
    EXPECT_NE(Ctl({"list"}).out, "");
}

TEST_F(FaultgateRequestsTest, OtherEventsAreNotForCentres)
{
    FaultRecord fault;
    fault.summary.hdr.myId = id;
    EXPECT_EQ(Ask("boss", RaiseEvent, fault), Rejected);
    EXPECT_EQ(Ask("boss", ChangesDoneEvent, ChangesDone{1}), Rejected);
    EXPECT_EQ(Ask("boss", StartEvent, FaultCommand{id, "true"}), Rejected);
    for (const short event : {NoEvent, StatusEvent, ExitEvent, ChangesEvent, FaultEvents})
        EXPECT_EQ(Status("boss", event), Rejected) << event;
    for (const short event : {-1, 100, 32767, -32768})
        EXPECT_EQ(Status("boss", event), Rejected) << event;
}

TEST_F(FaultgateRequestsTest, DamagedRequestsAreAnswered)
{
    Buffer data;
    Pack(id, data);
    const std::string whole = Packed("boss", ClearEvent, data);
    for (std::size_t size = 0; size < whole.size(); size++)
        EXPECT_EQ(Send(whole.substr(0, size)), Invalid) << size;
    EXPECT_EQ(Send(whole + "x"), Invalid);
    for (const char* bytes : {"4|boss70000|0|", "4|boss-70000|0|", "4|boss5|-1|", "4|boss5|2147483647|", "-1|", "x",
                              "2147483647|boss", "4|boss5|99999999999|"})
        EXPECT_EQ(Send(bytes), Invalid) << bytes;
    EXPECT_EQ(Send(std::string(1000000, '\0')), Invalid);
    EXPECT_EQ(Ask("boss", ClearEvent, FaultList()), Invalid) << "the daemon's own answer";
    EXPECT_NE(Ctl({"list"}).out, "") << "none of these has cleared it";
    EXPECT_EQ(Send(whole), 0);
}

TEST_F(FaultgateRequestsTest, AnAnswerMayBeLargerThanAMessage)
{
    const std::string file = directory.File("large");
    std::string bytes;
    for (long i = 0; i < 3000000; i++)
        bytes += static_cast<char>(i * 7919 >> 8);
    for (const std::size_t size : {std::size_t(512 << 10), std::size_t(1 << 20), bytes.size()}) {
        WriteFile(file, bytes.substr(0, size));
        ASSERT_EQ(Ctl({"raise", "alpha", "2", "t", "--attach", file}).exitCode, 0);
        Buffer answer;
        FaultRecord fault;
        EXPECT_EQ(Ask("boss", FetchEvent, FaultId(2, "alpha"), &answer), 0);
        EXPECT_TRUE(Unpack(answer, fault));
        EXPECT_TRUE(Text(fault.attachment) == bytes.substr(0, size)) << size;
    }
    Buffer answer;
    CommandResult result;
    EXPECT_EQ(Ask("boss", RunEvent, FaultCommand{id, ("cat " + file).c_str()}, &answer), 0);
    EXPECT_TRUE(Unpack(answer, result));
    EXPECT_TRUE(Text(result.output) == bytes);
}

// Whoever may answer can send what he likes.
TEST_F(FaultgateRequestsTest, PartsThatAreNoneAreNotTaken)
{
    const auto take = [](fleet::AnswerParts& parts, const char* left, const std::string& bytes) {
        natsMsg* message = nullptr;
        natsMsg_Create(&message, "x", nullptr, bytes.data(), static_cast<int>(bytes.size()));
        if (*left != '\0')
            natsMsgHeader_Set(message, "Fault-Left", left);
        const bool isTaken = parts.Take(message);
        natsMsg_Destroy(message);
        return isTaken;
    };
    for (const char* wrong : {"", "x", "-1", "1x", " 1", "99999999999999999999"}) {
        fleet::AnswerParts parts;
        EXPECT_FALSE(take(parts, wrong, "bytes")) << wrong;
        EXPECT_FALSE(parts.IsWhole());
    }
    fleet::FleetAnswer answer;
    fleet::AnswerParts parts;
    EXPECT_TRUE(take(parts, "2", "bytes"));
    EXPECT_FALSE(take(parts, "2", "bytes")) << "again";
    EXPECT_FALSE(take(parts, "0", "bytes")) << "one is missing";
    EXPECT_TRUE(take(parts, "1", "bytes"));
    EXPECT_FALSE(parts.IsWhole());
    EXPECT_TRUE(take(parts, "0", "bytes"));
    EXPECT_TRUE(parts.IsWhole());
    EXPECT_FALSE(parts.Read(&answer));
    EXPECT_FALSE(take(parts, "0", "bytes")) << "behind the last";
    fleet::AnswerParts large;
    const std::string part(1 << 20, 'p');
    int taken = 0;
    while (taken < 1000 && take(large, std::to_string(1000 - taken).c_str(), part))
        taken++;
    EXPECT_EQ(taken, 64);
}

TEST_F(FaultgateRequestsTest, WhatIsAwayIsSaid)
{
    EXPECT_TRUE(AllPassedOn());
    EndDaemon(SIGTERM);
    EXPECT_EQ(Status("boss", ListEvent), Gone);
    StartDaemon();
    EXPECT_EQ(Status("boss", ListEvent), 0);
}

TEST_F(FaultgateRequestsTest, OfTwoGatesOneActs)
{
    StartGate(1);
    const std::string file = directory.File("ran");
    const pid_t first = Responder();
    ASSERT_GT(first, 0);
    EndChild(gates[0], SIGKILL);
    ASSERT_TRUE(WaitUntil([&] { return HasEnded(first); }));
    ASSERT_TRUE(WaitUntil([&] { return Status("boss", ListEvent) == 0; })) << "the second one takes requests";
    StartGate(0);
    ASSERT_TRUE(WaitUntil([&] { return Responder() > 0; }));
    for (int i = 0; i < 10; i++)
        EXPECT_EQ(Ask("boss", RunEvent, FaultCommand{id, ("echo x >>" + file).c_str()}), 0);
    EXPECT_EQ(ReadFile(file).size(), 20u);
}

TEST_F(FaultgateRequestsTest, ARequestDoesNotHoldTheChangesUp)
{
    const pid_t responder = Responder();
    ASSERT_GT(responder, 0);
    kill(responder, SIGSTOP); // as busy as can be
    for (const char* number : {"2", "3"})
        ASSERT_EQ(Ctl({"raise", "alpha", number, "t"}).exitCode, 0);
    EXPECT_TRUE(AllPassedOn());
    ExpectAgreement();
    kill(responder, SIGCONT);
    Buffer answer;
    CommandResult result;
    EXPECT_EQ(Ask("boss", RunEvent, FaultCommand{id, "sleep 2; echo done"}, &answer), 0) << "a long one is waited for";
    ASSERT_TRUE(Unpack(answer, result));
    EXPECT_EQ(Text(result.output), "done\n");
}

TEST_F(FaultgateRequestsTest, BothProcessesEndTogether)
{
    const pid_t responder = Responder();
    ASSERT_GT(responder, 0);
    EXPECT_EQ(EndChild(gates[0], SIGKILL), 128 + SIGKILL);
    EXPECT_TRUE(WaitUntil([&] { return HasEnded(responder); }));
    for (const int signal : {SIGKILL, SIGTERM}) {
        StartGate();
        ASSERT_TRUE(WaitUntil([&] { return Responder() > 0; }));
        const pid_t other = Responder();
        ASSERT_GT(other, 0);
        kill(other, signal);
        EXPECT_EQ(WaitForExit(gates[0]), 1);
        EXPECT_EQ(ReadFile(gateLog()), "faultgate: the process that answers requests has ended\n");
    }
    StartGate();
    ASSERT_TRUE(WaitUntil([&] { return Responder() > 0; }));
    const pid_t last = Responder();
    ASSERT_TRUE(WaitUntil([&] { return Status("boss", ListEvent) == 0; }));
    EXPECT_EQ(EndChild(gates[0], SIGTERM), 0);
    EXPECT_TRUE(HasEnded(last));
    gates.clear();
}

TEST_F(FaultgateRequestsTest, GoesOnWhenTheEngineDoes)
{
    engine.End();
    engine.Start();
    EXPECT_TRUE(WaitUntil([&] { return Status("boss", ListEvent) == 0; }));
}

} // namespace
