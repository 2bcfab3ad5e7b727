#include "svr4/tli.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <sys/uio.h>
#include <unistd.h>

#include "svr4/errno.h"
#include "svr4/tli/endpoint.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: tli.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

int t_errno = 0;

tli::Failure tli::Fail(int code)
{
    t_errno = code;
    return {};
}

tli::Failure tli::FailSystem(int error)
{
    errno = error;
    return Fail(TSYSERR);
}

tli::Failure tli::FailAddress(int error)
{
    switch (error) {
    case EADDRINUSE: return Fail(TADDRBUSY);
    case EACCES:
    case EPERM: return Fail(TACCES);
    default: return FailSystem(error);
    }
}

void t_error(const char* errmsg)
{
    const SavedErrno savedErrno;
    struct iovec parts[6];
    int count = 0;
    const auto add = [&](const char* text) { parts[count++] = {const_cast<char*>(text), strlen(text)}; };
    if (errmsg != nullptr && *errmsg != '\0') {
        add(errmsg);
        add(": ");
    }
    add(t_strerror(t_errno));
    if (t_errno == TSYSERR) {
        add(": ");
        add(strerror(savedErrno.Value()));
    }
    add("\n");
    if (writev(STDERR_FILENO, parts, count) < 0) {
        // There is nowhere else to say it.
    }
}

const char* t_strerror(int errnum)
{
    static const char* const texts[] = {
        "No Error",
        "Incorrect address format",
        "Incorrect options format",
        "Illegal permissions",
        "Illegal file descriptor",
        "Couldn't allocate address",
        "Routine will place interface out of state",
        "Illegal called/calling sequence number",
        "System error",
        "An event requires attention",
        "Illegal amount of data",
        "Buffer not large enough",
        "Can't send message - (blocked)",
        "No message currently available",
        "Disconnect message not found",
        "Unitdata error message not found",
        "Incorrect flags specified",
        "Orderly release message not found",
        "Primitive not supported by provider",
        "State is in process of changing",
        "Unsupported structure type requested",
        "Invalid transport provider name",
        "Listener queue length limit is zero",
        "Transport address is in use",
        "Outstanding connection indications exist",
        "Listener-acceptor transport provider mismatch",
        "Connection acceptor has listen queue length limit greater than zero",
        "Connection acceptor-listener addresses not same but required by transport",
        "Incoming connection queue is full",
        "Protocol error on transport primitive",
    };
    constexpr int Count = static_cast<int>(sizeof texts / sizeof *texts);
    static_assert(Count == TPROTO + 1, "a text for every code");
    if (errnum >= 0 && errnum < Count)
        return texts[errnum];
    static char unknown[32];
    snprintf(unknown, sizeof unknown, "%d: error unknown", errnum);
    return unknown;
}

} // namespace svr4
