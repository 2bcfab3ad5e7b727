// SPDX-License-Identifier: BSD-2-Clause
// Names of hosts, and what the tables of this host say of a service.
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "tests/support/failing_memory.h"
#include "tests/unit/ipctli_testing.h"

namespace {

using namespace ipctli_testing;

class IpctliNames : public IpctliTest {};

TEST_F(IpctliNames, TheNameOfAHostIsItsOfficialOne)
{
    EXPECT_STREQ(IPCTli::TcptoName("127.0.0.9"), "there");
    EXPECT_STREQ(IPCTli::TcptoName("alsohere"), "localhost");
    EXPECT_STREQ(IPCTli::TcptoName("nosuchhost.invalid"), nullptr);
}

std::string DefaultHost(const char* server)
{
    const char* host = IPCTli::get_default_hostname(server);
    return host != nullptr ? host : "(null)";
}

TEST_F(IpctliNames, TheDefaultHostIsThatOfTheFileOrTheName)
{
    const char* const file = "/var/orv/data/orvdserver.host";
    EXPECT_EQ(DefaultHost("orvd"), "(null)");
    EXPECT_EQ(DefaultHost("pexserver"), "(null)");
    EXPECT_EQ(DefaultHost("orvpmd"), "(null)");
    EXPECT_EQ(DefaultHost("else where"), "else where");
    EXPECT_EQ(DefaultHost("ORVD"), "ORVD");
    EXPECT_EQ(DefaultHost(""), "");
    EXPECT_EQ(DefaultHost(nullptr), "(null)");

    WriteFile(file, "alpha beta\ngamma\n");
    for (const char* server : {"orvd", "pexserver", "orvpmd"})
        EXPECT_EQ(DefaultHost(server), "alpha");
    EXPECT_EQ(DefaultHost("orvsys"), "orvsys");
    const struct {
        std::string content;
        std::string host;
    } cases[] = {
        {"", ""},
        {"\nsecond\n", ""},
        {" leading\n", ""},
        {"\tleading\n", ""},
        {"noend", "noend"},
        {"tab\tx\n", "tab"},
        {"return\r\n", "return"},
        {"feed\f\n", "feed"},
        {"vertical\v\n", "vertical"},
        {std::string(255, 'h') + "\n", std::string(255, 'h')},
        {std::string(256, 'h') + "\n", std::string(256, 'h')},
        {std::string(257, 'h') + "\n", std::string(256, 'h')},
        {std::string(5000, 'h'), std::string(256, 'h')},
        {std::string("nul\0x\n", 6), "nul"},
    };
    for (const auto& each : cases) {
        WriteFile(file, each.content);
        EXPECT_EQ(DefaultHost("orvd"), each.host) << each.content;
    }
    EXPECT_EQ(DefaultHost(std::string(300, 'x').c_str()), std::string(256, 'x'));
    const char* first = IPCTli::get_default_hostname("one");
    EXPECT_EQ(IPCTli::get_default_hostname("two"), first);
    EXPECT_STREQ(first, "two");
    EXPECT_STREQ(IPCTli::get_default_hostname(first), "two");
}

std::string Address(const char* host, const char* service)
{
    char addr[IPCTli::AsciiAddrSize];
    std::memset(addr, 'x', sizeof addr);
    IPCTli::get_ascii_addr(host, service, addr);
    return addr;
}

TEST_F(IpctliNames, GivesPrintableAddresses)
{
    EXPECT_EQ(Address("localhost", "orvd"), "127.0.0.1.18.103");
    EXPECT_EQ(Address("there", "other"), "127.0.0.9.18.104");
    EXPECT_EQ(Address("\\1", "orvd"), "0.0.0.0.18.103");
    EXPECT_EQ(Address("thisnode", "orvd"), "");
    EXPECT_EQ(Address("localhost", "nosuchservice"), "");
    EXPECT_EQ(Address(nullptr, "orvd"), "");
    EXPECT_EQ(Address("localhost", nullptr), "");
    setenv("NETPATH", "tcp:tcp6", 1); // the last one wins
    EXPECT_EQ(Address("\\1", "orvd"), "::.18.103");
    EXPECT_EQ(Address("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "65535"),
              "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff.255.255");
    setenv("NETPATH", "tcp6:tcp", 1);
    EXPECT_EQ(Address("\\1", "orvd"), "0.0.0.0.18.103");
    setenv("NETPATH", "", 1);
    EXPECT_EQ(Address("\\1", "orvd"), "");
    unsetenv("NETPATH");
}

TEST_F(IpctliNames, TellsWhetherAServiceIsConfigured)
{
    EXPECT_EQ(IPCTli::configured_ok("localhost", "orvd"), 1);
    EXPECT_EQ(IPCTli::configured_ok(nullptr, "orvd"), 1);
    EXPECT_EQ(IPCTli::configured_ok("thisnode", "orvd"), 1);
    EXPECT_EQ(IPCTli::configured_ok("nosuchhost.invalid", "orvd"), 0);
    EXPECT_EQ(IPCTli::configured_ok("localhost", "nosuchservice"), 0);
    EXPECT_EQ(IPCTli::configured_ok(nullptr, "nosuchservice"), 0);
}

TEST_F(IpctliNames, NodesAreEqualByNameOrAddress)
{
    EXPECT_EQ(IPCTli::NodeNamesEqual("localhost", "localhost"), 1);
    EXPECT_EQ(IPCTli::NodeNamesEqual("nosuchhost.invalid", "nosuchhost.invalid"), 1);
    EXPECT_EQ(IPCTli::NodeNamesEqual("here", "alsohere"), 1);
    EXPECT_EQ(IPCTli::NodeNamesEqual("here", "127.0.0.1"), 1);
    EXPECT_EQ(IPCTli::NodeNamesEqual("here", "there"), 0);
    EXPECT_EQ(IPCTli::NodeNamesEqual("here", "nosuchhost.invalid"), 0);
    EXPECT_EQ(IPCTli::NodeNamesEqual("nosuchhost.invalid", "here"), 0);
    EXPECT_EQ(IPCTli::NodeNamesEqual("a.invalid", "b.invalid"), 0); // both unknown are not equal
    EXPECT_EQ(IPCTli::NodeNamesEqual(nullptr, "here"), 0);
    EXPECT_EQ(IPCTli::NodeNamesEqual("here", nullptr), 0);
    EXPECT_EQ(IPCTli::NodeNamesEqual(nullptr, nullptr), 0);
    EXPECT_EQ(IPCTli::NodeNamesEqual("", ""), 0);
    EXPECT_EQ(IPCTli::NodeNamesEqual("", "here"), 0);
    EXPECT_EQ(IPCTli::NodeNamesEqual("here", ""), 0);
    WriteFile("/etc/services", services); // without the service there are no addresses to compare
    EXPECT_EQ(IPCTli::NodeNamesEqual("here", "alsohere"), 0);
}

std::string Information(const char* host, const char* service)
{
    std::ostringstream out;
    IPCTli::info(host, service, out);
    EXPECT_TRUE(out.good());
    return out.str();
}

std::string InternetAddress(const std::string& host)
{
    return std::string("\2\0\x12\x67", 4) + host + std::string(8, '\0');
}

TEST_F(IpctliNames, PrintsInformationAboutAService)
{
    const std::string transport = "===================================================\n"
                                  "Transport provider name:      tcp\n"
                                  "Transport protocol family:    inet\n"
                                  "The transport device file:    /dev/tcp\n"
                                  "Transport provider semantics: connection-oriented transport with orderly release\n";
    EXPECT_EQ(Information("there", "orvd"), "Information for host: there service: orvd\n" + transport +
                                                "There are <1> addresses for the orvd service on there\n"
                                                "127.0.0.9.18.103\n"
                                                "Hex dump of address: " +
                                                HexDump(InternetAddress(std::string("\x7f\0\0\x09", 4))));
    EXPECT_EQ(Information(nullptr, "orvd"), "Information for host: \\1 service: orvd\n" + transport +
                                                "There are <1> addresses for the orvd service on \\1\n"
                                                "0.0.0.0.18.103\n"
                                                "Hex dump of address: " +
                                                HexDump(InternetAddress(std::string(4, '\0'))));
    WriteFile("/etc/hosts", "127.0.0.5 several\n127.0.0.6 several\n");
    const std::string several = Information("several", "orvd");
    EXPECT_EQ(several.substr(several.find("There")),
              "There are <2> addresses for the orvd service on several\n"
              "127.0.0.5.18.103\n"
              "Hex dump of address: " +
                  HexDump(InternetAddress(std::string("\x7f\0\0\x05", 4))) + "127.0.0.6.18.103\n" +
                  "Hex dump of address: " + HexDump(InternetAddress(std::string("\x7f\0\0\x06", 4))));
}

TEST_F(IpctliNames, PrintsInformationAboutTwoTransports)
{
    setenv("NETPATH", "tcp6:tcp", 1);
    const std::string text = Information("\\1", "orvd");
    unsetenv("NETPATH");
    const size_t second = text.rfind("====\nTransport provider name:      tcp\n");
    ASSERT_NE(second, std::string::npos);
    EXPECT_NE(text.find("====\nTransport provider name:      tcp6\nTransport protocol family:    inet6\n"
                        "The transport device file:    /dev/tcp6\n"),
              std::string::npos);
    EXPECT_NE(text.find("\n::.18.103\nHex dump of address: HexDump for 28 "), std::string::npos);
}

TEST_F(IpctliNames, PrintsThatNothingIsFound)
{
    const std::string nothing = "No valid addresses found.\n check network files (ie. /etc/hosts, /etc/services)\n";
    EXPECT_EQ(Information("nosuchhost.invalid", "orvd"),
              "Information for host: nosuchhost.invalid service: orvd\n" + nothing);
    EXPECT_EQ(Information("localhost", nullptr), "Information for host: localhost service: \n" + nothing);
    setenv("NETPATH", "", 1);
    EXPECT_EQ(Information("localhost", "orvd"), "Information for host: localhost service: orvd\n" + nothing);
    unsetenv("NETPATH");
}

TEST_F(IpctliNames, PrintsThatThereIsNoSelectionPath)
{
    const std::string path = "tcp" + std::string(5000, ':'); // nothing else takes as much
    setenv("NETPATH", path.c_str(), 1);
    const MemoryFailure noPath = MemoryFailure::OfSize(sizeof(char*) + path.size() + 1, Calloc);
    EXPECT_EQ(Information("localhost", "orvd"),
              "Information for host: localhost service: orvd\nUnable to setnetpath()\n");
    IPCTli end;
    EXPECT_EQ(end.get_addrs_and_provider("localhost", "orvd"), 0);
    unsetenv("NETPATH");
}

TEST_F(IpctliNames, LookUpsLeaveNothingOpen)
{
    IPCTli end;
    const int open = OpenDescriptors();
    for (int i = 0; i < 10; i++) {
        end.get_addrs_and_provider("localhost", "orvd");
        IPCTli::NodeNamesEqual("here", "there");
        Information("localhost", "orvd");
        end.Topen("localhost", "orvd");
    }
    EXPECT_EQ(OpenDescriptors(), open);
}

} // namespace
