// SPDX-License-Identifier: BSD-2-Clause
// What a gate and a centre rely on in an engine of three servers, whose servers are killed and stopped.
#include <csignal>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fleet/cleaner.h"
#include "tests/system/fleet_testing.h"

using namespace fleet;
using namespace fleet_testing;

namespace {

class EngineClusterTest : public ::testing::Test {
protected:
    EngineClusterTest() : servers(3) {}
    void SetUp() override
    {
        if (EngineProgram().empty())
            GTEST_SKIP() << "nats-server is not installed";
        if (!InSandbox())
            GTEST_SKIP() << "needs a private /var and /opt/orv/bin";
        servers.StartAll();
        ASSERT_TRUE(servers.SetUp({"--replicas", "3"})) << servers.Log();
        ASSERT_TRUE(WaitUntil([&] { return servers.Leader() >= 0; }, 60)) << "all are in step";
    }
    // In a child, since the engine's client has threads.
    int WithEngine(const std::function<void(Engine&)>& body) const
    {
        const std::string urls = servers.Urls();
        return WaitForExit(StartChild([&] {
            EngineAddress address;
            address.servers = urls;
            address.name = "test";
            Engine engine(address);
            CHILD_CHECK(WaitUntil([&] { return engine.Connect(); }));
            body(engine);
        }));
    }

    EngineServers servers;
};

TEST_F(EngineClusterTest, WhatIsRemovedTakesNothingElseWithItWhenServersStartAgain)
{
    EXPECT_EQ(WithEngine([](Engine& engine) {
                  Buffer data;
                  CHILD_CHECK(engine.PublishOnce("fault.piece.quiet.j.1.0", "piece", 5) == Outcome::Done);
                  Cleaner cleaner(engine, 0);
                  Position quiet, busy;
                  quiet.journal = busy.journal = "j";
                  quiet.number = 1;
                  CHILD_CHECK(engine.Publish("quiet", data, &quiet) == Outcome::Done);
                  cleaner.Done("quiet", {1, quiet.sequence, 0});
                  for (busy.number = 1; busy.number <= 5; busy.number++) {
                      CHILD_CHECK(engine.Publish("busy", data, &busy) == Outcome::Done);
                      cleaner.Done("busy", {1, busy.sequence, 0});
                  }
                  CHILD_CHECK(engine.PublishOnce("fault.piece.busy.j.1.0", "piece", 5) == Outcome::Done);
                  CHILD_CHECK(cleaner.Remove("fault.piece.busy.j.1.*", 100));
                  cleaner.Run();
              }),
              0);
    for (int i = 0; i < 3; i++) {
        servers.End(i);
        servers.Start(i);
        ASSERT_TRUE(WaitUntil([&] { return servers.Leader() >= 0; }, 120)) << "all are in step";
    }
    std::vector<std::string> subjects;
    for (const Stored& stored : ReadStream(servers.Urls()))
        subjects.push_back(stored.subject + " " + std::to_string(stored.number));
    EXPECT_EQ(subjects,
              (std::vector<std::string>{"fault.piece.quiet.j.1.0 0", "fault.change.quiet 1", "fault.change.busy 5"}));
}

// The leader takes a message while it has nobody to agree with, and the gate tries again meanwhile.
TEST_F(EngineClusterTest, WhatWasUncertainIsSettledBeforeItIsTriedAgain)
{
    const int leader = servers.Leader();
    const pid_t others[] = {servers.Process((leader + 1) % 3), servers.Process((leader + 2) % 3)};
    const auto signal = [&](int number) {
        for (const pid_t other : others)
            kill(other, number);
    };
    EXPECT_EQ(WithEngine([&](Engine& engine) {
                  Buffer data;
                  Position position;
                  position.journal = "j";
                  position.number = 1;
                  CHILD_CHECK(engine.Publish("one", data, &position) == Outcome::Done);
                  signal(SIGSTOP);
                  Position uncertain = position;
                  uncertain.number = 2;
                  CHILD_CHECK(engine.Publish("one", data, &uncertain) == Outcome::Away);
                  signal(SIGCONT);
                  CHILD_CHECK(WaitUntil(
                      [&] {
                          Position last;
                          if (engine.Settle("one") != Outcome::Done ||
                              engine.Last("one", &last, &data) != Outcome::Done)
                              return false;
                          uncertain = position;
                          uncertain.number = 2;
                          return last.number == 2 || engine.Publish("one", data, &uncertain) == Outcome::Done;
                      },
                      60));
              }),
              0);
    signal(SIGCONT);
    int count = 0;
    for (const Stored& stored : ReadStream(servers.Urls()))
        count += stored.subject == "fault.change.one" && stored.number == 2;
    EXPECT_EQ(count, 1);
}

} // namespace
