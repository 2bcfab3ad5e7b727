// SPDX-License-Identifier: BSD-2-Clause
#include "tests/system/fleetstorm/hosts.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/testing.h"

namespace fleetstorm {

void EndWithParent(pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        _exit(1);
}

static std::string Address(size_t host)
{
    return "10.77." + std::to_string(host / 200 + 1) + "." + std::to_string(host % 200 + 1);
}

static bool SetFlags(const std::string& link, bool isUp)
{
    const int control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct ifreq request = {};
    link.copy(request.ifr_name, IFNAMSIZ - 1);
    bool isDone = ioctl(control, SIOCGIFFLAGS, &request) == 0;
    request.ifr_flags = static_cast<short>(isUp ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP);
    isDone = isDone && ioctl(control, SIOCSIFFLAGS, &request) == 0;
    close(control);
    return isDone;
}

static bool SetAddress(const std::string& link, const std::string& address)
{
    const int control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in value = {};
    value.sin_family = AF_INET;
    struct ifreq request = {};
    link.copy(request.ifr_name, IFNAMSIZ - 1);
    inet_pton(AF_INET, address.c_str(), &value.sin_addr);
    std::memcpy(&request.ifr_addr, &value, sizeof value);
    bool isDone = ioctl(control, SIOCSIFADDR, &request) == 0;
    inet_pton(AF_INET, "255.255.0.0", &value.sin_addr);
    std::memcpy(&request.ifr_netmask, &value, sizeof value);
    isDone = isDone && ioctl(control, SIOCSIFNETMASK, &request) == 0;
    close(control);
    return isDone;
}

static bool MountEmpty(const char* directory, const char* inside)
{
    return mount("tmpfs", directory, "tmpfs", 0, "mode=755,size=64m") == 0 && mkdir(inside, 0755) == 0;
}

// Makes the namespaces and keeps them. A byte on the line goes to and fro: they are there; the link is there; all is.
[[noreturn]] static void Keep(const std::string& name, const std::string& address, int line)
{
    char byte = 0;
    const bool isMade = unshare(CLONE_NEWNS | CLONE_NEWIPC | CLONE_NEWNET | CLONE_NEWUTS) == 0 &&
                        sethostname(name.c_str(), name.size()) == 0 &&
                        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                        MountEmpty("/opt/orv", "/opt/orv/bin") && MountEmpty("/var/orv", "/var/orv/data");
    if (!isMade || write(line, &byte, 1) != 1 || read(line, &byte, 1) != 1)
        _exit(1);
    for (const char* file : {"all", "default"}) // two hundred hosts would solicit routers
        std::ofstream("/proc/sys/net/ipv6/conf/" + std::string(file) + "/disable_ipv6") << 1;
    for (const char* server : {"orvd", "orvcentre"})
        testing_support::MakeKeyFile(server);
    if (!SetFlags("lo", true) || !SetAddress("eth0", address) || !SetFlags("eth0", true) || write(line, &byte, 1) != 1)
        _exit(1);
    for (;;)
        pause();
}

bool Hosts::MakeNetwork()
{
    const testing_support::TemporaryDirectory directory("/dev/shm");
    std::ofstream batch(directory.File("links"));
    batch << "link add fleet type bridge\naddress add " << BridgeAddress << "/16 dev fleet\nlink set fleet up\n";
    for (const Host& host : hosts)
        batch << "link add " << host.name << " type veth peer name eth0 netns " << host.keeper << "\nlink set "
              << host.name << " master fleet up\n";
    batch.close();
    const testing_support::ChildResult result =
        testing_support::RunProgram("/sbin/ip", {"-batch", directory.File("links")});
    if (result.exitCode != 0)
        std::fprintf(stderr, "fleetstorm: ip: %s\n", result.err.c_str());
    return result.exitCode == 0;
}

static bool Hear(int line)
{
    char byte = 0;
    return read(line, &byte, 1) == 1;
}

bool Hosts::Make(const std::vector<std::string>& names)
{
    const pid_t self = getpid();
    for (const std::string& name : names) {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
            return false;
        Host host;
        host.name = name;
        host.line = ends[0];
        host.keeper = fork();
        if (host.keeper == 0) {
            EndWithParent(self);
            close(ends[0]);
            Keep(name, Address(hosts.size()), ends[1]);
        }
        close(ends[1]);
        hosts.push_back(host);
        if (host.keeper < 0 || !Hear(host.line)) {
            std::fprintf(stderr, "fleetstorm: no namespaces for %s\n", name.c_str());
            return false;
        }
    }
    if (!MakeNetwork())
        return false;
    for (const Host& host : hosts)
        if (write(host.line, "", 1) != 1 || !Hear(host.line)) {
            std::fprintf(stderr, "fleetstorm: no network for %s\n", host.name.c_str());
            return false;
        }
    return true;
}

Hosts::~Hosts()
{
    for (const Host& host : hosts) {
        close(host.line);
        if (host.keeper > 0) {
            kill(host.keeper, SIGKILL);
            waitpid(host.keeper, nullptr, 0);
        }
    }
}

static bool Enter(pid_t keeper)
{
    for (const char* kind : {"ipc", "uts", "net", "mnt"}) {
        const int space = open(("/proc/" + std::to_string(keeper) + "/ns/" + kind).c_str(), O_RDONLY | O_CLOEXEC);
        const bool isDone = space >= 0 && setns(space, 0) == 0;
        close(space);
        if (!isDone)
            return false;
    }
    return chdir("/") == 0;
}

pid_t Hosts::Start(int host, const std::function<void()>& body) const
{
    const pid_t self = getpid();
    const pid_t child = fork();
    if (child == 0) {
        EndWithParent(self);
        if (!Enter(hosts[static_cast<size_t>(host)].keeper)) {
            std::perror("fleetstorm: setns");
            _exit(1);
        }
        body();
        _exit(0);
    }
    return child;
}

void Hosts::SetLink(int host, bool isUp) const { SetFlags(hosts[static_cast<size_t>(host)].name, isUp); }

} // namespace fleetstorm
