// SPDX-License-Identifier: BSD-2-Clause
// What `credentials` writes for the servers of the engine: a cluster of three, and a leaf.
#include <csignal>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/proginfo.h"
#include "tests/system/fleet_testing.h"

using namespace fleet_testing;

namespace {

// A client that shows a credential.
class Client {
public:
    Client(const std::string& url, const std::string& credentials, const std::string& inbox)
    {
        natsOptions* options = nullptr;
        natsOptions_Create(&options);
        natsOptions_SetURL(options, url.c_str());
        natsOptions_SetSecure(options, true);
        natsOptions_LoadCATrustedCertificates(options, (credentials + "/ca.crt").c_str());
        natsOptions_LoadCertificatesChain(options, (credentials + "/client.crt").c_str(),
                                          (credentials + "/client.key").c_str());
        natsOptions_SetCustomInboxPrefix(options, inbox.c_str());
        EXPECT_EQ(natsConnection_Connect(&connection, options), NATS_OK);
        natsOptions_Destroy(options);
    }
    ~Client() { natsConnection_Destroy(connection); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    bool IsAnswered(const std::string& subject) const
    {
        natsMsg* answer = nullptr;
        const bool came = natsConnection_RequestString(&answer, connection, subject.c_str(), "x", 1000) == NATS_OK;
        natsMsg_Destroy(answer);
        return came;
    }

private:
    natsConnection* connection = nullptr;
};

class FaultgateServersTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        static char name[] = "faultgate_servers_test";
        static char* argv[] = {name, nullptr};
        if (EngineProgram().empty())
            GTEST_SKIP() << "nats-server is not installed";
        if (RunProgram("/usr/bin/env", {"openssl", "version"}).exitCode != 0)
            GTEST_SKIP() << "openssl is not installed";
        if (!InSandbox())
            GTEST_SKIP() << "needs a private /var and /opt/orv/bin";
        ProgInfo::Initialize(1, argv, argv + 1, FaultVersion);
        node = ProgInfo::GetNodeName();
        for (const char* path : {"/var/orv/data/journal", "/var/orv/data/faults"})
            std::filesystem::remove_all(path);
        MakeKeyFile(FaultServerName);
        Make({"authority"});
        Make({"operator", "main"});
        Make({"centre", "c1"});
        Make({"node", node});
        Make({"node", "two"});
        daemon = StartProgram(Faultd, {"--foreground", "--journal"}, directory.File("faultd.log"));
        EXPECT_TRUE(WaitUntil([] { return RunProgram(Faultctl, {"list"}).exitCode == 0; }));
    }
    void TearDown() override
    {
        for (const auto& [place, server] : servers)
            EndChild(server, SIGKILL);
        if (daemon > 0)
            EndChild(daemon, SIGTERM);
    }

    std::string Place(const std::string& name) const { return directory.File("fleet/" + name); }
    void Make(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), directory.File("fleet"));
        const ChildResult made = RunProgram(CREDENTIALS, arguments);
        ASSERT_EQ(made.exitCode, 0) << made.err;
    }
    // Starts the server with what has been made for it, as on a host that has only that address.
    void Start(const std::string& kind, const std::string& host, const std::string& more = "")
    {
        const std::string place = Place(kind + "-" + host);
        for (const char* name : {"accounts.conf", "leafnodes.conf"})
            if (std::filesystem::exists(Place(name)))
                std::filesystem::copy_file(Place(name), place + "/" + name,
                                           std::filesystem::copy_options::overwrite_existing);
        for (const char* name : {"engine.conf", "leafnodes.conf"}) {
            const std::string file = std::string(place).append("/").append(name);
            std::string text = Replaced(ReadFile(file), "/etc/faultengine", place);
            text = Replaced(Replaced(text, "/var/lib/faultengine", place + "/store"), "0.0.0.0", host);
            WriteFile(file, text);
        }
        WriteFile(place + "/engine.conf", ReadFile(place + "/engine.conf") + more);
        servers[place] =
            StartProgram(EngineProgram(), {"-c", place + "/engine.conf", "-l", place + "/log"}, place + "/out");
    }
    void End(const std::string& name)
    {
        EndChild(servers[Place(name)], SIGKILL);
        servers.erase(Place(name));
    }
    std::string Log(const std::string& name) const
    {
        return ReadFile(Place(name) + "/out") + ReadFile(Place(name) + "/log");
    }
    bool SetUpFleet(const std::string& urls, const std::string& replicas) const
    {
        return WaitUntil(
            [&] {
                return RunProgram(Faultfleet, {"--engine", urls, "--credentials", Place("operator-main"), "setup",
                                               "--replicas", replicas})
                           .exitCode == 0;
            },
            60);
    }
    ChildResult Gate(const std::string& urls, const std::string& owner) const
    {
        return RunProgram(Faultgate, {"--engine", urls, "--credentials", Place("node-" + owner), "--once"});
    }
    bool GatePasses(const std::string& urls) const
    {
        return WaitUntil([&] { return Gate(urls, node).exitCode == 0; }, 60);
    }

    TemporaryDirectory directory;
    std::map<std::string, pid_t> servers; // by their places
    std::string node;
    pid_t daemon = 0;
};

TEST_F(FaultgateServersTest, ThreeAreAClusterAndOneMayFail)
{
    const std::vector<std::string> hosts = {"127.0.0.1", "127.0.0.2", "127.0.0.3"};
    Make({"engine", hosts[0], hosts[1], hosts[2]});
    std::string urls;
    for (const std::string& host : hosts) {
        Start("engine", host);
        urls += (urls.empty() ? "nats://" : ",nats://") + host;
    }
    ASSERT_TRUE(SetUpFleet(urls, "3")) << Log("engine-127.0.0.1");
    RunProgram(Faultctl, {"raise", "alpha", "1", "text"});
    EXPECT_TRUE(GatePasses(urls)) << Log("engine-127.0.0.1");
    std::string left;
    for (const std::string& host : hosts)
        if (CountOf(Log("engine-" + host), "new stream leader for 'FLEET > FAULTS'") == 0)
            left += (left.empty() ? "nats://" : ",nats://") + host;
        else
            End("engine-" + host);
    EXPECT_EQ(servers.size(), 2u) << "one has led, from the beginning";
    RunProgram(Faultctl, {"raise", "alpha", "2", "text"});
    EXPECT_TRUE(GatePasses(urls)) << Log("engine-127.0.0.2");
    const auto stored = [&] { return ReadHistory(left, node, Place("operator-main")).changes.size(); };
    EXPECT_TRUE(WaitUntil([&] { return stored() == 3; }, 60)) << stored();
}

// A server among the others must show a certificate of theirs: one of a client is none.
TEST_F(FaultgateServersTest, ANodeIsNoServerOfTheCluster)
{
    Make({"engine", "127.0.0.1", "127.0.0.2"});
    const std::string other = Place("engine-127.0.0.2");
    for (const char* kind : {".crt", ".key"})
        std::filesystem::copy_file(Place("node-two/client") + kind, other + "/engine" + kind,
                                   std::filesystem::copy_options::overwrite_existing);
    Start("engine", "127.0.0.1");
    Start("engine", "127.0.0.2");
    EXPECT_TRUE(WaitUntil([&] {
        return Log("engine-127.0.0.1").find("TLS route handshake error") != std::string::npos;
    })) << Log("engine-127.0.0.1");
    EXPECT_EQ(Log("engine-127.0.0.1").find("JetStream cluster new metadata leader"), std::string::npos);
}

TEST_F(FaultgateServersTest, AGateReachesTheEngineThroughALeaf)
{
    const std::string leaf = "nats://127.0.0.4";
    Make({"engine", "127.0.0.1"});
    Make({"leaf", "127.0.0.4", node, "two"});
    Start("engine", "127.0.0.1", "include leafnodes.conf\n");
    ASSERT_TRUE(SetUpFleet("nats://127.0.0.1", "1")) << Log("engine-127.0.0.1");
    Start("leaf", "127.0.0.4");
    const std::string attached = directory.File("attached");
    WriteFile(attached, std::string(600000, 'a'));
    RunProgram(Faultctl, {"raise", "alpha", "1", "text", "--attach", attached});
    EXPECT_TRUE(GatePasses(leaf)) << Log("leaf-127.0.0.4") << Log("engine-127.0.0.1");
    RunProgram(Faultctl, {"move", "alpha", "1", "working"});
    EXPECT_TRUE(GatePasses(leaf)) << "with what the engine has of it to begin with";
    EXPECT_NE(Gate(leaf, "two").exitCode, 0) << "with the name of another";
    EXPECT_EQ(ReadHistory("nats://127.0.0.1", node, Place("operator-main")).changes.size(), 3u);

    const pid_t gate =
        StartProgram(Faultgate, {"--engine", leaf, "--credentials", Place("node-" + node)}, directory.File("gate.log"));
    const Client centre("nats://127.0.0.1", Place("centre-c1"), "_INBOX_c1");
    const std::string request = "fault.request." + fleet::Token(node);
    EXPECT_TRUE(WaitUntil([&] { return centre.IsAnswered(request); })) << Log("leaf-127.0.0.4");
    const Client two("nats://127.0.0.4", Place("node-two"), "_INBOX_two");
    EXPECT_FALSE(two.IsAnswered(request));
    EXPECT_FALSE(two.IsAnswered(fleet::ChangeSubject(node)));
    EXPECT_FALSE(two.IsAnswered("$JS.API.STREAM.INFO.FAULTS"));
    EXPECT_TRUE(two.IsAnswered(fleet::ChangeSubject("two")));
    EXPECT_EQ(EndChild(gate, SIGTERM), 0);
    Make({"revoke", "leaf", node});
    std::filesystem::copy_file(Place("accounts.conf"), Place("engine-127.0.0.1/accounts.conf"),
                               std::filesystem::copy_options::overwrite_existing);
    kill(servers[Place("engine-127.0.0.1")], SIGHUP);
    EXPECT_TRUE(WaitUntil([&] { return Gate(leaf, node).exitCode != 0; })) << "the leaf is out for that node";
    EXPECT_TRUE(WaitUntil([&] { return two.IsAnswered(fleet::ChangeSubject("two")); })) << "and not for the other";
}

// What a broken connection sends is no end of a gate, although it is a client of the daemon as well.
TEST_F(FaultgateServersTest, ABrokenPipeIsNoEnd)
{
    Make({"engine", "127.0.0.1"});
    Start("engine", "127.0.0.1");
    ASSERT_TRUE(SetUpFleet("nats://127.0.0.1", "1")) << Log("engine-127.0.0.1");
    RunProgram(Faultctl, {"raise", "alpha", "1", "text"});
    const pid_t gate = StartProgram(Faultgate, {"--engine", "nats://127.0.0.1", "--credentials", Place("node-" + node)},
                                    directory.File("gate.log"));
    const auto stored = [&] { return ReadHistory("nats://127.0.0.1", node, Place("operator-main")).changes.size(); };
    EXPECT_TRUE(WaitUntil([&] { return stored() == 2; }));
    kill(gate, SIGPIPE);
    RunProgram(Faultctl, {"raise", "alpha", "2", "text"});
    EXPECT_TRUE(WaitUntil([&] { return stored() == 3; })) << ReadFile(directory.File("gate.log"));
    EXPECT_EQ(EndChild(gate, SIGTERM), 0);
}

} // namespace
