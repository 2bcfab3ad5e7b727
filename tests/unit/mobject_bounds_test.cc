// SPDX-License-Identifier: BSD-2-Clause
// Crashes on a bad day: what keeps the report from being written, and the process from its end, and must not.
#include "Misc/mobject.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>
#include <utime.h>

#include <gtest/gtest.h>

#include "svr4/context.h"
#include "tests/support/testing.h"
#include "tests/unit/crash_testing.h"
#include "tests/unit/mobject_testing.h"

using namespace crash_testing;
using namespace mobject_testing;
using namespace testing_support;

namespace {

const std::string Segv = std::to_string(SIGSEGV);

std::string Ended(const std::string& name)
{
    return "SigTermProc(" + Segv + ") of " + name + "\nSigRestartProc(" + Segv + ") of " + name + "\n";
}

class CaptureBounds : public Capture {
protected:
    // The crash of a program, which must end by SIGABRT; its crash file is removed.
    Crash CrashOnce(const std::string& name, const std::function<void()>& body)
    {
        Crash crash = CrashAs(name, body);
        EXPECT_EQ(crash.child.signal, SIGABRT) << crash.err;
        unlink(CrashFile(name).c_str());
        return crash;
    }
};

// ---- The file ----

struct Impostor {
    const char* name;
    const char* what;
    void (*make)(const char* path);
};

void PrintTo(const Impostor& impostor, std::ostream* os) { *os << impostor.name; }

void MakeSocket(const char* path)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    (void)bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address);
    close(fd);
}

const Impostor Impostors[] = {
    {"link", "a symbolic link", [](const char* path) { (void)!symlink("/var/orv/data/elsewhere", path); }},
    {"fifo", "a FIFO", [](const char* path) { mkfifo(path, 0666); }},
    {"socket", "a socket", MakeSocket},
};

class CaptureImpostor : public CaptureBounds, public testing::WithParamInterface<Impostor> {};

TEST_P(CaptureImpostor, IsNotOpenedAndALineSaysWhatItIs)
{
    const Impostor impostor = GetParam();
    const std::string name = std::string("impostor-") + impostor.name;
    const std::string elsewhere = Directory + "/elsewhere";
    WriteFile(elsewhere, std::string(70000, 'e'));
    const struct utimbuf old = {time(nullptr) - 100, time(nullptr) - 100};
    utime(elsewhere.c_str(), &old);
    impostor.make(CrashFile(name).c_str());
    const Crash crash = CrashOnce(name, [] {
        Probe object("object");
        WriteToNull();
    });
    EXPECT_EQ(crash.err,
              CaptureMessages(name, SIGSEGV) +
                  Left(SIGSEGV, "open of sighandler file failed. " + CrashFile(name) + " is " + impostor.what + "."));
    EXPECT_EQ(ReadFile(elsewhere), std::string(70000, 'e')) << "neither written nor moved away";
    unlink(elsewhere.c_str());
}

INSTANTIATE_TEST_SUITE_P(Kinds, CaptureImpostor, testing::ValuesIn(Impostors),
                         [](const testing::TestParamInfo<Impostor>& info) { return std::string(info.param.name); });

// A terminal that the test makes, mounted in the place of the file.
TEST_F(CaptureBounds, ADeviceIsNotOpenedAndALineSaysWhatItIs)
{
    const std::string path = CrashFile("device");
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    const char* device = terminal >= 0 && unlockpt(terminal) == 0 ? ptsname(terminal) : nullptr;
    WriteFile(path, "");
    if (!InSandbox() || device == nullptr || mount(device, path.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        unlink(path.c_str());
        close(terminal);
        GTEST_SKIP() << "no way to have a device there";
    }
    const Crash crash = CrashAs("device", [] {
        Probe object("object");
        WriteToNull();
    });
    EXPECT_EQ(crash.child.signal, SIGABRT);
    EXPECT_EQ(crash.err, CaptureMessages("device", SIGSEGV) +
                             Left(SIGSEGV, "open of sighandler file failed. " + path + " is a device."));
    fcntl(terminal, F_SETFL, O_NONBLOCK);
    char byte;
    EXPECT_EQ(read(terminal, &byte, 1), -1) << "something was written to it";
    umount(path.c_str());
    unlink(path.c_str());
    close(terminal);
}

TEST_F(CaptureBounds, AFifoWithAReaderIsNotWrittenEither)
{
    mkfifo(CrashFile("read-fifo").c_str(), 0666);
    const int reader = open(CrashFile("read-fifo").c_str(), O_RDONLY | O_NONBLOCK);
    const Crash crash = CrashOnce("read-fifo", [] {
        Probe object("object");
        WriteToNull();
    });
    char byte;
    EXPECT_LE(read(reader, &byte, 1), 0);
    close(reader);
}

TEST_F(CaptureBounds, AFileOfTheFutureIsNoSignOfALoop)
{
    const std::string name = CrashFile("future");
    WriteFile(name, "earlier\n");
    const struct utimbuf future = {time(nullptr) + 1000, time(nullptr) + 1000};
    ASSERT_EQ(utime(name.c_str(), &future), 0);
    const Crash crash = CrashOnce("future", [] {
        Probe object("object");
        MonitoredObject::SetDumpStateFileName("/tmp/unused");
        WriteToNull();
    });
    EXPECT_EQ(crash.err, CaptureMessages("future", SIGSEGV) + Ended("object"));
}

// ---- Memory and locks ----

#if !defined(__SANITIZE_ADDRESS__) // it has its heap elsewhere, and looks at what is damaged on purpose

// Overwrites the whole heap.
UNCHECKED void DamageHeap()
{
    uintptr_t low = 0, high = 0;
    Expect(svr4::mapping_of(reinterpret_cast<uintptr_t>(sbrk(0)) - 1, &low, &high) == 0, 9);
    for (uintptr_t at = low; at < high; at++)
        *reinterpret_cast<volatile char*>(at) = 0x55;
}

TEST_F(CaptureBounds, ADamagedHeapIsReportedWhereTheFileIsLargeAndTheTimeZoneUnknown)
{
    for (const size_t earlier : {0, 70000}) {
        WriteFile(CrashFile("heap"), std::string(earlier, 'y'));
        const Crash crash = CrashOnce("heap", [] {
            unsetenv("TZ");
            MonitoredObject object;
            DamageHeap();
            WriteToNull();
        });
        EXPECT_NE(crash.err.find("Call trace and dump of monitored objects in " + CrashFile("heap")),
                  std::string::npos);
        EXPECT_EQ(CheckReport(crash.report, "heap", SIGSEGV), StateDump(0, 0, 1, ObjectDump(0, "not avail\n")));
    }
    EXPECT_EQ(ReadFile(CrashFile("heap") + ".old"), std::string(70000, 'y'));
    unlink((CrashFile("heap") + ".old").c_str());
}

TEST_F(CaptureBounds, ADumpThatNeedsTheDamagedHeapIsSkippedAndTheObjectsEnd)
{
    const Crash crash = CrashOnce("heap-dump", [] {
        Probe object("object");
        object.talks = false;
        object.onTerm = [](int) { (void)!write(2, "term\n", 5); };
        object.onRestart = [](int) { (void)!write(2, "restart\n", 8); };
        object.onDump = [](std::ostream& os) {
            os << "begun\n";
            for (size_t i = 0; i < 100; i++)
                free(malloc(20 * i));
            abort(); // what the allocator does that notices
        };
        DamageHeap();
        WriteToNull();
    });
    EXPECT_NE(crash.err.find("detected processing state caputre. siglongjmp out..\n\nterm\nrestart\n"),
              std::string::npos)
        << crash.err;
    EXPECT_NE(crash.report.find("*** Begin dump of object tag: 0\nbegun\n"), std::string::npos);
}
TEST_F(CaptureBounds, ARegistryInPiecesIsReported)
{
    const Crash crash = CrashOnce("pieces", [] {
        void* memory = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        Probe one("one");
        new (memory) Probe("two");
        memset(memory, 0x55, sizeof(Probe));
        WriteToNull();
    });
    EXPECT_EQ(crash.err.substr(0, CaptureMessages("pieces", SIGSEGV).size()), CaptureMessages("pieces", SIGSEGV));
    EXPECT_NE(crash.err.find("SigTermProc(" + Segv + ") of one\n"), std::string::npos);
    EXPECT_NE(crash.report.find("\nStack: 0x"), std::string::npos);
}

#endif

// Crashes while another thread holds the lock of standard error and of standard output for ever.
TEST_F(CaptureBounds, TheLocksOfStreamsAreNotTaken)
{
    const Crash crash = CrashOnce("locked", [] {
        Probe object("object");
        object.talks = false;
        std::atomic<bool> isLocked{false};
        std::thread holder([&] {
            flockfile(stdout);
            flockfile(stderr);
            isLocked = true;
            pause();
        });
        while (!isLocked)
            std::this_thread::yield();
        WriteToNull();
    });
    EXPECT_EQ(crash.err, CaptureMessages("locked", SIGSEGV));
    EXPECT_EQ(CheckReport(crash.report, "locked", SIGSEGV), StateDump(0, 0, 1, ObjectDump(0, "probe object\n")));
}

// ---- Output that nobody reads ----

void FillWithPipe(int fd)
{
    int ends[2];
    Expect(pipe(ends) == 0, 1);
    fcntl(ends[1], F_SETFL, O_NONBLOCK);
    const std::string block(4096, 'f');
    while (write(ends[1], block.data(), block.size()) > 0)
        ;
    fcntl(ends[1], F_SETFL, 0);
    dup2(ends[1], fd);
}

TEST_F(CaptureBounds, AFullPipeAsOutputHoldsNothingUp)
{
    const Crash crash = CrashOnce("full", [] {
        Probe object("object");
        object.onTerm = [](int) {
            std::cout << std::string(100000, 'o') << std::endl;
            std::cerr << std::string(100000, 'e') << std::endl;
        };
        FillWithPipe(1);
        FillWithPipe(2);
        WriteToNull();
    });
    EXPECT_EQ(crash.err, "");
    EXPECT_EQ(CheckReport(crash.report, "full", SIGSEGV), StateDump(0, 0, 1, ObjectDump(0, "probe object\n")));
}

// ---- Time and bytes ----

TEST_F(CaptureBounds, ADumpThatNeverEndsIsLeftOutAndTheObjectsEnd)
{
    const Crash crash = CrashOnce("endless", [] {
        Probe one("one"), two("two"), three("three");
        one.talks = three.talks = false;
        two.onDump = [](std::ostream& os) {
            os << "begun\n" << std::flush;
            for (;;)
                pause();
        };
        MonitoredObject::SetCaptureLimits(1, 0);
        WriteToNull();
    });
    EXPECT_EQ(crash.err, CaptureMessages("endless", SIGSEGV) + Ended("two"));
    const std::string text =
        StateDump(0, 2, 3, ObjectDump(0, "probe one\n") + "\n\n*** Begin dump of object tag: 1\nbegun\n");
    EXPECT_EQ(CheckReport(crash.report, "endless", SIGSEGV),
              text.substr(0, text.rfind("*** End Dump of all")) +
                  "\n*** The rest is left out: it took longer than 1 seconds ***\n");
}

TEST_F(CaptureBounds, ADumpThatWritesForEverIsCut)
{
    const Crash crash = CrashOnce("flood", [] {
        Probe one("one");
        one.onDump = [](std::ostream& os) {
            for (;;)
                os << "more and more and more\n";
        };
        MonitoredObject::SetCaptureLimits(0, 200000);
        WriteToNull();
    });
    EXPECT_EQ(crash.err, CaptureMessages("flood", SIGSEGV) + Ended("one"));
    const std::string last = "\n*** The rest is left out: it goes beyond 200000 bytes ***\n";
    ASSERT_GT(crash.report.size(), last.size());
    EXPECT_EQ(crash.report.substr(crash.report.size() - last.size()), last);
    EXPECT_LE(crash.report.size(), 200000 + last.size());
    EXPECT_GT(crash.report.size(), 199000u);
}

TEST_F(CaptureBounds, AReportThatDoesNotFitIsCutAtItsBeginning)
{
    const Crash crash = CrashOnce("tiny", [] {
        Probe one("one");
        MonitoredObject::SetCaptureLimits(0, 10);
        WriteToNull();
    });
    EXPECT_EQ(crash.err, CaptureMessages("tiny", SIGSEGV) + Ended("one"));
    EXPECT_EQ(crash.report.substr(10), "\n*** The rest is left out: it goes beyond 10 bytes ***\n");
}

// Calls itself `depth` times and then faults, in small frames.
UNCHECKED int Descend(long depth);
int (*volatile descendAgain)(long) = Descend;
UNCHECKED int Descend(long depth)
{
    if (depth == 0)
        WriteToNull();
    return descendAgain(depth - 1) + 1;
}

// The bytes of stack to go down; ZELOO_DEEP names another number, such as 1073741824.
long StackBytes()
{
    const char* deep = getenv("ZELOO_DEEP");
    return deep != nullptr ? atol(deep) : 64 * 1024 * 1024;
}

TEST_F(CaptureBounds, ADeepRecursionShowsItsInnermostAndOutermostFrames)
{
    const long bytes = StackBytes();
    const Crash crash = CrashOnce("deep", [=] {
        Probe object("object");
        object.talks = false;
        const struct rlimit noCore = {0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        MonitoredObject::SetCaptureLimits(0, 1000000);
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, static_cast<size_t>(bytes) + 8 * 1024 * 1024);
        pthread_t thread;
        pthread_create(
            &thread, &attributes,
            [](void* depth) -> void* {
                Descend(*static_cast<const long*>(depth) / 256); // no frame is larger
                return nullptr;
            },
            const_cast<long*>(&bytes));
        pthread_join(thread, nullptr);
    });
    EXPECT_EQ(crash.err, CaptureMessages("deep", SIGSEGV));
    EXPECT_LT(crash.report.size(), 1000000u);
    const size_t left = crash.report.find(" frame(s) left out\n");
    ASSERT_NE(left, std::string::npos) << crash.report.substr(0, 2000);
    const std::string inner = crash.report.substr(0, left), outer = crash.report.substr(left);
    const long written = CountOf(inner, "\nbp=") + CountOf(outer, "\nbp=");
    const long leftOut = atol(inner.substr(inner.rfind('\t') + 1).c_str());
    EXPECT_EQ(CountOf(inner, "\nbp="), 1000000 / 4 / 40);
    EXPECT_EQ(CountOf(outer, "\nbp="), 1000);
    EXPECT_GE(written + leftOut, bytes / 256);
    EXPECT_NE(outer.find(StateDump(0, 0, 1, ObjectDump(0, "probe object\n"))), std::string::npos);
}

TEST_F(CaptureBounds, ObjectsThatNeverEndAreNotWaitedFor)
{
    const long before = time(nullptr);
    const Crash crash = CrashOnce("unending", [] {
        Probe object("object");
        object.onTerm = [](int) {
            kill(getpid(), SIGTERM);
            for (;;)
                pause();
        };
        WriteToNull();
    });
    EXPECT_EQ(crash.err, CaptureMessages("unending", SIGSEGV) +
                             Left(SIGSEGV, "SigTermProc and SigRestartProc took longer than 10 seconds."));
    EXPECT_GE(time(nullptr) - before, 9);
}

// ---- Threads ----

TEST_F(CaptureBounds, ThreadsThatCrashTogetherLeaveOneReport)
{
    for (int round = 0; round < 5; round++) {
        const Crash crash = CrashOnce("threads", [] {
            Probe object("object");
            std::atomic<int> ready{0};
            std::vector<std::thread> threads;
            threads.reserve(8);
            for (int i = 0; i < 8; i++)
                threads.emplace_back([&, i] {
                    ready++;
                    while (ready < 8)
                        ;
                    if (i % 2 == 0)
                        WriteToNull();
                    abort();
                });
            for (std::thread& thread : threads)
                thread.join();
        });
        EXPECT_EQ(CountOf(crash.report, ". SIGNAL "), 1);
        const int sig = crash.report.find("SIGNAL " + Segv + " ") != std::string::npos ? SIGSEGV : SIGABRT;
        EXPECT_EQ(CheckReport(crash.report, "threads", sig), StateDump(0, 0, 1, ObjectDump(0, "probe object\n")));
        EXPECT_EQ(CountOf(crash.err, "SigRestartProc("), 1);
        EXPECT_EQ(CountOf(crash.err, "detected while processing"), 0);
    }
}

TEST_F(CaptureBounds, NoRequestToEndTakesTheProcessFromItsCapture)
{
    const Crash crash = CrashOnce("requests", [] {
        Probe object("object");
        object.talks = false;
        static std::atomic<bool> isAsked{false};
        static std::atomic<int> asked{0};
        object.onDump = [](std::ostream& os) {
            isAsked = true;
            while (asked < 100)
                std::this_thread::yield();
            os << "dumped\n";
        };
        std::thread asker([] {
            while (!isAsked)
                std::this_thread::yield();
            for (;; asked++)
                for (const int sig : {SIGTERM, SIGHUP, SIGINT})
                    kill(getpid(), sig);
        });
        WriteToNull();
    });
    EXPECT_EQ(crash.err, CaptureMessages("requests", SIGSEGV));
    EXPECT_EQ(CheckReport(crash.report, "requests", SIGSEGV), StateDump(0, 0, 1, ObjectDump(0, "dumped\n")));
}

} // namespace
