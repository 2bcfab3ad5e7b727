// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/mobject.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utime.h>

#include <gtest/gtest.h>

#include "Misc/crash/stackdump.h"
#include "tests/support/failing_calls.h"
#include "tests/support/stack_overflow.h"
#include "tests/support/testing.h"
#include "tests/unit/crash_testing.h"
#include "tests/unit/mobject_testing.h"

using namespace crash_testing;
using namespace mobject_testing;
using namespace testing_support;

namespace {

UNCHECKED void WriteBehindAFile()
{
    const int fd = open((Directory + "/empty").c_str(), O_RDWR | O_CREAT, 0600);
    unlink((Directory + "/empty").c_str());
    volatile char* memory = static_cast<char*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    memory[0] = 1;
}

#if defined(__x86_64__) || defined(__i386__)
volatile int dividend = 7, zero = 0, quotient;

UNCHECKED void DivideByZero() { quotient = dividend / zero; }
#endif

struct Fault {
    const char* name;
    int sig;
    void (*commit)();
    bool aboveFrames; // the frame pointer at the fault is that of a function compiled with frame pointers
};

void PrintTo(const Fault& fault, std::ostream* os) { *os << fault.name; }

const Fault Faults[] = {
    {"segv", SIGSEGV, WriteToNull, true},
    {"bus", SIGBUS, WriteBehindAFile, true},
#if defined(__x86_64__) || defined(__i386__)
    {"fpe", SIGFPE, DivideByZero, true},
    {"ill", SIGILL, [] { asm volatile("ud2"); }, true},
    {"trap", SIGTRAP, [] { asm volatile("int3"); }, true},
#elif defined(__aarch64__)
    {"ill", SIGILL, [] { asm volatile("udf #0"); }, true},
    {"trap", SIGTRAP, [] { asm volatile("brk #0"); }, true},
#endif
    {"abrt", SIGABRT, [] { abort(); }, false},
    {"sys", SIGSYS, [] { kill(getpid(), SIGSYS); }, false},
    {"usr2", SIGUSR2, [] { kill(getpid(), SIGUSR2); }, false},
    {"killed", SIGSEGV, [] { kill(getpid(), SIGSEGV); }, false},
};

// ---- Captures ----

class CaptureFault : public Capture, public testing::WithParamInterface<Fault> {};

TEST_P(CaptureFault, LeavesAReportAndACore)
{
    const Fault fault = GetParam();
    const std::string name = std::string("fault-") + fault.name;
    const Crash crash = CrashAs(name, [&] {
        Probe one("one"), two("two");
        fault.commit();
    });
    EXPECT_EQ(crash.child.signal, SIGABRT);
    EXPECT_EQ(crash.child.out, "");
    const std::string number = std::to_string(fault.sig);
    EXPECT_EQ(crash.err, CaptureMessages(name, fault.sig) + "SigTermProc(" + number + ") of one\nSigTermProc(" +
                             number + ") of two\nSigRestartProc(" + number + ") of one\nSigRestartProc(" + number +
                             ") of two\n");
    EXPECT_EQ(CheckReport(crash.report, name, fault.sig),
              StateDump(0, 1, 2, ObjectDump(0, "probe one\n") + ObjectDump(1, "probe two\n")));
    if (fault.aboveFrames) {
        const Report report = Parse(crash.report);
        EXPECT_GE(report.frames.size(), 3u);
        EXPECT_EQ(report.stackStart, report.Register("UESP") & ~15ul);
        EXPECT_LE(report.stackSize, (report.Register("EBP") - report.stackStart + 5120) & ~15ul);
        EXPECT_GT(report.stackSize, 0u);
    }
    struct stat status;
    ASSERT_EQ(stat(CrashFile(name).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0666u);
    unlink(CrashFile(name).c_str());
}

INSTANTIATE_TEST_SUITE_P(Signals, CaptureFault, testing::ValuesIn(Faults),
                         [](const testing::TestParamInfo<Fault>& info) { return std::string(info.param.name); });

TEST_F(Capture, AnOverflowOfTheStackIsCaptured)
{
    const Crash crash = CrashAs("overflow", [] {
        Probe one("one");
        LimitStack();
        OverflowStack(1);
    });
    EXPECT_EQ(crash.child.signal, SIGABRT);
    const std::string number = std::to_string(SIGSEGV);
    EXPECT_EQ(crash.err, CaptureMessages("overflow", SIGSEGV) + "SigTermProc(" + number + ") of one\nSigRestartProc(" +
                             number + ") of one\n");
    EXPECT_EQ(CheckReport(crash.report, "overflow", SIGSEGV), StateDump(0, 0, 1, ObjectDump(0, "probe one\n")));
    const Report report = Parse(crash.report);
    EXPECT_GT(report.frames.size(), 100u);
    EXPECT_GT(report.stackSize, 0u);
    unlink(CrashFile("overflow").c_str());
}

unsigned long* seenReturnAddress; // shared with the child

__attribute__((noinline)) void Inner(void (*commit)())
{
    *seenReturnAddress = reinterpret_cast<unsigned long>(__builtin_return_address(0));
    commit();
    asm volatile(""); // keeps the frame: the call above is not the last thing done
}

__attribute__((noinline)) void Outer(void (*commit)())
{
    Inner(commit);
    asm volatile("");
}

TEST_F(Capture, TheCallTraceHoldsTheProgramsFrames)
{
    void* shared = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    seenReturnAddress = static_cast<unsigned long*>(shared);
    const Crash crash = CrashAs("trace", [] {
        MonitoredObject object;
        Outer(WriteToNull);
    });
    EXPECT_EQ(crash.child.signal, SIGABRT);
    int found = 0;
    for (const auto& frame : Parse(crash.report).frames)
        found += frame.second == *seenReturnAddress;
    EXPECT_EQ(found, 1) << std::hex << *seenReturnAddress << "\n" << crash.report;
    munmap(shared, 4096);
    unlink(CrashFile("trace").c_str());
}

#if defined(__x86_64__)

// Faults with a frame pointer that `value` gives from the stack pointer.
Crash CrashWithFramePointer(const std::string& name, unsigned long value, bool relative)
{
    return CrashAs(name, [=] {
        MonitoredObject object;
        if (relative)
            asm volatile("mov %0, %%rax\n\tlea (%%rsp,%%rax), %%rbp\n\tud2" ::"r"(value) : "rax", "memory");
        else
            asm volatile("mov %0, %%rbp\n\tud2" ::"r"(value) : "memory");
    });
}

TEST_F(Capture, AFramePointerThatIsNoneEndsTheTrace)
{
    const struct {
        const char* name;
        unsigned long value;
        bool relative;
    } cases[] = {{"bp-zero", 0, false}, {"bp-small", 16, false}, {"bp-below", static_cast<unsigned long>(-64), true}};
    for (const auto& c : cases) {
        const Crash crash = CrashWithFramePointer(c.name, c.value, c.relative);
        EXPECT_EQ(crash.child.signal, SIGABRT) << c.name;
        EXPECT_EQ(CheckReport(crash.report, c.name, SIGILL), StateDump(0, 0, 1, ObjectDump(0, "not avail\n")));
        const Report report = Parse(crash.report);
        EXPECT_TRUE(report.frames.empty()) << c.name;
        EXPECT_EQ(report.stackStart, report.Register("UESP") & ~15ul) << c.name;
        EXPECT_EQ(report.stackSize, 0u) << c.name;
        unlink(CrashFile(c.name).c_str());
    }
}

TEST_F(Capture, AFramePointerThatLeavesTheStackOrIsMisalignedIsNotFollowed)
{
    const struct {
        const char* name;
        unsigned long value;
        bool relative;
    } cases[] = {{"bp-high", ~0ul, false},
                 {"bp-high-aligned", ~15ul, false},
                 {"bp-kernel", 0xffff800000000000ul, false},
                 {"bp-odd", 65, true}};
    for (const auto& c : cases) {
        const Crash crash = CrashWithFramePointer(c.name, c.value, c.relative);
        EXPECT_EQ(crash.child.signal, SIGABRT) << c.name;
        EXPECT_EQ(crash.err, CaptureMessages(c.name, SIGILL)) << c.name;
        EXPECT_EQ(CheckReport(crash.report, c.name, SIGILL), StateDump(0, 0, 1, ObjectDump(0, "not avail\n")));
        const Report report = Parse(crash.report);
        EXPECT_TRUE(report.frames.empty()) << c.name;
        EXPECT_GT(report.stackSize, 0u) << c.name;
        unlink(CrashFile(c.name).c_str());
    }
}

TEST_F(Capture, AFrameThatPointsToItselfEndsTheTrace)
{
    const Crash crash = CrashAs("bp-self", [] {
        MonitoredObject object;
        asm volatile("sub $512, %%rsp\n\tand $-16, %%rsp\n\tlea 64(%%rsp), %%rbp\n\tmov %%rbp, (%%rbp)\n\t"
                     "movq $0x1234, 8(%%rbp)\n\tud2" ::
                         : "memory");
    });
    EXPECT_EQ(crash.child.signal, SIGABRT);
    const Report report = Parse(crash.report);
    EXPECT_EQ(report.problem, "");
    ASSERT_EQ(report.frames.size(), 1u);
    EXPECT_EQ(report.frames[0].first, report.Register("EBP"));
    EXPECT_EQ(report.frames[0].second, 0x1234u);
    EXPECT_EQ(report.stackSize, std::min(report.stackSize, 64ul + 5120));
    unlink(CrashFile("bp-self").c_str());
}

// On a stack of its own with nothing readable above it, the dump ends with the stack.
TEST_F(Capture, TheStackDumpStaysWithinTheStack)
{
    const Crash crash = CrashAs("small-stack", [] {
        MonitoredObject object;
        char* memory = static_cast<char*>(mmap(nullptr, 3 * 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(memory + 4096, 4096, PROT_READ | PROT_WRITE);
        asm volatile("mov %0, %%rsp\n\tlea 40(%%rsp), %%rbp\n\tmovq $0, (%%rbp)\n\tud2" ::"r"(memory + 8192 - 104)
                     : "memory");
    });
    EXPECT_EQ(crash.child.signal, SIGABRT);
    EXPECT_EQ(crash.err, CaptureMessages("small-stack", SIGILL));
    EXPECT_EQ(CheckReport(crash.report, "small-stack", SIGILL), StateDump(0, 0, 1, ObjectDump(0, "not avail\n")));
    const Report report = Parse(crash.report);
    ASSERT_EQ(report.frames.size(), 1u);
    EXPECT_EQ(report.frames[0].second, 0u);
    EXPECT_EQ(report.stackSize, 112u);
    EXPECT_EQ((report.stackStart + report.stackSize) % 4096, 0u);
    unlink(CrashFile("small-stack").c_str());
}

#endif

TEST_F(Capture, AFaultInAnObjectsDumpIsSkipped)
{
    const struct {
        const char* name;
        int sig;
        void (*commit)();
    } faults[] = {{"dump-segv", SIGSEGV, WriteToNull},
                  {"dump-bus", SIGBUS, WriteBehindAFile},
                  {"dump-overflow", SIGSEGV, [] { OverflowStack(1); }}};
    for (const auto& fault : faults)
        for (const int sig : {SIGSEGV, SIGABRT}) {
            const std::string name = std::string(fault.name) + std::to_string(sig);
            const Crash crash = CrashAs(name, [&] {
                Probe one("one"), two("two"), three("three");
                two.onDump = [&](std::ostream& os) {
                    os << "begun\n";
                    fault.commit();
                };
                if (sig == SIGABRT)
                    abort();
                WriteToNull();
            });
            EXPECT_EQ(crash.child.signal, SIGABRT) << name;
            const std::string number = std::to_string(sig);
            std::string messages = CaptureMessages(name, sig) + Skipped(fault.sig);
            for (const char* operation : {"SigTermProc(", "SigRestartProc("})
                for (const char* object : {"one", "two", "three"})
                    messages += operation + number + ") of " + object + "\n";
            EXPECT_EQ(crash.err, messages);
            const std::string whole =
                StateDump(0, 2, 3, ObjectDump(0, "probe one\n") + "\n\n*** Begin dump of object tag: 1\nbegun\n");
            EXPECT_EQ(CheckReport(crash.report, name, sig), whole.substr(0, whole.rfind("*** End Dump of all")))
                << name;
            unlink(CrashFile(name).c_str());
        }
}

TEST_F(Capture, TheSameSignalAgainEndsTheProcess)
{
    const std::string number = std::to_string(SIGSEGV);
    const std::string exit = "Error Exit. SIGNAL " + number + " detected while processing SIGNAL " + number + ".\n";
    const Crash inTerm = CrashAs("again", [] {
        Probe one("one"), two("two");
        two.onTerm = [](int) { WriteToNull(); };
        WriteToNull();
    });
    EXPECT_EQ(inTerm.child.signal, SIGABRT);
    EXPECT_EQ(inTerm.err, CaptureMessages("again", SIGSEGV) + "SigTermProc(" + number + ") of one\n" + exit);
    EXPECT_EQ(CheckReport(inTerm.report, "again", SIGSEGV),
              StateDump(0, 1, 2, ObjectDump(0, "probe one\n") + ObjectDump(1, "probe two\n")));
    unlink(CrashFile("again").c_str());

    const Crash overflow = CrashAs("again", [] {
        Probe one("one");
        one.onRestart = [](int) { OverflowStack(1); };
        WriteToNull();
    });
    EXPECT_EQ(overflow.child.signal, SIGABRT);
    EXPECT_EQ(overflow.err, CaptureMessages("again", SIGSEGV) + "SigTermProc(" + number + ") of one\n" + exit);
    unlink(CrashFile("again").c_str());

    const std::string aborted = std::to_string(SIGABRT);
    const Crash inDump = CrashAs("again", [] {
        Probe one("one"), two("two");
        two.onDump = [](std::ostream& os) {
            os << "begun" << std::endl;
            abort();
        };
        abort();
    });
    EXPECT_EQ(inDump.child.signal, SIGABRT);
    EXPECT_EQ(inDump.err, CaptureMessages("again", SIGABRT) + "Error Exit. SIGNAL " + aborted +
                              " detected while processing SIGNAL " + aborted + ".\n");
    const std::string objects = CheckReport(inDump.report, "again", SIGABRT);
    const std::string end = ObjectDump(0, "probe one\n") + "\n\n*** Begin dump of object tag: 1\nbegun\n";
    ASSERT_GE(objects.size(), end.size());
    EXPECT_EQ(objects.substr(objects.size() - end.size()), end) << "what was dumped so far is in the file";
    unlink(CrashFile("again").c_str());
}

// A different fault signal during a capture starts a capture of its own.
TEST_F(Capture, AnotherSignalDuringTheCaptureIsCapturedToo)
{
    const Crash crash = CrashAs("nested", [] {
        Probe one("one");
        one.onTerm = [](int) { abort(); };
        WriteToNull();
    });
    EXPECT_EQ(crash.child.signal, SIGABRT);
    const std::string number = std::to_string(SIGABRT);
    EXPECT_EQ(crash.err, CaptureMessages("nested", SIGSEGV) + CaptureMessages("nested", SIGABRT) +
                             "Error Exit. SIGNAL " + number + " detected while processing SIGNAL " + number + ".\n");
    const std::string heading = "\nDATE. SIGNAL ";
    const size_t nested = crash.report.find(heading, 1);
    ASSERT_NE(nested, std::string::npos);
    const std::string objects = StateDump(0, 0, 1, ObjectDump(0, "probe one\n"));
    EXPECT_EQ(CheckReport(crash.report.substr(0, nested), "nested", SIGSEGV), objects);
    EXPECT_EQ(CheckReport(crash.report.substr(nested), "nested", SIGABRT), objects);
    unlink(CrashFile("nested").c_str());
}

// An object that gives way to another one, which is the first of a registry made anew, and then faults.
class Phoenix : public MonitoredObject {
public:
    void SigTermProc(int) override
    {
        delete this;
        const MonitoredObject next;
        WriteToNull();
    }
};

TEST_F(Capture, AFirstObjectDoesNotUndoTheHandlersOfTheCapture)
{
    const Crash crash = CrashAs("anew", [] {
        new Phoenix;
        WriteToNull();
    });
    EXPECT_EQ(crash.child.signal, SIGABRT);
    const std::string number = std::to_string(SIGSEGV);
    EXPECT_EQ(crash.err, CaptureMessages("anew", SIGSEGV) + "Error Exit. SIGNAL " + number +
                             " detected while processing SIGNAL " + number + ".\n");
    unlink(CrashFile("anew").c_str());
}

TEST_F(Capture, ACrashWithinAMinuteIsCutShortWhenThereIsADumpStateFile)
{
    const std::string name = CrashFile("loops");
    const std::string number = std::to_string(SIGSEGV);
    const auto crash = [](bool dumpState) {
        return CrashAs("loops", [=] {
            MonitoredObject object;
            if (dumpState)
                MonitoredObject::SetDumpStateFileName("/tmp/unused");
            WriteToNull();
        });
    };
    WriteFile(name, "earlier\n");
    const Crash cut = crash(true);
    EXPECT_EQ(cut.child.signal, SIGABRT);
    EXPECT_EQ(cut.err, "\n\nError: DATE. SIGNAL " + number + " detected....\nHandle of signal " + number +
                           " exit: Previous sighandler probably failed.\n");
    EXPECT_EQ(cut.report, "earlier\n");

    EXPECT_EQ(crash(false).err, CaptureMessages("loops", SIGSEGV)) << "not without a dump-state file";

    const struct utimbuf old = {time(nullptr) - 61, time(nullptr) - 61};
    ASSERT_EQ(utime(name.c_str(), &old), 0);
    EXPECT_EQ(crash(true).err, CaptureMessages("loops", SIGSEGV)) << "nor after a minute";
    unlink(name.c_str());
}

TEST_F(Capture, ReportsAccumulate)
{
    const auto body = [] {
        MonitoredObject object;
        WriteToNull();
    };
    const Crash once = CrashAs("twice", body);
    const Crash twice = CrashAs("twice", body);
    EXPECT_EQ(twice.report.compare(0, once.report.size(), once.report), 0);
    EXPECT_EQ(CheckReport(twice.report.substr(once.report.size()), "twice", SIGSEGV),
              StateDump(0, 0, 1, ObjectDump(0, "not avail\n")));
    unlink(CrashFile("twice").c_str());
}

TEST_F(Capture, AnArgumentThatTheProgramHasTakenOutIsNotMissed)
{
    const Crash crash = CrashAs("taken", [] {
        const_cast<char**>(ProgInfo::Getargv())[1] = nullptr;
        MonitoredObject object;
        WriteToNull();
    });
    const std::string heading = "\nDATE. SIGNAL 11 detected. ProgInfo=/opt/orv/bin/taken \n";
    EXPECT_EQ(crash.report.substr(0, heading.size()), heading);
    EXPECT_NE(crash.report.find("\nStack: 0x"), std::string::npos);
    unlink(CrashFile("taken").c_str());
}

TEST_F(Capture, ALargeFileIsMovedAway)
{
    const std::string name = CrashFile("large");
    const auto body = [] {
        Probe object("object");
        object.talks = false;
        WriteToNull();
    };
    WriteFile(name, std::string(65536, 'x'));
    EXPECT_EQ(CrashAs("large", body).err, CaptureMessages("large", SIGSEGV)) << "65536 bytes are not yet too many";
    EXPECT_NE(access((name + ".old").c_str(), F_OK), 0);

    for (const size_t size : {70000, 65537}) {
        const std::string content(size, 'y');
        WriteFile(name, content);
        const Crash crash = CrashAs("large", body);
        EXPECT_EQ(crash.child.signal, SIGABRT);
        const std::string number = std::to_string(SIGSEGV);
        EXPECT_EQ(crash.err, "\n\nError: DATE. SIGNAL " + number + " detected....\n/usr/bin/mv " + name + " " + name +
                                 ".old\nCall trace and dump of monitored objects in " + name + "\n");
        EXPECT_EQ(ReadFile(name + ".old"), content);
        EXPECT_EQ(CheckReport(crash.report, "large", SIGSEGV), StateDump(0, 0, 1, ObjectDump(0, "probe object\n")));
    }
    unlink(name.c_str());
    unlink((name + ".old").c_str());
}

TEST_F(Capture, ALargeFileThatCannotBeMovedGrows)
{
    const std::string name = CrashFile("stays");
    const std::string content(70000, 'y');
    WriteFile(name, content);
    ASSERT_EQ(mkdir((name + ".old").c_str(), 0755), 0);
    WriteFile(name + ".old/kept", "kept");
    const Crash crash = CrashAs("stays", [] {
        Probe object("object");
        WriteToNull();
    });
    EXPECT_EQ(crash.child.signal, SIGABRT);
    const std::string number = std::to_string(SIGSEGV);
    EXPECT_EQ(crash.err, "\n\nError: DATE. SIGNAL " + number + " detected....\n/usr/bin/mv " + name + " " + name +
                             ".old\nrename of " + name + " failed. " + strerror(EISDIR) +
                             "\nCall trace and dump of monitored objects in " + name + "\nSigTermProc(" + number +
                             ") of object\nSigRestartProc(" + number + ") of object\n");
    ASSERT_EQ(crash.report.compare(0, content.size(), content), 0);
    EXPECT_EQ(CheckReport(crash.report.substr(content.size()), "stays", SIGSEGV),
              StateDump(0, 0, 1, ObjectDump(0, "probe object\n")));
    EXPECT_EQ(ReadFile(name + ".old/kept"), "kept");
    EXPECT_EQ(unlink((name + ".old/kept").c_str()), 0);
    EXPECT_EQ(rmdir((name + ".old").c_str()), 0) << "nothing was put into it";
    unlink(name.c_str());
}

TEST_F(Capture, ALargeFileIsMovedAwayWithNoObjectsAndNoChild)
{
    const std::string name = CrashFile("none left");
    WriteFile(name, std::string(70000, 'y'));
    const Crash crash = CrashAs("none left", [] {
        {
            MonitoredObject object;
        }
        MakeForksFail();
        WriteToNull();
    });
    EXPECT_EQ(crash.child.signal, SIGABRT);
    EXPECT_EQ(ReadFile(name + ".old"), std::string(70000, 'y')) << "a blank in the name is part of the name";
    EXPECT_EQ(CheckReport(crash.report, "none left", SIGSEGV),
              "Monitored Objects: \nNo objects currently being monitored...\n");
    unlink(name.c_str());
    unlink((name + ".old").c_str());
}

TEST_F(Capture, AProgramWithoutANameHasADefaultFile)
{
    unlink(CrashFile("mobject").c_str()); // any test program that crashes leaves one
    const ChildResult result = RunInChild([] {
        MonitoredObject object;
        WriteToNull();
    });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_EQ(WithoutDates(WithoutSanitizer(result.err)), CaptureMessages("mobject", SIGSEGV));
    const Report report = Parse(WithoutDates(ReadFile(CrashFile("mobject"))));
    EXPECT_EQ(report.problem, "");
    EXPECT_EQ(report.heading,
              "\nDATE. SIGNAL " + std::to_string(SIGSEGV) + " detected. ProgInfo=\n\n......initiating dump...\n\n");
    unlink(CrashFile("mobject").c_str());
}

TEST_F(Capture, ACrashFileThatCannotBeOpenedIsReported)
{
    ASSERT_EQ(mkdir(CrashFile("no-open").c_str(), 0755), 0);
    const Crash crash = CrashAs("no-open", [] {
        Probe object("object");
        WriteToNull();
    });
    EXPECT_EQ(crash.child.signal, SIGABRT);
    EXPECT_EQ(crash.err, CaptureMessages("no-open", SIGSEGV) +
                             Left(SIGSEGV, std::string("open of sighandler file failed. ") + strerror(EISDIR)));
    rmdir(CrashFile("no-open").c_str());
}

TEST_F(Capture, ACrashFileThatCannotBeWrittenIsReported)
{
    WriteFile(CrashFile("no-write"), std::string(600, 'x'));
    const Crash crash = CrashAs("no-write", [] {
        Probe object("object");
        LimitFileSize(600); // enough for standard error
        WriteToNull();
    });
    EXPECT_EQ(crash.child.signal, SIGABRT);
    EXPECT_EQ(crash.err, CaptureMessages("no-write", SIGSEGV) +
                             Left(SIGSEGV, std::string("write of sighandler file failed. ") + strerror(EFBIG)));
    unlink(CrashFile("no-write").c_str());
}

TEST_F(Capture, ACrashFileThatFillsUpIsReported)
{
    const Crash crash = CrashAs("fills-up", [] {
        Probe object("object");
        LimitFileSize(600); // SIGXFSZ must not end the process before its report
        WriteToNull();
    });
    EXPECT_EQ(crash.child.signal, SIGABRT);
    EXPECT_EQ(crash.child.err.find("SigTermProc"), std::string::npos);
    EXPECT_EQ(crash.report.size(), 600 - std::string("01/01/2000 00:00:00").size() + 4);
    // The messages are beyond 600 bytes of a file as well: what standard error shows depends on its size.
    EXPECT_EQ(crash.err, CaptureMessages("fills-up", SIGSEGV) +
                             Left(SIGSEGV, "write of " + CrashFile("fills-up") + " file failed. " + strerror(EFBIG)));
    unlink(CrashFile("fills-up").c_str());
}

TEST_F(Capture, RequestsToEndDoNotDisturbIt)
{
    const Crash crash = CrashAs("disturbed", [] {
        Probe one("one");
        one.onDump = [](std::ostream& os) {
            for (const int sig : {SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGXCPU, SIGXFSZ, SIGUSR1, SIGUSR2})
                raise(sig);
            os << "dumped\n";
        };
        WriteToNull();
    });
    EXPECT_EQ(crash.child.signal, SIGABRT);
    const std::string number = std::to_string(SIGSEGV);
    EXPECT_EQ(crash.err, CaptureMessages("disturbed", SIGSEGV) + "SigTermProc(" + number + ") of one\nSigRestartProc(" +
                             number + ") of one\n");
    EXPECT_EQ(CheckReport(crash.report, "disturbed", SIGSEGV), StateDump(0, 0, 1, ObjectDump(0, "dumped\n")));
    unlink(CrashFile("disturbed").c_str());
}

TEST_F(Capture, AStandardErrorThatNobodyReadsDoesNoHarm)
{
    const Crash crash = CrashAs("unread", [] {
        MonitoredObject object;
        int ends[2];
        Expect(pipe(ends) == 0, 1);
        dup2(ends[1], 2);
        close(ends[0]);
        close(ends[1]);
        WriteToNull();
    });
    EXPECT_EQ(crash.child.signal, SIGABRT);
    EXPECT_EQ(CheckReport(crash.report, "unread", SIGSEGV), StateDump(0, 0, 1, ObjectDump(0, "not avail\n")));
    unlink(CrashFile("unread").c_str());
}

TEST_F(Capture, StandardErrorIsUsedWhateverItsState)
{
    const Crash crash = CrashAs("state", [] {
        MonitoredObject object;
        std::cerr << std::hex << std::showbase;
        std::cerr.width(20);
        std::cerr.setstate(std::ios::failbit | std::ios::badbit);
        WriteToNull();
    });
    EXPECT_EQ(crash.child.signal, SIGABRT);
    EXPECT_EQ(crash.err, CaptureMessages("state", SIGSEGV));
    unlink(CrashFile("state").c_str());
}

TEST_F(Capture, AStandardErrorWithoutABufferDoesNoHarm)
{
    const Crash crash = CrashAs("bufferless", [] {
        MonitoredObject object;
        std::cerr.rdbuf(nullptr);
        WriteToNull();
    });
    EXPECT_EQ(crash.child.signal, SIGABRT);
    EXPECT_EQ(crash.err, CaptureMessages("bufferless", SIGSEGV));
    unlink(CrashFile("bufferless").c_str());
}

// A crash whose calls of those numbers fail; in its end the child does not say how many.
Crash CrashWithFailing(const std::string& name, std::vector<long> numbers, const FailingCalls::Rule& rule)
{
    FailingCalls calls(std::move(numbers), rule);
    Crash crash;
    crash.child = calls.Run([&] {
        BecomeProgram(name);
        MonitoredObject object;
        calls.Begin();
        WriteToNull();
    });
    EXPECT_TRUE(calls.Failed() > 0 || crash.child.exitCode == NotPossibleHere);
    crash.report = WithoutDates(ReadFile(CrashFile(name)));
    crash.err = WithoutDates(WithoutSanitizer(crash.child.err));
    unlink(CrashFile(name).c_str());
    return crash;
}

TEST_F(Capture, WhatInterruptsTheLookAtTheOutputsLosesNothing)
{
    const Crash crash = CrashWithFailing("interrupted", {SYS_poll, SYS_ppoll}, {EINTR, 0, 5});
    if (crash.child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no way to make system calls fail here";
    EXPECT_EQ(crash.err, CaptureMessages("interrupted", SIGSEGV));
    EXPECT_EQ(CheckReport(crash.report, "interrupted", SIGSEGV), StateDump(0, 0, 1, ObjectDump(0, "not avail\n")));
}

TEST_F(Capture, OutputsThatCannotBeLookedAtAreNotWritten)
{
    const Crash crash = CrashWithFailing("unknown", {SYS_poll, SYS_ppoll}, {ENOMEM});
    if (crash.child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no way to make system calls fail here";
    EXPECT_EQ(crash.child.signal, SIGABRT);
    EXPECT_EQ(crash.err, "");
    EXPECT_EQ(CheckReport(crash.report, "unknown", SIGSEGV), StateDump(0, 0, 1, ObjectDump(0, "not avail\n")));
}

// ---- The hex dump ----

// A page between two that cannot be touched.
class GuardedPage {
public:
    GuardedPage() : memory(static_cast<char*>(mmap(nullptr, 3 * 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)))
    {
        mprotect(memory + 4096, 4096, PROT_READ | PROT_WRITE);
    }
    ~GuardedPage() { munmap(memory, 3 * 4096); }
    char* Start() { return memory + 4096; }
    char* End() { return memory + 8192; }

private:
    char* memory;
};

std::string Dumped(const char* from, unsigned long length, const char* label)
{
    std::ostringstream os;
    zeloo::dumpmem(reinterpret_cast<uintptr_t>(from), length, label, os);
    return os.str();
}

std::string At(const char* p)
{
    std::ostringstream os;
    os << std::hex << reinterpret_cast<uintptr_t>(p);
    return os.str();
}

const std::string ZeroRow = ": 00000000 00000000 00000000 00000000 [                ]\n";

TEST(DumpMem, NothingGivesTheHeadingOnly)
{
    GuardedPage page;
    EXPECT_EQ(Dumped(page.Start(), 0, "Empty"), "Empty: 0x" + At(page.Start()) + " -- [size 0[0x0] bytes]\n");
}

TEST(DumpMem, WritesRowsOfWordsAndCharacters)
{
    GuardedPage page;
    char* p = page.Start();
    memcpy(p,
           "\x01\x02\x03\x04"
           "ABCD"
           "\xc1\xe2\xff\x7f"
           "\0 ~\x9f",
           16);
    memcpy(p + 16, "abcdefghijklmnop", 16);
    EXPECT_EQ(Dumped(p, 32, "Text"), "Text: 0x" + At(p) + " -- [size 32[0x20] bytes]\n" + At(p) +
                                         ": 04030201 44434241 7fffe2c1 9f7e2000 [    ABCDAb    ~ ]\n" + At(p + 16) +
                                         ": 64636261 68676665 6c6b6a69 706f6e6d [abcdefghijklmnop]\n");
}

TEST(DumpMem, EqualRowsAreCounted)
{
    GuardedPage page;
    char* p = page.Start();
    memset(p + 32, 'A', 64);
    memset(p + 96, 'B', 16);
    memset(p + 112, 'A', 16);
    memset(p + 128, 'A', 15);
    const std::string as = ": 41414141 41414141 41414141 41414141 [AAAAAAAAAAAAAAAA]\n";
    EXPECT_EQ(Dumped(p, 144, "Rows"),
              "Rows: 0x" + At(p) + " -- [size 144[0x90] bytes]\n\t dup 2 line(s)\n" + At(p + 32) + as +
                  "\t dup 3 line(s)\n" + At(p + 96) + ": 42424242 42424242 42424242 42424242 [BBBBBBBBBBBBBBBB]\n" +
                  At(p + 112) + as + At(p + 128) + ": 41414141 41414141 41414141 00414141 [AAAAAAAAAAAAAAA ]\n");
}

TEST(DumpMem, ARegionThatEndsInARunShowsTheNextRow)
{
    GuardedPage page;
    char* p = page.Start();
    EXPECT_EQ(Dumped(p, 64, "Zero"),
              "Zero: 0x" + At(p) + " -- [size 64[0x40] bytes]\n\t dup 4 line(s)\n" + At(p + 64) + ZeroRow);
    memset(p + 64, 'A', 64);
    EXPECT_EQ(Dumped(p, 64, "Zero"), "Zero: 0x" + At(p) + " -- [size 64[0x40] bytes]\n\t dup 4 line(s)\n" + At(p + 64) +
                                         ": 41414141 41414141 41414141 41414141 [AAAAAAAAAAAAAAAA]\n");
    EXPECT_EQ(Dumped(p + 64, 32, "Run"),
              "Run: 0x" + At(p + 64) + " -- [size 32[0x20] bytes]\n" + At(p + 64) +
                  ": 41414141 41414141 41414141 41414141 [AAAAAAAAAAAAAAAA]\n\t dup 1 line(s)\n" + At(p + 96) +
                  ": 41414141 41414141 41414141 41414141 [AAAAAAAAAAAAAAAA]\n");
}

TEST(DumpMem, TheRowPastTheMemoryIsShownAsZero)
{
    GuardedPage page;
    char* p = page.End() - 64;
    EXPECT_EQ(Dumped(p, 64, "Last"),
              "Last: 0x" + At(p) + " -- [size 64[0x40] bytes]\n\t dup 4 line(s)\n" + At(page.End()) + ZeroRow);
    memset(p, 'A', 56); // the next row is only partly there
    EXPECT_EQ(Dumped(p + 8, 32, "Part"),
              "Part: 0x" + At(p + 8) + " -- [size 32[0x20] bytes]\n" + At(p + 8) +
                  ": 41414141 41414141 41414141 41414141 [AAAAAAAAAAAAAAAA]\n\t dup 1 line(s)\n" + At(p + 40) +
                  ": 41414141 41414141 41414141 41414141 [AAAAAAAAAAAAAAAA]\n");
    EXPECT_EQ(Dumped(p + 8, 48, "Edge"),
              "Edge: 0x" + At(p + 8) + " -- [size 48[0x30] bytes]\n" + At(p + 8) +
                  ": 41414141 41414141 41414141 41414141 [AAAAAAAAAAAAAAAA]\n\t dup 2 line(s)\n" + At(p + 56) +
                  ZeroRow);
}

TEST(DumpMem, DumpsALongRegion)
{
    GuardedPage page;
    memset(page.Start(), 'x', 4096);
    EXPECT_EQ(Dumped(page.Start(), 4096, "Stack"),
              "Stack: 0x" + At(page.Start()) + " -- [size 4096[0x1000] bytes]\n" + At(page.Start()) +
                  ": 78787878 78787878 78787878 78787878 [xxxxxxxxxxxxxxxx]\n\t dup 255 line(s)\n" + At(page.End()) +
                  ZeroRow);
}

} // namespace
