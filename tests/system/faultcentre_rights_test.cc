// SPDX-License-Identifier: BSD-2-Clause
// A centre and a gate that show credentials, and that a gate's is not good for the faults of the fleet.
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "Misc/proginfo.h"
#include "tests/system/client_testing.h"
#include "tests/system/hosts_testing.h"

using namespace centre_testing;

namespace {

class FaultcentreRightsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!InSandbox())
            GTEST_SKIP() << "needs namespaces";
        if (EngineProgram().empty())
            GTEST_SKIP() << "needs nats-server";
        if (RunProgram("/usr/bin/env", {"openssl", "version"}).exitCode != 0)
            GTEST_SKIP() << "needs openssl";
        static char name[] = "faultcentre_rights_test";
        static char* argv[] = {name, nullptr};
        ProgInfo::Initialize(1, argv, argv + 1, "1.0");
        credentials = std::make_unique<Credentials>();
        credentials->Make({"centre", "north"});
        credentials->Make({"node", "alpha"});
        engine.Configure(credentials->Configuration());
        engine.Start();
        ASSERT_TRUE(engine.SetUp({"--credentials", credentials->Operator()})) << engine.Log();
    }

    std::unique_ptr<Credentials> credentials;
    EngineServers engine;
};

TEST_F(FaultcentreRightsTest, ACentreDoesItsWork)
{
    Host alpha("alpha"), north("north");
    const TemporaryDirectory directory;
    std::string bytes;
    for (long i = 0; i < 3000000; i++)
        bytes += static_cast<char>(i * 7919 >> 8);
    WriteFile(directory.File("large"), bytes);
    alpha.Write("/var/orv/data/orvnodes.dat", "north full\n");
    alpha.Start(Faultd, {"--foreground", "--journal"});
    alpha.Start(Faultgate, {"--engine", engine.Urls(), "--credentials", credentials->Place("node-alpha")});
    StartCentre(north, {"--engine", engine.Urls(), "--credentials", credentials->Place("centre-north")});
    const std::string seen = directory.File("seen");
    north.Start("/bin/sh", {"-c", "exec " + Faultctl + " --centre watch >" + seen});
    ASSERT_TRUE(WaitUntil([&] { return alpha.Ctl({"list"}).exitCode == 0; })) << ReadFile(alpha.Log());
    const std::string line = "alpha\tx/00000001\t<time>\tnew\t3000000\tone\n";
    std::string listed;
    EXPECT_TRUE(WaitUntil([&] { // the watch looks from when it begins on
        alpha.Ctl({"raise", "x", "1", "one", "--attach", directory.File("large")});
        return (listed = north.Centre({"list"})) == line &&
               ReadFile(seen).find("\traised\tx/00000001") != std::string::npos;
    })) << listed
        << ReadFile(alpha.Log()) << ReadFile(north.Log());
    EXPECT_EQ(north.Centre({"show", "alpha", "x", "1", "--save", directory.File("saved")}),
              WithoutTimes(alpha.Ctl({"show", "x", "1"}).out));
    EXPECT_TRUE(ReadFile(directory.File("saved")) == bytes);
    EXPECT_EQ(north.Centre({"run", "alpha", "x", "1", "uname -n"}), "alpha\n");
    EXPECT_EQ(north.Centre({"move", "alpha", "x", "1", "working"}), "");
    EXPECT_EQ(north.Centre({"clear", "alpha", "x", "1"}), "");
    EXPECT_TRUE(WaitUntil([&] { return north.Centre({"list"}).empty(); }));
    EXPECT_TRUE(WaitUntil([&] { return CountOf(ReadFile(seen), "\tcleared\tx/00000001") == 1; }));
    const auto pieces = [&] { // the attachment goes with the fault
        int count = 0;
        for (const Stored& stored : ReadStream(engine.Urls(), credentials->Operator()))
            count += stored.subject.find("fault.piece.") == 0;
        return count;
    };
    EXPECT_TRUE(WaitUntil([&] { return pieces() == 0; }));
    EXPECT_EQ(CountOf(engine.Log(), "Violation"), 0) << engine.Log();
}

TEST_F(FaultcentreRightsTest, ANodeMayNotReadNorWriteTheFaultsOfTheFleet)
{
    const std::string node = credentials->Place("node-alpha");
    for (const std::string bucket : {"faults", "centre"}) {
        const std::string key = "$KV." + bucket + ".fault.alpha.x", stream = "KV_" + bucket;
        for (const std::string& subject :
             {key, "$JS.API.DIRECT.GET." + stream, "$JS.API.DIRECT.GET." + stream + "." + key,
              "$JS.API.STREAM.MSG.GET." + stream, "$JS.API.STREAM.INFO." + stream, "$JS.API.STREAM.PURGE." + stream,
              "$JS.API.STREAM.MSG.DELETE." + stream, "$JS.API.CONSUMER.CREATE." + stream,
              "$JS.API.CONSUMER.DURABLE.CREATE." + stream + ".mine"})
            EXPECT_FALSE(Client(engine.Urls(), node).MayPublish(subject)) << subject;
        EXPECT_FALSE(Client(engine.Urls(), node).MaySubscribe("$KV." + bucket + ".>")) << bucket;
        EXPECT_TRUE(Client(engine.Urls(), credentials->Operator()).MayPublish(key)) << "who may, can";
    }
}

} // namespace
