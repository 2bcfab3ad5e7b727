// SPDX-License-Identifier: BSD-2-Clause
// Redirecting the standard streams, and becoming a daemon.
#include "Misc/misc.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/mobject.h"
#include "tests/support/testing.h"

using namespace testing_support;

namespace {

// ---- Descriptors ----

TEST(NumberOfOpenFiles, CountsTheDescriptorsBelow60)
{
    const ChildResult child = RunInChild([] {
        for (int fd = 3; fd < 100; fd++)
            close(fd);
        std::printf("%d", NumberOfOpenFiles());
        for (const int fd : {3, 59, 60, 61})
            CHILD_CHECK(dup2(1, fd) == fd);
        std::printf(" %d", NumberOfOpenFiles());
        close(0);
        std::printf(" %d\n", NumberOfOpenFiles());
    });
    EXPECT_EQ(child.out, "3 5 4\n");
}

// ---- redirectoutput ----

class RedirectTest : public testing::Test {
protected:
    RedirectTest() : log(directory.File("daemon.log")), old(log + ".old") {}

    short Redirect(short append) const { return redirectoutput(log.c_str(), append); }

    TemporaryDirectory directory;
    const std::string log;
    const std::string old;
};

TEST_F(RedirectTest, ANullNameDoesNothing)
{
    const ChildResult child = RunInChild([] {
        const int before = OpenDescriptors();
        const short result = redirectoutput(nullptr, 0) + redirectoutput(nullptr, 1);
        std::printf("%d %d", result, OpenDescriptors() - before);
        std::fprintf(stderr, "err");
    });
    EXPECT_EQ(child.out, "0 0");
    EXPECT_EQ(child.err, "err");
}

TEST_F(RedirectTest, PointsTheThreeAtAFreshFile)
{
    WriteFile(log, "earlier\n");
    WriteFile(old, "still earlier\n");
    const ChildResult child = RunInChild([this] {
        umask(022);
        std::printf("buffered ");
        std::cout << "before\n";
        const int descriptors = OpenDescriptors();
        const short result = Redirect(0);
        std::printf("%d %d\n", result, OpenDescriptors() - descriptors);
        std::fflush(stdout);
        std::cerr << "err\n";
        std::cout << "out" << std::endl;
        CHILD_CHECK(write(0, "in\n", 3) == 3);
        char c;
        CHILD_CHECK(read(0, &c, 1) == -1);
        CHILD_CHECK(errno == EBADF);
        CHILD_CHECK((fcntl(0, F_GETFL) & (O_APPEND | O_ACCMODE)) == O_WRONLY);
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.out, "buffered before\n");
    EXPECT_EQ(child.err, "");
    EXPECT_EQ(ReadFile(log), "0 0\nerr\nout\nin\n");
    EXPECT_EQ(ReadFile(old), "earlier\n");
    struct stat status;
    ASSERT_EQ(stat(log.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST_F(RedirectTest, AFifoIsOpenedOnlyWhereSomebodyReadsIt)
{
    ASSERT_EQ(mkfifo(log.c_str(), 0600), 0);
    const ChildResult alone = RunInChild([this] { CHILD_CHECK(Redirect(0) == -1 && errno == ENXIO); });
    EXPECT_EQ(alone.exitCode, 0) << alone.err;
    EXPECT_EQ(alone.err, std::string("Error opening log file.: ") + strerror(ENXIO) + "\n");
    const int reader = open(log.c_str(), O_RDONLY | O_NONBLOCK);
    const ChildResult child = RunInChild([this] {
        CHILD_CHECK(Redirect(1) == 0);
        CHILD_CHECK((fcntl(1, F_GETFL) & O_NONBLOCK) == 0);
        CHILD_CHECK(write(1, "text", 4) == 4);
    });
    EXPECT_EQ(child.exitCode, 0);
    char text[8] = "";
    EXPECT_EQ(read(reader, text, sizeof text), 4);
    EXPECT_STREQ(text, "text");
    close(reader);
}

TEST_F(RedirectTest, TwiceLeavesTheFirstLogAsOld)
{
    const ChildResult child = RunInChild([this] {
        CHILD_CHECK(Redirect(0) == 0);
        std::cout << "first\n";
        CHILD_CHECK(Redirect(0) == 0);
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(ReadFile(old), "first\n");
    ASSERT_EQ(access(log.c_str(), F_OK), 0);
    EXPECT_EQ(ReadFile(log), "");
}

TEST_F(RedirectTest, AppendGoesToTheEndOfTheFile)
{
    WriteFile(log, "earlier\n");
    const ChildResult child = RunInChild([this] {
        errno = EDOM;
        CHILD_CHECK(Redirect(1) == 0);
        CHILD_CHECK(errno == EDOM);
        WriteFile(log, "cut\n"); // output goes to the end also when another writes meanwhile
        std::cout << "out\n";
        CHILD_CHECK(fcntl(0, F_GETFL) & O_APPEND);
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(ReadFile(log), "cut\nout\n");
    EXPECT_NE(access(old.c_str(), F_OK), 0);
}

TEST_F(RedirectTest, AppendMakesAFileToo)
{
    const ChildResult child = RunInChild([this] {
        CHILD_CHECK(Redirect(-1) == 0);
        std::cout << "out\n";
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(ReadFile(log), "out\n");
}

TEST_F(RedirectTest, ARenameThatFailsIsSilent)
{
    ASSERT_EQ(mkdir(old.c_str(), 0755), 0);
    WriteFile(log, "earlier\n");
    const ChildResult child = RunInChild([this] { CHILD_CHECK(Redirect(0) == 0); });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.out + child.err, "");
    EXPECT_EQ(ReadFile(log), "") << "the file is cut all the same";
}

TEST_F(RedirectTest, RenamesRegularFilesOnly)
{
    ASSERT_EQ(mkfifo(log.c_str(), 0644), 0);
    const ChildResult child = RunInChild([this] {
        const int reader = open(log.c_str(), O_RDONLY | O_NONBLOCK);
        CHILD_CHECK(Redirect(0) == 0);
        CHILD_CHECK(write(1, "out", 3) == 3);
        char text[4] = "";
        CHILD_CHECK(read(reader, text, 3) == 3);
        CHILD_CHECK(std::string(text) == "out");
    });
    EXPECT_EQ(child.exitCode, 0); // a device would be the host's own: the test must not be able to lose it
    struct stat status;
    ASSERT_EQ(stat(log.c_str(), &status), 0);
    EXPECT_TRUE(S_ISFIFO(status.st_mode));
    EXPECT_NE(access(old.c_str(), F_OK), 0);
}

TEST_F(RedirectTest, ALinkIsRenamedWhenItIsOneToARegularFile)
{
    const std::string target = directory.File("target");
    WriteFile(target, "earlier\n");
    ASSERT_EQ(symlink("target", log.c_str()), 0);
    EXPECT_EQ(RunInChild([this] { CHILD_CHECK(Redirect(0) == 0); }).exitCode, 0);
    EXPECT_EQ(ReadFile(old), "earlier\n");
    EXPECT_EQ(ReadFile(target), "earlier\n") << "nothing of it is cut";
    std::remove(log.c_str());
    ASSERT_EQ(symlink("/dev/null", log.c_str()), 0);
    EXPECT_EQ(RunInChild([this] { CHILD_CHECK(Redirect(0) == 0); }).exitCode, 0);
    EXPECT_EQ(std::filesystem::read_symlink(log), "/dev/null");
}

TEST_F(RedirectTest, AFileThatDoesNotOpenIsReported)
{
    for (const short append : {0, 1}) {
        const ChildResult child = RunInChild([append] {
            const short result = redirectoutput("/nosuch/daemon.log", append);
            std::printf("%d %d\n", result, fcntl(0, F_GETFD));
        });
        EXPECT_EQ(child.out, "-1 -1\n") << "standard input is closed";
        EXPECT_EQ(child.err, "Error opening log file.: No such file or directory\n");
    }
}

TEST_F(RedirectTest, ADescriptorThatCannotBeRedirectedIsReported)
{
    // The system has no descriptors from the limit on.
    for (const auto& [limit, text] :
         std::vector<std::pair<unsigned long, std::string>>{{0, "Error opening log file.: Too many open files\n"},
                                                            {1, "Error redirecting stdout.: Bad file descriptor\n"},
                                                            {2, "Error redirecting stderr.: Bad file descriptor\n"}}) {
        const ChildResult child = RunInChild([limit = limit, name = log.c_str()] {
            LimitDescriptors(limit);
            CHILD_CHECK(redirectoutput(name, 1) == -1);
        });
        EXPECT_EQ(child.exitCode, 0);
        EXPECT_EQ(child.err, text);
    }
}

// Standard input is the log file by then, so that only a refusal of the system shows this text.
TEST_F(RedirectTest, AnInputThatCannotBeRedirectedIsReported)
{
#ifdef SYS_dup2
    const ChildResult child = RunInChild([this] {
        MakeCallsFail({SYS_dup2}, EBUSY);
        CHILD_CHECK(Redirect(1) == -1);
    });
    if (child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no system call filters here";
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.err, "Error redirecting stdin.: Device or resource busy\n");
#else
    GTEST_SKIP() << "no such system call here";
#endif
}

// ---- daemonize ----

// Runs `body` in a child of its own, which is to become a daemon, and waits for the end of that child and of every
// process that came from it: they hold a pipe open that closes with the last of them. A daemon closes the descriptors
// below 60, so it is kept above these.
ChildResult RunDaemon(const std::function<void()>& body)
{
    int ends[2];
    if (pipe(ends) != 0)
        std::abort();
    ChildResult child = RunInChild([&] {
        CHILD_CHECK(fcntl(ends[1], F_DUPFD, 100) >= 0);
        close(ends[1]);
        body();
        std::cout.flush();
        std::fflush(nullptr);
    });
    close(ends[1]);
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    char c;
    EXPECT_TRUE(WaitUntil([&] { return read(ends[0], &c, 1) == 0; })) << "a daemon is still there";
    close(ends[0]);
    return child;
}

bool Ignored(int sig)
{
    struct sigaction action;
    return sigaction(sig, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

// Prints how the process stands.
void TellState(short result, int error)
{
    std::printf("result %d errno %d files %d\n", result, error, NumberOfOpenFiles());
    const mode_t mask = umask(0);
    std::printf("mask %o\n", static_cast<unsigned>(mask));
    std::printf("leads session %d leads group %d\n", getsid(0) == getpid(), getpgrp() == getpid());
    const int terminal = open("/dev/tty", O_RDWR);
    std::printf("terminal %d\n", terminal >= 0);
    if (terminal >= 0)
        close(terminal);
    std::printf("ignored:");
    for (const int sig : {SIGTTOU, SIGTTIN, SIGTSTP, SIGHUP, SIGCLD, SIGTERM})
        std::printf(" %d", Ignored(sig));
    sigset_t blocked;
    sigprocmask(SIG_SETMASK, nullptr, &blocked);
    std::printf("\nblocked %d\n", sigismember(&blocked, SIGHUP));
    std::fflush(stdout);
}

// Prints what becomes of a child that ends: nothing is left to wait for.
void TellChild()
{
    const pid_t pid = StartChild([] {});
    const pid_t waited = waitpid(pid, nullptr, 0);
    const int error = errno;
    std::printf("child %d %d %d\n", waited == -1, error == ECHILD, kill(pid, 0) == -1 && errno == ESRCH);
    std::fflush(stdout);
}

// The process gets a session and a terminal of its own.
void GetTerminal()
{
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    CHILD_CHECK(master >= 0);
    CHILD_CHECK(grantpt(master) == 0);
    CHILD_CHECK(unlockpt(master) == 0);
    CHILD_CHECK(setsid() >= 0);
    fcntl(master, F_DUPFD, 100); // what closes the last one hangs the terminal up
    const int slave = open(ptsname(master), O_RDWR);
    CHILD_CHECK(slave >= 0);
    CHILD_CHECK((ioctl(slave, TIOCSCTTY, 0), open("/dev/tty", O_RDWR)) >= 0);
}

class DaemonTest : public RedirectTest {
protected:
    // Standard error of a process that outlives its caller.
    void KeepErrors() const { dup2(open(err.c_str(), O_WRONLY | O_CREAT, 0644), 2); }

    const std::string told = directory.File("told"); // what a process without standard output says
    const std::string err = directory.File("err");
};

TEST_F(DaemonTest, LeavesTerminalSessionAndParent)
{
    const ChildResult child = RunDaemon([this] {
        GetTerminal();
        umask(027);
        std::printf("buffered");
        const pid_t caller = getpid();
        const pid_t session = getsid(0);
        const short result = daemonize(log.c_str(), 0);
        TellState(result, errno);
        std::printf("another process %d another session %d\n", getpid() != caller, getsid(0) != session);
        std::printf("parent %d\n", WaitUntil([] { return getppid() == 1; }));
        TellChild();
        std::cerr << "err\n";
        std::cout << "out\n";
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.out, "buffered");
    EXPECT_EQ(child.err, "");
    EXPECT_EQ(ReadFile(log), "result 0 errno 0 files 3\n"
                             "mask 0\n"
                             "leads session 0 leads group 0\n"
                             "terminal 0\n"
                             "ignored: 1 1 1 1 1 0\n"
                             "blocked 0\n"
                             "another process 1 another session 1\n"
                             "parent 1\n"
                             "child 1 1 1\n"
                             "err\nout\n");
}

TEST_F(DaemonTest, CanNeverGetATerminalAgain)
{
    const ChildResult child = RunDaemon([this] {
        CHILD_CHECK(daemonize(log.c_str(), 0) == 0);
        const int master = posix_openpt(O_RDWR | O_NOCTTY);
        grantpt(master);
        unlockpt(master);
        const int slave = open(ptsname(master), O_RDWR); // a session leader without a terminal gets it
        std::printf("%d %d\n", slave >= 0, open("/dev/tty", O_RDWR) >= 0);
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(ReadFile(log), "1 0\n");
}

TEST_F(DaemonTest, RotatesOrAppends)
{
    WriteFile(log, "earlier\n");
    const auto run = [this](short append, const char* text) {
        return RunDaemon([=] {
                   if (daemonize(log.c_str(), append) == 0)
                       std::puts(text);
               })
            .exitCode;
    };
    EXPECT_EQ(run(1, "appended"), 0);
    EXPECT_EQ(ReadFile(log), "earlier\nappended\n");
    EXPECT_NE(access(old.c_str(), F_OK), 0);
    EXPECT_EQ(run(0, "fresh"), 0);
    EXPECT_EQ(ReadFile(log), "fresh\n");
    EXPECT_EQ(ReadFile(old), "earlier\nappended\n");
    struct stat status;
    ASSERT_EQ(stat(log.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST_F(DaemonTest, ClosesTheDescriptorsBelow60Only)
{
    const ChildResult child = RunDaemon([this] {
        for (const int fd : {3, 7, 59, 60, 61})
            dup2(1, fd);
        const short result = daemonize(log.c_str(), 0);
        std::printf("%d", result);
        for (const int fd : {3, 7, 59, 60, 61})
            std::printf(" %d", fcntl(fd, F_GETFD) >= 0);
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(ReadFile(log), "0 0 0 0 1 1");
}

TEST_F(DaemonTest, WithoutALogFileNothingIsOpen)
{
    const ChildResult child = RunDaemon([&] {
        const short result = daemonize(nullptr, 0);
        const int error = errno;
        WriteFile(told,
                  std::to_string(result) + " " + std::to_string(error) + " " + std::to_string(NumberOfOpenFiles()));
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.out + child.err, "");
    EXPECT_EQ(ReadFile(told), "0 0 0");
}

TEST_F(DaemonTest, ALogFileThatDoesNotOpenIsAFailure)
{
    const ChildResult child = RunDaemon([&] {
        const short result = daemonize("/nosuch/daemon.log", 0);
        WriteFile(told, std::to_string(result) + " " + std::to_string(NumberOfOpenFiles()));
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.err, "") << "standard error is closed by then";
    EXPECT_EQ(ReadFile(told), "-1 0");
}

// The parent goes without its destructors: what they would release is the daemon's.
TEST_F(DaemonTest, TheParentRunsNoExitHandlers)
{
    const ChildResult child = RunDaemon([this] {
        std::atexit([] { std::puts("handler"); });
        if (daemonize(log.c_str(), 0) == 0)
            std::puts("daemon");
        std::exit(0);
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.out, "");
    EXPECT_EQ(ReadFile(log), "daemon\nhandler\n");
}

// No handler of the caller runs in the two processes that are left behind, whatever comes between fork and end.
TEST_F(DaemonTest, ASignalOnTheWayRunsNoHandler)
{
    const ChildResult child = RunDaemon([&] {
        std::atexit([] { std::puts("handler"); });
        signal(SIGINT, [](int) { std::exit(3); });
        pthread_atfork(
            nullptr, [] { raise(SIGINT); }, nullptr);
        const short result = daemonize(log.c_str(), 0);
        sigset_t blocked;
        sigprocmask(SIG_SETMASK, nullptr, &blocked);
        std::printf("daemon %d %d", result, sigismember(&blocked, SIGINT));
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.out, "");
    EXPECT_EQ(ReadFile(log), "daemon 0 0");
}

// The working directory is the caller's, and SIGHUP is ignored until somebody handles it.
TEST_F(DaemonTest, KeepsItsDirectoryAndIgnoresHangUps)
{
    const ChildResult child = RunDaemon([this] {
        CHILD_CHECK(chdir(directory.Path().c_str()) == 0);
        CHILD_CHECK(daemonize("daemon.log", 0) == 0);
        raise(SIGHUP);
        char path[PATH_MAX];
        std::printf("%d", getcwd(path, sizeof path) != nullptr && directory.Path() == path);
        std::fflush(stdout);
        MonitoredObject object;
        raise(SIGHUP);
        std::printf(" not ended");
        std::fflush(stdout);
    });
    EXPECT_EQ(child.exitCode, 0);
    const std::string text = ReadFile(log);
    EXPECT_EQ(text.substr(0, 1), "1") << text;
    EXPECT_EQ(text.find(" not ended"), std::string::npos) << text;
}

TEST_F(DaemonTest, AChildOfProcessOneIsADaemonAlready)
{
    if (!InSandbox())
        GTEST_SKIP() << "the sandbox has a process 1 that adopts orphans";
    WriteFile(log, "earlier\n");
    const ChildResult child = RunDaemon([&] {
        if (fork() != 0)
            _exit(0);
        CHILD_CHECK(WaitUntil([] { return getppid() == 1; }));
        KeepErrors();
        umask(027);
        const pid_t before = getpid();
        const pid_t group = getpgrp();
        const short result = daemonize(log.c_str(), 0);
        TellState(result, errno);
        std::printf("same process %d same group %d\n", getpid() == before, getpgrp() == group);
        TellChild();
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.out, "");
    EXPECT_EQ(ReadFile(err), "Already a daemon. ppid is 1.\n");
    EXPECT_EQ(ReadFile(old), "earlier\n");
    const std::string state = ReadFile(log);
    EXPECT_EQ(Replaced(state, "terminal [01]\n", ""), // that of the tester
              "result 0 errno 0 files 3\n"
              "mask 0\n"
              "leads session 0 leads group 0\n"
              "ignored: 0 0 0 0 1 0\n"
              "blocked 0\n"
              "same process 1 same group 1\n"
              "child 1 1 1\n");
}

TEST_F(DaemonTest, AForkThatFailsLeavesTheCallerAsItWas)
{
    const ChildResult child = RunDaemon([this] {
        MakeCallsFail({SYS_clone}, EAGAIN);
        const int before = NumberOfOpenFiles();
        std::printf("%d", daemonize(log.c_str(), 0));
        sigset_t blocked;
        sigprocmask(SIG_SETMASK, nullptr, &blocked);
        std::printf(" %d %d\n", before - NumberOfOpenFiles(), sigismember(&blocked, SIGHUP));
    });
    if (child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no system call filters here";
    EXPECT_EQ(child.out, "-1 0 0\n");
    EXPECT_EQ(child.err, "Can't fork first child: Resource temporarily unavailable\n");
    EXPECT_NE(access(log.c_str(), F_OK), 0);
}

TEST_F(DaemonTest, ASecondForkThatFailsIsReportedByTheFirstChild)
{
    if (RunInChild([] { MakeCallsFail({SYS_clone}, EAGAIN); }).exitCode == NotPossibleHere)
        GTEST_SKIP() << "no system call filters here";
    const ChildResult child = RunDaemon([&] {
        KeepErrors();
        pthread_atfork(nullptr, nullptr, [] { MakeCallsFail({SYS_clone}, EAGAIN); }); // in the first child
        const int before = NumberOfOpenFiles();
        const short result = daemonize(log.c_str(), 0);
        WriteFile(told, std::to_string(result) + " " + std::to_string(before - NumberOfOpenFiles()) + " " +
                            std::to_string(getsid(0) == getpid()) + " " + std::to_string(Ignored(SIGHUP)));
    });
    EXPECT_EQ(child.exitCode, 0) << "that of the caller, which is gone";
    EXPECT_EQ(ReadFile(told), "-1 0 1 1");
    EXPECT_EQ(ReadFile(err), "Can't fork second child: Resource temporarily unavailable\n");
    EXPECT_NE(access(log.c_str(), F_OK), 0);
}

TEST_F(DaemonTest, ASessionThatCannotBeMadeIsReported)
{
    const ChildResult child = RunDaemon([&] {
        KeepErrors();
        MakeCallsFail({SYS_setsid}, EPERM);
        const short result = daemonize(log.c_str(), 0);
        WriteFile(told, std::to_string(result) + " " + std::to_string(Ignored(SIGHUP)));
    });
    if (child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no system call filters here";
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(ReadFile(told), "-2 0");
    EXPECT_EQ(ReadFile(err), "can't change process group\n");
    EXPECT_NE(access(log.c_str(), F_OK), 0);
}

} // namespace
