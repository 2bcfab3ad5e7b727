// SPDX-License-Identifier: BSD-2-Clause
// The headers of System V for programs that move: this file is compiled with their folder before the host's, and uses
// what they declare as such a program does.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include <arpa/inet.h>
#include <fcntl.h>
#include <libgen.h>
#include <netconfig.h>
#include <netdir.h>
#include <netinet/in.h>
#include <sys/systeminfo.h>
#include <sys/tiuser.h>
#include <sys/utsname.h>
#include <tiuser.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/ipctli.h"
#include "tests/support/testing.h"

// As programs declare them, behind the header or without it.
// NOLINTBEGIN(readability-redundant-declaration)
extern int t_errno;
extern char* t_errlist[];
extern int t_nerr;
extern "C" int sysinfo(int, char*, long);
// NOLINTEND(readability-redundant-declaration)

using namespace testing_support;

namespace {

class Compat : public testing::Test {
protected:
    Compat() { t_errno = 0; }
};

struct netbuf Block(struct sockaddr_in& address)
{
    return {sizeof address, sizeof address, reinterpret_cast<char*>(&address)};
}

struct sockaddr_in LoopbackAt(in_port_t port)
{
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = port;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// An endpoint in T_IDLE; with a `qlen` it listens on the loopback interface and `*address` gets its address.
int Bound(unsigned qlen, struct sockaddr_in* address)
{
    const int fd = t_open("/dev/tcp", O_RDWR, nullptr);
    struct sockaddr_in any = LoopbackAt(0);
    const struct t_bind wanted = {Block(any), qlen};
    struct t_bind got = {Block(*address), 0};
    EXPECT_EQ(t_bind(fd, &wanted, &got), 0) << t_strerror(t_errno);
    EXPECT_EQ(got.qlen, qlen);
    return fd;
}

TEST_F(Compat, AConnectionIsMadeUsedAndReleased)
{
    struct sockaddr_in server = {}, ofClient = {}, seen = {};
    const int listener = Bound(1, &server);
    const int client = Bound(0, &ofClient);
    struct t_call to = {};
    to.addr = Block(server);
    ASSERT_EQ(t_connect(client, &to, nullptr), 0) << t_strerror(t_errno);

    struct t_call* call = reinterpret_cast<struct t_call*>(t_alloc(listener, T_CALL, T_ADDR));
    ASSERT_NE(call, nullptr);
    EXPECT_EQ(t_look(listener), T_LISTEN);
    ASSERT_EQ(t_listen(listener, call), 0);
    memcpy(&seen, call->addr.buf, sizeof seen);
    EXPECT_EQ(seen.sin_port, ofClient.sin_port);
    struct sockaddr_in unused = {};
    const int accepted = Bound(0, &unused);
    ASSERT_EQ(t_accept(listener, accepted, call), 0);
    EXPECT_EQ(t_free(call, T_CALL), 0);

    char text[16];
    int flags = -1;
    EXPECT_EQ(t_snd(client, "hello", 5, 0), 5);
    EXPECT_EQ(t_rcv(accepted, text, sizeof text, &flags), 5);
    EXPECT_EQ(std::string(text, 5), "hello");
    EXPECT_EQ(flags, 0);
    EXPECT_EQ(t_sync(accepted), T_DATAXFER);
    EXPECT_EQ(t_sndrel(client), 0);
    EXPECT_EQ(t_rcv(accepted, text, sizeof text, &flags), -1);
    EXPECT_EQ(t_errno, TLOOK);
    EXPECT_EQ(t_look(accepted), T_ORDREL);
    EXPECT_EQ(t_rcvrel(accepted), 0);
    EXPECT_EQ(t_getstate(accepted), T_INREL);
    EXPECT_EQ(t_sndrel(accepted), 0);
    EXPECT_EQ(t_rcvrel(client), 0);
    for (const int fd : {client, accepted, listener})
        EXPECT_EQ(t_close(fd), 0);
}

TEST_F(Compat, AnAttemptThatIsRefusedIsADisconnect)
{
    struct sockaddr_in server = {}, own = {};
    const int gone = Bound(1, &server);
    t_close(gone);
    const int client = Bound(0, &own);
    struct t_call to = {};
    to.addr = Block(server);
    EXPECT_EQ(t_connect(client, &to, nullptr), -1);
    EXPECT_EQ(t_errno, TLOOK);
    struct t_discon why = {};
    EXPECT_EQ(t_rcvdis(client, &why), 0);
    EXPECT_EQ(why.reason, ECONNREFUSED);
    EXPECT_EQ(t_unbind(client), 0);
    t_close(client);
}

TEST_F(Compat, TheTransportTellsWhatItIs)
{
    struct t_info opened = {}, asked = {};
    const int fd = t_open("/dev/tcp", O_RDWR, &opened);
    EXPECT_EQ(opened.servtype, T_COTS_ORD);
    EXPECT_EQ(t_getinfo(fd, &asked), 0);
    EXPECT_EQ(memcmp(&opened, &asked, sizeof opened), 0);
    EXPECT_EQ(t_getinfo(fd, nullptr), 0);
    t_close(fd);
    EXPECT_EQ(t_getinfo(fd, &asked), -1);
    EXPECT_EQ(t_errno, TBADF);
}

TEST_F(Compat, AFailureIsToldByNumberAndText)
{
    EXPECT_EQ(t_open("/dev/none", O_RDWR, nullptr), -1);
    EXPECT_EQ(t_errno, TBADNAME);
    EXPECT_EQ(CaptureStderr([] { t_error("t_open"); }), "t_open: Invalid transport provider name\n");
    ASSERT_EQ(t_nerr, TPROTO + 1);
    for (int code = 0; code < t_nerr; code++)
        EXPECT_STREQ(t_errlist[code], t_strerror(code));
    t_errno = TNOREL; // a program may say what t_error shall explain
    EXPECT_EQ(CaptureStderr([] { t_error(nullptr); }), "Orderly release message not found\n");
}

TEST_F(Compat, TheLibraryAndTheProgramShareOneErrorNumber)
{
    struct sockaddr_in server = {};
    t_close(Bound(1, &server));
    const std::string port = std::to_string(ntohs(server.sin_port));
    IPCTli client;
    CaptureStdout([&] { CaptureStderr([&] { EXPECT_EQ(client.Topen("127.0.0.1", port.c_str()), 0); }); });
    EXPECT_EQ(t_errno, TLOOK) << "nobody listens";
}

TEST_F(Compat, NamesBecomeAddresses)
{
    void* const path = setnetpath();
    struct netconfig* tcp = getnetpath(path);
    ASSERT_NE(tcp, nullptr);
    EXPECT_STREQ(tcp->nc_protofmly, NC_INET);
    EXPECT_STREQ(tcp->nc_proto, NC_TCP);
    EXPECT_STREQ(tcp->nc_device, "/dev/tcp");
    EXPECT_EQ(tcp->nc_semantics, NC_TPI_COTS_ORD + 0u);
    EXPECT_EQ(getnetpath(path), nullptr);

    char host[] = HOST_SELF, port[] = "8000", nonsense[] = "no such service";
    struct nd_hostserv service = {host, port};
    struct nd_addrlist* found = nullptr;
    ASSERT_EQ(netdir_getbyname(tcp, &service, &found), ND_OK);
    ASSERT_EQ(found->n_cnt, 1);
    char* const text = taddr2uaddr(tcp, found->n_addrs);
    EXPECT_STREQ(text, "0.0.0.0.31.64");
    free(text);
    netdir_free(found, ND_ADDRLIST);

    service.h_serv = nonsense;
    EXPECT_EQ(netdir_getbyname(tcp, &service, &found), ND_NOSERV);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(_nderror, ND_NOSERV);
    EXPECT_EQ(CaptureStderr([] { netdir_perror("netdir"); }), "netdir: service not found\n");
    EXPECT_EQ(netdir_getbyname(tcp, &service, nullptr), ND_BADARG);
    EXPECT_STREQ(netdir_sperror(), "bad argument");
    EXPECT_EQ(endnetpath(path), 0);
}

TEST_F(Compat, AddressesBecomeNames)
{
    void* const all = setnetconfig();
    struct netconfig* tcp = getnetconfig(all);
    EXPECT_EQ(tcp, getnetconfigent("tcp"));
    freenetconfigent(tcp);
    EXPECT_EQ(endnetconfig(all), 0);

    struct netbuf* address = uaddr2taddr(tcp, "127.0.0.1.255.255");
    ASSERT_NE(address, nullptr);
    struct nd_hostservlist* names = nullptr;
    ASSERT_EQ(netdir_getbyaddr(tcp, &names, address), ND_OK);
    EXPECT_STREQ(names->h_hostservs[0].h_host, "localhost");
    EXPECT_STREQ(names->h_hostservs[0].h_serv, "65535");
    netdir_free(names, ND_HOSTSERVLIST);
    netdir_free(address, ND_ADDR);
    EXPECT_EQ(uaddr2taddr(tcp, "nonsense"), nullptr);
    EXPECT_EQ(netdir_getbyaddr(tcp, nullptr, nullptr), ND_BADARG);
}

TEST_F(Compat, PatternsMatchAcrossSlashes)
{
    EXPECT_NE(gmatch("/var/adm/messages.log", "*.log"), 0);
    EXPECT_EQ(gmatch("/var/adm/messages", "*.log"), 0);
    char path[] = "/usr/lib";
    EXPECT_STREQ(basename(path), "lib") << "the host's part of the header stays";
}

TEST_F(Compat, TheHostTellsItsNames)
{
    struct utsname host = {};
    uname(&host);
    char name[257];
    EXPECT_EQ(sysinfo(SI_HOSTNAME, name, sizeof name), static_cast<int>(strlen(host.nodename)) + 1);
    EXPECT_STREQ(name, host.nodename);
    EXPECT_EQ(sysinfo(999, name, sizeof name), -1);
    EXPECT_EQ(errno, EINVAL);
}

volatile int handled = 0;
void Handle(int) { handled = handled + 1; }

// What `set` makes of a signal: its flags, whether the handler ran, and whether it is gone then.
void ExpectOneShot(void (*(*set)(int, void (*)(int)))(int))
{
    handled = 0;
    set(SIGUSR2, SIG_DFL);
    EXPECT_EQ(set(SIGUSR2, Handle), SIG_DFL);
    struct sigaction now = {};
    sigaction(SIGUSR2, nullptr, &now);
    EXPECT_EQ(now.sa_flags & SA_RESTART, 0);
    raise(SIGUSR2);
    EXPECT_EQ(handled, 1);
    sigaction(SIGUSR2, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_DFL);
}

TEST_F(Compat, AHandlerIsOneShot)
{
    ExpectOneShot(signal);
    ExpectOneShot(std::signal);
    EXPECT_EQ(signal(SIGKILL, Handle), SIG_ERR);
}

TEST_F(Compat, AHandlerInterruptsACallThatWaits)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    signal(SIGALRM, Handle);
    alarm(1);
    char byte;
    EXPECT_EQ(read(ends[0], &byte, 1), -1);
    EXPECT_EQ(errno, EINTR);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(Compat, AProcessGroupIsASessionToo)
{
    const pid_t child = StartChild([] {
        if (setpgrp() != getpid() || getsid(0) != getpid() || setpgrp() != -1 || errno != EPERM)
            _exit(1);
    });
    EXPECT_EQ(WaitForExit(child), 0);
}

TEST_F(Compat, DateAndTimeAreOneConversion)
{
    setenv("TZ", "UTC0", 1);
    const time_t noon = 1795263300;
    char text[64];
    EXPECT_EQ(strftime(text, sizeof text, "%C", localtime(&noon)), 28u);
    EXPECT_STREQ(text, "Sat Nov 21 12:15:00 UTC 2026");
    EXPECT_EQ(std::strftime(text, sizeof text, "%Y: %C", localtime(&noon)), 34u);
    unsetenv("TZ");
    tzset();
}

// The names of the calls are free for what is no function.
struct Names {
    int signal, strftime, setpgrp, t_open, gmatch, t_bind;
};

TEST_F(Compat, NamesStayFreeForMembers)
{
    const Names names = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(names.signal + names.strftime + names.setpgrp + names.t_open + names.gmatch + names.t_bind, 21);
}

} // namespace
