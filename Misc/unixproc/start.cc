// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/unixproc/start.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <poll.h>
#include <unistd.h>

#include "Misc/Error.h"
#include "Misc/detail/limits.h"
#include "Misc/detail/paths.h"
#include "Misc/detail/standardstreams.h"
#include "Misc/detail/text.h"
#include "Misc/mobject.h"
#include "Misc/proginfo.h"
#include "svr4/errno.h"
#include "svr4/process.h"
#include "svr4/signal.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: unixproc.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace zeloo {

static const char Failed[] = "exec() failed attempting: ";
static const int DescriptionLength = 149; // that of a report
static const int MostMilliseconds = 1000; // for standard error to take a report

// The time of a report. Its buffers are not those that programs get texts and times in.
static void FormatNow(char (&text)[25])
{
    const time_t now = time(nullptr);
    struct tm local = {};
    tzset();
    localtime_r(&now, &local);
    std::strftime(text, sizeof text, "%m/%d/%Y %H:%M:%S", &local);
}

ExecReport::ExecReport(const char* command)
    : isShown(std::cerr.good()), program(TextOrEmpty(ProgInfo::GetFullProgramName()))
{
    const svr4::SavedErrno savedErrno;
    char now[25];
    FormatNow(now);
    std::snprintf(head, sizeof head, "\nErrorReporter: %s  Total Error Count= %d\n  Program=", now,
                  ErrorReporter::GetErrorCount() + 1);
    std::snprintf(type, sizeof type, "\n  Severity Level=%s\n  Error Type= %s\n  Error Code= ",
                  ErrorReporter::GetErrorSeverity(ErrorReporter::WARNING),
                  ErrorReporter::GetErrorType(ErrorReporter::EXEC_FAILED));
    std::snprintf(tail, sizeof tail, "\n  Module= %.59s\n  Line= %d\n  Description= %s%.*s\n\n", ModuleId(), __LINE__,
                  Failed, DescriptionLength - int(sizeof Failed - 1), command);

    isTranslated = std::strcmp(ErrorReporter::GetErrorDesc(ENOENT), svr4::known_error_text(ENOENT)) != 0;
    for (short error = 0; isTranslated && error < Errors; error++)
        translations[error] = ErrorReporter::GetErrorDesc(error);
}

namespace {

// Collects a text and writes it to standard error in as few pieces as can be written whole or not at all.
class BoundedOutput {
public:
    void Put(const char* text)
    {
        for (; *text != '\0'; text++) {
            if (used == sizeof block)
                Flush();
            block[used++] = *text;
        }
    }
    void Flush()
    {
        struct pollfd room = {STDERR_FILENO, POLLOUT, 0};
        if (poll(&room, 1, MostMilliseconds) == 1)
            (void)!write(STDERR_FILENO, block, used); // there is nobody to tell that it failed
        used = 0;
    }

private:
    char block[PIPE_BUF];
    size_t used = 0;
};

} // namespace

// Writes a number into `text`.
static void FormatNumber(int number, char (&text)[12])
{
    char* at = text + sizeof text - 1;
    *at = '\0';
    do
        *--at = static_cast<char>('0' + number % 10);
    while ((number /= 10) != 0);
    std::memmove(text, at, static_cast<size_t>(text + sizeof text - at));
}

void ExecReport::Write(int error) const
{
    if (!isShown)
        return;
    const char* text = isTranslated && error < Errors ? translations[error] : svr4::known_error_text(error);
    char number[12];
    FormatNumber(error, number);
    BoundedOutput output;
    output.Put(head);
    output.Put(program);
    output.Put(type);
    output.Put(number);
    output.Put(" : ");
    if (text == nullptr) {
        output.Put("Unknown error ");
        text = number;
    }
    output.Put(text);
    output.Put(tail);
    output.Flush();
}

CommandStart::CommandStart(const char* const* argv_p, const char* command, const int* ends_p)
    : argv(argv_p), ends(ends_p), pipeFailed(false), report(command)
{
}

bool CommandStart::Run(long* pid)
{
    size_t arguments = 0;
    while (argv[arguments] != nullptr)
        arguments++;
    *pid = -1;
    return svr4::spawn(*this, arguments, pid) != -1;
}

// Makes the end `to` of a pipe the standard output. Both may have its place already, where the parent has closed its own.
static bool WriteInto(int from, int to)
{
    close(from);
    return to == STDOUT_FILENO || (dup2(to, STDOUT_FILENO) == STDOUT_FILENO && close(to) == 0);
}

int CommandStart::LeaveParent()
{
    MonitoredObject::UnMonitor();
    svr4::signal(SIGCLD, SIG_IGN);
    if (ends != nullptr && !WriteInto(ends[0], ends[1])) {
        pipeFailed = true;
        return errno;
    }
    for (int fd = 3; ends == nullptr && fd < DescriptorLimit; fd++)
        close(fd);
    svr4::setpgrp();
    return 0;
}

void CommandStart::BecomeProgram()
{
    svr4::execvp(argv[0], const_cast<char* const*>(argv));
    report.Write(errno);
    const char* blank[] = {"sh", "-c", " ", nullptr};
    svr4::execvp(Shell, const_cast<char* const*>(blank));
}

} // namespace zeloo
