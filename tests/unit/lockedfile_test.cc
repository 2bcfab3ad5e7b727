// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/lockedfile.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>
#include <functional>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include <fcntl.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/testing.h"

using namespace testing_support;

static unsigned slept = 0; // seconds that this process asked to sleep

unsigned sleep(unsigned seconds)
{
    slept += seconds;
    const struct timespec wait = {static_cast<time_t>(seconds), 0};
    return nanosleep(&wait, nullptr) == 0 ? 0 : 1;
}

namespace {

template <class X>
constexpr bool CanBeCopied = std::is_copy_constructible<X>::value || std::is_copy_assignable<X>::value;
static_assert(!CanBeCopied<LockFile> && !CanBeCopied<LockedFileDesc>, "a lock has one owner");
static_assert(std::is_base_of<MonitoredObject, LockFile>::value, "its SigTermProc runs when the program is ended");
static_assert(std::is_base_of<LockFile, LockedFileDesc>::value, "");
static_assert(std::is_constructible<LockFile, CString&>::value, "one try is the default");

bool Exists(const std::string& path)
{
    struct stat status;
    return lstat(path.c_str(), &status) == 0;
}

mode_t Permissions(const std::string& path)
{
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

// What a lock file of the process `pid` holds.
std::string Content(long pid)
{
    std::string content = std::to_string(pid) + "l";
    content.resize(64, '\0');
    return content;
}

// Root without its privileges: the permissions of files hold for this process from now on.
bool DropCapabilities()
{
    struct __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    struct __user_cap_data_struct none[2] = {};
    return syscall(SYS_capset, &header, none) == 0;
}

struct Mask {
    explicit Mask(mode_t mask) : earlier(umask(mask)) {}
    ~Mask() { umask(earlier); }
    const mode_t earlier;
};

class LockTest : public testing::Test {
protected:
    LockTest() : name(directory.File("data").c_str()), file(directory.File("data")), lock(file + ".lock") { slept = 0; }

    TemporaryDirectory directory;
    CString name;
    const std::string file, lock;
};

TEST_F(LockTest, TheLockFileHoldsTheOwnersIdAndGoesWithTheObject)
{
    Mask mask(022);
    const int before = OpenDescriptors();
    {
        LockFile held(name, 0);
        EXPECT_EQ(held.Locked(), 1);
        EXPECT_EQ(ReadFile(lock), Content(getpid()));
        EXPECT_EQ(Permissions(lock), 0644u);
        EXPECT_FALSE(Exists(file));
        EXPECT_EQ(OpenDescriptors(), before);
    }
    EXPECT_FALSE(Exists(lock));
}

TEST_F(LockTest, ThePermissionsOfTheLockFileAre0666LessTheMask)
{
    for (const mode_t bits : {0u, 002u, 077u}) {
        Mask mask(bits);
        LockFile held(name, 0);
        EXPECT_EQ(Permissions(lock), 0666u & ~bits);
    }
}

TEST_F(LockTest, TheCallersNameMayChangeWhileTheLockIsHeld)
{
    {
        LockFile held(name, 0);
        name[0] = 'X'; // changes every string that shares the text
    }
    EXPECT_FALSE(Exists(lock));
}

TEST_F(LockTest, CleanupReleasesOnceOnly)
{
    LockFile first(name, 0);
    first.Cleanup();
    EXPECT_EQ(first.Locked(), 0);
    EXPECT_FALSE(Exists(lock));
    LockFile second(name, 0);
    EXPECT_EQ(second.Locked(), 1);
    first.Cleanup();
    first.SigTermProc(SIGTERM);
    EXPECT_TRUE(Exists(lock)) << "the lock is another object's now";
    second.SigTermProc(SIGTERM);
    EXPECT_EQ(second.Locked(), 0);
    EXPECT_FALSE(Exists(lock));
}

// A program's lock that has more to release.
struct BusyLock : LockFile {
    using LockFile::LockFile;
    void Cleanup() override
    {
        cleanups++;
        LockFile::Cleanup();
    }
    int cleanups = 0;
};

TEST_F(LockTest, ASignalCallsTheCleanupOfADerivedClass)
{
    BusyLock held(name, 0);
    held.SigTermProc(SIGTERM);
    EXPECT_EQ(held.cleanups, 1);
    EXPECT_EQ(held.Locked(), 0);
    EXPECT_FALSE(Exists(lock));
}

TEST_F(LockTest, TheFirstTryIsTheOnlyOneByDefault)
{
    LockFile held(name);
    EXPECT_EQ(held.Locked(), 1);
    LockFile refused(name);
    EXPECT_EQ(refused.Locked(), 0);
    EXPECT_EQ(slept, 0u);
}

TEST_F(LockTest, WithoutRetriesALiveOwnerFailsTheAttemptWithoutASleep)
{
    LockFile held(name, 0);
    const int before = OpenDescriptors();
    const std::string text = CaptureStderr([&] {
        LockFile refused(name, 0);
        EXPECT_EQ(refused.Locked(), 0);
    });
    EXPECT_EQ(slept, 0u);
    EXPECT_EQ(text, "");
    EXPECT_EQ(ReadFile(lock), Content(getpid())) << "a refused object leaves the lock alone";
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(LockTest, EachRetryTakesASecond)
{
    LockFile held(name, 0);
    LockFile refused(name, 3);
    EXPECT_EQ(refused.Locked(), 0);
    EXPECT_EQ(slept, 3u);
}

TEST_F(LockTest, ARetryTakesALockThatWasReleasedMeanwhile)
{
    const pid_t child = StartChild([&] {
        LockFile held(name, 0);
        usleep(500000);
    });
    ASSERT_TRUE(WaitUntil([&] { return ReadFile(lock) == Content(child); }));
    {
        LockFile waiting(name, 20);
        EXPECT_EQ(waiting.Locked(), 1);
        EXPECT_EQ(ReadFile(lock), Content(getpid()));
    }
    EXPECT_EQ(WaitForExit(child), 0);
}

TEST_F(LockTest, AStaleLockIsReplaced)
{
    const std::vector<std::string> stale = {
        "",
        "nobody",
        "l",
        Content(0),
        Content(1),
        Content(2),
        Content(-5),
        Content(-getpid()),
        Content(DeadProcess()),
        Content(INT_MAX),
        std::to_string(4294967296 + getpid()) + "l", // no process has this id, although its low 32 bits are one
        "99999999999999999999999999l",
        std::string(64, '9'),
        std::string(200, ' ') + std::to_string(getpid()), // behind the first 64 bytes
    };
    for (const std::string& content : stale) {
        WriteFile(lock, content);
        LockFile held(name, 0);
        EXPECT_EQ(held.Locked(), 1) << content;
        EXPECT_EQ(ReadFile(lock), Content(getpid())) << content;
    }
    EXPECT_FALSE(Exists(lock));
}

TEST_F(LockTest, TheLeadingNumberOfALiveProcessIsAnOwner)
{
    const std::string pid = std::to_string(getpid());
    for (const std::string& content : {pid, pid + "l", pid + "\n", pid + " or so", Content(getpid()) + "more"}) {
        WriteFile(lock, content);
        LockFile refused(name, 0);
        EXPECT_EQ(refused.Locked(), 0) << content;
        EXPECT_EQ(ReadFile(lock), content);
    }
}

// Runs `body` as the first process of a process id namespace of its own; its exit code.
int RunAsProcessOne(const std::function<void()>& body)
{
    const ChildResult outside = RunInChild([&] {
        ChildNeeds(unshare(CLONE_NEWPID) == 0);
        const pid_t one = StartChild(body);
        _exit(WaitForExit(one));
    });
    return outside.exitCode;
}

TEST_F(LockTest, TheFirstTwoProcessesOwnNoLocksAlthoughTheyExist)
{
    const int code = RunAsProcessOne([&] {
        for (const pid_t expected : {2, 3}) // killed when process 1 ends
            CHILD_CHECK(IdleProcess() == expected);
        for (const long id : {0, 1, 2}) {
            WriteFile(lock, Content(id));
            CHILD_CHECK(LockFile(name, 0).Locked());
        }
        WriteFile(lock, Content(3));
        CHILD_CHECK(!LockFile(name, 0).Locked());
    });
    if (code == NotPossibleHere)
        GTEST_SKIP() << "the host refuses process id namespaces";
    EXPECT_EQ(code, 0);
}

TEST_F(LockTest, AStaleLockIsReplacedOnlyWhenTheRetriesAreUsedUp)
{
    WriteFile(lock, Content(1));
    LockFile held(name, 1);
    EXPECT_EQ(held.Locked(), 1);
    EXPECT_EQ(slept, 1u);
}

TEST_F(LockTest, ADirectoryThatDoesNotExistFailsAtOnceWithoutAMessage)
{
    CString nowhere(directory.File("nosuch/data").c_str());
    const std::string text = CaptureStderr([&] {
        LockFile refused(nowhere, 5);
        EXPECT_EQ(refused.Locked(), 0);
    });
    EXPECT_EQ(text, "");
    EXPECT_EQ(slept, 0u);
}

TEST_F(LockTest, AnyOtherErrorOfTheCreationIsPrinted)
{
    WriteFile(file, "");
    CString below((file + "/x%s").c_str());
    const std::string text = CaptureStderr([&] {
        LockFile refused(below, 5);
        EXPECT_EQ(refused.Locked(), 0);
    });
    EXPECT_EQ(text, "Error creating lock file " + file + "/x%s.lock: Not a directory\n");
    EXPECT_EQ(slept, 0u);

    CString tooLong(directory.File(std::string(251, 'n')).c_str());
    const std::string message = CaptureStderr([&] {
        LockFile refused(tooLong, 0);
        EXPECT_EQ(refused.Locked(), 0);
    });
    EXPECT_EQ(message,
              "Error creating lock file " + directory.File(std::string(251, 'n')) + ".lock: File name too long\n");
}

TEST_F(LockTest, WhatIsNoReadableFileCountsAsHeld)
{
    ASSERT_EQ(mkdir(lock.c_str(), 0755), 0);
    EXPECT_EQ(LockFile(name, 0).Locked(), 0);
    ASSERT_EQ(rmdir(lock.c_str()), 0);

    ASSERT_EQ(mkfifo(lock.c_str(), 0666), 0);
    EXPECT_EQ(LockFile(name, 0).Locked(), 0);
    ASSERT_EQ(unlink(lock.c_str()), 0);

    ASSERT_EQ(symlink("nosuch", lock.c_str()), 0);
    EXPECT_EQ(LockFile(name, 0).Locked(), 0);
    EXPECT_FALSE(Exists(directory.File("nosuch")));
}

TEST_F(LockTest, AStaleLockThroughALinkCostsTheLinkOnly)
{
    const std::string target = directory.File("target");
    WriteFile(target, "precious");
    ASSERT_EQ(symlink("target", lock.c_str()), 0);
    {
        LockFile held(name, 0);
        EXPECT_EQ(held.Locked(), 1);
    }
    EXPECT_EQ(ReadFile(target), "precious");
    EXPECT_FALSE(Exists(lock));
}

TEST_F(LockTest, AStaleLockThatCannotBeDeletedOrOpenedIsAFailure)
{
    WriteFile(lock, Content(1));
    chmod(lock.c_str(), 0666);
    chmod(directory.Path().c_str(), 0555);
    const auto lockWithoutCapabilities = [&] {
        CHILD_CHECK(DropCapabilities());
        LockFile refused(name, 0);
        _exit(refused.Locked());
    };
    const ChildResult undeletable = RunInChild(lockWithoutCapabilities, 20);
    chmod(directory.Path().c_str(), 0755);
    EXPECT_EQ(undeletable.exitCode, 0) << undeletable.signal;
    EXPECT_EQ(undeletable.err, "");
    EXPECT_EQ(ReadFile(lock), Content(1));

    chmod(lock.c_str(), 0444);
    const ChildResult unwritable = RunInChild(lockWithoutCapabilities, 20);
    EXPECT_EQ(unwritable.exitCode, 0) << unwritable.signal;
    EXPECT_EQ(ReadFile(lock), Content(1));
}

TEST_F(LockTest, DescriptorZeroServesTheCreationButNotTheExamination)
{
    const ChildResult child = RunInChild([&] {
        close(0);
        {
            LockFile held(name, 0);
            CHILD_CHECK(held.Locked() == 1);
            CHILD_CHECK(ReadFile(lock) == Content(getpid()));
        }
        CHILD_CHECK(!Exists(lock));
        WriteFile(lock, Content(1));
        LockFile refused(name, 0);
        CHILD_CHECK(!refused.Locked());
        CHILD_CHECK(ReadFile(lock) == Content(1));
        CHILD_CHECK(fcntl(0, F_GETFD) == -1); // left open
    });
    EXPECT_EQ(child.exitCode, 0) << child.err;
}

TEST_F(LockTest, ADescriptorOfZeroIsOneForTheProtectedFile)
{
    const ChildResult child = RunInChild([&] {
        close(0);
        LockedFileDesc held(name, 0, 0600);
        CHILD_CHECK(held.fd() == 0);
        CHILD_CHECK(held.Locked() == 1);
        held.Cleanup();
        CHILD_CHECK(fcntl(0, F_GETFD) == -1);
    });
    EXPECT_EQ(child.exitCode, 0) << child.err;
}

TEST_F(LockTest, ALockFileThatCannotBeWrittenWholeIsRemoved)
{
    const ChildResult child = RunInChild([&] {
        LimitFileSize(10);
        LockFile refused(name, 0);
        _exit(refused.Locked() ? 1 : Exists(lock) ? 2 : 0);
    });
    EXPECT_EQ(child.exitCode, 0) << child.err;
    EXPECT_EQ(child.err, "");
}

TEST_F(LockTest, TellsWhyItIsNotLocked)
{
    LockFile held(name, 0);
    EXPECT_EQ(held.Error(), 0);
    EXPECT_EQ(LockFile(name, 0).Error(), EAGAIN);
    held.Cleanup();
    EXPECT_EQ(held.Error(), 0);

    CString nowhere("/nosuch/data");
    EXPECT_EQ(LockFile(nowhere, 0).Error(), ENOENT);
    WriteFile(file, "");
    CString below((file + "/x").c_str());
    CaptureStderr([&] { EXPECT_EQ(LockFile(below, 0).Error(), ENOTDIR); });

    ASSERT_EQ(mkdir(lock.c_str(), 0755), 0);
    EXPECT_EQ(LockFile(name, 0).Error(), EISDIR);
    ASSERT_EQ(rmdir(lock.c_str()), 0);

    std::remove(file.c_str());
    ASSERT_EQ(mkdir(file.c_str(), 0755), 0);
    EXPECT_EQ(LockedFileDesc(name, 0, 0600).Error(), EISDIR);
    EXPECT_FALSE(Exists(lock));
}

TEST_F(LockTest, ALockFileThatCannotBeWrittenSaysWhy)
{
    const std::vector<std::pair<int, std::function<void()>>> refusals = {
        {EDQUOT, [] { MakeCallsFail({SYS_write}, EDQUOT); }},
        {ENOSPC, [] { LimitFileSize(10); }}, // a part can be written
    };
    for (const auto& [error, refuse] : refusals) {
        const ChildResult child = RunInChild([&, refuse = refuse] {
            refuse();
            _exit(LockFile(name, 0).Error());
        });
        if (child.exitCode == NotPossibleHere)
            GTEST_SKIP() << "no system call filters here";
        EXPECT_EQ(child.exitCode, error);
        EXPECT_FALSE(Exists(lock));
    }
}

TEST_F(LockTest, ALockFileThatCannotBeExaminedIsAFailure)
{
#ifdef SYS_newfstatat
    for (const bool isThere : {false, true}) {
        if (isThere)
            WriteFile(lock, Content(1));
        const ChildResult child = RunInChild(
            [&] {
                MakeCallsFail({SYS_newfstatat, SYS_stat, SYS_fstat}, EIO);
                LockFile refused(name, 0);
                CHILD_CHECK(!refused.Locked());
                CHILD_CHECK(refused.Error() == EIO);
            },
            10);
        if (child.exitCode == NotPossibleHere)
            GTEST_SKIP() << "no system call filters here";
        EXPECT_EQ(child.exitCode, 0) << child.signal << child.err;
        EXPECT_TRUE(Exists(lock));
        EXPECT_EQ(ReadFile(lock), isThere ? Content(1) : "") << "nobody's file is deleted";
        LockFile next(name, 0);
        EXPECT_EQ(next.Locked(), 1);
    }
#else
    GTEST_SKIP() << "no such system call here";
#endif
}

TEST_F(LockTest, ASignalThatEndsTheProgramRemovesTheLock)
{
    WriteFile(file, "kept");
    for (const int sig : {SIGTERM, SIGINT, SIGHUP}) {
        const pid_t child = StartChild([&] {
            LockedFileDesc held(name, 0, 0600);
            for (;;)
                pause();
        });
        EXPECT_TRUE(WaitUntil([&] { return ReadFile(lock) == Content(child); }));
        usleep(20000);
        kill(child, sig);
        EXPECT_EQ(WaitForExit(child), 0);
        EXPECT_FALSE(Exists(lock)) << sig;
    }
    EXPECT_EQ(ReadFile(file), "kept");
}

TEST_F(LockTest, AKilledOwnerLeavesAStaleLock)
{
    const pid_t child = StartChild([&] {
        LockFile held(name, 0);
        for (;;)
            pause();
    });
    ASSERT_TRUE(WaitUntil([&] { return ReadFile(lock) == Content(child); }));
    kill(child, SIGKILL);
    EXPECT_EQ(WaitForExit(child), 128 + SIGKILL);
    EXPECT_TRUE(Exists(lock));
    LockFile held(name, 0);
    EXPECT_EQ(held.Locked(), 1);
}

TEST_F(LockTest, AForkedChildLeavesTheLockOfItsParent)
{
    LockedFileDesc held(name, 0, 0600);
    const ChildResult child = RunInChild([&] {
        held.Cleanup();
        CHILD_CHECK(!held.Locked());
        CHILD_CHECK(held.fd() == -1);
        held.~LockedFileDesc();
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(ReadFile(lock), Content(getpid()));

    const pid_t terminated = IdleProcess();
    kill(terminated, SIGTERM);
    EXPECT_EQ(WaitForExit(terminated), 0);
    EXPECT_EQ(ReadFile(lock), Content(getpid()));
    EXPECT_EQ(held.Locked(), 1);
    EXPECT_EQ(write(held.fd(), "x", 1), 1) << "the child closed its own descriptor only";
}

TEST_F(LockTest, AMissingFileIsCreatedWithExactlyThePermissionsGiven)
{
    for (const int permissions : {0666, 0777, 0640, 0200, 0}) {
        Mask mask(077);
        {
            LockedFileDesc held(name, 0, permissions);
            EXPECT_EQ(held.Locked(), 1);
            EXPECT_EQ(held.IsNewFile(), 1);
            EXPECT_EQ(Permissions(file), static_cast<mode_t>(permissions));
            EXPECT_EQ(write(held.fd(), "data", 4), 4);
            char back[5] = "";
            EXPECT_EQ(pread(held.fd(), back, 4, 0), 4) << "open for reading too";
            EXPECT_STREQ(back, "data");
            EXPECT_EQ(umask(077), 077u) << "the mask is restored";
            EXPECT_EQ(Permissions(lock), 0600u) << "the mask holds for the lock file";
        }
        EXPECT_TRUE(Exists(file));
        EXPECT_FALSE(Exists(lock));
        unlink(file.c_str());
    }
}

TEST_F(LockTest, AnExistingFileIsOpenedAsItIs)
{
    WriteFile(file, "content");
    chmod(file.c_str(), 0640);
    const int before = OpenDescriptors();
    {
        LockedFileDesc held(name, 0, 0777);
        EXPECT_EQ(held.Locked(), 1);
        EXPECT_EQ(held.IsNewFile(), 0);
        EXPECT_EQ(OpenDescriptors(), before + 1);
        char text[8] = "";
        EXPECT_EQ(read(held.fd(), text, 7), 7);
        EXPECT_STREQ(text, "content");
        EXPECT_EQ(pwrite(held.fd(), "C", 1, 0), 1);
        EXPECT_EQ(Permissions(file), 0640u);

        LockedFileDesc refused(name, 0, 0777);
        EXPECT_EQ(refused.Locked(), 0);
        EXPECT_EQ(refused.fd(), -1);
        EXPECT_EQ(refused.IsNewFile(), 0);
        EXPECT_EQ(static_cast<LockFile&>(held).Locked(), 1);
    }
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(ReadFile(file), "Content");
    EXPECT_FALSE(Exists(lock));
}

TEST_F(LockTest, CleanupClosesTheDescriptorOnceOnly)
{
    LockedFileDesc held(name, 0, 0600);
    const int fd = held.fd();
    static_cast<LockFile&>(held).Cleanup();
    EXPECT_EQ(held.fd(), -1);
    EXPECT_EQ(held.Locked(), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    const int other = open("/dev/null", O_RDONLY);
    EXPECT_EQ(other, fd) << "the number is in use again";
    held.Cleanup();
    held.SigTermProc(SIGTERM);
    EXPECT_NE(fcntl(other, F_GETFD), -1);
    close(other);
}

TEST_F(LockTest, WithoutADescriptorTheLockIsReleased)
{
    ASSERT_EQ(mkdir(file.c_str(), 0755), 0);
    const std::string text = CaptureStderr([&] {
        LockedFileDesc refused(name, 0, 0600);
        EXPECT_EQ(refused.Locked(), 0);
        EXPECT_EQ(static_cast<LockFile&>(refused).Locked(), 0);
        EXPECT_EQ(refused.fd(), -1);
        EXPECT_EQ(refused.IsNewFile(), 0);
        EXPECT_FALSE(Exists(lock));
    });
    EXPECT_EQ(text, "");

    ASSERT_EQ(rmdir(file.c_str()), 0);
    ASSERT_EQ(symlink("nosuch/file", file.c_str()), 0); // cannot be created either
    LockedFileDesc refused(name, 0, 0600);
    EXPECT_EQ(refused.Locked(), 0);
    EXPECT_EQ(refused.IsNewFile(), 0);
    EXPECT_FALSE(Exists(lock));
}

// --- Races -----------------------------------------------------------------------------------------------------------

// Starts a child that runs `body` and stops before and after each of its system calls, until `isThere` holds at one of
// these stops; from there on it stays stopped. Its id; 0 when the child ended before, -1 where tracing is refused.
pid_t StartUpTo(const std::function<bool()>& isThere, const std::function<void()>& body)
{
    const pid_t pid = StartChild([&] {
        ChildNeeds(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0);
        raise(SIGSTOP);
        body();
    });
    int status = 0;
    while (waitpid(pid, &status, 0) == pid && WIFSTOPPED(status)) {
        if (WSTOPSIG(status) == SIGTRAP && isThere())
            return pid;
        ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr);
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == NotPossibleHere ? -1 : 0;
}

// Lets a child that stopped go on to its end; its exit code.
int RunOn(pid_t pid)
{
    ptrace(PTRACE_DETACH, pid, nullptr, nullptr);
    return WaitForExit(pid);
}

TEST_F(LockTest, WhereverAProcessIsOvertakenThereIsOneOwner)
{
    int longest = 0; // how many stops a process made on its way
    for (const std::string& before : {std::string("none"), std::string(), Content(1), Content(DeadProcess())}) {
        for (int wanted = 1;; wanted++) {
            SCOPED_TRACE(testing::Message() << "lock file " << before << ", stop " << wanted);
            unlink(lock.c_str());
            if (before != "none")
                WriteFile(lock, before);
            int stops = 0;
            const pid_t child = StartUpTo([&] { return ++stops == wanted; },
                                          [&] {
                                              LockFile held(name, 0);
                                              _exit(held.Locked() ? 10 : 20); // leaves the lock file behind
                                          });
            if (child == -1)
                GTEST_SKIP() << "the host refuses tracing";
            if (child == 0)
                break;
            longest = std::max(longest, wanted);
            LockFile held(name, 0);
            const bool childHasIt = RunOn(child) == 10;
            ASSERT_NE(childHasIt, held.Locked() == 1) << "two owners or none";
            ASSERT_EQ(ReadFile(lock), Content(childHasIt ? child : getpid()));
        }
    }
    EXPECT_GT(longest, 10);
}

TEST_F(LockTest, AfterAStaleLockTheRetriesStayUsedUp)
{
    WriteFile(lock, Content(1));
    const pid_t child = StartUpTo([&] { return !Exists(lock); },
                                  [&] {
                                      LockFile refused(name, 1);
                                      _exit((refused.Locked() ? 10 : 20) + static_cast<int>(slept));
                                  });
    if (child == -1)
        GTEST_SKIP() << "the host refuses tracing";
    ASSERT_GT(child, 0);
    const LockFile quicker(name, 0);
    EXPECT_EQ(RunOn(child), 21) << "no second was spent on the new lock";
    EXPECT_EQ(ReadFile(lock), Content(getpid()));
}

// Memory that the processes of a race share.
struct Race {
    std::atomic<int> round;    // the round that is open
    std::atomic<int> tried;    // processes that have tried in it
    std::atomic<int> owners;   // those that have the lock
    std::atomic<int> finished; // those that have released it again
    std::atomic<int> occupant; // the process that believes to be the owner
    std::atomic<int> taken;    // how often the lock was taken
    std::atomic<int> broken;   // how often two had it
};

class SharedRace {
public:
    SharedRace()
        : race(new (mmap(nullptr, sizeof(Race), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Race{})
    {
    }
    ~SharedRace() { munmap(race, sizeof(Race)); }
    Race* operator->() const { return race; }

private:
    Race* race;
};

void AwaitValue(const std::atomic<int>& value, int wanted)
{
    while (value < wanted)
        sched_yield();
}

const int Racers = 6;
const int Rounds = 400;

TEST_F(LockTest, OneOfManyProcessesThatFindAStaleLockGetsIt)
{
    SharedRace race;
    std::vector<pid_t> racers(Racers);
    for (pid_t& racer : racers)
        racer = StartChild([&] {
            for (int round = 1; round <= Rounds; round++) {
                AwaitValue(race->round, round);
                {
                    LockFile held(name, 0);
                    if (held.Locked())
                        race->owners++;
                    race->tried++;
                    AwaitValue(race->tried, Racers * round); // nobody releases it before all have tried
                }
                race->finished++;
            }
        });

    const std::string stale[] = {Content(1), "", Content(DeadProcess())};
    int violations = 0;
    for (int round = 1; round <= Rounds; round++) {
        WriteFile(lock, stale[round % 3]);
        race->owners = 0;
        race->round = round;
        const bool done = WaitUntil([&] { return race->finished == Racers * round; }, 60);
        EXPECT_TRUE(done) << round;
        if (!done)
            break;
        if (race->owners != 1 || Exists(lock))
            violations++;
    }
    EXPECT_EQ(violations, 0) << "rounds with none or several owners";
    for (const pid_t racer : racers)
        EXPECT_EQ(WaitForExit(racer, race->round == Rounds ? 20 : 0), 0);
}

// Takes the lock again and again. Ends by giving it up without releasing it, or when it has been taken often enough.
void Compete(CString& name, SharedRace& race, int enough)
{
    for (int taken = 0; race->taken < enough;) {
        LockFile held(name, 0);
        if (!held.Locked()) {
            sched_yield();
            continue;
        }
        if (race->occupant.exchange(getpid()) != 0)
            race->broken++;
        race->taken++;
        if (taken % 4 == 0)
            sched_yield(); // lets the others look
        int me = getpid();
        if (!race->occupant.compare_exchange_strong(me, 0))
            race->broken++;
        if (++taken == 20)
            _exit(0); // leaves the lock file behind
    }
}

TEST_F(LockTest, ALockThatComesAndGoesAndIsLeftBehindNeverHasTwoOwners)
{
    SharedRace race;
    const int enough = 4000;
    std::vector<pid_t> racers(Racers);
    for (pid_t& racer : racers)
        racer = StartChild([&] { Compete(name, race, enough); });
    while (race->taken < enough)
        for (pid_t& racer : racers) {
            int status;
            if (waitpid(racer, &status, WNOHANG) != racer)
                continue;
            EXPECT_EQ(status, 0);
            racer = StartChild([&] { Compete(name, race, enough); });
        }
    for (const pid_t racer : racers)
        EXPECT_EQ(WaitForExit(racer), 0);
    EXPECT_EQ(race->broken, 0);
    EXPECT_GE(race->taken, enough);
    LockFile held(name, 0);
    EXPECT_EQ(held.Locked(), 1) << "whatever was left behind is stale";
}

} // namespace
