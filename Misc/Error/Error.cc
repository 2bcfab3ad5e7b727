// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/Error.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <syslog.h>

#include "Misc/Dates.h"
#include "Misc/Error/report.h"
#include "Misc/detail/standardstreams.h"
#include "Misc/detail/text.h"
#include "Misc/proginfo.h"
#include "svr4/errno.h"

using zeloo::CopyText;
using zeloo::NewFormatted;
using zeloo::TextOrEmpty;

[[maybe_unused]] static const char* ModuleId() { return "$Id: Error.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

short ErrorReporter::ReturnStatus = 0;
int ErrorReporter::ErrorCount = 0;
short ErrorReporter::ErrType = 0;
short ErrorReporter::ErrorCode = 0;
char ErrorReporter::ModuleName[60];
char ErrorReporter::Description[150];
char ErrorReporter::TimeStamp[25];
long ErrorReporter::Line = 0;

static const char Reserved[] = "This error code is reserved";

// The messages of the types OUT_OF_MEMORY to MISCONFIGURATION_NODES; programs and logs rely on their exact wording.
static const char* const Messages[] = {
    "Memory allocation failed.",
    "Failed to open a file.",
    Reserved,
    "System call link() failed.",
    "System call unlink() failed.",
    "Failed to read from a file.",
    "Failed to write to a file.",
    "Fault to open a pipe.",
    Reserved,
    "Error occurred while reading from pipe.",
    "OTHER",
    "Error occurred while processing thresholds.",
    "Invalid data was encountered.",
    Reserved,
    Reserved,
    Reserved,
    "An invalid transition was encountered.",
    "An invalid state was encountered.",
    "An invalid fault ID was encountered.",
    "An invalid recommendation ID was encountered.",
    Reserved,
    "The requested SSS is not in the knowledge library.",
    "The SSSIndex file does not exist or cannot be opened.",
    Reserved,
    "The SSSBase file does not exist or cannot be opened.",
    "Version number is not greater than installed version.",
    "A new SSSIndex file could not be created.",
    "A new SSSBase file could not be created.",
    "The requested data was not found in the SSS.",
    Reserved,
    Reserved,
    Reserved,
    Reserved,
    Reserved,
    "Permission denied.",
    "An undefined option was read - used default value.",
    Reserved,
    "An unsupported feature was encountered.",
    "Bad ipc response event received.",
    "Recommendation record list already exists.",
    "Server is busy and has queued the termination request.",
    "An invalid SFR command was encountered - ignored.",
    "Recommendation template variable has no value.",
    "Insufficient number of arguments to a CLIPS user function.",
    "System call fork() failed",
    "System call exec() failed",
    "Cannot find the data item, it does not exist.",
    "Cannote create a directory: system call mkdirp failed.",
    "This feature does not work properly",
    "Errors occurred when running CLIPS",
    "An ipc message queue error occurred",
    "The ipc queue max size is too small (MSGMNB).",
    "A tcp error occurred",
    "Invalid SFR file",
    "Invalid SSS file",
    "server process no longer exists.",
    "connection to server has been lost.",
    "process to send message to no longer exists.",
    "process to receive message from no longer exists.",
    "time out waiting for response.",
    "time out sending message.",
    "Detected too many faults - new faults are ignored.",
    "The SFR file for an active fault has been deleted - fault disposed.",
    "This fault currently has no outstanding recommendations.",
    "Fault database created by a different server version.",
    "Child process run time exceeded max time to run.",
    "File System Full.",
    "Invalid IPC event parameter received.",
    "Failed to contact Kelvaro via modem.",
    "Attempt to propagate client package failed.",
    "Attempt to memory load awk pattern failed.",
    "request for service was rejected.",
    "Customer information is needed to contact Kelvaro",
    "State action unable to be executed",
    "Failed to contact Kelvaro via network.",
    "Failed to lock necessary files.",
    "Received a package from Remote Support",
    "Move of KBASE file from install directory failed",
    "Received a file from Remote Support",
    "Already communicating with Brantel Remote Support.",
    "Monitoring reenabled.",
    "Monitoring off.",
    "Receiving fault message from an invalid node",
};
static_assert(sizeof Messages / sizeof *Messages ==
                  ErrorReporter::MISCONFIGURATION_NODES - ErrorReporter::OUT_OF_MEMORY + 1,
              "every error type has a message");

static const char* ProgramName() { return TextOrEmpty(ProgInfo::GetFullProgramName()); }

ErrorReporter::ErrorReporter() : DisplayInfo(1)
{
    // Intended: making a reporter, also as the base of another object, clears both.
    errno = 0;
    ReturnStatus = 0;
}

ErrorReporter::~ErrorReporter() {}

void ErrorReporter::_ReportError(short const sev, short const errorkind, char const* description, char const* moduleid,
                                 long const theLine) const
{
    _ReportErrorExt(sev, errorkind, description, moduleid, theLine, "");
}

// Writes to standard error, and goes on where a signal has interrupted that: else the rest of this text, and with a stream
// that has failed all later reports, would be lost when one came while a slow reader was waited for. UBSan needs a
// descriptor to check the type of the stream's buffer: there may be none.
__attribute__((no_sanitize("vptr"))) static void WriteWhole(const char* text, std::streamsize length)
{
    const std::ostream::sentry ready(std::cerr);
    while (ready && length > 0) {
        errno = 0;
        const std::streamsize written = std::cerr.rdbuf()->sputn(text, length);
        if (written < length && errno != EINTR) {
            std::cerr.setstate(std::ios::badbit);
            return;
        }
        text += written;
        length -= written;
    }
}

static void WriteWhole(const char* text) { WriteWhole(text, static_cast<std::streamsize>(strlen(text))); }

[[noreturn]] static void Panic()
{
    WriteWhole("********************************************\n"
               "Fatal Error detected...Exiting ");
    WriteWhole(ProgramName());
    WriteWhole(" program\n"
               "********************************************\n");
    abort();
}

void ErrorReporter::_ReportErrorExt(short const sev, short const errorkind, char const* description,
                                    char const* moduleid, long const theLine, char const* addition) const
{
    const svr4::SavedErrno savedErrno; // before any call can change it
    ErrorCode = static_cast<short>(savedErrno.Value());
    CopyText(TimeStamp, Dates::GetDateTime());
    ErrType = errorkind;
    CopyText(Description, description);
    CopyText(ModuleName, moduleid);
    Line = theLine;
    ReturnStatus = sev;
    ErrorCount++;
    Display();

    if (sev == NOTICE_WITH_LOG || sev == WARNING_WITH_LOG || sev == PANIC) {
        const char* more = TextOrEmpty(addition);
        const auto text = NewFormatted("errno=%d, %s|%s|%s%s%s", ErrorCode, GetErrorDesc(ErrorCode),
                                       GetErrorType(ErrType), TextOrEmpty(description), *more != '\0' ? "|" : "", more);
        errno = savedErrno.Value(); // a %m in the text means the error that is reported
        if (text != nullptr)
            MakeErrorLogEntry(sev, errorkind, text.get(), moduleid, theLine);
    }
    if (sev == PANIC)
        Panic();
}

void ErrorReporter::Display() const
{
    if (DisplayInfo == 0 || !std::cerr.good())
        return;
    // Built without allocation, since it may be the lack of memory that is reported, and written in few pieces. Only
    // the program name has no limit of its own; it goes between them.
    char text[1024];
    int length =
        snprintf(text, sizeof text, "\nErrorReporter: %s  Total Error Count= %d\n  Program=", TimeStamp, ErrorCount);
    WriteWhole(text, length);
    WriteWhole(ProgramName());

    char code[200];
    if (ErrorCode != 0)
        snprintf(code, sizeof code, "%d : %s", ErrorCode, GetErrorDesc(ErrorCode));
    else
        CopyText(code, ReturnStatus != 0 ? "Application Error." : "No Error.");
    length = snprintf(text, sizeof text,
                      "\n  Severity Level=%s\n  Error Type= %s\n  Error Code= %s\n  Module= %s\n  Line= %ld\n"
                      "  Description= %s\n\n",
                      GetErrorSeverity(ReturnStatus), GetErrorType(ErrType), code, ModuleName, Line, Description);
    WriteWhole(text, length);
}

// One logged report: tag, type, version, cause, severity, level, node and processor number, bus type, bus and slot
// number, software module, temperature, voltage, speed and count; then program and description. Most are constant.
static const char LogFormat[] = "%d|Appl|1|S|%c|1|0|0|0|0|0|%s|0|0|0|1#%s %s|%s";

static char SeverityLetter(short severity)
{
    if (severity == ErrorReporter::PANIC)
        return 'F';
    return severity == ErrorReporter::WARNING || severity == ErrorReporter::WARNING_WITH_LOG ? 'W' : 'I';
}

// The source file's name in a module identification: what stands between its first blank and the comma behind it.
static void CopySoftwareModule(char (&field)[24], const char* moduleid)
{
    const char* blank = strchr(moduleid, ' ');
    CopyText(field, blank != nullptr ? blank + 1 : "Unknown");
    if (blank != nullptr)
        field[strcspn(field, ",")] = '\0';
}

// A copy of `line` for use as a format without arguments: %% and %m stay as they are, any other % is doubled and so
// stands for itself. Null when memory fails.
static std::unique_ptr<char[]> NewFormatOf(const char* line)
{
    std::unique_ptr<char[]> format(new (std::nothrow) char[2 * strlen(line) + 1]);
    if (format == nullptr)
        return nullptr;
    char* to = format.get();
    for (const char* from = line; *from != '\0'; from++) {
        *to++ = *from;
        if (*from != '%')
            continue;
        if (from[1] == '%' || from[1] == 'm')
            *to++ = *++from;
        else
            *to++ = '%';
    }
    *to = '\0';
    return format;
}

// Sends one record. The line is the format: the host puts in the text of `error` where it says %m.
static void SendToLog(const char* line, int error)
{
    const auto format = NewFormatOf(line);
    if (format == nullptr)
        return;
    openlog(ProgInfo::GetProgramName(), 0, LOG_USER);
    errno = error;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    syslog(LOG_INFO, format.get());
#pragma GCC diagnostic pop
    closelog();
}

void ErrorReporter::MakeErrorLogEntry(short const SeverityLevel, int const ErrCode, char const* Description,
                                      char const* ModuleName, long const theLine) const
{
    const svr4::SavedErrno savedErrno;
    const uint32_t tag = 410000000u + 10000u * static_cast<uint32_t>(ErrCode) + static_cast<uint32_t>(theLine);
    char softwareModule[24];
    CopySoftwareModule(softwareModule, TextOrEmpty(ModuleName));
    const auto line = NewFormatted(LogFormat, static_cast<int32_t>(tag), SeverityLetter(SeverityLevel), softwareModule,
                                   ProgramName(), ProgInfo::GetLongVersion(), TextOrEmpty(Description));
    if (line != nullptr)
        SendToLog(line.get(), savedErrno.Value());
}

short ErrorReporter::GetErrorCode() { return ErrorCode; }

const char* ErrorReporter::GetErrorType(short type)
{
    return type >= OUT_OF_MEMORY && type <= MISCONFIGURATION_NODES ? Messages[type - OUT_OF_MEMORY] : "NOT_SPECIFIED";
}

const char* ErrorReporter::GetErrorSeverity(short severity)
{
    static const char* const names[] = {"NOTICE", "NOTICE_WITH_LOG", "WARNING", "WARNING_WITH_LOG", "PANIC"};
    return severity >= NOTICE && severity <= PANIC ? names[severity] : "UNRECOGNIZED";
}

const char* ErrorReporter::GetErrorDesc(short errcode) { return strerror(errcode); }

short ErrorReporter::SetReturnStatus(short status) { return ReturnStatus = status; }

short ErrorReporter::GetReturnStatus() { return ReturnStatus; }

void ErrorReporter::ClearError()
{
    errno = 0;
    ErrorCode = 0;
}

int ErrorReporter::GetErrorCount() { return ErrorCount; }

void ErrorReporter::dumpErrorCodesOn(std::ostream& os)
{
    os << "\nDump of all error codes and general messages from ErrorReporter:\n";
    for (short code = OUT_OF_MEMORY; code <= MISCONFIGURATION_NODES; code++) {
        char line[128];
        snprintf(line, sizeof line, "%4d\t%s\n", code, GetErrorType(code));
        os << line;
    }
    os << "End of ErrorReporter dump.\n";
}
