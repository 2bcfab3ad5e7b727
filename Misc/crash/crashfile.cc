#include "Misc/crash/crashfile.h"

#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Misc/Dates.h"
#include "Misc/crash/handlers.h"
#include "Misc/crash/signalfile.h"
#include "Misc/crash/stackdump.h"
#include "Misc/detail/paths.h"
#include "Misc/mobject.h"
#include "Misc/proginfo.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: mobject.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace zeloo {

namespace {

constexpr off_t RotateBeyond = 65536; // bytes
constexpr long LoopingWithin = 60;    // seconds

// At most one capture is at work at a time.
sigjmp_buf captureContext;
char signal_filename[1024];

// A fault of the capture itself.
void IgnoreSig(int sig)
{
    StandardError() << "\n\nSignal " << sig << " detected processing state caputre. siglongjmp out..\n\n";
    siglongjmp(captureContext, 1);
}

// Installs `handler` for a fault of a capture. Returns 0 or -1.
int HandleFault(int sig, void (*handler)(int), struct sigaction* earlier)
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    return sigaction(sig, &action, earlier);
}

// Says that an operation on the crash file failed, for which the report is still made.
void WarnOfCrashFile(const char* operation)
{
    const int error = errno;
    StandardError() << operation << " of " << signal_filename << " failed. " << strerror(error) << '\n';
}

// Moves a crash file that has grown large out of the way.
void RotateCrashFile()
{
    char oldName[sizeof signal_filename + 4];
    snprintf(oldName, sizeof oldName, "%s.old", signal_filename);
    // Intended: the line names a command that nobody runs. A handler starts no process; rename(2) does the same.
    StandardError() << "/usr/bin/mv " << signal_filename << ' ' << oldName << '\n';
    if (rename(signal_filename, oldName) != 0)
        WarnOfCrashFile("rename");
}

void ExamineCrashFile(int sig)
{
    struct stat status;
    if (stat(signal_filename, &status) != 0) {
        WarnOfCrashFile("stat");
        return;
    }
    if (Dates::CurrentTime() - status.st_mtime < LoopingWithin && MonitoredObject::GetDumpStateFileName() != nullptr)
        exit_sighandler(sig, "Previous sighandler probably failed.");
    if (status.st_size > RotateBeyond)
        RotateCrashFile();
}

} // namespace

void CheckLooping(int sig)
{
    const char* program = ProgInfo::GetProgramName();
    snprintf(signal_filename, sizeof signal_filename, "%s/%s.sig", DataDirectory,
             program != nullptr ? program : "mobject");
    if (access(signal_filename, F_OK) == 0)
        ExamineCrashFile(sig);
    StandardError() << "Call trace and dump of monitored objects in " << signal_filename << '\n';

    SignalFile file(signal_filename, O_APPEND);
    if (!file.IsOpen())
        exit_sighandler(sig, "open of sighandler file failed. ", strerror(file.Error()));
    file << '\n' << Dates::GetDateTime() << ". SIGNAL " << sig << " detected. ProgInfo=";
    for (int i = 0; i < ProgInfo::Getargc(); i++)
        file << ProgInfo::Getargv()[i] << ' ';
    file << '\n';
    file.flush();
    if (!file)
        exit_sighandler(sig, "write of sighandler file failed. ", strerror(file.Error()));
}

void CaptureState(int sig)
{
    SignalFile file(signal_filename, O_APPEND);
    if (!file.IsOpen())
        exit_sighandler(sig, "open of sighandler file failed. ", strerror(file.Error()));
    file << "\n......initiating dump...\n\n";

    struct sigaction earlierSegv, earlierBus;
    if (HandleFault(SIGSEGV, IgnoreSig, &earlierSegv) != 0)
        exit_sighandler(sig, "SIGSEGV: IgnoreSig setup failed. ", strerror(errno));
    if (HandleFault(SIGBUS, IgnoreSig, &earlierBus) != 0)
        exit_sighandler(sig, "SIGBUS: IgnoreSig setup failed. ", strerror(errno));

    if (sigsetjmp(captureContext, 1) == 0) {
        dumpstack(file);
        file << '\n';
        file.flush();
    }
    if (sigsetjmp(captureContext, 1) == 0)
        MonitoredObject::DumpState(file);

    if (sigaction(SIGSEGV, &earlierSegv, nullptr) != 0)
        exit_sighandler(sig, "CaptureState can't reset SIGSEGV handler. ", strerror(errno));
    if (sigaction(SIGBUS, &earlierBus, nullptr) != 0)
        exit_sighandler(sig, "CaptureState can't reset SIGBUS handler. ", strerror(errno));

    file.flush();
    if (!file) {
        char text[sizeof signal_filename + 32];
        snprintf(text, sizeof text, "write of %s file failed. ", signal_filename);
        exit_sighandler(sig, text, strerror(file.Error()));
    }
    file.Close();
}

} // namespace zeloo
