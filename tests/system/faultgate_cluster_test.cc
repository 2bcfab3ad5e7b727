// SPDX-License-Identifier: BSD-2-Clause
// What a gate and a centre rely on in an engine of three servers, whose servers are killed.
#include <functional>
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
                  CHILD_CHECK(engine.PublishPiece("fault.piece.quiet.j.1.0", "piece", 5) == Outcome::Done);
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
                  CHILD_CHECK(engine.PublishPiece("fault.piece.busy.j.1.0", "piece", 5) == Outcome::Done);
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

} // namespace
