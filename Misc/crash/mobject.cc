#include "Misc/mobject.h"

#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <streambuf>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Misc/Dates.h"
#include "Misc/crash/mobject_dump.h"
#include "Misc/proginfo.h"
#include "svr4/context.h"
#include "svr4/signal.h"

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: mobject.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

template <>
const char* SafeArray<MonitoredObject>::ElementName()
{
    return "MonitoredObject";
}

template class SafeArray<MonitoredObject>;

namespace {

const char* const kDataDirectory = "/var/orv/data";
const off_t kRotateBeyond = 65536;   // bytes
const long kLoopingWithin = 60;      // seconds
const uintptr_t kStackBeyond = 5120; // bytes of the stack that are dumped above the frame pointer
const unsigned long kRowSize = 16;   // bytes in a row of the hex dump

const int kTerminateSignals[] = {SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGXFSZ, SIGXCPU};
const int kCaptureSignals[] = {SIGABRT, SIGILL, SIGBUS, SIGSEGV, SIGSYS, svr4::sigemt, SIGFPE, SIGTRAP, SIGUSR2};

// The state of a capture. At most one is at work at a time.
volatile sig_atomic_t isCapturing = 0;
int lastSignal = 0;
sigjmp_buf captureContext;
char signal_filename[1024];

// What a handler must hold back while it works or while the registry changes: a fault cannot be held back, and what
// the objects do in a capture may need SIGALRM and SIGCLD.
sigset_t RequestSignals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int sig : kTerminateSignals)
        sigaddset(&set, sig);
    sigaddset(&set, SIGUSR1);
    sigaddset(&set, SIGUSR2);
    return set;
}

class RequestsHeld {
public:
    RequestsHeld()
    {
        const sigset_t set = RequestSignals();
        sigprocmask(SIG_BLOCK, &set, &earlier);
    }
    ~RequestsHeld() { sigprocmask(SIG_SETMASK, &earlier, nullptr); }
    RequestsHeld(const RequestsHeld&) = delete;
    RequestsHeld& operator=(const RequestsHeld&) = delete;

private:
    sigset_t earlier;
};

// Installs `handler` to run with all signals blocked from its first instruction on. Returns 0 or -1.
int HandleAlone(int sig, void (*handler)(int), int flags)
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigfillset(&action.sa_mask);
    return sigaction(sig, &action, nullptr);
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

// A file written from a signal handler: the signal may have come in the middle of malloc, so a FILE or a filebuf,
// which allocate, will not do.
class SignalFileBuffer : public std::streambuf {
public:
    SignalFileBuffer(const char* name, int mode)
        : fd(open(name, O_WRONLY | O_CREAT | O_CLOEXEC | mode, 0666)), error(fd < 0 ? errno : 0)
    {
        setp(block, block + sizeof block);
    }
    ~SignalFileBuffer() override { Close(); }

    bool IsOpen() const { return fd >= 0; }
    int Error() const { return error; }

    void Close()
    {
        if (fd < 0)
            return;
        sync();
        close(fd);
        fd = -1;
    }

protected:
    int_type overflow(int_type c) override
    {
        if (sync() != 0)
            return traits_type::eof();
        if (!traits_type::eq_int_type(c, traits_type::eof()))
            sputc(traits_type::to_char_type(c));
        return traits_type::not_eof(c);
    }

    int sync() override
    {
        for (const char* p = pbase(); p < pptr() && error == 0;) {
            const ssize_t n = write(fd, p, static_cast<size_t>(pptr() - p));
            if (n > 0)
                p += n;
            else if (n < 0 && errno != EINTR)
                error = errno;
        }
        setp(block, block + sizeof block);
        return error == 0 ? 0 : -1;
    }

private:
    int fd;
    int error; // the first one
    char block[4096];
};

class SignalFile : private SignalFileBuffer, public std::ostream {
public:
    SignalFile(const char* name, int mode) : SignalFileBuffer(name, mode), std::ostream(nullptr) { init(this); }

    using SignalFileBuffer::Close;
    using SignalFileBuffer::Error;
    using SignalFileBuffer::IsOpen;
};

// Standard error, whatever the program has done to it.
std::ostream& StandardError()
{
    std::cerr.clear();
    std::cerr.flags(std::ios::dec | std::ios::skipws | std::ios::unitbuf);
    std::cerr.width(0);
    return std::cerr;
}

[[noreturn]] void create_core()
{
    for (int sig = 0; sig <= 31; sig++) {
        svr4::signal(sig, SIG_IGN); // drops a signal that was held back: the process is to end by abort
        svr4::signal(sig, SIG_DFL);
    }
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_UNBLOCK, &all, nullptr);
    abort();
}

[[noreturn]] void exit_sighandler(const char* message, int sig, std::ostream& os)
{
    char number[16];
    snprintf(number, sizeof number, "%d", sig);
    os.clear();
    os << "Handle of signal " << number << " exit: " << message << '\n';
    os.flush();
    create_core();
}

// Leaves the handler with a text and the system's text for `error`.
[[noreturn]] void ExitWithError(const char* text, int error, int sig)
{
    char message[1536];
    snprintf(message, sizeof message, "%s%s", text, strerror(error));
    exit_sighandler(message, sig, StandardError());
}

// The same signal arrived again while it was handled.
void sigexit(int sig)
{
    StandardError() << "Error Exit. SIGNAL " << sig << " detected while processing SIGNAL " << lastSignal << ".\n";
    create_core();
}

// A fault of the capture itself.
void IgnoreSig(int sig)
{
    StandardError() << "\n\nSignal " << sig << " detected processing state caputre. siglongjmp out..\n\n";
    siglongjmp(captureContext, 1);
}

void WriteRow(uintptr_t address, const unsigned char* row, std::ostream& file)
{
    uint32_t words[4];
    memcpy(words, row, sizeof words);
    char characters[kRowSize + 1];
    for (unsigned i = 0; i < kRowSize; i++) {
        const char c = static_cast<char>(row[i] & 0x7f);
        characters[i] = c < ' ' || c == 0x7f ? ' ' : c;
    }
    characters[kRowSize] = '\0';
    char line[128];
    snprintf(line, sizeof line, "%lx: %08x %08x %08x %08x [%s]\n", static_cast<unsigned long>(address), words[0],
             words[1], words[2], words[3], characters);
    file << line;
}

void WriteDuplicates(unsigned long count, std::ostream& file)
{
    char line[64];
    snprintf(line, sizeof line, "\t dup %lu line(s)\n", count);
    file << line;
}

// The row at `address`, or zero bytes where there is none.
void ReadRowIfMapped(uintptr_t address, unsigned char* row)
{
    uintptr_t low, high;
    if (svr4::mapping_of(address, &low, &high) == 0 && high - address >= kRowSize)
        svr4::copy_memory(address, row, kRowSize);
    else
        memset(row, 0, kRowSize);
}

// The bounds of the stack that the signal interrupted. When that stack has overflowed its pointer is outside, and
// the frame pointer tells.
bool FindStack(const svr4::SignalledContext& context, uintptr_t* low, uintptr_t* high)
{
    return svr4::mapping_of(context.stackPointer, low, high) == 0 ||
           svr4::mapping_of(context.framePointer, low, high) == 0;
}

void WriteRegisters(const svr4::Register* registers, std::ostream& file)
{
    for (; registers->label != nullptr; registers++) {
        char line[64];
        snprintf(line, sizeof line, "u_ar0[%s]=%08lx\n", registers->label,
                 static_cast<unsigned long>(registers->value));
        file << line;
    }
}

// Follows the chain of frames. Code compiled without frame pointers may leave anything in the chain, so it is
// followed only upwards and within the stack.
void WriteFrames(uintptr_t frame, uintptr_t floor, uintptr_t low, uintptr_t high, std::ostream& file)
{
    struct {
        uintptr_t caller;
        uintptr_t returnAddress;
    } saved;
    while (frame >= floor && frame >= low && frame < high && high - frame >= sizeof saved &&
           frame % sizeof(uintptr_t) == 0) {
        svr4::copy_memory(frame, &saved, sizeof saved);
        char line[64];
        snprintf(line, sizeof line, "bp=%08lx\tip=%08lx\n", static_cast<unsigned long>(frame),
                 static_cast<unsigned long>(saved.returnAddress));
        file << line;
        floor = frame + 1;
        frame = saved.caller;
    }
}

void dumpstack(std::ostream& file)
{
    svr4::SignalledContext context;
    svr4::signalled_context(&context);
    WriteRegisters(context.registers, file);

    const uintptr_t stackPointer = context.stackPointer;
    const uintptr_t frame = context.framePointer;
    uintptr_t low = 0, high = 0;
    const bool known = frame != 0 && frame >= stackPointer && FindStack(context, &low, &high);

    file << "Dynamic link:\tReturn Address:\n";
    if (known)
        WriteFrames(frame, stackPointer, low, high, file);
    file << '\n';

    uintptr_t start = stackPointer & ~(kRowSize - 1);
    unsigned long length = 0;
    if (known) {
        const uintptr_t end = high - frame > kStackBeyond && frame < high ? frame + kStackBeyond : high;
        if (start < low)
            start = low;
        length = (end - start) & ~(kRowSize - 1);
    }
    dumpmem(start, length, "Stack", file);
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
    // The line is for who reads it: a handler does better without a child process.
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
    if (Dates::CurrentTime() - status.st_mtime < kLoopingWithin && MonitoredObject::GetDumpStateFileName() != nullptr)
        exit_sighandler("Previous sighandler probably failed.", sig, StandardError());
    if (status.st_size > kRotateBeyond)
        RotateCrashFile();
}

// Prepares the crash file: notices a program that crashes again and again, and writes the heading of the report.
void CheckLooping(int sig)
{
    const char* program = ProgInfo::GetProgramName();
    snprintf(signal_filename, sizeof signal_filename, "%s/%s.sig", kDataDirectory,
             program != nullptr ? program : "mobject");
    if (access(signal_filename, F_OK) == 0)
        ExamineCrashFile(sig);
    StandardError() << "Call trace and dump of monitored objects in " << signal_filename << '\n';

    SignalFile file(signal_filename, O_APPEND);
    if (!file.IsOpen())
        ExitWithError("open of sighandler file failed. ", file.Error(), sig);
    file << '\n' << Dates::GetDateTime() << ". SIGNAL " << sig << " detected. ProgInfo=";
    for (int i = 0; i < ProgInfo::Getargc(); i++)
        file << ProgInfo::Getargv()[i] << ' ';
    file << '\n';
    file.flush();
    if (!file)
        ExitWithError("write of sighandler file failed. ", file.Error(), sig);
}

// Writes what the process looks like. A fault in the stack dump or in the object dump ends that dump only.
void CaptureState(int sig)
{
    SignalFile file(signal_filename, O_APPEND);
    if (!file.IsOpen())
        ExitWithError("open of sighandler file failed. ", file.Error(), sig);
    file << "\n......initiating dump...\n\n";

    struct sigaction earlierSegv, earlierBus;
    if (HandleFault(SIGSEGV, IgnoreSig, &earlierSegv) != 0)
        ExitWithError("SIGSEGV: IgnoreSig setup failed. ", errno, sig);
    if (HandleFault(SIGBUS, IgnoreSig, &earlierBus) != 0)
        ExitWithError("SIGBUS: IgnoreSig setup failed. ", errno, sig);

    if (sigsetjmp(captureContext, 1) == 0) {
        dumpstack(file);
        file << '\n';
        file.flush();
    }
    if (sigsetjmp(captureContext, 1) == 0)
        MonitoredObject::DumpState(file);

    if (sigaction(SIGSEGV, &earlierSegv, nullptr) != 0)
        ExitWithError("CaptureState can't reset SIGSEGV handler. ", errno, sig);
    if (sigaction(SIGBUS, &earlierBus, nullptr) != 0)
        ExitWithError("CaptureState can't reset SIGBUS handler. ", errno, sig);

    file.flush();
    if (!file) {
        char text[sizeof signal_filename + 32];
        snprintf(text, sizeof text, "write of %s file failed. ", signal_filename);
        ExitWithError(text, file.Error(), sig);
    }
    file.Close();
}

} // namespace

void dumpmem(uintptr_t address, unsigned long length, const char* label, std::ostream& file)
{
    char sizes[96];
    snprintf(sizes, sizeof sizes, ": 0x%lx -- [size %ld[0x%lx] bytes]\n", static_cast<unsigned long>(address),
             static_cast<long>(length), length);
    file << label << sizes;

    const uintptr_t end = address + length;
    unsigned char previous[kRowSize] = {};
    unsigned char row[kRowSize];
    unsigned long duplicates = 0;
    for (; address < end; address += kRowSize) {
        svr4::copy_memory(address, row, kRowSize);
        if (memcmp(row, previous, kRowSize) == 0) {
            duplicates++;
            continue;
        }
        if (duplicates != 0)
            WriteDuplicates(duplicates, file);
        duplicates = 0;
        WriteRow(address, row, file);
        memcpy(previous, row, kRowSize);
    }
    if (duplicates != 0) {
        WriteDuplicates(duplicates, file);
        ReadRowIfMapped(end, row); // the row past the region closes the run; the region may end with its mapping
        WriteRow(end, row, file);
    }
}

short MonitoredObject::DebugLevel = 0;
long MonitoredObject::InstanceCounter = 0;
// Plain pointers, null before any constructor runs and never destroyed: static objects of other units are registered
// before main and removed after it.
MonitoredObjectSafeArray* MonitoredObject::Registry = nullptr;
char* MonitoredObject::DumpStateFileName = nullptr;

MonitoredObject::MonitoredObject() : ObjectTag(InstanceCounter++)
{
    Register();
}

MonitoredObject::MonitoredObject(const MonitoredObject&) : ObjectTag(InstanceCounter++)
{
    Register();
}

MonitoredObject::~MonitoredObject()
{
    RequestsHeld held;
    if (Registry == nullptr)
        return;
    Registry->RemovePtr(this);
    if (Registry->Quantity() == 0) {
        delete Registry;
        Registry = nullptr;
    }
}

long MonitoredObject::myObjectTag()
{
    return ObjectTag;
}

void MonitoredObject::dumpOn(std::ostream& os) const
{
    os << "not avail\n";
}

void MonitoredObject::SigTermProc(int)
{
}

void MonitoredObject::SigRestartProc(int)
{
}

void MonitoredObject::UnMonitor()
{
    for (const int sig : kTerminateSignals)
        svr4::signal(sig, SIG_DFL);
    for (const int sig : kCaptureSignals)
        svr4::signal(sig, SIG_DFL);
    svr4::signal(SIGUSR1, SIG_DFL);
}

void MonitoredObject::SetDumpStateFileName(const char* name)
{
    char* copy = nullptr;
    if (name != nullptr) {
        const size_t size = strlen(name) + 1;
        copy = new (std::nothrow) char[size];
        if (copy != nullptr)
            memcpy(copy, name, size);
    }
    char* earlier = DumpStateFileName;
    DumpStateFileName = copy; // before the earlier one goes: a handler may read it at any time
    delete[] earlier;
}

void MonitoredObject::DumpState(std::ostream& os)
{
    os << "Monitored Objects: \n";
    if (Registry == nullptr || Registry->Quantity() == 0) {
        os << "No objects currently being monitored...\n";
        return;
    }
    os << "First tag: " << Registry->first()->myObjectTag() << '\n';
    os << "Last tag:  " << Registry->last()->myObjectTag() << '\n';
    os << "Total still resident: " << Registry->Quantity() << '\n';
    os << "*** Dump of all Monitored Objects ***\n";
    for (unsigned i = 0; Registry != nullptr && i < Registry->Quantity(); i++) {
        MonitoredObject* object = (*Registry)[static_cast<int>(i)];
        os << "\n\n*** Begin dump of object tag: " << object->myObjectTag() << '\n';
        os.flush(); // so that the dump shows where the process was when it ends here
        object->dumpOn(os);
        os << "\n*** End dump of object tag:   " << object->myObjectTag() << '\n';
    }
    os << "*** End Dump of all Monitored Objects ***\n";
}

void MonitoredObject::Register()
{
    RequestsHeld held;
    if (Registry == nullptr) {
        Registry = new (std::nothrow) MonitoredObjectSafeArray;
        if (Registry == nullptr)
            return;
        Registry->SetPurgeMode(1);
        InstallHandlers();
    }
    Registry->AddItem(this);
    Registry->ShrinkToFit();
}

void MonitoredObject::InstallHandlers()
{
    if (isCapturing) // what the capture constructs must not undo the capture's own handlers
        return;
    svr4::use_alternate_stack();
    tzset(); // reads the time zone now: a handler may find the heap in pieces
    for (const int sig : kTerminateSignals)
        HandleAlone(sig, sigterm, 0);
    for (const int sig : kCaptureSignals)
        svr4::capture_signal(sig, sigrestart);
    HandleAlone(SIGUSR1, sigusr, 0);
}

// The index of the first object with a tag above `tag`; Quantity() when there is none.
unsigned MonitoredObject::IndexBehind(long tag)
{
    unsigned low = 0, high = Registry->Quantity();
    while (low < high) {
        const unsigned middle = low + (high - low) / 2;
        if ((*Registry)[static_cast<int>(middle)]->ObjectTag <= tag)
            low = middle + 1;
        else
            high = middle;
    }
    return low;
}

// Calls `operation` for every object. The operations may construct and destroy objects: each object there is at the
// beginning is called once if it is still there, and new ones are not called.
void MonitoredObject::ForEach(void (MonitoredObject::*operation)(int), int sig)
{
    const long end = InstanceCounter;
    for (long tag = -1; Registry != nullptr;) {
        MonitoredObject* object = (*Registry)[static_cast<int>(IndexBehind(tag))];
        if (object == nullptr || object->ObjectTag >= end)
            return;
        tag = object->ObjectTag;
        (object->*operation)(sig);
    }
}

void MonitoredObject::sigterm(int sig)
{
    ForEach(&MonitoredObject::SigTermProc, sig);
    exit(0);
}

void MonitoredObject::sigusr(int sig)
{
    const int savedErrno = errno;
    if (DumpStateFileName != nullptr) {
        SignalFile file(DumpStateFileName, O_TRUNC);
        if (file.IsOpen()) {
            file << "SIGNAL " << sig << " caught...initiating dump...\n";
            DumpState(file);
            file.Close();
        }
    }
    HandleAlone(SIGUSR1, sigusr, 0);
    errno = savedErrno;
}

void MonitoredObject::sigrestart(int sig)
{
    isCapturing = 1;
    const sigset_t requests = RequestSignals();
    sigprocmask(SIG_BLOCK, &requests, nullptr);

    lastSignal = sig;
    umask(0);
    if (HandleAlone(sig, sigexit, SA_ONSTACK) != 0)
        ExitWithError("sigrestart's sigexit setup failed. ", errno, sig);
    if (sig != SIGXCPU) {
        sigset_t own;
        sigemptyset(&own);
        sigaddset(&own, sig);
        if (sigprocmask(SIG_UNBLOCK, &own, nullptr) != 0)
            ExitWithError("sigprocmask SIG_UNBLOCK setup failed. ", errno, sig);
    }
    StandardError() << "\n\nError: " << Dates::GetDateTime() << ". SIGNAL " << sig << " detected....\n";

    CheckLooping(sig);
    CaptureState(sig);
    ForEach(&MonitoredObject::SigTermProc, sig);
    ForEach(&MonitoredObject::SigRestartProc, sig);
    create_core();
}
