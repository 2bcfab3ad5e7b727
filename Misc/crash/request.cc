// SPDX-License-Identifier: BSD-2-Clause
// Two copies of the process make a dump. The writer lets each object dump itself, and may hang or end in there. The watcher
// stands by with the objects as they were, and starts another writer behind the object that stopped one. The process itself
// only starts the watcher, and so is held up by nothing that a dump does.
#include "Misc/crash/request.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Misc/crash/handlers.h"
#include "Misc/crash/registry.h"
#include "Misc/crash/signalfile.h"
#include "Misc/detail/immortal.h"
#include "Misc/detail/localtime.h"
#include "svr4/copy.h"
#include "svr4/deadline.h"
#include "svr4/errno.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: mobject.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace zeloo {

namespace {

// All in milliseconds.
constexpr long HandlerPatience = 1000; // for the first attempt
constexpr long TrialPatience = 300;    // for an object in an attempt that can be made again
constexpr long TrialTime = 1200;       // after which an attempt is the last
constexpr long ClosingTime = 1000;     // kept for the end of a dump that is cut off
constexpr long LeavingTime = 100;      // for a copy that is about to end

enum State { AtWork, AskedAgain, Written, Failed };

// What the process and its copies tell each other: a page that they share.
struct Page {
    std::atomic<int> state;
    std::atomic<long> step;           // of the writer, so that the watcher sees it move
    std::atomic<long> object;         // the one that the writer is at; -1 for the heading
    std::atomic<unsigned long> bytes; // written by the writers before this one
    std::atomic<bool> isWhole;        // the writer has come to its end
    std::atomic<bool> isTooLong;      // the writer has used up the bytes
};

// The request that is being served. It belongs to the process, the copies have theirs.
struct Request {
    Page* page = nullptr;
    std::atomic<int> watcher{0}; // a process id; 0 while there is none
    int64_t begun = 0;           // on the steady clock
    int attempts = 0;
};

Request request;
std::atomic<int> handling{0}; // the process whose handler is at work: another thread's leaves the request to it
std::atomic<int> asked{0};    // the process that has a request which no handler has looked at

SignalFile& DumpFile() { return Immortal<SignalFile, Request>(); }

// ---- The writer ----

Page* writersPage;

[[noreturn]] void LeaveWriter(int code)
{
    DumpFile().SetLimit(ULONG_MAX, nullptr);
    DumpFile().flush(); // what the object has said so far
    writersPage->bytes += DumpFile().Written();
    _exit(code);
}

[[noreturn]] void LeaveWriterTooLong()
{
    writersPage->isTooLong = true;
    LeaveWriter(0);
}

// Makes a fault, or the watcher's signal for one that hangs, end the writer.
void LetFaultsAndTheWatcherEnd(void (*handler)(int))
{
    LetFaultsEnd(handler);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, svr4::deadline_signal());
    HandleAlone(svr4::deadline_signal(), handler, SA_ONSTACK);
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

// Writes the dump from object number `from` on; from the heading on where that is -1.
[[noreturn]] void RunWriter(Page* page, int fd, long from)
{
    writersPage = page;
    SignalFile& file = DumpFile();
    file.Attach(fd, CaptureBytes() - std::min(CaptureBytes(), page->bytes.load()), LeaveWriterTooLong);
    LetFaultsAndTheWatcherEnd(LeaveWriter);
    bool any = true;
    if (from < 0)
        any = Objects::DumpHeading(file);
    Objects::Walk walk;
    long number = 0;
    while (MonitoredObject* object = any ? walk.Next() : nullptr) {
        if (number >= from) {
            page->object = number;
            ++page->step;
            Objects::DumpObject(object, file);
        }
        number++;
    }
    if (any)
        Objects::DumpEnd(file);
    page->isWhole = true;
    LeaveWriter(0);
}

// ---- The watcher ----

// What is known of an attempt before it begins.
struct Attempt {
    int signal;
    bool isLast; // what fails in it is left out; in the others it ends the attempt
    long time;   // for the whole attempt, in milliseconds
};

// The end of a writer: 0 when it had its say, or the signal that ended it; the deadline's when it hung.
int WatchWriter(const Page* page, pid_t writer, long objectTime, int64_t end)
{
    long seen = page->step;
    int64_t since = svr4::steady_milliseconds();
    bool isTold = false;
    for (long pause = 100;; pause = std::min(pause * 2, 4000L)) {
        const int status = svr4::copy_status(writer);
        if (status != -1) {
            if (WIFSIGNALED(status))
                return isTold ? svr4::deadline_signal() : WTERMSIG(status);
            return WEXITSTATUS(status);
        }
        const int64_t now = svr4::steady_milliseconds();
        if (page->step != seen) {
            seen = page->step;
            since = now;
            pause = 100;
        }
        if (!isTold && (now - since > objectTime || now > end)) {
            isTold = true;
            since = now;
            kill(writer, svr4::deadline_signal());
        } else if (isTold && now - since > LeavingTime) {
            kill(writer, SIGKILL);
        }
        svr4::pause_microseconds(pause);
    }
}

// Ends the text of an object whose dump has failed.
void EndObject(std::ostream& file, long number, int sig)
{
    if (sig == svr4::deadline_signal())
        file << "\n*** The rest is left out: the dump hung ***\n";
    else
        file << "\n*** The rest is left out: signal " << sig << " ***\n";
    const long tag = number >= 0 ? Objects::TagOf(number) : -1;
    if (tag >= 0)
        Objects::DumpEndOfObject(tag, file);
}

// Writes the dump. False when an attempt that is not the last has failed.
bool WriteDump(Page* page, int fd, const Attempt& attempt)
{
    SignalFile& file = DumpFile();
    file.Attach(fd, ULONG_MAX, nullptr);
    const int64_t end = svr4::steady_milliseconds() + attempt.time;
    const long objectTime = attempt.isLast ? std::max(attempt.time / 6, TrialPatience) : TrialPatience;
    file << "SIGNAL " << attempt.signal << " caught...initiating dump...\n" << std::flush;
    for (long from = -1;;) {
        page->isWhole = false;
        page->isTooLong = false;
        page->object = from; // a writer may not come that far
        const pid_t writer = svr4::copy_process();
        if (writer == 0)
            RunWriter(page, fd, from);
        const int sig = writer > 0 ? WatchWriter(page, writer, objectTime, end) : SIGKILL;
        if (page->isWhole)
            return true;
        if (page->isTooLong) {
            file << "\n*** The rest is left out: it goes beyond " << CaptureBytes() << " bytes ***\n";
            break;
        }
        if (!attempt.isLast)
            return false;
        EndObject(file, page->object, sig);
        file.flush();
        if (svr4::steady_milliseconds() > end) {
            file << "\n*** The rest is left out: it took longer than " << CaptureTime() / 1000 << " seconds ***\n";
            break;
        }
        from = page->object + 1;
    }
    Objects::DumpEnd(file);
    file.flush();
    return true;
}

// Asks the process for another attempt, or for the next request.
void AskAgain(pid_t process)
{
    if (svr4::handles_signal(process, SIGUSR1)) // it may be another program by now
        kill(process, SIGUSR1);
}

[[noreturn]] void RunWatcher(Page* page, const char* name, const Attempt& attempt, long pauseBeforeNext)
{
    KeepHandlers();
    KeepLocalOffset();
    svr4::set_last_deadline(attempt.time + 3 * ClosingTime);
    const struct rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    Objects::TakeOver();
    const pid_t process = getppid();
    const int fd = OpenForDump(name, O_TRUNC);
    if (fd >= 0) {
        fcntl(fd, F_SETFL, 0); // a terminal or a FIFO may be slow; the opening was not to wait
        if (!WriteDump(page, fd, attempt)) {
            page->state = Failed;
            svr4::pause_microseconds(pauseBeforeNext * 1000);
            AskAgain(process);
            _exit(0);
        }
    }
    if (page->state.exchange(Written) == AskedAgain)
        AskAgain(process);
    _exit(0);
}

// ---- The process itself ----

// Waits for a copy that is about to end, and makes it.
void EndCopy(pid_t copy)
{
    const int64_t until = svr4::steady_milliseconds() + LeavingTime;
    while (svr4::copy_status(copy) == -1) {
        if (svr4::steady_milliseconds() > until)
            kill(copy, SIGKILL);
        svr4::pause_microseconds(100);
    }
}

// True when the watcher of the request before is still at work, and will ask for this one.
bool IsLeftToWatcher()
{
    const pid_t watcher = request.watcher;
    if (watcher == 0)
        return false;
    if (svr4::copy_status(watcher) == -1) {
        int expected = AtWork;
        if (request.page->state.compare_exchange_strong(expected, AskedAgain) || expected == AskedAgain)
            return true;
        if (expected == Failed)
            kill(watcher, SIGKILL); // what it would ask for is here
        EndCopy(watcher);
    }
    request.watcher = 0;
    return false;
}

// Begins the count anew unless this is another attempt at the same request.
void CountAttempt()
{
    if (request.page != nullptr && request.page->state == Failed) {
        request.attempts++;
        return;
    }
    request.attempts = 0;
    request.begun = svr4::steady_milliseconds();
}

// A page for a new attempt. A child forked since then shares the old one with its parent, so it is never used again.
bool TakePage()
{
    void* memory = svr4::share_memory(sizeof(Page));
    if (memory == nullptr)
        return false;
    if (request.page != nullptr)
        svr4::unshare_memory(request.page, sizeof(Page));
    request.page = new (memory) Page();
    return true;
}

// The file of a dump that cannot be made.
void SayThatThereIsNone(const char* name, int sig, int error)
{
    const int fd = OpenForDump(name, O_TRUNC);
    if (fd < 0)
        return;
    SignalFile& file = DumpFile();
    file.Attach(fd, ULONG_MAX, nullptr);
    file << "SIGNAL " << sig << " caught...initiating dump...\n*** The dump is left out: no copy of the process: "
         << svr4::error_text(error) << " ***\n";
    Objects::DumpEnd(file);
    file.flush();
    close(fd);
}

void StartWatcher(const char* name, int sig)
{
    const int64_t age = svr4::steady_milliseconds() - request.begun;
    const bool isLast = age > TrialTime;
    const Attempt attempt = {sig, isLast,
                             static_cast<long>(std::max<int64_t>(CaptureTime() - age - ClosingTime, TrialPatience))};
    const long pauseBeforeNext = 10L << std::min(request.attempts, 4);
    pid_t watcher = -1;
    for (int i = 0; i < 5 && watcher < 0; i++) { // the host may be short of memory for a moment
        if (i > 0)
            svr4::pause_microseconds(10000);
        watcher = TakePage() ? svr4::copy_process() : -1;
    }
    if (watcher == 0)
        RunWatcher(request.page, name, attempt, pauseBeforeNext);
    if (watcher < 0)
        SayThatThereIsNone(name, sig, errno);
    else
        request.watcher = watcher;
}

void AwaitWatcher()
{
    const int64_t until = svr4::steady_milliseconds() + HandlerPatience;
    const pid_t watcher = request.watcher;
    for (long pause = 100; watcher != 0; pause = std::min(pause * 2, 1000L)) {
        if (svr4::copy_status(watcher) != -1) {
            request.watcher = 0;
            return;
        }
        if (request.page->state == Failed || svr4::steady_milliseconds() > until)
            return;
        svr4::pause_microseconds(pause);
    }
}

void Serve(const char* name, int sig, bool awaits)
{
    if (IsLeftToWatcher())
        return;
    CountAttempt();
    StartWatcher(name, sig);
    if (awaits && request.attempts == 0)
        AwaitWatcher();
}

} // namespace

void MakeReadyForRequest() { DumpFile(); }

void DumpOnRequest(int sig)
{
    const char* const name = MonitoredObject::GetDumpStateFileName();
    if (name == nullptr)
        return;
    const int self = getpid();
    asked = self;
    for (bool isOwn = true; asked == self; isOwn = false) { // else another thread's, which came meanwhile
        int handled = handling;
        if (handled == self || !handling.compare_exchange_strong(handled, self))
            return;
        asked = 0;
        Serve(name, sig, isOwn);
        handling = 0;
    }
}

void CollectDump()
{
    int watcher = request.watcher;
    if (watcher != 0 && svr4::copy_status(watcher) != -1)
        request.watcher.compare_exchange_strong(watcher, 0); // a handler may have started another one
}

} // namespace zeloo
