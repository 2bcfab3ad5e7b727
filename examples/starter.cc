// SPDX-License-Identifier: BSD-2-Clause
#include "starter.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "Misc/misc.h"

static const char Serving = '\0';      // what is told when the daemon serves; otherwise it is the reason, a text
static const char Ready[] = "READY=1"; // what a service manager is told then
static const int LowestKept = 60;      // the descriptors below this one do not survive daemonize

Starter::~Starter()
{
    if (caller >= 0)
        close(caller);
}

// Waits for what the daemon tells, however long its start takes, and ends with it.
[[noreturn]] static void EndAsTold(int daemon, const std::string& name, const char* log)
{
    std::string told;
    char text[256];
    ssize_t n;
    while ((n = read(daemon, text, sizeof text)) > 0 || (n < 0 && errno == EINTR))
        if (n > 0)
            told.append(text, static_cast<std::size_t>(n));
    if (told == std::string(1, Serving))
        _exit(0);
    std::cerr << (told.empty() ? name + ": ended before it served; see " + log + "\n" : told) << std::flush;
    _exit(1);
}

int Starter::Daemonize(const char* log)
{
    const int fd = open(log, O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK, 0644); // a FIFO may have nobody who reads it
    if (fd < 0)
        return -Refuse(std::string("no way to write the log ") + log + ": " + std::strerror(errno));
    close(fd);
    if (getppid() == 1) // of the system's first process the caller is the daemon itself, see daemonize
        return daemonize(log, 1) == 0 ? 0 : -1;
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0) {
        caller = fcntl(ends[1], F_DUPFD_CLOEXEC, LowestKept);
        close(ends[1]);
    }
    const pid_t pid = caller >= 0 ? fork() : -1;
    if (pid < 0)
        return Refuse(std::string("no way into the background: ") + std::strerror(errno)), -1;
    if (pid > 0) {
        close(caller);
        EndAsTold(ends[0], name, log);
    }
    close(ends[0]);
    const short status = daemonize(log, 1);
    if (status == -1)
        Refuse(std::string("no way into the background with the log ") + log + ": " + std::strerror(errno));
    return status == 0 ? 0 : -1;
}

// A caller that has gone, or does not listen, is no reason to end. It waits for the end of what it is told, which a child
// of the daemon must not hold up.
static void Tell(int& caller, const std::string& text)
{
    if (caller < 0)
        return;
    send(caller, text.data(), text.size(), MSG_NOSIGNAL);
    shutdown(caller, SHUT_WR);
    close(caller);
    caller = -1;
}

// A service manager that waits until the daemon serves (systemd, Type=notify) names its socket in the environment: a path,
// or a name without a file behind "@". It counts on the process that it started itself.
static void TellServiceManager()
{
    const char* name = std::getenv("NOTIFY_SOCKET");
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::size_t length = name == nullptr ? 0 : std::strlen(name);
    if (length < 2 || length >= sizeof address.sun_path || (*name != '/' && *name != '@'))
        return;
    std::memcpy(address.sun_path, name, length);
    if (*name == '@')
        address.sun_path[0] = '\0';
    unsetenv("NOTIFY_SOCKET"); // it is no business of the commands that the daemon runs
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return;
    sendto(fd, Ready, sizeof Ready - 1, MSG_NOSIGNAL, reinterpret_cast<const struct sockaddr*>(&address),
           static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + length));
    close(fd);
}

void Starter::Serves()
{
    Tell(caller, std::string(1, Serving));
    TellServiceManager();
}

int Starter::Refuse(const std::string& reason)
{
    const std::string line = name + ": " + reason + "\n";
    std::cerr << line; // in one piece: several may be writing to the log
    Tell(caller, line);
    return 1;
}

int Starter::RefuseUnlocked(int error, const std::string& locked)
{
    const std::string file = locked + ".lock";
    return Refuse(error == EAGAIN ? "another " + name + " is running: " + file + " holds its process id"
                                  : "no way to take the lock " + file + ": " + std::strerror(error));
}
