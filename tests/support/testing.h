// SPDX-License-Identifier: BSD-2-Clause
// What the tests share: captured output, child processes, files and a syslog daemon's socket; and, from the headers
// that it includes, hosts that refuse and the texts of reports.
#ifndef TESTS_SUPPORT_TESTING_H
#define TESTS_SUPPORT_TESTING_H

#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "tests/support/refusals.h"
#include "tests/support/reports.h"

namespace testing_support {

/// What `body` writes to a file descriptor, through streams, stdio or write(2).
std::string CaptureOutput(int fd, const std::function<void()>& body);
inline std::string CaptureStdout(const std::function<void()>& body) { return CaptureOutput(1, body); }
inline std::string CaptureStderr(const std::function<void()>& body) { return CaptureOutput(2, body); }

/// How a child process ended and what it wrote.
struct ChildResult {
    int exitCode = -1; // -1 when a signal ended it
    int signal = 0;    // the signal that ended it, or 0
    std::string out;
    std::string err;
};

/// Runs `body` in a forked child with its output captured, and waits for its end. The child leaves with _exit(0)
/// when `body` returns; it runs no test clean-up. A child still alive after `seconds` is killed. `meanwhile` is called
/// with the child's process id once it runs, and looks after it.
ChildResult RunInChild(const std::function<void()>& body, int seconds = 60,
                       const std::function<void(pid_t)>& meanwhile = {});

/// Forks a child that runs `body` and leaves with _exit(0). The caller reaps it (see WaitForExit).
pid_t StartChild(const std::function<void()>& body);
/// Makes the process a program, with its path and arguments; the process ends with 127 when that fails.
[[noreturn]] void Execute(const std::string& program, const std::vector<std::string>& arguments);
/// Runs a program to its end, as RunInChild does, with the file `input` as its standard input.
ChildResult RunProgram(const std::string& program, const std::vector<std::string>& arguments,
                       const std::string& input = "/dev/null");
/// The program to test in place of `path`, which was built with the test: the one of its name in the directory that the
/// environment variable ZELOO_PROGRAMS names, or `path` itself when it names none.
std::string ProgramUnderTest(const std::string& path);
/// Starts a program with its output in the file `output`.
pid_t StartProgram(const std::string& program, const std::vector<std::string>& arguments, const std::string& output);
/// Waits for a child; its exit code, or 128 + the signal that ended it. A child alive after `seconds` is killed.
int WaitForExit(pid_t pid, int seconds = 60);
/// Sends a child a signal and waits for it, with the same result.
int EndChild(pid_t pid, int signal = SIGKILL);
/// StartChild with a process id of one's choice, in the sandbox, which nobody has.
pid_t StartChildAt(pid_t wanted, const std::function<void()>& body);
/// A child that has ended and is not waited for.
pid_t ZombieProcess();
/// The process id of a child that has ended and was waited for.
pid_t DeadProcess();
/// Forks a child that waits for signals only. The caller ends it.
pid_t IdleProcess();

/// In a child process: ends it with exit code 1 and a line that says where, when `condition` does not hold.
#define CHILD_CHECK(condition) ((condition) ? void() : testing_support::ChildFailed(#condition, __FILE__, __LINE__))
[[noreturn]] void ChildFailed(const char* what, const char* file, int line);

/// Waits until `condition` holds, looking every few milliseconds. False when it does not within `seconds`.
bool WaitUntil(const std::function<bool()>& condition, double seconds = 20);

/// The whole content of a regular file; empty when there is none.
std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);

/// A directory that goes with the object, contents included.
class TemporaryDirectory {
public:
    /// Below `parent`. What lies in /dev/shm is never on a disk.
    explicit TemporaryDirectory(const char* parent = "/tmp");
    ~TemporaryDirectory();
    const std::string& Path() const { return path; }
    std::string File(const std::string& name) const { return path + "/" + name; }

private:
    std::string path;
};

/// Whether the test runs in a sandbox of its own, where the fixed paths of the library are private.
bool InSandbox();

/// Creates the key file of a server name under /opt/orv/bin.
void MakeKeyFile(const std::string& serverName);

/// The number of open descriptors of this process.
int OpenDescriptors();

/// The receiving end of syslog: binds /dev/log (of the sandbox) and collects the datagrams sent to it.
class SyslogSink {
public:
    SyslogSink();
    ~SyslogSink();
    /// The records received since the last call, without the "<PRI>Mon DD hh:mm:ss " that the C library puts first.
    std::vector<std::string> Records();

private:
    int fd;
};

/// How many times `part` stands in `text`.
int CountOf(const std::string& text, const std::string& part);

/// `text` with every match of a POSIX extended regular expression replaced.
std::string Replaced(const std::string& text, const char* pattern, const std::string& with);

/// `text` with every "MM/DD/YYYY hh:mm:ss" replaced by "<time>".
std::string WithoutTimes(const std::string& text);

} // namespace testing_support

#endif
