// SPDX-License-Identifier: BSD-2-Clause
// The dump on SIGUSR1: the program goes on, whatever it was at and whatever a dump does; and the end on SIGTERM.
#include "Misc/mobject.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/Dates.h"
#include "tests/support/testing.h"
#include "tests/unit/crash_testing.h"
#include "tests/unit/mobject_testing.h"

using namespace crash_testing;
using namespace mobject_testing;
using namespace testing_support;

namespace {

const std::string Start = "SIGNAL " + std::to_string(SIGUSR1) + " caught...initiating dump...\n";
const std::string End = "*** End Dump of all Monitored Objects ***\n";

bool IsWhole(const std::string& dump)
{
    return dump.compare(0, Start.size(), Start) == 0 && dump.size() > End.size() &&
           dump.compare(dump.size() - End.size(), End.size(), End) == 0;
}

class DumpRequest : public testing::Test {
protected:
    // Runs `body` in a child with a dump-state file; it must go well.
    void Run(const std::function<void()>& body, int seconds = 60)
    {
        const ChildResult result = RunInChild(
            [&] {
                MonitoredObject::SetDumpStateFileName(name.c_str());
                body();
            },
            seconds);
        EXPECT_EQ(result.exitCode, 0) << "signal " << result.signal << "\n" << result.out << result.err;
    }
    std::string Dump() const { return ReadFile(name); }
    bool WaitForDump(const std::string& dump, double seconds = 20) const
    {
        return WaitUntil([&] { return Dump() == dump; }, seconds);
    }

    TemporaryDirectory directory;
    const std::string name = directory.File("state");
};

TEST_F(DumpRequest, AFaultInADumpEndsTheTextOfItsObjectOnly)
{
    Run([&] {
        Probe one("one"), two("two"), three("three"), four("four");
        two.onDump = [](std::ostream& os) {
            os << "begun\n";
            WriteToNull();
        };
        three.onDump = [](std::ostream&) { abort(); };
        raise(SIGUSR1);
        const std::string cut = "\n*** The rest is left out: signal " + std::to_string(SIGSEGV) + " ***\n";
        CHILD_CHECK(WaitUntil([&] { return IsWhole(Dump()); }, 10));
        const std::string dump = Dump();
        CHILD_CHECK(dump.find(ObjectDump(0, "probe one\n") + ObjectDump(1, "begun\n" + cut)) != std::string::npos);
        CHILD_CHECK(dump.find(ObjectDump(3, "probe four\n")) != std::string::npos);
    });
}

TEST_F(DumpRequest, AHangInADumpHoldsNeitherTheProgramNorTheOthersUp)
{
    Run([&] {
        Probe one("one"), two("two"), three("three");
        two.onDump = [](std::ostream& os) {
            os << "begun\n";
            for (;;)
                pause();
        };
        MonitoredObject::SetCaptureLimits(9, 0);
        const long before = time(nullptr);
        raise(SIGUSR1);
        CHILD_CHECK(time(nullptr) - before < 5); // not for the dump
        const std::string cut = "\n*** The rest is left out: the dump hung ***\n";
        CHILD_CHECK(WaitForDump(Start + StateDump(0, 2, 3,
                                                  ObjectDump(0, "probe one\n") + ObjectDump(1, "begun\n" + cut) +
                                                      ObjectDump(2, "probe three\n"))));
        CHILD_CHECK(wait(nullptr) == -1 && errno == ECHILD); // nobody sees the copies
        two.onDump = nullptr;
        raise(SIGUSR1);
        CHILD_CHECK(WaitForDump(Start + StateDump(0, 2, 3,
                                                  ObjectDump(0, "probe one\n") + ObjectDump(1, "probe two\n") +
                                                      ObjectDump(2, "probe three\n"))));
    });
}

TEST_F(DumpRequest, ADumpThatHoldsTheDeadlineBackIsKilled)
{
    Run([&] {
        Probe one("one"), two("two"), three("three");
        one.onDump = [](std::ostream& os) {
            os << "begun\n" << std::flush;
            sigset_t all;
            sigfillset(&all);
            sigprocmask(SIG_BLOCK, &all, nullptr);
            for (;;)
                pause();
        };
        two.onDump = [](std::ostream& os) {
            os << "begun\n" << std::flush;
            kill(getpid(), SIGKILL);
        };
        MonitoredObject::SetCaptureLimits(9, 0);
        raise(SIGUSR1);
        const std::string hung = "\n*** The rest is left out: the dump hung ***\n";
        const std::string killed = "\n*** The rest is left out: signal " + std::to_string(SIGKILL) + " ***\n";
        CHILD_CHECK(WaitForDump(Start + StateDump(0, 2, 3,
                                                  ObjectDump(0, "begun\n" + hung) + ObjectDump(1, "begun\n" + killed) +
                                                      ObjectDump(2, "probe three\n"))));
    });
}

TEST_F(DumpRequest, ADumpEndsAtItsLimitHoweverManyObjectsHang)
{
    Run([&] {
        std::vector<std::unique_ptr<Probe>> probes;
        for (int i = 0; i < 20; i++) {
            probes.push_back(std::make_unique<Probe>("hangs"));
            probes.back()->onDump = [](std::ostream&) {
                for (;;)
                    pause();
            };
        }
        MonitoredObject::SetCaptureLimits(4, 0);
        raise(SIGUSR1);
        const std::string cut = "\n*** The rest is left out: it took longer than 4 seconds ***\n";
        CHILD_CHECK(WaitUntil([&] { return IsWhole(Dump()) && Dump().find(cut + End) != std::string::npos; }));
        CHILD_CHECK(CountOf(Dump(), "the dump hung") < 20);
    });
}

TEST_F(DumpRequest, ARequestWhileAnotherThreadServesOneIsServedNext)
{
    Run([&] {
        static std::atomic<bool> isAsked{false};
        Probe one("one");
        one.onDump = [](std::ostream& os) {
            for (int i = 0; i < 20 && !isAsked; i++) // in a copy, which does not see it change
                usleep(10000);
            os << (isAsked ? "second\n" : "first\n");
        };
        pthread_t other;
        pthread_create(
            &other, nullptr,
            [](void*) -> void* {
                raise(SIGUSR1);
                return nullptr;
            },
            nullptr);
        CHILD_CHECK(WaitUntil([&] { return Dump().find(Start) == 0; }));
        isAsked = true;
        raise(SIGUSR1);
        pthread_join(other, nullptr);
        CHILD_CHECK(WaitForDump(Start + StateDump(0, 0, 1, ObjectDump(0, "second\n"))));
    });
}

TEST_F(DumpRequest, AnEndlessTextIsCutAndTheDumpIsWhole)
{
    Run([&] {
        Probe one("one"), two("two");
        one.onDump = [](std::ostream& os) {
            for (;;)
                os << "more and more and more\n";
        };
        MonitoredObject::SetCaptureLimits(0, 200000);
        raise(SIGUSR1);
        CHILD_CHECK(WaitUntil([&] { return IsWhole(Dump()); }));
        const std::string dump = Dump();
        CHILD_CHECK(dump.find("\n*** The rest is left out: it goes beyond 200000 bytes ***\n" + End) !=
                    std::string::npos);
        CHILD_CHECK(dump.size() < 201000);
    });
}

// The locks that a handler must not wait for, each held by the code that the signal interrupts.
TEST_F(DumpRequest, ADumpWhileALockIsHeldIsMadeWhenItIsFree)
{
    static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    Run([&] {
        Probe one("one");
        one.onDump = [](std::ostream& os) {
            pthread_mutex_lock(&lock);
            os << "locked\n";
            pthread_mutex_unlock(&lock);
        };
        pthread_mutex_lock(&lock);
        raise(SIGUSR1);
        pthread_mutex_unlock(&lock);
        CHILD_CHECK(WaitForDump(Start + StateDump(0, 0, 1, ObjectDump(0, "locked\n")), 10));
    });
}

TEST_F(DumpRequest, ADumpOfWhatIsHalfChangedIsMadeWhenItIsWhole)
{
    Run([&] {
        Probe one("one");
        int* whole = nullptr;
        one.onDump = [&](std::ostream& os) { os << *static_cast<int* volatile&>(whole) << "\n"; };
        raise(SIGUSR1);
        int seven = 7;
        whole = &seven;
        CHILD_CHECK(WaitForDump(Start + StateDump(0, 0, 1, ObjectDump(0, "7\n")), 10));
    });
}

TEST_F(DumpRequest, LeavesNoTraceInTheProcess)
{
    Run([&] {
        static int forks = 0, children = 0;
        pthread_atfork([] { forks++; }, nullptr, nullptr);
        signal(SIGCHLD, [](int) { children++; });
        Probe one("one");
        int dumps = 0;
        one.onDump = [&](std::ostream& os) {
            dumps++;
            std::cout << "lost with the copy";
            os << "dumped\n";
        };
        const int descriptors = OpenDescriptors();
        for (int i = 0; i < 20; i++)
            raise(SIGUSR1);
        CHILD_CHECK(WaitForDump(Start + StateDump(0, 0, 1, ObjectDump(0, "dumped\n"))));
        CHILD_CHECK(forks == 0 && children == 0 && dumps == 0);
        CHILD_CHECK(OpenDescriptors() == descriptors);
    });
}

TEST_F(DumpRequest, ADumpThatCannotBeMadeSaysSo)
{
    const ChildResult result = RunInChild([&] {
        MonitoredObject::SetDumpStateFileName(name.c_str());
        Probe one("one");
        MakeForksFail();
        raise(SIGUSR1);
        CHILD_CHECK(Dump() ==
                    Start + "*** The dump is left out: no copy of the process: " + strerror(ENOMEM) + " ***\n" + End);
    });
    if (result.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no way to make fork fail here";
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

TEST_F(DumpRequest, WithoutMemoryOrAFileTheProgramGoesOn)
{
    Probe one("one");
    const auto without = [&](const std::function<void()>& refuse, const std::string& dump) {
        WriteFile(name, "earlier\n");
        const ChildResult result = RunInChild([&] {
            MonitoredObject::SetDumpStateFileName(name.c_str());
            refuse();
            raise(SIGUSR1);
        });
        EXPECT_TRUE(result.exitCode == 0 || result.exitCode == NotPossibleHere) << result.err;
        EXPECT_TRUE(result.exitCode == NotPossibleHere || Dump() == dump) << Dump();
    };
    const std::string none = "*** The dump is left out: no copy of the process: ";
    if (MemoryLimit::IsPossible)
        without([] { MakeCallsFail({SYS_mmap}, ENOMEM); }, Start + none + strerror(ENOMEM) + " ***\n" + End);
    without([] { MakeCallsFail({SYS_clone, SYS_openat}, EAGAIN); }, "earlier\n");
}

TEST_F(DumpRequest, AFifoThatNobodyReadsHoldsNothingUp)
{
    ASSERT_EQ(mkfifo(name.c_str(), 0666), 0);
    Run([&] {
        Probe one("one");
        raise(SIGUSR1);
    });
}

// Requests at any instant of a program that allocates, asks for the time, writes to streams and makes objects.
TEST_F(DumpRequest, RequestsAtAnyInstantDisturbNothing)
{
    Run([&] {
        unsetenv("TZ");
        Probe one("one");
        std::map<int, std::string> entries;
        one.onDump = [&](std::ostream& os) {
            for (const auto& entry : entries)
                os << entry.first << std::string(entry.second) << Dates::GetDateTime() << "\n";
        };
        const pid_t asked = getpid();
        const pid_t asker = StartChild([&] {
            for (int i = 0; i < 300 && kill(asked, SIGUSR1) == 0; i++)
                usleep(500);
        });
        int status;
        for (int i = 0; waitpid(asker, &status, WNOHANG) == 0; i++) {
            entries[i % 100] = std::string(static_cast<size_t>(i % 500), 'x');
            entries.erase((i * 7) % 100);
            Dates::GetDateTime();
            std::cout << std::string(static_cast<size_t>(i % 50), 'y') << "\r";
            const Probe passing("passing");
            const std::unique_ptr<Probe> heap = std::make_unique<Probe>("heap");
        }
        CHILD_CHECK(WaitUntil([&] { return IsWhole(Dump()); }));
        raise(SIGUSR1);
        CHILD_CHECK(WaitUntil([&] { return IsWhole(Dump()); }));
    });
}

// ---- SIGTERM ----

TEST(Termination, AnExitThatWaitsForWhatWasInterruptedIsCutShort)
{
    static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    const ChildResult result = RunInChild([] {
        Probe one("one");
        atexit([] { pthread_mutex_lock(&lock); });
        pthread_mutex_lock(&lock);
        raise(SIGTERM);
    });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "SigTermProc(" + std::to_string(SIGTERM) + ") of one\n");
}

// As free does where the signal has come in the middle of it.
TEST(Termination, AnExitThatFailsInWhatWasInterruptedIsCutShort)
{
    for (void (*fail)() : {+[] { abort(); }, +[] { raise(SIGSEGV); }}) {
        static void (*atTheEnd)();
        atTheEnd = fail;
        const ChildResult result = RunInChild([] {
            Probe one("one");
            atexit([] { atTheEnd(); });
            raise(SIGTERM);
        });
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.err, "SigTermProc(" + std::to_string(SIGTERM) + ") of one\n");
    }
}

} // namespace
