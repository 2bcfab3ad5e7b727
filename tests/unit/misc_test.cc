#include "Misc/misc.h"

#include <cstdio>
#include <cstdlib>

#include "Misc/cstring.h"

// A static object of another unit asks for a node before main and after it, in a process of its own. It stands before
// the other headers, so that nothing but the library's own has made the standard streams ready.
static struct EarlyAndLateUser {
    EarlyAndLateUser() { Ask(); }
    ~EarlyAndLateUser() { Ask(); }
    static void Ask()
    {
        if (std::getenv("MISC_TEST_STATICS") == nullptr)
            return;
        CString option;
        const int rejected = GetAccessOptionForNode("alpha", "none", option);
        std::printf("%d %s\n", rejected, static_cast<const char*>(option));
        std::fflush(stdout);
    }
} earlyAndLateUser;

#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/mobject.h"
#include "Misc/proginfo.h"
#include "tests/support/failing_memory.h"
#include "tests/support/testing.h"

using namespace testing_support;

// The resolver of this host gives Internet addresses only; of this one name it gives those of another family.
hostent* gethostbyname(const char* name)
{
    static const auto resolve = reinterpret_cast<hostent* (*)(const char*)>(dlsym(RTLD_NEXT, "gethostbyname"));
    static char official[] = "foreign.example";
    static char address[] = "\1\2\3\4";
    static char* addresses[] = {address, nullptr};
    static hostent foreign = {official, addresses + 1, 25, 4, addresses};
    return std::strcmp(name, "foreign") == 0 ? &foreign : resolve(name);
}

namespace {

const char NodesFile[] = "/var/orv/data/orvnodes.dat";

// ---- Descriptors

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

// ---- redirectoutput

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

// ---- daemonize

// Runs `body` in a child of its own, which is to become a daemon, and waits for the end of that child and of every
// process that came from it: they hold a pipe open that closes with the last of them. A daemon closes the descriptors
// below 60, so it is kept above these.
ChildResult RunDaemon(const std::function<void()>& body)
{
    int ends[2];
    if (pipe(ends) != 0)
        std::abort();
    const ChildResult child = RunInChild([&] {
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

class DaemonTest : public RedirectTest {};

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
    const std::string told = directory.File("told");
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
    const std::string told = directory.File("told");
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

TEST_F(DaemonTest, AChildOfProcessOneIsADaemonAlready)
{
    if (!InSandbox())
        GTEST_SKIP() << "the sandbox has a process 1 that adopts orphans";
    WriteFile(log, "earlier\n");
    const ChildResult child = RunDaemon([&] {
        if (fork() != 0)
            _exit(0);
        CHILD_CHECK(WaitUntil([] { return getppid() == 1; }));
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

TEST_F(DaemonTest, AChildOfProcessOneIsTold)
{
    if (!InSandbox())
        GTEST_SKIP() << "the sandbox has a process 1 that adopts orphans";
    const std::string err = directory.File("err");
    RunDaemon([&] {
        if (fork() != 0)
            _exit(0);
        CHILD_CHECK(WaitUntil([] { return getppid() == 1; }));
        dup2(open(err.c_str(), O_WRONLY | O_CREAT, 0644), 2);
        daemonize(nullptr, 0);
    });
    EXPECT_EQ(ReadFile(err), "Already a daemon. ppid is 1.\n");
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
    const std::string told = directory.File("told");
    const std::string err = directory.File("err");
    const ChildResult child = RunDaemon([&] {
        dup2(open(err.c_str(), O_WRONLY | O_CREAT, 0644), 2);
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
    const std::string told = directory.File("told");
    const std::string err = directory.File("err");
    const ChildResult child = RunDaemon([&] {
        dup2(open(err.c_str(), O_WRONLY | O_CREAT, 0644), 2);
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

// ---- Hosts and nodes

#define NEED_PRIVATE_FILES()                                                                                           \
    if (!InSandbox())                                                                                                  \
    GTEST_SKIP() << "needs /etc/hosts and /var/orv/data of its own"

// The host table and the node list of the test. Each question is asked in a process of its own, whose lists are new.
class NodesTest : public testing::Test {
protected:
    void SetUp() override
    {
        NEED_PRIVATE_FILES();
        static char name[] = "/opt/orv/bin/orvd";
        static char* const argv[] = {name, nullptr};
        ProgInfo::Initialize(1, argv, nullptr, "2.0");
        hosts = ReadFile("/etc/hosts");
        WriteFile("/etc/hosts", "127.0.0.1 localhost\n"
                                "10.9.8.1 alpha alias\n"
                                "10.9.8.2 beta\n"
                                "10.9.8.3 many\n"
                                "10.9.8.4 many\n"
                                "10.9.8.5 more\n"
                                "10.9.8.4 more\n"
                                "10.9.9.4 last\n"
                                "2001:db8::1 six\n");
        unlink(NodesFile);
    }
    void TearDown() override
    {
        if (!InSandbox())
            return;
        WriteFile("/etc/hosts", hosts);
        unlink(NodesFile);
    }

    std::string hosts;
};

// Gives the node list a new content and the modification time `time`.
void SetNodes(const std::string& content, long time)
{
    WriteFile(NodesFile, content);
    const timespec times[2] = {{time, 0}, {time, 0}};
    utimensat(AT_FDCWD, NodesFile, times, 0);
}

// Asks for a node and prints the result and the option.
void Ask(const char* node, const char* standard = "none")
{
    CString option("untouched");
    const int rejected = GetAccessOptionForNode(node, standard, option);
    std::cout << rejected << " [" << static_cast<const char*>(option) << "]" << std::endl;
}

// What `body` prints in a child whose lists are new; there is nothing on standard error.
std::string Told(const std::function<void()>& body)
{
    const ChildResult child = RunInChild(body);
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.err, "");
    return child.out;
}

// A report with everything that changes taken out.
std::string Report(int count, const char* severity, const char* type, const char* code, const std::string& description)
{
    return DisplayedReport({"misc", type, description, severity, code, "/opt/orv/bin/orvd", std::to_string(count)});
}

std::string Reports(const std::string& err)
{
    return Replaced(WithoutTimes(err), "Line= [0-9]+", "Line= <line>");
}

// What the resolver leaves in errno is its own affair.
std::string WithoutErrorCodes(const std::string& text)
{
    return Replaced(text, "Error Code= [^\n]*", "Error Code= <code>");
}

std::string Rejection(int count, const std::string& node)
{
    return Report(count, "WARNING_WITH_LOG", "Receiving fault message from an invalid node", "<code>",
                  "ORV rejected message from invalid node " + node);
}

const char* const OutOfMemory = "Memory allocation failed.";
const char* const NoFile = "No orvnodes.dat file.";
const char* const NoFileCode = "2 : No such file or directory";

TEST_F(NodesTest, GetHostFindsInternetAddressesOnly)
{
    EXPECT_EQ(Told([] {
                  const hostent* host = GetHost("many");
                  std::printf("%s %d %d", host->h_name, host->h_addrtype == AF_INET, host->h_length);
                  for (char** address = host->h_addr_list; *address != nullptr; address++)
                      std::printf(" %s", inet_ntoa(*reinterpret_cast<in_addr*>(*address)));
                  std::printf("\n%d %d %d\n", GetHost("nosuchhost") == nullptr, GetHost("six") == nullptr,
                              GetHost(nullptr) == nullptr);
              }),
              "many 1 4 10.9.8.3 10.9.8.4\n1 1 1\n");
}

TEST_F(NodesTest, GetHostTellsAFailureAtLevel4)
{
    EXPECT_EQ(Told([] {
                  for (const short level : {3, 4, 5}) {
                      MonitoredObject::SetDebugLevel(level);
                      GetHost("no%shost%n");
                      GetHost(nullptr);
                      GetHost("alpha");
                  }
              }),
              "WARNING: gethostbyname failed for host no%shost%n\nWARNING: gethostbyname failed for host \n"
              "WARNING: gethostbyname failed for host no%shost%n\nWARNING: gethostbyname failed for host \n");
}

TEST_F(NodesTest, AddrEqualComparesEveryAddress)
{
    EXPECT_EQ(AddrEqual("alpha", "alpha"), 1);
    EXPECT_EQ(AddrEqual("alias", "alpha"), 1);
    EXPECT_EQ(AddrEqual("alpha", "10.9.8.1"), 1);
    EXPECT_EQ(AddrEqual("alpha", "beta"), 0);
    EXPECT_EQ(AddrEqual("many", "more"), 1);
    EXPECT_EQ(AddrEqual("more", "many"), 1);
    EXPECT_EQ(AddrEqual("many", "10.9.8.4"), 1);
    EXPECT_EQ(AddrEqual("many", "last"), 0) << "all four bytes count";
    EXPECT_EQ(AddrEqual("last", "10.9.8.4"), 0);
    EXPECT_EQ(AddrEqual("nosuchhost", "alpha"), 0);
    EXPECT_EQ(AddrEqual("alpha", "nosuchhost"), 0);
    EXPECT_EQ(AddrEqual("nosuchhost", "nosuchhost"), 0);
    EXPECT_EQ(AddrEqual(nullptr, "alpha"), 0);
    EXPECT_EQ(AddrEqual("alpha", nullptr), 0);
}

TEST_F(NodesTest, AddressesOfAnotherFamilyAreReported)
{
    const ChildResult child = RunInChild([] {
        MonitoredObject::SetDebugLevel(4); // the name did resolve
        std::printf("%d %d %d\n", GetHost("foreign") == nullptr, AddrEqual("foreign", "alpha"),
                    AddrEqual("alpha", "foreign"));
    });
    EXPECT_EQ(child.out, "1 0 0\n");
    std::string reports;
    for (const int count : {1, 2, 3})
        reports += Report(count, "WARNING", "Invalid data was encountered.", "<code>",
                          "Invalid address type: (foreign.example) 25.");
    EXPECT_EQ(WithoutErrorCodes(Reports(child.err)), reports);
}

TEST_F(NodesTest, WithoutMemoryForAddressesTheyDiffer)
{
    const ChildResult child = RunInChild([] {
        GetHost("many"); // the resolver has its memory
        const MemoryFailure failure = MemoryFailure::OfNext(Calloc);
        std::printf("%d", AddrEqual("many", "many"));
        std::printf(" %d\n", AddrEqual("many", "many"));
    });
    EXPECT_EQ(child.out, "0 1\n");
    EXPECT_EQ(WithoutErrorCodes(Reports(child.err)),
              Report(1, "WARNING", OutOfMemory, "<code>", "calloc failed for 8 bytes."));
}

TEST_F(NodesTest, GlobalAcceptsWithoutReadingTheFile)
{
    EXPECT_EQ(Told([] {
                  Ask("x", "global"); // there is no file, and nobody says so
                  Ask("x", "global");
              }),
              "0 [global]\n0 [global]\n");
    const ChildResult child = RunInChild([] { Ask("x", "Global"); });
    EXPECT_EQ(child.out, "1 [Global]\n") << "case matters";
}

TEST_F(NodesTest, FindsAnEntryByItsName)
{
    SetNodes("\n"
             " \t \n"
             "alphabet wrong\n"
             "alpha full\n"
             " \tone\t \tlocal rest of the line\n"
             "alone\n"
             "Case upper\n"
             "alpha second\n"
             "last end",
             1000);
    EXPECT_EQ(Told([] {
                  for (const char* node : {"alpha", "one", "alone", "Case", "last"})
                      Ask(node);
              }),
              "0 [full]\n0 [local]\n0 []\n0 [upper]\n0 [end]\n");
    const ChildResult child = RunInChild([] {
        Ask("case");
        Ask("");
        Ask(nullptr, nullptr);
    });
    EXPECT_EQ(child.out, "1 [none]\n1 [none]\n0 []\n") << "null is the empty name, rejected before";
    EXPECT_EQ(WithoutErrorCodes(Reports(child.err)), Rejection(1, "case") + Rejection(2, ""));
}

TEST_F(NodesTest, TheTextsMayBeThoseOfTheResult)
{
    SetNodes("alpha full\n", 1000);
    EXPECT_EQ(Told([] {
                  CString value("alpha");
                  GetAccessOptionForNode(value, value, value);
                  std::printf("%s\n", static_cast<const char*>(value));
                  value = "global";
                  std::printf("%d", GetAccessOptionForNode(value, value, value));
                  std::printf(" %s\n", static_cast<const char*>(value));
              }),
              "full\n0 global\n");
}

TEST_F(NodesTest, ALineTooLongGoesOnAsTheNext)
{
    const std::string filler(507, 'x');
    SetNodes("a o " + filler + "beyond 511\n" + // 511 characters, then an entry
                 "b o " + filler + "\n" +       // exactly 511
                 "c o\n" + std::string(511, 'd') + std::string(511, 'e') + "f longest",
             1000);
    const std::string out = Told([] {
        for (const char* node : {"a", "beyond", "b", "c", "f"})
            Ask(node);
        MonitoredObject::SetDebugLevel(4);
        Ask("c", "standard");
    });
    EXPECT_EQ(out, "0 [o]\n0 [511]\n0 [o]\n0 [o]\n0 [longest]\n"
                   "Checking node [c] for access permission.\n"
                   "Valid node: [a o " +
                       filler + "]\nValid node: [beyond 511]\nValid node: [b o " + filler +
                       "]\nValid node: [c o]\nValid node: [" + std::string(511, 'd') + "]\nValid node: [" +
                       std::string(511, 'e') + "]\nValid node: [f longest]\n" +
                       "DefaultVal: remote_access option = standard\n0 [o]\n");
}

TEST_F(NodesTest, IsReadAgainOnlyWhenItIsLater)
{
    EXPECT_EQ(Told([] {
                  SetNodes("alpha first\n", 1000);
                  Ask("alpha");
                  SetNodes("alpha older\n", 999);
                  Ask("alpha");
                  SetNodes("alpha same\n", 1000);
                  Ask("alpha");
                  SetNodes("alpha later\n", 1001);
                  Ask("alpha");
                  WriteFile(NodesFile, "alpha now\n");
                  Ask("alpha");
              }),
              "0 [first]\n0 [first]\n0 [first]\n0 [later]\n0 [now]\n");
}

TEST_F(NodesTest, AFileOfTheBeginningOfTimeIsNotRead)
{
    SetNodes("alpha full\n", 0);
    EXPECT_EQ(RunInChild([] { Ask("alpha"); }).out, "1 [none]\n");
}

TEST_F(NodesTest, AMissingFileIsReportedOnceAndTheListStays)
{
    const ChildResult child = RunInChild([] {
        CheckNodesFile();
        CheckNodesFile();
        SetNodes("alpha full\n", 1000);
        Ask("alpha");
        unlink(NodesFile);
        Ask("alpha");
        Ask("alpha");
        SetNodes("alpha older\n", 999); // seen, not read
        Ask("alpha");
        unlink(NodesFile);
        CheckNodesFile();
    });
    EXPECT_EQ(child.out, "0 [full]\n0 [full]\n0 [full]\n0 [full]\n");
    EXPECT_EQ(Reports(child.err), Report(1, "WARNING", "OTHER", NoFileCode, NoFile) +
                                      Report(2, "WARNING", "OTHER", NoFileCode, NoFile) +
                                      Report(3, "WARNING", "OTHER", NoFileCode, NoFile));
}

TEST_F(NodesTest, AFileThatCannotBeReadEmptiesTheList)
{
    const ChildResult child = RunInChild([] {
        SetNodes("alpha full\n", 1000);
        Ask("alpha");
        unlink(NodesFile);
        mkdir(NodesFile, 0755);
        Ask("alpha");
        rmdir(NodesFile);
    });
    EXPECT_EQ(child.out, "0 [full]\n1 [none]\n");
}

TEST_F(NodesTest, AnAliasIsAcceptedByAddressAndThenByName)
{
    SetNodes("nosuchhost wrong\n10.9.8.2 numeric\nalpha full\nalpha second\nmore\n", 1000);
    EXPECT_EQ(Told([] {
                  Ask("alias");
                  WriteFile("/etc/hosts", ""); // from here on there is no look-up
                  Ask("alias");
              }),
              "0 [full]\n0 [full]\n");
}

TEST_F(NodesTest, ALearnedEntryLastsUntilTheFileIsRead)
{
    SetNodes("alpha full\nmore\n", 1000);
    const std::string out = Told([] {
        Ask("alias");
        Ask("many"); // an entry without an option
        MonitoredObject::SetDebugLevel(4);
        Ask("alpha");
        SetNodes("beta new\nalpha changed\n", 1001);
        Ask("alias");
    });
    const auto checking = [](const std::string& node) {
        return "Checking node [" + node +
               "] for access permission.\n"
               "Valid node: [alpha full]\nValid node: [more]\nValid node: [alias full]\nValid node: [many ]\n"
               "DefaultVal: remote_access option = none\n";
    };
    EXPECT_EQ(out, "0 [full]\n0 []\n" + checking("alpha") + "0 [full]\n" + checking("alias") +
                       "List before deletion:\n"
                       "Valid node: alpha full\nValid node: more\nValid node: alias full\nValid node: many \n"
                       "0 [changed]\n");
}

TEST_F(NodesTest, ARejectionIsLoggedOncePerNode)
{
    SyslogSink sink;
    SetNodes("alpha full\n", 1000);
    const ChildResult child = RunInChild([] {
        Ask("stranger");
        Ask("stranger");
        Ask("beta", "standard");
        Ask("stranger", "");
        Ask("beta");
    });
    EXPECT_EQ(child.out, "1 [none]\n0 [none]\n1 [standard]\n0 []\n0 [none]\n");
    EXPECT_EQ(WithoutErrorCodes(Reports(child.err)), Rejection(1, "stranger") + Rejection(2, "beta"));

    const std::vector<std::string> records = sink.Records();
    ASSERT_EQ(records.size(), 2u);
    const std::string line = ReportField(child.err, "  Line= ");
    const auto record = [&](const std::string& node) {
        return "orvd: " + std::to_string(410920000 + std::stol(line)) +
               "|Appl|1|S|W|1|0|0|0|0|0|misc.cc|0|0|0|1#/opt/orv/bin/orvd /opt/orv/bin/orvd: v2.0(P) [" +
               ProgInfo::GetNodeNameLongVersion() +
               "]|errno=<code>|Receiving fault message from an invalid node|ORV rejected message from invalid node " +
               node + "|" + node;
    };
    const auto plain = [](const std::string& text) { return Replaced(text, "errno=[^|]*", "errno=<code>"); };
    EXPECT_EQ(plain(records[0]), record("stranger"));
    EXPECT_EQ(plain(records[1]), record("beta"));
}

TEST_F(NodesTest, ANameIsNoFormat)
{
    SyslogSink sink;
    SetNodes("alpha full\n", 1000);
    const ChildResult child = RunInChild([] { Ask("%s%n%d%99999999d%"); });
    EXPECT_EQ(child.out, "1 [none]\n");
    EXPECT_EQ(WithoutErrorCodes(Reports(child.err)), Rejection(1, "%s%n%d%99999999d%"));
    const std::vector<std::string> records = sink.Records();
    ASSERT_EQ(records.size(), 1u);
    const std::string end = "|ORV rejected message from invalid node %s%n%d%99999999d%|%s%n%d%99999999d%";
    EXPECT_EQ(records[0].substr(records[0].size() - std::min(end.size(), records[0].size())), end);
}

TEST_F(NodesTest, ALongNameIsLoggedWhole)
{
    SyslogSink sink;
    SetNodes("alpha full\n", 1000);
    const std::string name(3000, 'n');
    const ChildResult child = RunInChild([&] {
        Ask(name.c_str());
        Ask(name.c_str());
    });
    EXPECT_EQ(child.out, "1 [none]\n0 [none]\n");
    const std::vector<std::string> records = sink.Records();
    ASSERT_EQ(records.size(), 1u);
    const std::string end = "|ORV rejected message from invalid node " + name + "|" + name;
    EXPECT_EQ(records[0].substr(records[0].size() - std::min(end.size(), records[0].size())), end);
}

TEST_F(NodesTest, TellsWhatItDoesAtLevel4)
{
    SetNodes("\nalpha full\nnosuchhost x\n", 1000);
    const std::string nodes = "Valid node: []\nValid node: [alpha full]\nValid node: [nosuchhost x]\n";
    const std::string standard = "DefaultVal: remote_access option = none\n";
    const ChildResult child = RunInChild([] {
        MonitoredObject::SetDebugLevel(4);
        Ask("beta");
        Ask("beta");
        Ask("any", "global");
    });
    EXPECT_EQ(child.out, "Checking node [beta] for access permission.\n" + standard + // the list is read after this
                             "List before deletion:\n"
                             "WARNING: gethostbyname failed for host nosuchhost\n"
                             "1 [none]\n"
                             "Checking node [beta] for access permission.\nInvalid node: beta\n" +
                             nodes + standard +
                             "WARNING: gethostbyname failed for host nosuchhost\n"
                             "0 [none]\n"
                             "Checking node [any] for access permission.\nInvalid node: beta\n" +
                             nodes + "DefaultVal: remote_access option = global\n0 [global]\n");
}

TEST_F(NodesTest, TellsItsComparisonsFromLevel5On)
{
    SetNodes("\nalpha full\n10.9.8.1 x\n", 1000);
    for (const short level : {5, 6}) {
        const ChildResult child = RunInChild([level] {
            Ask("beta");
            Ask("last");
            MonitoredObject::SetDebugLevel(level);
            Ask("last");
            Ask("alpha");
        });
        const std::string lists = "Invalid node: beta\nInvalid node: last\nValid node: []\nValid node: [alpha full]\n"
                                  "Valid node: [10.9.8.1 x]\nDefaultVal: remote_access option = none\n";
        EXPECT_EQ(child.out, "1 [none]\n1 [none]\n"
                             "Checking node [last] for access permission.\n" +
                                 lists +
                                 "Comparing [alpha] with [last]\nComparing [10.9.8.1] with [last]\n"
                                 "Invalid Node: [ beta ]\nFrom Node: [ last ]\n"
                                 "Invalid Node: [ last ]\nFrom Node: [ last ]\n"
                                 "0 [none]\n"
                                 "Checking node [alpha] for access permission.\n" +
                                 lists + "Comparing [alpha] with [alpha]\n0 [full]\n");
    }
}

TEST_F(NodesTest, AFileOfMoreLinesThanAListHoldsIsReadAsFarAsThat)
{
    std::string lines;
    for (int i = 0; i < 256001; i++)
        lines += i == 255999 ? "within a\n" : i == 256000 ? "beyond b\n" : "\n";
    SetNodes(lines, 1000);
    const ChildResult child = RunInChild([] { Ask("within"); });
    EXPECT_EQ(child.out, "0 [a]\n");
    EXPECT_EQ(WithoutErrorCodes(Reports(child.err)),
              Report(1, "WARNING", OutOfMemory, "<code>", "failed to allocate memory for ValidNodes."));
}

TEST_F(NodesTest, WithoutMemoryForAnEntryTheReadingGoesOn)
{
    SetNodes("beta left out\nalpha full\n", 1000);
    const ChildResult child = RunInChild([] {
        const MemoryFailure failure = MemoryFailure::OfNextOfSize(sizeof(CString), NewObject);
        Ask("alpha");
        Ask("beta");
    });
    EXPECT_EQ(child.out, "0 [full]\n1 [none]\n");
    EXPECT_EQ(WithoutErrorCodes(Reports(child.err)),
              Report(1, "WARNING", OutOfMemory, "<code>", "failed to allocate memory for ValidNodes.") +
                  Rejection(2, "beta"));
}

TEST_F(NodesTest, WithoutMemoryNothingIsLearned)
{
    SetNodes("alpha full\n", 1000);
    const ChildResult child = RunInChild([] {
        Ask("alpha");
        const MemoryFailure failure = MemoryFailure::OfNextOfSize(sizeof(CString), NewObject);
        Ask("alias");
        Ask("alias");
        MonitoredObject::SetDebugLevel(4);
        Ask("alpha", "standard");
    });
    EXPECT_EQ(child.out, "0 [full]\n0 [full]\n0 [full]\n"
                         "Checking node [alpha] for access permission.\n"
                         "Valid node: [alpha full]\nValid node: [alias full]\n" // by the second time
                         "DefaultVal: remote_access option = standard\n0 [full]\n");
    EXPECT_EQ(WithoutErrorCodes(Reports(child.err)),
              Report(1, "WARNING", OutOfMemory, "<code>", "failed to allocate memory for ValidNodes."));
}

TEST_F(NodesTest, ARejectionWithoutMemoryIsNotLogged)
{
    SyslogSink sink;
    SetNodes("alpha full\n", 1000);
    const ChildResult child = RunInChild([] {
        Ask("alpha");
        const MemoryFailure failure = MemoryFailure::OfNextOfSize(sizeof(CString), NewObject);
        Ask("stranger");
        Ask("stranger");
    });
    EXPECT_EQ(child.out, "0 [full]\n0 [none]\n1 [none]\n");
    EXPECT_EQ(WithoutErrorCodes(Reports(child.err)),
              Report(1, "WARNING", OutOfMemory, "<code>", "failed to allocate memory for InValidNodes.") +
                  Rejection(2, "stranger"));
    EXPECT_EQ(sink.Records().size(), 1u);
}

TEST_F(NodesTest, ReadingLeavesNoDescriptorOpen)
{
    EXPECT_EQ(Told([] {
                  SetNodes("alpha full\n", 1000);
                  Ask("alpha");
                  Ask("alias");
                  const int before = OpenDescriptors();
                  for (int i = 1; i < 10; i++) {
                      SetNodes("alpha full\n", 1000 + i);
                      Ask("alias");
                  }
                  std::printf("%d\n", OpenDescriptors() - before);
              }),
              "0 [full]\n0 [full]\n" // and nine more
              "0 [full]\n0 [full]\n0 [full]\n0 [full]\n0 [full]\n0 [full]\n0 [full]\n0 [full]\n0 [full]\n0\n");
}

TEST_F(NodesTest, WorksBeforeMainAndAfterIt)
{
    SetNodes("beta full\n", 1000);
    const ChildResult child = RunInChild([] {
        setenv("MISC_TEST_STATICS", "1", 1);
        Execute("/proc/self/exe", {"--gtest_filter=none"});
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.out.find("1 none\n"), 0u) << child.out;
    EXPECT_EQ(child.out.rfind("0 none\n"), child.out.size() - 7) << "it was rejected before: " << child.out;
    EXPECT_NE(child.err.find("ORV rejected message from invalid node alpha"), std::string::npos);
}

} // namespace
