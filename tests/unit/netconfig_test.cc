// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/netconfig.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>

#include <gtest/gtest.h>

#include "svr4/tli.h"
#include "tests/support/testing.h"

using namespace testing_support;

namespace {

// The ids of the selection path, each followed by a blank.
std::string Path()
{
    std::string ids;
    void* const handle = svr4::setnetpath();
    EXPECT_NE(handle, nullptr);
    while (const struct svr4::netconfig* transport = svr4::getnetpath(handle)) {
        ids += std::string(transport->nc_netid) + " ";
    }
    EXPECT_EQ(svr4::getnetpath(handle), nullptr) << "the end stays the end";
    EXPECT_EQ(svr4::endnetpath(handle), 0);
    return ids;
}

// A transport by the id that NETPATH names.
const struct svr4::netconfig* Transport(const char* netid)
{
    setenv("NETPATH", netid, 1);
    void* const handle = svr4::setnetpath();
    const struct svr4::netconfig* const transport = svr4::getnetpath(handle);
    svr4::endnetpath(handle);
    unsetenv("NETPATH");
    return transport;
}

// The universal addresses of a service on a host, each followed by a blank; the result when there are none.
std::string Addresses(const char* host, const char* service, const char* netid = "tcp")
{
    const struct svr4::netconfig* const transport = Transport(netid);
    const struct svr4::nd_hostserv name = {host, service};
    struct svr4::nd_addrlist* list = reinterpret_cast<struct svr4::nd_addrlist*>(1);
    svr4::_nderror = 77;
    const int result = svr4::netdir_getbyname(transport, &name, &list);
    if (result != 0) {
        EXPECT_EQ(list, nullptr);
        EXPECT_EQ(svr4::_nderror, result);
        return std::to_string(result);
    }
    EXPECT_EQ(svr4::_nderror, 77) << "only a failure sets it";
    std::string all;
    for (int i = 0; i < list->n_cnt; i++) {
        EXPECT_EQ(list->n_addrs[i].len, list->n_addrs[i].maxlen);
        char* const text = svr4::taddr2uaddr(transport, &list->n_addrs[i]);
        EXPECT_NE(text, nullptr);
        all += std::string(text) + " ";
        free(text);
    }
    svr4::netdir_free(list, svr4::ND_ADDRLIST);
    return all;
}

const std::string NoHost = "1", NoService = "2", System = "9";

// Without a name server the resolver cannot know for sure that a name does not exist.
void ExpectNoHost(const std::string& host, const char* netid = "tcp")
{
    const std::string result = Addresses(host.c_str(), "8000", netid);
    EXPECT_TRUE(result == NoHost || result == System) << host << ": " << result;
}

void Append(const char* path, const std::string& text) { std::ofstream(path, std::ios::app) << text; }

class Netconfig : public testing::Test {
protected:
    void SetUp() override
    {
        descriptors = OpenDescriptors();
        unsetenv("NETPATH");
    }
    void TearDown() override
    {
        unsetenv("NETPATH");
        EXPECT_EQ(OpenDescriptors(), descriptors);
    }
    int descriptors;
};

#define NEEDS_PRIVATE_FILES()                                                                                          \
    if (!InSandbox()) {                                                                                                \
        GTEST_SKIP() << "needs /etc/services and /etc/hosts of its own";                                               \
    }

TEST_F(Netconfig, TheTransportIsTcp)
{
    void* const handle = svr4::setnetpath();
    const struct svr4::netconfig* const tcp = svr4::getnetpath(handle);
    ASSERT_NE(tcp, nullptr);
    EXPECT_EQ(svr4::getnetpath(handle), nullptr);
    EXPECT_EQ(svr4::endnetpath(handle), 0);
    EXPECT_STREQ(tcp->nc_netid, "tcp");
    EXPECT_EQ(tcp->nc_semantics, static_cast<unsigned long>(svr4::NC_TPI_COTS_ORD));
    EXPECT_EQ(tcp->nc_flag, static_cast<unsigned long>(svr4::NC_VISIBLE));
    EXPECT_STREQ(tcp->nc_protofmly, "inet");
    EXPECT_STREQ(tcp->nc_proto, "tcp");
    EXPECT_STREQ(tcp->nc_device, "/dev/tcp");

    const struct svr4::netconfig* const tcp6 = Transport("tcp6");
    ASSERT_NE(tcp6, nullptr);
    EXPECT_STREQ(tcp6->nc_netid, "tcp6");
    EXPECT_EQ(tcp6->nc_semantics, static_cast<unsigned long>(svr4::NC_TPI_COTS_ORD));
    EXPECT_STREQ(tcp6->nc_protofmly, "inet6");
    EXPECT_STREQ(tcp6->nc_proto, "tcp");
    EXPECT_STREQ(tcp6->nc_device, "/dev/tcp6");
}

TEST_F(Netconfig, NetpathChoosesAndOrders)
{
    EXPECT_EQ(Path(), "tcp ");
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"tcp", "tcp "},
        {"tcp6", "tcp6 "},
        {"tcp:tcp6", "tcp tcp6 "},
        {"tcp6:tcp", "tcp6 tcp "},
        {"starlan:tcp6::udp:tcp:", "tcp6 tcp "},
        {"starlan", ""},
        {"TCP:tcp66:tc", ""},
        {"", ""},
        {":", ""},
    };
    for (const auto& path : cases) {
        setenv("NETPATH", path.first, 1);
        EXPECT_EQ(Path(), path.second) << path.first;
        EXPECT_STREQ(getenv("NETPATH"), path.first) << "the environment is left alone";
    }
}

TEST_F(Netconfig, APathIsThatOfItsOpening)
{
    setenv("NETPATH", "tcp6:tcp", 1);
    void* const first = svr4::setnetpath();
    setenv("NETPATH", "tcp", 1);
    void* const second = svr4::setnetpath();
    unsetenv("NETPATH");
    EXPECT_STREQ(svr4::getnetpath(first)->nc_netid, "tcp6");
    EXPECT_STREQ(svr4::getnetpath(second)->nc_netid, "tcp");
    EXPECT_STREQ(svr4::getnetpath(first)->nc_netid, "tcp");
    EXPECT_EQ(svr4::getnetpath(first), nullptr);
    EXPECT_EQ(svr4::getnetpath(second), nullptr);
    svr4::endnetpath(first);
    svr4::endnetpath(second);
}

TEST_F(Netconfig, RefusesAPathThatIsNone)
{
    EXPECT_EQ(svr4::getnetpath(nullptr), nullptr);
    errno = 0;
    EXPECT_EQ(svr4::endnetpath(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Netconfig, ServicesHaveNamesAndNumbers)
{
    NEEDS_PRIVATE_FILES();
    Append("/etc/services", "orvd 8000/tcp # relay\norvudp 8001/udp\norvalias 8002/tcp orvother\n9orv 8003/tcp\n");
    EXPECT_EQ(Addresses("127.0.0.1", "orvd"), "127.0.0.1.31.64 ");
    EXPECT_EQ(Addresses("127.0.0.1", "orvother"), "127.0.0.1.31.66 ");
    EXPECT_EQ(Addresses("127.0.0.1", "9orv"), "127.0.0.1.31.67 ");
    EXPECT_EQ(Addresses("127.0.0.1", "orvudp"), NoService) << "of another protocol";
    EXPECT_EQ(Addresses("127.0.0.1", "orvnone"), NoService);
}

TEST_F(Netconfig, APortNumberIsOneFrom1To65535)
{
    EXPECT_EQ(Addresses("127.0.0.1", "1"), "127.0.0.1.0.1 ");
    EXPECT_EQ(Addresses("127.0.0.1", "256"), "127.0.0.1.1.0 ");
    EXPECT_EQ(Addresses("127.0.0.1", "65535"), "127.0.0.1.255.255 ");
    for (const char* service : {"0", "65536", "18446744073709551617", "-1", "+80", " 80", ""}) {
        EXPECT_EQ(Addresses("127.0.0.1", service), NoService) << service;
        EXPECT_EQ(Addresses("\\1", service), NoService) << service;
    }
    EXPECT_EQ(Addresses("127.0.0.1", "80 "), NoService);
}

TEST_F(Netconfig, HostsGiveAllTheirAddressesOnce)
{
    NEEDS_PRIVATE_FILES();
    Append("/etc/hosts", "127.0.0.7 orvhost\n127.0.0.7 orvhost orvhost\n127.0.0.9 orvhost\n127.0.0.8 orvsingle\n"
                         "2001:db8::7 orvsix\n");
    std::string both = Addresses("orvhost", "8000");
    EXPECT_TRUE(both == "127.0.0.7.31.64 127.0.0.9.31.64 " || both == "127.0.0.9.31.64 127.0.0.7.31.64 ") << both;
    EXPECT_EQ(Addresses("orvsingle", "8000"), "127.0.0.8.31.64 ");
    EXPECT_EQ(Addresses("orvsix", "8000", "tcp6"), "2001:db8::7.31.64 ");
    ExpectNoHost("orvsix");
    ExpectNoHost("orvsingle", "tcp6");
}

TEST_F(Netconfig, RefusesHostsThatAreNone)
{
    EXPECT_EQ(Addresses("", "8000"), NoHost);
    EXPECT_EQ(Addresses("::1", "8000"), NoHost) << "of another family";
    EXPECT_EQ(Addresses("127.0.0.1", "8000", "tcp6"), NoHost);
    for (const char* host : {"orvnowhere", "256.1.1.1.1", "\\2", "1\\", "\\1x", "a b"}) {
        ExpectNoHost(host);
    }
    ExpectNoHost(std::string(5000, 'x'));
}

TEST_F(Netconfig, TheLocalHostIsTheWildcardAddress)
{
    EXPECT_STREQ(svr4::HOST_SELF, "\\1");
    EXPECT_EQ(Addresses("\\1", "8000"), "0.0.0.0.31.64 ");
    EXPECT_EQ(Addresses("\\1", "8000", "tcp6"), "::.31.64 ");
}

TEST_F(Netconfig, BadArgumentsGiveNoAddress)
{
    const struct svr4::netconfig* const tcp = Transport("tcp");
    const struct svr4::nd_hostserv good = {"127.0.0.1", "1"};
    const struct svr4::nd_hostserv noHost = {nullptr, "1"}, noService = {"127.0.0.1", nullptr};
    struct svr4::netconfig unknown = *tcp;
    unknown.nc_netid = "starlan";
    struct svr4::nd_addrlist* list = nullptr;
    EXPECT_EQ(svr4::netdir_getbyname(nullptr, &good, &list), svr4::ND_BADARG);
    EXPECT_EQ(svr4::netdir_getbyname(&unknown, &good, &list), svr4::ND_BADARG);
    unknown.nc_netid = nullptr;
    EXPECT_EQ(svr4::netdir_getbyname(&unknown, &good, &list), svr4::ND_BADARG);
    EXPECT_EQ(svr4::netdir_getbyname(tcp, nullptr, &list), svr4::ND_BADARG);
    EXPECT_EQ(svr4::netdir_getbyname(tcp, &noHost, &list), svr4::ND_BADARG);
    EXPECT_EQ(svr4::netdir_getbyname(tcp, &noService, &list), svr4::ND_BADARG);
    EXPECT_EQ(svr4::netdir_getbyname(tcp, &good, nullptr), svr4::ND_BADARG);
    EXPECT_EQ(list, nullptr);
    svr4::netdir_free(nullptr, svr4::ND_ADDRLIST);
    EXPECT_EQ(svr4::netdir_getbyname(tcp, &good, &list), svr4::ND_OK);
    svr4::netdir_free(list, 1); // of another type: not freed
    EXPECT_EQ(list->n_cnt, 1);
    svr4::netdir_free(list, svr4::ND_ADDRLIST);
}

TEST_F(Netconfig, ConvertsToUniversalAddresses)
{
    const struct svr4::netconfig *const tcp = Transport("tcp"), *const tcp6 = Transport("tcp6");
    struct sockaddr_in four = {};
    four.sin_family = AF_INET;
    four.sin_port = htons(8000);
    inet_pton(AF_INET, "255.255.255.255", &four.sin_addr);
    struct svr4::netbuf address = {sizeof four, sizeof four, reinterpret_cast<char*>(&four)};
    char* text = svr4::taddr2uaddr(tcp, &address);
    EXPECT_STREQ(text, "255.255.255.255.31.64");
    free(text);
    EXPECT_EQ(svr4::taddr2uaddr(tcp6, &address), nullptr);
    EXPECT_EQ(svr4::_nderror, svr4::ND_BADARG);
    EXPECT_EQ(svr4::taddr2uaddr(nullptr, &address), nullptr);
    EXPECT_EQ(svr4::taddr2uaddr(tcp, nullptr), nullptr);
    address.len--;
    EXPECT_EQ(svr4::taddr2uaddr(tcp, &address), nullptr);
    address = {0, sizeof four, nullptr};
    EXPECT_EQ(svr4::taddr2uaddr(tcp, &address), nullptr);

    struct sockaddr_in6 six = {};
    six.sin6_family = AF_INET6;
    six.sin6_port = htons(65535);
    inet_pton(AF_INET6, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", &six.sin6_addr);
    address = {sizeof six, sizeof six, reinterpret_cast<char*>(&six)};
    text = svr4::taddr2uaddr(tcp6, &address);
    EXPECT_STREQ(text, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff.255.255");
    free(text);
    EXPECT_EQ(svr4::taddr2uaddr(tcp, &address), nullptr) << "of another family";
    inet_pton(AF_INET6, "2001:db8::1", &six.sin6_addr);
    text = svr4::taddr2uaddr(tcp6, &address);
    EXPECT_STREQ(text, "2001:db8::1.255.255");
    free(text);
}

// From name to connection, as a client and a server of this host go.
TEST_F(Netconfig, TheAddressesSuitTheTransport)
{
    const struct svr4::netconfig* const tcp = Transport("tcp");
    const struct svr4::nd_hostserv name = {svr4::HOST_SELF, "28113"};
    struct svr4::nd_addrlist* list;
    ASSERT_EQ(svr4::netdir_getbyname(tcp, &name, &list), 0);
    const int server = svr4::t_open(tcp->nc_device, O_RDWR, nullptr);
    struct svr4::t_bind request = {list->n_addrs[0], 5};
    ASSERT_EQ(svr4::t_bind(server, &request, nullptr), 0) << svr4::t_strerror(svr4::t_errno);
    const int client = svr4::t_open(tcp->nc_device, O_RDWR, nullptr);
    ASSERT_EQ(svr4::t_bind(client, nullptr, nullptr), 0);
    struct svr4::t_call call = {};
    call.addr = list->n_addrs[0];
    EXPECT_EQ(svr4::t_connect(client, &call, nullptr), 0);
    svr4::t_close(client);
    svr4::t_close(server);
    svr4::netdir_free(list, svr4::ND_ADDRLIST);
}

TEST_F(Netconfig, AllTransportsAreThereWhateverThePathSays)
{
    setenv("NETPATH", "none", 1);
    std::string ids;
    void* const handle = svr4::setnetconfig();
    while (const struct svr4::netconfig* transport = svr4::getnetconfig(handle))
        ids += std::string(transport->nc_netid) + " ";
    EXPECT_EQ(ids, "tcp tcp6 ");
    EXPECT_EQ(svr4::getnetconfig(handle), nullptr) << "the end stays the end";
    EXPECT_EQ(svr4::endnetconfig(handle), 0);
    EXPECT_EQ(svr4::endnetconfig(nullptr), -1);
    EXPECT_EQ(svr4::getnetconfig(nullptr), nullptr);
    unsetenv("NETPATH");
    EXPECT_STREQ(svr4::getnetconfigent("tcp6")->nc_device, "/dev/tcp6");
    EXPECT_EQ(svr4::getnetconfigent("udp"), nullptr);
    EXPECT_EQ(svr4::getnetconfigent(nullptr), nullptr);
}

// What becomes of a universal address that is taken apart and put together again; "none" when it is refused.
std::string ThereAndBack(const char* netid, const char* text)
{
    const struct svr4::netconfig* transport = svr4::getnetconfigent(netid);
    svr4::_nderror = 0;
    struct svr4::netbuf* address = svr4::uaddr2taddr(transport, text);
    if (address == nullptr)
        return svr4::_nderror == svr4::ND_BADARG ? "none" : "no reason";
    char* again = svr4::taddr2uaddr(transport, address);
    std::string result = again;
    free(again);
    svr4::netdir_free(address, svr4::ND_ADDR);
    return result;
}

TEST_F(Netconfig, AUniversalAddressIsTakenApart)
{
    for (const char* text : {"192.0.2.1.31.64", "0.0.0.0.0.0", "255.255.255.255.255.255"})
        EXPECT_EQ(ThereAndBack("tcp", text), text);
    EXPECT_EQ(ThereAndBack("tcp6", "2001:db8::1.31.64"), "2001:db8::1.31.64");
    const std::string longText(500, '1');
    for (const char* text :
         {"", ".", "192.0.2.1", "192.0.2.1.31", "192.0.2.1.31.256", "192.0.2.1.-1.64", "192.0.2.1.31.",
          "192.0.2.1.31.64x", "192.0.2.1..64", "::1.31.64", "host.31.64", longText.c_str()})
        EXPECT_EQ(ThereAndBack("tcp", text), "none") << text;
    EXPECT_EQ(ThereAndBack("tcp6", "192.0.2.1.31.64"), "none");
    EXPECT_EQ(ThereAndBack("udp", "192.0.2.1.31.64"), "none");
    EXPECT_EQ(ThereAndBack("tcp", nullptr), "none");
}

TEST_F(Netconfig, AnAddressHasNames)
{
    const struct svr4::netconfig* tcp = svr4::getnetconfigent("tcp");
    struct svr4::netbuf* address = svr4::uaddr2taddr(tcp, "127.0.0.1.0.25");
    struct svr4::nd_hostservlist* names = nullptr;
    ASSERT_EQ(svr4::netdir_getbyaddr(tcp, &names, address), svr4::ND_OK);
    ASSERT_EQ(names->h_cnt, 1);
    EXPECT_STREQ(names->h_hostservs->h_host, "localhost");
    EXPECT_STREQ(names->h_hostservs->h_serv, "smtp");
    svr4::netdir_free(names, svr4::ND_HOSTSERVLIST);

    EXPECT_EQ(svr4::netdir_getbyaddr(tcp, nullptr, address), svr4::ND_BADARG);
    EXPECT_EQ(svr4::netdir_getbyaddr(svr4::getnetconfigent("tcp6"), &names, address), svr4::ND_BADARG);
    EXPECT_EQ(names, nullptr);
    EXPECT_EQ(svr4::netdir_getbyaddr(tcp, &names, nullptr), svr4::ND_BADARG);
    EXPECT_STREQ(svr4::netdir_sperror(), "bad argument");
    svr4::netdir_free(address, svr4::ND_ADDR);
}

TEST_F(Netconfig, EachErrorHasItsText)
{
    const std::vector<std::pair<int, const char*>> texts = {
        {svr4::ND_OK, "no error"},
        {svr4::ND_BADARG, "bad argument"},
        {svr4::ND_NOMEM, "out of memory"},
        {svr4::ND_NOHOST, "host not found"},
        {svr4::ND_NOSERV, "service not found"},
        {svr4::ND_SYSTEM, "the name service failed"},
        {77, "unknown error"},
    };
    for (const auto& [code, text] : texts) {
        svr4::_nderror = code;
        EXPECT_STREQ(svr4::netdir_sperror(), text);
    }
}

} // namespace
