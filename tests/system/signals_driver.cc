#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <new>
#include <sstream>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Misc/mobject.h"
#include "tests/system/signals_testing.h"

using namespace testing_support;

namespace signals_testing {

namespace {

const unsigned RunSeconds = 30;

// What the followed process tells its driver: a page that both see.
struct Page {
    std::atomic<bool> isRunning{false}; // the scenario
    std::atomic<bool> wasSent{false};   // the signal: said by the driver
    std::atomic<int> terminations{0};
    std::atomic<int> handled{0};
    std::atomic<pid_t> child{0}; // one that can end
    char text[2048] = "";
    char state[2048] = "";
};

Page* page;

void CountSignal(int) { page->handled++; }

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
    Handle(SIGALRM, CountSignal);
    Handle(SIGCHLD, CountSignal);
    ChildNeeds(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0);
    raise(SIGSTOP);
    page->isRunning = true;
    const std::string text = scenario.run(directory);
    page->isRunning = false;
    const std::string state = StateNow();
    std::strncpy(page->text, text.c_str(), sizeof page->text - 1);
    std::strncpy(page->state, state.c_str(), sizeof page->state - 1);
    if (sig == SIGUSR1 && page->wasSent)
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

int FollowToItsEnd(pid_t pid, int sig, Stops stops, long at, long every, Outcome* outcome)
{
    const auto request = stops == SystemCalls ? PTRACE_SYSCALL : PTRACE_SINGLESTEP;
    const int stop = stops == SystemCalls ? SIGTRAP | 0x80 : SIGTRAP;
    int status = NextStatus(pid);
    if (!WIFSTOPPED(status))
        return status;
    ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    int pass = 0;
    bool wasRunning = false;
    while (ptrace(request, pid, nullptr, pass) == 0 && (status = NextStatus(pid), WIFSTOPPED(status))) {
        pass = WSTOPSIG(status) == stop ? 0 : WSTOPSIG(status);
        if (pass != 0)
            continue;
        const bool isRunning = page->isRunning;
        if (wasRunning && !isRunning)
            break;
        wasRunning = isRunning;
        if (!isRunning)
            continue;
        const long instant = outcome->instants++;
        if (every > 0 ? instant % every == every - 1 : instant == at) {
            Send(pid, sig, every > 0);
            page->wasSent = true;
            if (every == 0)
                break;
        }
    }
    if (!WIFSTOPPED(status))
        return status;
    ptrace(PTRACE_DETACH, pid, nullptr, 0);
    return NextStatus(pid);
}

} // namespace

Outcome Follow(const Scenario& scenario, const std::string& directory, int sig, Stops stops, long at, long every)
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
        outcome.status = FollowToItsEnd(pid, sig, stops, at, every, &outcome);
    }
    if (page->child > 0 && !HasEnded(page->child))
        kill(page->child, SIGKILL); // its parent has gone
    outcome.wasSent = page->wasSent;
    outcome.hung = isLate != 0;
    outcome.terminations = page->terminations;
    outcome.handled = page->handled;
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
