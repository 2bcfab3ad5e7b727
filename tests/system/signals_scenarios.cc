// SPDX-License-Identifier: BSD-2-Clause
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include <fcntl.h>
#include <unistd.h>

#include "Misc/Dates.h"
#include "Misc/ProcMgr.h"
#include "Misc/detail/timedcall.h"
#include "Misc/lockedfile.h"
#include "Misc/misc.h"
#include "Misc/unixproc.h"
#include "examples/faultstore.h"
#include "svr4/signal.h"
#include "tests/system/failures_testing.h"
#include "tests/system/signals_testing.h"

using namespace testing_support;

namespace signals_testing {

// ---- Processes ----

static std::string Wait(const std::string&)
{
    const char* argv[] = {"/bin/sleep", "0.01", nullptr};
    UnixProcess process(argv, UnixProcess::leave_alone_at_destruction);
    const bool isStarted = process.pid() > 1;
    return Is(isStarted, "started") + "status " + std::to_string(process.wait()) + "\n";
}

static std::string Captured(const Buffer& output)
{
    const std::string text = Bytes(output);
    const size_t banner = text.find("\n\n******** Process max wait time exceeded **********\n");
    return banner == std::string::npos ? text : "overdue\n";
}

static std::string CaptureChild(const std::string&)
{
    Buffer output;
    UnixProcess process("echo some output", output);
    const short status = process.wait();
    return "status " + std::to_string(status) + "\n" + Captured(output);
}

static std::string Limit(const std::string&)
{
    Buffer output;
    UnixProcess process("exec sleep 77.25", output, 1);
    return Captured(output);
}

static bool Runs(const std::string& command)
{
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::ifstream in(entry.path() / "cmdline", std::ios::binary);
        std::string line((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::replace(line.begin(), line.end(), '\0', ' ');
        if (line == command + " ")
            return true;
    }
    return false;
}

static const char* const Sleeper[] = {"/bin/sleep", "77.5", nullptr};

static std::string Terminate(const std::string&)
{
    const char* argv[] = {Sleeper[0], Sleeper[1], nullptr};
    std::string text;
    {
        const UnixProcess child(argv);
        text = Is(child.pid() > 1 && child.exists(), "started");
    }
    return text;
}

static std::string LeftSleeper(const std::string&)
{
    return WaitUntil([] { return !Runs("/bin/sleep 77.5"); }, 2) ? "" : "a child runs on\n";
}

static std::string Commands(const std::string& directory)
{
    svr4::signal(SIGCLD, SIG_IGN);
    const std::string file = directory + "/said";
    for (int i = 0; i < 2; i++)
        ProcMgr(("echo said >> " + file).c_str(), nullptr);
    const bool ended = WaitUntil([] {
        ProcMgr::CheckProcesses();
        return ProcMgr::processes.Quantity() == 0 && ProcMgr::commands.Quantity() == 0;
    });
    return Is(ended, "ended") + ReadFile(file);
}

// ---- Files ----

static std::string Locks(const std::string& directory)
{
    CString name((directory + "/resource").c_str());
    std::string text;
    for (int i = 0; i < 2; i++) {
        LockedFileDesc lock(name, 0, 0600);
        text += Is(lock.Locked(), "locked");
        const LockFile second(name, 0);
        text += Is(!second.Locked() && second.Error() == EAGAIN, "refused");
        lock.Cleanup();
        text += Is(access((directory + "/resource.lock").c_str(), F_OK) != 0, "released");
        WriteFile(directory + "/stale", "2l");
        rename((directory + "/stale").c_str(), (directory + "/resource.lock").c_str());
    }
    unlink((directory + "/resource.lock").c_str());
    return text;
}

static std::string LeftLock(const std::string& directory)
{
    const std::string content = ReadFile(directory + "/resource.lock");
    return access((directory + "/resource.lock").c_str(), F_OK) != 0 || content == "2l" ? "" : "a lock file\n";
}

static std::string LockWait(const std::string& directory)
{
    WriteFile(directory + "/resource.lock", std::to_string(getpid()) + "l");
    CString name((directory + "/resource").c_str());
    const LockFile lock(name, 1);
    unlink((directory + "/resource.lock").c_str());
    return Is(!lock.Locked() && lock.Error() == EAGAIN, "refused");
}

static std::string Reports(const std::string& directory)
{
    const std::string log = directory + "/log";
    const ErrorReporter reporter;
    for (int file = 0; file < 3; file++) {
        CHILD_CHECK(redirectoutput(log.c_str(), 0) == 0);
        for (int i = 0; i < 3; i++)
            reporter._ReportError(ErrorReporter::NOTICE, ErrorReporter::OTHER, "a report", "$Id: mine.cc,v 1.1", 7);
    }
    return std::to_string(CountOf(ReadFile(log), "  Description= a report\n")) + " reports, " +
           std::to_string(CountOf(ReadFile(log + ".old"), "  Description= a report\n")) + " old ones\n";
}

// To a standard error that takes them slowly, and a signal may interrupt the writing.
static std::string PipedReports(const std::string&)
{
    int ends[2];
    CHILD_CHECK(pipe2(ends, O_DIRECT) == 0 && fcntl(ends[0], F_SETPIPE_SZ, 4096) > 0); // holds one writing at a time
    const pid_t reader = StartChild([&] {
        close(ends[1]);
        std::string all;
        char block[4096];
        for (ssize_t n; (n = read(ends[0], block, sizeof block)) > 0;) {
            all.append(block, static_cast<size_t>(n));
            usleep(500);
        }
        _exit(CountOf(all, "  Description= a report\n\n"));
    });
    close(ends[0]);
    const int saved = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 100);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    const ErrorReporter reporter;
    for (int i = 0; i < 12; i++)
        reporter._ReportError(ErrorReporter::WARNING, ErrorReporter::OTHER, "a report", "$Id: mine.cc,v 1.1", 7);
    const bool good = std::cerr.good();
    dup2(saved, STDERR_FILENO);
    close(saved);
    return std::to_string(WaitForExit(reader)) + " reports\n" + Is(good, "good");
}

static FaultRecord Record(long number, const char* text)
{
    FaultRecord fault;
    fault.summary.hdr.myId = FaultId(number, "alpha");
    fault.summary.state = FirstFaultState;
    fault.summary.text = text;
    return fault;
}

static std::string Store(const std::string& directory)
{
    const std::string path = directory + "/faults";
    std::ostringstream text;
    {
        FaultStore store(path.c_str());
        text << store.Load() << store.Put(Record(1, "one")) << store.Put(Record(2, "two"))
             << store.SetState(FaultId(2, "alpha"), "moved") << store.Remove(FaultId(1, "alpha")) << "\n";
    }
    FaultStore again(path.c_str());
    text << again.Load() << "\n";
    again.dumpOn(text);
    return text.str();
}

// A store that SIGTERM has ended holds the faults of before a change or those of after it.
static std::string BrokenStore(const std::string& directory)
{
    const std::string path = directory + "/faults";
    const ChildResult child = RunInChild([&] {
        FaultStore store(path.c_str());
        CHILD_CHECK(store.Load() == 0);
        for (const auto& entry : store.All()) {
            const std::string text = static_cast<const char*>(entry.second.summary.text);
            CHILD_CHECK(text == "one" || text == "two");
        }
    });
    std::string left = child.err;
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
        const std::string name = entry.path().filename();
        if (name.find("broken") != std::string::npos || name.find(".new") != std::string::npos)
            left += name + "\n";
    }
    return left;
}

// ---- What makes no system calls ----

static std::string Objects(const std::string&)
{
    struct Object : MonitoredObject {
        void dumpOn(std::ostream& out) const override { out << "an object\n"; }
    };
    std::unique_ptr<Object> objects[4];
    for (auto& object : objects)
        object = std::make_unique<Object>();
    objects[1].reset();
    objects[3].reset();
    objects[0].reset();
    objects[0] = std::make_unique<Object>();
    std::ostringstream text;
    MonitoredObject::DumpState(text);
    const std::string dump = text.str();
    return std::to_string(CountOf(dump, "an object\n")) + " objects\n";
}

static std::string LocalTimes(const std::string&)
{
    std::string text;
    for (int i = 0; i < 3; i++) {
        Dates::CurrentTm();
        text += Dates::GetDateTime(1700000000L + i);
        text += "\n";
    }
    return text;
}

static std::string Alarms(const std::string&)
{
    int ends[2];
    CHILD_CHECK(pipe(ends) == 0);
    alarm(1000);
    const int64_t begin = zeloo::MillisecondsNow();
    int interruptions = 0;
    {
        const zeloo::TimedCall limit(0, 30);
        for (char c; interruptions < 3; interruptions++)
            CHILD_CHECK(read(ends[0], &c, 1) < 0 && errno == EINTR);
    }
    const bool inTime = zeloo::MillisecondsNow() - begin >= 30;
    close(ends[0]);
    close(ends[1]);
    return Is(alarm(0) > 900, "alarmed") + Is(inTime, "in time");
}

static std::string OneReport(const std::string&)
{
    const ErrorReporter reporter;
    errno = 0;
    reporter._ReportError(ErrorReporter::NOTICE, ErrorReporter::OTHER, "a report", "$Id: mine.cc,v 1.1", 7);
    return std::to_string(ErrorReporter::GetErrorCount()) + " errors\n";
}

static std::vector<Scenario> HostScenarios()
{
    return {
        {"Wait", Wait, {}, {"started\nstatus -1\n"}, {}},
        {"Capture", CaptureChild, {}, {"status -1\noverdue\n", "status -1\nsome output\n"}, {}},
        {"Limit", Limit, {}, {}, {}, 1, true},
        {"Terminate", Terminate, {}, {}, LeftSleeper},
        {"Commands", Commands, {}, {}, {}},
        {"Locks", Locks, {}, {}, LeftLock, 0, false, Scenario::StepsInLongForm},
        {"LockWait", LockWait, {}, {}, {}, 1, true},
        {"Reports", Reports, {}, {}, {}},
        {"PipedReports", PipedReports, {}, {}, {}, 12},
        {"Store", Store, {}, {}, BrokenStore, 12},
        {"Alarms", Alarms, {}, {}, {}, 3, false, Scenario::ShortSteps},
        {"Objects", Objects, {}, {}, {}, 0, false, Scenario::ShortSteps},
        {"LocalTimes", LocalTimes, {}, {}, {}, 0, false, Scenario::ShortSteps},
        {"OneReport", OneReport, {}, {}, {}, 0, false, Scenario::ShortSteps},
    };
}

// The scenarios of the injected failures that talk to nobody.
static std::vector<Scenario> PlainScenarios()
{
    std::vector<Scenario> scenarios;
    for (const failures_testing::Scenario& each : failures_testing::Scenarios)
        for (const char* name :
             {"Strings", "Buffers", "Streams", "Arrays", "FaultLists", "Templates", "Files", "States"})
            if (std::strcmp(each.name, name) == 0)
                scenarios.push_back({name,
                                     [run = each.run](const std::string& directory) {
                                         run(directory);
                                         return std::string();
                                     },
                                     {},
                                     {},
                                     {},
                                     0,
                                     Scenario::StepsInLongForm});
    return scenarios;
}

std::vector<Scenario> AllScenarios()
{
    std::vector<Scenario> all = MessageScenarios();
    for (const auto& more : {HostScenarios(), PlainScenarios()})
        all.insert(all.end(), more.begin(), more.end());
    return all;
}

} // namespace signals_testing
