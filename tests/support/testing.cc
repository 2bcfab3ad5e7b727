// SPDX-License-Identifier: BSD-2-Clause
#include "tests/support/testing.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include <dirent.h>
#include <fcntl.h>
#include <regex.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testing_support {

namespace {

void FlushAll()
{
    std::cout.flush();
    std::cerr.flush();
    std::clog.flush();
    std::fflush(nullptr);
}

int OpenUnlinkedFile()
{
    FILE* file = std::tmpfile();
    const int fd = dup(fileno(file));
    std::fclose(file);
    return fd;
}

std::string Contents(int fd)
{
    std::string text;
    char block[4096];
    off_t position = 0;
    for (ssize_t n; (n = pread(fd, block, sizeof block, position)) > 0; position += n)
        text.append(block, static_cast<size_t>(n));
    return text;
}

} // namespace

std::string CaptureOutput(int fd, const std::function<void()>& body)
{
    FlushAll();
    const int file = OpenUnlinkedFile();
    const int saved = dup(fd);
    dup2(file, fd);
    body();
    FlushAll();
    dup2(saved, fd);
    close(saved);
    std::string text = Contents(file);
    close(file);
    return text;
}

pid_t StartChild(const std::function<void()>& body)
{
    FlushAll();
    const pid_t pid = fork();
    if (pid == 0) {
        body();
        FlushAll();
        _exit(0);
    }
    return pid;
}

static bool WaitForStatus(pid_t pid, int seconds, int* status)
{
    const bool ended = WaitUntil([&] { return waitpid(pid, status, WNOHANG) == pid; }, seconds);
    if (!ended) {
        kill(pid, SIGKILL);
        waitpid(pid, status, 0);
    }
    return ended;
}

void Execute(const std::string& program, const std::vector<std::string>& arguments)
{
    std::vector<char*> argv = {const_cast<char*>(program.c_str())};
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    execv(program.c_str(), argv.data());
    _exit(127);
}

ChildResult RunProgram(const std::string& program, const std::vector<std::string>& arguments, const std::string& input)
{
    return RunInChild([&] {
        dup2(open(input.c_str(), O_RDONLY), 0);
        Execute(program, arguments);
    });
}

std::string ProgramUnderTest(const std::string& path)
{
    const char* directory = std::getenv("ZELOO_PROGRAMS");
    return directory != nullptr ? directory + path.substr(path.rfind('/')) : path;
}

pid_t StartProgram(const std::string& program, const std::vector<std::string>& arguments, const std::string& output)
{
    return StartChild([&] {
        const int fd = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, 1);
        dup2(fd, 2);
        close(fd);
        Execute(program, arguments);
    });
}

int WaitForExit(pid_t pid, int seconds)
{
    int status = 0;
    WaitForStatus(pid, seconds, &status);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Without the line that an emulator of another processor adds when a signal ends what it runs.
static std::string WithoutEmulator(std::string text)
{
    const size_t start = text.rfind("qemu: uncaught target signal ");
    if (start != std::string::npos)
        text.erase(start, text.find('\n', start) - start + 1);
    return text;
}

ChildResult RunInChild(const std::function<void()>& body, int seconds, const std::function<void(pid_t)>& meanwhile)
{
    const int out = OpenUnlinkedFile();
    const int err = OpenUnlinkedFile();
    const pid_t pid = StartChild([&] {
        dup2(out, 1);
        dup2(err, 2);
        close(out);
        close(err);
        body();
    });
    if (meanwhile)
        meanwhile(pid);
    int status = 0;
    WaitForStatus(pid, meanwhile ? 1 : seconds, &status);
    ChildResult result;
    if (WIFEXITED(status))
        result.exitCode = WEXITSTATUS(status);
    else
        result.signal = WTERMSIG(status);
    result.out = Contents(out);
    result.err = WithoutEmulator(Contents(err));
    close(out);
    close(err);
    return result;
}

int EndChild(pid_t pid, int signal)
{
    kill(pid, signal);
    return WaitForExit(pid);
}

pid_t StartChildAt(pid_t wanted, const std::function<void()>& body)
{
    pid_t pid = -1;
    for (int attempt = 0; attempt < 10 && pid != wanted; attempt++) { // another process may be started in between
        if (pid > 0)
            EndChild(pid);
        WriteFile("/proc/sys/kernel/ns_last_pid", std::to_string(wanted - 1));
        pid = StartChild([&] {
            if (getpid() == wanted)
                body();
            else
                pause();
        });
    }
    return pid;
}

pid_t ZombieProcess()
{
    const pid_t pid = StartChild([] {});
    siginfo_t ended;
    waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT);
    return pid;
}

pid_t DeadProcess()
{
    const pid_t pid = StartChild([] {});
    WaitForExit(pid);
    return pid;
}

pid_t IdleProcess()
{
    return StartChild([] {
        for (;;)
            pause();
    });
}

void ChildFailed(const char* what, const char* file, int line)
{
    std::fprintf(stderr, "%s:%d: in a child process: %s (errno %d)\n", file, line, what, errno);
    FlushAll();
    _exit(1);
}

bool WaitUntil(const std::function<bool()>& condition, double seconds)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

std::string ReadFile(const std::string& path)
{
    if (!std::filesystem::is_regular_file(path))
        return ""; // a device such as /dev/full would never end
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void WriteFile(const std::string& path, const std::string& content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

TemporaryDirectory::TemporaryDirectory(const char* parent) : path(std::string(parent) + "/zeloo-test-XXXXXX")
{
    if (mkdtemp(path.data()) == nullptr) {
        std::perror("mkdtemp");
        std::abort();
    }
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

bool InSandbox()
{
    const char* kind = std::getenv("ZELOO_SANDBOX");
    return kind != nullptr && std::strcmp(kind, "private") == 0;
}

void MakeKeyFile(const std::string& serverName) { WriteFile("/opt/orv/bin/" + serverName, ""); }

int OpenDescriptors()
{
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        (void)entry;
        count++;
    }
    return count - 1; // less the one that reads the directory
}

static const char SetAside[] = "/dev/log.set-aside";

SyslogSink::SyslogSink() : fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    rename(address.sun_path, SetAside); // on the real paths this is the socket of the host's own daemon
    const int size = 1 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address) != 0)
        std::perror("bind /dev/log");
}

SyslogSink::~SyslogSink()
{
    close(fd);
    unlink("/dev/log");
    rename(SetAside, "/dev/log");
}

std::vector<std::string> SyslogSink::Records()
{
    std::vector<std::string> records;
    std::vector<char> block(1 << 20);
    for (ssize_t n; (n = recv(fd, block.data(), block.size(), MSG_DONTWAIT)) >= 0;) {
        std::string text(block.data(), static_cast<size_t>(n));
        const size_t priority = text.find('>');
        const size_t stamp = sizeof "Mon DD hh:mm:ss " - 1;
        records.push_back(text.substr(std::min(text.size(), priority + 1 + stamp)));
    }
    return records;
}

int CountOf(const std::string& text, const std::string& part)
{
    int count = 0;
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size())
        count++;
    return count;
}

std::string Replaced(const std::string& text, const char* pattern, const std::string& with)
{
    regex_t expression;
    regmatch_t match;
    if (regcomp(&expression, pattern, REG_EXTENDED) != 0)
        return "not a regular expression: " + std::string(pattern);
    std::string result;
    const char* at = text.c_str();
    for (; regexec(&expression, at, 1, &match, 0) == 0 && match.rm_eo > 0; at += match.rm_eo)
        result.append(at, static_cast<size_t>(match.rm_so)).append(with);
    regfree(&expression);
    return result + at;
}

std::string WithoutTimes(const std::string& text)
{
    return Replaced(text, "[0-9]{2}/[0-9]{2}/[0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2}", "<time>");
}

} // namespace testing_support
