// SPDX-License-Identifier: BSD-2-Clause
// Who gets into the engine, and what a node's credential is good for: by trying.
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/proginfo.h"
#include "tests/system/client_testing.h"

using namespace fleet_testing;

namespace {

class FaultgateRightsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        static char name[] = "faultgate_rights_test";
        static char* argv[] = {name, nullptr};
        if (EngineProgram().empty())
            GTEST_SKIP() << "nats-server is not installed";
        if (RunProgram("/usr/bin/env", {"openssl", "version"}).exitCode != 0)
            GTEST_SKIP() << "openssl is not installed";
        if (!InSandbox())
            GTEST_SKIP() << "needs a private /var and /opt/orv/bin";
        ProgInfo::Initialize(1, argv, argv + 1, FaultVersion);
        MakeKeyFile(FaultServerName);
        node = ProgInfo::GetNodeName();
        Make({"centre", "c1"});
        Make({"node", "one"});
        Make({"node", "two"});
        Make({"node", node});
        engine.Configure(credentials.Configuration());
        engine.Start();
        ASSERT_TRUE(engine.SetUp({"--credentials", Place("operator-main")})) << engine.Log();
    }

    std::string Place(const std::string& name) const { return credentials.Place(name); }
    void Make(const std::vector<std::string>& arguments) const { credentials.Make(arguments); }
    ChildResult Run(const std::string& place, std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), place);
        return RunProgram(CREDENTIALS, arguments);
    }
    bool GetsIn(const std::string& credentials) const { return Client(engine.Urls(), credentials).IsIn(); }
    ChildResult Gate(const std::string& credentials) const
    {
        return RunProgram(Faultgate, {"--engine", engine.Urls(), "--credentials", credentials, "--once"});
    }

    // What a new account uses of another works from the next reading on only.
    void ReloadForNewNodes()
    {
        for (int i = 0; i < 2; i++)
            EXPECT_TRUE(engine.Reload()) << engine.Log();
    }

    TemporaryDirectory directory;
    Credentials credentials;
    EngineServers engine;
    std::string node;
};

TEST_F(FaultgateRightsTest, AGateDoesItsWork)
{
    for (const char* path : {"/var/orv/data/journal", "/var/orv/data/faults"})
        std::filesystem::remove_all(path);
    MakeKeyFile(FaultServerName);
    const std::string attached = directory.File("attached");
    WriteFile(attached, std::string(600000, 'a'));
    const pid_t daemon = StartProgram(Faultd, {"--foreground", "--journal"}, directory.File("faultd.log"));
    EXPECT_TRUE(WaitUntil([] { return RunProgram(Faultctl, {"list"}).exitCode == 0; }));
    RunProgram(Faultctl, {"raise", "alpha", "1", "t", "--attach", attached});
    for (int i = 0; i < 2; i++) {
        const ChildResult passed = Gate(Place("node-" + node));
        EXPECT_EQ(passed.exitCode, 0) << passed.err << engine.Log();
        RunProgram(Faultctl, {"move", "alpha", "1", "working"});
    }
    const History history = ReadHistory(engine.Urls(), node, Place("operator-main"));
    EXPECT_EQ(history.changes.size(), 3u);
    EXPECT_NE(Gate(Place("node-one")).exitCode, 0) << "with the name of another";
    EXPECT_EQ(EndChild(daemon, SIGTERM), 0);
}

TEST_F(FaultgateRightsTest, ANodeMayDoNothingElse)
{
    for (const char* subject : {"fault.change.two",
                                "fault.piece.two.j.1.0",
                                "fault.request.one",
                                "fault.request.two",
                                "$JS.API.DIRECT.GET.FAULTS",
                                "$JS.API.DIRECT.GET.FAULTS.fault.change.two",
                                "$JS.API.STREAM.MSG.GET.FAULTS",
                                "$JS.API.CONSUMER.CREATE.FAULTS",
                                "$JS.API.CONSUMER.DURABLE.CREATE.FAULTS.mine",
                                "$JS.API.CONSUMER.MSG.NEXT.FAULTS.applier",
                                "$JS.ACK.FAULTS.applier.1.1.1.1.1",
                                "$JS.API.STREAM.PURGE.FAULTS",
                                "$JS.API.STREAM.DELETE.FAULTS",
                                "$JS.API.STREAM.UPDATE.FAULTS",
                                "$JS.API.STREAM.CREATE.MINE",
                                "$JS.API.STREAM.INFO.FAULTS",
                                "$JS.API.STREAM.NAMES",
                                "$JS.API.INFO",
                                "$KV.faults.fault.one.x",
                                "_INBOX.x",
                                "_INBOX_two.x",
                                "$SYS.REQ.SERVER.PING",
                                "other"})
        EXPECT_FALSE(Client(engine.Urls(), Place("node-one")).MayPublish(subject)) << subject;
    for (const char* subject : {">", "*.>", "fault.>", "fault.change.*", "fault.change.two", "fault.request.*",
                                "fault.request.two", "$KV.>", "$JS.>", "_INBOX.>", "_INBOX_two.>", "$SYS.>"}) {
        EXPECT_FALSE(Client(engine.Urls(), Place("node-one")).MaySubscribe(subject)) << subject;
        EXPECT_FALSE(Client(engine.Urls(), Place("node-one")).MaySubscribe(subject, "group")) << subject;
    }
    EXPECT_TRUE(ReadStream(engine.Urls(), Place("operator-main")).empty()) << "nothing has come through";
    for (const char* subject : {"fault.change.one", "fault.piece.one.j.1.0"})
        EXPECT_TRUE(Client(engine.Urls(), Place("node-one")).MayPublish(subject)) << subject;
    for (const char* subject : {"fault.request.one", "_INBOX_one.x"})
        EXPECT_TRUE(Client(engine.Urls(), Place("node-one")).MaySubscribe(subject)) << subject;
}

// Who asks chooses where the answer goes, and what it says: that must not be a way around.
TEST_F(FaultgateRightsTest, AnswersDoNotGoToOthers)
{
    Client one(engine.Urls(), Place("node-one")), two(engine.Urls(), Place("node-two"));
    Client centre(engine.Urls(), Place("centre-c1"), "_INBOX_c1");
    const std::string get = "$JS.API.DIRECT.GET.FAULTS.fault.change.one";
    ASSERT_TRUE(two.MaySubscribe("fault.request.two"));
    ASSERT_TRUE(centre.MaySubscribe("_INBOX_c1.x"));
    for (const char* subject :
         {"fault.change.two", "fault.request.two", "_INBOX_c1.x", "$JS.API.STREAM.PURGE.FAULTS"}) {
        one.Publish("fault.change.one", subject, "forged");
        one.Publish(get, subject, "");
    }
    EXPECT_TRUE(WaitUntil([&] { return ReadStream(engine.Urls(), Place("operator-main")).size() >= 4; }));
    EXPECT_EQ(centre.Objection() + two.Objection(), "");
    const std::vector<Stored> stored = ReadStream(engine.Urls(), Place("operator-main"));
    EXPECT_EQ(stored.size(), 4u);
    for (const Stored& message : stored)
        EXPECT_EQ(message.subject, "fault.change.one");
    EXPECT_EQ(two.Waiting(), 0);
    EXPECT_EQ(centre.Waiting(), 0);
}

TEST_F(FaultgateRightsTest, ACentreAsksANode)
{
    Client one(engine.Urls(), Place("node-one"));
    ASSERT_TRUE(one.MaySubscribe("fault.request.one"));
    const pid_t asking = StartChild([&] {
        const Client centre(engine.Urls(), Place("centre-c1"), "_INBOX_c1");
        _exit(centre.Request("fault.request.one", "question") == "answer" ? 0 : 1);
    });
    EXPECT_TRUE(one.Answer("answer")) << one.Objection();
    EXPECT_EQ(WaitForExit(asking), 0);
    for (const char* subject : {"fault.change.one", "fault.piece.one.j.1.0", "$JS.API.STREAM.DELETE.FAULTS",
                                "$JS.API.STREAM.CREATE.MINE", "$JS.API.STREAM.UPDATE.FAULTS"})
        EXPECT_FALSE(Client(engine.Urls(), Place("centre-c1")).MayPublish(subject)) << subject;
}

TEST_F(FaultgateRightsTest, WhoGetsIn)
{
    EXPECT_TRUE(GetsIn(Place("node-one")));
    EXPECT_FALSE(GetsIn("")) << "without a certificate";
    EXPECT_FALSE(GetsIn(directory.File("none")));
    const std::string other = directory.File("other");
    ASSERT_EQ(Run(other, {"authority"}).exitCode, 0);
    ASSERT_EQ(Run(other, {"node", "one"}).exitCode, 0);
    EXPECT_FALSE(GetsIn(other + "/node-one")) << "of another authority";
    const std::string engineAsClient = directory.File("engine-as-client");
    std::filesystem::create_directory(engineAsClient);
    for (const char* kind : {"crt", "key"})
        std::filesystem::copy_file(Place("engine-127.0.0.1/engine.") + kind, engineAsClient + "/client." + kind);
    EXPECT_FALSE(GetsIn(engineAsClient));
}

TEST_F(FaultgateRightsTest, WhoIsRevokedIsOut)
{
    const std::string copy = directory.File("copy");
    std::filesystem::copy(Place("node-one"), copy);
    const Client one(engine.Urls(), Place("node-one")), two(engine.Urls(), Place("node-two"));
    ASSERT_TRUE(one.IsIn());
    ASSERT_TRUE(two.IsIn());
    Make({"revoke", "node", "one"});
    EXPECT_FALSE(std::filesystem::exists(Place("node-one")));
    ASSERT_TRUE(engine.Reload()) << engine.Log();
    EXPECT_TRUE(WaitUntil([&] { return one.IsClosed(); })) << "what is connected ends";
    EXPECT_FALSE(GetsIn(copy));
    EXPECT_TRUE(two.IsIn()) << "others don't notice";
    Make({"node", "one"});
    Make({"node", "three"});
    ReloadForNewNodes();
    EXPECT_TRUE(GetsIn(Place("node-one")));
    EXPECT_NE(Client(engine.Urls(), Place("node-three"), "_INBOX_three").Request("fault.change.three", "x"), "");
    EXPECT_NE(Client(engine.Urls(), Place("node-one"), "_INBOX_one").Request("fault.change.one", "x"), "");
    EXPECT_FALSE(GetsIn(copy)) << "the earlier one does not come back";
    EXPECT_TRUE(two.IsIn());
    const std::string list = Run(credentials.Place(), {"list"}).out;
    EXPECT_EQ(CountOf(list, "node one node.one."), 1) << list;
    EXPECT_EQ(Run(credentials.Place(), {"revoke", "node", "four"}).err, "credentials: no node of that name: four\n");
}

// The client library gives a connection up when it is refused twice.
TEST_F(FaultgateRightsTest, AGateThatIsLetInAgainGoesOn)
{
    const std::string log = directory.File("gate.log");
    const pid_t gate =
        StartProgram(Faultgate, {"--engine", engine.Urls(), "--credentials", Place("node-" + node)}, log);
    const std::string daemonAway = "faultgate: the daemon's changes: ";
    EXPECT_TRUE(WaitUntil([&] { return CountOf(ReadFile(log), daemonAway) > 0; })) << ReadFile(log);
    Make({"revoke", "node", node});
    EXPECT_TRUE(engine.Reload()) << engine.Log();
    EXPECT_TRUE(WaitUntil([&] { return ReadFile(log).find("no connection to") != std::string::npos; }, 60))
        << ReadFile(log);
    Make({"node", node});
    ReloadForNewNodes();
    EXPECT_TRUE(WaitUntil([&] { return CountOf(ReadFile(log), daemonAway) > 1; }, 60)) << ReadFile(log);
    Client centre(engine.Urls(), Place("centre-c1"), "_INBOX_c1");
    EXPECT_TRUE(WaitUntil([&] { return !centre.Request("fault.request." + fleet::Token(node), "x").empty(); }));
    EXPECT_EQ(EndChild(gate, SIGTERM), 0);
}

// A node's credential is none of a server: its owner cannot pretend to be the engine.
TEST_F(FaultgateRightsTest, ANodeIsNoEngine)
{
    engine.End();
    engine.Configure("tls { cert_file: \"" + Place("node-one/client.crt") + "\", key_file: \"" +
                     Place("node-one/client.key") + "\" }\n");
    engine.Start();
    EXPECT_TRUE(WaitUntil([&] { return engine.Log().find("Server is ready") != std::string::npos; }));
    const ChildResult refused = Gate(Place("node-two"));
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.err.find("no connection to"), std::string::npos) << refused.err;
    EXPECT_TRUE(WaitUntil([&] { return engine.Log().find("TLS handshake error") != std::string::npos; }))
        << engine.Log();
}

TEST_F(FaultgateRightsTest, ConfigurationsOfThreeAndFiveAreSound)
{
    for (const std::vector<std::string>& hosts :
         {std::vector<std::string>{"a", "b", "c"},
          std::vector<std::string>{"10.0.0.1", "10.0.0.2", "c", "d.x", "::1"}}) {
        std::vector<std::string> arguments = {"engine"};
        arguments.insert(arguments.end(), hosts.begin(), hosts.end());
        Make(arguments);
        for (const std::string& host : hosts) {
            const std::string place = Place("engine-" + host);
            std::filesystem::copy_file(Place("accounts.conf"), place + "/accounts.conf");
            WriteFile(place + "/engine.conf", Replaced(ReadFile(place + "/engine.conf"), "/etc/faultengine", place));
            const ChildResult checked = RunProgram(EngineProgram(), {"-t", "-c", place + "/engine.conf"});
            EXPECT_EQ(checked.exitCode, 0) << checked.err;
            EXPECT_EQ(CountOf(ReadFile(place + "/engine.conf"), ":6222\"\n"), static_cast<int>(hosts.size()) + 1);
        }
    }
}

TEST_F(FaultgateRightsTest, ComplainsOfWrongUse)
{
    const std::string place = credentials.Place();
    for (const std::vector<std::string>& wrong :
         {std::vector<std::string>{}, {"x"}, {"node"}, {"node", ""}, {"revoke", "node"}, {"engine"}, {"list", "x"}})
        EXPECT_EQ(Run(place, wrong).exitCode, 2);
    EXPECT_EQ(Run(place, {"authority"}).exitCode, 1) << "it is there";
    EXPECT_EQ(Run(directory.File("none"), {"node", "one"}).err,
              "credentials: no authority in " + directory.File("none") + " yet\n");
    for (const char* name : {"a/b", "..", "a b", "a\nb"})
        EXPECT_EQ(Run(place, {"node", name}).exitCode, 1) << name;
    EXPECT_EQ(Run(place, {"engine", "a;b"}).exitCode, 1);
    EXPECT_EQ(Run(place, {"node", "a" + std::string(78, '.')}).exitCode, 0) << "the longest name";
}

} // namespace
