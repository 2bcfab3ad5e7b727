// SPDX-License-Identifier: BSD-2-Clause
// The registry of the monitored objects, the handlers that it installs, and what signals make of the objects.
#include "Misc/mobject.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/testing.h"
#include "tests/unit/mobject_testing.h"

using namespace mobject_testing;
using namespace testing_support;

namespace {

// Objects constructed before main and destroyed after it, on demand: see ServesStaticObjectsBeforeMainAndAfterIt.
struct StaticObject {
    StaticObject()
    {
        if (getenv("ZELOO_TEST_STATIC_OBJECT") != nullptr)
            object = std::make_unique<MonitoredObject>();
    }
    ~StaticObject()
    {
        if (object == nullptr)
            return;
        object.reset();
        std::cout << DumpedState();
    }
    std::unique_ptr<MonitoredObject> object;
};
StaticObject first;
StaticObject second;

// From now on every system call but the one that ends the process ends it by a signal.
void OnlyTheEndIsAllowed()
{
    struct sock_filter rules[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit_group, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
    };
    const struct sock_fprog program = {sizeof rules / sizeof *rules, rules};
    ChildNeeds(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
               prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0);
}

TEST(MonitoredObject, TagsGrowFromZeroAndTheDumpNamesTheResidents)
{
    const ChildResult result = RunInChild([] {
        std::cout << DumpedState();
        auto one = std::make_unique<MonitoredObject>();
        auto two = std::make_unique<Probe>("two");
        auto three = std::make_unique<Probe>("three");
        Expect(one->myObjectTag() == 0 && two->myObjectTag() == 1 && three->myObjectTag() == 2, 1);
        std::cout << DumpedState();
        two.reset();
        std::cout << DumpedState();
        one.reset();
        three.reset();
        std::cout << DumpedState();
        MonitoredObject next;
        Expect(next.myObjectTag() == 3, 2);
        std::cout << DumpedState();
    });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "");
    const std::string none = "Monitored Objects: \nNo objects currently being monitored...\n";
    const std::string one = ObjectDump(0, "not avail\n"), two = ObjectDump(1, "probe two\n"),
                      three = ObjectDump(2, "probe three\n");
    EXPECT_EQ(result.out, none + StateDump(0, 2, 3, one + two + three) + StateDump(0, 2, 2, one + three) + none +
                              StateDump(3, 3, 1, ObjectDump(3, "not avail\n")));
}

TEST(MonitoredObject, ACopyIsANewObjectAndAnAssignmentIsNot)
{
    const ChildResult result = RunInChild([] {
        MonitoredObject original;
        MonitoredObject copy(original);
        Expect(original.myObjectTag() == 0 && copy.myObjectTag() == 1, 1);
        copy = original;
        const MonitoredObject& same = original;
        original = same;
        Expect(original.myObjectTag() == 0 && copy.myObjectTag() == 1, 2);
        std::cout << DumpedState();
    });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, StateDump(0, 1, 2, ObjectDump(0, "not avail\n") + ObjectDump(1, "not avail\n")));
}

TEST(MonitoredObject, ServesStaticObjectsBeforeMainAndAfterIt)
{
    const ChildResult result = RunInChild([] {
        setenv("ZELOO_TEST_STATIC_OBJECT", "1", 1);
        Execute("/proc/self/exe", {"--gtest_filter=None", "--gtest_brief=1"});
    });
    EXPECT_EQ(result.exitCode, 0);
    const size_t dump = result.out.find("Monitored Objects:");
    ASSERT_NE(dump, std::string::npos) << result.out;
    EXPECT_EQ(result.out.substr(dump), StateDump(0, 0, 1, ObjectDump(0, "not avail\n")) +
                                           "Monitored Objects: \nNo objects currently being monitored...\n");
}

TEST(MonitoredObject, TheArrayRefersAndPrintsItsName)
{
    const ChildResult result = RunInChild([] {
        MonitoredObjectSafeArray array;
        array.SetPurgeMode(1);
        array.print(std::cout);
    });
    EXPECT_EQ(result.out, "SafeArray(MonitoredObject)***************\n********** Capacity =0\n********** Quantity =0\n"
                          "********** This SafeArray is NOT purgable.\n");
}

TEST(MonitoredObject, ManyObjectsComeAndGo)
{
    const ChildResult result = RunInChild([] {
        std::vector<std::unique_ptr<MonitoredObject>> objects(1000);
        for (auto& object : objects)
            object = std::make_unique<MonitoredObject>();
        for (int i = 0; i < 1000; i += 2)
            objects[i].reset();
        std::string expected;
        for (int i = 1; i < 1000; i += 2)
            expected += ObjectDump(i, "not avail\n");
        Expect(DumpedState() == StateDump(1, 999, 500, expected), 1);
    });
    EXPECT_EQ(result.exitCode, 0);
}

// The processor time to make `number` objects and to destroy them, every `step`th first, then those behind them, and so on.
double SecondsFor(size_t number, size_t step)
{
    const clock_t begun = clock();
    std::vector<std::unique_ptr<MonitoredObject>> objects(number);
    for (auto& object : objects)
        object = std::make_unique<MonitoredObject>();
    for (size_t first = 0; first < step; first++)
        for (size_t i = first; i < number; i += step)
            objects[number - 1 - i].reset();
    return static_cast<double>(clock() - begun) / CLOCKS_PER_SEC;
}

TEST(MonitoredObject, TheCostOfOneDoesNotGrowWithTheirNumber)
{
    const ChildResult result = RunInChild([] {
        for (const size_t step : {1, 7, 1000}) {
            double few = 1e9, many = 1e9;
            for (int i = 0; i < 5; i++) { // the best of them: others use the processor's caches, too
                few = std::min(few, SecondsFor(10000, step));
                many = std::min(many, SecondsFor(100000, step));
            }
            CHILD_CHECK(many < 50 * few); // ten times as many: a search would make it a hundred times the cost
        }
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

TEST(MonitoredObject, AHundredThousandAreDumpedInTheirOrderWhateverWasDestroyed)
{
    const ChildResult result = RunInChild([] {
        std::vector<std::unique_ptr<MonitoredObject>> objects(100000);
        for (auto& object : objects)
            object = std::make_unique<MonitoredObject>();
        unsigned seed = 1;
        for (size_t i = 0; i < 99900; i++) {
            seed = seed * 1103515245 + 12345;
            objects[seed / 16 % objects.size()].reset();
        }
        std::string expected;
        long first = -1, last = -1, number = 0;
        for (size_t i = 0; i < objects.size(); i++)
            if (objects[i] != nullptr) {
                last = static_cast<long>(i);
                first = first < 0 ? last : first;
                number++;
                expected += ObjectDump(last, "not avail\n");
            }
        Expect(DumpedState() == StateDump(first, last, number, expected), 1);
    });
    EXPECT_EQ(result.exitCode, 0);
}

TEST(MonitoredObject, AnotherOneMakesNoSystemCall)
{
    const ChildResult result = RunInChild([] {
        const MonitoredObject first; // installs
        alignas(MonitoredObject) unsigned char place[sizeof(MonitoredObject)];
        OnlyTheEndIsAllowed();
        for (int i = 0; i < 1000; i++)
            (new (place) MonitoredObject)->~MonitoredObject();
        syscall(SYS_exit_group, 7);
    });
    if (result.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no way to refuse system calls here";
    EXPECT_EQ(result.exitCode, 7) << "signal " << result.signal;
}

TEST(MonitoredObject, TheDebugLevelIsTheOneLastSet)
{
    EXPECT_EQ(MonitoredObject::debug(), 0);
    MonitoredObject::SetDebugLevel(5);
    EXPECT_EQ(MonitoredObject::debug(), 5);
    MonitoredObject::SetDebugLevel(-1);
    EXPECT_EQ(MonitoredObject::debug(), -1);
    MonitoredObject::SetDebugLevel(0);
}

TEST(MonitoredObject, TheDumpStateFileNameIsACopy)
{
    EXPECT_EQ(MonitoredObject::GetDumpStateFileName(), nullptr);
    char name[] = "/tmp/one";
    MonitoredObject::SetDumpStateFileName(name);
    name[5] = 'X';
    EXPECT_STREQ(MonitoredObject::GetDumpStateFileName(), "/tmp/one");
    MonitoredObject::SetDumpStateFileName(MonitoredObject::GetDumpStateFileName());
    EXPECT_STREQ(MonitoredObject::GetDumpStateFileName(), "/tmp/one");
    MonitoredObject::SetDumpStateFileName("");
    EXPECT_STREQ(MonitoredObject::GetDumpStateFileName(), "");
    MonitoredObject::SetDumpStateFileName(nullptr);
    EXPECT_EQ(MonitoredObject::GetDumpStateFileName(), nullptr);
}

// --- Handlers ----------------------------------------------------------------------------------------------------

const int HandledSignals[] = {SIGTERM, SIGHUP, SIGINT,  SIGQUIT, SIGPIPE, SIGXFSZ, SIGXCPU, SIGABRT,
                              SIGILL,  SIGBUS, SIGSEGV, SIGSYS,  SIGFPE,  SIGTRAP, SIGUSR2, SIGUSR1};

// The signals with a handler.
std::vector<int> Handled()
{
    std::vector<int> signals;
    for (int sig = 1; sig < 32; sig++) {
        struct sigaction action;
        sigaction(sig, nullptr, &action);
        if (action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN)
            signals.push_back(sig);
    }
    return signals;
}

TEST(Handlers, AreInstalledByTheFirstObjectAndStay)
{
    const ChildResult result = RunInChild([] {
        std::vector<int> expected(std::begin(HandledSignals), std::end(HandledSignals));
#ifdef SIGEMT
        expected.push_back(SIGEMT);
#endif
        std::sort(expected.begin(), expected.end());
        Expect(Handled().empty(), 1);
        auto one = std::make_unique<MonitoredObject>();
        Expect(Handled() == expected, 2);
        signal(SIGTERM, SIG_DFL);
        auto two = std::make_unique<MonitoredObject>();
        Expect(Handled() != expected, 3); // only the first object installs
        one.reset();
        two.reset();
        signal(SIGTERM, SIG_IGN);
        one = std::make_unique<MonitoredObject>(); // the registry is made anew
        Expect(Handled() == expected, 4);
        one.reset();
        Expect(Handled() == expected, 5); // and the handlers stay

        one = std::make_unique<MonitoredObject>();
        MonitoredObject::UnMonitor();
        Expect(Handled().empty(), 6);
        std::cout << DumpedState(); // the registry stays
        two = std::make_unique<MonitoredObject>();
        Expect(Handled().empty(), 7);
        std::cout.flush();
        raise(SIGTERM);
    });
    EXPECT_EQ(result.exitCode, -1);
    EXPECT_EQ(result.signal, SIGTERM);
    EXPECT_EQ(result.out, StateDump(3, 3, 1, ObjectDump(3, "not avail\n")));
}

TEST(Handlers, ConstructionAndDestructionKeepTheSignalMask)
{
    const ChildResult result = RunInChild([] {
        sigset_t mask, now;
        sigemptyset(&mask);
        sigaddset(&mask, SIGHUP);
        sigprocmask(SIG_SETMASK, &mask, nullptr);
        for (int i = 0; i < 2; i++) {
            MonitoredObject object;
            sigprocmask(SIG_BLOCK, nullptr, &now);
            Expect(sigismember(&now, SIGHUP) == 1 && sigismember(&now, SIGTERM) == 0, 1);
        }
        sigprocmask(SIG_BLOCK, nullptr, &now);
        Expect(sigismember(&now, SIGHUP) == 1 && sigismember(&now, SIGTERM) == 0, 2);
    });
    EXPECT_EQ(result.exitCode, 0);
}

class Terminate : public testing::TestWithParam<int> {};

TEST_P(Terminate, CallsEveryObjectInOrderAndExitsWithZero)
{
    const int sig = GetParam();
    const ChildResult result = RunInChild([sig] {
        atexit([] { std::cerr << "exit\n"; });
        MonitoredObject plain;
        Probe one("one"), two("two"), three("three");
        two.onTerm = [&](int number) {
            std::cerr << "two " << number << "\n";
            sigset_t mask;
            sigprocmask(SIG_BLOCK, nullptr, &mask);
            for (int other = 1; other < 32; other++)
                if (other != SIGKILL && other != SIGSTOP)
                    Expect(sigismember(&mask, other) == 1, 3);
        };
        kill(getpid(), sig);
        _exit(4);
    });
    EXPECT_EQ(result.exitCode, 0);
    const std::string number = std::to_string(sig);
    EXPECT_EQ(result.err,
              "SigTermProc(" + number + ") of one\ntwo " + number + "\nSigTermProc(" + number + ") of three\nexit\n");
}

INSTANTIATE_TEST_SUITE_P(Signals, Terminate,
                         testing::Values(SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGXFSZ, SIGXCPU));

TEST(Terminate, ObjectsMayComeAndGoMeanwhile)
{
    const ChildResult result = RunInChild([] {
        auto one = std::make_unique<Probe>("one"), two = std::make_unique<Probe>("two"),
             three = std::make_unique<Probe>("three"), four = std::make_unique<Probe>("four");
        std::unique_ptr<Probe> late;
        two->onTerm = [&](int) {
            std::cerr << "two\n";
            one.reset();
            three.reset();
            late = std::make_unique<Probe>("late");
        };
        raise(SIGTERM);
    });
    EXPECT_EQ(result.exitCode, 0);
    const std::string number = std::to_string(SIGTERM);
    EXPECT_EQ(result.err, "SigTermProc(" + number + ") of one\ntwo\nSigTermProc(" + number + ") of four\n");
}

TEST(DumpAndContinue, WithoutAFileNameWritesNothing)
{
    const ChildResult result = RunInChild([] {
        Probe object("object");
        raise(SIGUSR1);
        raise(SIGUSR1);
        MonitoredObject::SetDumpStateFileName("/nonexistent/file");
        raise(SIGUSR1);
        raise(SIGUSR1);
        std::cout << "going on\n";
    });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, "going on\n");
    EXPECT_EQ(result.err, "");
}

TEST(DumpAndContinue, ReplacesTheFile)
{
    TemporaryDirectory directory;
    const std::string name = directory.File("state");
    WriteFile(name, std::string(100000, 'x'));
    const std::string start = "SIGNAL " + std::to_string(SIGUSR1) + " caught...initiating dump...\n";
    const ChildResult result = RunInChild([&] {
        const int descriptors = OpenDescriptors();
        Probe one("one");
        one.onDump = [](std::ostream& os) {
            sigset_t mask;
            sigprocmask(SIG_BLOCK, nullptr, &mask);
            os << "blocked: " << sigismember(&mask, SIGTERM) << sigismember(&mask, SIGUSR1) << "\n";
        };
        MonitoredObject::SetDumpStateFileName(name.c_str());
        errno = EXDEV;
        raise(SIGUSR1);
        Expect(errno == EXDEV, 1);
        Expect(ReadFile(name) == start + StateDump(0, 0, 1, ObjectDump(0, "blocked: 11\n")), 2);
        sigset_t mask;
        sigprocmask(SIG_BLOCK, nullptr, &mask);
        Expect(sigismember(&mask, SIGTERM) == 0 && sigismember(&mask, SIGUSR1) == 0, 3);
        one.onDump = [](std::ostream& os) { os << "again\n"; };
        raise(SIGUSR1);
        Expect(ReadFile(name) == start + StateDump(0, 0, 1, ObjectDump(0, "again\n")), 4);
        one.onDump = [](std::ostream& os) { os << std::string(20000, 'y') << "\n"; };
        raise(SIGUSR1);
        Expect(ReadFile(name) == start + StateDump(0, 0, 1, ObjectDump(0, std::string(20000, 'y') + "\n")), 5);
        Expect(OpenDescriptors() == descriptors, 6);
    });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "");
}

TEST(DumpAndContinue, SaysThatNoObjectIsLeft)
{
    TemporaryDirectory directory;
    const std::string name = directory.File("state");
    const ChildResult result = RunInChild([&] {
        {
            MonitoredObject object;
        }
        MonitoredObject::SetDumpStateFileName(name.c_str());
        raise(SIGUSR1);
    });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(ReadFile(name),
              "SIGNAL " + std::to_string(SIGUSR1) +
                  " caught...initiating dump...\nMonitored Objects: \nNo objects currently being monitored...\n");
}

TEST(DumpAndContinue, InterruptsACallAndSurvivesABurst)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t child = StartChild([&] {
        MonitoredObject object;
        char byte;
        for (int interrupted = 0; interrupted < 100; interrupted++)
            Expect(read(ends[0], &byte, 1) == -1 && errno == EINTR, 1);
        _exit(5);
    });
    ASSERT_TRUE(WaitUntil([&] {
        const std::string status = ReadFile("/proc/" + std::to_string(child) + "/status");
        const std::string caught = ReportField(status, "SigCgt:\t");
        return !caught.empty() && (std::stoull(caught, nullptr, 16) >> (SIGUSR1 - 1) & 1) != 0;
    }));
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0)
        kill(child, SIGUSR1);
    EXPECT_TRUE(WIFEXITED(status)) << "a signal met no handler";
    EXPECT_EQ(WEXITSTATUS(status), 5);
    close(ends[0]);
    close(ends[1]);
}

} // namespace
