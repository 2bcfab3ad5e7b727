// SPDX-License-Identifier: BSD-2-Clause
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <new>
#include <sstream>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Misc/mobject.h"
#include "tests/system/signals_testing.h"

using namespace testing_support;

namespace signals_testing {

namespace {

const unsigned RunSeconds = 60;

// What the followed process tells its driver: a page that both see.
struct Page {
    std::atomic<bool> isRunning{false}; // the scenario
    std::atomic<long> sent{0};          // signals; told by the driver
    std::atomic<int> terminations{0};
    std::atomic<pid_t> child{0}; // one that can end
    char text[2048] = "";
    char state[2048] = "";
};

Page* page;

void Ignore(int) {}

class Witness : public MonitoredObject {
public:
    void SigTermProc(int) override { page->terminations++; }
    void dumpOn(std::ostream& out) const override { out << "the witness\n"; }
};

// ---- The process that is followed ----

std::string StateNow()
{
    std::ostringstream out;
    for (const int sig : {SIGTERM, SIGUSR1, SIGALRM, SIGCHLD, SIGPIPE, SIGHUP}) {
        struct sigaction action;
        sigaction(sig, nullptr, &action);
        out << sig << ": " << reinterpret_cast<void*>(action.sa_handler) << " " << std::hex << action.sa_flags
            << std::dec << "\n";
    }
    sigset_t mask;
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    for (int sig = 1; sig < NSIG; sig++)
        if (sigismember(&mask, sig) == 1)
            out << "held: " << sig << "\n";
    struct itimerval alarm;
    getitimer(ITIMER_REAL, &alarm);
    out << "alarm: " << (alarm.it_value.tv_sec != 0 || alarm.it_value.tv_usec != 0) << "\n";
    const mode_t mode = umask(0);
    umask(mode);
    out << "mask: " << mode << "\ndescriptors: " << OpenDescriptors() << "\n";
    MonitoredObject::DumpState(out);
    return out.str();
}

void Handle(int sig, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    sigaction(sig, &action, nullptr);
}

bool IsWhole(const std::string& dump)
{
    const std::string last = "*** End Dump of all Monitored Objects ***\n";
    return dump.compare(0, 7, "SIGNAL ") == 0 && dump.size() > last.size() &&
           dump.compare(dump.size() - last.size(), last.size(), last) == 0;
}

void RunFollowed(const Scenario& scenario, const std::string& directory, int sig)
{
    page->child = IdleProcess();
    const Witness witness;
    const std::string dump = directory + "/dump";
    MonitoredObject::SetDumpStateFileName(dump.c_str());
    Handle(SIGALRM, Ignore);
    Handle(SIGCHLD, Ignore);
    ChildNeeds(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0);
    raise(SIGSTOP);
    page->isRunning = true;
    const std::string text = scenario.run(directory);
    page->isRunning = false;
    const std::string state = StateNow();
    std::strncpy(page->text, text.c_str(), sizeof page->text - 1);
    std::strncpy(page->state, state.c_str(), sizeof page->state - 1);
    if (sig == SIGUSR1 && page->sent > 0)
        WaitUntil([&] { return IsWhole(ReadFile(dump)); }, RunSeconds);
    Handle(SIGCHLD, SIG_DFL);
    kill(page->child, SIGKILL);
    waitpid(page->child, nullptr, 0); // it has gone already where the scenario has ignored SIGCLD
}

// ---- The driver ----

pid_t followed;
volatile sig_atomic_t isLate;

void EndFollowed(int)
{
    isLate = 1;
    kill(followed, SIGKILL);
}

// Ends the followed process after a time, unless this has gone.
class Bound {
public:
    explicit Bound(pid_t pid)
    {
        followed = pid;
        isLate = 0;
        Handle(SIGALRM, EndFollowed);
        alarm(RunSeconds);
    }
    ~Bound()
    {
        alarm(0);
        Handle(SIGALRM, SIG_DFL);
    }
    Bound(const Bound&) = delete;
    Bound& operator=(const Bound&) = delete;
};

// Whether a process has ended: it is a zombie or gone.
bool HasEnded(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string number, name, state;
    return !(in >> number >> name >> state) || state == "Z" || state == "X";
}

void Send(pid_t pid, int sig, bool plainly)
{
    if (sig == SIGCHLD && !plainly) {
        kill(page->child, SIGKILL);
        WaitUntil([] { return HasEnded(page->child); });
    } else {
        kill(pid, sig);
    }
}

// The next stop or the end of the followed process.
int NextStatus(pid_t pid)
{
    int status = 0;
    while (waitpid(pid, &status, 0) != pid && errno == EINTR) {
    }
    return status;
}

// Whether a process has a handler for a signal.
bool Handles(pid_t pid, int sig)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    uint64_t caught = 0;
    for (std::string word; in >> word;)
        if (word == "SigCgt:")
            in >> std::hex >> caught;
    return (caught >> (sig - 1) & 1) != 0;
}

// The call in which handlers that ask for no context end on some processors.
#ifdef SYS_sigreturn
constexpr uint64_t OlderReturn = SYS_sigreturn;
#else
constexpr uint64_t OlderReturn = SYS_rt_sigreturn;
#endif

// The process that is followed, at its stops.
class Follower {
public:
    Follower(pid_t process, Stops which) : pid(process), stops(which), status(NextStatus(pid))
    {
        if (!HasEnded())
            ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    }
    // Lets it go on to its next instant. Handlers have none, and run freely. False when it has ended.
    bool Advance()
    {
        int pass = 0;
        for (;;) {
            ptrace(stops == SystemCalls || isInHandler ? PTRACE_SYSCALL : PTRACE_SINGLESTEP, pid, nullptr, pass);
            status = NextStatus(pid);
            if (HasEnded())
                return false;
            pass = 0;
            const int sig = WSTOPSIG(status);
            if (stops == Instructions && sig == (SIGTRAP | 0x80))
                NoteReturn();
            else if (sig == SIGTRAP || sig == (SIGTRAP | 0x80))
                return true;
            else
                NoteSignal(pass = sig);
        }
    }
    bool HasEnded() const { return !WIFSTOPPED(status); }
    // Its status, when it has run freely to its end.
    int End()
    {
        if (!HasEnded())
            ptrace(PTRACE_DETACH, pid, nullptr, 0);
        return HasEnded() ? status : NextStatus(pid);
    }

private:
    void NoteSignal(int sig) { isInHandler = stops == Instructions && Handles(pid, sig); }
    void NoteReturn()
    {
        struct {
            uint8_t operation; // 1: it enters the system call
            uint32_t architecture;
            uint64_t instruction, stack, number, arguments[6];
        } call = {};
        ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof call, &call);
        if (call.operation != 1 && isReturning)
            isInHandler = isReturning = false;
        else
            isReturning = call.operation == 1 && (call.number == SYS_rt_sigreturn || call.number == OlderReturn);
    }

    const pid_t pid;
    const Stops stops;
    int status;
    bool isInHandler = false;
    bool isReturning = false;
};

// Sends the signals, and gives the status of the end.
int SendAtInstants(pid_t pid, int sig, const Instants& instants, Outcome* outcome)
{
    Follower follower(pid, instants.stops);
    bool wasRunning = false;
    while (!follower.HasEnded() && follower.Advance()) {
        const bool isRunning = page->isRunning;
        if (wasRunning && !isRunning)
            break;
        wasRunning = isRunning;
        if (!isRunning)
            continue;
        const long instant = outcome->instants++;
        if (instants.every > 0 ? instant % instants.every == instants.every - 1 : instant == instants.at) {
            Send(pid, sig, instants.every > 0);
            page->sent++;
            if (instants.every == 0)
                break;
        }
    }
    return follower.End();
}

} // namespace

Outcome Follow(const Scenario& scenario, const std::string& directory, int sig, const Instants& instants)
{
    void* memory = mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    page = new (memory) Page();
    const auto begin = std::chrono::steady_clock::now();
    Outcome outcome;
    const pid_t pid = StartChild([&] {
        for (const int fd : {1, 2}) {
            const int file =
                open((directory + (fd == 1 ? "/out" : "/err")).c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
            dup2(file, fd);
            close(file);
        }
        RunFollowed(scenario, directory, sig);
    });
    {
        const Bound bound(pid);
        outcome.status = SendAtInstants(pid, sig, instants, &outcome);
    }
    if (page->child > 0 && !HasEnded(page->child))
        kill(page->child, SIGKILL); // its parent has gone
    outcome.sent = page->sent;
    outcome.hung = isLate != 0;
    outcome.terminations = page->terminations;
    outcome.text = page->text;
    outcome.state = page->state;
    outcome.out = ReadFile(directory + "/out");
    outcome.err = WithoutTimes(ReadFile(directory + "/err"));
    outcome.dump = ReadFile(directory + "/dump");
    outcome.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    munmap(memory, sizeof(Page));
    return outcome;
}

} // namespace signals_testing
