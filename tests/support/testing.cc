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
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Misc/Error.h"

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

ChildResult RunInChild(const std::function<void()>& body, int seconds)
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
    int status = 0;
    WaitForStatus(pid, seconds, &status);
    ChildResult result;
    if (WIFEXITED(status))
        result.exitCode = WEXITSTATUS(status);
    else
        result.signal = WTERMSIG(status);
    result.out = Contents(out);
    result.err = Contents(err);
    close(out);
    close(err);
    return result;
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

TemporaryDirectory::TemporaryDirectory()
{
    char name[] = "/tmp/zeloo-test-XXXXXX";
    if (mkdtemp(name) == nullptr) {
        std::perror("mkdtemp");
        std::abort();
    }
    path = name;
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

void MakeKeyFile(const std::string& serverName)
{
    WriteFile("/opt/orv/bin/" + serverName, "");
}

int OpenDescriptors()
{
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        (void)entry;
        count++;
    }
    return count - 1; // less the one that reads the directory
}

long VirtualSize()
{
    return std::atol(ReadFile("/proc/self/statm").c_str()) * sysconf(_SC_PAGESIZE);
}

static unsigned long LimitVirtualSize(unsigned long bytes)
{
    struct rlimit limit;
    getrlimit(RLIMIT_AS, &limit);
    const unsigned long earlier = limit.rlim_cur;
    limit.rlim_cur = bytes;
    if (setrlimit(RLIMIT_AS, &limit) != 0) {
        std::perror("setrlimit");
        std::abort();
    }
    return earlier;
}

MemoryLimit::MemoryLimit(long more) : earlier(LimitVirtualSize(static_cast<unsigned long>(VirtualSize() + more)))
{
}

MemoryLimit::~MemoryLimit()
{
    LimitVirtualSize(earlier);
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

std::string ReportField(const std::string& output, const std::string& label)
{
    const size_t at = output.find(label);
    if (at == std::string::npos)
        return "";
    const size_t start = at + label.size();
    return output.substr(start, output.find('\n', start) - start);
}

std::string WarningReport(const std::string& unit, const std::string& type, int error, const std::string& description)
{
    const std::string code =
        error == 0 ? "Application Error." : std::to_string(error) + " : " + ErrorReporter::GetErrorDesc(error);
    return "\nErrorReporter: <time>  Total Error Count= <count>\n"
           "  Program=\n"
           "  Severity Level=WARNING\n"
           "  Error Type= " +
           type +
           "\n"
           "  Error Code= " +
           code +
           "\n"
           "  Module= $Id: " +
           unit +
           ".cc,v 1.1 2026/11/21 12:00:00 orv Exp $\n"
           "  Line= <line>\n"
           "  Description= " +
           description + "\n\n";
}

std::string WithoutVariables(const std::string& reports)
{
    const std::string text = Replaced(WithoutTimes(reports), "Count= [0-9]+", "Count= <count>");
    return Replaced(text, "Line= [1-9][0-9]*", "Line= <line>");
}

bool MakeForksFail()
{
    // The first child in a new process id namespace is its init; when that is gone there can be no others.
    if (unshare(CLONE_NEWPID) != 0)
        return false;
    const pid_t init = fork();
    if (init == 0)
        _exit(0);
    waitpid(init, nullptr, 0);
    return true;
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
